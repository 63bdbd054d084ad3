/* The border between the plug-in (Apple's old i386 exception frames, unwound by longjmp) and
 * native GNUstep code (unwound by its DWARF tables).
 *
 * Plug-in code has no unwind tables, so a native unwind must never pass through it; a longjmp must
 * never pass native frames, whose @catch and @finally would not run. Every thread therefore keeps
 * one stack of marks, newest on top: the plug-in's exception frames, a "native" mark for each call
 * out of the plug-in, and a "bundle" mark for each call into it. Whoever calls across the border
 * uses a function of this header; objc_msgSend and the other functions of this library, called by
 * the plug-in, cross by themselves.
 *
 * Threads: everything here may be called on any thread, and each thread has marks of its own.
 * Ownership: nothing is retained; a thrown object keeps the ownership its thrower gave it.
 * Errors: leaving the plug-in with one of its exception frames still open, and throwing out of the
 * plug-in when it was entered by none of these functions, ends the process with a message.
 * C++ exceptions must not cross.
 */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* native -> plug-in. Calls the plug-in's cdecl FUNCTION with COUNT 32-bit stack words and answers
 * edx:eax (the low word alone for results of 32 bits or less). What FUNCTION throws comes out as a
 * native Objective-C throw. Not for functions that answer a struct. */
uint64_t crossing_enter(void* function, const uint32_t* words, unsigned count);

/* The same for functions that answer float or double. */
double crossing_enter_fp(void* function, const uint32_t* words, unsigned count);

/* plug-in -> native. Runs body(context). A native Objective-C throw out of it goes on in the
 * plug-in: to its innermost exception frame, or, when the plug-in was entered after that, out of
 * the crossing_enter that entered it. Called by native code, it lets the throw pass natively. */
void crossing_leave(void (*body)(void* context), void* context);

/* A function that native code may call in place of the plug-in's FUNCTION (cdecl, any result but a
 * struct, at most CROSSING_WORDS words of arguments); it goes through crossing_enter. The same
 * FUNCTION always gets the same thunk. Thunks live as long as the process. */
void* crossing_thunk(void* function);

enum { CROSSING_WORDS = 12 };

#ifdef __cplusplus
}
#endif
