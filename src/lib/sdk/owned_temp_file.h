// The one way the library rewrites a file it hands to a given owner: a
// temporary file made beside the target, given the owner and mode before
// anything is written to it, written through the descriptor it was made
// with, flushed and renamed over the target. Internal, not exported.
#ifndef VELMORA_SRC_LIB_SDK_OWNED_TEMP_FILE_H_
#define VELMORA_SRC_LIB_SDK_OWNED_TEMP_FILE_H_

#include <sys/types.h>

#include <string>

namespace velmora {
namespace sdk {
namespace internal {

// The owner and permission bits a file is given.
struct FileOwner {
  uid_t uid;
  gid_t gid;
  mode_t mode;
};

// The owner and permission bits of the file at `path` (stat(2)): true, or
// false with errno.
bool OwnerOf(const std::string& path, FileOwner* owner);

// Makes `prefix` + "-XXXXX-XXXXX-XXXXX-XXXXX.tmp" exclusively (O_EXCL,
// close-on-exec, mode 0666 less umask): its descriptor with the name in
// `*path`, or -1 with errno (`*path` empty unless the file simply could not
// be made under that free name).
int CreateTempFile(const std::string& prefix, std::string* path);

// Flushes and closes `*fd` (set to -1), then renames `path` over `target`
// and flushes the target's directory: 0, or -1 with errno. Nothing is
// renamed when `write_errno` is not 0 (errno becomes it) or the flush or
// close fails; a failed rename is logged by Rename.
int CommitTempFile(int* fd, int write_errno, const std::string& path, const std::string& target);

// Removes `path` (when not empty) and closes `fd` (when open), keeping errno.
void DiscardTempFile(const std::string& path, int fd);

// A temporary file beside `target`, removed on destruction unless Commit
// put it in place. Used by one thread at a time.
class OwnedTempFile {
 public:
  explicit OwnedTempFile(const std::string& target);
  ~OwnedTempFile();
  OwnedTempFile(const OwnedTempFile&) = delete;
  OwnedTempFile& operator=(const OwnedTempFile&) = delete;

  // True when the file was made.
  bool valid() const { return fd_ >= 0; }
  // Gives the file `owner` (fchown(2), fchmod(2)); false when the file was
  // not made or either call failed (errno tells which).
  bool Prepare(const FileOwner& owner);
  // Writes all of `data` (after a successful Prepare): true, or false with
  // errno; a failure is kept for Commit, which then renames nothing.
  bool Write(const std::string& data);
  // Puts the file in place of the target: 0, or -1 with errno, as
  // CommitTempFile. The file cannot be written afterwards.
  int Commit();

 private:
  std::string target_;
  std::string path_;
  int fd_;
  int write_errno_;
};

}  // namespace internal
}  // namespace sdk
}  // namespace velmora

#endif  // VELMORA_SRC_LIB_SDK_OWNED_TEMP_FILE_H_
