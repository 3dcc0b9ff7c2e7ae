#include <pwd.h>
#include <unistd.h>

#include <string>
#include <utility>

#include <velmora/file.h>

#include "lib/log.h"
#include "lib/posix_io.h"

namespace velmora {
namespace sdk {
namespace {
constexpr char kLogModule[] = "src/lib/sdk/file_lock_guard";
}  // namespace

ExclusiveFileLockGuard::ExclusiveFileLockGuard(std::string path, unsigned long retries)
    : FileLock(std::move(path), true), retries_(retries) {
  // Deliberately unchecked: a constructor has no result, and the guard's
  // callers learn the outcome from fd_ (held when not negative).
  static_cast<void>(LockRetry());
}

bool ExclusiveFileLockGuard::LockRetry() {
  // A guard built with 0 retries never locks, not even once.
  if (retries_ == 0) return false;
  for (uint64_t left = retries_;; --left) {
    if (Lock()) return true;
    if (left == 0) return false;
    sleep(1);  // NOLINT(concurrency-mt-unsafe): only the calling thread waits
  }
}

bool ExclusiveFileLockGuard::Guardian(const std::string& user) {
  if (fd_ < 0) return false;
  uid_t account_uid = 0;
  gid_t account_gid = 0;
  if (!::velmora::internal::WithPasswdEntryOf(user.c_str(), [&](const struct passwd& pw) {
        account_uid = pw.pw_uid;
        account_gid = pw.pw_gid;
        return true;
      })) {
    VELMORA_LOG("Get user %s pwd fail", user.c_str());
    return false;
  }
  uid_t owner = geteuid();
  if (owner == 0) {
    owner = account_uid;
  } else if (owner != account_uid) {
    VELMORA_LOG("Wrong user privilege");
    return false;
  }
  if (chown(path_.c_str(), owner, account_gid) != 0) {
    VELMORA_LOG("Turn owner to %s fail", user.c_str());
    return false;
  }
  return true;
}

}  // namespace sdk
}  // namespace velmora
