// Temporary names and TempFile: the names drawn, the file written and moved
// into place, and what is left on disk when a move fails (full file system,
// read-only mount, missing or forbidden directory, existing target across
// file systems).

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>

#include <cctype>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <velmora/file.h>

#include "support/log_capture.h"
#include "support/test_util.h"

namespace velmora {
namespace {

using namespace test;  // NOLINT(build/namespaces)

constexpr int kErrPriority = 139;  // LOG_LOCAL1 | LOG_ERR
constexpr char kModule[] = "src/lib/sdk/filesystem";
// What follows the prefix in a TempFile's name.
const char kSuffixPattern[] = "-[0-9a-f]{5}-[0-9a-f]{5}-[0-9a-f]{5}-[0-9a-f]{5}\\.tmp";

// Exactly `messages`, in order, each one line at local1.err from the
// file-system module; nothing else.
const test::ModuleLog Logged{kErrPriority, kModule};

// True when `path` is `prefix` followed by "-XXXXX-XXXXX-XXXXX-XXXXX.tmp".
bool IsTempName(const std::string& path, const std::string& prefix) {
  return path.compare(0, prefix.size(), prefix) == 0 &&
         std::regex_match(path.substr(prefix.size()), std::regex(kSuffixPattern));
}

// Makes every getrandom(2) of this process fail with EIO, so that no random
// name can be drawn. For a child only: it cannot be undone.
bool DenyRandomBytes() {
#if defined(__x86_64__)
  struct sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_getrandom, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (EIO & SECCOMP_RET_DATA)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  struct sock_fprog prog = {static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog) == 0;
#else
  return false;
#endif
}

class TempFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    old_umask_ = umask(022);
    ASSERT_FALSE(dir_.path().empty());
    uid1_ = test::UidOf("vtuser1");
    ASSERT_NE(uid1_, static_cast<uid_t>(-1));
    shared_gid_ = getgrnam("vtshared") != nullptr ? getgrnam("vtshared")->gr_gid : 0;
    ASSERT_NE(shared_gid_, 0u);
  }
  void TearDown() override { umask(old_umask_); }

  std::string Owner(uid_t uid, gid_t gid) const {
    return std::to_string(uid) + ":" + std::to_string(gid);
  }

  ScratchDir dir_;
  mode_t old_umask_ = 0;
  uid_t uid1_ = 0;
  gid_t shared_gid_ = 0;
};

// ---- AvailableTempFilePath ----

TEST_F(TempFileTest, DefaultModelGivesFreeNameUnderTmp) {
  const auto tmp_before = ListDir("/tmp");
  LogCapture log;
  const std::string name = sdk::AvailableTempFilePath();
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_TRUE(
      std::regex_match(name, std::regex("^/tmp/velmora-[0-9a-f]{5}(-[0-9a-f]{5}){3}\\.tmp$")))
      << name;
  EXPECT_FALSE(PathExists(name));  // checked, not created
  EXPECT_EQ(ListDir("/tmp"), tmp_before);
}

TEST_F(TempFileTest, PlaceholdersAreIndependentLowercaseHexDigits) {
  constexpr int kDraws = 2000;
  constexpr int kDigits = 20;
  std::set<std::string> names;
  std::map<char, int> counts;
  std::vector<std::set<char>> per_position(kDigits);
  LogCapture log;
  for (int i = 0; i < kDraws; ++i) {
    const std::string name = sdk::AvailableTempFilePath();
    ASSERT_EQ(name.size(), std::string("/tmp/velmora-").size() + 23 + 4) << name;
    ASSERT_EQ(name.compare(0, 13, "/tmp/velmora-"), 0) << name;
    int position = 0;
    for (size_t k = 13; k < name.size() - 4; ++k) {
      if ((k - 13) % 6 == 5) {
        ASSERT_EQ(name[k], '-') << name;
        continue;
      }
      const char c = name[k];
      ASSERT_TRUE((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')) << name;
      ++counts[c];
      per_position[position++].insert(c);
    }
    ASSERT_EQ(position, kDigits);
    ASSERT_EQ(name.substr(name.size() - 4), ".tmp");
    names.insert(name);
  }
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(names.size(), static_cast<size_t>(kDraws));  // all different
  // 40000 digits: each of the 16 is expected 2500 times (standard deviation
  // about 48), and every position shows all 16 within 2000 draws.
  ASSERT_EQ(counts.size(), 16u);
  for (const auto& [digit, n] : counts) {
    EXPECT_GT(n, 2000) << digit;
    EXPECT_LT(n, 3000) << digit;
  }
  for (int p = 0; p < kDigits; ++p) EXPECT_EQ(per_position[p].size(), 16u) << "position " << p;
}

TEST_F(TempFileTest, ModelKeepsEveryCharacterButPlaceholders) {
  const std::string model = dir_ / "Ab_%.X-%%Z%";
  LogCapture log;
  const std::string name = sdk::AvailableTempFilePath(model);
  EXPECT_TRUE(Logged(log.Records(), {}));
  const std::string base = dir_ / "";
  ASSERT_EQ(name.compare(0, base.size(), base), 0) << name;
  EXPECT_TRUE(std::regex_match(name.substr(base.size()),
                               std::regex("Ab_[0-9a-f]\\.X-[0-9a-f]{2}Z[0-9a-f]")))
      << name;
  EXPECT_EQ(ListDir(dir_.path()), std::vector<std::string>{});
}

TEST_F(TempFileTest, ModelWithoutPlaceholderIsReturnedWhenFree) {
  char* cwd = getcwd(nullptr, 0);
  ASSERT_NE(cwd, nullptr);
  const std::string old_cwd = cwd;
  free(cwd);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  LogCapture log;
  const std::string relative = sdk::AvailableTempFilePath("x");
  ASSERT_EQ(chdir(old_cwd.c_str()), 0);
  EXPECT_EQ(relative, "x");
  EXPECT_EQ(sdk::AvailableTempFilePath(dir_ / "x"), dir_ / "x");
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(ListDir(dir_.path()), std::vector<std::string>{});
}

TEST_F(TempFileTest, ModelWithoutPlaceholderThatExistsGivesEmptyName) {
  ASSERT_TRUE(WriteFile(dir_ / "x", "taken"));
  ASSERT_EQ(mkdir((dir_ / "d").c_str(), 0755), 0);
  const auto before = Snapshot(dir_.path());
  LogCapture log;
  EXPECT_EQ(sdk::AvailableTempFilePath(dir_ / "x"), "");
  EXPECT_TRUE(Logged(log.Records(), {"No available temp file path: " + (dir_ / "x")}));
  log.Reset();
  EXPECT_EQ(sdk::AvailableTempFilePath(dir_ / "d"), "");
  EXPECT_TRUE(Logged(log.Records(), {"No available temp file path: " + (dir_ / "d")}));
  EXPECT_EQ(Snapshot(dir_.path()), before);
}

TEST_F(TempFileTest, DanglingLinkCountsAsFreeName) {
  // The check follows links: a link to nothing is not "something there".
  ASSERT_EQ(symlink("nowhere", (dir_ / "x").c_str()), 0);
  LogCapture log;
  EXPECT_EQ(sdk::AvailableTempFilePath(dir_ / "x"), dir_ / "x");
  EXPECT_TRUE(Logged(log.Records(), {}));
}

TEST_F(TempFileTest, FailingRandomSourceUsesUpEveryTry) {
#if !defined(__x86_64__)
  GTEST_SKIP() << "the getrandom filter is written for x86-64";
#endif
  const std::string model = dir_ / "u-%%%%%.tmp";
  LogCapture log;
  const int rc = RunInChild([&] {
    if (!DenyRandomBytes()) return 10;
    return sdk::AvailableTempFilePath(model).empty() ? 0 : 1;
  });
  ASSERT_EQ(rc, 0);
  std::vector<std::string> expected(1000,
                                    "Get unique path failed: " + model + " Input/output error");
  expected.push_back("No available temp file path: " + model);
  EXPECT_TRUE(Logged(log.Records(), expected));
  EXPECT_EQ(ListDir(dir_.path()), std::vector<std::string>{});
}

TEST_F(TempFileTest, TempFileWithoutNameIsInvalid) {
#if !defined(__x86_64__)
  GTEST_SKIP() << "the getrandom filter is written for x86-64";
#endif
  const std::string prefix = dir_ / "conf";
  const std::string model = prefix + "-%%%%%-%%%%%-%%%%%-%%%%%.tmp";
  LogCapture log;
  const int rc = RunInChild([&] {
    if (!DenyRandomBytes()) return 10;
    sdk::TempFile tmp(prefix);
    tmp.WriteLine("ignored");
    return !tmp.valid_ && tmp.path().empty() ? 0 : 1;
  });
  ASSERT_EQ(rc, 0);
  std::vector<std::string> expected(1000,
                                    "Get unique path failed: " + model + " Input/output error");
  expected.push_back("No available temp file path: " + model);
  EXPECT_TRUE(Logged(log.Records(), expected));
  EXPECT_EQ(ListDir(dir_.path()), std::vector<std::string>{});
}

// ---- TempFile: names and creation ----

TEST_F(TempFileTest, TempFileLiesBesideItsPrefix) {
  const std::string prefix = dir_ / "target.conf";
  LogCapture log;
  {
    sdk::TempFile tmp(prefix);
    ASSERT_TRUE(tmp.valid_);
    EXPECT_TRUE(IsTempName(tmp.path(), prefix)) << tmp.path();
    // A new empty file with the ordinary mode of a new file.
    EXPECT_EQ(Snapshot(dir_.path()),
              (std::map<std::string, std::string>{
                  {tmp.path().substr(dir_.path().size() + 1), "file 644 0:0 []"}}));
  }
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(ListDir(dir_.path()), std::vector<std::string>{});
}

TEST_F(TempFileTest, DefaultTempFileLivesInTmp) {
  const auto tmp_before = ListDir("/tmp");
  LogCapture log;
  {
    sdk::TempFile tmp;
    ASSERT_TRUE(tmp.valid_);
    EXPECT_TRUE(std::regex_match(
        tmp.path(), std::regex("^/tmp/velmora_tmp-[0-9a-f]{5}(-[0-9a-f]{5}){3}\\.tmp$")))
        << tmp.path();
    EXPECT_TRUE(test::PathExists(tmp.path()));
    EXPECT_EQ(ReadFile(tmp.path()), "");
    EXPECT_EQ(Meta(tmp.path()).mode, 0644u);
  }
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(ListDir("/tmp"), tmp_before);
}

TEST_F(TempFileTest, NewFileModeFollowsTheUmask) {
  umask(077);
  sdk::TempFile tmp(dir_ / "conf");
  umask(022);
  ASSERT_TRUE(tmp.valid_);
  EXPECT_EQ(Meta(tmp.path()).mode, 0600u);
}

TEST_F(TempFileTest, EmptyPrefixHoldsNoFile) {
  const auto tmp_before = ListDir("/tmp");
  ASSERT_TRUE(WriteFile(dir_ / "target", "old\n", 0640));
  const auto before = Snapshot(dir_.path());
  LogCapture log;
  {
    sdk::TempFile tmp("");
    EXPECT_FALSE(tmp.valid_);
    EXPECT_EQ(tmp.path(), "");
    tmp.WriteLine("ignored");
    EXPECT_FALSE(tmp.valid_);
    errno = 0;
    EXPECT_EQ(tmp.Chown(0, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(tmp.Chmod(0600), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(Logged(log.Records(), {}));
    // The move is still tried, with the empty name.
    EXPECT_EQ(tmp.MoveTo(dir_ / "target"), -1);
    EXPECT_TRUE(Logged(log.Records(),
                       {"Rename failed:  -> " + (dir_ / "target") + " No such file or directory"}));
  }
  EXPECT_EQ(Snapshot(dir_.path()), before);
  EXPECT_EQ(ListDir("/tmp"), tmp_before);
}

TEST_F(TempFileTest, PrefixInMissingDirectoryIsInvalid) {
  const std::string prefix = dir_ / "missing/conf";
  ASSERT_TRUE(WriteFile(dir_ / "target", "old\n"));
  const auto before = Snapshot(dir_.path());
  LogCapture log;
  {
    sdk::TempFile tmp(prefix);
    EXPECT_FALSE(tmp.valid_);
    EXPECT_TRUE(IsTempName(tmp.path(), prefix)) << tmp.path();  // a name was found
    tmp.WriteLine("ignored");
    errno = 0;
    EXPECT_EQ(tmp.Chown(0, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(tmp.Chmod(0600), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(Logged(log.Records(), {}));
    EXPECT_EQ(tmp.MoveTo(dir_ / "target"), -1);
    EXPECT_TRUE(Logged(log.Records(), {"Rename failed: " + tmp.path() + " -> " + (dir_ / "target") +
                                       " No such file or directory"}));
  }
  EXPECT_EQ(Snapshot(dir_.path()), before);
}

TEST_F(TempFileTest, ReadOnlyDirectoryMakesTempFileInvalid) {
  ASSERT_TRUE(dir_.MountTmpfs("ro"));
  ASSERT_TRUE(WriteFile(dir_ / "ro/conf", "old\n"));
  ASSERT_TRUE(dir_.RemountReadOnly("ro"));
  const auto before = Snapshot(dir_.path());
  LogCapture log;
  {
    sdk::TempFile tmp(dir_ / "ro/conf");
    EXPECT_FALSE(tmp.valid_);
    EXPECT_TRUE(IsTempName(tmp.path(), dir_ / "ro/conf")) << tmp.path();
    tmp.WriteLine("ignored");
  }
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(Snapshot(dir_.path()), before);
}

TEST_F(TempFileTest, DroppedIdentityCannotCreateInRootDirectory) {
  ASSERT_EQ(mkdir((dir_ / "root_dir").c_str(), 0755), 0);
  ASSERT_TRUE(WriteFile(dir_ / "root_dir/conf", "old\n"));
  ASSERT_EQ(mkdir((dir_ / "user_dir").c_str(), 0755), 0);
  ASSERT_EQ(chown((dir_ / "user_dir").c_str(), uid1_, test::GidOf("vtuser1")), 0);
  const auto before = Snapshot(dir_.path());
  const std::string denied = dir_ / "root_dir/conf";
  const std::string allowed = dir_ / "user_dir/conf";
  const uid_t uid1 = uid1_;
  LogCapture log;
  EXPECT_EQ(RunAs("vtuser1",
                  [&] {
                    sdk::TempFile tmp(denied);
                    tmp.WriteLine("ignored");
                    return !tmp.valid_ && IsTempName(tmp.path(), denied) ? 0 : 1;
                  }),
            0);
  // The same identity may write where it owns the directory.
  EXPECT_EQ(RunAs("vtuser1",
                  [&] {
                    sdk::TempFile tmp(allowed);
                    return tmp.valid_ && Meta(tmp.path()).uid == uid1 ? 0 : 1;
                  }),
            0);
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(Snapshot(dir_.path()), before);
}

// ---- TempFile: writing and moving into place ----

TEST_F(TempFileTest, DestroyedWithoutMoveToLeavesNothing) {
  ASSERT_TRUE(WriteFile(dir_ / "conf", "old\n", 0640));
  const auto before = Snapshot(dir_.path());
  LogCapture log;
  {
    sdk::TempFile tmp(dir_ / "conf");
    ASSERT_TRUE(tmp.valid_);
    tmp.WriteLine("one");
    tmp.WriteLine("two");
    EXPECT_EQ(tmp.Chmod(0600), 0);
    EXPECT_EQ(ReadFile(tmp.path()), "one\ntwo\n");  // each line reaches the file at once
    EXPECT_EQ(ListDir(dir_.path()).size(), 2u);
  }
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(Snapshot(dir_.path()), before);
}

TEST_F(TempFileTest, MoveToPutsExactlyTheLinesInPlace) {
  ASSERT_TRUE(WriteFile(dir_ / "conf", "old content that is longer than the new one\n"));
  LogCapture log;
  std::string temp_name;
  std::map<std::string, std::string> after_move;
  {
    sdk::TempFile tmp(dir_ / "conf");
    ASSERT_TRUE(tmp.valid_);
    temp_name = tmp.path();
    tmp.WriteLine("alpha");
    tmp.WriteLine("");
    tmp.WriteLine("key=value with spaces");
    tmp.WriteLine("two\nlines");
    EXPECT_EQ(tmp.MoveTo(dir_ / "conf"), 0);
    EXPECT_FALSE(tmp.valid_);
    EXPECT_EQ(tmp.path(), temp_name);  // the stored name is kept
    EXPECT_FALSE(PathExists(temp_name));
    after_move = Snapshot(dir_.path());
    EXPECT_EQ(after_move,
              (std::map<std::string, std::string>{
                  {"conf", "file 644 0:0 [alpha\n\nkey=value with spaces\ntwo\nlines\n]"},
              }));
  }
  // Destroying the moved object changes nothing.
  EXPECT_EQ(Snapshot(dir_.path()), after_move);
  EXPECT_TRUE(Logged(log.Records(), {}));
}

TEST_F(TempFileTest, MoveToWithoutLinesGivesEmptyFile) {
  LogCapture log;
  {
    sdk::TempFile tmp(dir_ / "conf");
    ASSERT_TRUE(tmp.valid_);
    EXPECT_EQ(tmp.MoveTo(dir_ / "conf"), 0);
  }
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(Snapshot(dir_.path()),
            (std::map<std::string, std::string>{{"conf", "file 644 0:0 []"}}));
}

TEST_F(TempFileTest, WriteLineAfterMoveToWritesNothing) {
  LogCapture log;
  {
    sdk::TempFile tmp(dir_ / "conf");
    ASSERT_TRUE(tmp.valid_);
    tmp.WriteLine("kept");
    ASSERT_EQ(tmp.MoveTo(dir_ / "conf"), 0);
    tmp.WriteLine("late");
    tmp.WriteLine("later");
    EXPECT_FALSE(tmp.valid_);
    EXPECT_FALSE(PathExists(tmp.path()));
    EXPECT_EQ(Snapshot(dir_.path()),
              (std::map<std::string, std::string>{{"conf", "file 644 0:0 [kept\n]"}}));
  }
  EXPECT_EQ(Snapshot(dir_.path()),
            (std::map<std::string, std::string>{{"conf", "file 644 0:0 [kept\n]"}}));
  EXPECT_TRUE(Logged(log.Records(), {}));
}

TEST_F(TempFileTest, OwnerAndModeSetBeforeMoveToAreKept) {
  ASSERT_TRUE(WriteFile(dir_ / "conf", "old\n", 0644));
  LogCapture log;
  {
    sdk::TempFile tmp(dir_ / "conf");
    ASSERT_TRUE(tmp.valid_);
    tmp.WriteLine("secret=1");
    EXPECT_EQ(tmp.Chown(uid1_, shared_gid_), 0);
    EXPECT_EQ(tmp.Chmod(0640), 0);
    EXPECT_EQ(Meta(tmp.path()).uid, uid1_);
    EXPECT_EQ(Meta(tmp.path()).gid, shared_gid_);
    EXPECT_EQ(Meta(tmp.path()).mode, 0640u);
    tmp.WriteLine("more=2");  // writing after Chown/Chmod keeps them
    EXPECT_EQ(tmp.MoveTo(dir_ / "conf"), 0);
  }
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(Snapshot(dir_.path()),
            (std::map<std::string, std::string>{
                {"conf", "file 640 " + Owner(uid1_, shared_gid_) + " [secret=1\nmore=2\n]"}}));
}

TEST_F(TempFileTest, ChownAndChmodReportSystemErrors) {
  sdk::TempFile tmp(dir_ / "conf");
  ASSERT_TRUE(tmp.valid_);
  // Not root any more: chown to another user is refused.
  EXPECT_EQ(RunAs("vtuser1",
                  [&] {
                    errno = 0;
                    int chown_rc = tmp.Chown(0, 0);
                    int chown_errno = errno;
                    errno = 0;
                    int chmod_rc = tmp.Chmod(0600);
                    int chmod_errno = errno;
                    return chown_rc == -1 && chown_errno == EPERM && chmod_rc == -1 &&
                                   chmod_errno == EPERM
                               ? 0
                               : 1;
                  }),
            0);
  EXPECT_EQ(Meta(tmp.path()).mode, 0644u);
  EXPECT_EQ(Meta(tmp.path()).uid, 0u);
}

// ---- TempFile: failed moves ----

TEST_F(TempFileTest, FullFileSystemFailsMoveToAndKeepsOldTarget) {
  ASSERT_TRUE(dir_.MountTmpfs("small", "64k"));
  const std::string target = dir_ / "small/conf";
  ASSERT_TRUE(WriteFile(target, "old=1\nother=2\n", 0640));
  const auto before = Snapshot(dir_ / "small");
  LogCapture log;
  {
    sdk::TempFile tmp(target);
    ASSERT_TRUE(tmp.valid_);
    const std::string line(1000, 'x');
    for (int i = 0; i < 100; ++i) tmp.WriteLine(line);  // 100 KB into 64 KB
    errno = 0;
    EXPECT_EQ(tmp.MoveTo(target), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(tmp.valid_);
    EXPECT_EQ(ReadFile(target), "old=1\nother=2\n");
  }
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(Snapshot(dir_ / "small"), before);
}

TEST_F(TempFileTest, MoveToReadOnlyMountFailsAndKeepsTarget) {
  ASSERT_TRUE(dir_.MountTmpfs("m"));
  const std::string d = dir_ / "m/etc";
  ASSERT_EQ(mkdir(d.c_str(), 0755), 0);
  const std::string target = d + "/conf";
  ASSERT_TRUE(WriteFile(target, "old\n", 0600));
  const auto before = Snapshot(d);
  LogCapture log;
  {
    auto tmp = std::make_unique<sdk::TempFile>(target);
    ASSERT_TRUE(tmp->valid_);
    tmp->WriteLine("new");
    // The directory turns read-only under the open temporary file: a
    // read-only bind mount of it over itself.
    ASSERT_EQ(mount(d.c_str(), d.c_str(), nullptr, MS_BIND, nullptr), 0);
    bool bound = true;
    std::shared_ptr<void> unbind(nullptr, [&](void*) {
      if (bound) umount2(d.c_str(), MNT_DETACH);
    });
    ASSERT_EQ(mount(nullptr, d.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(tmp->MoveTo(target), -1);
    EXPECT_TRUE(Logged(log.Records(), {"Rename failed: " + tmp->path() + " -> " + target +
                                       " Read-only file system"}));
    EXPECT_EQ(ReadFile(target), "old\n");
    EXPECT_TRUE(PathExists(tmp->path()));
    // Writable again: the destructor takes the temporary file away.
    ASSERT_EQ(umount2(d.c_str(), 0), 0);
    bound = false;
    tmp.reset();
  }
  EXPECT_EQ(Snapshot(d), before);
}

TEST_F(TempFileTest, MoveToAcrossFileSystemsCopiesAndRemovesTemp) {
  ASSERT_TRUE(dir_.MountTmpfs("a"));
  ASSERT_TRUE(dir_.MountTmpfs("b"));
  const std::string target = dir_ / "b/conf";
  LogCapture log;
  {
    sdk::TempFile tmp(dir_ / "a/conf");
    ASSERT_TRUE(tmp.valid_);
    tmp.WriteLine("line 1");
    tmp.WriteLine("line 2");
    EXPECT_EQ(tmp.Chmod(0640), 0);
    EXPECT_EQ(tmp.MoveTo(target), 0);
    EXPECT_FALSE(PathExists(tmp.path()));
  }
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(ListDir(dir_ / "a"), std::vector<std::string>{});
  EXPECT_EQ(Snapshot(dir_ / "b"),
            (std::map<std::string, std::string>{{"conf", "file 640 0:0 [line 1\nline 2\n]"}}));
}

TEST_F(TempFileTest, MoveToAcrossFileSystemsOntoExistingTargetFails) {
  ASSERT_TRUE(dir_.MountTmpfs("a"));
  ASSERT_TRUE(dir_.MountTmpfs("b"));
  const std::string target = dir_ / "b/conf";
  ASSERT_TRUE(WriteFile(target, "old\n", 0600));
  const auto before_b = Snapshot(dir_ / "b");
  LogCapture log;
  {
    sdk::TempFile tmp(dir_ / "a/conf");
    ASSERT_TRUE(tmp.valid_);
    tmp.WriteLine("new");
    EXPECT_EQ(tmp.MoveTo(target), -1);
    EXPECT_TRUE(Logged(log.Records(), {"Rename(by copying) failed while copying: " + tmp.path() +
                                       " -> " + target + " File exists"}));
    EXPECT_TRUE(PathExists(tmp.path()));
  }
  EXPECT_EQ(ListDir(dir_ / "a"), std::vector<std::string>{});  // removed by the destructor
  EXPECT_EQ(Snapshot(dir_ / "b"), before_b);
}

}  // namespace
}  // namespace velmora
