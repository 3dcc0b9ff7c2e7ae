#include "lib/posix_io.h"

#include <sys/wait.h>

namespace velmora {
namespace internal {

bool WriteAll(int fd, const void* data, size_t size) {
  const char* next = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t put = write(fd, next, size);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) {
      if (put == 0) errno = EIO;
      return false;
    }
    next += put;
    size -= static_cast<size_t>(put);
  }
  return true;
}

ssize_t ReadSome(int fd, void* buf, size_t size) {
  ssize_t got;
  do {
    got = read(fd, buf, size);
  } while (got < 0 && errno == EINTR);
  return got;
}

bool ReadAll(int fd, std::string* out) {
  char buf[64 * 1024];
  for (;;) {
    ssize_t got = ReadSome(fd, buf, sizeof(buf));
    if (got < 0) return false;
    if (got == 0) return true;
    out->append(buf, static_cast<size_t>(got));
  }
}

pid_t WaitForChild(pid_t pid, int* status) {
  pid_t reaped;
  do {
    reaped = waitpid(pid, status, 0);
  } while (reaped < 0 && errno == EINTR);
  return reaped;
}

}  // namespace internal
}  // namespace velmora
