// Linked into the tests of coverage builds only, with -Wl,--wrap=_exit:
// children that tests fork end with _exit, which skips the exit handler that
// writes libgcov's counters, so the wrapper writes them first. A child that
// lowered its descriptor limit (to make the library run out) gets it back
// first, as far as its hard limit allows, or it could not open the counter
// files.
#include <sys/resource.h>

extern "C" void __gcov_dump(void);
extern "C" [[noreturn]] void __real__exit(int status);

extern "C" [[noreturn]] void __wrap__exit(int status) {
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }
  __gcov_dump();
  __real__exit(status);
}
