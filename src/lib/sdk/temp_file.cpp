#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <velmora/file.h>

#include "lib/posix_io.h"
#include "lib/sdk/owned_temp_file.h"

namespace velmora {
namespace sdk {
namespace {

constexpr char kNameSuffix[] = "-%%%%%-%%%%%-%%%%%-%%%%%.tmp";
constexpr char kDefaultPrefix[] = "/tmp/velmora_tmp";

// Flushes the directory that holds `path`, so a rename into it survives a
// power cut. Best effort: the rename has already happened.
void SyncParentDirectory(const std::string& path) {
  std::string::size_type slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

}  // namespace

namespace internal {

bool OwnerOf(const std::string& path, FileOwner* owner) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  *owner = FileOwner{st.st_uid, st.st_gid, static_cast<mode_t>(st.st_mode & 07777)};
  return true;
}

int CreateTempFile(const std::string& prefix, std::string* path) {
  *path = prefix.empty() ? std::string() : AvailableTempFilePath(prefix + kNameSuffix);
  if (path->empty()) return -1;
  // Made here or not at all: a name that appeared since it was chosen
  // belongs to someone else and is neither truncated nor removed later.
  int fd = open(path->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0 && errno == EEXIST) path->clear();
  return fd;
}

int CommitTempFile(int* fd, int write_errno, const std::string& path, const std::string& target) {
  // Everything written reaches the disk before the name does; a file that
  // lost a line is never put in place.
  int err = write_errno;
  if (*fd >= 0) {
    if (fsync(*fd) != 0 && err == 0) err = errno;
    if (close(*fd) != 0 && err == 0) err = errno;
    *fd = -1;
  }
  if (err != 0) {
    errno = err;
    return -1;
  }
  if (Rename(path, target) != 0) return -1;
  SyncParentDirectory(target);
  return 0;
}

void DiscardTempFile(const std::string& path, int fd) {
  // The name goes first, then the descriptor; after a successful rename the
  // name no longer exists and the unlink fails quietly. errno is kept, so a
  // caller that fails after a failed write still reports that write's error.
  const int saved_errno = errno;
  // A failure other than "not found" is tried again twice: a file that was
  // not moved into place must not stay behind.
  for (int tries = 0; tries < 3 && !path.empty(); ++tries) {
    if (unlink(path.c_str()) == 0 || errno == ENOENT) break;
  }
  if (fd >= 0) close(fd);
  errno = saved_errno;
}

OwnedTempFile::OwnedTempFile(const std::string& target)
    : target_(target), fd_(CreateTempFile(target, &path_)), write_errno_(0) {}

OwnedTempFile::~OwnedTempFile() { DiscardTempFile(path_, fd_); }

bool OwnedTempFile::Prepare(const FileOwner& owner) {
  return fd_ >= 0 && fchown(fd_, owner.uid, owner.gid) == 0 && fchmod(fd_, owner.mode) == 0;
}

bool OwnedTempFile::Write(const std::string& data) {
  if (::velmora::internal::WriteAll(fd_, data.data(), data.size())) return true;
  if (write_errno_ == 0) write_errno_ = errno;
  return false;
}

int OwnedTempFile::Commit() { return CommitTempFile(&fd_, write_errno_, path_, target_); }

}  // namespace internal

TempFile::TempFile() : TempFile(kDefaultPrefix) {}

TempFile::TempFile(const std::string& prefix)
    : valid_(false), fd_(internal::CreateTempFile(prefix, &path_)), write_errno_(0) {
  valid_ = fd_ >= 0;
}

TempFile::~TempFile() { internal::DiscardTempFile(path_, fd_); }

void TempFile::WriteLine(const std::string& line) {
  if (!valid_) return;
  std::string text;
  text.reserve(line.size() + 1);
  text.append(line).push_back('\n');
  if (::velmora::internal::WriteAll(fd_, text.data(), text.size())) return;
  if (write_errno_ == 0) write_errno_ = errno;
}

int TempFile::Chown(unsigned int uid, unsigned int gid) {
  return chown(path_.c_str(), static_cast<uid_t>(uid), static_cast<gid_t>(gid));
}

int TempFile::Chmod(unsigned int mode) { return chmod(path_.c_str(), static_cast<mode_t>(mode)); }

int TempFile::MoveTo(const std::string& target) {
  valid_ = false;
  return internal::CommitTempFile(&fd_, write_errno_, path_, target);
}

}  // namespace sdk
}  // namespace velmora
