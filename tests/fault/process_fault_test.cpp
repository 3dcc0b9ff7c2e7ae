// Faults of other processes met by the library: a lock holder killed with
// SIGKILL, a back-end tool that hangs, dies or is missing, and a local query
// socket whose server accepts and then stalls.
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <velmora/file.h>
#include <velmora/settings.h>
#include <velmora/socket.h>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/one_shot_server.h"
#include "support/settings_test_util.h"

namespace velmora {
namespace test {
namespace settings_test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kSocketModule[] = "src/lib/common/socket";
constexpr char kAllKeysDefaultText[] =
    "disable_pgp=no\ndisable_shared_mailbox=no\ndisable_smtp_sender_name=no\n"
    "enable_sharing_link=no\nis_custom_logo=no\nenable_chat=yes\nenable_calendar=yes\n"
    "enable_externalsource=yes\n";

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// True when `fd` becomes readable within `ms`.
bool ReadableWithin(int fd, int ms) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, ms) == 1;
}

// True when someone holds an flock lock on `path` (tried without waiting on
// a descriptor of its own).
bool LockedByOther(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool busy = flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  close(fd);
  return busy;
}

// A child that runs `take` (which takes a lock and returns whether it holds
// it), reports on a pipe and then waits to be killed.
pid_t HolderChild(const std::function<bool()>& take, int* ready_fd) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    const char held = take() ? 'y' : 'n';
    (void)!write(fds[1], &held, 1);
    for (;;) pause();
  }
  close(fds[1]);
  *ready_fd = fds[0];
  return pid;
}

// Reads the holder's report from `ready` (closing it): true when the child
// said it holds its lock within 10 s.
::testing::AssertionResult HolderHolds(int ready) {
  char held = 0;
  const bool got = ReadableWithin(ready, 10000) && read(ready, &held, 1) == 1;
  close(ready);
  if (got && held == 'y') return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << (got ? "the holder could not take its lock" : "no report from the holder");
}

class ProcessFaultTest : public testing::Test {
 protected:
  void SetUp() override {
    ResetSystemTree();
    ASSERT_TRUE(InstallBackendStandIn());
    ASSERT_TRUE(InstallFetchmailStandIn());
    ASSERT_TRUE(MakeDir(std::string(kSpool) + "/vt/db"));
    ASSERT_TRUE(MakeDir(kLockDir));
  }
  void TearDown() override { EXPECT_TRUE(NoChildLeft()); }

  // Replaces the back-end tool with a script that records its call like the
  // ordinary stand-in and then runs `tail` (shell text).
  static void InstallBackend(const std::string& tail) {
    ASSERT_TRUE(WriteScript(
        kBackend, std::string("#!/bin/sh\nline=\"\"\nfor a in \"$@\"; do line=\"$line$a\t\"; "
                              "done\nprintf '%s\\n' \"$line\" >> ") +
                      kBackendCalls + "\n" + tail + "\n"));
  }

  // Kills the holder `pid` with SIGKILL and reaps it.
  static void Kill(pid_t pid) {
    ASSERT_EQ(kill(pid, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status));
    ASSERT_EQ(WTERMSIG(status), SIGKILL);
  }
};

// ---- Lock holders killed ---------------------------------------------------

TEST_F(ProcessFaultTest, FileLockOfAKilledHolderPassesToTheWaitingTaker) {
  const std::string path = std::string(kLockDir) + "/killed.lock";
  int holder_ready = -1;
  pid_t holder = HolderChild(
      [&path] {
        auto* lock = new sdk::FileLock(path, true);  // never released: the kill ends it
        return lock->Lock();
      },
      &holder_ready);
  ASSERT_GT(holder, 0);
  ASSERT_TRUE(HolderHolds(holder_ready));
  ASSERT_TRUE(LockedByOther(path));

  // A second process waits in Lock() for the holder.
  int taker_ready = -1;
  pid_t taker = HolderChild(
      [&path] {
        auto* lock = new sdk::FileLock(path, true);
        return lock->Lock();
      },
      &taker_ready);
  ASSERT_GT(taker, 0);
  EXPECT_FALSE(ReadableWithin(taker_ready, 300));  // still waiting

  LogCapture capture;
  Kill(holder);
  const auto killed = Clock::now();
  ASSERT_TRUE(ReadableWithin(taker_ready, 5000));
  EXPECT_LT(SecondsSince(killed), 1.0);
  char held = 0;
  ASSERT_EQ(read(taker_ready, &held, 1), 1);
  EXPECT_EQ(held, 'y');
  EXPECT_TRUE(LockedByOther(path));
  Kill(taker);
  EXPECT_FALSE(LockedByOther(path));
  EXPECT_THAT(capture.Records(), IsEmpty());
  close(taker_ready);
}

TEST_F(ProcessFaultTest, GuardOfAKilledHolderIsTakenAtTheFirstAttempt) {
  const std::string path = std::string(kLockDir) + "/guarded.lock";
  int ready = -1;
  pid_t holder = HolderChild(
      [&path] {
        auto* guard = new sdk::ExclusiveFileLockGuard(path, 5);
        return guard->fd_ >= 0;
      },
      &ready);
  ASSERT_GT(holder, 0);
  ASSERT_TRUE(HolderHolds(ready));
  ASSERT_TRUE(LockedByOther(path));
  Kill(holder);
  LogCapture capture;
  const auto start = Clock::now();
  sdk::ExclusiveFileLockGuard guard(path, 1);
  EXPECT_GE(guard.fd_, 0);
  EXPECT_LT(SecondsSince(start), 0.5);  // the first attempt got it
  EXPECT_TRUE(LockedByOther(path));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(ProcessFaultTest, PopEntryPointRunsAfterTheKilledHolderOfItsLock) {
  Pop3Control control("vt");
  ASSERT_TRUE(WriteOwned(kUidList, "", kAccount, kAccount, 0644));
  int ready = -1;
  const std::string lock_path = control.lock_path;
  pid_t holder = HolderChild(
      [&lock_path] {
        auto* guard = new sdk::ExclusiveFileLockGuard(lock_path, 1);
        return guard->fd_ >= 0;
      },
      &ready);
  ASSERT_GT(holder, 0);
  ASSERT_TRUE(HolderHolds(ready));
  Kill(holder);
  LogCapture capture;
  const auto start = Clock::now();
  EXPECT_TRUE(control.ForceStop({}));
  EXPECT_LT(SecondsSince(start), 0.9);
  EXPECT_EQ(ReadFile(kUidList), "");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList)));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

// ---- The back-end tool: slow, killed, missing ------------------------------

TEST_F(ProcessFaultTest, BackendToolThatTakesTwoSecondsDelaysEveryWriterWhichThenSucceeds) {
  InstallBackend("sleep 2\nexit 0");
  ASSERT_TRUE(MakeDir(kSettingsDir));
  ASSERT_TRUE(WriteOwned(kSwitchFile, "true\n5\n", kAccount, kAccount, 0644));
  Pop3Control control("vt");
  ASSERT_TRUE(MakeDir(control.UserFetchMailPath(kUser1), kUser1, kUser1, 0700));
  ASSERT_TRUE(WriteOwned(control.UserFetchMailPath(kUser1) + "quillbox_pop3_fetch",
                         "set daemon 1\n", kUser1, kShared, 0600));
  LogCapture capture;

  auto start = Clock::now();
  EXPECT_TRUE(settings::SetVelmoraConfig(Defaults()));
  EXPECT_GE(SecondsSince(start), 1.9);
  EXPECT_EQ(ReadFile(kClientConf), kAllKeysDefaultText);

  start = Clock::now();
  EXPECT_TRUE(control.SetPOP3Config(GlobalPOP3Config{true, 10}));
  EXPECT_GE(SecondsSince(start), 1.9);
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n10\n");

  start = Clock::now();
  EXPECT_TRUE(control.ForceStart({kUser1}));  // appends to the list
  EXPECT_GE(SecondsSince(start), 1.9);
  EXPECT_EQ(ReadFile(kUidList), "61001\n");

  start = Clock::now();
  EXPECT_TRUE(control.ForceStop({kUser1}));  // rewrites the list
  EXPECT_GE(SecondsSince(start), 1.9);
  EXPECT_EQ(ReadFile(kUidList), "");

  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kClientConf), SyncCall(kSwitchFile),
                                          SyncCall(kUidList), SyncCall(kUidList)));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(ProcessFaultTest, BackendToolKilledBySignalFailsEveryWriterWithTheFileInPlace) {
  InstallBackend("kill -9 $$");
  ASSERT_TRUE(MakeDir(kSettingsDir));
  Pop3Control control("vt");
  ASSERT_TRUE(WriteOwned(kUidList, "61002\n", kAccount, kAccount, 0644));
  LogCapture capture;
  EXPECT_FALSE(settings::SetVelmoraConfig(Defaults()));
  EXPECT_EQ(ReadFile(kClientConf), kAllKeysDefaultText);
  EXPECT_FALSE(control.SetPOP3Config(GlobalPOP3Config{false, 3}));
  EXPECT_EQ(ReadFile(kSwitchFile), "false\n3\n");
  std::set<uint32_t> tracked{kUser2};
  EXPECT_FALSE(control.TrackStop({kUser2}, tracked));
  EXPECT_EQ(ReadFile(kUidList), "");
  EXPECT_THAT(BackendCalls(),
              ElementsAre(SyncCall(kClientConf), SyncCall(kSwitchFile), SyncCall(kUidList)));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(ProcessFaultTest, BackendToolExitingWithAStatusLetsEveryWriterSucceed) {
  // It ran to its end; what its status means is its own business.
  InstallBackend("exit 1");
  ASSERT_TRUE(MakeDir(kSettingsDir));
  Pop3Control control("vt");
  ASSERT_TRUE(WriteOwned(kUidList, "61002\n", kAccount, kAccount, 0644));
  LogCapture capture;
  EXPECT_TRUE(settings::SetVelmoraConfig(Defaults()));
  EXPECT_EQ(ReadFile(kClientConf), kAllKeysDefaultText);
  EXPECT_TRUE(control.SetPOP3Config(GlobalPOP3Config{false, 3}));
  EXPECT_EQ(ReadFile(kSwitchFile), "false\n3\n");
  std::set<uint32_t> tracked{kUser2};
  EXPECT_TRUE(control.TrackStop({kUser2}, tracked));
  EXPECT_EQ(ReadFile(kUidList), "");
  // No control file: the child logs its failed start, the uid is listed.
  EXPECT_TRUE(control.TrackStart({kUser1}, tracked, 60));
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kClientConf), SyncCall(kSwitchFile),
                                          SyncCall(kUidList), SyncCall(kUidList)));
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogAt(kErr, kSettingsModule, "Stat file error"),
                          LogAt(kErr, kSettingsModule, "Start POP3Daemon for user(61001) error")));
}

TEST_F(ProcessFaultTest, MissingBackendToolFailsEveryWriterWithTheFileInPlace) {
  ASSERT_EQ(unlink(kBackend), 0);
  ASSERT_TRUE(MakeDir(kSettingsDir));
  Pop3Control control("vt");
  LogCapture capture;
  EXPECT_FALSE(settings::SetVelmoraConfig(Defaults()));
  EXPECT_EQ(ReadFile(kClientConf), kAllKeysDefaultText);
  EXPECT_FALSE(control.SetPOP3Config(GlobalPOP3Config{true, 7}));
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n7\n");
  std::set<uint32_t> tracked;
  EXPECT_FALSE(control.TrackStop({}, tracked));
  EXPECT_TRUE(PathExists(kUidList));
  EXPECT_EQ(ReadFile(kUidList), "");
  EXPECT_THAT(capture.Records(), IsEmpty());
}

// ---- A query socket whose server accepts and stalls --------------------------

TEST_F(ProcessFaultTest, SocketServerThatAcceptsAndNeverAnswersTimesOut) {
  const std::string path = "/run/velmora-test/stall.sock";
  std::atomic<bool> done{false};
  OneShotServer server(path, [&done](int fd) {
    // Reads nothing, writes nothing, keeps the connection open.
    while (!done) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  LogCapture capture;
  std::string response = "stale";
  const auto start = Clock::now();
  EXPECT_EQ(common::socket::QuerySockServer(path, "get_value mailer/x", response, 1), -1);
  const double seconds = SecondsSince(start);
  done = true;
  EXPECT_EQ(response, "");
  EXPECT_GE(seconds, 0.9);
  EXPECT_LT(seconds, 2.5);
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogAt(kErr, kSocketModule,
                                "Failed to call recv() Resource temporarily unavailable")));
}

TEST_F(ProcessFaultTest, SocketServerThatNeverReadsABigRequestTimesOutSending) {
  const std::string path = "/run/velmora-test/stall-big.sock";
  std::atomic<bool> done{false};
  OneShotServer server(path, [&done](int fd) {
    while (!done) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  LogCapture capture;
  std::string response = "stale";
  const std::string request(8 << 20, 'q');  // far more than the socket buffers hold
  const auto start = Clock::now();
  EXPECT_EQ(common::socket::QuerySockServer(path, request, response, 1), -1);
  const double seconds = SecondsSince(start);
  done = true;
  EXPECT_EQ(response, "stale");  // only a receive failure clears it
  EXPECT_GE(seconds, 0.9);
  EXPECT_LT(seconds, 2.5);
  const auto records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].priority, kErr);
  // The send stops part way after the time-out; errno then names no error
  // of its own, so only the message's fixed part is certain.
  EXPECT_TRUE(records[0].text.find(std::string(kSocketModule) + ":") == 0) << records[0].text;
  EXPECT_NE(records[0].text.find(": Failed to call sendto() "), std::string::npos)
      << records[0].text;
}

}  // namespace
}  // namespace settings_test
}  // namespace test
}  // namespace velmora
