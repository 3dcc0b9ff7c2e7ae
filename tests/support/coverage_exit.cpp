// Linked into the tests of coverage builds only, with -Wl,--wrap=_exit:
// children that tests fork end with _exit, which skips the exit handler that
// writes libgcov's counters, so the wrapper writes them first.
extern "C" void __gcov_dump(void);
extern "C" [[noreturn]] void __real__exit(int status);

extern "C" [[noreturn]] void __wrap__exit(int status) {
  __gcov_dump();
  __real__exit(status);
}
