// Real file-system faults under the writers of the library: a file system
// that is full, one that is read-only, a directory that disappears between
// the steps of a rewrite, and a rename that crosses into a full file system.
// Every case checks the result, the bytes of the old file, the directory
// listing (no temporary file left behind) and the exact log lines.
//
// The settings files live at fixed paths; a small tmpfs is mounted over
// their directory in this runner's private mount namespace and taken away
// again after each test.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>
#include <vector>

#include <velmora/file.h>
#include <velmora/settings.h>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/settings_test_util.h"

namespace velmora {
namespace test {
namespace settings_test {
namespace {

constexpr char kUser1Dir[] = "/var/spool/mail/vt/1001/61001/.ORVOQB";
constexpr char kControlText[] = "poll pop.example.net proto pop3\nset daemon 300\n";

// Fills the file system that holds `dir` with the file `dir`/filler until
// the system reports ENOSPC. True when it did.
bool FillUp(const std::string& dir) {
  const std::string path = dir + "/filler";
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  const std::string block(4096, 'f');
  bool full = false;
  for (int k = 0; k < 1 << 16 && !full; ++k) {
    if (write(fd, block.data(), block.size()) < 0) full = errno == ENOSPC;
  }
  close(fd);
  struct statvfs fs {};
  return full && statvfs(dir.c_str(), &fs) == 0 && fs.f_bavail == 0;
}

class FsFaultTest : public testing::Test {
 protected:
  void SetUp() override {
    ResetSystemTree();
    ASSERT_TRUE(InstallBackendStandIn());
    ASSERT_TRUE(InstallFetchmailStandIn());
    ASSERT_TRUE(MakeDir(kUidListDir));
  }
  void TearDown() override {
    for (auto it = mounts_.rbegin(); it != mounts_.rend(); ++it) umount2(it->c_str(), MNT_DETACH);
    EXPECT_TRUE(NoChildLeft());
  }

  // Mounts a tmpfs of `size` over `dir` (created when missing).
  void MountSmall(const std::string& dir, const std::string& size = "64k") {
    ASSERT_TRUE(MakeDir(dir));
    ASSERT_TRUE(MountTmpfsOn(dir, size)) << dir;
    mounts_.push_back(dir);
  }

  std::vector<std::string> mounts_;
};

// ---- Full file system ------------------------------------------------------

TEST_F(FsFaultTest, ClientSwitchFileOnFullFileSystemStaysAsItWas) {
  MountSmall(kSettingsDir);
  const std::string before = "theme=dark\nenable_chat=no\n";
  ASSERT_TRUE(WriteFile(kClientConf, before, 0644));
  ASSERT_TRUE(FillUp(kSettingsDir));
  const auto listing = ListDir(kSettingsDir);
  LogCapture capture;
  EXPECT_FALSE(settings::SetVelmoraConfig(Defaults()));
  EXPECT_EQ(ReadFile(kClientConf), before);
  EXPECT_EQ(ListDir(kSettingsDir), listing);
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogAt(kErr, kKeyValueModule, "initialize temp file failed")));
  EXPECT_THAT(BackendCalls(), IsEmpty());
}

TEST_F(FsFaultTest, PopSwitchFileOnFullFileSystemStaysAsItWas) {
  MountSmall(kSettingsDir);
  ASSERT_TRUE(WriteOwned(kSwitchFile, "true\n5\n", kAccount, kAccount, 0644));
  ASSERT_TRUE(FillUp(kSettingsDir));
  const auto listing = ListDir(kSettingsDir);
  Pop3Control control("vt");
  LogCapture capture;
  EXPECT_FALSE(control.SetPOP3Config(GlobalPOP3Config{false, 10}));
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n5\n");
  EXPECT_EQ(ListDir(kSettingsDir), listing);
  // The lost line is reported by the result only: the temporary file's
  // write error makes MoveTo fail before any rename, and neither logs.
  EXPECT_THAT(capture.Records(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());
}

TEST_F(FsFaultTest, UidListRewriteOnFullFileSystemStaysAsItWas) {
  MountSmall(kUidListDir);
  ASSERT_TRUE(WriteOwned(kUidList, "61001\n61002\n", kAccount, kAccount, 0644));
  ASSERT_TRUE(FillUp(kUidListDir));
  const auto listing = ListDir(kUidListDir);
  Pop3Control control("vt");
  std::set<uint32_t> tracked = control.GetPOP3UidSet();
  LogCapture capture;
  EXPECT_FALSE(control.TrackStop({kUser1}, tracked));
  EXPECT_EQ(tracked, (std::set<uint32_t>{kUser2}));  // the stop itself worked
  EXPECT_EQ(ReadFile(kUidList), "61001\n61002\n");
  EXPECT_EQ(ListDir(kUidListDir), listing);
  EXPECT_THAT(capture.Records(), IsEmpty());
  EXPECT_THAT(FetchmailCalls(), ElementsAre(StopCall(control.UserFetchMailPath(kUser1), kUser1)));
  EXPECT_THAT(BackendCalls(), IsEmpty());
}

TEST_F(FsFaultTest, UidListAppendOnFullFileSystemFails) {
  MountSmall(kUidListDir);
  // A list that ends exactly at a block boundary: the appended line needs a
  // new block, which a full tmpfs refuses (a shorter list would still have
  // room in its last block).
  std::string list;
  while (list.size() < 4096 - 12) list += "61002\n";
  list += std::string(4096 - list.size() - 6, '0') + "61003\n";
  ASSERT_EQ(list.size(), 4096u);
  ASSERT_TRUE(WriteOwned(kUidList, list, kAccount, kAccount, 0644));
  ASSERT_TRUE(FillUp(kUidListDir));
  const auto listing = ListDir(kUidListDir);
  ASSERT_TRUE(MakeDir(kUser1Dir, kUser1, kUser1, 0700));
  ASSERT_TRUE(WriteOwned(kUser1Rc, kControlText, kUser1, kShared, 0600));
  Pop3Control control("vt");
  std::set<uint32_t> tracked = control.GetPOP3UidSet();
  ASSERT_EQ(tracked, (std::set<uint32_t>{kUser2, kUser3}));
  LogCapture capture;
  EXPECT_FALSE(control.TrackStart({kUser1}, tracked, 300));
  EXPECT_EQ(ReadFile(kUidList), list);
  EXPECT_EQ(ListDir(kUidListDir), listing);
  EXPECT_THAT(capture.Records(), IsEmpty());
  EXPECT_THAT(FetchmailCalls(),
              ElementsAre(StartCall(control.UserFetchMailPath(kUser1), kUser1, kShared)));
  // The uid counts as tracked and the list is handed on although the line
  // never reached it.
  EXPECT_EQ(tracked.count(kUser1), 1u);
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kUidList)));
}

TEST_F(FsFaultTest, FetchmailControlFileOnFullFileSystemStaysAsItWas) {
  MountSmall(kUser1Dir);
  ASSERT_TRUE(WriteOwned(kUser1Rc, kControlText, kUser1, kShared, 0600));
  ASSERT_TRUE(FillUp(kUser1Dir));
  const auto listing = ListDir(kUser1Dir);
  Pop3Control control("vt");
  LogCapture capture;
  EXPECT_FALSE(control.ModifyFetchmailrc(kUser1, 600));
  EXPECT_EQ(ReadFile(kUser1Rc), kControlText);
  EXPECT_EQ(Meta(kUser1Rc).uid, kUser1);
  EXPECT_EQ(Meta(kUser1Rc).mode, 0600u);
  EXPECT_EQ(ListDir(kUser1Dir), listing);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

// ---- Read-only file system -------------------------------------------------

TEST_F(FsFaultTest, PopSwitchFileOnReadOnlyFileSystemStaysAsItWas) {
  MountSmall(kSettingsDir);
  ASSERT_TRUE(WriteOwned(kSwitchFile, "false\n7\n", kAccount, kAccount, 0644));
  ASSERT_TRUE(RemountReadOnlyAt(kSettingsDir));
  Pop3Control control("vt");
  LogCapture capture;
  EXPECT_FALSE(control.SetPOP3Config(GlobalPOP3Config{true, 10}));
  EXPECT_EQ(ReadFile(kSwitchFile), "false\n7\n");
  EXPECT_THAT(ListDir(kSettingsDir), ElementsAre("vt_pop3.config"));
  EXPECT_THAT(capture.Records(), ElementsAre(Err("initialize temp file failed")));
  EXPECT_THAT(BackendCalls(), IsEmpty());
}

TEST_F(FsFaultTest, UidListRewriteOnReadOnlyFileSystemStopsNobody) {
  MountSmall(kUidListDir);
  ASSERT_TRUE(WriteOwned(kUidList, "61001\n", kAccount, kAccount, 0644));
  ASSERT_TRUE(RemountReadOnlyAt(kUidListDir));
  Pop3Control control("vt");
  std::set<uint32_t> tracked{kUser1};
  LogCapture capture;
  EXPECT_FALSE(control.TrackStop({kUser1}, tracked));
  EXPECT_EQ(tracked, (std::set<uint32_t>{kUser1}));
  EXPECT_EQ(ReadFile(kUidList), "61001\n");
  EXPECT_THAT(ListDir(kUidListDir), ElementsAre("vt_pop3_uid.config"));
  EXPECT_THAT(capture.Records(), ElementsAre(Err("initialize temp file failed")));
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());
}

TEST_F(FsFaultTest, UidListAppendOnReadOnlyFileSystemStartsNobody) {
  MountSmall(kUidListDir);
  ASSERT_TRUE(WriteOwned(kUidList, "61002\n", kAccount, kAccount, 0644));
  ASSERT_TRUE(RemountReadOnlyAt(kUidListDir));
  Pop3Control control("vt");
  std::set<uint32_t> tracked{kUser2};
  LogCapture capture;
  EXPECT_FALSE(control.TrackStart({kUser1}, tracked, 300));
  EXPECT_EQ(tracked, (std::set<uint32_t>{kUser2}));
  EXPECT_EQ(ReadFile(kUidList), "61002\n");
  EXPECT_THAT(capture.Records(), ElementsAre(Err("fail open pop3_uid.config file")));
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());
}

// ---- A directory removed midway ------------------------------------------

TEST_F(FsFaultTest, TempFileWhoseDirectoryWentAwayFailsMoveTo) {
  ScratchDir scratch;
  const std::string dir = scratch / "etc";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  const std::string target = dir + "/conf";
  LogCapture capture;
  std::string temp_path;
  {
    sdk::TempFile temp(target);
    ASSERT_TRUE(temp.valid_);
    temp_path = temp.path();
    temp.WriteLine("a=1");
    ASSERT_EQ(Shell("rm -rf '" + dir + "'"), 0);
    EXPECT_EQ(temp.MoveTo(target), -1);
    EXPECT_FALSE(temp.valid_);
  }
  EXPECT_FALSE(PathExists(dir));
  EXPECT_THAT(ListDir(scratch.path()), IsEmpty());
  EXPECT_THAT(capture.Records(), ElementsAre(LogAt(kErr, kFilesystemModule,
                                                   "Rename failed: " + temp_path + " -> " + target +
                                                       " No such file or directory")));
}

TEST_F(FsFaultTest, KeyValueFileWhoseDirectoryWentAwayFailsWrite) {
  ScratchDir scratch;
  const std::string dir = scratch / "etc";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  const std::string path = dir + "/a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n"));
  LogCapture capture;
  {
    sdk::FileKeyValue kv(path);
    ASSERT_TRUE(kv.ReadKeyValues(64, "="));
    ASSERT_TRUE(kv.Update("a", "2"));
    ASSERT_EQ(Shell("rm -rf '" + dir + "'"), 0);
    EXPECT_FALSE(kv.Write());
    EXPECT_EQ(kv.Get("a"), "2");  // kept for a retry
  }
  EXPECT_FALSE(PathExists(dir));
  EXPECT_THAT(capture.Records(), ElementsAre(LogAt(kErr, kKeyValueModule, "Stat file error")));
}

// ---- Renames across file systems into a full one -------------------------

TEST_F(FsFaultTest, RenameAcrossFileSystemsIntoAFullOneKeepsTheSource) {
  ScratchDir scratch;
  ASSERT_TRUE(scratch.MountTmpfs("a"));
  ASSERT_TRUE(scratch.MountTmpfs("b", "64k"));
  const std::string from = scratch / "a/data";
  const std::string to = scratch / "b/data";
  const std::string bytes(20000, 'd');
  ASSERT_TRUE(WriteFile(from, bytes, 0640));
  // Full but for one block: the copy starts and breaks off after 4 KiB.
  ASSERT_TRUE(WriteFile(scratch / "b/spare", std::string(4096, 's')));
  ASSERT_TRUE(FillUp(scratch / "b"));
  ASSERT_EQ(unlink((scratch / "b/spare").c_str()), 0);
  const auto listing = ListDir(scratch / "b");
  LogCapture capture;
  EXPECT_EQ(sdk::Rename(from, to), -1);
  EXPECT_EQ(ReadFile(from), bytes);
  EXPECT_EQ(ListDir(scratch / "b"), listing);  // no partial copy
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogAt(kErr, kFilesystemModule,
                                "Rename(by copying) failed while copying: " + from + " -> " + to +
                                    " No space left on device")));
}

TEST_F(FsFaultTest, TempFileMovedAcrossFileSystemsIntoAFullOneLeavesNothing) {
  ScratchDir scratch;
  ASSERT_TRUE(scratch.MountTmpfs("a"));
  ASSERT_TRUE(scratch.MountTmpfs("b", "64k"));
  const std::string target = scratch / "b/conf";
  // Full but for one block: the copy starts and breaks off after 4 KiB.
  ASSERT_TRUE(WriteFile(scratch / "b/spare", std::string(4096, 's')));
  ASSERT_TRUE(FillUp(scratch / "b"));
  ASSERT_EQ(unlink((scratch / "b/spare").c_str()), 0);
  const auto listing = ListDir(scratch / "b");
  LogCapture capture;
  std::string temp_path;
  {
    sdk::TempFile temp(scratch / "a/conf");
    ASSERT_TRUE(temp.valid_);
    temp_path = temp.path();
    for (int k = 0; k < 100; ++k) temp.WriteLine(std::string(199, 'x'));
    EXPECT_EQ(temp.MoveTo(target), -1);
  }
  EXPECT_THAT(ListDir(scratch / "a"), IsEmpty());
  EXPECT_EQ(ListDir(scratch / "b"), listing);
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogAt(kErr, kFilesystemModule,
                                "Rename(by copying) failed while copying: " + temp_path + " -> " +
                                    target + " No space left on device")));
}

}  // namespace
}  // namespace settings_test
}  // namespace test
}  // namespace velmora
