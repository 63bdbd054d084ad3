/* What the address sanitizer needs to know about GNUstep. Compiled into every program that links
 * testbed_cocoa_sanitizer, so that it also holds where no environment is set. */

const char* __lsan_default_suppressions(void);
const char* __lsan_default_options(void);

const char* __lsan_default_suppressions(void) {
  /* The runtime's tables of classes, selectors and methods last as long as the process; objects
   * are allocated elsewhere. */
  return "leak:objc_malloc\n"
         "leak:class_copyMethodList\n"
         /* A method signature's description of a struct is never freed. */
         "leak:cifframe_type\n";
}

const char* __lsan_default_options(void) { return "print_suppressions=0"; }
