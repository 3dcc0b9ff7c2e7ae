// Keeps writes to a socket whose peer has gone from raising SIGPIPE in the
// calling program. hiredis writes with write(2), which cannot be told not to
// signal; a program that did not ignore SIGPIPE would be killed by a Redis
// server that died between two commands.
#ifndef VELMORA_SRC_LIB_COMMON_SIGPIPE_GUARD_H_
#define VELMORA_SRC_LIB_COMMON_SIGPIPE_GUARD_H_

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

namespace velmora {
namespace common {

// Blocks SIGPIPE in the calling thread for its scope. Guards nest: only the
// outermost one changes the mask (two system calls in all), so one command
// with its connection check pays for one pair. After a write that failed,
// WriteFailed() marks the scope, and the outermost guard then takes back
// the SIGPIPE that write raised before it unblocks, so it is never
// delivered. A SIGPIPE pending before the guard was made would already have
// been delivered (it was not blocked), so what is found was raised inside.
// When the caller had SIGPIPE blocked already, nothing is changed or taken.
// errno is kept.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    if (depth_++ > 0) return;
    failed_ = false;
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    sigset_t old;
    restore_ = pthread_sigmask(SIG_BLOCK, &pipe_, &old) == 0 && sigismember(&old, SIGPIPE) == 0;
  }
  ~SigpipeGuard() {
    if (--depth_ > 0 || !restore_) return;
    const int saved_errno = errno;
    if (failed_) {
      const struct timespec now = {0, 0};
      while (sigtimedwait(&pipe_, nullptr, &now) == SIGPIPE) {
      }
    }
    pthread_sigmask(SIG_UNBLOCK, &pipe_, nullptr);
    errno = saved_errno;
  }
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

  // Notes that a guarded write may have failed (and raised SIGPIPE).
  static void WriteFailed() { failed_ = true; }

 private:
  sigset_t pipe_;
  bool restore_ = false;  // this guard blocked SIGPIPE and unblocks it
  static thread_local int depth_;
  static thread_local bool failed_;
};

inline thread_local int SigpipeGuard::depth_ = 0;
inline thread_local bool SigpipeGuard::failed_ = false;

}  // namespace common
}  // namespace velmora

#endif  // VELMORA_SRC_LIB_COMMON_SIGPIPE_GUARD_H_
