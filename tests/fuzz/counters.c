/* Built into the plug-in that is fuzzed: where the fuzzer counts its branches. */
extern char __start___sancov_cntrs[] __attribute__((weak, visibility("hidden")));
extern char __stop___sancov_cntrs[] __attribute__((weak, visibility("hidden")));

__attribute__((visibility("default"))) void fuzz_counters(char** start, char** stop);

void fuzz_counters(char** start, char** stop) {
  *start = __start___sancov_cntrs;
  *stop = __stop___sancov_cntrs;
}
