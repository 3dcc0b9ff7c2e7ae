#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <boost/system/error_code.hpp>

#include <velmora/file.h>

#include "lib/log.h"
#include "lib/posix_io.h"
#include "platform/orvo_platform.h"

namespace fs = boost::filesystem;
using boost::system::error_code;

namespace velmora {
namespace sdk {
namespace {

constexpr char kLogModule[] = "src/lib/sdk/filesystem";
constexpr int kTempPathTries = 1000;

// Logs "<what><path> <error text>" as one line.
#define LOG_FS_ERROR(what, subject, ec)                    \
  do {                                                     \
    std::ostringstream text_;                              \
    text_ << (what) << (subject) << " " << (ec).message(); \
    VELMORA_LOG("%s", text_.str().c_str());                \
  } while (0)

// Logs "<what><subject> <error text>" when `ec` holds an error; true when it
// did.
bool LoggedFailure(const char* what, const std::string& subject, const error_code& ec) {
  if (!ec) return false;
  LOG_FS_ERROR(what, subject, ec);
  return true;
}

error_code ErrnoCode(int err) { return error_code(err, boost::system::system_category()); }

// Removes the file that a failed copy made at `path`; a failure other than
// "not found" is tried again twice, as a copy that failed must not leave a
// file behind. 0, or the errno of the last failure.
int RemoveFailedCopy(const std::string& path) {
  int err = 0;
  for (int tries = 0; tries < 3; ++tries) {
    if (unlink(path.c_str()) == 0 || errno == ENOENT) return 0;
    err = errno;
  }
  return err;
}

// Copies the bytes of `from` into a new file `to` with a read/write loop.
// Used where the kernel's copy refuses to cross file systems. A partly
// written target is removed.
void CopyBytes(const std::string& from, const std::string& to, error_code& ec) {
  ec.clear();
  int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) {
    ec = ErrnoCode(errno);
    return;
  }
  struct stat st;
  if (fstat(in, &st) != 0) {
    ec = ErrnoCode(errno);
    close(in);
    return;
  }
  int out = open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st.st_mode & 07777);
  if (out < 0) {
    ec = ErrnoCode(errno);
    close(in);
    return;
  }
  char buf[64 * 1024];
  for (;;) {
    const ssize_t got = ::velmora::internal::ReadSome(in, buf, sizeof(buf));
    if (got <= 0 || !::velmora::internal::WriteAll(out, buf, static_cast<size_t>(got))) {
      if (got != 0) ec = ErrnoCode(errno);
      break;
    }
  }
  // The data reaches the disk before the copy counts as made, as with
  // Boost's own copy.
  if (!ec && fdatasync(out) != 0) ec = ErrnoCode(errno);
  if (close(out) != 0 && !ec) ec = ErrnoCode(errno);
  close(in);
  if (ec) RemoveFailedCopy(to);
}

// Copies a regular file, failing if `to` exists. Boost's copy refuses to
// cross file systems on current kernels (EXDEV) after it has created the
// target exclusively; that empty target is removed and the bytes are copied
// by hand with the same results. A target that Boost's copy created and then
// failed to complete (a failed write, flush or close) is removed, so a
// failed copy leaves no file behind.
void CopyRegularFile(const std::string& from, const std::string& to, error_code& ec) {
  struct stat st;
  const bool existed = lstat(to.c_str(), &st) == 0;
  fs::copy_file(from, to, ec);
  if (!ec || existed || ec == boost::system::errc::file_exists) return;
  const int removed = RemoveFailedCopy(to);
  if (ec != boost::system::errc::cross_device_link) return;
  if (removed != 0) {
    ec = ErrnoCode(removed);
    return;
  }
  CopyBytes(from, to, ec);
}

// The general copy, looking at the source itself (not through a link): a
// regular file's bytes (failing if `to` exists), a directory as a new empty
// directory, a symbolic link as a link. Reports through `ec`; logs nothing.
void GeneralCopy(const std::string& from, const std::string& to, error_code& ec) {
  ec.clear();
  fs::file_status st = fs::symlink_status(from, ec);
  if (ec) return;
  if (st.type() == fs::file_not_found) {
    ec = ErrnoCode(ENOENT);
  } else if (st.type() == fs::symlink_file) {
    fs::copy_symlink(from, to, ec);
  } else if (st.type() == fs::directory_file) {
    // A directory is created empty, with the source's permissions.
    struct stat sb;
    if (stat(from.c_str(), &sb) != 0 || mkdir(to.c_str(), sb.st_mode & 07777) != 0) {
      ec = ErrnoCode(errno);
    }
  } else if (st.type() == fs::regular_file) {
    CopyRegularFile(from, to, ec);
  } else {
    ec = ErrnoCode(ENOSYS);
  }
}

// Flushes `path` when it is a regular file (not through a link); 0 when it
// was flushed or is something else, -1 with `ec` set when the flush failed.
int SyncCopiedFile(const std::string& path, error_code& ec) {
  int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return 0;  // a symbolic link, or nothing left to flush
  struct stat st;
  int rc = 0;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && fsync(fd) != 0) {
    ec = ErrnoCode(errno);
    rc = -1;
  }
  close(fd);
  return rc;
}

}  // namespace

std::string FileName(const std::string& path) {
  std::string name = fs::path(path).filename().string();
  std::string::size_type first = name.find_first_not_of('/');
  if (first != std::string::npos && first > 0) name.erase(0, first);
  return name;
}

std::string FileStem(const std::string& path) { return fs::path(path).stem().string(); }

std::string FileExtension(const std::string& path) {
  std::string ext = fs::path(path).extension().string();
  if (!ext.empty()) ext.erase(0, 1);
  return ext;
}

std::string FileParentFolder(const std::string& path) {
  return fs::path(path).parent_path().string();
}

std::string RealPath(const std::string& path) {
  error_code ec;
  fs::path real = fs::canonical(path, ec);
  return LoggedFailure("Can't resolve real path: ", path, ec) ? std::string() : real.string();
}

int MkDir(const std::string& path) {
  error_code ec;
  fs::create_directories(path, ec);
  return LoggedFailure("MkDir failed: ", path, ec) ? -1 : 0;
}

uint64_t FileSize(const std::string& path) {
  error_code ec;
  uintmax_t size = fs::file_size(path, ec);
  return LoggedFailure("Get FileSize failed: ", path, ec) ? UINT64_MAX : static_cast<uint64_t>(size);
}

int RemoveAll(const std::string& path) {
  error_code ec;
  fs::remove_all(path, ec);
  return LoggedFailure("RemoveAll failed: ", path, ec) ? -1 : 0;
}

namespace {
// The status step shared by the queries: "not found" is an answer, any other
// error is logged.
fs::file_type StatusType(const std::string& path) {
  error_code ec;
  fs::file_status st = fs::status(path, ec);
  if (ec && ec != boost::system::errc::no_such_file_or_directory) {
    LOG_FS_ERROR("Get FileSystem Status failed: ", path, ec);
  }
  return st.type();
}
}  // namespace

bool Exist(const std::string& path) {
  try {
    fs::file_type type = StatusType(path);
    return type != fs::status_error && type != fs::file_not_found;
  } catch (...) {
    return false;
  }
}

bool IsDirectory(const std::string& path) {
  try {
    return StatusType(path) == fs::directory_file;
  } catch (...) {
    return false;
  }
}

bool IsRegularFile(const std::string& path) {
  try {
    return StatusType(path) == fs::regular_file;
  } catch (...) {
    return false;
  }
}

std::vector<std::string> EnumDirectory(const std::string& path) {
  std::vector<std::string> entries;
  if (!IsDirectory(path)) return entries;
  for (fs::directory_iterator it(path), end; it != end; ++it) {
    entries.push_back(it->path().string());
  }
  return entries;
}

int Copy(const std::string& from, const std::string& to) {
  error_code ec;
  GeneralCopy(from, to, ec);
  return LoggedFailure("Failed to Copy: ", from + " -> " + to, ec) ? -1 : 0;
}

int CopyFile(const std::string& from, const std::string& to) {
  error_code ec;
  CopyRegularFile(from, to, ec);
  return LoggedFailure("Failed to CopyFile: ", from + " -> " + to, ec) ? -1 : 0;
}

int Rename(const std::string& from, const std::string& to) {
  error_code ec;
  fs::rename(from, to, ec);
  if (!ec) return 0;
  if (ec != boost::system::errc::cross_device_link) {
    LOG_FS_ERROR("Rename failed: ", from + " -> " + to, ec);
    return -1;
  }
  // Across file systems: copy, then remove the source. Not atomic, and an
  // existing target makes the copy fail.
  GeneralCopy(from, to, ec);
  // A copied file reaches the disk before its source goes, so that a crash
  // right after the removal cannot lose both. A copy that cannot be synced
  // is removed like one that could not be written.
  if (!ec && SyncCopiedFile(to, ec) != 0) unlink(to.c_str());
  if (ec) {
    LOG_FS_ERROR("Rename(by copying) failed while copying: ", from + " -> " + to, ec);
    return -1;
  }
  fs::remove_all(from, ec);
  if (ec) {
    LOG_FS_ERROR("Rename(by copying) failed while deleting: ", from + " -> " + to, ec);
    return -1;
  }
  return 0;
}

int TouchFile(const std::string& path) { return OLIBCFileTouch(path.c_str()); }

bool CanAccess(const std::string& path) { return access(path.c_str(), R_OK) == 0; }

int Unlink(const std::string& path) { return unlink(path.c_str()); }

std::string AvailableTempFilePath(const std::string& model) {
  for (int tries = 0; tries < kTempPathTries; ++tries) {
    error_code ec;
    std::string candidate = fs::unique_path(model, ec).string();
    if (ec) {
      LOG_FS_ERROR("Get unique path failed: ", model, ec);
      candidate.clear();
    }
    if (!candidate.empty() && !Exist(candidate)) return candidate;
  }
  VELMORA_LOG("No available temp file path: %s", model.c_str());
  return std::string();
}

std::string AvailableTempFilePath() {
  return AvailableTempFilePath("/tmp/velmora-%%%%%-%%%%%-%%%%%-%%%%%.tmp");
}

}  // namespace sdk
}  // namespace velmora
