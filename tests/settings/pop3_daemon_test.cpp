// Tests of the POP3 fetch daemon control with recording stand-ins of
// fetchmail and of the back-end tool: the command lines and the identity of
// every start and stop, the uid list kept by the entry points, the restart
// after a configuration change, and every failure and its log line.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <velmora/settings.h>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/settings_test_util.h"

namespace velmora {
namespace test {
namespace settings_test {
namespace {

constexpr char kControlText[] =
    "poll 127.0.0.1 port 1 proto pop3 user \"x\" password \"y\"\nset daemon 300\n";

std::string WithInterval(unsigned seconds) {
  return "poll 127.0.0.1 port 1 proto pop3 user \"x\" password \"y\"\nset daemon " +
         std::to_string(seconds) + "\n";
}

class Pop3DaemonTest : public Pop3ServiceTest {
 protected:
  void TearDown() override {
    EXPECT_TRUE(WaitForDetachedCopies());
    EXPECT_TRUE(NoChildLeft());
  }

  std::string Dir(uint32_t uid) const { return control_.UserFetchMailPath(uid); }
  std::string Rc(uint32_t uid) const { return Dir(uid) + "quillbox_pop3_fetch"; }

  // The user's fetch directory and control file (owner `uid`, group `gid`).
  void MakeUserFiles(uint32_t uid, gid_t gid, mode_t mode = 0600) {
    ASSERT_TRUE(MakeDir(Dir(uid), uid, uid, 0700));
    ASSERT_TRUE(WriteOwned(Rc(uid), kControlText, uid, gid, mode));
  }
  static void WriteSwitch(const std::string& text) { ASSERT_TRUE(WriteFile(kSwitchFile, text)); }
  static void WriteUidList(const std::string& text) {
    ASSERT_TRUE(WriteOwned(kUidList, text, kAccount, kAccount, 0644));
  }
  static void ExpectPackageFile(const std::string& path) {
    FileMeta meta = Meta(path);
    EXPECT_EQ(meta.uid, kAccount) << path;
    EXPECT_EQ(meta.gid, kAccount) << path;
    EXPECT_EQ(meta.mode, 0644u) << path;
  }

  Pop3Control control_{"vt"};
};

// ---- One user's start and stop ----

TEST_F(Pop3DaemonTest, StartRunsFetchmailAsTheUserWithTheControlFilesGroup) {
  MakeUserFiles(kUser1, kShared);
  LogCapture capture;
  EXPECT_TRUE(control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_START, 600));
  EXPECT_TRUE(NoChildLeft());
  EXPECT_THAT(FetchmailCalls(), ElementsAre(StartCall(Dir(kUser1), kUser1, kShared)));
  EXPECT_EQ(ReadFile(Rc(kUser1)), WithInterval(600));
  FileMeta meta = Meta(Rc(kUser1));
  EXPECT_EQ(meta.uid, kUser1);
  EXPECT_EQ(meta.gid, kShared);
  EXPECT_EQ(meta.mode, 0600u);
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, StopRunsFetchmailQuitAsTheUserKeepingTheGroup) {
  MakeUserFiles(kUser2, kUser2);
  LogCapture capture;
  EXPECT_TRUE(control_.DownPrivilegeFork(kUser2, Pop3Control::ACTION_STOP, 0));
  EXPECT_TRUE(NoChildLeft());
  EXPECT_THAT(FetchmailCalls(), ElementsAre(StopCall(Dir(kUser2), kUser2, 0)));
  EXPECT_EQ(ReadFile(Rc(kUser2)), kControlText);  // a stop leaves the file alone
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, StopNeedsNoControlFile) {
  LogCapture capture;
  EXPECT_TRUE(control_.DownPrivilegeFork(kUser3, Pop3Control::ACTION_STOP, 0));
  EXPECT_THAT(FetchmailCalls(), ElementsAre(StopCall(Dir(kUser3), kUser3, 0)));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, UnknownActionLogsAWarningAndStillSucceeds) {
  MakeUserFiles(kUser1, kUser1);
  LogCapture capture;
  EXPECT_TRUE(control_.DownPrivilegeFork(kUser1, static_cast<Pop3Control::Action>(2), 600));
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_EQ(ReadFile(Rc(kUser1)), kControlText);
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogAt(kWarning, kSettingsModule, "Can not recognize action: 2")));
}

TEST_F(Pop3DaemonTest, WithoutTheClientPackageStartAndStopSucceedAfterLogging) {
  ASSERT_EQ(unlink(kFetchmail), 0);
  MakeUserFiles(kUser1, kUser1);
  const std::string missing = std::string(kFetchmail) + " not exists";
  LogCapture capture;
  // Without fetchmail neither changes the identity, so they may run here.
  EXPECT_TRUE(control_.Start(kUser1, 600));
  EXPECT_TRUE(control_.Stop(kUser1));
  EXPECT_EQ(getuid(), 0u);
  EXPECT_TRUE(control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_START, 600));
  EXPECT_TRUE(control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_STOP, 0));
  EXPECT_EQ(ReadFile(Rc(kUser1)), kControlText);
  // The entry points count those as successes too.
  WriteSwitch("true\n5\n");
  EXPECT_TRUE(control_.ForceStart({kUser1}));
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  EXPECT_TRUE(control_.ForceStop({kUser1}));
  EXPECT_EQ(ReadFile(kUidList), "");
  EXPECT_THAT(capture.Records(), ElementsAre(Err(missing), Err(missing), Err(missing), Err(missing),
                                             Err(missing), Err(missing)));
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList), SyncCall(kUidList)));
}

TEST_F(Pop3DaemonTest, StartWithoutControlFileFailsInTheChildOnly) {
  // No fetch directory at all: the rewrite has nothing to do, the stat fails.
  LogCapture capture;
  EXPECT_TRUE(control_.DownPrivilegeFork(kUser3, Pop3Control::ACTION_START, 600));
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(),
              ElementsAre(Err("Stat file error"), Err("Start POP3Daemon for user(61003) error")));
}

TEST_F(Pop3DaemonTest, StartWhenTheControlFileCannotBeRewrittenLogsThreeLines) {
  ASSERT_TRUE(MakeDir(Dir(kUser1)));
  LogCapture capture;
  EXPECT_EQ(InChildWithPrivateMounts([this] {
              if (!MountTmpfsAt(Dir(kUser1)) ||
                  !WriteOwned(Rc(kUser1), kControlText, kUser1, kUser1, 0600) ||
                  !RemountReadOnlyAt(Dir(kUser1))) {
                return 64;
              }
              return control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_START, 600) ? 0 : 1;
            }),
            0);
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), ElementsAre(Err("initialize temp file failed"),
                                             Err("Update 61001 fetch mail rc period fail"),
                                             Err("Start POP3Daemon for user(61001) error")));
}

TEST_F(Pop3DaemonTest, StartWhenTheIdentityCannotChangeLogsUidAndGid) {
  // vtuser3 owns the control file of uid 61001, so the rewrite and the
  // group change work and only the switch to 61001 is refused.
  ASSERT_TRUE(MakeDir(Dir(kUser1), kUser3, kUser3, 0700));
  ASSERT_TRUE(WriteOwned(Rc(kUser1), kControlText, kUser3, kUser3, 0600));
  LogCapture capture;
  EXPECT_EQ(RunAs("vtuser3",
                  [this] {
                    return control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_START, 60) ? 0
                                                                                             : 1;
                  }),
            0);
  EXPECT_EQ(ReadFile(Rc(kUser1)), WithInterval(60));
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), ElementsAre(Err("Change uid to 61001 and gid to 61003 fail"),
                                             Err("Start POP3Daemon for user(61001) error")));
}

TEST_F(Pop3DaemonTest, StopWhenTheIdentityCannotChangeLogsTheUid) {
  LogCapture capture;
  EXPECT_EQ(RunAs("vtuser3",
                  [this] {
                    return control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_STOP, 0) ? 0 : 1;
                  }),
            0);
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), ElementsAre(Err("Change uid to 61001 fail"),
                                             Err("Stop POP3Daemon for user(61001) error")));
}

TEST_F(Pop3DaemonTest, AFailingFetchmailIsOnlyLogged) {
  MakeUserFiles(kUser1, kUser1);
  ASSERT_TRUE(WriteFile(kFetchmailFailFlag, ""));  // killed by SIGKILL
  LogCapture capture;
  EXPECT_TRUE(control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_START, 600));
  EXPECT_TRUE(control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_STOP, 0));
  EXPECT_THAT(FetchmailCalls(),
              ElementsAre(StartCall(Dir(kUser1), kUser1, kUser1), StopCall(Dir(kUser1), kUser1)));
  EXPECT_THAT(capture.Records(), ElementsAre(Err("Start POP3Daemon for user(61001) error"),
                                             Err("Stop POP3Daemon for user(61001) error")));
}

TEST_F(Pop3DaemonTest, AFetchmailThatCannotBeRunIsOnlyLogged) {
  MakeUserFiles(kUser1, kUser1);
  ASSERT_EQ(chmod(kFetchmail, 0644), 0);  // there, but not a program
  LogCapture capture;
  EXPECT_TRUE(control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_START, 600));
  EXPECT_TRUE(control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_STOP, 0));
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_EQ(ReadFile(Rc(kUser1)), WithInterval(600));  // rewritten before the run
  EXPECT_THAT(capture.Records(), ElementsAre(Err("Start POP3Daemon for user(61001) error"),
                                             Err("Stop POP3Daemon for user(61001) error")));
}

TEST_F(Pop3DaemonTest, AFetchmailThatExitsWithAStatusRanAndIsNoFailure) {
  // fetchmail --quit ends with status 1 ("no mail") after a successful stop;
  // any status it exits with means it ran.
  MakeUserFiles(kUser1, kUser1);
  for (int status : {1, 6, 255}) {
    SCOPED_TRACE(status);
    ASSERT_TRUE(WriteFile(kFetchmailCalls, "", 0666));
    ASSERT_TRUE(SetStandInExitStatus(kFetchmailStatusFile, status));
    LogCapture capture;
    EXPECT_TRUE(control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_START, 600));
    EXPECT_TRUE(control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_STOP, 0));
    EXPECT_THAT(FetchmailCalls(),
                ElementsAre(StartCall(Dir(kUser1), kUser1, kUser1), StopCall(Dir(kUser1), kUser1)));
    EXPECT_THAT(capture.Records(), IsEmpty());
  }
}

TEST_F(Pop3DaemonTest, EntryPointsCountAFetchmailExitStatusAsRun) {
  MakeUserFiles(kUser1, kUser1);
  MakeUserFiles(kUser2, kUser2);
  WriteSwitch("true\n5\n");
  ASSERT_TRUE(SetStandInExitStatus(kFetchmailStatusFile, 1));
  LogCapture capture;
  EXPECT_TRUE(control_.ForceStart({kUser1, kUser2}));
  EXPECT_EQ(ReadFile(kUidList), "61001\n61002\n");
  EXPECT_TRUE(control_.UidListStop());
  EXPECT_TRUE(control_.UidListStart());
  EXPECT_TRUE(control_.ForceStop({kUser2}));
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  EXPECT_THAT(FetchmailCalls(),
              ElementsAre(StartCall(Dir(kUser1), kUser1, kUser1),
                          StartCall(Dir(kUser2), kUser2, kUser2), StopCall(Dir(kUser1), kUser1),
                          StopCall(Dir(kUser2), kUser2), StartCall(Dir(kUser1), kUser1, kUser1),
                          StartCall(Dir(kUser2), kUser2, kUser2), StopCall(Dir(kUser2), kUser2)));
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList), SyncCall(kUidList)));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

// ---- The user's environment for fetchmail ----

// Runs `fn` in a forked child whose environment holds root's HOME, USER and
// LOGNAME, as a cron job or a web back-end running as root has them.
int InChildAsRootsSession(const std::function<int()>& fn) {
  return InChild([&fn] {
    if (setenv("HOME", "/root", 1) != 0 || setenv("USER", "root", 1) != 0 ||
        setenv("LOGNAME", "root", 1) != 0) {
      return 80;
    }
    return fn();
  });
}

// True when the environment holds root's three variables as set above.
bool HasRootsSession() {
  const char* home = getenv("HOME");
  const char* user = getenv("USER");
  const char* logname = getenv("LOGNAME");
  return home != nullptr && user != nullptr && logname != nullptr && std::string(home) == "/root" &&
         std::string(user) == "root" && std::string(logname) == "root";
}

TEST_F(Pop3DaemonTest, FetchmailGetsTheUsersHomeAndNameInsteadOfTheCallers) {
  MakeUserFiles(kUser1, kShared);
  MakeUserFiles(kUser2, kUser2);
  LogCapture capture;
  EXPECT_EQ(InChildAsRootsSession([this] {
              int bits = 0;
              if (!control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_START, 600)) bits |= 1;
              if (!control_.DownPrivilegeFork(kUser2, Pop3Control::ACTION_START, 600)) bits |= 2;
              if (!control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_STOP, 0)) bits |= 4;
              if (!control_.DownPrivilegeFork(kUser2, Pop3Control::ACTION_STOP, 0)) bits |= 8;
              if (!HasRootsSession()) bits |= 16;  // the caller keeps its own
              return bits;
            }),
            0);
  EXPECT_THAT(
      FetchmailCalls(),
      ElementsAre(StartCall(Dir(kUser1), kUser1, kShared), StartCall(Dir(kUser2), kUser2, kUser2),
                  StopCall(Dir(kUser1), kUser1), StopCall(Dir(kUser2), kUser2)));
  EXPECT_THAT(FetchmailEnvs(), ElementsAre(EnvLine("/var/tmp/home/vtuser1", "vtuser1"),
                                           EnvLine("/var/tmp/home/vtuser2", "vtuser2"),
                                           EnvLine("/var/tmp/home/vtuser1", "vtuser1"),
                                           EnvLine("/var/tmp/home/vtuser2", "vtuser2")));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, FetchmailGetsTheUsersHomeAndNameFromAnEmptyEnvironment) {
  MakeUserFiles(kUser3, kUser3);
  LogCapture capture;
  EXPECT_EQ(InChild([this] {
              if (clearenv() != 0) return 80;
              int bits = 0;
              if (!control_.DownPrivilegeFork(kUser3, Pop3Control::ACTION_START, 60)) bits |= 1;
              if (!control_.DownPrivilegeFork(kUser3, Pop3Control::ACTION_STOP, 0)) bits |= 2;
              if (environ != nullptr && environ[0] != nullptr) bits |= 4;  // still empty
              return bits;
            }),
            0);
  EXPECT_THAT(FetchmailCalls(),
              ElementsAre(StartCall(Dir(kUser3), kUser3, kUser3), StopCall(Dir(kUser3), kUser3)));
  EXPECT_THAT(FetchmailEnvs(), ElementsAre(EnvLine("/var/tmp/home/vtuser3", "vtuser3"),
                                           EnvLine("/var/tmp/home/vtuser3", "vtuser3")));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, FetchmailOfAUidWithoutPasswdEntryGetsNoneOfTheCallersNames) {
  const uint32_t nobody_known = 70123;
  ASSERT_TRUE(MakeDir(Dir(nobody_known), nobody_known, nobody_known, 0700));
  ASSERT_TRUE(WriteOwned(Rc(nobody_known), kControlText, nobody_known, nobody_known, 0600));
  LogCapture capture;
  EXPECT_EQ(InChildAsRootsSession([this, nobody_known] {
              int bits = 0;
              if (!control_.DownPrivilegeFork(nobody_known, Pop3Control::ACTION_START, 60)) {
                bits |= 1;
              }
              if (!control_.DownPrivilegeFork(nobody_known, Pop3Control::ACTION_STOP, 0)) {
                bits |= 2;
              }
              if (!HasRootsSession()) bits |= 4;
              return bits;
            }),
            0);
  EXPECT_THAT(FetchmailCalls(),
              ElementsAre(StartCall(Dir(nobody_known), nobody_known, nobody_known),
                          StopCall(Dir(nobody_known), nobody_known)));
  EXPECT_THAT(FetchmailEnvs(), ElementsAre(EnvLine("", ""), EnvLine("", "")));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

// The NUL-terminated strings of an environment block.
std::vector<std::string> EnvironmentBlock(const std::string& block) {
  std::vector<std::string> vars;
  size_t start = 0;
  for (size_t end; (end = block.find('\0', start)) != std::string::npos; start = end + 1) {
    vars.push_back(block.substr(start, end - start));
  }
  return vars;
}

TEST_F(Pop3DaemonTest, FetchmailGetsTheRestOfTheCallersEnvironmentUnchanged) {
  // A stand-in that copies the whole environment it was given.
  const std::string start_env = std::string(kRecordDir) + "/start.environ";
  const std::string stop_env = std::string(kRecordDir) + "/stop.environ";
  ASSERT_TRUE(WriteScript(kFetchmail, "#!/bin/sh\nif [ \"$1\" = --quit ]; then out=" + stop_env +
                                          "; else out=" + start_env +
                                          "; fi\n/bin/cat /proc/$$/environ > \"$out\"\n"));
  MakeUserFiles(kUser2, kUser2);
  LogCapture capture;
  EXPECT_EQ(InChild([this] {
              if (clearenv() != 0) return 80;
              if (setenv("PATH", "/usr/bin:/bin", 1) != 0 ||
                  setenv("VELMORA_PROBE", "a b=c", 1) != 0 || setenv("LANG", "C.UTF-8", 1) != 0 ||
                  setenv("USER", "root", 1) != 0 || setenv("HOME", "/root", 1) != 0 ||
                  setenv("LOGNAME", "root", 1) != 0) {
                return 81;
              }
              int bits = 0;
              if (!control_.DownPrivilegeFork(kUser2, Pop3Control::ACTION_START, 60)) bits |= 1;
              if (!control_.DownPrivilegeFork(kUser2, Pop3Control::ACTION_STOP, 0)) bits |= 2;
              return bits;
            }),
            0);
  // The caller's variables, with the user's three in place of root's.
  const auto expected =
      UnorderedElementsAre("PATH=/usr/bin:/bin", "VELMORA_PROBE=a b=c", "LANG=C.UTF-8",
                           "USER=vtuser2", "HOME=/var/tmp/home/vtuser2", "LOGNAME=vtuser2");
  EXPECT_THAT(EnvironmentBlock(ReadFile(start_env)), expected);
  EXPECT_THAT(EnvironmentBlock(ReadFile(stop_env)), expected);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, AFailedForkIsLoggedAndReported) {
  MakeUserFiles(kUser1, kUser1);
  LogCapture capture;
  EXPECT_EQ(InChildWithoutFork([this] {
              return control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_START, 600) ? 1 : 0;
            }),
            0);
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(),
              ElementsAre(Err("Fork child to change user to run POP3Daemon error")));
}

TEST_F(Pop3DaemonTest, AFailedWaitIsLoggedAndReported) {
  MakeUserFiles(kUser1, kUser1);
  LogCapture capture;
  // With SA_NOCLDWAIT the system reaps ended children itself and waitpid
  // fails. The flag is inherited by the forked child too (though not by a
  // program that it runs), so the child's own wait for fetchmail fails as
  // well and it logs its start as failed.
  EXPECT_EQ(InChild([this] {
              struct sigaction action {};
              action.sa_handler = SIG_DFL;
              action.sa_flags = SA_NOCLDWAIT;
              sigemptyset(&action.sa_mask);
              if (sigaction(SIGCHLD, &action, nullptr) != 0) return 64;
              return control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_START, 600) ? 1 : 0;
            }),
            0);
  // The child itself ran.
  EXPECT_THAT(FetchmailCalls(), ElementsAre(StartCall(Dir(kUser1), kUser1, kUser1)));
  EXPECT_THAT(capture.Records(),
              ElementsAre(Err("Start POP3Daemon for user(61001) error"), Err("Wait child fail")));
}

// ---- ForceStart and ForceStop ----

TEST_F(Pop3DaemonTest, ForceStartWithTheServiceOffStartsNothing) {
  MakeUserFiles(kUser1, kUser1);
  LogCapture capture;
  EXPECT_TRUE(control_.ForceStart({kUser1}));  // no switch file: off
  WriteSwitch("false\n5\n");
  EXPECT_TRUE(control_.ForceStart({kUser1}));
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_FALSE(PathExists(kUidList));
  EXPECT_EQ(ReadFile(Rc(kUser1)), kControlText);
  EXPECT_THAT(capture.Records(), IsEmpty());
  // The lock file is handed to the account all the same.
  EXPECT_EQ(Meta(kLockFile).uid, kAccount);
}

TEST_F(Pop3DaemonTest, ForceStartAddsNewUidsOnceAndPropagatesOnce) {
  MakeUserFiles(kUser1, kShared);
  MakeUserFiles(kUser2, kUser2);
  WriteSwitch("true\n10\n");
  LogCapture capture;
  EXPECT_TRUE(control_.ForceStart({kUser1, kUser2}));
  EXPECT_TRUE(NoChildLeft());
  EXPECT_EQ(ReadFile(kUidList), "61001\n61002\n");
  ExpectPackageFile(kUidList);
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList)));
  EXPECT_THAT(FetchmailCalls(), ElementsAre(StartCall(Dir(kUser1), kUser1, kShared),
                                            StartCall(Dir(kUser2), kUser2, kUser2)));
  EXPECT_EQ(ReadFile(Rc(kUser1)), WithInterval(600));
  EXPECT_EQ(ReadFile(Rc(kUser2)), WithInterval(600));
  FileMeta lock = Meta(kLockFile);
  EXPECT_EQ(lock.uid, kAccount);
  EXPECT_EQ(lock.gid, kAccount);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, ForceStartOfAListedUidStartsItAgainWithoutASecondLine) {
  MakeUserFiles(kUser1, kUser1);
  WriteSwitch("true\n1\n");
  WriteUidList("61001\n");
  LogCapture capture;
  EXPECT_TRUE(control_.ForceStart({kUser1, kUser1}));
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  EXPECT_THAT(BackendCalls(), IsEmpty());  // nothing added, nothing propagated
  EXPECT_THAT(FetchmailCalls(), ElementsAre(StartCall(Dir(kUser1), kUser1, kUser1),
                                            StartCall(Dir(kUser1), kUser1, kUser1)));
  EXPECT_EQ(ReadFile(Rc(kUser1)), WithInterval(60));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, ForceStartAppendsInCallOrderAfterTheExistingLines) {
  MakeUserFiles(kUser1, kUser1);
  MakeUserFiles(kUser3, kUser3);
  WriteSwitch("true\n5\n");
  WriteUidList("61002\n");
  EXPECT_TRUE(control_.ForceStart({kUser3, kUser1, kUser3}));
  EXPECT_EQ(ReadFile(kUidList), "61002\n61003\n61001\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList)));
  EXPECT_EQ(control_.GetPOP3UidSet(), (std::set<uint32_t>{kUser1, kUser2, kUser3}));
}

TEST_F(Pop3DaemonTest, ForceStartCountsAFailedChildAsStarted) {
  // No control file: the child fails its stat, the uid is listed anyway.
  WriteSwitch("true\n5\n");
  LogCapture capture;
  EXPECT_TRUE(control_.ForceStart({kUser3}));
  EXPECT_EQ(ReadFile(kUidList), "61003\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList)));
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(),
              ElementsAre(Err("Stat file error"), Err("Start POP3Daemon for user(61003) error")));
}

TEST_F(Pop3DaemonTest, ForceStartWithAUserWithoutPasswdEntryRunsUnderTheBareUid) {
  const uint32_t nobody_known = 70123;
  ASSERT_TRUE(MakeDir(Dir(nobody_known), nobody_known, nobody_known, 0700));
  ASSERT_TRUE(WriteOwned(Rc(nobody_known), kControlText, nobody_known, nobody_known, 0600));
  WriteSwitch("true\n5\n");
  LogCapture capture;
  EXPECT_TRUE(control_.ForceStart({nobody_known}));
  EXPECT_THAT(FetchmailCalls(),
              ElementsAre(StartCall(Dir(nobody_known), nobody_known, nobody_known)));
  EXPECT_EQ(ReadFile(kUidList), "70123\n");
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, ForceStartWithoutTheListDirectoryFails) {
  MakeUserFiles(kUser1, kUser1);
  WriteSwitch("true\n5\n");
  Shell(std::string("rm -rf ") + kSpool + "/vt/db");
  LogCapture capture;
  EXPECT_FALSE(control_.ForceStart({kUser1}));
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), ElementsAre(Err("fail open pop3_uid.config file")));
}

TEST_F(Pop3DaemonTest, ForceStartWhenPropagationFailsReturnsFalseWithTheUidListed) {
  MakeUserFiles(kUser1, kUser1);
  WriteSwitch("true\n5\n");
  ASSERT_TRUE(WriteFile(kBackendFailFlag, ""));
  LogCapture capture;
  EXPECT_FALSE(control_.ForceStart({kUser1}));
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList)));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, ForceStartGoesOnAfterAFailedStartAndFails) {
  MakeUserFiles(kUser1, kUser1);
  MakeUserFiles(kUser2, kUser2);
  WriteSwitch("true\n5\n");
  LogCapture capture;
  EXPECT_EQ(InChildWithoutFork([this] {
              return control_.ForceStart({kUser1, kUser2}) ? 1 : 0;
            }),
            0);
  EXPECT_EQ(ReadFile(kUidList), "");  // opened (and so created), nothing appended
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(),
              ElementsAre(Err("Fork child to change user to run POP3Daemon error"),
                          Err("Start 61001 fetch mail daemon fail"),
                          Err("Fork child to change user to run POP3Daemon error"),
                          Err("Start 61002 fetch mail daemon fail")));
}

TEST_F(Pop3DaemonTest, EntryPointsRefuseACallerThatCannotHandTheLockToTheAccount) {
  MakeUserFiles(kUser1, kUser1);
  WriteSwitch("true\n5\n");
  WriteUidList("61001\n");
  ASSERT_TRUE(WriteFile(kLockFile, "", 0666));
  LogCapture capture;
  EXPECT_EQ(RunAs("vtuser3",
                  [this] {
                    int bits = 0;
                    if (control_.ForceStart({kUser1})) bits |= 1;
                    if (control_.ForceStop({kUser1})) bits |= 2;
                    if (control_.UidListStart()) bits |= 4;
                    if (control_.UidListStop()) bits |= 8;
                    if (control_.SetThenRestart({true, 9})) bits |= 16;
                    return bits;
                  }),
            0);
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n5\n");
  const auto refused = LogAt(kErr, kGuardModule, "Wrong user privilege");
  EXPECT_THAT(capture.Records(), ElementsAre(refused, refused, refused, refused, refused));
}

TEST_F(Pop3DaemonTest, EntryPointsWorkForThePackageAccount) {
  MakeUserFiles(kUser1, kUser1);
  ASSERT_EQ(chmod(Dir(kUser1).c_str(), 0755), 0);  // readable, not writable, for the account
  WriteSwitch("true\n5\n");
  LogCapture capture;
  EXPECT_EQ(RunAs("Velmora-Server", [this] { return control_.ForceStart({kUser1}) ? 0 : 1; }), 0);
  // The account cannot switch to the user: the child logs, the uid is listed.
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  ExpectPackageFile(kUidList);
  EXPECT_EQ(RunAs("Velmora-Server", [this] { return control_.ForceStop({kUser1}) ? 0 : 1; }), 0);
  EXPECT_EQ(ReadFile(kUidList), "");
  ExpectPackageFile(kUidList);
  EXPECT_EQ(Meta(kLockFile).uid, kAccount);
  EXPECT_THAT(
      capture.Records(),
      ElementsAre(Err("initialize temp file failed"), Err("Update 61001 fetch mail rc period fail"),
                  Err("Start POP3Daemon for user(61001) error"), Err("Change uid to 61001 fail"),
                  Err("Stop POP3Daemon for user(61001) error")));
}

TEST_F(Pop3DaemonTest, ForceStopWorksWhateverTheSwitchSays) {
  MakeUserFiles(kUser2, kUser2);
  WriteSwitch("false\n5\n");
  WriteUidList("61001\n61002\n61003\n");
  LogCapture capture;
  EXPECT_TRUE(control_.ForceStop({kUser2}));
  EXPECT_TRUE(NoChildLeft());
  EXPECT_EQ(ReadFile(kUidList), "61001\n61003\n");
  ExpectPackageFile(kUidList);
  EXPECT_THAT(FetchmailCalls(), ElementsAre(StopCall(Dir(kUser2), kUser2)));
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList)));
  EXPECT_THAT(ListDir(std::string(kSpool) + "/vt/db"), ElementsAre("vt_pop3_uid.config"));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, ForceStopRewritesTheListEvenWhenNothingChanged) {
  // Unordered, duplicated and owned by root before; sorted and the
  // account's after.
  ASSERT_TRUE(WriteOwned(kUidList, "61002\n61001\n61002\n", 0, 0, 0600));
  EXPECT_TRUE(control_.ForceStop({kUser3}));
  EXPECT_EQ(ReadFile(kUidList), "61001\n61002\n");
  ExpectPackageFile(kUidList);
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList)));
  EXPECT_THAT(FetchmailCalls(), ElementsAre(StopCall(Dir(kUser3), kUser3)));
  // With no list at all the stop still writes an empty one.
  ASSERT_EQ(unlink(kUidList), 0);
  EXPECT_TRUE(control_.ForceStop({}));
  EXPECT_EQ(ReadFile(kUidList), "");
  ExpectPackageFile(kUidList);
}

TEST_F(Pop3DaemonTest, ForceStopDropsWhatFollowsGarbageInTheList) {
  WriteUidList("61001\n\n  99999999999\n61002\n");
  EXPECT_TRUE(control_.ForceStop({}));
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
}

TEST_F(Pop3DaemonTest, ForceStopKeepsAUidWhoseStopFailedAndStillSucceeds) {
  WriteUidList("61001\n61002\n");
  LogCapture capture;
  EXPECT_EQ(InChildWithoutFork([this] { return control_.ForceStop({kUser1}) ? 0 : 1; }), 0);
  EXPECT_EQ(ReadFile(kUidList), "61001\n61002\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList)));
  EXPECT_THAT(capture.Records(),
              ElementsAre(Err("Fork child to change user to run POP3Daemon error"),
                          Err("Stop 61001 fetchmail daemon fail")));
}

TEST_F(Pop3DaemonTest, ForceStopWithoutTheListDirectoryFailsBeforeStopping) {
  Shell(std::string("rm -rf ") + kSpool + "/vt/db");
  LogCapture capture;
  EXPECT_FALSE(control_.ForceStop({kUser1}));
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), ElementsAre(Err("initialize temp file failed")));
}

TEST_F(Pop3DaemonTest, TrackStopWithoutTheAccountFailsBeforeStopping) {
  WriteUidList("61001\n");
  LogCapture capture;
  EXPECT_EQ(InChildWithPrivateMounts([this] {
              if (!ReplacePasswd("Velmora-Server", "")) return 64;
              std::set<uint32_t> tracked{kUser1};
              if (control_.TrackStop({kUser1}, tracked)) return 1;
              return tracked == std::set<uint32_t>{kUser1} ? 0 : 2;
            }),
            0);
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  EXPECT_THAT(ListDir(std::string(kSpool) + "/vt/db"), ElementsAre("vt_pop3_uid.config"));
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), ElementsAre(Err("initialize temp file failed")));
}

TEST_F(Pop3DaemonTest, ForceStopWhenPropagationFailsReturnsFalseWithTheListWritten) {
  WriteUidList("61001\n61002\n");
  ASSERT_TRUE(WriteFile(kBackendFailFlag, ""));
  LogCapture capture;
  EXPECT_FALSE(control_.ForceStop({kUser1}));
  EXPECT_EQ(ReadFile(kUidList), "61002\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList)));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, PropagationThatExitsWithAStatusCountsAsDone) {
  MakeUserFiles(kUser1, kUser1);
  MakeUserFiles(kUser2, kUser2);
  WriteSwitch("true\n5\n");
  LogCapture capture;
  ASSERT_TRUE(SetStandInExitStatus(kBackendStatusFile, 1));
  EXPECT_TRUE(control_.ForceStart({kUser1}));
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  ASSERT_TRUE(SetStandInExitStatus(kBackendStatusFile, 6));
  std::set<uint32_t> tracked{kUser1};
  EXPECT_TRUE(control_.TrackStart({kUser2}, tracked, 300));
  EXPECT_EQ(tracked, (std::set<uint32_t>{kUser1, kUser2}));
  EXPECT_EQ(ReadFile(kUidList), "61001\n61002\n");
  EXPECT_TRUE(control_.TrackStop({kUser1}, tracked));
  EXPECT_EQ(tracked, (std::set<uint32_t>{kUser2}));
  EXPECT_EQ(ReadFile(kUidList), "61002\n");
  ASSERT_TRUE(SetStandInExitStatus(kBackendStatusFile, 1));
  EXPECT_TRUE(control_.ForceStop({kUser2}));
  EXPECT_EQ(ReadFile(kUidList), "");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList), SyncCall(kUidList),
                                          SyncCall(kUidList), SyncCall(kUidList)));
  EXPECT_THAT(
      FetchmailCalls(),
      ElementsAre(StartCall(Dir(kUser1), kUser1, kUser1), StartCall(Dir(kUser2), kUser2, kUser2),
                  StopCall(Dir(kUser1), kUser1), StopCall(Dir(kUser2), kUser2)));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, PropagationThatCannotBeRunFailsTheEntryPoints) {
  MakeUserFiles(kUser1, kUser1);
  WriteSwitch("true\n5\n");
  ASSERT_EQ(chmod(kBackend, 0644), 0);
  LogCapture capture;
  EXPECT_FALSE(control_.ForceStart({kUser1}));
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  EXPECT_FALSE(control_.ForceStop({kUser1}));
  EXPECT_EQ(ReadFile(kUidList), "");
  ASSERT_EQ(unlink(kBackend), 0);
  std::set<uint32_t> tracked;
  EXPECT_FALSE(control_.TrackStart({kUser1}, tracked, 60));
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  EXPECT_FALSE(control_.TrackStop({kUser1}, tracked));
  EXPECT_EQ(ReadFile(kUidList), "");
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_EQ(FetchmailCalls().size(), 4u);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, TrackStartAndTrackStopKeepTheTrackedSet) {
  MakeUserFiles(kUser1, kUser1);
  MakeUserFiles(kUser2, kUser2);
  std::set<uint32_t> tracked{kUser2};
  EXPECT_TRUE(control_.TrackStart({kUser1, kUser2}, tracked, 123));
  EXPECT_EQ(tracked, (std::set<uint32_t>{kUser1, kUser2}));
  EXPECT_EQ(ReadFile(kUidList), "61001\n");  // only what was new to `tracked`
  EXPECT_EQ(ReadFile(Rc(kUser2)), WithInterval(123));
  EXPECT_TRUE(control_.TrackStop({kUser2, kUser3}, tracked));
  EXPECT_EQ(tracked, (std::set<uint32_t>{kUser1}));
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList), SyncCall(kUidList)));
}

// ---- UidListStart and UidListStop ----

TEST_F(Pop3DaemonTest, UidListStartStartsEveryListedUidInAscendingOrder) {
  MakeUserFiles(kUser1, kShared);
  MakeUserFiles(kUser3, kUser3);
  WriteSwitch("true\n2\n");
  WriteUidList("61003\n61001\n61003\n");
  LogCapture capture;
  EXPECT_TRUE(control_.UidListStart());
  EXPECT_TRUE(NoChildLeft());
  EXPECT_THAT(FetchmailCalls(), ElementsAre(StartCall(Dir(kUser1), kUser1, kShared),
                                            StartCall(Dir(kUser3), kUser3, kUser3)));
  EXPECT_EQ(ReadFile(Rc(kUser1)), WithInterval(120));
  EXPECT_EQ(ReadFile(Rc(kUser3)), WithInterval(120));
  EXPECT_EQ(ReadFile(kUidList), "61003\n61001\n61003\n");  // untouched
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, UidListStartWithTheServiceOffDoesNothing) {
  MakeUserFiles(kUser1, kUser1);
  WriteSwitch("false\n2\n");
  WriteUidList("61001\n");
  EXPECT_TRUE(control_.UidListStart());
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_EQ(ReadFile(Rc(kUser1)), kControlText);
}

TEST_F(Pop3DaemonTest, UidListStartLogsAFailedStartAndGoesOn) {
  WriteSwitch("true\n2\n");
  WriteUidList("61002\n61001\n");
  LogCapture capture;
  EXPECT_EQ(InChildWithoutFork([this] { return control_.UidListStart() ? 0 : 1; }), 0);
  EXPECT_THAT(capture.Records(),
              ElementsAre(Err("Fork child to change user to run POP3Daemon error"),
                          Err("Start fetch daemon (61001) fail"),
                          Err("Fork child to change user to run POP3Daemon error"),
                          Err("Start fetch daemon (61002) fail")));
}

TEST_F(Pop3DaemonTest, UidListStopStopsEveryListedUidAndKeepsTheList) {
  WriteSwitch("false\n2\n");  // not consulted
  WriteUidList("61002\n61001\n");
  LogCapture capture;
  EXPECT_TRUE(control_.UidListStop());
  EXPECT_TRUE(NoChildLeft());
  EXPECT_THAT(FetchmailCalls(),
              ElementsAre(StopCall(Dir(kUser1), kUser1), StopCall(Dir(kUser2), kUser2)));
  EXPECT_EQ(ReadFile(kUidList), "61002\n61001\n");
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, UidListStopLogsAFailedStopAtDebug) {
  WriteUidList("61001\n");
  LogCapture capture;
  EXPECT_EQ(InChildWithoutFork([this] { return control_.UidListStop() ? 0 : 1; }), 0);
  EXPECT_THAT(capture.Records(),
              ElementsAre(Err("Fork child to change user to run POP3Daemon error"),
                          LogAt(kDebug, kSettingsModule, "Stop fetch daemon (61001) fail")));
}

TEST_F(Pop3DaemonTest, UidListStartAfterUidListStopBringsTheSameUsersBack) {
  MakeUserFiles(kUser1, kUser1);
  MakeUserFiles(kUser2, kUser2);
  WriteSwitch("true\n3\n");
  EXPECT_TRUE(control_.ForceStart({kUser2, kUser1}));
  EXPECT_TRUE(control_.UidListStop());
  EXPECT_TRUE(control_.UidListStart());
  EXPECT_THAT(
      FetchmailCalls(),
      ElementsAre(StartCall(Dir(kUser2), kUser2, kUser2), StartCall(Dir(kUser1), kUser1, kUser1),
                  StopCall(Dir(kUser1), kUser1), StopCall(Dir(kUser2), kUser2),
                  StartCall(Dir(kUser1), kUser1, kUser1), StartCall(Dir(kUser2), kUser2, kUser2)));
  EXPECT_EQ(ReadFile(kUidList), "61002\n61001\n");
}

// ---- SetThenRestart ----

TEST_F(Pop3DaemonTest, SetThenRestartWithTheStoredValuesDoesNothing) {
  MakeUserFiles(kUser1, kUser1);
  WriteUidList("61001\n");
  WriteSwitch("true\n5\n");
  const ino_t before = InodeOf(kSwitchFile);
  LogCapture capture;
  EXPECT_TRUE(control_.SetThenRestart({true, 5}));
  EXPECT_TRUE(WaitForDetachedCopies());
  EXPECT_EQ(InodeOf(kSwitchFile), before);
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n5\n");
  // With no switch file the defaults (off, 5 minutes) are the stored values.
  ASSERT_EQ(unlink(kSwitchFile), 0);
  EXPECT_TRUE(control_.SetThenRestart({false, 5}));
  EXPECT_TRUE(WaitForDetachedCopies());
  EXPECT_FALSE(PathExists(kSwitchFile));
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, SetThenRestartWithANewPeriodRestartsEveryListedDaemon) {
  MakeUserFiles(kUser1, kShared);
  MakeUserFiles(kUser2, kUser2);
  WriteSwitch("true\n5\n");
  WriteUidList("61002\n61001\n");
  LogCapture capture;
  EXPECT_TRUE(control_.SetThenRestart({true, 10}));
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n10\n");
  ExpectPackageFile(kSwitchFile);
  EXPECT_TRUE(NoChildLeft());  // the restart child is not ours to reap
  ASSERT_TRUE(WaitForDetachedCopies());
  EXPECT_THAT(FetchmailCalls(),
              ElementsAre(StopCall(Dir(kUser1), kUser1), StartCall(Dir(kUser1), kUser1, kShared),
                          StopCall(Dir(kUser2), kUser2), StartCall(Dir(kUser2), kUser2, kUser2)));
  EXPECT_EQ(ReadFile(Rc(kUser1)), WithInterval(600));
  EXPECT_EQ(ReadFile(Rc(kUser2)), WithInterval(600));
  EXPECT_EQ(ReadFile(kUidList), "61002\n61001\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kSwitchFile)));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, SetThenRestartTurningTheServiceOffOnlyStops) {
  MakeUserFiles(kUser1, kUser1);
  WriteSwitch("true\n5\n");
  WriteUidList("61001\n");
  EXPECT_TRUE(control_.SetThenRestart({false, 5}));
  ASSERT_TRUE(WaitForDetachedCopies());
  EXPECT_EQ(ReadFile(kSwitchFile), "false\n5\n");
  EXPECT_THAT(FetchmailCalls(), ElementsAre(StopCall(Dir(kUser1), kUser1)));
  EXPECT_EQ(ReadFile(Rc(kUser1)), kControlText);
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
}

TEST_F(Pop3DaemonTest, SetThenRestartTurningTheServiceOnOnlyStarts) {
  MakeUserFiles(kUser1, kUser1);
  WriteUidList("61001\n");
  // No switch file: off before.
  EXPECT_TRUE(control_.SetThenRestart({true, 1}));
  ASSERT_TRUE(WaitForDetachedCopies());
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n1\n");
  EXPECT_THAT(FetchmailCalls(), ElementsAre(StartCall(Dir(kUser1), kUser1, kUser1)));
  EXPECT_EQ(ReadFile(Rc(kUser1)), WithInterval(60));
}

TEST_F(Pop3DaemonTest, SetThenRestartWhenTheSwitchCannotBeStoredLogsAndFails) {
  MakeUserFiles(kUser1, kUser1);
  WriteUidList("61001\n");
  Shell(std::string("rm -rf ") + kSettingsDir);
  LogCapture capture;
  EXPECT_FALSE(control_.SetThenRestart({true, 10}));
  EXPECT_TRUE(WaitForDetachedCopies());
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), ElementsAre(Err("initialize temp file failed"),
                                             Err("Refresh pop3 global config fail")));
}

TEST_F(Pop3DaemonTest, SetThenRestartWhenPropagationFailsLogsAndFails) {
  WriteSwitch("true\n5\n");
  ASSERT_TRUE(WriteFile(kBackendFailFlag, ""));
  LogCapture capture;
  EXPECT_FALSE(control_.SetThenRestart({true, 10}));
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n10\n");  // already in place
  EXPECT_THAT(capture.Records(), ElementsAre(Err("Refresh pop3 global config fail")));
}

TEST_F(Pop3DaemonTest, SetThenRestartCountsAPropagationExitStatusAsDone) {
  MakeUserFiles(kUser1, kUser1);
  WriteSwitch("true\n5\n");
  WriteUidList("61001\n");
  ASSERT_TRUE(SetStandInExitStatus(kBackendStatusFile, 1));
  LogCapture capture;
  EXPECT_TRUE(control_.SetThenRestart({true, 4}));
  ASSERT_TRUE(WaitForDetachedCopies());
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n4\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kSwitchFile)));
  EXPECT_THAT(FetchmailCalls(),
              ElementsAre(StopCall(Dir(kUser1), kUser1), StartCall(Dir(kUser1), kUser1, kUser1)));
  EXPECT_EQ(ReadFile(Rc(kUser1)), WithInterval(240));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3DaemonTest, SetThenRestartWhenTheForkFailsLogsAndFails) {
  MakeUserFiles(kUser1, kUser1);
  WriteSwitch("true\n5\n");
  WriteUidList("61001\n");
  LogCapture capture;
  EXPECT_EQ(InChildWithoutFork([this] { return control_.SetThenRestart({true, 10}) ? 1 : 0; }), 0);
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n10\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kSwitchFile)));
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), ElementsAre(Err("Failed to fork")));
}

TEST_F(Pop3DaemonTest, SetThenRestartLogsFailedRestartsOfEachUser) {
  WriteSwitch("true\n5\n");
  WriteUidList("61002\n61001\n");
  LogCapture capture;
  // The restart child is forked, but its own forks fail.
  EXPECT_EQ(InChildWithGrandchildForksFailing([this] {
              if (!control_.SetThenRestart({true, 10})) return 1;
              return WaitForDetachedCopies({getppid()}) ? 0 : 2;
            }),
            0);
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  const auto fork_failed = Err("Fork child to change user to run POP3Daemon error");
  EXPECT_THAT(
      capture.Records(),
      ElementsAre(fork_failed, LogAt(kDebug, kSettingsModule, "Stop 61001 pop3 fetch daemon fail"),
                  fork_failed, Err("Refresh POP3Daemon(61001) error"), fork_failed,
                  LogAt(kDebug, kSettingsModule, "Stop 61002 pop3 fetch daemon fail"), fork_failed,
                  Err("Refresh POP3Daemon(61002) error")));
}

TEST_F(Pop3DaemonTest, TheDetachedRestartLeavesNoZombie) {
  MakeUserFiles(kUser1, kUser1);
  WriteSwitch("true\n5\n");
  WriteUidList("61001\n");
  for (uint32_t period : {6u, 7u, 8u}) {
    EXPECT_TRUE(control_.SetThenRestart({true, period}));
    EXPECT_TRUE(NoChildLeft());
  }
  ASSERT_TRUE(WaitForDetachedCopies());
  EXPECT_TRUE(NoChildLeft());
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n8\n");
  // Three restarts, each a stop and a start, possibly overlapping.
  EXPECT_EQ(FetchmailCalls().size(), 6u);
}

// The user's passwd entry is larger than the first buffer of the lookup
// that gives fetchmail its HOME, USER and LOGNAME.
TEST_F(Pop3DaemonTest, FetchmailGetsTheHomeAndNameOfAUserWithALongPasswdEntry) {
  MakeUserFiles(kUser1, kUser1);
  LogCapture capture;
  EXPECT_EQ(InChildWithPrivateMounts([this] {
              const std::string entry = "vtuser1:x:61001:61001:" + std::string(5000, 'g') +
                                        ":/var/tmp/home/vtuser1:/bin/sh\n";
              if (!ReplacePasswd("vtuser1", entry)) return 64;
              int bits = 0;
              if (!control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_START, 60)) bits |= 1;
              if (!control_.DownPrivilegeFork(kUser1, Pop3Control::ACTION_STOP, 0)) bits |= 2;
              return bits;
            }),
            0);
  EXPECT_THAT(FetchmailCalls(),
              ElementsAre(StartCall(Dir(kUser1), kUser1, kUser1), StopCall(Dir(kUser1), kUser1)));
  EXPECT_THAT(FetchmailEnvs(), ElementsAre(EnvLine("/var/tmp/home/vtuser1", "vtuser1"),
                                           EnvLine("/var/tmp/home/vtuser1", "vtuser1")));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

}  // namespace
}  // namespace settings_test
}  // namespace test
}  // namespace velmora
