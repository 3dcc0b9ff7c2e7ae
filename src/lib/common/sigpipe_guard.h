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

// Blocks SIGPIPE in the calling thread for its scope. A SIGPIPE raised for
// this thread inside the scope is taken back before the old mask returns, so
// it is never delivered; one that was already pending before, or any when
// the caller had SIGPIPE blocked already, is left alone. errno is kept.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    sigset_t old;
    if (pthread_sigmask(SIG_BLOCK, &pipe_, &old) != 0 || sigismember(&old, SIGPIPE) == 1) return;
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    pending_before_ = sigismember(&pending, SIGPIPE) == 1;
    restore_ = true;
  }
  ~SigpipeGuard() {
    if (!restore_) return;
    const int saved_errno = errno;
    if (!pending_before_) {
      sigset_t pending;
      sigemptyset(&pending);
      if (sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1) {
        const struct timespec now = {0, 0};
        while (sigtimedwait(&pipe_, nullptr, &now) == SIGPIPE) {
        }
      }
    }
    pthread_sigmask(SIG_UNBLOCK, &pipe_, nullptr);
    errno = saved_errno;
  }
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

 private:
  sigset_t pipe_;
  bool pending_before_ = false;
  bool restore_ = false;  // SIGPIPE was unblocked on entry
};

}  // namespace common
}  // namespace velmora

#endif  // VELMORA_SRC_LIB_COMMON_SIGPIPE_GUARD_H_
