// Tests of FileKeyValue: loading a key=value settings file, changing it in
// memory and replacing the file atomically with the same owner, group and
// mode; every failure leaves the file and its directory as they were.
#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <fstream>
#include <functional>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

#include <velmora/file.h>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/log_capture.h"
#include "support/scratch_test.h"
#include "support/test_util.h"

namespace velmora {
namespace test {

namespace {

using sdk::ExclusiveFileLockGuard;
using sdk::FileKeyValue;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kLocal1Err = LOG_LOCAL1 | LOG_ERR;  // 139
constexpr char kModule[] = "src/lib/sdk/file_key_value";
constexpr char kFsModule[] = "src/lib/sdk/filesystem";
constexpr int kTableSize = 1024;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif
#else
constexpr bool kAddressSanitizer = false;
#endif

// A line of `module` at local1.err.
auto LogLine(const std::string& module, const std::string& message) {
  return LogAt(kLocal1Err, module, message);
}

// The same with the message matched by an ECMAScript regular expression.
auto LogLineMatching(const std::string& module, const std::string& pattern) {
  return LogAtMatching(kLocal1Err, module, pattern);
}

std::string EscapeRegex(const std::string& text) {
  static const std::string kRegexMeta = R"(\^$.|?*+()[]{}-/)";
  std::string out;
  for (char c : text) {
    if (kRegexMeta.find(c) != std::string::npos) out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

// The name of a temporary file made for `target`, as a pattern.
std::string TempNamePattern(const std::string& target) {
  return EscapeRegex(target) + "-[0-9a-f]{5}-[0-9a-f]{5}-[0-9a-f]{5}-[0-9a-f]{5}\\.tmp";
}

// Caps this process's address space at its present size plus `headroom`
// bytes, so that any larger allocation fails. For a forked child only.
bool CapAddressSpace(size_t headroom) {
  std::ifstream statm("/proc/self/statm");
  unsigned long pages = 0;
  if (!(statm >> pages)) return false;
  const rlim_t limit = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) +
                       static_cast<rlim_t>(headroom);
  rlimit cap{limit, limit};
  return setrlimit(RLIMIT_AS, &cap) == 0;
}

class FileKeyValueTest : public ScratchDirTest {};

TEST_F(FileKeyValueTest, GetBeforeReadIsEmpty) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n"));
  LogCapture capture;
  {
    FileKeyValue kv(path);
    EXPECT_EQ(kv.Get("a"), "");
    EXPECT_EQ(kv.Get(""), "");
  }
  EXPECT_EQ(ReadFile(path), "a=1\n");
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileKeyValueTest, ContainsTellsAnEmptyValueFromAMissingKey) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\nempty=\n"));
  FileKeyValue kv(path);
  EXPECT_FALSE(kv.Contains("a"));  // nothing read yet
  ASSERT_TRUE(kv.ReadKeyValues(8, "="));
  EXPECT_TRUE(kv.Contains("a"));
  EXPECT_TRUE(kv.Contains("empty"));
  EXPECT_EQ(kv.Get("empty"), "");
  EXPECT_FALSE(kv.Contains("missing"));
  EXPECT_EQ(kv.Get("missing"), "");
  ASSERT_TRUE(kv.Update("missing", ""));
  EXPECT_TRUE(kv.Contains("missing"));
}

TEST_F(FileKeyValueTest, AWriteDeniedInTheDirectoryLeavesErrnoAtEacces) {
  // vtuser1 may read the file but not create the temporary file beside it.
  ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n", 0644));
  int status = RunAs("vtuser1", [&] {
    FileKeyValue kv(path);
    if (!kv.ReadKeyValues(8, "=") || !kv.Update("a", "2")) return 10;
    errno = 0;
    if (kv.Write()) return 11;
    return errno == EACCES ? 0 : 12;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ReadFile(path), "a=1\n");
  EXPECT_THAT(ListDir(dir_.path()), ElementsAre("a.conf"));
}

TEST_F(FileKeyValueTest, ReadMissingFileFails) {
  const std::string path = dir_ / "a.conf";
  LogCapture capture;
  {
    FileKeyValue kv(path);
    EXPECT_FALSE(kv.ReadKeyValues(kTableSize, "="));
    EXPECT_EQ(kv.Get("a"), "");
  }
  EXPECT_THAT(ListDir(dir_.path()), IsEmpty());
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileKeyValueTest, ReadUnreadableFileFails) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n", 0600));
  LogCapture capture;
  int status = RunAs("vtuser1", [&] {
    FileKeyValue kv(path);
    if (kv.ReadKeyValues(kTableSize, "=")) return 1;
    return kv.Get("a").empty() ? 0 : 2;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ReadFile(path), "a=1\n");
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileKeyValueTest, ReadTakesValuesOfPlatformKeyFile) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path,
                        "# settings\n"
                        "alpha=1\n"
                        "\n"
                        "beta=\"two words\"\n"
                        "gamma=x=y\r\n"
                        "not a pair\n"
                        "alpha=5\n"
                        "empty=\n"));
  FileKeyValue kv(path);
  ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
  EXPECT_EQ(kv.Get("alpha"), "5");
  EXPECT_EQ(kv.Get("beta"), "two words");
  EXPECT_EQ(kv.Get("gamma"), "x=y");
  EXPECT_EQ(kv.Get("empty"), "");
  EXPECT_EQ(kv.Get("not a pair"), "");
  EXPECT_EQ(kv.Get("# settings"), "");
  EXPECT_EQ(kv.Get("missing"), "");
}

TEST_F(FileKeyValueTest, RewriteHasExactBytes) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path,
                        "# settings\n"
                        "alpha=1\n"
                        "\n"
                        "beta=\"two words\"\n"
                        "gamma=x=y\r\n"
                        "not a pair\n"
                        "alpha=5\n"
                        "empty=\n"
                        "delta=4\n"));
  const std::vector<std::string> before = ListDir(dir_.path());
  LogCapture capture;
  {
    FileKeyValue kv(path);
    ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
    ASSERT_TRUE(kv.Update("delta", "40"));
    ASSERT_TRUE(kv.Update("zeta", "z"));
    ASSERT_TRUE(kv.Update("alpha", "6"));
    EXPECT_EQ(kv.Get("delta"), "40");
    EXPECT_EQ(kv.Get("zeta"), "z");
    ASSERT_TRUE(kv.Write());
  }
  // First places kept, new keys last, quotes gone, comments and blank lines
  // dropped.
  EXPECT_EQ(ReadFile(path),
            "alpha=6\n"
            "beta=two words\n"
            "gamma=x=y\n"
            "empty=\n"
            "delta=40\n"
            "zeta=z\n");
  EXPECT_EQ(ListDir(dir_.path()), before);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileKeyValueTest, UntouchedKeySurvivesReadUpdateWrite) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "keep=me\nchange=old\n"));
  {
    FileKeyValue kv(path);
    ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
    ASSERT_TRUE(kv.Update("change", "new"));
    ASSERT_TRUE(kv.Write());
  }
  EXPECT_EQ(ReadFile(path), "keep=me\nchange=new\n");
  FileKeyValue again(path);
  ASSERT_TRUE(again.ReadKeyValues(kTableSize, "="));
  EXPECT_EQ(again.Get("keep"), "me");
  EXPECT_EQ(again.Get("change"), "new");
}

TEST_F(FileKeyValueTest, UpdateBeforeReadStartsTable) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "old=1\n"));
  FileKeyValue kv(path);
  ASSERT_TRUE(kv.Update("k", "v"));
  EXPECT_EQ(kv.Get("k"), "v");
  ASSERT_TRUE(kv.Write());
  EXPECT_EQ(ReadFile(path), "k=v\n");
}

TEST_F(FileKeyValueTest, WriteOfMissingFileFailsAndCreatesNothing) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(dir_ / "other", "x"));
  const std::vector<std::string> before = ListDir(dir_.path());
  LogCapture capture;
  {
    FileKeyValue kv(path);
    ASSERT_TRUE(kv.Update("k", "v"));
    EXPECT_FALSE(kv.Write());
  }
  EXPECT_FALSE(PathExists(path));
  EXPECT_EQ(ListDir(dir_.path()), before);
  EXPECT_THAT(capture.Records(), ElementsAre(LogLine(kModule, "Stat file error")));
}

TEST_F(FileKeyValueTest, WriteOfUnreachableFileFails) {
  // vtuser1 cannot search the directory, so stat(2) of the file fails.
  const std::string hidden = dir_ / "hidden";
  ASSERT_EQ(mkdir(hidden.c_str(), 0700), 0);
  const std::string path = hidden + "/a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n"));
  LogCapture capture;
  int status = RunAs("vtuser1", [&] {
    FileKeyValue kv(path);
    if (!kv.Update("a", "2")) return 10;
    return kv.Write() ? 1 : 0;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ReadFile(path), "a=1\n");
  EXPECT_THAT(ListDir(hidden), ElementsAre("a.conf"));
  EXPECT_THAT(capture.Records(), ElementsAre(LogLine(kModule, "Stat file error")));
}

TEST_F(FileKeyValueTest, RewriteKeepsOwnerGroupAndMode) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n", 0640));
  ASSERT_EQ(chown(path.c_str(), UidOf("vtuser1"), 61100), 0);  // vtuser1:vtshared
  const std::vector<std::string> before = ListDir(dir_.path());
  LogCapture capture;
  {
    FileKeyValue kv(path);
    ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
    ASSERT_TRUE(kv.Update("a", "2"));
    ASSERT_TRUE(kv.Write());
  }
  EXPECT_EQ(ReadFile(path), "a=2\n");
  EXPECT_EQ(Meta(path).uid, 61001u);
  EXPECT_EQ(Meta(path).gid, 61100u);
  EXPECT_EQ(Meta(path).mode, 0640u);
  EXPECT_EQ(ListDir(dir_.path()), before);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileKeyValueTest, RewriteKeepsSetGroupIdBit) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n", 02600));
  FileKeyValue kv(path);
  ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
  ASSERT_TRUE(kv.Write());
  EXPECT_EQ(Meta(path).mode, 02600u);
  EXPECT_EQ(ReadFile(path), "a=1\n");
}

TEST_F(FileKeyValueTest, WriteWithoutTableLeavesEmptyFile) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\nb=2\n", 0640));
  ASSERT_EQ(chown(path.c_str(), UidOf("vtuser1"), 61100), 0);
  const std::vector<std::string> before = ListDir(dir_.path());
  LogCapture capture;
  {
    FileKeyValue kv(path);
    ASSERT_TRUE(kv.Write());
  }
  EXPECT_EQ(ReadFile(path), "");
  EXPECT_EQ(Meta(path).uid, 61001u);
  EXPECT_EQ(Meta(path).gid, 61100u);
  EXPECT_EQ(Meta(path).mode, 0640u);
  EXPECT_EQ(ListDir(dir_.path()), before);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileKeyValueTest, WriteIntoFullFileSystemFails) {
  ASSERT_TRUE(dir_.MountTmpfs("small", "64k"));
  const std::string small = dir_ / "small";
  const std::string path = small + "/a.conf";
  // About 40 KiB of pairs: a second copy beside it does not fit into 64 KiB.
  std::string content;
  for (int i = 0; i < 400; ++i) {
    content += "key" + std::to_string(1000 + i) + "=" + std::string(92, 'v') + "\n";
  }
  ASSERT_TRUE(WriteFile(path, content));
  struct statvfs fs {};
  ASSERT_EQ(statvfs(small.c_str(), &fs), 0);
  ASSERT_LT(fs.f_bavail * fs.f_frsize, content.size());
  const std::vector<std::string> before = ListDir(small);

  LogCapture capture;
  {
    FileKeyValue kv(path);
    ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
    ASSERT_TRUE(kv.Update("key1000", "changed"));
    EXPECT_FALSE(kv.Write());
  }
  EXPECT_EQ(ReadFile(path), content);
  EXPECT_EQ(ListDir(small), before);
  EXPECT_THAT(capture.Records(), ElementsAre(LogLine(kModule, "initialize temp file failed")));
}

TEST_F(FileKeyValueTest, WriteOnReadOnlyMountFails) {
  ASSERT_TRUE(dir_.MountTmpfs("ro"));
  const std::string ro = dir_ / "ro";
  const std::string path = ro + "/a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n"));
  ASSERT_TRUE(dir_.RemountReadOnly("ro"));
  const std::vector<std::string> before = ListDir(ro);
  LogCapture capture;
  {
    FileKeyValue kv(path);
    ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
    ASSERT_TRUE(kv.Update("a", "2"));
    EXPECT_FALSE(kv.Write());
  }
  EXPECT_EQ(ReadFile(path), "a=1\n");
  EXPECT_EQ(ListDir(ro), before);
  EXPECT_THAT(capture.Records(), ElementsAre(LogLine(kModule, "initialize temp file failed")));
}

TEST_F(FileKeyValueTest, WriteFailsWhenOwnerCannotBeSet) {
  // vtuser1 may read a file of vtuser2's and create files beside it, but may
  // not give a file to vtuser2.
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n", 0644));
  ASSERT_EQ(chown(path.c_str(), UidOf("vtuser2"), GidOf("vtuser2")), 0);
  const std::vector<std::string> before = ListDir(dir_.path());
  LogCapture capture;
  int status = RunAs("vtuser1", [&] {
    FileKeyValue kv(path);
    if (!kv.ReadKeyValues(kTableSize, "=")) return 10;
    if (!kv.Update("a", "2")) return 11;
    return kv.Write() ? 1 : 0;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ReadFile(path), "a=1\n");
  EXPECT_EQ(Meta(path).uid, UidOf("vtuser2"));
  EXPECT_EQ(ListDir(dir_.path()), before);
  EXPECT_THAT(capture.Records(), ElementsAre(LogLine(kModule, "initialize temp file failed")));
}

TEST_F(FileKeyValueTest, WriteOntoDirectoryFailsRename) {
  // stat(2) accepts a directory and the temporary file is made beside it;
  // only the rename over the directory fails.
  const std::string path = dir_ / "a.conf";
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
  ASSERT_TRUE(WriteFile(path + "/inside", "x"));
  const std::vector<std::string> before = ListDir(dir_.path());
  LogCapture capture;
  {
    FileKeyValue kv(path);
    ASSERT_TRUE(kv.Update("a", "1"));
    EXPECT_FALSE(kv.Write());
  }
  EXPECT_EQ(ListDir(dir_.path()), before);
  EXPECT_THAT(ListDir(path), ElementsAre("inside"));
  EXPECT_EQ(ReadFile(path + "/inside"), "x");
  EXPECT_THAT(
      capture.Records(),
      ElementsAre(LogLineMatching(kFsModule, "Rename failed: " + TempNamePattern(path) + " -> " +
                                                 EscapeRegex(path) + " Is a directory"),
                  LogLine(kModule, "Move temp file to " + path + " fail")));
}

TEST_F(FileKeyValueTest, FailedWriteKeepsChangesForRetry) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\nb=2\n"));
  LogCapture capture;
  FileKeyValue kv(path);
  ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
  ASSERT_TRUE(kv.Update("b", "3"));
  // The target turns into a directory: the rename fails.
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
  EXPECT_FALSE(kv.Write());
  EXPECT_THAT(ListDir(dir_.path()), ElementsAre("a.conf"));
  EXPECT_EQ(capture.Records().size(), 2u);
  capture.Reset();

  ASSERT_EQ(rmdir(path.c_str()), 0);
  ASSERT_TRUE(WriteFile(path, "a=1\nb=2\n", 0600));
  EXPECT_EQ(kv.Get("b"), "3");
  EXPECT_TRUE(kv.Write());
  EXPECT_EQ(ReadFile(path), "a=1\nb=3\n");
  EXPECT_EQ(Meta(path).mode, 0600u);
  EXPECT_THAT(ListDir(dir_.path()), ElementsAre("a.conf"));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileKeyValueTest, FailedWriteKeepsDirtyState) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n"));
  LogCapture capture;
  {
    FileKeyValue kv(path);
    kv.SetWriteOnDestroy(true);
    ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
    ASSERT_TRUE(kv.Update("a", "2"));
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_FALSE(kv.Write());
    EXPECT_THAT(capture.Records(), ElementsAre(LogLine(kModule, "Stat file error")));
    capture.Reset();
    ASSERT_TRUE(WriteFile(path, "a=1\n"));
  }
  // Still dirty after the failure, so the destructor wrote the change.
  EXPECT_EQ(ReadFile(path), "a=2\n");
  EXPECT_THAT(ListDir(dir_.path()), ElementsAre("a.conf"));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileKeyValueTest, SuccessfulWriteClearsDirtyState) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n"));
  {
    FileKeyValue kv(path);
    kv.SetWriteOnDestroy(true);
    ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
    ASSERT_TRUE(kv.Update("a", "2"));
    ASSERT_TRUE(kv.Write());
    EXPECT_EQ(ReadFile(path), "a=2\n");
    ASSERT_TRUE(WriteFile(path, "changed=elsewhere\n"));
  }
  EXPECT_EQ(ReadFile(path), "changed=elsewhere\n");
}

TEST_F(FileKeyValueTest, WriteOnDestroyWritesChanges) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\nb=2\n", 0640));
  LogCapture capture;
  {
    FileKeyValue kv(path);
    kv.SetWriteOnDestroy(true);
    ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
    ASSERT_TRUE(kv.Update("c", "3"));
    EXPECT_EQ(ReadFile(path), "a=1\nb=2\n");
  }
  EXPECT_EQ(ReadFile(path), "a=1\nb=2\nc=3\n");
  EXPECT_EQ(Meta(path).mode, 0640u);
  EXPECT_THAT(ListDir(dir_.path()), ElementsAre("a.conf"));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileKeyValueTest, WriteOnDestroyWithoutChangesWritesNothing) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n"));
  {
    FileKeyValue kv(path);
    kv.SetWriteOnDestroy(true);
    ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
    ASSERT_TRUE(WriteFile(path, "changed=elsewhere\n"));
  }
  EXPECT_EQ(ReadFile(path), "changed=elsewhere\n");
}

TEST_F(FileKeyValueTest, ChangesAreDroppedWithoutWriteOnDestroy) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n"));
  LogCapture capture;
  {
    FileKeyValue kv(path);
    ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
    ASSERT_TRUE(kv.Update("a", "2"));
  }
  EXPECT_EQ(ReadFile(path), "a=1\n");
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileKeyValueTest, WriteOnDestroyFailureIsReported) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n"));
  LogCapture capture;
  {
    FileKeyValue kv(path);
    kv.SetWriteOnDestroy(true);
    ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
    ASSERT_TRUE(kv.Update("a", "2"));
    ASSERT_EQ(unlink(path.c_str()), 0);
  }
  EXPECT_THAT(ListDir(dir_.path()), IsEmpty());
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogLine(kModule, "Stat file error"),
                          LogLine(kModule, "Update key value file(" + path + ") fail")));
}

TEST_F(FileKeyValueTest, RereadDiscardsUnsavedChanges) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n"));
  {
    FileKeyValue kv(path);
    kv.SetWriteOnDestroy(true);
    ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
    ASSERT_TRUE(kv.Update("a", "2"));
    ASSERT_TRUE(kv.Update("b", "3"));
    ASSERT_TRUE(WriteFile(path, "a=5\n"));
    ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
    EXPECT_EQ(kv.Get("a"), "5");
    EXPECT_EQ(kv.Get("b"), "");
    // Clean again: nothing is written at destruction.
    ASSERT_TRUE(WriteFile(path, "changed=elsewhere\n"));
  }
  EXPECT_EQ(ReadFile(path), "changed=elsewhere\n");
}

TEST_F(FileKeyValueTest, FailedRereadLeavesEmptyTable) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n"));
  LogCapture capture;
  FileKeyValue kv(path);
  ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
  ASSERT_EQ(unlink(path.c_str()), 0);
  EXPECT_FALSE(kv.ReadKeyValues(kTableSize, "="));
  EXPECT_EQ(kv.Get("a"), "");
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileKeyValueTest, TableAllocationFailureFailsRead) {
  if (kAddressSanitizer) GTEST_SKIP() << "AddressSanitizer aborts on a failed allocation";
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n"));
  LogCapture capture;
  // A table sized for INT_MAX entries cannot be had under a capped address
  // space.
  pid_t child = Spawn([&] {
    FileKeyValue kv(path);
    if (!CapAddressSpace(64 << 20)) return 10;
    if (kv.ReadKeyValues(INT_MAX, "=")) return 1;
    return kv.Get("a").empty() ? 0 : 2;
  });
  EXPECT_EQ(ExitStatusOf(child), 0);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileKeyValueTest, FailedUpdateKeepsStateClean) {
  if (kAddressSanitizer) GTEST_SKIP() << "AddressSanitizer aborts on a failed allocation";
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n"));
  LogCapture capture;
  pid_t child = Spawn([&] {
    int status = 0;
    {
      FileKeyValue kv(path);
      kv.SetWriteOnDestroy(true);
      if (!kv.ReadKeyValues(kTableSize, "=")) return 10;
      // The table's copy of this value cannot be made under the cap.
      const std::string huge(256u << 20, 'x');
      if (!CapAddressSpace(64 << 20)) return 11;
      if (kv.Update("a", huge)) status |= 1;
      if (kv.Get("a") != "1") status |= 2;
      // Were the object dirty now, its destructor would rewrite the file.
      if (!WriteFile(path, "changed=elsewhere\n")) return 12;
    }
    return status;
  });
  EXPECT_EQ(ExitStatusOf(child), 0);
  EXPECT_EQ(ReadFile(path), "changed=elsewhere\n");
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileKeyValueTest, ConcurrentLockedUpdatesLoseNothing) {
  const std::string path = dir_ / "counter.conf";
  const std::string lock = dir_ / "counter.lock";
  ASSERT_TRUE(WriteFile(path, "name=shared\ncounter=0\n"));
  constexpr int kWriters = 4;
  constexpr int kRounds = 200;
  LogCapture capture;
  std::vector<pid_t> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.push_back(Spawn([&, w] {
      for (int round = 1; round <= kRounds; ++round) {
        ExclusiveFileLockGuard guard(lock, 60);
        if (guard.fd_ < 0) return 1;
        FileKeyValue kv(path);
        if (!kv.ReadKeyValues(kTableSize, "=")) return 2;
        const int counter = std::stoi(kv.Get("counter"));
        if (!kv.Update("counter", std::to_string(counter + 1))) return 3;
        if (!kv.Update("writer" + std::to_string(w), std::to_string(round))) return 4;
        if (!kv.Write()) return 5;
      }
      return 0;
    }));
    ASSERT_GT(writers.back(), 0);
  }
  for (pid_t writer : writers) EXPECT_EQ(ExitStatusOf(writer), 0);

  FileKeyValue kv(path);
  ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
  EXPECT_EQ(kv.Get("counter"), std::to_string(kWriters * kRounds));
  EXPECT_EQ(kv.Get("name"), "shared");
  for (int w = 0; w < kWriters; ++w) {
    EXPECT_EQ(kv.Get("writer" + std::to_string(w)), std::to_string(kRounds));
  }
  EXPECT_THAT(ListDir(dir_.path()), ElementsAre("counter.conf", "counter.lock"));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

}  // namespace
}  // namespace test
}  // namespace velmora
