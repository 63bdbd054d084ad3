/* Watching and disturbing what the plug-in asks of Cocoa, for tests.
 *
 * Off, it costs one load a call. Between faults_start and faults_stop every message that the
 * plug-in sends through objc_msgSend and its kin to an object that is not nil is counted, and so
 * is every call of a function of this library that may fail (malloc and calloc among them).
 *
 * Threads: the settings are one set for the process; counting is exact on any number of threads.
 * With FAULTS_THIS_THREAD only calls of the thread that called faults_start take part.
 */
#pragma once

#include <stdbool.h>

#include <objc/objc.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum { FAULTS_ALL_THREADS, FAULTS_THIS_THREAD } faults_scope;

/* What a message throws instead of being delivered. */
typedef enum {
  FAULTS_NSEXCEPTION, /* an NSException, autoreleased, named FAULTS_EXCEPTION_NAME */
  FAULTS_OTHER_OBJECT /* an autoreleased object that is no NSException */
} faults_thrown;

#define FAULTS_EXCEPTION_NAME "TestbedFault"

/* Sets every count to 0, forgets every planned failure, and begins. Keeps the hooks. */
void faults_start(faults_scope scope);

/* Ends it. Counts stay readable. */
void faults_stop(void);

/* Messages since faults_start. */
unsigned long faults_messages(void);

/* The NTH message from faults_start on (1 is the first) throws, once. 0 plans none. */
void faults_fail_message(unsigned long nth, faults_thrown what);

/* Calls of the function since faults_start; of all counted functions when NAME is NULL. */
unsigned long faults_calls(const char* name);

/* The NTH call from faults_start on fails, once: it answers null, false or an error code, as the
 * function does when it fails by itself. NULL counts the calls of all functions together. A
 * function has one plan; 0 drops it. */
void faults_fail_call(const char* name, unsigned long nth);

/* How many planned failures have happened since faults_start. */
unsigned long faults_fired(void);

/* Called for every counted message before it is delivered, and for every counted function call
 * before it runs; NULL switches it off. Runs on the calling thread; must not throw. Without
 * faults_start it is never called. */
typedef void (*faults_message_hook)(void* context, id receiver, SEL selector);
typedef void (*faults_call_hook)(void* context, const char* name);
void faults_on_message(faults_message_hook hook, void* context);
void faults_on_call(faults_call_hook hook, void* context);

#ifdef __cplusplus
}
#endif
