/// @file
/// File and lock toolkit: path queries and file-system operations, temporary
/// files that are renamed into place, advisory lock files and key=value
/// settings files.
///
/// The free functions are stateless and reentrant. Objects (TempFile,
/// FileLock, ExclusiveFileLockGuard, FileKeyValue) are used by one thread at a
/// time. A FileLock's descriptor is shared with children across fork() (so a
/// child that unlocks or destroys it releases the parent's lock too) and is
/// never inherited across exec(); every descriptor here is close-on-exec. A
/// TempFile carried into a child removes the same file when the child
/// destroys it, and a FileKeyValue set to write on destroy writes it again.
///
/// Failures are reported by result, with one line at LOG_LOCAL1|LOG_ERR
/// through syslog(3); nothing is thrown except by EnumDirectory and on memory
/// exhaustion. errno tells why a call failed only where its line below says
/// so; after any other failure (a logged one above all) it holds nothing a
/// caller may rely on.
#ifndef VELMORA_FILE_H_
#define VELMORA_FILE_H_

#include <cstdint>
#include <string>
#include <vector>

#include <velmora/export.h>

// The platform's string table, owned by FileKeyValue.
struct OLIBC_SZHASH;

namespace velmora {
namespace sdk {

/// Last component of `path`, leading slashes removed ("." for a path ending in
/// "/", "/" for "/"). Never touches the disk; never fails.
VELMORA_EXPORT std::string FileName(const std::string& path);
/// Last component without its extension ("" for ".profile").
VELMORA_EXPORT std::string FileStem(const std::string& path);
/// Extension of the last component without its dot ("gz" for "a.tar.gz");
/// the empty string when there is none.
VELMORA_EXPORT std::string FileExtension(const std::string& path);
/// `path` without its last component ("/" for "/a", "" for "a").
VELMORA_EXPORT std::string FileParentFolder(const std::string& path);

/// Absolute canonical path of an existing `path`; "" on failure (logged).
VELMORA_EXPORT std::string RealPath(const std::string& path);
/// Creates every missing directory of `path`. 0 on success (also when it
/// already exists); -1 on failure (logged).
[[nodiscard]] VELMORA_EXPORT int MkDir(const std::string& path);
/// Size in bytes of the regular file at `path`; all bits set on failure
/// (logged), for instance for a directory or a missing file.
VELMORA_EXPORT uint64_t FileSize(const std::string& path);
/// Removes `path` and everything below it. 0 on success (also when nothing was
/// there); -1 on failure (logged).
[[nodiscard]] VELMORA_EXPORT int RemoveAll(const std::string& path);
/// True when anything (following links) is at `path`; false otherwise. A
/// status error other than "not found" is logged.
VELMORA_EXPORT bool Exist(const std::string& path);
/// True only for a directory at `path` (following links).
VELMORA_EXPORT bool IsDirectory(const std::string& path);
/// True only for a regular file at `path` (following links).
VELMORA_EXPORT bool IsRegularFile(const std::string& path);
/// Full paths of the entries of directory `path`, in the order the system
/// gives them, not recursive. Empty when `path` is not a directory. Throws
/// boost::filesystem::filesystem_error when the directory cannot be read.
VELMORA_EXPORT std::vector<std::string> EnumDirectory(const std::string& path);
/// Copies what is at `from` (not following a link): a regular file's bytes
/// (failing if `to` exists), a directory as a new empty directory, a symbolic
/// link as a link. 0 on success; -1 on failure (logged).
[[nodiscard]] VELMORA_EXPORT int Copy(const std::string& from, const std::string& to);
/// Copies a regular file's contents to a new file `to`; fails if `to` exists.
/// 0 on success; -1 on failure (logged), the target left as it was.
[[nodiscard]] VELMORA_EXPORT int CopyFile(const std::string& from, const std::string& to);
/// Renames `from` to `to`, atomically replacing an existing `to`. Across file
/// systems it copies (failing if `to` exists) and then removes `from`; that
/// fallback is not atomic. 0 on success; -1 on failure (logged).
[[nodiscard]] VELMORA_EXPORT int Rename(const std::string& from, const std::string& to);
/// Creates a missing file (mode 0644 less umask) or updates its times.
/// 0 on success; -1 on failure.
[[nodiscard]] VELMORA_EXPORT int TouchFile(const std::string& path);
/// True when the caller may read `path`.
VELMORA_EXPORT bool CanAccess(const std::string& path);
/// unlink(2) of `path`: 0, or -1 with errno set.
[[nodiscard]] VELMORA_EXPORT int Unlink(const std::string& path);
/// A path made from `model`, each "%" replaced by a random lowercase hex digit,
/// at which nothing exists at the time of the check (the file is not created).
/// "" after 1000 tries (logged).
VELMORA_EXPORT std::string AvailableTempFilePath(const std::string& model);
/// The same with the model "/tmp/velmora-%%%%%-%%%%%-%%%%%-%%%%%.tmp".
VELMORA_EXPORT std::string AvailableTempFilePath();

/// A new file beside a target, written line by line and then renamed over the
/// target. The file is removed when the object is destroyed unless it was
/// moved into place. Not copyable; used by one thread at a time.
class VELMORA_EXPORT TempFile {
 public:
  /// Creates "/tmp/velmora_tmp-XXXXX-XXXXX-XXXXX-XXXXX.tmp".
  TempFile();
  /// Creates `prefix` + "-XXXXX-XXXXX-XXXXX-XXXXX.tmp" (X a random hex digit)
  /// with the ordinary mode of a new file. On failure (empty prefix, no free
  /// name, missing directory) valid_ is false and no file exists; when a name
  /// was found (path() not empty) and could not be opened, errno tells why.
  explicit TempFile(const std::string& prefix);
  /// Removes the temporary name if it still exists.
  ~TempFile();

  ///@{
  /// Not copyable.
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  ///@}

  /// Appends `line` and "\n" and hands them to the system at once. Ignored
  /// when valid_ is false; a write error is remembered for MoveTo.
  void WriteLine(const std::string& line);
  /// chown(2) of the temporary file: 0, or -1 with errno.
  [[nodiscard]] int Chown(unsigned int uid, unsigned int gid);
  /// chmod(2) of the temporary file: 0, or -1 with errno.
  [[nodiscard]] int Chmod(unsigned int mode);
  /// Closes the file, flushes it to disk and renames it to `target`, then
  /// flushes the target's directory. 0 on success. -1 when a line could not be
  /// written or flushed (nothing is renamed; errno tells why) or the rename
  /// failed (logged; errno then means nothing). valid_ is false afterwards in
  /// every case.
  [[nodiscard]] int MoveTo(const std::string& target);

  /// Path of the temporary file; "" when no name was found.
  const std::string& path() const { return path_; }

  /// True when a name was found and the file was opened; cleared by MoveTo.
  bool valid_;

 private:
  std::string path_;
  int fd_;           ///< -1 when closed.
  int write_errno_;  ///< errno of the first failed write, 0 when none.
};

/// An advisory flock(2) lock on a lock file, shared or exclusive. Not
/// copyable; not for use by two threads at once.
class VELMORA_EXPORT FileLock {
 public:
  /// Stores the arguments; opens nothing.
  FileLock(std::string path, bool exclusive);
  /// Releases the lock (logged if that fails).
  virtual ~FileLock();

  ///@{
  /// Not copyable.
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  ///@}

  /// Opens (creating it, mode 0666 less umask) the lock file and waits for the
  /// lock. True when held (at once if already held); false on an empty path or
  /// a failure (logged), with fd_ at -1.
  [[nodiscard]] bool Lock();
  /// Releases the lock and closes the descriptor. True when nothing is held
  /// any more; false on failure (logged), fd_ kept.
  [[nodiscard]] bool Unlock();

 protected:
  std::string path_;  ///< Path of the lock file.

 public:
  /// Descriptor that carries the lock; -1 while none is held.
  int fd_;

 protected:
  bool exclusive_;  ///< True for an exclusive lock, false for a shared one.
};

/// An exclusive FileLock taken at construction, with up to `retries` further
/// attempts one second apart. Callers read fd_ to learn whether it is held.
class VELMORA_EXPORT ExclusiveFileLockGuard : public FileLock {
 public:
  /// Builds the exclusive lock on `path` and calls LockRetry() at once.
  ExclusiveFileLockGuard(std::string path, unsigned long retries);

  /// True when the lock is held after at most retries+1 attempts, one second
  /// apart. False at once, without an attempt, when retries is 0.
  [[nodiscard]] bool LockRetry();
  /// Makes `user` (with its primary group) the owner of the lock file. True on
  /// success; false when no lock is held, the user is unknown, a non-root
  /// caller is not that user, or chown fails (logged except the first).
  [[nodiscard]] bool Guardian(const std::string& user);

 private:
  uint64_t retries_;
};

/// A key=value settings file loaded into a string table, changed in memory and
/// written back by atomically replacing the file (same owner, group and mode).
/// Not copyable; used by one thread at a time.
class VELMORA_EXPORT FileKeyValue {
 public:
  /// Stores `path`; reads nothing until ReadKeyValues.
  explicit FileKeyValue(const std::string& path)
      : dirty_(false), write_on_destroy_(false), path_(path), table_(nullptr) {}
  /// Writes unsaved changes first when write-on-destroy is set (logged on
  /// failure), then releases the table.
  ~FileKeyValue();

  ///@{
  /// Not copyable.
  FileKeyValue(const FileKeyValue&) = delete;
  FileKeyValue& operator=(const FileKeyValue&) = delete;
  ///@}

  /// (Re)loads the file, discarding unsaved changes. True on success; false
  /// when the table cannot be allocated or the file cannot be read.
  [[nodiscard]] bool ReadKeyValues(int table_size, const std::string& separator);
  /// The value of `key`; "" when there is no such key or nothing was read.
  std::string Get(const std::string& key);
  /// True when the table holds `key` (whatever its value, an empty one too).
  bool Contains(const std::string& key) const;
  /// Sets or adds the pair in memory only. True on success.
  [[nodiscard]] bool Update(const std::string& key, const std::string& value);
  /// Replaces the existing file with the table (an empty file when nothing was
  /// read). True on success; false (logged) with the file untouched, no
  /// temporary file left, and the table and dirty state kept for a retry.
  [[nodiscard]] bool Write();
  /// When set, the destructor writes unsaved changes.
  void SetWriteOnDestroy(bool on) { write_on_destroy_ = on; }

 private:
  bool dirty_;
  bool write_on_destroy_;
  std::string path_;
  OLIBC_SZHASH* table_;
};

}  // namespace sdk
}  // namespace velmora

#endif  // VELMORA_FILE_H_
