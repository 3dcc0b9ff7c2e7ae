// Helpers shared by the file toolkit tests: scratch directories, file bytes
// and modes, private mounts and children running under another identity.
// Only valid inside the hermetic test runner (a private mount namespace).
#ifndef VELMORA_TESTS_SDK_TEST_UTIL_H_
#define VELMORA_TESTS_SDK_TEST_UTIL_H_

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
#include <sstream>
#include <string>
#include <vector>

#include <dirent.h>

namespace velmora {
namespace test {

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
    std::string opts = size.empty() ? "mode=0755" : "mode=0755,size=" + size;
    if (mount("tmpfs", dir.c_str(), "tmpfs", flags, opts.c_str()) != 0) return false;
    mounts_.push_back(dir);
    return true;
  }
  // Makes the mount at `name` read-only; true on success.
  bool RemountReadOnly(const std::string& name) {
    std::string dir = path_ + "/" + name;
    return mount(nullptr, dir.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
  }

 private:
  std::string path_;
  std::vector<std::string> mounts_;
};

inline bool WriteFile(const std::string& path, const std::string& data, mode_t mode = 0644) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return false;
  bool ok = write(fd, data.data(), data.size()) == static_cast<ssize_t>(data.size());
  ok = close(fd) == 0 && ok;
  return ok && chmod(path.c_str(), mode) == 0;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

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

struct FileMeta {
  uid_t uid = 0;
  gid_t gid = 0;
  mode_t mode = 0;  // Permission bits only.
};

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

inline uid_t UidOf(const std::string& user) {
  struct passwd* pw = getpwnam(user.c_str());
  return pw != nullptr ? pw->pw_uid : static_cast<uid_t>(-1);
}

inline gid_t GidOf(const std::string& user) {
  struct passwd* pw = getpwnam(user.c_str());
  return pw != nullptr ? pw->pw_gid : static_cast<gid_t>(-1);
}

// Runs `fn` in a forked child that first drops to `user` (its primary group,
// no supplementary groups). Returns the child's exit status: fn's result, or
// 100+ when the identity could not be changed, or -1 when it did not exit.
inline int RunAs(const std::string& user, const std::function<int()>& fn) {
  uid_t uid = UidOf(user);
  gid_t gid = GidOf(user);
  pid_t pid = fork();
  if (pid == 0) {
    if (setgroups(0, nullptr) != 0) _exit(101);
    if (setgid(gid) != 0) _exit(102);
    if (setuid(uid) != 0) _exit(103);
    _exit(fn());
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

}  // namespace test
}  // namespace velmora

#endif  // VELMORA_TESTS_SDK_TEST_UTIL_H_
