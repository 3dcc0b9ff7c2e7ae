// velmoractl pop3 NAME list as installed, run as root and as the package
// account inside the test runner. The uid list, the fetch directories, the
// control files and the pid files are made by hand here; a live process
// behind a pid is a real child (sleep, under the user's identity), a stale
// one the pid of a child that has ended or a zombie.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/log_capture.h"
#include "support/test_util.h"
#include "support/tool_runner.h"

namespace velmora {
namespace test {
namespace {

using ::testing::Contains;
using ::testing::IsEmpty;

constexpr char kPackages[] = "/var/packages";
constexpr char kSettingsDir[] = "/var/packages/Velmora-Server/etc/velmora/";
constexpr char kBackend[] = "/var/packages/Velmora-Server/target/bin/orvo_mailserver_backend";
constexpr char kFetchmail[] = "/var/packages/Quillbox/target/bin/fetchmail";
constexpr char kSpool[] = "/var/spool/mail";
constexpr char kLockDir[] = "/var/lock/velmora_server";
// Every run of a stand-in appends one line here.
constexpr char kCallsDir[] = "/var/tmp/velmora-pop3-list";
constexpr char kCalls[] = "/var/tmp/velmora-pop3-list/calls";

constexpr char kAccountName[] = "Velmora-Server";
constexpr uid_t kAccount = 61000;
constexpr uid_t kUser1 = 61001;  // vtuser1
constexpr uid_t kUser2 = 61002;  // vtuser2
constexpr uid_t kUser3 = 61003;  // vtuser3
constexpr uid_t kNoAccount = 70000;

// ---- Files ----

int Shell(const std::string& command) {
  const int rc = std::system(command.c_str());
  return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

bool MakeDir(const std::string& path, uid_t uid, gid_t gid, mode_t mode) {
  if (Shell("mkdir -p '" + path + "'") != 0) return false;
  return chown(path.c_str(), uid, gid) == 0 && chmod(path.c_str(), mode) == 0;
}

bool WriteOwned(const std::string& path, const std::string& data, uid_t uid, mode_t mode) {
  return WriteFile(path, data, mode) && chown(path.c_str(), uid, uid) == 0 &&
         chmod(path.c_str(), mode) == 0;
}

// The user's fetch directory under the instance "vt".
std::string FetchDir(uint32_t uid) {
  char tail[64];
  std::snprintf(tail, sizeof(tail), "/vt/%04u/%u/.ORVOQB/", uid % 10000u, uid);
  return kSpool + std::string(tail);
}
std::string PidFile(uint32_t uid) { return FetchDir(uid) + "quillbox_fetchmail.pid"; }
std::string ControlFile(uint32_t uid) { return FetchDir(uid) + "quillbox_pop3_fetch"; }

// A fetch directory as the client package leaves it: the user's own, closed
// to others unless `mode` says otherwise.
void MakeFetchDir(uint32_t uid, mode_t mode = 0700) {
  ASSERT_TRUE(MakeDir(FetchDir(uid), uid, uid, mode));
}

// What a write would change about each entry below `roots`: type, owner,
// mode, size, modification and change times, and the bytes of a file.
std::map<std::string, std::string> Snapshot(const std::vector<std::string>& roots) {
  std::map<std::string, std::string> entries;
  std::function<void(const std::string&)> walk = [&](const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return;
    std::string& entry = entries[path];
    entry = std::to_string(st.st_mode) + " " + std::to_string(st.st_uid) + ":" +
            std::to_string(st.st_gid) + " " + std::to_string(st.st_size) + " " +
            std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) + " " +
            std::to_string(st.st_ctim.tv_sec) + "." + std::to_string(st.st_ctim.tv_nsec);
    if (S_ISREG(st.st_mode)) entry += "\n" + ReadFile(path);
    if (S_ISDIR(st.st_mode)) {
      for (const std::string& name : ListDir(path)) walk(path + "/" + name);
    }
  };
  for (const std::string& root : roots) walk(root);
  return entries;
}

// ---- Processes ----

// A process of `uid` that sleeps until the object goes: a live daemon.
class Sleeper {
 public:
  explicit Sleeper(uid_t uid) {
    pid_ = fork();
    if (pid_ == 0) {
      if (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0) _exit(99);
      execl("/bin/sleep", "sleep", "1000", static_cast<char*>(nullptr));
      _exit(98);
    }
    // Ready once it runs sleep, that is after the identity change.
    for (int i = 0; i < 500 && pid_ > 0; ++i) {
      if (ReadFile("/proc/" + std::to_string(pid_) + "/comm") == "sleep\n") return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ADD_FAILURE() << "the sleeping child did not start";
  }
  ~Sleeper() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;

  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

// The state letter of /proc/PID/stat; '\0' when the process is gone.
char ProcessState(pid_t pid) {
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t paren = stat.rfind(')');
  return paren != std::string::npos && paren + 2 < stat.size() ? stat[paren + 2] : '\0';
}

// A child that has ended and is not reaped until the object goes.
class Zombie {
 public:
  Zombie() {
    pid_ = fork();
    if (pid_ == 0) _exit(0);
    for (int i = 0; i < 500 && pid_ > 0; ++i) {
      if (ProcessState(pid_) == 'Z') return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ADD_FAILURE() << "the child did not become a zombie";
  }
  ~Zombie() {
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
  }
  Zombie(const Zombie&) = delete;
  Zombie& operator=(const Zombie&) = delete;

  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

// The pid of a child that has ended and been reaped: no process has it.
pid_t DeadPid() {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  return pid;
}

// ---- The tool ----

Result List(const std::string& user = "") { return Tool({"pop3", "vt", "list"}, user); }
Result ListJson(const std::string& user = "") {
  return Tool({"--json", "pop3", "vt", "list"}, user);
}

// The JSON listing is one line of JSON that equals `expected` (JSON text).
void ExpectJson(const Result& r, const std::string& expected) {
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  ASSERT_FALSE(r.out.empty());
  EXPECT_EQ(r.out.find('\n'), r.out.size() - 1) << r.out;
  EXPECT_EQ(ParseJson(r.out), ParseJson(expected)) << r.out;
}

// One plain line of the listing.
std::string Line(uint32_t uid, const std::string& user, const std::string& pid,
                 const std::string& state, const std::string& interval) {
  return std::to_string(uid) + "\t" + user + "\t" + pid + "\t" + state + "\t" + interval + "\n";
}

class VelmoractlPop3List : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(getpwuid(kNoAccount), nullptr) << "uid " << kNoAccount << " must have no account";
    ASSERT_EQ(UidOf(kAccountName), kAccount);
    ASSERT_EQ(
        Shell(std::string("rm -rf ") + kPackages + " " + kSpool + " " + kLockDir + " " + kCallsDir),
        0);
    ASSERT_TRUE(MakeDir(kSettingsDir, kAccount, kAccount, 0755));
    ASSERT_TRUE(MakeDir(kLockDir, kAccount, kAccount, 0755));
    ASSERT_TRUE(MakeDir(std::string(kSpool) + "/vt/db", kAccount, kAccount, 0755));
    ASSERT_TRUE(MakeDir(kCallsDir, 0, 0, 0777));
    // Stand-ins for the programs that a daemon start or stop and a
    // propagation would run: the listing must run neither.
    for (const char* program : {kBackend, kFetchmail}) {
      const std::string path = program;
      ASSERT_TRUE(MakeDir(path.substr(0, path.rfind('/')), 0, 0, 0755));
      ASSERT_TRUE(
          WriteFile(path, "#!/bin/sh\necho \"$0 $*\" >> " + std::string(kCalls) + "\n", 0755));
    }
  }

  void WriteUidList(const std::string& text, mode_t mode = 0644) {
    ASSERT_TRUE(WriteOwned(kUidList, text, kAccount, mode));
  }

  // Four listed users, one of each kind:
  //   61001 vtuser1: a live daemon whose pid file also has the interval
  //                  line of daemon mode; two "set daemon" lines, the last
  //                  one counts;
  //   61002 vtuser2: no pid file; a control file without a "set daemon"
  //                  line at the start of a line;
  //   61003 vtuser3: the pid of a process that has ended; no control file;
  //   70000:         no account; the pid of a zombie; "set daemon 60".
  void MakeMixedService(const Sleeper& live, pid_t dead, const Zombie& zombie) {
    WriteUidList("61003\n61001\n70000\n61002\n61001\n");
    MakeFetchDir(kUser1);
    ASSERT_TRUE(WriteOwned(PidFile(kUser1), std::to_string(live.pid()) + "\n300\n", kUser1, 0644));
    ASSERT_TRUE(WriteOwned(ControlFile(kUser1),
                           "set daemon 120\npoll pop.example.com protocol pop3\nset daemon 600\n",
                           kUser1, 0600));
    MakeFetchDir(kUser2);
    ASSERT_TRUE(
        WriteOwned(ControlFile(kUser2), "poll pop.example.com\n  set daemon 90\n", kUser2, 0600));
    MakeFetchDir(kUser3);
    ASSERT_TRUE(WriteOwned(PidFile(kUser3), std::to_string(dead) + "\n", kUser3, 0644));
    MakeFetchDir(kNoAccount);
    ASSERT_TRUE(
        WriteOwned(PidFile(kNoAccount), std::to_string(zombie.pid()) + "\n", kNoAccount, 0644));
    ASSERT_TRUE(WriteOwned(ControlFile(kNoAccount), "set daemon 60\n", kNoAccount, 0600));
  }
};

TEST_F(VelmoractlPop3List, ShowsUserPidStateAndIntervalOfEachListedUid) {
  Sleeper live(kUser1);
  const pid_t dead = DeadPid();
  Zombie zombie;
  MakeMixedService(live, dead, zombie);
  ASSERT_EQ(ProcessState(dead), '\0');

  Result r = List();
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out, Line(kUser1, "vtuser1", std::to_string(live.pid()), "running", "600") +
                       Line(kUser2, "vtuser2", "-", "stopped", "-") +
                       Line(kUser3, "vtuser3", std::to_string(dead), "stale", "-") +
                       Line(kNoAccount, "-", std::to_string(zombie.pid()), "stale", "60"));
}

TEST_F(VelmoractlPop3List, JsonGivesTheSameRows) {
  Sleeper live(kUser1);
  const pid_t dead = DeadPid();
  Zombie zombie;
  MakeMixedService(live, dead, zombie);

  ExpectJson(ListJson(),
             "[{\"uid\":61001,\"user\":\"vtuser1\",\"pid\":" + std::to_string(live.pid()) +
                 ",\"state\":\"running\",\"interval\":600},"
                 "{\"uid\":61002,\"user\":\"vtuser2\",\"pid\":null,\"state\":\"stopped\","
                 "\"interval\":null},"
                 "{\"uid\":61003,\"user\":\"vtuser3\",\"pid\":" +
                 std::to_string(dead) +
                 ",\"state\":\"stale\",\"interval\":null},"
                 "{\"uid\":70000,\"user\":\"\",\"pid\":" +
                 std::to_string(zombie.pid()) + ",\"state\":\"stale\",\"interval\":60}]");
  // The flag is accepted after the subcommand too.
  EXPECT_EQ(Tool({"pop3", "vt", "list", "--json"}).out, ListJson().out);
}

TEST_F(VelmoractlPop3List, AnEndedDaemonTurnsStale) {
  auto live = std::make_unique<Sleeper>(kUser1);
  const pid_t pid = live->pid();
  WriteUidList("61001\n");
  MakeFetchDir(kUser1);
  ASSERT_TRUE(WriteOwned(PidFile(kUser1), std::to_string(pid) + "\n", kUser1, 0644));
  EXPECT_EQ(List().out, Line(kUser1, "vtuser1", std::to_string(pid), "running", "-"));
  live.reset();
  EXPECT_EQ(List().out, Line(kUser1, "vtuser1", std::to_string(pid), "stale", "-"));
}

TEST_F(VelmoractlPop3List, APidFileWithoutAPidIsStale) {
  Sleeper live(kUser1);
  // uid -> first bytes of its pid file.
  const std::vector<std::pair<uint32_t, std::string>> files = {
      {80001, ""},
      {80002, "\n" + std::to_string(live.pid()) + "\n"},  // the pid not on line 1
      {80003, "abc\n"},
      {80004, "0\n"},
      {80005, "-5\n"},
      {80006, "12 34\n"},
      {80007, "2147483648\n"},
      {80008, "99999999999999999999999\n"},
      {80009, "0x10\n"},
  };
  std::string list;
  std::string expected;
  for (const auto& f : files) {
    list += std::to_string(f.first) + "\n";
    MakeFetchDir(f.first);
    ASSERT_TRUE(WriteOwned(PidFile(f.first), f.second, f.first, 0644));
    expected += Line(f.first, "-", "-", "stale", "-");
  }
  // A pid with blanks around it, or without a newline, is still a pid.
  for (const auto& f : std::vector<std::pair<uint32_t, std::string>>{
           {80010, " " + std::to_string(live.pid()) + " \r\n"},
           {80011, std::to_string(live.pid())}}) {
    list += std::to_string(f.first) + "\n";
    MakeFetchDir(f.first);
    ASSERT_TRUE(WriteOwned(PidFile(f.first), f.second, f.first, 0644));
    expected += Line(f.first, "-", std::to_string(live.pid()), "running", "-");
  }
  WriteUidList(list);
  Result r = List();
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, expected);
}

TEST_F(VelmoractlPop3List, IntervalIsTheNumberOfTheLastSetDaemonLine) {
  // uid -> control file, and the interval listed ("-": none).
  struct Case {
    uint32_t uid;
    std::string control;
    std::string interval;
  };
  const std::vector<Case> cases = {
      {80001, "set daemon 300\n", "300"},
      {80002, "set daemon 300\nset daemon 45\n", "45"},
      {80003, "set daemon 45\npoll pop.example.com protocol pop3\n", "45"},
      {80004, "poll pop.example.com protocol pop3\n", "-"},
      {80005, "", "-"},
      {80006, "  set daemon 300\n# set daemon 5\n", "-"},
      {80007, "set daemon\n", "-"},
      {80008, "set daemon 300\nset daemon abc\n", "-"},
      {80009, "set daemon 5m\n", "-"},
      {80010, "set daemon300\n", "-"},
      {80011, "set daemon 4294967295\n", "4294967295"},
      {80012, "set daemon 4294967296\n", "-"},
      {80013, "set daemon 300 # five minutes\n", "300"},
      {80014, "set daemon\t120\r\n", "120"},
      {80015, "poll x\nset daemon 900", "900"},
      {80016, "set daemon 300\n" + std::string(20000, 'x') + "\nset daemon 30\n", "30"},
      // The last line starts a few bytes before 16 KiB (a likely read size)
      // and ends after it; so does the long line above.
      {80017, "poll " + std::string(16374, 'x') + "\nset daemon 77\n", "77"},
      {80018, "set daemon 1\n" + std::string(65536 * 2 + 3, ' ') + "\nset daemon 8\n", "8"},
  };
  std::string list;
  std::string expected;
  for (const Case& c : cases) {
    list += std::to_string(c.uid) + "\n";
    MakeFetchDir(c.uid);
    ASSERT_TRUE(WriteOwned(ControlFile(c.uid), c.control, c.uid, 0600));
    expected += Line(c.uid, "-", "-", "stopped", c.interval);
  }
  // No control file at all.
  list += "80019\n";
  MakeFetchDir(80019);
  expected += Line(80019, "-", "-", "stopped", "-");
  WriteUidList(list);

  Result r = List();
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, expected);
  Json::Value rows = ParseJson(ListJson().out);
  ASSERT_TRUE(rows.isArray());
  ASSERT_EQ(rows.size(), cases.size() + 1);
  EXPECT_EQ(rows[10]["interval"].asUInt(), 4294967295u);
  EXPECT_TRUE(rows[11]["interval"].isNull());
}

TEST_F(VelmoractlPop3List, SomethingElseInPlaceOfAFileIsUnknownAndDoesNotBlock) {
  WriteUidList("61001\n61002\n");
  MakeFetchDir(kUser1);
  ASSERT_EQ(mkfifo(PidFile(kUser1).c_str(), 0644), 0);
  ASSERT_EQ(mkfifo(ControlFile(kUser1).c_str(), 0644), 0);
  MakeFetchDir(kUser2);
  ASSERT_TRUE(MakeDir(PidFile(kUser2), kUser2, kUser2, 0755));
  ASSERT_TRUE(MakeDir(ControlFile(kUser2), kUser2, kUser2, 0755));

  // Nothing that is not a regular file is even opened.
  const int watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  ASSERT_GE(watch, 0);
  ASSERT_GE(inotify_add_watch(watch, PidFile(kUser1).c_str(), IN_OPEN), 0);
  ASSERT_GE(inotify_add_watch(watch, ControlFile(kUser1).c_str(), IN_OPEN), 0);

  Result r = Tool({"pop3", "vt", "list"}, "", std::chrono::seconds(10));
  EXPECT_FALSE(r.timed_out);
  char events[4096];
  EXPECT_EQ(read(watch, events, sizeof(events)), -1);
  EXPECT_EQ(errno, EAGAIN);
  close(watch);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, Line(kUser1, "vtuser1", "-", "unknown", "-") +
                       Line(kUser2, "vtuser2", "-", "unknown", "-"));
}

TEST_F(VelmoractlPop3List, AMissingUidListIsAnEmptyListing) {
  Result r = List();
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  ExpectJson(ListJson(), "[]");
  // An empty file, too.
  WriteUidList("");
  EXPECT_EQ(List().out, "");
}

TEST_F(VelmoractlPop3List, AnUnreadableUidListIsAnEmptyListingAndLogged) {
  WriteUidList("61001\n", 0600);
  ASSERT_EQ(chown(kUidList, 0, 0), 0);
  MakeFetchDir(kUser1);
  EXPECT_EQ(List().out, Line(kUser1, "vtuser1", "-", "stopped", "-"));

  LogCapture log;
  Result r = List(kAccountName);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  EXPECT_THAT(log.Records(), Contains(ToolLine(LOG_LOCAL1 | LOG_ERR, "src/lib/settings/velmora",
                                               "fail open Global pop3_uid.config file")));
  ExpectJson(ListJson(kAccountName), "[]");
}

TEST_F(VelmoractlPop3List, ThePackageAccountSeesWhatItMayRead) {
  Sleeper live1(kUser1);
  Sleeper live2(kUser2);
  const std::string pid1 = std::to_string(live1.pid());
  const std::string pid2 = std::to_string(live2.pid());
  WriteUidList("61001\n61002\n61003\n70000\n");
  // The user's closed directory: nothing in it can be read.
  MakeFetchDir(kUser1, 0700);
  ASSERT_TRUE(WriteOwned(PidFile(kUser1), pid1 + "\n", kUser1, 0644));
  ASSERT_TRUE(WriteOwned(ControlFile(kUser1), "set daemon 600\n", kUser1, 0600));
  // An open directory with a readable pid file and a closed control file.
  MakeFetchDir(kUser2, 0755);
  ASSERT_TRUE(WriteOwned(PidFile(kUser2), pid2 + "\n", kUser2, 0644));
  ASSERT_TRUE(WriteOwned(ControlFile(kUser2), "set daemon 600\n", kUser2, 0600));
  // A closed pid file and a readable control file.
  MakeFetchDir(kUser3, 0755);
  ASSERT_TRUE(WriteOwned(PidFile(kUser3), pid1 + "\n", kUser3, 0600));
  ASSERT_TRUE(WriteOwned(ControlFile(kUser3), "set daemon 300\n", kUser3, 0644));
  // An open directory without a pid file.
  MakeFetchDir(kNoAccount, 0755);

  Result root = List();
  EXPECT_EQ(root.status, 0) << root.err;
  EXPECT_EQ(root.out, Line(kUser1, "vtuser1", pid1, "running", "600") +
                          Line(kUser2, "vtuser2", pid2, "running", "600") +
                          Line(kUser3, "vtuser3", pid1, "running", "300") +
                          Line(kNoAccount, "-", "-", "stopped", "-"));

  Result account = List(kAccountName);
  EXPECT_EQ(account.status, 0) << account.err;
  EXPECT_EQ(account.err, "");
  EXPECT_EQ(account.out, Line(kUser1, "vtuser1", "-", "unknown", "-") +
                             Line(kUser2, "vtuser2", pid2, "running", "-") +
                             Line(kUser3, "vtuser3", "-", "unknown", "300") +
                             Line(kNoAccount, "-", "-", "stopped", "-"));
  ExpectJson(ListJson(kAccountName),
             "[{\"uid\":61001,\"user\":\"vtuser1\",\"pid\":null,\"state\":\"unknown\","
             "\"interval\":null},"
             "{\"uid\":61002,\"user\":\"vtuser2\",\"pid\":" +
                 pid2 +
                 ",\"state\":\"running\",\"interval\":null},"
                 "{\"uid\":61003,\"user\":\"vtuser3\",\"pid\":null,\"state\":\"unknown\","
                 "\"interval\":300},"
                 "{\"uid\":70000,\"user\":\"\",\"pid\":null,\"state\":\"stopped\","
                 "\"interval\":null}]");

  // The user itself reads its own files.
  EXPECT_EQ(List("vtuser1").out, Line(kUser1, "vtuser1", pid1, "running", "600") +
                                     Line(kUser2, "vtuser2", pid2, "running", "-") +
                                     Line(kUser3, "vtuser3", "-", "unknown", "300") +
                                     Line(kNoAccount, "-", "-", "stopped", "-"));
}

// With /proc mounted hidepid=2 another user's process is invisible there;
// it still counts as running.
TEST_F(VelmoractlPop3List, AProcessHiddenInProcStillRuns) {
  Sleeper live(kUser1);
  const std::string pid = std::to_string(live.pid());
  WriteUidList("61001\n");
  MakeFetchDir(kUser1, 0755);
  ASSERT_TRUE(WriteOwned(PidFile(kUser1), pid + "\n", kUser1, 0644));
  const std::string report = "/run/velmora-pop3-list-hidden";
  unlink(report.c_str());

  pid_t child = fork();
  if (child == 0) {
    if (unshare(CLONE_NEWNS) != 0) _exit(90);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(91);
    if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, "hidepid=2") != 0) {
      _exit(92);
    }
    // Only meaningful if the account really cannot see the process now.
    const std::string proc_dir = "/proc/" + pid;
    if (RunAs(kAccountName, [&] { return access(proc_dir.c_str(), F_OK) == 0 ? 1 : 0; }) != 0) {
      _exit(93);
    }
    Result r = List(kAccountName);
    _exit(WriteFile(report, std::to_string(r.status) + "\n" + r.out) ? 0 : 94);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 92 || WEXITSTATUS(status) == 93) {
    GTEST_SKIP() << "cannot hide processes with hidepid here (" << WEXITSTATUS(status) << ")";
  }
  ASSERT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(ReadFile(report), "0\n" + Line(kUser1, "vtuser1", pid, "running", "-"));
  unlink(report.c_str());
}

TEST_F(VelmoractlPop3List, TakesNoLockAndWritesNothing) {
  Sleeper live(kUser1);
  const pid_t dead = DeadPid();
  Zombie zombie;
  MakeMixedService(live, dead, zombie);
  // Another process holds the instance's lock, as a start or stop would.
  const int lock_fd = open(kLockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(lock_fd, 0);
  ASSERT_EQ(flock(lock_fd, LOCK_EX | LOCK_NB), 0);
  const std::vector<std::string> roots = {kPackages, kSpool, kLockDir};
  const auto before = Snapshot(roots);
  ASSERT_THAT(before, Contains(testing::Key(std::string(kLockFile))));

  for (const std::string& user : {std::string(), std::string(kAccountName)}) {
    for (bool json : {false, true}) {
      std::vector<std::string> args = {"pop3", "vt", "list"};
      if (json) args.push_back("--json");
      // A lock attempt would wait for the holder for up to a minute.
      Result r = Tool(args, user, std::chrono::seconds(20));
      EXPECT_FALSE(r.timed_out) << user;
      EXPECT_EQ(r.status, 0) << user << ": " << r.err;
      EXPECT_LT(r.seconds, 10.0) << user;
      EXPECT_FALSE(r.out.empty()) << user;
    }
  }
  EXPECT_EQ(Snapshot(roots), before);
  close(lock_fd);

  // Without a lock file the listing does not make one.
  ASSERT_EQ(unlink(kLockFile), 0);
  const auto unlocked = Snapshot(roots);
  EXPECT_EQ(List().status, 0);
  EXPECT_EQ(List(kAccountName).status, 0);
  EXPECT_EQ(Snapshot(roots), unlocked);
  EXPECT_FALSE(PathExists(kLockFile));
  // No daemon was started or stopped, nothing propagated.
  EXPECT_THAT(ReadFile(kCalls), IsEmpty());
}

TEST_F(VelmoractlPop3List, HelpDescribesTheColumnsAndStates) {
  Result r = Tool({"pop3", "vt", "list", "--help"});
  EXPECT_EQ(r.status, 0);
  for (const char* word : {"UID  USER  PID  STATE  INTERVAL", "running", "stopped", "stale",
                           "unknown", "set daemon", "--json"}) {
    EXPECT_THAT(r.out, testing::HasSubstr(word)) << word;
  }
}

}  // namespace
}  // namespace test
}  // namespace velmora
