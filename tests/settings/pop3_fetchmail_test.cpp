// End-to-end test of the POP3 fetch daemon control with the real fetchmail:
// two users' daemons are started, restarted with a new interval and stopped,
// and the processes, pid files, control files and the uid list are checked
// at every step.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <velmora/settings.h>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "settings/settings_test_util.h"

namespace velmora {
namespace test {
namespace settings_test {
namespace {

using settings::Pop3Control;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr char kUidList[] = "/var/spool/mail/vt/db/vt_pop3_uid.config";
constexpr char kSwitchFile[] = "/var/packages/Velmora-Server/etc/velmora/vt_pop3.config";
constexpr char kRealFetchmail[] = "/usr/bin/fetchmail";
constexpr char kPoll[] = "poll 127.0.0.1 port 1 proto pop3 user \"x\" password \"y\"\n";

// Records of this program (and its forked copies), without fetchmail's own.
std::vector<LogRecord> LibraryRecords(LogCapture& capture) {
  std::vector<LogRecord> mine;
  for (const LogRecord& r : capture.Records()) {
    if (r.tag != "fetchmail") mine.push_back(r);
  }
  return mine;
}

class Pop3FetchmailTest : public testing::Test {
 protected:
  void SetUp() override {
    ResetSystemTree();
    ASSERT_TRUE(InstallBackendStandIn());
    ASSERT_TRUE(MakeDir(kFetchmailDir));
    ASSERT_EQ(symlink(kRealFetchmail, kFetchmail), 0);
    ASSERT_TRUE(MakeDir(kLockDir, kAccount, kAccount, 0755));
    ASSERT_TRUE(MakeDir(std::string(kSpool) + "/vt/db", kAccount, kAccount, 0755));
    ASSERT_TRUE(MakeDir(kSettingsDir, kAccount, kAccount, 0755));
    // fetchmail --quit, which names no control file, looks for the default
    // one in $HOME and gives up when it may not look there (root's home, as
    // the user). Run like a service, without HOME: fetchmail then uses the
    // user's home from passwd.
    const char* home = std::getenv("HOME");
    if (home != nullptr) saved_home_ = home;
    unsetenv("HOME");
  }
  void TearDown() override {
    if (!saved_home_.empty()) setenv("HOME", saved_home_.c_str(), 1);
    // Whatever a failed check left running goes.
    for (const auto& process : ProcessesNamed("fetchmail")) kill(process.first, SIGKILL);
    EXPECT_TRUE(WaitForDetachedCopies());
    EXPECT_TRUE(NoChildLeft());
  }

  std::string Dir(uint32_t uid) const { return control_.UserFetchMailPath(uid); }
  std::string Rc(uint32_t uid) const { return Dir(uid) + "quillbox_pop3_fetch"; }
  std::string PidFile(uint32_t uid) const { return Dir(uid) + "quillbox_fetchmail.pid"; }

  void MakeUserFiles(uint32_t uid, gid_t gid, mode_t mode) {
    ASSERT_TRUE(MakeDir(Dir(uid), uid, uid, 0700));
    ASSERT_TRUE(WriteOwned(Rc(uid), std::string("set daemon 999\n") + kPoll, uid, gid, mode));
  }

  // The pid recorded in the user's pid file; 0 when there is none.
  pid_t RecordedPid(uint32_t uid) const {
    std::string text = ReadFile(PidFile(uid));
    return text.empty() ? 0 : static_cast<pid_t>(std::atol(text.c_str()));
  }

  // fetchmail processes by pid, with their real uids.
  static std::map<pid_t, uid_t> Daemons() {
    std::map<pid_t, uid_t> daemons;
    for (const auto& process : ProcessesNamed("fetchmail")) daemons.insert(process);
    return daemons;
  }

  // Waits (bounded) until exactly the users' daemons run, each recorded in
  // its pid file and none of them in `old`.
  bool WaitForDaemonsOf(const std::vector<uint32_t>& uids, const std::map<pid_t, uid_t>& old) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    for (;;) {
      std::map<pid_t, uid_t> daemons = Daemons();
      bool ready = daemons.size() == uids.size();
      for (uint32_t uid : uids) {
        pid_t pid = RecordedPid(uid);
        auto it = daemons.find(pid);
        ready = ready && pid > 0 && it != daemons.end() && it->second == uid && old.count(pid) == 0;
      }
      if (ready) return true;
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }

  bool WaitForNoDaemon() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (!Daemons().empty()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }

  // The effective ids of a process, from /proc.
  static std::string IdsOf(pid_t pid) {
    std::istringstream status(ReadFile("/proc/" + std::to_string(pid) + "/status"));
    std::string line;
    std::string uid;
    std::string gid;
    while (std::getline(status, line)) {
      if (line.compare(0, 4, "Uid:") == 0) uid = line.substr(4);
      if (line.compare(0, 4, "Gid:") == 0) gid = line.substr(4);
    }
    return "uid" + uid + " gid" + gid;
  }

  std::string saved_home_;
  Pop3Control control_{"vt"};
};

TEST_F(Pop3FetchmailTest, ForceStartRestartAndForceStopDriveRealDaemons) {
  MakeUserFiles(kUser1, kUser1, 0600);
  MakeUserFiles(kUser2, kShared, 0700);
  ASSERT_TRUE(WriteFile(kSwitchFile, "true\n5\n"));
  ASSERT_TRUE(Daemons().empty());

  // Start: one daemon per user, under the user's uid and the control file's
  // group, its pid file in the user's fetch directory.
  LogCapture capture;
  EXPECT_TRUE(control_.ForceStart({kUser1, kUser2}));
  EXPECT_TRUE(NoChildLeft());
  ASSERT_TRUE(WaitForDaemonsOf({kUser1, kUser2}, {}));
  std::map<pid_t, uid_t> first = Daemons();
  EXPECT_EQ(IdsOf(RecordedPid(kUser1)),
            "uid\t61001\t61001\t61001\t61001 gid\t61001\t61001\t61001\t61001");
  EXPECT_EQ(IdsOf(RecordedPid(kUser2)),
            "uid\t61002\t61002\t61002\t61002 gid\t61100\t61100\t61100\t61100");
  EXPECT_EQ(ReadFile(Rc(kUser1)), std::string("set daemon 300\n") + kPoll);
  EXPECT_EQ(ReadFile(Rc(kUser2)), std::string("set daemon 300\n") + kPoll);
  EXPECT_EQ(Meta(Rc(kUser2)).mode, 0700u);
  EXPECT_EQ(Meta(Rc(kUser2)).gid, kShared);
  EXPECT_EQ(ReadFile(kUidList), "61001\n61002\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList)));
  EXPECT_THAT(LibraryRecords(capture), IsEmpty());

  // Restart with a new period: the detached child stops and starts both.
  capture.Reset();
  EXPECT_TRUE(control_.SetThenRestart({true, 10}));
  EXPECT_TRUE(NoChildLeft());
  ASSERT_TRUE(WaitForDetachedCopies());
  EXPECT_TRUE(NoChildLeft());
  ASSERT_TRUE(WaitForDaemonsOf({kUser1, kUser2}, first));
  std::map<pid_t, uid_t> second = Daemons();
  EXPECT_EQ(IdsOf(RecordedPid(kUser1)),
            "uid\t61001\t61001\t61001\t61001 gid\t61001\t61001\t61001\t61001");
  EXPECT_EQ(IdsOf(RecordedPid(kUser2)),
            "uid\t61002\t61002\t61002\t61002 gid\t61100\t61100\t61100\t61100");
  EXPECT_EQ(ReadFile(Rc(kUser1)), std::string("set daemon 600\n") + kPoll);
  EXPECT_EQ(ReadFile(Rc(kUser2)), std::string("set daemon 600\n") + kPoll);
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n10\n");
  EXPECT_EQ(ReadFile(kUidList), "61001\n61002\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList), SyncCall(kSwitchFile)));
  // fetchmail --quit ends with status 1 after it has stopped the daemon,
  // so each stop is reported as failed in the log, though it worked.
  EXPECT_THAT(LibraryRecords(capture), ElementsAre(Err("Stop POP3Daemon for user(61001) error"),
                                                   Err("Stop POP3Daemon for user(61002) error")));

  // Stop: no fetchmail of those users is left, the list is emptied.
  capture.Reset();
  EXPECT_TRUE(control_.ForceStop({kUser1, kUser2}));
  EXPECT_TRUE(NoChildLeft());
  EXPECT_TRUE(WaitForNoDaemon());
  for (const auto& daemon : second)
    EXPECT_FALSE(PathExists("/proc/" + std::to_string(daemon.first)));
  EXPECT_EQ(ReadFile(kUidList), "");
  FileMeta list = Meta(kUidList);
  EXPECT_EQ(list.uid, kAccount);
  EXPECT_EQ(list.mode, 0644u);
  EXPECT_THAT(BackendCalls(),
              ElementsAre(SyncCall(kUidList), SyncCall(kSwitchFile), SyncCall(kUidList)));
  EXPECT_THAT(LibraryRecords(capture), ElementsAre(Err("Stop POP3Daemon for user(61001) error"),
                                                   Err("Stop POP3Daemon for user(61002) error")));
  EXPECT_TRUE(NoChildLeft());
}

TEST_F(Pop3FetchmailTest, FetchmailRefusesAControlFileOpenToOthers) {
  // The library keeps the file's mode; a mode fetchmail refuses leaves the
  // user without a daemon, and that shows only in fetchmail's exit status.
  MakeUserFiles(kUser1, kUser1, 0644);
  ASSERT_TRUE(WriteFile(kSwitchFile, "true\n5\n"));
  LogCapture capture;
  EXPECT_TRUE(control_.ForceStart({kUser1}));
  EXPECT_TRUE(NoChildLeft());
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_TRUE(Daemons().empty());
  EXPECT_EQ(Meta(Rc(kUser1)).mode, 0644u);
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  EXPECT_THAT(LibraryRecords(capture), ElementsAre(Err("Start POP3Daemon for user(61001) error")));
}

}  // namespace
}  // namespace settings_test
}  // namespace test
}  // namespace velmora
