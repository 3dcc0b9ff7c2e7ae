#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <string>
#include <utility>

#include <velmora/file.h>

#include "lib/log.h"

namespace velmora {
namespace sdk {
namespace {
constexpr char kLogModule[] = "src/lib/sdk/file_lock";
}  // namespace

FileLock::FileLock(std::string path, bool exclusive)
    : path_(std::move(path)), fd_(-1), exclusive_(exclusive) {}

FileLock::~FileLock() {
  try {
    if (!Unlock()) VELMORA_LOG("Release lock fail when guard destruct: %s", path_.c_str());
  } catch (...) {
  }
}

bool FileLock::Lock() {
  if (fd_ >= 0) return true;
  if (path_.empty()) return false;
  // O_NONBLOCK concerns only the open (a FIFO must not hang it); flock below
  // waits for the lock.
  fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0666);
  if (fd_ < 0) {
    VELMORA_LOG("Open file(%s) fail", path_.c_str());
    fd_ = -1;
    return false;
  }
  if (flock(fd_, exclusive_ ? LOCK_EX : LOCK_SH) != 0) {
    int fd = fd_;
    int closed = close(fd_);
    VELMORA_LOG("Get file lock(%d) fail, close(%d)", fd, closed);
    fd_ = -1;
    return false;
  }
  return true;
}

bool FileLock::Unlock() {
  if (fd_ < 0) return true;
  if (flock(fd_, LOCK_UN) != 0) {
    VELMORA_LOG("Unlock file (%d) fail", fd_);
    return false;
  }
  if (close(fd_) != 0) {
    VELMORA_LOG("Close file (%s) fail", path_.c_str());
    return false;
  }
  fd_ = -1;
  return true;
}

}  // namespace sdk
}  // namespace velmora
