// Helpers shared by the file toolkit tests: scratch directories, file bytes
// and modes, private mounts, forked children (under another identity too)
// and waiting for them.
// Only valid inside the hermetic test runner (a private mount namespace).
#ifndef VELMORA_TESTS_SUPPORT_TEST_UTIL_H_
#define VELMORA_TESTS_SUPPORT_TEST_UTIL_H_

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <dirent.h>

namespace velmora {
namespace test {

// Mounts a fresh tmpfs (mode 0755; of `size`, e.g. "64k", unless empty) on
// the existing directory `dir`; true on success.
inline bool MountTmpfsOn(const std::string& dir, const std::string& size = "",
                         unsigned long flags = 0) {
  std::string opts = size.empty() ? "mode=0755" : "mode=0755,size=" + size;
  return mount("tmpfs", dir.c_str(), "tmpfs", flags, opts.c_str()) == 0;
}

// Makes the mount at `dir` read-only; true on success.
inline bool RemountReadOnlyAt(const std::string& dir) {
  return mount(nullptr, dir.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
}

// A fresh directory under $VELMORA_SCRATCH (a tmpfs of the runner), removed
// with everything below it (mounts included) when the object goes.
class ScratchDir {
 public:
  ScratchDir() {
    const char* root = std::getenv("VELMORA_SCRATCH");
    std::string model = std::string(root != nullptr ? root : "/var/tmp") + "/t-XXXXXX";
    std::vector<char> buf(model.begin(), model.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) != nullptr) path_ = buf.data();
    chmod(path_.c_str(), 0755);
  }
  ~ScratchDir() {
    if (path_.empty()) return;
    for (auto it = mounts_.rbegin(); it != mounts_.rend(); ++it) umount2(it->c_str(), MNT_DETACH);
    std::string cmd = "rm -rf '" + path_ + "'";
    int rc = std::system(cmd.c_str());
    (void)rc;
  }
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  // Mounts a tmpfs of `size` (e.g. "64k"; empty for the default) at the new
  // directory `name`; true on success. Unmounted by the destructor.
  bool MountTmpfs(const std::string& name, const std::string& size = "", unsigned long flags = 0) {
    std::string dir = path_ + "/" + name;
    mkdir(dir.c_str(), 0755);
    if (!MountTmpfsOn(dir, size, flags)) return false;
    mounts_.push_back(dir);
    return true;
  }
  // Makes the mount at `name` read-only; true on success.
  bool RemountReadOnly(const std::string& name) { return RemountReadOnlyAt(path_ + "/" + name); }

 private:
  std::string path_;
  std::vector<std::string> mounts_;
};

// Writes `data` to `path` (created or emptied) and gives it `mode`; true
// when every byte was written.
inline bool WriteFile(const std::string& path, const std::string& data, mode_t mode = 0644) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < data.size()) {
    ssize_t put = write(fd, data.data() + done, data.size() - done);
    if (put <= 0) break;
    done += static_cast<size_t>(put);
  }
  bool ok = done == data.size();
  ok = close(fd) == 0 && ok;
  return ok && chmod(path.c_str(), mode) == 0;
}

// WriteFile, then gives the file `uid`:`gid` and `mode`.
inline bool WriteOwned(const std::string& path, const std::string& data, uid_t uid, gid_t gid,
                       mode_t mode) {
  return WriteFile(path, data, mode) && chown(path.c_str(), uid, gid) == 0 &&
         chmod(path.c_str(), mode) == 0;
}

// Writes `text` to the file `copy` and binds it over `target` (an account
// table such as /etc/passwd), in the caller's mount namespace.
inline bool BindCopyOver(const std::string& copy, const std::string& text,
                         const std::string& target) {
  return WriteFile(copy, text, 0644) &&
         mount(copy.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

// The bytes of `path`; empty when it cannot be read.
inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// True when `path` exists (a dangling link counts).
inline bool PathExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// Names in `dir`, sorted, without "." and "..".
inline std::vector<std::string> ListDir(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return names;
  while (struct dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n != "." && n != "..") names.push_back(n);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

// Everything below `dir` (not following links): relative path -> type,
// owner, group, mode and bytes (or link text).
inline std::map<std::string, std::string> Snapshot(const std::string& dir) {
  std::map<std::string, std::string> tree;
  std::function<void(const std::string&)> walk = [&](const std::string& rel) {
    for (const std::string& name : ListDir(rel.empty() ? dir : dir + "/" + rel)) {
      const std::string r = rel.empty() ? name : rel + "/" + name;
      const std::string full = dir + "/" + r;
      struct stat st;
      if (lstat(full.c_str(), &st) != 0) {
        tree[r] = "vanished";
        continue;
      }
      std::ostringstream d;
      d << std::oct << (st.st_mode & 07777) << std::dec << " " << st.st_uid << ":" << st.st_gid;
      if (S_ISDIR(st.st_mode)) {
        tree[r] = "dir " + d.str();
        walk(r);
      } else if (S_ISLNK(st.st_mode)) {
        char buf[4096];
        ssize_t n = readlink(full.c_str(), buf, sizeof buf);
        tree[r] = "link -> " + std::string(buf, n > 0 ? static_cast<size_t>(n) : 0);
      } else if (S_ISREG(st.st_mode)) {
        std::string bytes = ReadFile(full);
        if (bytes.size() > 200) {
          bytes = std::to_string(bytes.size()) + " bytes, hash " +
                  std::to_string(std::hash<std::string>()(bytes));
        }
        tree[r] = "file " + d.str() + " [" + bytes + "]";
      } else {
        tree[r] = "other " + d.str();
      }
    }
  };
  walk("");
  return tree;
}

struct FileMeta {
  uid_t uid = 0;
  gid_t gid = 0;
  mode_t mode = 0;  // Permission bits only.
};

// Owner, group and permission bits of `path` (links followed); zeros when missing.
inline FileMeta Meta(const std::string& path) {
  struct stat st;
  FileMeta m;
  if (stat(path.c_str(), &st) == 0) {
    m.uid = st.st_uid;
    m.gid = st.st_gid;
    m.mode = st.st_mode & 07777;
  }
  return m;
}

// The uid of `user`, or (uid_t)-1.
inline uid_t UidOf(const std::string& user) {
  struct passwd* pw = getpwnam(user.c_str());
  return pw != nullptr ? pw->pw_uid : static_cast<uid_t>(-1);
}

// The primary gid of `user`, or (gid_t)-1.
inline gid_t GidOf(const std::string& user) {
  struct passwd* pw = getpwnam(user.c_str());
  return pw != nullptr ? pw->pw_gid : static_cast<gid_t>(-1);
}

// Waits for the child `pid` (again after EINTR); its exit status, or -1 when
// pid is not a child or it did not exit normally.
inline int ExitStatusOf(pid_t pid) {
  if (pid <= 0) return -1;
  int status = 0;
  pid_t got;
  do {
    got = waitpid(pid, &status, 0);
  } while (got < 0 && errno == EINTR);
  if (got != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// Forks a child that exits with fn()'s result; its pid (-1 when fork failed).
inline pid_t Spawn(const std::function<int()>& fn) {
  pid_t pid = fork();
  if (pid == 0) _exit(fn());
  return pid;
}

// Runs `fn` in a forked child of the same identity; its exit status, or -1.
inline int RunInChild(const std::function<int()>& fn) { return ExitStatusOf(Spawn(fn)); }

// Runs `fn` in a forked child that first drops to `user` (its primary group,
// no supplementary groups). Returns the child's exit status: fn's result, or
// 100+ when the identity could not be changed, or -1 when it did not exit.
inline int RunAs(const std::string& user, const std::function<int()>& fn) {
  uid_t uid = UidOf(user);
  gid_t gid = GidOf(user);
  return RunInChild([&] {
    if (setgroups(0, nullptr) != 0) return 101;
    if (setgid(gid) != 0) return 102;
    if (setuid(uid) != 0) return 103;
    return fn();
  });
}

}  // namespace test
}  // namespace velmora

#endif  // VELMORA_TESTS_SUPPORT_TEST_UTIL_H_
