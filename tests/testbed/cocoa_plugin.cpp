#include "cocoa_plugin.h"

#include <new>

extern "C" {
typedef plugin_id id;
typedef struct objc_selector* SEL;
typedef struct objc_class* Class;
typedef struct objc_ivar* Ivar;
typedef id (*IMP)(id, SEL, ...);
struct objc_super {
  id receiver;
  Class super_class;
};
struct frame {
  int buffer[18];
  void* pointers[4];
};

Class objc_getClass(const char*);
id objc_getProtocol(const char*);
Class objc_allocateClassPair(Class, const char*, uint32_t);
void objc_registerClassPair(Class);
signed char class_addIvar(Class, const char*, uint32_t, uint8_t, const char*);
signed char class_addMethod(Class, SEL, IMP, const char*);
signed char class_addProtocol(Class, id);
Ivar class_getInstanceVariable(Class, const char*);
Class object_getClass(id);
int ivar_getOffset(Ivar);
SEL sel_registerName(const char*);
void objc_msgSend();
void objc_msgSend_fpret();
void objc_msgSend_stret();
void objc_msgSendSuper();
void objc_exception_try_enter(frame*);
void objc_exception_try_exit(frame*);
id objc_exception_extract(frame*);
int objc_exception_match(Class, id);
[[noreturn]] void objc_exception_throw(id);
int _setjmp(int*) __attribute__((returns_twice));
void NSLog(id, ...);
void* malloc(uint32_t);
void* calloc(uint32_t, uint32_t);
}

namespace {

template <class Function> Function* as(void (*entry)()) {
  return reinterpret_cast<Function*>(entry);
}

__attribute__((noinline)) void run(void (*body)(void*), void* context) { body(context); }

Class class_of(id object) { return object_getClass(object); }

Class made;
int value_offset;

int& value_of(id self) {
  return *reinterpret_cast<int*>(reinterpret_cast<char*>(self) + value_offset);
}

int answer(id self, SEL) { return value_of(self); }
void set_answer(id self, SEL, int value) { value_of(self) = value; }
id perform(id, SEL, id target) {
  return as<id(id, SEL)>(objc_msgSend)(target, sel_registerName("perform"));
}
id throw_object(id, SEL, id thrown) { objc_exception_throw(thrown); }
double half(id, SEL, double value) { return value / 2; }
uint32_t sum(id, SEL, uint32_t a, uint32_t b, uint32_t c, uint32_t d, uint32_t e, uint32_t f,
             uint32_t g, uint32_t h, uint32_t i, uint32_t j) {
  return a + 2 * b + 3 * c + 4 * d + 5 * e + 6 * f + 7 * g + 8 * h + 9 * i + 10 * j;
}
signed char is_equal(id self, SEL selector, id other) {
  objc_super super = {self, objc_getClass("NSObject")};
  return as<signed char(objc_super*, SEL, id)>(objc_msgSendSuper)(&super, selector, other);
}

} // namespace

extern "C" {

uint64_t plugin_send(id object, const char* selector, uint32_t a, uint32_t b, uint32_t c) {
  return as<uint64_t(id, SEL, uint32_t, uint32_t, uint32_t)>(objc_msgSend)(
      object, sel_registerName(selector), a, b, c);
}

double plugin_send_fp(id object, const char* selector, uint32_t a, uint32_t b, uint32_t c) {
  return as<double(id, SEL, uint32_t, uint32_t, uint32_t)>(objc_msgSend_fpret)(
      object, sel_registerName(selector), a, b, c);
}

void plugin_send_rect(id object, const char* selector, plugin_rect* result) {
  *result = as<plugin_rect(id, SEL)>(objc_msgSend_stret)(object, sel_registerName(selector));
}

// Twelve bytes between two guards, for a layer that writes more than the struct.
void plugin_send_triple(id object, const char* selector, plugin_triple* result) {
  struct {
    uint32_t before = 0x5AFE5AFE;
    plugin_triple inside = {-1, -1, -1};
    uint32_t after = 0x5AFE5AFE;
  } space;
  auto send = as<plugin_triple(id, SEL)>(objc_msgSend_stret);
  new (&space.inside) plugin_triple(send(object, sel_registerName(selector))); // straight into it
  if (space.before != 0x5AFE5AFE || space.after != 0x5AFE5AFE) __builtin_trap();
  *result = space.inside;
}

uint64_t plugin_send_super(id object, const char* class_name, const char* selector) {
  objc_super super = {object, objc_getClass(class_name)};
  return as<uint64_t(objc_super*, SEL)>(objc_msgSendSuper)(&super, sel_registerName(selector));
}

uint32_t plugin_send_ten(id object, const char* selector, const uint32_t* t) {
  return as<uint32_t(id, SEL, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                     uint32_t, uint32_t, uint32_t)>(objc_msgSend)(
      object, sel_registerName(selector), t[0], t[1], t[2], t[3], t[4], t[5], t[6], t[7], t[8],
      t[9]);
}

id plugin_guard(void (*body)(void*), void* context) {
  frame here;
  objc_exception_try_enter(&here);
  if (_setjmp(here.buffer)) return objc_exception_extract(&here);
  run(body, context);
  objc_exception_try_exit(&here);
  return nullptr;
}

id plugin_guard_class(void (*body)(void*), void* context, id wanted) {
  frame here;
  objc_exception_try_enter(&here);
  if (_setjmp(here.buffer)) {
    id thrown = objc_exception_extract(&here);
    if (!objc_exception_match(reinterpret_cast<Class>(wanted), thrown))
      objc_exception_throw(thrown);
    return thrown;
  }
  run(body, context);
  objc_exception_try_exit(&here);
  return nullptr;
}

struct nested {
  void (*in_inner)(void*);
  void (*in_handler)(void*);
  void (*after_inner)(void*);
  void* context;
  id* what;
  int reached;
};

static void outer_body(void* context) {
  auto* all = static_cast<nested*>(context);
  if (id thrown = plugin_guard(all->in_inner, all->context)) {
    *all->what = thrown;
    all->reached = 1;
    if (all->in_handler) all->in_handler(all->context);
  }
  if (all->after_inner) all->after_inner(all->context);
}

int plugin_nested_guards(void (*in_inner)(void*), void (*in_handler)(void*),
                         void (*after_inner)(void*), void* context, id* what) {
  nested all = {in_inner, in_handler, after_inner, context, what, 0};
  if (id thrown = plugin_guard(outer_body, &all)) {
    *what = thrown;
    return 2 + all.reached;
  }
  return all.reached;
}

void plugin_throw(id thrown) { objc_exception_throw(thrown); }

void plugin_leave_frame_open() {
  frame here;
  objc_exception_try_enter(&here);
}

void plugin_exit_twice() {
  frame here;
  objc_exception_try_enter(&here);
  objc_exception_try_exit(&here);
  objc_exception_try_exit(&here);
}

int plugin_add(int a, int b) { return a + b; }
double plugin_half(double value) { return value / 2; }
float plugin_half_float(float value) { return value / 2; }
long long plugin_shift(long long value, int bits) { return value << bits; }

// Where the arguments begin, modulo 16: 0 is what compilers for Mac OS X rely on.
__attribute__((noinline)) uint32_t plugin_stack_alignment(uint32_t, uint32_t, uint32_t) {
  return (reinterpret_cast<uint32_t>(__builtin_frame_address(0)) + 8) % 16;
}

void plugin_call(void (*body)(void*), void* context) { run(body, context); }

void plugin_log(id format, id argument) { NSLog(format, argument); }

void* plugin_malloc(uint32_t size) { return malloc(size); }
void* plugin_calloc(uint32_t count, uint32_t size) { return calloc(count, size); }

id plugin_make_class(const char* name, const char* protocol) {
  made = objc_allocateClassPair(objc_getClass("NSObject"), name, 0);
  class_addIvar(made, "value", 4, 2, "i");
  auto add = [](const char* selector, auto function, const char* types) {
    class_addMethod(made, sel_registerName(selector), reinterpret_cast<IMP>(function), types);
  };
  add("answer", answer, "i8@0:4");
  add("setAnswer:", set_answer, "v12@0:4i8");
  add("perform:", perform, "@12@0:4@8");
  add("throwObject:", throw_object, "@12@0:4@8");
  add("half:", half, "d16@0:4d8");
  add("sum:b:c:d:e:f:g:h:i:j:", sum, "I48@0:4I8I12I16I20I24I28I32I36I40I44");
  add("isEqual:", is_equal, "c12@0:4@8");
  if (id found = objc_getProtocol(protocol)) class_addProtocol(made, found);
  objc_registerClassPair(made);
  value_offset = ivar_getOffset(class_getInstanceVariable(made, "value"));
  return reinterpret_cast<id>(made);
}

int plugin_add_struct_method(id target) {
  return class_addMethod(reinterpret_cast<Class>(target), sel_registerName("pair"),
                         reinterpret_cast<IMP>(answer), "{_NSRange=II}8@0:4");
}

int plugin_ivar_offset(id target) {
  return ivar_getOffset(class_getInstanceVariable(class_of(target), "value"));
}
}
