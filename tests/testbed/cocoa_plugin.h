// A plug-in in small: what cocoa_test.mm lets stand on the other side of the border. Built like the
// real one, without unwind tables and with the wrapped names, against declarations of its own.
#pragma once

#include <stdint.h>

extern "C" {

typedef struct objc_object* plugin_id; // what Objective-C calls id

// Sends selector(a, b, c) and answers edx:eax, st(0) or the struct.
uint64_t plugin_send(plugin_id object, const char* selector, uint32_t a, uint32_t b, uint32_t c);
double plugin_send_fp(plugin_id object, const char* selector, uint32_t a, uint32_t b, uint32_t c);
struct plugin_rect {
  float x, y, width, height;
};
void plugin_send_rect(plugin_id object, const char* selector, plugin_rect* answer);
struct plugin_triple {
  int32_t a, b, c;
};
void plugin_send_triple(plugin_id object, const char* selector, plugin_triple* answer);
uint64_t plugin_send_super(plugin_id object, const char* class_name, const char* selector);
uint32_t plugin_send_ten(plugin_id object, const char* selector, const uint32_t* ten);

// Runs body(context) inside an exception frame; answers what was thrown, or null. The stack of
// frames is as before in either case.
plugin_id plugin_guard(void (*body)(void*), void* context);
// The same, but passes on what is not of the class.
plugin_id plugin_guard_class(void (*body)(void*), void* context, plugin_id wanted);
// An inner frame in an outer one. 1 + what reached the inner, 2 + the outer, by address in WHAT.
int plugin_nested_guards(void (*in_inner)(void*), void (*in_handler)(void*),
                         void (*after_inner)(void*), void* context, plugin_id* what);

void plugin_throw(plugin_id thrown);
void plugin_leave_frame_open(void);
void plugin_exit_twice(void);
int plugin_add(int a, int b);
double plugin_half(double value);
float plugin_half_float(float value);
long long plugin_shift(long long value, int bits);
uint32_t plugin_stack_alignment(uint32_t a, uint32_t b, uint32_t c);
void plugin_call(void (*body)(void*), void* context);
void plugin_log(plugin_id format, plugin_id argument);
void* plugin_malloc(uint32_t size);
void* plugin_calloc(uint32_t count, uint32_t size);

// A class made at run time, subclass of NSObject with an instance variable "value" (4 bytes):
//   answer          -> value                 setAnswer:(int)
//   perform:(id)a   -> sends "perform" to a; what that throws goes on
//   throwObject:(id)a
//   half:(double)   -> half of it
//   sum: … ten words, summed
//   isEqual:        -> sent to super
plugin_id plugin_make_class(const char* name, const char* protocol);
int plugin_add_struct_method(plugin_id target);
int plugin_ivar_offset(plugin_id target);
}
