// End-to-end tests of the POP3 fetch service with real programs only:
// dovecot serves POP3 on loopback, the real fetchmail runs at the client
// package's path under each user's identity, and its delivery agent writes
// every fetched message into a directory that the test reads. The calling
// process runs as root, once with HOME=/root (as a cron job or a web
// back-end does) and once with an empty environment. Every step checks the
// processes (/proc/PID/status), pid files, the uid list, the control files,
// the delivered messages and the exact log lines; every wait is bounded.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <velmora/settings.h>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/pop3_world.h"
#include "support/settings_test_util.h"

extern char** environ;

namespace velmora {
namespace test {
namespace settings_test {
namespace {

using testing::EndsWith;
using testing::SizeIs;

constexpr char kInstance[] = "vt";
constexpr char kRealFetchmail[] = "/usr/bin/fetchmail";
constexpr char kServerRoot[] = "/var/tmp/velmora-pop3";
constexpr char kDeliveryRoot[] = "/var/tmp/velmora-delivered";
constexpr int kPort = 11110;
constexpr int kManyUsers = 50;
// Longest wait for anything fetchmail or the server does.
constexpr auto kPatience = std::chrono::seconds(20);

// How the calling process's environment looks while it calls the library.
enum class CallerEnv { kRootHome, kEmpty };

std::string EnvName(const testing::TestParamInfo<CallerEnv>& info) {
  return info.param == CallerEnv::kRootHome ? "RootWithHomeRoot" : "EmptyEnvironment";
}

bool WaitUntil(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// The Uid: and Gid: lines of /proc/PID/status; empty when it is gone.
std::string IdLines(pid_t pid) {
  std::istringstream status(ReadFile("/proc/" + std::to_string(pid) + "/status"));
  std::string line;
  std::string ids;
  while (std::getline(status, line)) {
    if (line.compare(0, 4, "Uid:") == 0 || line.compare(0, 4, "Gid:") == 0) ids += line + "\n";
  }
  return ids;
}

std::string ExpectedIds(uint32_t uid, uint32_t gid) {
  const std::string u = std::to_string(uid);
  const std::string g = std::to_string(gid);
  return "Uid:\t" + u + "\t" + u + "\t" + u + "\t" + u + "\nGid:\t" + g + "\t" + g + "\t" + g +
         "\t" + g + "\n";
}

// True when some process of the namespace has ended and waits to be reaped.
bool AnyZombie() {
  for (const std::string& name : ListDir("/proc")) {
    if (name.empty() || !std::isdigit(static_cast<unsigned char>(name[0]))) continue;
    const std::string stat = ReadFile("/proc/" + name + "/stat");
    const size_t paren = stat.rfind(')');
    if (paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == 'Z') {
      return true;
    }
  }
  return false;
}

// True when the only child of this process is the POP3 server: every child
// the library made has been reaped.
bool OnlyTheServerIsAChild(pid_t server) {
  int status;
  if (waitpid(-1, &status, WNOHANG) != 0) return false;  // one has ended unreaped
  std::string children;
  for (const std::string& task : ListDir("/proc/self/task")) {
    children += ReadFile("/proc/self/task/" + task + "/children");
  }
  return children == std::to_string(server) + " ";
}

// Parent pid of a process, from the field after its state in
// /proc/PID/stat; 0 when the process is gone.
pid_t ParentOf(pid_t pid) {
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t close_paren = stat.rfind(')');
  if (close_paren == std::string::npos) return 0;
  std::istringstream fields(stat.substr(close_paren + 1));
  char state = 0;
  pid_t parent = 0;
  fields >> state >> parent;
  return parent;
}

// Pid of each running fetchmail daemon by real uid. A daemon that delivers a
// message forks a copy of itself that runs the delivery command; that copy
// still carries fetchmail's name until it has exec'd, and is not a daemon.
std::map<uid_t, std::vector<pid_t>> FetchmailsByUser() {
  const auto processes = ProcessesNamed("fetchmail");
  std::set<pid_t> pids;
  for (const auto& process : processes) pids.insert(process.first);
  std::map<uid_t, std::vector<pid_t>> by_user;
  for (const auto& process : processes) {
    if (pids.count(ParentOf(process.first)) != 0) continue;
    by_user[process.second].push_back(process.first);
  }
  return by_user;
}

// Records written by this program and its forked copies (the library's).
std::vector<LogRecord> LibraryRecords(LogCapture& capture) {
  std::vector<LogRecord> mine;
  for (const LogRecord& r : capture.Records()) {
    if (r.tag == program_invocation_short_name) mine.push_back(r);
  }
  return mine;
}

std::string Message(const std::string& subject) {
  return "From: sender@example.org\nTo: someone@example.org\nSubject: " + subject + "\n\n" +
         "body of " + subject + "\n";
}

class Pop3FetchEndToEndTest : public testing::TestWithParam<CallerEnv> {
 protected:
  static void SetUpTestSuite() {
    server_ = new Pop3Server(kServerRoot, kPort);
    many_ = new std::vector<LocalUser>(NumberedUsers("vtfetch", 62001, kManyUsers));
    ASSERT_TRUE(AddLocalUsers(*many_));
    ASSERT_TRUE(server_->Start()) << ReadFile(server_->log_path());
  }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
    delete many_;
    many_ = nullptr;
  }

  void SetUp() override {
    ASSERT_NE(server_, nullptr);
    round_ = ++rounds_;
    ResetSystemTree();
    Shell(std::string("rm -rf ") + kDeliveryRoot);
    ASSERT_TRUE(MakeDir(kDeliveryRoot));
    ASSERT_TRUE(server_->Clear());
    ASSERT_TRUE(InstallBackendStandIn());
    ASSERT_TRUE(MakeDir(kFetchmailDir));
    ASSERT_EQ(symlink(kRealFetchmail, kFetchmail), 0);
    ASSERT_TRUE(MakeDir(kLockDir, kAccount, kAccount, 0755));
    ASSERT_TRUE(MakeDir(std::string(kSpool) + "/vt/db", kAccount, kAccount, 0755));
    ASSERT_TRUE(MakeDir(kSettingsDir, kAccount, kAccount, 0755));
  }

  void TearDown() override {
    // What fetchmail and the library logged helps to read a failure.
    if (HasFailure()) {
      for (const LogRecord& r : whole_test_.Records()) {
        std::fprintf(stderr, "log: <%d> %s: %s\n", r.priority, r.tag.c_str(), r.text.c_str());
      }
      std::fprintf(stderr, "dovecot's log:\n%s", ReadFile(server_->log_path()).c_str());
    }
    // Whatever a failed check left running goes.
    for (const auto& process : ProcessesNamed("fetchmail")) kill(process.first, SIGKILL);
    EXPECT_TRUE(WaitForDetachedCopies());
    EXPECT_TRUE(WaitUntil([] { return ProcessesNamed("fetchmail").empty(); }));
    EXPECT_TRUE(OnlyTheServerIsAChild(server_->pid()));
  }

  // Runs one library call the way the caller's environment is set for this
  // run, and checks that the call left that environment as it was.
  bool AsCaller(const std::function<bool()>& call) {
    if (GetParam() == CallerEnv::kRootHome) {
      const char* names[] = {"HOME", "USER", "LOGNAME"};
      std::map<std::string, std::string> saved;
      for (const char* name : names) {
        if (const char* value = std::getenv(name)) saved[name] = value;
        setenv(name, std::strcmp(name, "HOME") == 0 ? "/root" : "root", 1);
      }
      const bool result = call();
      EXPECT_STREQ(std::getenv("HOME"), "/root");
      EXPECT_STREQ(std::getenv("USER"), "root");
      EXPECT_STREQ(std::getenv("LOGNAME"), "root");
      for (const char* name : names) {
        if (saved.count(name) != 0) {
          setenv(name, saved[name].c_str(), 1);
        } else {
          unsetenv(name);
        }
      }
      return result;
    }
    std::vector<std::string> saved;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
      saved.emplace_back(*entry);
    }
    clearenv();
    const bool result = call();
    EXPECT_TRUE(environ == nullptr || environ[0] == nullptr) << "the call set " << environ[0];
    clearenv();
    for (const std::string& entry : saved) {
      const size_t eq = entry.find('=');
      setenv(entry.substr(0, eq).c_str(), entry.substr(eq + 1).c_str(), 1);
    }
    return result;
  }

  // Each test has mailboxes of its own names, so that the server's log
  // lines of an earlier test never count for a later one.
  std::string Mailbox(const LocalUser& user) const {
    return "r" + std::to_string(round_) + "-" + user.name;
  }
  std::string Password(const LocalUser& user) const {
    return Pop3Server::PasswordOf(Mailbox(user));
  }
  static std::string DeliveryDir(const LocalUser& user) {
    return std::string(kDeliveryRoot) + "/" + user.name;
  }
  std::string Dir(const LocalUser& user) const { return control_.UserFetchMailPath(user.uid); }
  std::string Rc(const LocalUser& user) const { return Dir(user) + "quillbox_pop3_fetch"; }
  std::string PidFile(const LocalUser& user) const { return Dir(user) + "quillbox_fetchmail.pid"; }

  // The user's mailbox on the server, the delivery directory, and the fetch
  // directory with the control file (owned by the user, `group`, `mode`)
  // exactly where the library looks for them.
  void PrepareUser(const LocalUser& user, gid_t group, mode_t mode = 0700,
                   const std::string& password_in_rc = "") {
    char tail[48];
    std::snprintf(tail, sizeof(tail), "/%04u/%u/.ORVOQB/", user.uid % 10000, user.uid);
    const std::string dir = std::string(kSpool) + "/" + kInstance + tail;
    ASSERT_EQ(Dir(user), dir);
    ASSERT_TRUE(MakeOwnedDirs(dir.substr(0, dir.size() - std::strlen(".ORVOQB/") - 1), user.uid,
                              user.gid, 0700));
    ASSERT_TRUE(MakeOwnedDirs(dir.substr(0, dir.size() - 1), user.uid, user.gid, 0700));
    ASSERT_TRUE(server_->AddMailbox(Mailbox(user)));
    ASSERT_TRUE(MakeDeliveryDir(DeliveryDir(user), user));
    const std::string password = password_in_rc.empty() ? Password(user) : password_in_rc;
    ASSERT_TRUE(WriteOwned(Rc(user),
                           ControlFileText(999, kPort, Mailbox(user), password, DeliveryDir(user)),
                           user.uid, group, mode));
  }

  std::string ExpectedRc(const LocalUser& user, uint32_t interval,
                         const std::string& password_in_rc = "") const {
    return ControlFileText(interval, kPort, Mailbox(user),
                           password_in_rc.empty() ? Password(user) : password_in_rc,
                           DeliveryDir(user));
  }

  // The pid file's first line (the daemon) and its second (the interval).
  pid_t RecordedPid(const LocalUser& user) const {
    const std::string text = ReadFile(PidFile(user));
    return text.empty() ? 0 : static_cast<pid_t>(std::atol(text.c_str()));
  }
  std::string RecordedInterval(const LocalUser& user) const {
    const std::string text = ReadFile(PidFile(user));
    const size_t newline = text.find('\n');
    return newline == std::string::npos ? "" : text.substr(newline + 1);
  }

  // Waits until the user's daemon runs: its pid file names a live fetchmail
  // of the user that is not `old`. Returns its pid, or 0.
  pid_t WaitForDaemon(const LocalUser& user, pid_t old = 0) {
    pid_t found = 0;
    WaitUntil([&] {
      const pid_t pid = RecordedPid(user);
      if (pid <= 0 || pid == old) return false;
      for (const auto& process : ProcessesNamed("fetchmail")) {
        if (process.first == pid && process.second == user.uid) {
          found = pid;
          return true;
        }
      }
      return false;
    });
    return found;
  }

  // Checks the running daemon of the user: ids, pid file, control file.
  void ExpectDaemon(const LocalUser& user, pid_t pid, gid_t group, uint32_t interval) {
    ASSERT_GT(pid, 0) << user.name << " has no daemon";
    EXPECT_EQ(IdLines(pid), ExpectedIds(user.uid, group)) << user.name;
    EXPECT_EQ(RecordedInterval(user), std::to_string(interval) + "\n") << user.name;
    EXPECT_EQ(ReadFile(Rc(user)), ExpectedRc(user, interval)) << user.name;
    const FileMeta rc = Meta(Rc(user));
    EXPECT_EQ(rc.uid, user.uid);
    EXPECT_EQ(rc.gid, group);
    EXPECT_EQ(rc.mode, 0700u);
  }

  // Waits until `count` messages have been delivered to the user and the
  // server holds none for it any more; checks that they end with `bodies`.
  void ExpectDelivered(const LocalUser& user, const std::vector<std::string>& bodies) {
    EXPECT_TRUE(WaitUntil([&] {
      return DeliveredMessages(DeliveryDir(user)).size() == bodies.size() &&
             server_->Waiting(Mailbox(user)) == 0;
    })) << user.name
        << ": " << DeliveredMessages(DeliveryDir(user)).size() << " delivered, "
        << server_->Waiting(Mailbox(user)) << " waiting";
    std::vector<std::string> delivered = DeliveredMessages(DeliveryDir(user));
    ASSERT_THAT(delivered, SizeIs(bodies.size()));
    // The delivery agent gets the message with fetchmail's Received header
    // in front; the message itself follows unchanged.
    for (const std::string& body : bodies) {
      bool seen = false;
      for (const std::string& message : delivered) {
        seen = seen || (message.size() >= body.size() &&
                        message.compare(message.size() - body.size(), body.size(), body) == 0 &&
                        message.compare(0, 10, "Received: ") == 0);
      }
      EXPECT_TRUE(seen) << user.name << " did not get: " << body;
    }
  }

  // No fetchmail runs, no pid file is left, nothing waits to be reaped.
  void ExpectAllStopped(const std::vector<LocalUser>& users) {
    EXPECT_TRUE(WaitUntil([] { return ProcessesNamed("fetchmail").empty(); }));
    for (const LocalUser& user : users) EXPECT_FALSE(PathExists(PidFile(user))) << user.name;
    EXPECT_FALSE(AnyZombie());
    EXPECT_TRUE(OnlyTheServerIsAChild(server_->pid()));
  }

  static std::vector<uint32_t> Uids(const std::vector<LocalUser>& users) {
    std::vector<uint32_t> uids;
    for (const LocalUser& user : users) uids.push_back(user.uid);
    return uids;
  }
  static std::string UidLines(const std::vector<LocalUser>& users) {
    std::string text;
    for (const LocalUser& user : users) text += std::to_string(user.uid) + "\n";
    return text;
  }

  static Pop3Server* server_;
  static std::vector<LocalUser>* many_;
  static int rounds_;
  int round_ = 0;
  LogCapture whole_test_;
  const LocalUser user1_{"vtuser1", kUser1, kUser1, "/var/tmp/home/vtuser1"};
  const LocalUser user2_{"vtuser2", kUser2, kUser2, "/var/tmp/home/vtuser2"};
  const LocalUser user3_{"vtuser3", kUser3, kUser3, "/var/tmp/home/vtuser3"};
  Pop3Control control_{kInstance};
};

Pop3Server* Pop3FetchEndToEndTest::server_ = nullptr;
std::vector<LocalUser>* Pop3FetchEndToEndTest::many_ = nullptr;
int Pop3FetchEndToEndTest::rounds_ = 0;

TEST_P(Pop3FetchEndToEndTest, ForceStartFetchesWaitingMailAndForceStopEndsTheDaemon) {
  PrepareUser(user1_, kUser1);
  ASSERT_TRUE(WriteFile(kSwitchFile, "true\n5\n"));
  ASSERT_TRUE(server_->Deposit(Mailbox(user1_), Message("first")));

  LogCapture capture;
  EXPECT_TRUE(AsCaller([&] { return control_.ForceStart({kUser1}); }));
  EXPECT_TRUE(OnlyTheServerIsAChild(server_->pid()));
  const pid_t daemon = WaitForDaemon(user1_);
  ExpectDaemon(user1_, daemon, kUser1, 300);
  ExpectDelivered(user1_, {Message("first")});
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList)));
  EXPECT_THAT(LibraryRecords(capture), IsEmpty());

  // The stop runs as the user with the user's HOME, whatever the caller's
  // is, so fetchmail finds and ends the daemon.
  capture.Reset();
  EXPECT_TRUE(AsCaller([&] { return control_.ForceStop({kUser1}); }));
  EXPECT_FALSE(PathExists("/proc/" + std::to_string(daemon) + "/status"));
  ExpectAllStopped({user1_});
  EXPECT_EQ(ReadFile(kUidList), "");
  const FileMeta list = Meta(kUidList);
  EXPECT_EQ(list.uid, kAccount);
  EXPECT_EQ(list.gid, kAccount);
  EXPECT_EQ(list.mode, 0644u);
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList), SyncCall(kUidList)));
  EXPECT_THAT(LibraryRecords(capture), IsEmpty());
}

TEST_P(Pop3FetchEndToEndTest, SetThenRestartWithANewPeriodRestartsTheDaemonsThatFetchNewMail) {
  // The second user's control file belongs to a shared group, which the
  // daemon runs with.
  PrepareUser(user1_, kUser1);
  PrepareUser(user2_, kShared);
  ASSERT_TRUE(WriteFile(kSwitchFile, "true\n5\n"));
  ASSERT_TRUE(AsCaller([&] { return control_.ForceStart({kUser1, kUser2}); }));
  const pid_t first1 = WaitForDaemon(user1_);
  const pid_t first2 = WaitForDaemon(user2_);
  ExpectDaemon(user1_, first1, kUser1, 300);
  ExpectDaemon(user2_, first2, kShared, 300);
  // Each daemon polls once as it starts; mail that arrives after that poll
  // waits for the next one, five minutes away.
  ASSERT_TRUE(WaitUntil([&] {
    return server_->EndedSessions(Mailbox(user1_)) == 1 &&
           server_->EndedSessions(Mailbox(user2_)) == 1;
  })) << ReadFile(server_->log_path());
  ASSERT_TRUE(server_->Deposit(Mailbox(user1_), Message("for one")));
  ASSERT_TRUE(server_->Deposit(Mailbox(user2_), Message("for two")));
  EXPECT_THAT(DeliveredMessages(DeliveryDir(user1_)), IsEmpty());

  LogCapture capture;
  EXPECT_TRUE(AsCaller([&] { return control_.SetThenRestart({true, 10}); }));
  EXPECT_TRUE(OnlyTheServerIsAChild(server_->pid()));
  ASSERT_TRUE(WaitForDetachedCopies());
  const pid_t second1 = WaitForDaemon(user1_, first1);
  const pid_t second2 = WaitForDaemon(user2_, first2);
  ExpectDaemon(user1_, second1, kUser1, 600);
  ExpectDaemon(user2_, second2, kShared, 600);
  EXPECT_FALSE(PathExists("/proc/" + std::to_string(first1) + "/status"));
  EXPECT_FALSE(PathExists("/proc/" + std::to_string(first2) + "/status"));
  EXPECT_THAT(FetchmailsByUser(), ElementsAre(std::make_pair(kUser1, std::vector<pid_t>{second1}),
                                              std::make_pair(kUser2, std::vector<pid_t>{second2})));
  ExpectDelivered(user1_, {Message("for one")});
  ExpectDelivered(user2_, {Message("for two")});
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n10\n");
  EXPECT_EQ(ReadFile(kUidList), "61001\n61002\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList), SyncCall(kSwitchFile)));
  EXPECT_THAT(LibraryRecords(capture), IsEmpty());

  EXPECT_TRUE(AsCaller([&] { return control_.ForceStop({kUser1, kUser2}); }));
  ExpectAllStopped({user1_, user2_});
  EXPECT_EQ(ReadFile(kUidList), "");
}

TEST_P(Pop3FetchEndToEndTest, UidListStopAndStartKeepTheListAndSwitchingOffStopsAll) {
  const std::vector<LocalUser> users{user1_, user2_, user3_};
  for (const LocalUser& user : users) PrepareUser(user, user.gid);
  ASSERT_TRUE(WriteFile(kSwitchFile, "true\n5\n"));
  ASSERT_TRUE(AsCaller([&] { return control_.ForceStart(Uids(users)); }));
  std::map<uint32_t, pid_t> first;
  for (const LocalUser& user : users) first[user.uid] = WaitForDaemon(user);

  // Stopping the listed daemons keeps the list.
  LogCapture capture;
  EXPECT_TRUE(AsCaller([&] { return control_.UidListStop(); }));
  ExpectAllStopped(users);
  EXPECT_EQ(ReadFile(kUidList), UidLines(users));
  EXPECT_THAT(LibraryRecords(capture), IsEmpty());

  // Starting them again brings the same users back, and they fetch.
  for (const LocalUser& user : users) {
    ASSERT_TRUE(server_->Deposit(Mailbox(user), Message("while stopped " + user.name)));
  }
  capture.Reset();
  EXPECT_TRUE(AsCaller([&] { return control_.UidListStart(); }));
  EXPECT_TRUE(OnlyTheServerIsAChild(server_->pid()));
  for (const LocalUser& user : users) {
    const pid_t pid = WaitForDaemon(user, first[user.uid]);
    ExpectDaemon(user, pid, user.gid, 300);
    ExpectDelivered(user, {Message("while stopped " + user.name)});
  }
  EXPECT_EQ(ReadFile(kUidList), UidLines(users));
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList)));
  EXPECT_THAT(LibraryRecords(capture), IsEmpty());

  // Turning the service off stops every listed daemon and keeps the list.
  capture.Reset();
  EXPECT_TRUE(AsCaller([&] { return control_.SetThenRestart({false, 5}); }));
  ASSERT_TRUE(WaitForDetachedCopies());
  ExpectAllStopped(users);
  EXPECT_EQ(ReadFile(kSwitchFile), "false\n5\n");
  EXPECT_EQ(ReadFile(kUidList), UidLines(users));
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList), SyncCall(kSwitchFile)));
  EXPECT_THAT(LibraryRecords(capture), IsEmpty());

  // With the service off, starting does nothing.
  EXPECT_TRUE(AsCaller([&] { return control_.UidListStart(); }));
  EXPECT_TRUE(AsCaller([&] { return control_.ForceStart({kUser1}); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  ExpectAllStopped(users);
}

TEST_P(Pop3FetchEndToEndTest, FiftyUsersStartAndStopLeavingNoDaemonAndNoZombie) {
  const std::vector<LocalUser>& users = *many_;
  for (const LocalUser& user : users) {
    PrepareUser(user, user.gid);
    ASSERT_TRUE(server_->Deposit(Mailbox(user), Message("hello " + user.name)));
  }
  ASSERT_TRUE(WriteFile(kSwitchFile, "true\n5\n"));

  LogCapture capture;
  EXPECT_TRUE(AsCaller([&] { return control_.ForceStart(Uids(users)); }));
  EXPECT_TRUE(OnlyTheServerIsAChild(server_->pid()));
  for (const LocalUser& user : users) ExpectDaemon(user, WaitForDaemon(user), user.gid, 300);
  EXPECT_THAT(ProcessesNamed("fetchmail"), SizeIs(users.size()));
  for (const LocalUser& user : users) ExpectDelivered(user, {Message("hello " + user.name)});
  EXPECT_EQ(ReadFile(kUidList), UidLines(users));
  EXPECT_THAT(LibraryRecords(capture), IsEmpty());

  capture.Reset();
  EXPECT_TRUE(AsCaller([&] { return control_.ForceStop(Uids(users)); }));
  ExpectAllStopped(users);
  EXPECT_EQ(ReadFile(kUidList), "");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList), SyncCall(kUidList)));
  EXPECT_THAT(LibraryRecords(capture), IsEmpty());
}

TEST_P(Pop3FetchEndToEndTest, AControlFileOpenToOthersIsRefusedByFetchmailYetTheStartCounts) {
  // The library keeps the file's mode; fetchmail refuses a file wider than
  // 0700 and says so on its standard error, which the caller's service
  // manager sends to the system log (here: logger reading a pipe).
  PrepareUser(user1_, kUser1, 0744);
  ASSERT_TRUE(WriteFile(kSwitchFile, "true\n5\n"));
  ASSERT_TRUE(server_->Deposit(Mailbox(user1_), Message("never fetched")));

  LogCapture capture;
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  const pid_t logger = fork();
  ASSERT_GE(logger, 0);
  if (logger == 0) {
    dup2(pipe_fds[0], 0);
    close(pipe_fds[0]);
    close(pipe_fds[1]);
    execl("/usr/bin/logger", "logger", "-t", "caller-stderr", "-p", "local1.info",
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(pipe_fds[0]);
  const int started = InChild([&] {
    dup2(pipe_fds[1], 2);
    close(pipe_fds[1]);
    return AsCaller([&] { return control_.ForceStart({kUser1}); }) ? 0 : 1;
  });
  close(pipe_fds[1]);
  int status = 0;
  ASSERT_EQ(waitpid(logger, &status, 0), logger);
  EXPECT_EQ(started, 0);

  std::vector<LogRecord> records = capture.Records();
  std::vector<std::string> stderr_lines;
  std::vector<LogRecord> library;
  for (const LogRecord& r : records) {
    if (r.tag == "caller-stderr") stderr_lines.push_back(r.text);
    if (r.tag == program_invocation_short_name) library.push_back(r);
  }
  EXPECT_THAT(stderr_lines, ElementsAre("File " + Rc(user1_) +
                                        " must have no more than -rwx------ (0700) permissions."));
  EXPECT_THAT(library, IsEmpty());
  EXPECT_TRUE(ProcessesNamed("fetchmail").empty());
  EXPECT_FALSE(PathExists(PidFile(user1_)));
  EXPECT_EQ(server_->Waiting(Mailbox(user1_)), 1);
  EXPECT_THAT(DeliveredMessages(DeliveryDir(user1_)), IsEmpty());
  // The start counts as done: the uid is listed, the control file carries
  // the new interval and keeps its mode.
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  EXPECT_EQ(ReadFile(Rc(user1_)), ExpectedRc(user1_, 300));
  EXPECT_EQ(Meta(Rc(user1_)).mode, 0744u);
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList)));
}

TEST_P(Pop3FetchEndToEndTest, AWrongPasswordFetchesNothingWhileTheOtherUsersGetTheirMail) {
  PrepareUser(user1_, kUser1, 0700, "not-the-password");
  PrepareUser(user2_, kUser2);
  ASSERT_TRUE(WriteFile(kSwitchFile, "true\n5\n"));
  ASSERT_TRUE(server_->Deposit(Mailbox(user1_), Message("locked out")));
  ASSERT_TRUE(server_->Deposit(Mailbox(user2_), Message("let in")));

  LogCapture capture;
  EXPECT_TRUE(AsCaller([&] { return control_.ForceStart({kUser1, kUser2}); }));
  const pid_t daemon1 = WaitForDaemon(user1_);
  const pid_t daemon2 = WaitForDaemon(user2_);
  EXPECT_EQ(IdLines(daemon1), ExpectedIds(kUser1, kUser1));
  EXPECT_EQ(IdLines(daemon2), ExpectedIds(kUser2, kUser2));
  ExpectDelivered(user2_, {Message("let in")});
  // fetchmail reports the refused login in the system log (mail.err, then
  // the poll's status at mail.info) and keeps its daemon running; the
  // message stays on the server.
  const std::pair<int, std::string> refused{
      LOG_MAIL | LOG_ERR, "Authorization failure on " + Mailbox(user1_) + "@127.0.0.1"};
  const std::pair<int, std::string> status{LOG_MAIL | LOG_INFO, "Query status=3 (AUTHFAIL)"};
  std::vector<std::pair<int, std::string>> fetchmail_lines;
  std::vector<LogRecord> library;
  EXPECT_TRUE(WaitUntil([&] {
    fetchmail_lines.clear();
    library.clear();
    for (const LogRecord& r : capture.Records()) {
      // fetchmail ends its messages with a newline, which syslog keeps.
      std::string text = r.text;
      while (!text.empty() && text.back() == '\n') text.pop_back();
      if (r.tag == "fetchmail") fetchmail_lines.emplace_back(r.priority, text);
      if (r.tag == program_invocation_short_name) library.push_back(r);
    }
    return std::count(fetchmail_lines.begin(), fetchmail_lines.end(), refused) == 1 &&
           std::count(fetchmail_lines.begin(), fetchmail_lines.end(), status) == 1;
  })) << "fetchmail did not report the refused login; it logged "
      << testing::PrintToString(fetchmail_lines);
  EXPECT_THAT(library, IsEmpty());
  EXPECT_THAT(DeliveredMessages(DeliveryDir(user1_)), IsEmpty());
  EXPECT_EQ(server_->Waiting(Mailbox(user1_)), 1);
  EXPECT_EQ(RecordedPid(user1_), daemon1);
  EXPECT_EQ(ReadFile(kUidList), "61001\n61002\n");

  EXPECT_TRUE(AsCaller([&] { return control_.ForceStop({kUser1, kUser2}); }));
  ExpectAllStopped({user1_, user2_});
}

INSTANTIATE_TEST_SUITE_P(CallerEnvironments, Pop3FetchEndToEndTest,
                         testing::Values(CallerEnv::kRootHome, CallerEnv::kEmpty), EnvName);

}  // namespace
}  // namespace settings_test
}  // namespace test
}  // namespace velmora
