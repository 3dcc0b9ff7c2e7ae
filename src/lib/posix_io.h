// The library's own wrappers of the POSIX calls that need a loop around
// them: whole writes and reads, the wait for a child, and the passwd lookup
// whose buffer must grow. Internal: neither installed nor exported. Part of
// the platform objects, so the platform layer and everything linking those
// objects share them.
#ifndef VELMORA_SRC_LIB_POSIX_IO_H_
#define VELMORA_SRC_LIB_POSIX_IO_H_

#include <pwd.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <vector>

namespace velmora {
namespace internal {

// Writes all `size` bytes, over partial writes and EINTR: true, or false with
// errno from the failed write(2) (EIO when write(2) accepted nothing).
bool WriteAll(int fd, const void* data, size_t size);

// One read(2), retried on EINTR: its result, -1 with errno on failure.
ssize_t ReadSome(int fd, void* buf, size_t size);

// Appends what is left to read from `fd` up to its end to `out`: true, or
// false with errno from the failed read(2), `out` holding what came before.
bool ReadAll(int fd, std::string* out);

// waitpid(pid, status, 0) retried on EINTR: the pid reaped, or -1 with errno.
pid_t WaitForChild(pid_t pid, int* status);

// Runs a passwd lookup (getpwnam_r or getpwuid_r wrapped in `lookup`) with a
// buffer that grows on ERANGE up to 1 MiB, and hands the entry to `use`:
// what `use` returns, false without an entry or on an error (errno is not
// meaningful then).
template <typename Lookup, typename Use>
bool WithPasswdEntry(Lookup lookup, Use use) {
  long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(hint > 0 ? static_cast<size_t>(hint) : 1024);
  for (;;) {
    struct passwd pw;
    struct passwd* found = nullptr;
    int rc = lookup(&pw, buf.data(), buf.size(), &found);
    if (rc == ERANGE && buf.size() < (1u << 20)) {
      buf.resize(buf.size() * 2);
      continue;
    }
    if (rc != 0 || found == nullptr) return false;
    return use(*found);
  }
}

// The passwd entry of the account `name`, as WithPasswdEntry.
template <typename Use>
bool WithPasswdEntryOf(const char* name, Use use) {
  return WithPasswdEntry(
      [name](struct passwd* pw, char* buf, size_t size, struct passwd** found) {
        return getpwnam_r(name, pw, buf, size, found);
      },
      use);
}

// The passwd entry of `uid`, as WithPasswdEntry.
template <typename Use>
bool WithPasswdEntryOf(uid_t uid, Use use) {
  return WithPasswdEntry(
      [uid](struct passwd* pw, char* buf, size_t size, struct passwd** found) {
        return getpwuid_r(uid, pw, buf, size, found);
      },
      use);
}

}  // namespace internal
}  // namespace velmora

#endif  // VELMORA_SRC_LIB_POSIX_IO_H_
