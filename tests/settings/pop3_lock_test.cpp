// Tests of how the POP3 entry points take turns: waiting for another holder
// of the instance's lock, handing the lock file to the package account,
// concurrent starts and stops of different users, and a lock file that
// cannot be opened at all.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <velmora/settings.h>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/settings_test_util.h"

namespace velmora {
namespace test {
namespace settings_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr char kControlText[] = "poll 127.0.0.1 proto pop3\nset daemon 300\n";

// Forks a child that waits for a byte on `go` and then exits with fn()'s
// result.
pid_t SpawnWaiting(int go, const std::function<int()>& fn) {
  pid_t pid = fork();
  if (pid == 0) {
    char byte;
    if (read(go, &byte, 1) != 1) _exit(90);
    _exit(fn());
  }
  return pid;
}

bool IsRunning(pid_t pid) {
  std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  size_t close_paren = stat.rfind(')');
  return close_paren != std::string::npos && stat[close_paren + 2] != 'Z';
}

class Pop3LockTest : public Pop3ServiceTest {
 protected:
  void SetUp() override {
    Pop3ServiceTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_TRUE(WriteFile(kSwitchFile, "true\n5\n"));
    for (uint32_t uid : {kUser1, kUser2}) {
      std::string dir = control_.UserFetchMailPath(uid);
      ASSERT_TRUE(MakeDir(dir, uid, uid, 0700));
      ASSERT_TRUE(WriteOwned(dir + "quillbox_pop3_fetch", kControlText, uid, uid, 0600));
    }
  }
  void TearDown() override {
    EXPECT_TRUE(WaitForDetachedCopies());
    EXPECT_TRUE(NoChildLeft());
  }

  Pop3Control control_{"vt"};
};

TEST_F(Pop3LockTest, AnEntryPointWaitsWhileAnotherProcessHoldsTheLock) {
  // Held by this process, through a lock file that root owns.
  int held = open(kLockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(held, 0);
  ASSERT_EQ(flock(held, LOCK_EX), 0);
  ASSERT_EQ(Meta(kLockFile).uid, 0u);
  int go[2];
  ASSERT_EQ(pipe2(go, O_CLOEXEC), 0);
  pid_t starter = SpawnWaiting(go[0], [this] { return control_.ForceStart({kUser1}) ? 0 : 1; });
  ASSERT_GT(starter, 0);
  ASSERT_EQ(write(go[1], "x", 1), 1);
  std::this_thread::sleep_for(milliseconds(1500));
  EXPECT_TRUE(IsRunning(starter));
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_FALSE(PathExists(kUidList));
  const auto released = steady_clock::now();
  ASSERT_EQ(flock(held, LOCK_UN), 0);
  close(held);
  EXPECT_EQ(ExitStatusOf(starter), 0);
  EXPECT_LT(steady_clock::now() - released, std::chrono::seconds(5));
  EXPECT_EQ(FetchmailCalls().size(), 1u);
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  FileMeta lock = Meta(kLockFile);
  EXPECT_EQ(lock.uid, kAccount);
  EXPECT_EQ(lock.gid, kAccount);
  close(go[0]);
  close(go[1]);
}

TEST_F(Pop3LockTest, EveryEntryPointHandsTheLockFileToTheAccount) {
  const std::vector<std::function<bool()>> calls = {
      [this] { return control_.ForceStart({kUser1}); },
      [this] { return control_.ForceStop({kUser1}); },
      [this] { return control_.UidListStart(); },
      [this] { return control_.UidListStop(); },
      [this] {
        return control_.SetThenRestart({true, 6});
      },
  };
  for (size_t i = 0; i < calls.size(); ++i) {
    ASSERT_TRUE(WriteOwned(kLockFile, "", 0, 0, 0600));
    EXPECT_TRUE(calls[i]()) << i;
    EXPECT_EQ(Meta(kLockFile).uid, kAccount) << i;
    EXPECT_EQ(Meta(kLockFile).gid, kAccount) << i;
    ASSERT_TRUE(WaitForDetachedCopies());
  }
}

TEST_F(Pop3LockTest, ConcurrentStartsAndStopsOfDifferentUsersLeaveAMatchingList) {
  // Each process starts and stops its own user several times, ending with
  // a start; without the lock one side's rewrite would lose the other's
  // append.
  constexpr int kRounds = 8;
  for (int attempt = 0; attempt < 3; ++attempt) {
    ASSERT_TRUE(WriteFile(kUidList, ""));
    ASSERT_TRUE(WriteFile(kFetchmailCalls, "", 0666));
    int go[2];
    ASSERT_EQ(pipe2(go, O_CLOEXEC), 0);
    std::vector<pid_t> workers;
    for (uint32_t uid : {kUser1, kUser2}) {
      workers.push_back(SpawnWaiting(go[0], [this, uid] {
        int failures = 0;
        for (int round = 0; round < kRounds; ++round) {
          if (!control_.ForceStart({uid})) ++failures;
          if (!control_.ForceStop({uid})) ++failures;
        }
        if (!control_.ForceStart({uid})) ++failures;
        return failures;
      }));
    }
    ASSERT_EQ(write(go[1], "xx", 2), 2);
    for (pid_t worker : workers) EXPECT_EQ(ExitStatusOf(worker), 0);
    close(go[0]);
    close(go[1]);

    std::string list = ReadFile(kUidList);
    EXPECT_TRUE(list == "61001\n61002\n" || list == "61002\n61001\n") << list;
    // Every call ran, each user's starts and stops alternating.
    std::vector<std::string> per_user[2];
    for (const Call& call : FetchmailCalls()) {
      ASSERT_FALSE(call.args.empty());
      const bool user1 = call.ids.compare(0, 5, "61001") == 0;
      per_user[user1 ? 0 : 1].push_back(call.args[0]);
    }
    for (const auto& calls : per_user) {
      ASSERT_EQ(calls.size(), static_cast<size_t>(2 * kRounds + 1));
      for (size_t i = 0; i < calls.size(); ++i) EXPECT_EQ(calls[i], i % 2 == 0 ? "-f" : "--quit");
    }
  }
}

TEST_F(Pop3LockTest, EntryPointsFailWhenTheLockFileCannotBeOpened) {
  // Without the lock directory every attempt fails: the first and 60 more,
  // one second apart. The five entry points wait side by side.
  Shell(std::string("rm -rf ") + kLockDir);
  LogCapture capture;
  const std::vector<std::function<bool()>> calls = {
      [this] { return control_.ForceStart({kUser1}); },
      [this] { return control_.ForceStop({kUser1}); },
      [this] { return control_.UidListStart(); },
      [this] { return control_.UidListStop(); },
      [this] {
        return control_.SetThenRestart({true, 6});
      },
  };
  int go[2];
  ASSERT_EQ(pipe2(go, O_CLOEXEC), 0);
  std::vector<pid_t> children;
  const auto start = steady_clock::now();
  for (const auto& call : calls) {
    children.push_back(SpawnWaiting(go[0], [&call] { return call() ? 1 : 0; }));
  }
  ASSERT_EQ(write(go[1], "xxxxx", 5), 5);
  for (pid_t child : children) EXPECT_EQ(ExitStatusOf(child), 0);
  const auto took = steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::seconds(59));
  EXPECT_LT(took, std::chrono::seconds(90));
  close(go[0]);
  close(go[1]);
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n5\n");
  EXPECT_FALSE(PathExists(kUidList));
  auto records = capture.Records();
  EXPECT_EQ(records.size(), 5u * 61u);
  const auto open_failed =
      LogAt(kErr, kLockModule, "Open file(" + std::string(kLockFile) + ") fail");
  EXPECT_THAT(records, testing::Each(open_failed));
}

}  // namespace
}  // namespace settings_test
}  // namespace test
}  // namespace velmora
