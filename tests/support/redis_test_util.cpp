// Built into every test binary that talks to Redis (see redis_test_util.h).

// Under AddressSanitizer, record allocation stacks with the slow unwinder:
// Debian's libhiredis is built without frame pointers, so the fast one stops
// inside hiredis and a leak's stack never reaches the library functions that
// tests/lsan.supp names. (The runtime looks this hook up by name, hence
// default visibility.) Unused in other builds.
extern "C" __attribute__((visibility("default"), used)) const char* __asan_default_options() {
  return "fast_unwind_on_malloc=0";
}
