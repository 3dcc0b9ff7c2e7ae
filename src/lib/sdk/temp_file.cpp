#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <velmora/file.h>

namespace velmora {
namespace sdk {
namespace {

constexpr char kNameSuffix[] = "-%%%%%-%%%%%-%%%%%-%%%%%.tmp";
constexpr char kDefaultPrefix[] = "/tmp/velmora_tmp";

// Writes all of `data`; false with errno set on failure.
bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t put = write(fd, data, size);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return false;
    data += put;
    size -= static_cast<size_t>(put);
  }
  return true;
}

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

TempFile::TempFile() : TempFile(kDefaultPrefix) {}

TempFile::TempFile(const std::string& prefix) : valid_(false), fd_(-1), write_errno_(0) {
  if (prefix.empty()) return;
  path_ = AvailableTempFilePath(prefix + kNameSuffix);
  if (path_.empty()) return;
  fd_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  valid_ = fd_ >= 0;
}

TempFile::~TempFile() {
  // The name goes first, then the descriptor; after a successful MoveTo the
  // name no longer exists and the unlink fails quietly. errno is kept, so a
  // caller that fails after a failed write still reports that write's error.
  const int saved_errno = errno;
  // A failure other than "not found" is tried again twice: a file that was
  // not moved into place must not stay behind.
  for (int tries = 0; tries < 3 && !path_.empty(); ++tries) {
    if (unlink(path_.c_str()) == 0 || errno == ENOENT) break;
  }
  if (fd_ >= 0) close(fd_);
  errno = saved_errno;
}

void TempFile::WriteLine(const std::string& line) {
  if (!valid_) return;
  std::string text;
  text.reserve(line.size() + 1);
  text.append(line).push_back('\n');
  if (!WriteAll(fd_, text.data(), text.size()) && write_errno_ == 0) write_errno_ = errno;
}

int TempFile::Chown(unsigned int uid, unsigned int gid) {
  return chown(path_.c_str(), static_cast<uid_t>(uid), static_cast<gid_t>(gid));
}

int TempFile::Chmod(unsigned int mode) { return chmod(path_.c_str(), static_cast<mode_t>(mode)); }

int TempFile::MoveTo(const std::string& target) {
  valid_ = false;
  // Everything written (through this descriptor or by path) reaches the disk
  // before the name does; a file that lost a line is never put in place.
  int err = write_errno_;
  if (fd_ >= 0) {
    if (fsync(fd_) != 0 && err == 0) err = errno;
    if (close(fd_) != 0 && err == 0) err = errno;
    fd_ = -1;
  }
  if (err != 0) {
    errno = err;
    return -1;
  }
  if (Rename(path_, target) != 0) return -1;
  SyncParentDirectory(target);
  return 0;
}

}  // namespace sdk
}  // namespace velmora
