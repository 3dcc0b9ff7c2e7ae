// Helpers shared by the settings tests: the log-line matcher, the recording
// stand-ins of the back-end tool and of fetchmail, fresh package and spool
// trees, children with private mounts or with fork() made to fail, and
// checks that no child or detached helper process is left behind.
// Only valid inside the hermetic test runner.
#ifndef VELMORA_TESTS_SUPPORT_SETTINGS_TEST_UTIL_H_
#define VELMORA_TESTS_SUPPORT_SETTINGS_TEST_UTIL_H_

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stddef.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <velmora/settings.h>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/log_capture.h"
#include "support/seccomp_util.h"
#include "support/test_util.h"

namespace velmora {
namespace test {

namespace settings_test {

// The names that the settings tests share.
using settings::Pop3Control;
using settings::record::GlobalPOP3Config;
using settings::record::VelmoraConfig;
using test::WriteOwned;  // also spelled settings_test::WriteOwned
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr int kErr = LOG_LOCAL1 | LOG_ERR;          // 139
constexpr int kWarning = LOG_LOCAL1 | LOG_WARNING;  // 140
constexpr int kDebug = LOG_LOCAL1 | LOG_DEBUG;      // 143

constexpr char kSettingsModule[] = "src/lib/settings/velmora";
constexpr char kUserModule[] = "src/lib/user/uid_convert";
constexpr char kFilesystemModule[] = "src/lib/sdk/filesystem";
constexpr char kKeyValueModule[] = "src/lib/sdk/file_key_value";
constexpr char kLockModule[] = "src/lib/sdk/file_lock";
constexpr char kGuardModule[] = "src/lib/sdk/file_lock_guard";

constexpr char kPackages[] = "/var/packages";
constexpr char kEtcDir[] = "/var/packages/Velmora-Server/etc";
constexpr char kSettingsDir[] = "/var/packages/Velmora-Server/etc/velmora/";
constexpr char kClientConf[] = "/var/packages/Velmora-Server/etc/velmora/quillbox.conf";
constexpr char kLogo[] = "/var/packages/Velmora-Server/etc/velmora/custom_logo.png";
constexpr char kBackendDir[] = "/var/packages/Velmora-Server/target/bin";
constexpr char kBackend[] = "/var/packages/Velmora-Server/target/bin/orvo_mailserver_backend";
constexpr char kFetchmailDir[] = "/var/packages/Quillbox/target/bin";
constexpr char kFetchmail[] = "/var/packages/Quillbox/target/bin/fetchmail";
constexpr char kLockDir[] = "/var/lock/velmora_server";
constexpr char kSpool[] = "/var/spool/mail";

// The POP3 fetch service of the domain "vt": its switch, its list of users,
// its lock, and the fetch file of the first test user.
constexpr char kSwitchFile[] = "/var/packages/Velmora-Server/etc/velmora/vt_pop3.config";
constexpr char kUidListDir[] = "/var/spool/mail/vt/db";
constexpr char kUidList[] = "/var/spool/mail/vt/db/vt_pop3_uid.config";
constexpr char kLockFile[] = "/var/lock/velmora_server/vt_pop3.lock";
constexpr char kUser1Rc[] = "/var/spool/mail/vt/1001/61001/.ORVOQB/quillbox_pop3_fetch";

// Where the stand-ins record their calls; any user may append.
constexpr char kRecordDir[] = "/var/tmp/velmora-standin";
constexpr char kBackendCalls[] = "/var/tmp/velmora-standin/backend.calls";
// While a fail flag exists, its stand-in kills itself with SIGKILL after
// recording its call: the run cannot end in an exit status at all.
constexpr char kBackendFailFlag[] = "/var/tmp/velmora-standin/backend.fail";
// While a status file exists, its stand-in exits with the number that the
// file holds instead of 0.
constexpr char kBackendStatusFile[] = "/var/tmp/velmora-standin/backend.status";
constexpr char kFetchmailCalls[] = "/var/tmp/velmora-standin/fetchmail.calls";
// One line per fetchmail call: the variables HOME, USER and LOGNAME that the
// stand-in saw, each as "NAME=value" or "NAME unset", each followed by a tab.
constexpr char kFetchmailEnv[] = "/var/tmp/velmora-standin/fetchmail.env";
constexpr char kFetchmailFailFlag[] = "/var/tmp/velmora-standin/fetchmail.fail";
constexpr char kFetchmailStatusFile[] = "/var/tmp/velmora-standin/fetchmail.status";

constexpr uid_t kAccount = 61000;  // Velmora-Server
constexpr uid_t kUser1 = 61001;
constexpr uid_t kUser2 = 61002;
constexpr uid_t kUser3 = 61003;
constexpr gid_t kShared = 61100;  // vtshared

// A line of the settings module at local1.err.
inline auto Err(const std::string& message) { return LogAt(kErr, kSettingsModule, message); }

// The client switches with chat, calendar and external sources on and the
// rest off, as a settings file without those keys gives them.
inline VelmoraConfig Defaults() {
  VelmoraConfig c{};
  c.enable_chat = c.enable_calendar = c.enable_externalsource = true;
  return c;
}

// ---- Files and trees ----

// Runs `command` with /bin/sh; its exit status, or -1.
inline int Shell(const std::string& command) {
  int rc = std::system(command.c_str());
  return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

// mkdir -p `path`, then gives the last directory `uid`:`gid` and `mode`.
inline bool MakeDir(const std::string& path, uid_t uid = 0, gid_t gid = 0, mode_t mode = 0755) {
  if (Shell("mkdir -p '" + path + "'") != 0) return false;
  return chown(path.c_str(), uid, gid) == 0 && chmod(path.c_str(), mode) == 0;
}

// True when `path` is a directory (links followed).
inline bool IsDirectoryPath(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The inode number of `path` (links followed), 0 when it is missing.
inline ino_t InodeOf(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// Clears everything that the settings code and its stand-ins keep between
// tests: the package tree, the mail spool, the lock directory, the records.
inline void ResetSystemTree() {
  Shell(std::string("rm -rf ") + kPackages + " " + kSpool + " " + kLockDir + " " + kRecordDir);
  MakeDir(kPackages);
  MakeDir(kSpool);
  MakeDir(kRecordDir, 0, 0, 0777);
}

// Writes an executable script.
inline bool WriteScript(const std::string& path, const std::string& body) {
  return MakeDir(path.substr(0, path.rfind('/'))) && WriteFile(path, body, 0755);
}

// The shell text that ends a stand-in: killed by SIGKILL while `fail_flag`
// exists, else the exit status held in `status_file` when that exists, else
// 0. Shell built-ins only.
inline std::string StandInEnding(const std::string& fail_flag, const std::string& status_file) {
  return "if [ -e " + fail_flag + " ]; then kill -KILL $$; fi\n" + "if [ -e " + status_file +
         " ]; then read status < " + status_file + "; exit \"$status\"; fi\nexit 0\n";
}

// The back-end tool stand-in: appends its arguments, each followed by a tab,
// as one line; then ends as StandInEnding says. It uses shell built-ins
// only, so it never forks.
inline bool InstallBackendStandIn() {
  WriteFile(kBackendCalls, "", 0666);
  chmod(kBackendCalls, 0666);
  return WriteScript(
      kBackend,
      std::string("#!/bin/sh\nline=\"\"\nfor a in \"$@\"; do line=\"$line$a\t\"; done\n") +
          "printf '%s\\n' \"$line\" >> " + kBackendCalls + "\n" +
          StandInEnding(kBackendFailFlag, kBackendStatusFile));
}

// The fetchmail stand-in: appends its arguments, each followed by a tab, and
// then "<real uid> <uid> <real gid> <gid>" as one line, and its HOME, USER
// and LOGNAME as one line of kFetchmailEnv; then ends as StandInEnding says.
inline bool InstallFetchmailStandIn() {
  WriteFile(kFetchmailCalls, "", 0666);
  chmod(kFetchmailCalls, 0666);
  WriteFile(kFetchmailEnv, "", 0666);
  chmod(kFetchmailEnv, 0666);
  std::string record_env = "env=\"\"\n";
  for (const char* name : {"HOME", "USER", "LOGNAME"}) {
    const std::string n = name;
    record_env += "if [ -n \"${" + n + "+x}\" ]; then env=\"${env}" + n + "=$" + n +
                  "\t\"; else env=\"${env}" + n + " unset\t\"; fi\n";
  }
  record_env += std::string("printf '%s\\n' \"$env\" >> ") + kFetchmailEnv + "\n";
  return WriteScript(
      kFetchmail,
      std::string("#!/bin/sh\nline=\"\"\nfor a in \"$@\"; do line=\"$line$a\t\"; done\n") +
          "ids=\"$(/usr/bin/id -ru) $(/usr/bin/id -u) $(/usr/bin/id -rg) "
          "$(/usr/bin/id -g)\"\n" +
          "printf '%s%s\\n' \"$line\" \"$ids\" >> " + kFetchmailCalls + "\n" + record_env +
          StandInEnding(kFetchmailFailFlag, kFetchmailStatusFile));
}

// Makes the stand-in of `status_file` exit with `status` from now on.
inline bool SetStandInExitStatus(const std::string& status_file, int status) {
  return WriteFile(status_file, std::to_string(status) + "\n", 0644);
}

// The environment lines that the fetchmail stand-in recorded, in call order.
inline std::vector<std::string> FetchmailEnvs() {
  std::vector<std::string> lines;
  std::istringstream in(ReadFile(kFetchmailEnv));
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

// An environment line as the fetchmail stand-in writes it; an empty `user`
// stands for three unset variables.
inline std::string EnvLine(const std::string& home, const std::string& user) {
  if (user.empty()) return "HOME unset\tUSER unset\tLOGNAME unset\t";
  return "HOME=" + home + "\tUSER=" + user + "\tLOGNAME=" + user + "\t";
}

struct Call {
  std::vector<std::string> args;
  std::string ids;  // fetchmail only: "<ruid> <euid> <rgid> <egid>"
  bool operator==(const Call& other) const { return args == other.args && ids == other.ids; }
};

// Prints a call as {"arg" ... as <ids>} in failure messages.
inline void PrintTo(const Call& call, std::ostream* os) {
  *os << "{";
  for (const auto& a : call.args) *os << "\"" << a << "\" ";
  if (!call.ids.empty()) *os << "as " << call.ids;
  *os << "}";
}

// The calls a stand-in recorded in `path`, one a line, arguments ended by tabs
// (followed by the ids when `with_ids`).
inline std::vector<Call> ReadCalls(const std::string& path, bool with_ids) {
  std::vector<Call> calls;
  std::istringstream in(ReadFile(path));
  std::string line;
  while (std::getline(in, line)) {
    Call call;
    size_t start = 0;
    for (size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1) {
      call.args.push_back(line.substr(start, tab - start));
    }
    if (with_ids) call.ids = line.substr(start);
    calls.push_back(call);
  }
  return calls;
}

// The calls of the back-end tool and of fetchmail so far.
inline std::vector<Call> BackendCalls() { return ReadCalls(kBackendCalls, false); }
inline std::vector<Call> FetchmailCalls() { return ReadCalls(kFetchmailCalls, true); }

// The back-end tool asked to sync `path`.
inline Call SyncCall(const std::string& path) { return Call{{"--syncFile", path}, ""}; }

// "<ruid> <euid> <rgid> <egid>" as the fetchmail stand-in records them.
inline std::string Ids(unsigned ruid, unsigned euid, unsigned rgid, unsigned egid) {
  return std::to_string(ruid) + " " + std::to_string(euid) + " " + std::to_string(rgid) + " " +
         std::to_string(egid);
}

// fetchmail started on the fetch directory `dir` as `uid`:`gid`.
inline Call StartCall(const std::string& dir, unsigned uid, unsigned gid) {
  return Call{{"-f", dir + "quillbox_pop3_fetch", "--pidfile", dir + "quillbox_fetchmail.pid",
               "--idfile", dir + "quillbox_fetchmail.id"},
              Ids(uid, uid, gid, gid)};
}

// Stop keeps the caller's group (root's here).
inline Call StopCall(const std::string& dir, unsigned uid, unsigned gid = 0) {
  return Call{{"--quit", "--pidfile", dir + "quillbox_fetchmail.pid", "--idfile",
               dir + "quillbox_fetchmail.id"},
              Ids(uid, uid, gid, gid)};
}

// ---- Children ----

// A test of the POP3 fetch service: a fresh system tree with both stand-ins
// installed and the account's lock, spool database and settings directories.
class Pop3ServiceTest : public testing::Test {
 protected:
  void SetUp() override {
    ResetSystemTree();
    ASSERT_TRUE(InstallBackendStandIn());
    ASSERT_TRUE(InstallFetchmailStandIn());
    ASSERT_TRUE(MakeDir(kLockDir, kAccount, kAccount, 0755));
    ASSERT_TRUE(MakeDir(std::string(kSpool) + "/vt/db", kAccount, kAccount, 0755));
    ASSERT_TRUE(MakeDir(kSettingsDir, kAccount, kAccount, 0755));
  }
};

// Runs `fn` in a forked child and returns its exit status (fn's result), or
// -1 when the child did not exit normally.
inline int InChild(const std::function<int()>& fn) {
  pid_t pid = fork();
  if (pid == 0) {
    int rc = 99;
    try {
      rc = fn();
    } catch (...) {
      rc = 98;
    }
    _exit(rc);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// Runs `fn` in a child with a mount namespace of its own, so that whatever it
// mounts goes away with it.
inline int InChildWithPrivateMounts(const std::function<int()>& fn) {
  return InChild([&fn] {
    if (unshare(CLONE_NEWNS) != 0) return 90;
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return 91;
    return fn();
  });
}

// Mounts a fresh tmpfs at `dir` (created when missing); true on success.
inline bool MountTmpfsAt(const std::string& dir) { return MakeDir(dir) && MountTmpfsOn(dir); }

// In a private mount namespace: binds a copy of /etc/passwd without the
// entry of `name` and with `extra` lines added over /etc/passwd.
inline bool ReplacePasswd(const std::string& drop_name, const std::string& extra) {
  std::istringstream in(ReadFile("/etc/passwd"));
  std::string out;
  std::string line;
  while (std::getline(in, line)) {
    if (!drop_name.empty() && line.compare(0, drop_name.size() + 1, drop_name + ":") == 0) {
      continue;
    }
    out += line + "\n";
  }
  out += extra;
  return BindCopyOver("/run/velmora-settings-passwd", out, "/etc/passwd");
}

// Installs a seccomp filter on the calling thread under which every fork()
// (a clone without CLONE_VM) fails with EAGAIN, or, with `notify`, is handed
// to a supervisor through the returned listener descriptor. posix_spawn
// (clone with CLONE_VM) still works, so programs can still be run. clone3 is
// answered ENOSYS so that the C library falls back to clone, whose flags the
// filter can see. Returns the listener (notify), 0, or -1 on failure.
inline int InstallForkFilter(bool notify) {
  if (kAuditArch == 0) return -1;
  const unsigned deny = notify ? SECCOMP_RET_USER_NOTIF : (SECCOMP_RET_ERRNO | EAGAIN);
  std::vector<sock_filter> filter = SeccompProgram({
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone3, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      // Low half of the flags (little-endian).
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, CLONE_VM, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_RET | BPF_K, deny),
  });
  sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
  long rc = syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER,
                    notify ? SECCOMP_FILTER_FLAG_NEW_LISTENER : 0, &program);
  return rc < 0 ? -1 : static_cast<int>(rc);
}

// Runs `fn` in a child in which fork() fails.
inline int InChildWithoutFork(const std::function<int()>& fn) {
  return InChild([&fn] { return InstallForkFilter(false) == 0 ? fn() : 97; });
}

// The parent of `pid` from /proc, or -1.
inline pid_t ParentOf(pid_t pid) {
  std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  size_t close_paren = stat.rfind(')');
  if (close_paren == std::string::npos) return -1;
  std::istringstream in(stat.substr(close_paren + 2));
  char state;
  pid_t ppid = -1;
  in >> state >> ppid;
  return ppid;
}

// Runs `fn` in a child T in which fork() works for T and for T's own
// children, and fails with EAGAIN for every process further down (a child
// of a child). A supervisor thread of T answers the filter's questions.
inline int InChildWithGrandchildForksFailing(const std::function<int()>& fn) {
  return InChild([&fn] {
    const pid_t self = getpid();
    int listener = -1;
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0) return 96;
    // The supervisor starts before the filter, which covers only the
    // thread that installs it (and the processes that it forks).
    std::thread supervisor([&] {
      int fd = -1;
      if (read(pipe_fds[0], &fd, sizeof(fd)) != static_cast<ssize_t>(sizeof(fd)) || fd < 0) return;
      for (;;) {
        seccomp_notif request;
        std::memset(&request, 0, sizeof(request));
        if (ioctl(fd, SECCOMP_IOCTL_NOTIF_RECV, &request) != 0) {
          if (errno == EINTR) continue;
          return;
        }
        seccomp_notif_resp response;
        std::memset(&response, 0, sizeof(response));
        response.id = request.id;
        const pid_t caller = static_cast<pid_t>(request.pid);
        if (caller == self || ParentOf(caller) == self) {
          response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        } else {
          response.error = -EAGAIN;
        }
        ioctl(fd, SECCOMP_IOCTL_NOTIF_SEND, &response);
      }
    });
    supervisor.detach();
    listener = InstallForkFilter(true);
    if (write(pipe_fds[1], &listener, sizeof(listener)) != static_cast<ssize_t>(sizeof(listener))) {
      return 95;
    }
    if (listener < 0) return 94;
    return fn();
  });
}

// The pids of the other processes that run this test program (forked
// copies: children of DownPrivilegeFork, detached restart children).
inline std::vector<pid_t> OtherCopiesOfThisProgram(const std::set<pid_t>& except) {
  std::vector<pid_t> pids;
  const std::string self_comm = ReadFile("/proc/self/comm");
  for (const std::string& name : ListDir("/proc")) {
    if (name.empty() || !std::isdigit(static_cast<unsigned char>(name[0]))) continue;
    pid_t pid = static_cast<pid_t>(std::stol(name));
    if (pid == getpid() || except.count(pid) != 0) continue;
    std::string stat = ReadFile("/proc/" + name + "/stat");
    size_t close_paren = stat.rfind(')');
    if (close_paren != std::string::npos && close_paren + 2 < stat.size() &&
        stat[close_paren + 2] == 'Z') {
      continue;  // already ended, only waiting to be reaped by its parent
    }
    if (ReadFile("/proc/" + name + "/comm") == self_comm) pids.push_back(pid);
  }
  return pids;
}

// Waits (up to `timeout`) until no copy of this program runs besides this
// process and `except`: the detached child of a restart and everything it
// forked have finished. True when that happened in time.
inline bool WaitForDetachedCopies(const std::set<pid_t>& except = {},
                                  std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (OtherCopiesOfThisProgram(except).empty()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// True when this process has no child at all, reaped or not.
inline bool NoChildLeft() {
  int status;
  errno = 0;
  pid_t got = waitpid(-1, &status, WNOHANG);
  if (!(got == -1 && errno == ECHILD)) return false;
  for (const std::string& task : ListDir("/proc/self/task")) {
    if (!ReadFile("/proc/self/task/" + task + "/children").empty()) return false;
  }
  return true;
}

// Uids of the running processes whose command is `comm`.
inline std::vector<std::pair<pid_t, uid_t>> ProcessesNamed(const std::string& comm) {
  std::vector<std::pair<pid_t, uid_t>> found;
  for (const std::string& name : ListDir("/proc")) {
    if (name.empty() || !std::isdigit(static_cast<unsigned char>(name[0]))) continue;
    const std::string base = "/proc/" + name;
    if (ReadFile(base + "/comm") != comm + "\n") continue;
    std::string stat = ReadFile(base + "/stat");
    size_t close_paren = stat.rfind(')');
    if (close_paren == std::string::npos || stat[close_paren + 2] == 'Z') continue;
    std::istringstream status(ReadFile(base + "/status"));
    std::string line;
    while (std::getline(status, line)) {
      if (line.compare(0, 4, "Uid:") == 0) {
        std::istringstream fields(line.substr(4));
        uid_t real = 0;
        fields >> real;
        found.emplace_back(static_cast<pid_t>(std::stol(name)), real);
      }
    }
  }
  return found;
}

}  // namespace settings_test
}  // namespace test
}  // namespace velmora

#endif  // VELMORA_TESTS_SUPPORT_SETTINGS_TEST_UTIL_H_
