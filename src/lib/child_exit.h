// Ends a forked child without running the parent's clean-up.
#ifndef VELMORA_SRC_LIB_CHILD_EXIT_H_
#define VELMORA_SRC_LIB_CHILD_EXIT_H_

#include <unistd.h>

#ifdef VELMORA_COVERAGE
// libgcov writes its counters from an atexit handler, which _exit skips.
extern "C" void __gcov_dump(void);
#endif

namespace velmora {

[[noreturn]] inline void ChildExit(int status) {
#ifdef VELMORA_COVERAGE
  __gcov_dump();
#endif
  _exit(status);
}

}  // namespace velmora

#endif  // VELMORA_SRC_LIB_CHILD_EXIT_H_
