// velmoractl kv and lock as installed: key=value files edited in place
// and commands run under a lock file.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include <velmora/velmora.h>
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "settings/settings_test_util.h"
#include "tools/tool_runner.h"

namespace velmora {
namespace test {
namespace {

using namespace settings_test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

// ---- key=value files ----

class VelmoractlKv : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = scratch_.path();
    file_ = dir_ + "/app.conf";
  }
  ScratchDir scratch_;
  std::string dir_;
  std::string file_;
};

TEST_F(VelmoractlKv, GetAndSetKeepTheOtherKeysOwnerAndMode) {
  ASSERT_TRUE(WriteOwned(file_, "a=\"1\"\nempty=\"\"\nb=\"2\"\n", kUser1, kShared, 0640));
  Result get = Tool({"kv", "get", file_, "b"});
  EXPECT_EQ(get.status, 0);
  EXPECT_EQ(get.out, "2\n");
  Result empty = Tool({"kv", "get", file_, "empty"});
  EXPECT_EQ(empty.status, 0);
  EXPECT_EQ(empty.out, "\n");
  Json::Value v = ParseJson(Tool({"--json", "kv", "get", file_, "a"}).out);
  EXPECT_EQ(v["key"].asString(), "a");
  EXPECT_EQ(v["value"].asString(), "1");

  Result set = Tool({"kv", "set", file_, "b", "two words"});
  EXPECT_EQ(set.status, 0) << set.err;
  EXPECT_EQ(set.out, "");
  Result add = Tool({"-v", "kv", "set", file_, "c", "3"});
  EXPECT_EQ(add.out, "set c in " + file_ + "\n");
  EXPECT_EQ(Tool({"kv", "get", file_, "b"}).out, "two words\n");
  sdk::FileKeyValue check(file_);
  ASSERT_TRUE(check.ReadKeyValues(16, "="));
  EXPECT_EQ(check.Get("a"), "1");
  EXPECT_EQ(check.Get("c"), "3");
  FileMeta meta = Meta(file_);
  EXPECT_EQ(meta.uid, kUser1);
  EXPECT_EQ(meta.gid, kShared);
  EXPECT_EQ(meta.mode, 0640u);
  EXPECT_THAT(ListDir(dir_), ElementsAre("app.conf"));
}

TEST_F(VelmoractlKv, MissingKeyOrFileExitsThree) {
  ASSERT_TRUE(WriteFile(file_, "a=\"1\"\n"));
  Result key = Tool({"kv", "get", file_, "zzz"});
  EXPECT_EQ(key.status, 3);
  EXPECT_EQ(key.out, "");
  EXPECT_EQ(key.err, "velmoractl: no key 'zzz' in " + file_ + "\n");
  Result file = Tool({"kv", "get", dir_ + "/none.conf", "a"});
  EXPECT_EQ(file.status, 3);
  EXPECT_EQ(file.err,
            "velmoractl: cannot read " + dir_ + "/none.conf: No such file or directory\n");
  Result set = Tool({"kv", "set", dir_ + "/none.conf", "a", "1"});
  EXPECT_EQ(set.status, 3);
  EXPECT_FALSE(sdk::Exist(dir_ + "/none.conf"));
}

TEST_F(VelmoractlKv, PermissionDeniedExitsFiveAndChangesNothing) {
  ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
  ASSERT_TRUE(WriteFile(file_, "a=\"1\"\n", 0600));
  Result get = Tool({"kv", "get", file_, "a"}, "vtuser1");
  EXPECT_EQ(get.status, 5);
  EXPECT_EQ(get.err, "velmoractl: cannot read " + file_ + ": Permission denied\n");
  ASSERT_EQ(chmod(file_.c_str(), 0644), 0);
  Result set = Tool({"kv", "set", file_, "a", "2"}, "vtuser1");
  EXPECT_EQ(set.status, 5);
  EXPECT_THAT(set.err, OneErrorLine());
  EXPECT_EQ(ReadFile(file_), "a=\"1\"\n");
  EXPECT_THAT(ListDir(dir_), ElementsAre("app.conf"));
}

// ---- Locks ----

class VelmoractlLock : public ::testing::Test {
 protected:
  void SetUp() override { lock_ = scratch_.path() + "/job.lock"; }
  // True when another open file description can take the lock at once.
  bool Free() const {
    int fd = open(lock_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool free = flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    return free;
  }
  ScratchDir scratch_;
  std::string lock_;
};

TEST_F(VelmoractlLock, RunsTheCommandWhileHoldingTheLock) {
  // The command finds the lock taken (flock -n fails with 1) and reports it.
  const std::string probe = "flock -n " + lock_ + " true; echo $?";
  Result r = Tool({"lock", lock_, "--", "sh", "-c", probe});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "1\n");
  EXPECT_TRUE(Free());  // released afterwards
}

TEST_F(VelmoractlLock, ExitsWithTheCommandsStatus) {
  EXPECT_EQ(Tool({"lock", lock_, "--", "sh", "-c", "exit 7"}).status, 7);
  EXPECT_EQ(Tool({"lock", lock_, "--", "sh", "-c", "kill -TERM $$"}).status, 128 + SIGTERM);
  Result missing = Tool({"lock", lock_, "--", "/nonexistent/cmd"});
  EXPECT_EQ(missing.status, 127);
  EXPECT_EQ(missing.err, "velmoractl: cannot run '/nonexistent/cmd': No such file or directory\n");
  EXPECT_TRUE(Free());
}

TEST_F(VelmoractlLock, TimeoutWhileAnotherProcessHoldsTheLockExitsSix) {
  int fd = open(lock_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  const auto start = std::chrono::steady_clock::now();
  Result r = Tool({"lock", lock_, "--timeout", "1", "--", "touch", scratch_.path() + "/ran"});
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(r.status, 6);
  EXPECT_EQ(r.err, "velmoractl: the lock " + lock_ + " is still held after 1 s\n");
  EXPECT_FALSE(sdk::Exist(scratch_.path() + "/ran"));
  EXPECT_GE(waited, std::chrono::milliseconds(900));
  EXPECT_LT(waited, std::chrono::seconds(5));
  close(fd);
  // Once free, the same command runs.
  EXPECT_EQ(Tool({"lock", lock_, "--timeout", "1", "--", "touch", scratch_.path() + "/ran"}).status,
            0);
  EXPECT_TRUE(sdk::Exist(scratch_.path() + "/ran"));
}

TEST_F(VelmoractlLock, WaitsForAHolderThatLetsGo) {
  int fd = open(lock_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  std::thread release([fd] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    close(fd);
  });
  Result r = Tool({"lock", lock_, "--retries", "2", "--", "echo", "done"});
  release.join();
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "done\n");
}

TEST_F(VelmoractlLock, ALockFileThatCannotBeOpenedIsReported) {
  ASSERT_EQ(chmod(scratch_.path().c_str(), 0755), 0);
  Result denied = Tool({"lock", lock_, "--", "true"}, "vtuser1");
  EXPECT_EQ(denied.status, 5);
  EXPECT_EQ(denied.err, "velmoractl: cannot lock " + lock_ + ": Permission denied\n");
  Result missing = Tool({"lock", scratch_.path() + "/no/dir.lock", "--", "true"});
  EXPECT_EQ(missing.status, 3);
}

}  // namespace
}  // namespace test
}  // namespace velmora
