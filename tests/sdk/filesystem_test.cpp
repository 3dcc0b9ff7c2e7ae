// Path splitting, queries, copies, renames and removals of the file toolkit,
// checked against real files: the result, the exact log lines and what is
// left on disk (bytes, owner, group, mode and the directory listings).
// Cross-device cases use two tmpfs mounts; permission cases use a read-only
// mount or a child that runs as vtuser1.

#include <errno.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>
#include <boost/core/demangle.hpp>
#include <boost/system/system_error.hpp>

#include <velmora/file.h>

#include "support/log_capture.h"
#include "support/test_util.h"

namespace velmora {
namespace {

using namespace test;  // NOLINT(build/namespaces)

constexpr int kErrPriority = 139;  // LOG_LOCAL1 | LOG_ERR
constexpr char kModule[] = "src/lib/sdk/filesystem";

// Exactly `messages`, in order, each one line at local1.err from the
// file-system module; nothing else.
const test::ModuleLog Logged{kErrPriority, kModule};

// Bytes that differ from position to position and span several copy buffers.
std::string Pattern(size_t size) {
  std::string s(size, '\0');
  uint32_t x = 12345;
  for (char& c : s) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 24);
  }
  return s;
}

std::string LinkText(const std::string& path) {
  char buf[4096];
  ssize_t n = readlink(path.c_str(), buf, sizeof buf);
  return n < 0 ? std::string() : std::string(buf, static_cast<size_t>(n));
}

bool IsLink(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

bool IsFile(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

class FilesystemTest : public ::testing::Test {
 protected:
  void SetUp() override {
    old_umask_ = umask(022);
    ASSERT_FALSE(dir_.path().empty());
    uid1_ = test::UidOf("vtuser1");
    gid1_ = test::GidOf("vtuser1");
    ASSERT_NE(uid1_, static_cast<uid_t>(-1));
  }
  void TearDown() override { umask(old_umask_); }

  // Two separate tmpfs mounts, "a" and "b", inside the scratch directory.
  void MountTwoFileSystems() {
    ASSERT_TRUE(dir_.MountTmpfs("a"));
    ASSERT_TRUE(dir_.MountTmpfs("b"));
    struct stat sa, sb;
    ASSERT_EQ(stat((dir_ / "a").c_str(), &sa), 0);
    ASSERT_EQ(stat((dir_ / "b").c_str(), &sb), 0);
    ASSERT_NE(sa.st_dev, sb.st_dev);
  }

  ScratchDir dir_;
  mode_t old_umask_ = 0;
  uid_t uid1_ = 0;
  gid_t gid1_ = 0;
};

// ---- Path splitting ----

TEST_F(FilesystemTest, FileNameIsLastComponentWithoutLeadingSlashes) {
  LogCapture log;
  EXPECT_EQ(sdk::FileName("/a/b"), "b");
  EXPECT_EQ(sdk::FileName("/a/b/"), ".");
  EXPECT_EQ(sdk::FileName("/"), "/");
  EXPECT_EQ(sdk::FileName("a"), "a");
  EXPECT_EQ(sdk::FileName("/a/b.tar.gz"), "b.tar.gz");
  EXPECT_EQ(sdk::FileName(""), "");
  // "//host" is one root name whose leading slashes go; slashes alone stay.
  EXPECT_EQ(sdk::FileName("//host"), "host");
  EXPECT_EQ(sdk::FileName("//"), "//");
  EXPECT_TRUE(Logged(log.Records(), {}));
}

TEST_F(FilesystemTest, LeadingDotStartsAnExtension) {
  LogCapture log;
  EXPECT_EQ(sdk::FileExtension("dir.d/file"), "");
  EXPECT_EQ(sdk::FileStem("dir.d/file"), "file");
  EXPECT_EQ(sdk::FileExtension(".profile"), "profile");
  EXPECT_EQ(sdk::FileStem(".profile"), "");
  EXPECT_EQ(sdk::FileExtension("/x/a.tar.gz"), "gz");
  EXPECT_EQ(sdk::FileStem("/x/a.tar.gz"), "a.tar");
  EXPECT_EQ(sdk::FileExtension("a"), "");
  EXPECT_EQ(sdk::FileStem("a"), "a");
  EXPECT_EQ(sdk::FileExtension("a."), "");
  EXPECT_EQ(sdk::FileStem("a."), "a");
  // "." and ".." have no extension.
  EXPECT_EQ(sdk::FileStem("/x/."), ".");
  EXPECT_EQ(sdk::FileExtension("/x/."), "");
  EXPECT_EQ(sdk::FileStem("/x/.."), "..");
  EXPECT_EQ(sdk::FileExtension("/x/.."), "");
  EXPECT_TRUE(Logged(log.Records(), {}));
}

TEST_F(FilesystemTest, FileParentFolderDropsLastComponent) {
  LogCapture log;
  EXPECT_EQ(sdk::FileParentFolder("/a"), "/");
  EXPECT_EQ(sdk::FileParentFolder("a"), "");
  EXPECT_EQ(sdk::FileParentFolder("/a/b"), "/a");
  EXPECT_EQ(sdk::FileParentFolder("/a/b/"), "/a/b");
  EXPECT_EQ(sdk::FileParentFolder("a/b"), "a");
  EXPECT_EQ(sdk::FileParentFolder("/"), "");
  EXPECT_TRUE(Logged(log.Records(), {}));
}

TEST_F(FilesystemTest, PathSplittingNeverTouchesTheDisk) {
  // A path below a regular file cannot even be looked at; splitting it still
  // works and logs nothing.
  ASSERT_TRUE(WriteFile(dir_ / "f", "x"));
  const std::string p = dir_ / "f/sub/name.ext";
  LogCapture log;
  EXPECT_EQ(sdk::FileName(p), "name.ext");
  EXPECT_EQ(sdk::FileStem(p), "name");
  EXPECT_EQ(sdk::FileExtension(p), "ext");
  EXPECT_EQ(sdk::FileParentFolder(p), dir_ / "f/sub");
  EXPECT_TRUE(Logged(log.Records(), {}));
}

// ---- RealPath ----

TEST_F(FilesystemTest, RealPathResolvesLinksAndDots) {
  ASSERT_EQ(mkdir((dir_ / "real").c_str(), 0755), 0);
  ASSERT_EQ(mkdir((dir_ / "real/sub").c_str(), 0755), 0);
  ASSERT_EQ(symlink("real", (dir_ / "ln").c_str()), 0);
  char* base = realpath(dir_.path().c_str(), nullptr);
  ASSERT_NE(base, nullptr);
  const std::string expected = std::string(base) + "/real/sub";
  free(base);
  LogCapture log;
  EXPECT_EQ(sdk::RealPath(dir_ / "ln/sub/../sub/."), expected);
  EXPECT_EQ(sdk::RealPath(dir_ / "ln//sub/"), expected);
  EXPECT_TRUE(Logged(log.Records(), {}));
}

TEST_F(FilesystemTest, RealPathOfRelativePathStartsAtCurrentDirectory) {
  char* cwd = getcwd(nullptr, 0);
  ASSERT_NE(cwd, nullptr);
  const std::string old_cwd = cwd;
  free(cwd);
  ASSERT_EQ(mkdir((dir_ / "here").c_str(), 0755), 0);
  ASSERT_EQ(chdir((dir_ / "here").c_str()), 0);
  char* base = realpath(dir_.path().c_str(), nullptr);
  ASSERT_NE(base, nullptr);
  const std::string expected = std::string(base) + "/here";
  free(base);
  LogCapture log;
  std::string real = sdk::RealPath(".");
  std::string up = sdk::RealPath("../here/.");
  ASSERT_EQ(chdir(old_cwd.c_str()), 0);
  EXPECT_EQ(real, expected);
  EXPECT_EQ(up, expected);
  EXPECT_TRUE(Logged(log.Records(), {}));
}

TEST_F(FilesystemTest, RealPathOfMissingPathLogsAndIsEmpty) {
  const std::string missing = dir_ / "missing/x";
  ASSERT_EQ(symlink("nowhere", (dir_ / "dangling").c_str()), 0);
  LogCapture log;
  EXPECT_EQ(sdk::RealPath(missing), "");
  EXPECT_EQ(sdk::RealPath(dir_ / "dangling"), "");
  EXPECT_TRUE(
      Logged(log.Records(),
             {"Can't resolve real path: " + missing + " No such file or directory",
              "Can't resolve real path: " + (dir_ / "dangling") + " No such file or directory"}));
}

// ---- MkDir ----

TEST_F(FilesystemTest, MkDirCreatesEveryMissingLevel) {
  const std::string deep = dir_ / "a/b/c";
  LogCapture log;
  EXPECT_EQ(sdk::MkDir(deep), 0);
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(Snapshot(dir_.path()), (std::map<std::string, std::string>{
                                       {"a", "dir 755 0:0"},
                                       {"a/b", "dir 755 0:0"},
                                       {"a/b/c", "dir 755 0:0"},
                                   }));
}

TEST_F(FilesystemTest, MkDirOfExistingDirectoryReturnsZero) {
  ASSERT_EQ(mkdir((dir_ / "d").c_str(), 0700), 0);
  ASSERT_TRUE(WriteFile(dir_ / "d/keep", "kept"));
  const auto before = Snapshot(dir_.path());
  LogCapture log;
  EXPECT_EQ(sdk::MkDir(dir_ / "d"), 0);
  EXPECT_EQ(sdk::MkDir(dir_.path()), 0);
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(Snapshot(dir_.path()), before);
}

TEST_F(FilesystemTest, MkDirUnderRegularFileFails) {
  ASSERT_TRUE(WriteFile(dir_ / "file", "plain\n", 0640));
  const auto before = Snapshot(dir_.path());
  const std::string one = dir_ / "file/sub";
  const std::string two = dir_ / "file/sub/deeper";
  LogCapture log;
  EXPECT_EQ(sdk::MkDir(one), -1);
  EXPECT_EQ(sdk::MkDir(two), -1);
  EXPECT_TRUE(Logged(log.Records(), {"MkDir failed: " + one + " Not a directory",
                                     "MkDir failed: " + two + " Not a directory"}));
  EXPECT_EQ(Snapshot(dir_.path()), before);
}

TEST_F(FilesystemTest, MkDirInReadOnlyMountFails) {
  ASSERT_TRUE(dir_.MountTmpfs("ro"));
  ASSERT_TRUE(dir_.RemountReadOnly("ro"));
  const std::string p = dir_ / "ro/new";
  LogCapture log;
  EXPECT_EQ(sdk::MkDir(p), -1);
  EXPECT_TRUE(Logged(log.Records(), {"MkDir failed: " + p + " Read-only file system"}));
  EXPECT_EQ(ListDir(dir_ / "ro"), std::vector<std::string>{});
}

// ---- FileSize ----

TEST_F(FilesystemTest, FileSizeCountsBytesFollowingLinks) {
  ASSERT_TRUE(WriteFile(dir_ / "empty", ""));
  ASSERT_TRUE(WriteFile(dir_ / "big", Pattern(200001)));
  ASSERT_EQ(symlink("big", (dir_ / "ln").c_str()), 0);
  LogCapture log;
  EXPECT_EQ(sdk::FileSize(dir_ / "empty"), 0u);
  EXPECT_EQ(sdk::FileSize(dir_ / "big"), 200001u);
  EXPECT_EQ(sdk::FileSize(dir_ / "ln"), 200001u);
  EXPECT_TRUE(Logged(log.Records(), {}));
}

TEST_F(FilesystemTest, FileSizeOfDirectoryOrMissingFileIsAllBitsSet) {
  ASSERT_EQ(mkdir((dir_ / "d").c_str(), 0755), 0);
  const std::string missing = dir_ / "missing";
  LogCapture log;
  EXPECT_EQ(sdk::FileSize(dir_ / "d"), UINT64_MAX);
  EXPECT_EQ(sdk::FileSize(missing), UINT64_MAX);
  EXPECT_EQ(sdk::FileSize(missing), static_cast<uint64_t>(-1));
  EXPECT_TRUE(
      Logged(log.Records(), {"Get FileSize failed: " + (dir_ / "d") + " Operation not permitted",
                             "Get FileSize failed: " + missing + " No such file or directory",
                             "Get FileSize failed: " + missing + " No such file or directory"}));
}

// ---- RemoveAll ----

TEST_F(FilesystemTest, RemoveAllRemovesTreeWithoutFollowingLinks) {
  ASSERT_EQ(mkdir((dir_ / "keep").c_str(), 0755), 0);
  ASSERT_TRUE(WriteFile(dir_ / "keep/outside", "stays"));
  ASSERT_EQ(sdk::MkDir(dir_ / "t/a/b"), 0);
  ASSERT_TRUE(WriteFile(dir_ / "t/a/b/f", "x"));
  ASSERT_TRUE(WriteFile(dir_ / "t/.hidden", "y"));
  ASSERT_EQ(symlink((dir_ / "keep").c_str(), (dir_ / "t/link").c_str()), 0);
  LogCapture log;
  EXPECT_EQ(sdk::RemoveAll(dir_ / "t"), 0);
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(Snapshot(dir_.path()), (std::map<std::string, std::string>{
                                       {"keep", "dir 755 0:0"},
                                       {"keep/outside", "file 644 0:0 [stays]"},
                                   }));
}

TEST_F(FilesystemTest, RemoveAllOfMissingPathSucceedsSilently) {
  ASSERT_TRUE(WriteFile(dir_ / "other", "o"));
  const auto before = Snapshot(dir_.path());
  LogCapture log;
  EXPECT_EQ(sdk::RemoveAll(dir_ / "missing"), 0);
  EXPECT_EQ(sdk::RemoveAll(dir_ / "missing/deeper"), 0);
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(Snapshot(dir_.path()), before);
}

TEST_F(FilesystemTest, RemoveAllInReadOnlyMountFails) {
  ASSERT_TRUE(dir_.MountTmpfs("ro"));
  ASSERT_EQ(mkdir((dir_ / "ro/t").c_str(), 0755), 0);
  ASSERT_TRUE(WriteFile(dir_ / "ro/t/f", "data", 0600));
  ASSERT_TRUE(dir_.RemountReadOnly("ro"));
  const auto before = Snapshot(dir_ / "ro");
  LogCapture log;
  EXPECT_EQ(sdk::RemoveAll(dir_ / "ro/t"), -1);
  EXPECT_TRUE(
      Logged(log.Records(), {"RemoveAll failed: " + (dir_ / "ro/t") + " Read-only file system"}));
  EXPECT_EQ(Snapshot(dir_ / "ro"), before);
}

// ---- Exist, IsDirectory, IsRegularFile ----

TEST_F(FilesystemTest, QueriesFollowLinksAndTellTypesApart) {
  ASSERT_TRUE(WriteFile(dir_ / "file", "f"));
  ASSERT_EQ(mkdir((dir_ / "dir").c_str(), 0755), 0);
  ASSERT_EQ(mkfifo((dir_ / "fifo").c_str(), 0644), 0);
  ASSERT_EQ(symlink("file", (dir_ / "to_file").c_str()), 0);
  ASSERT_EQ(symlink("dir", (dir_ / "to_dir").c_str()), 0);
  ASSERT_EQ(symlink("nowhere", (dir_ / "dangling").c_str()), 0);
  int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(s, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  const std::string sock = dir_ / "sock";
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", sock.c_str());
  ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  close(s);

  LogCapture log;
  struct Case {
    std::string path;
    bool exist, dir, regular;
  };
  const std::vector<Case> cases = {
      {dir_ / "file", true, false, true},      {dir_ / "dir", true, true, false},
      {dir_ / "fifo", true, false, false},     {sock, true, false, false},
      {"/dev/null", true, false, false},       {dir_ / "to_file", true, false, true},
      {dir_ / "to_dir", true, true, false},    {dir_ / "dangling", false, false, false},
      {dir_ / "missing", false, false, false}, {dir_ / "missing/x", false, false, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(sdk::Exist(c.path), c.exist) << c.path;
    EXPECT_EQ(sdk::IsDirectory(c.path), c.dir) << c.path;
    EXPECT_EQ(sdk::IsRegularFile(c.path), c.regular) << c.path;
  }
  EXPECT_TRUE(Logged(log.Records(), {}));
}

TEST_F(FilesystemTest, QueryBelowRegularFileLogsStatusFailure) {
  ASSERT_TRUE(WriteFile(dir_ / "file", "f"));
  const std::string p = dir_ / "file/x";
  const std::string msg = "Get FileSystem Status failed: " + p + " Not a directory";
  LogCapture log;
  EXPECT_FALSE(sdk::Exist(p));
  EXPECT_FALSE(sdk::IsDirectory(p));
  EXPECT_FALSE(sdk::IsRegularFile(p));
  EXPECT_TRUE(Logged(log.Records(), {msg, msg, msg}));
}

TEST_F(FilesystemTest, QueryBehindUnsearchableDirectoryLogsStatusFailure) {
  ASSERT_EQ(mkdir((dir_ / "closed").c_str(), 0700), 0);
  ASSERT_TRUE(WriteFile(dir_ / "closed/f", "f"));
  const std::string p = dir_ / "closed/f";
  LogCapture log;
  int rc = RunAs("vtuser1", [&] {
    bool exist = sdk::Exist(p);
    bool dir = sdk::IsDirectory(p);
    bool reg = sdk::IsRegularFile(p);
    return (exist ? 1 : 0) | (dir ? 2 : 0) | (reg ? 4 : 0);
  });
  EXPECT_EQ(rc, 0);
  const std::string msg = "Get FileSystem Status failed: " + p + " Permission denied";
  EXPECT_TRUE(Logged(log.Records(), {msg, msg, msg}));
}

// ---- EnumDirectory ----

TEST_F(FilesystemTest, EnumDirectoryListsFirstLevelWithFullPaths) {
  ASSERT_TRUE(WriteFile(dir_ / "a", "1"));
  ASSERT_TRUE(WriteFile(dir_ / ".hidden", "2"));
  ASSERT_EQ(mkdir((dir_ / "sub").c_str(), 0755), 0);
  ASSERT_TRUE(WriteFile(dir_ / "sub/inner", "3"));
  ASSERT_EQ(symlink("nowhere", (dir_ / "dangling").c_str()), 0);
  LogCapture log;
  std::vector<std::string> got = sdk::EnumDirectory(dir_.path());
  EXPECT_TRUE(Logged(log.Records(), {}));
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (std::vector<std::string>{dir_ / ".hidden", dir_ / "a", dir_ / "dangling",
                                           dir_ / "sub"}));
}

TEST_F(FilesystemTest, EnumDirectoryKeepsOrderOfTheSystem) {
  for (int i = 0; i < 50; ++i) ASSERT_TRUE(WriteFile(dir_ / ("f" + std::to_string(i)), ""));
  std::vector<std::string> expected;
  DIR* d = opendir(dir_.path().c_str());
  ASSERT_NE(d, nullptr);
  while (struct dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n != "." && n != "..") expected.push_back(dir_ / n);
  }
  closedir(d);
  EXPECT_EQ(sdk::EnumDirectory(dir_.path()), expected);
}

TEST_F(FilesystemTest, EnumDirectoryOfFileEmptyOrMissingDirectoryIsEmpty) {
  ASSERT_TRUE(WriteFile(dir_ / "file", "f"));
  ASSERT_EQ(mkdir((dir_ / "empty").c_str(), 0755), 0);
  LogCapture log;
  EXPECT_EQ(sdk::EnumDirectory(dir_ / "file"), std::vector<std::string>{});
  EXPECT_EQ(sdk::EnumDirectory(dir_ / "empty"), std::vector<std::string>{});
  EXPECT_EQ(sdk::EnumDirectory(dir_ / "missing"), std::vector<std::string>{});
  EXPECT_TRUE(Logged(log.Records(), {}));
}

// Exit codes of the children below.
constexpr int kThrewAccessDenied = 0;
constexpr int kDidNotThrow = 1;
constexpr int kThrewSomethingElse = 2;

TEST_F(FilesystemTest, EnumDirectoryWithoutReadPermissionThrows) {
  ASSERT_EQ(mkdir((dir_ / "private").c_str(), 0700), 0);
  ASSERT_TRUE(WriteFile(dir_ / "private/f", "f"));
  const std::string p = dir_ / "private";
  LogCapture log;
  int rc = RunAs("vtuser1", [&] {
    try {
      sdk::EnumDirectory(p);
      return kDidNotThrow;
    } catch (const boost::system::system_error& e) {
      const bool fs_error =
          boost::core::demangle(typeid(e).name()) == "boost::filesystem::filesystem_error";
      return fs_error && e.code().value() == EACCES ? kThrewAccessDenied : kThrewSomethingElse;
    } catch (...) {
      return kThrewSomethingElse;
    }
  });
  EXPECT_EQ(rc, kThrewAccessDenied);
  EXPECT_TRUE(Logged(log.Records(), {}));

  // The same child reads the directory once it may.
  ASSERT_EQ(chmod(p.c_str(), 0755), 0);
  rc = RunAs("vtuser1", [&] {
    try {
      return sdk::EnumDirectory(p) == std::vector<std::string>{p + "/f"} ? 0 : 1;
    } catch (...) {
      return kThrewSomethingElse;
    }
  });
  EXPECT_EQ(rc, 0);
}

// ---- Copy and CopyFile ----

TEST_F(FilesystemTest, CopyFileCopiesBytesAndMode) {
  const std::string data = Pattern(150000);
  ASSERT_TRUE(WriteFile(dir_ / "src", data, 0640));
  LogCapture log;
  EXPECT_EQ(sdk::CopyFile(dir_ / "src", dir_ / "dst"), 0);
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(ReadFile(dir_ / "dst"), data);
  EXPECT_EQ(ReadFile(dir_ / "src"), data);
  EXPECT_EQ(Meta(dir_ / "dst").mode, 0640u);
  EXPECT_EQ(ListDir(dir_.path()), (std::vector<std::string>{"dst", "src"}));
}

TEST_F(FilesystemTest, CopyFileOntoExistingFileFailsAndKeepsTarget) {
  ASSERT_TRUE(WriteFile(dir_ / "src", "new bytes\n", 0644));
  ASSERT_TRUE(WriteFile(dir_ / "dst", "old target\n", 0600));
  ASSERT_EQ(chown((dir_ / "dst").c_str(), uid1_, gid1_), 0);
  const auto before = Snapshot(dir_.path());
  LogCapture log;
  EXPECT_EQ(sdk::CopyFile(dir_ / "src", dir_ / "dst"), -1);
  EXPECT_TRUE(Logged(log.Records(), {"Failed to CopyFile: " + (dir_ / "src") + " -> " +
                                     (dir_ / "dst") + " File exists"}));
  EXPECT_EQ(Snapshot(dir_.path()), before);
}

TEST_F(FilesystemTest, CopyFileOfMissingSourceFails) {
  const std::string from = dir_ / "missing";
  const std::string to = dir_ / "dst";
  LogCapture log;
  EXPECT_EQ(sdk::CopyFile(from, to), -1);
  EXPECT_TRUE(Logged(log.Records(),
                     {"Failed to CopyFile: " + from + " -> " + to + " No such file or directory"}));
  EXPECT_EQ(ListDir(dir_.path()), std::vector<std::string>{});
}

TEST_F(FilesystemTest, CopyFileWorksAcrossFileSystems) {
  MountTwoFileSystems();
  const std::string data = Pattern(300000);
  ASSERT_TRUE(WriteFile(dir_ / "a/src", data, 0640));
  ASSERT_TRUE(WriteFile(dir_ / "a/empty", "", 0600));
  LogCapture log;
  EXPECT_EQ(sdk::CopyFile(dir_ / "a/src", dir_ / "b/dst"), 0);
  EXPECT_EQ(sdk::CopyFile(dir_ / "a/empty", dir_ / "b/empty"), 0);
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(ReadFile(dir_ / "b/dst"), data);
  EXPECT_EQ(Meta(dir_ / "b/dst").mode, 0640u);
  EXPECT_TRUE(IsFile(dir_ / "b/empty"));
  EXPECT_EQ(ReadFile(dir_ / "b/empty"), "");
  EXPECT_EQ(Meta(dir_ / "b/empty").mode, 0600u);
  EXPECT_EQ(ListDir(dir_ / "a"), (std::vector<std::string>{"empty", "src"}));
  EXPECT_EQ(ListDir(dir_ / "b"), (std::vector<std::string>{"dst", "empty"}));
}

TEST_F(FilesystemTest, CopyFileAcrossFileSystemsOntoExistingFileFails) {
  MountTwoFileSystems();
  ASSERT_TRUE(WriteFile(dir_ / "a/src", "new\n"));
  ASSERT_TRUE(WriteFile(dir_ / "b/dst", "old\n", 0600));
  const auto before_a = Snapshot(dir_ / "a");
  const auto before_b = Snapshot(dir_ / "b");
  LogCapture log;
  EXPECT_EQ(sdk::CopyFile(dir_ / "a/src", dir_ / "b/dst"), -1);
  EXPECT_TRUE(Logged(log.Records(), {"Failed to CopyFile: " + (dir_ / "a/src") + " -> " +
                                     (dir_ / "b/dst") + " File exists"}));
  EXPECT_EQ(Snapshot(dir_ / "a"), before_a);
  EXPECT_EQ(Snapshot(dir_ / "b"), before_b);
}

TEST_F(FilesystemTest, CopyFileIntoFullFileSystemLeavesNoPartialCopy) {
  ASSERT_TRUE(dir_.MountTmpfs("small", "64k"));
  ASSERT_TRUE(WriteFile(dir_ / "big", Pattern(256 * 1024)));
  const std::string to = dir_ / "small/big";
  LogCapture log;
  EXPECT_EQ(sdk::CopyFile(dir_ / "big", to), -1);
  EXPECT_TRUE(Logged(log.Records(), {"Failed to CopyFile: " + (dir_ / "big") + " -> " + to +
                                     " No space left on device"}));
  EXPECT_EQ(ListDir(dir_ / "small"), std::vector<std::string>{});
}

TEST_F(FilesystemTest, CopyCopiesRegularFileAlsoAcrossFileSystems) {
  MountTwoFileSystems();
  const std::string data = Pattern(100000);
  ASSERT_TRUE(WriteFile(dir_ / "a/src", data, 0604));
  LogCapture log;
  EXPECT_EQ(sdk::Copy(dir_ / "a/src", dir_ / "a/same"), 0);
  EXPECT_EQ(sdk::Copy(dir_ / "a/src", dir_ / "b/other"), 0);
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(ReadFile(dir_ / "a/same"), data);
  EXPECT_EQ(ReadFile(dir_ / "b/other"), data);
  EXPECT_EQ(Meta(dir_ / "a/same").mode, 0604u);
  EXPECT_EQ(Meta(dir_ / "b/other").mode, 0604u);
  EXPECT_EQ(ListDir(dir_ / "a"), (std::vector<std::string>{"same", "src"}));
  EXPECT_EQ(ListDir(dir_ / "b"), std::vector<std::string>{"other"});
}

TEST_F(FilesystemTest, CopyOfSymbolicLinkCopiesTheLink) {
  MountTwoFileSystems();
  ASSERT_TRUE(WriteFile(dir_ / "a/target", "target bytes"));
  ASSERT_EQ(symlink("target", (dir_ / "a/link").c_str()), 0);
  ASSERT_EQ(symlink("/nowhere/at/all", (dir_ / "a/dangling").c_str()), 0);
  LogCapture log;
  EXPECT_EQ(sdk::Copy(dir_ / "a/link", dir_ / "a/link2"), 0);
  EXPECT_EQ(sdk::Copy(dir_ / "a/link", dir_ / "b/link3"), 0);
  EXPECT_EQ(sdk::Copy(dir_ / "a/dangling", dir_ / "b/dangling"), 0);
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_TRUE(IsLink(dir_ / "a/link2"));
  EXPECT_EQ(LinkText(dir_ / "a/link2"), "target");
  EXPECT_TRUE(IsLink(dir_ / "b/link3"));
  EXPECT_EQ(LinkText(dir_ / "b/link3"), "target");
  EXPECT_TRUE(IsLink(dir_ / "b/dangling"));
  EXPECT_EQ(LinkText(dir_ / "b/dangling"), "/nowhere/at/all");
  // The target itself was not copied anywhere.
  EXPECT_EQ(ListDir(dir_ / "a"), (std::vector<std::string>{"dangling", "link", "link2", "target"}));
  EXPECT_EQ(ListDir(dir_ / "b"), (std::vector<std::string>{"dangling", "link3"}));
}

TEST_F(FilesystemTest, CopyOfDirectoryCreatesItEmpty) {
  MountTwoFileSystems();
  ASSERT_EQ(mkdir((dir_ / "a/d").c_str(), 0750), 0);
  ASSERT_EQ(chmod((dir_ / "a/d").c_str(), 0750), 0);
  ASSERT_TRUE(WriteFile(dir_ / "a/d/f", "inside"));
  ASSERT_EQ(mkdir((dir_ / "a/d/sub").c_str(), 0755), 0);
  const auto before_a = Snapshot(dir_ / "a");
  LogCapture log;
  EXPECT_EQ(sdk::Copy(dir_ / "a/d", dir_ / "a/same"), 0);
  EXPECT_EQ(sdk::Copy(dir_ / "a/d", dir_ / "b/other"), 0);
  EXPECT_TRUE(Logged(log.Records(), {}));
  auto expected_a = before_a;
  expected_a["same"] = "dir 750 0:0";
  EXPECT_EQ(Snapshot(dir_ / "a"), expected_a);
  EXPECT_EQ(Snapshot(dir_ / "b"), (std::map<std::string, std::string>{{"other", "dir 750 0:0"}}));
}

TEST_F(FilesystemTest, CopyOfMissingSourceFails) {
  const std::string from = dir_ / "missing";
  const std::string to = dir_ / "dst";
  LogCapture log;
  EXPECT_EQ(sdk::Copy(from, to), -1);
  EXPECT_TRUE(Logged(log.Records(),
                     {"Failed to Copy: " + from + " -> " + to + " No such file or directory"}));
  EXPECT_EQ(ListDir(dir_.path()), std::vector<std::string>{});
}

TEST_F(FilesystemTest, CopyOntoExistingTargetFailsAndKeepsIt) {
  ASSERT_TRUE(WriteFile(dir_ / "src", "new\n"));
  ASSERT_TRUE(WriteFile(dir_ / "dst", "old\n", 0600));
  ASSERT_EQ(mkdir((dir_ / "dir").c_str(), 0755), 0);
  const auto before = Snapshot(dir_.path());
  LogCapture log;
  EXPECT_EQ(sdk::Copy(dir_ / "src", dir_ / "dst"), -1);
  EXPECT_EQ(sdk::Copy(dir_ / "dir", dir_ / "dst"), -1);
  EXPECT_TRUE(
      Logged(log.Records(),
             {"Failed to Copy: " + (dir_ / "src") + " -> " + (dir_ / "dst") + " File exists",
              "Failed to Copy: " + (dir_ / "dir") + " -> " + (dir_ / "dst") + " File exists"}));
  EXPECT_EQ(Snapshot(dir_.path()), before);
}

// ---- Rename ----

TEST_F(FilesystemTest, RenameReplacesExistingFileOnSameFileSystem) {
  ASSERT_TRUE(WriteFile(dir_ / "src", "new content\n", 0640));
  ASSERT_EQ(chown((dir_ / "src").c_str(), uid1_, gid1_), 0);
  ASSERT_TRUE(WriteFile(dir_ / "dst", "old content that is longer\n", 0600));
  struct stat st;
  ASSERT_EQ(stat((dir_ / "src").c_str(), &st), 0);
  LogCapture log;
  EXPECT_EQ(sdk::Rename(dir_ / "src", dir_ / "dst"), 0);
  EXPECT_TRUE(Logged(log.Records(), {}));
  const std::string owner = std::to_string(uid1_) + ":" + std::to_string(gid1_);
  EXPECT_EQ(Snapshot(dir_.path()), (std::map<std::string, std::string>{
                                       {"dst", "file 640 " + owner + " [new content\n]"},
                                   }));
  struct stat moved;
  ASSERT_EQ(stat((dir_ / "dst").c_str(), &moved), 0);
  EXPECT_EQ(moved.st_ino, st.st_ino);  // the same file, not a copy
}

TEST_F(FilesystemTest, RenameOfMissingSourceFails) {
  ASSERT_TRUE(WriteFile(dir_ / "dst", "kept"));
  const auto before = Snapshot(dir_.path());
  const std::string from = dir_ / "missing";
  LogCapture log;
  EXPECT_EQ(sdk::Rename(from, dir_ / "dst"), -1);
  EXPECT_TRUE(Logged(log.Records(), {"Rename failed: " + from + " -> " + (dir_ / "dst") +
                                     " No such file or directory"}));
  EXPECT_EQ(Snapshot(dir_.path()), before);
}

TEST_F(FilesystemTest, RenameWithinReadOnlyMountFails) {
  ASSERT_TRUE(dir_.MountTmpfs("ro"));
  ASSERT_TRUE(WriteFile(dir_ / "ro/src", "source\n"));
  ASSERT_TRUE(WriteFile(dir_ / "ro/dst", "target\n"));
  ASSERT_TRUE(dir_.RemountReadOnly("ro"));
  const auto before = Snapshot(dir_ / "ro");
  LogCapture log;
  EXPECT_EQ(sdk::Rename(dir_ / "ro/src", dir_ / "ro/dst"), -1);
  EXPECT_EQ(sdk::Rename(dir_ / "ro/src", dir_ / "ro/new"), -1);
  EXPECT_TRUE(Logged(log.Records(), {"Rename failed: " + (dir_ / "ro/src") + " -> " +
                                         (dir_ / "ro/dst") + " Read-only file system",
                                     "Rename failed: " + (dir_ / "ro/src") + " -> " +
                                         (dir_ / "ro/new") + " Read-only file system"}));
  EXPECT_EQ(Snapshot(dir_ / "ro"), before);
}

TEST_F(FilesystemTest, RenameMovesFileAcrossFileSystems) {
  MountTwoFileSystems();
  const std::string data = Pattern(200000);
  ASSERT_TRUE(WriteFile(dir_ / "a/src", data, 0640));
  ASSERT_TRUE(WriteFile(dir_ / "a/other", "stays"));
  LogCapture log;
  EXPECT_EQ(sdk::Rename(dir_ / "a/src", dir_ / "b/dst"), 0);
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_FALSE(PathExists(dir_ / "a/src"));
  EXPECT_EQ(ListDir(dir_ / "a"), std::vector<std::string>{"other"});
  EXPECT_EQ(ListDir(dir_ / "b"), std::vector<std::string>{"dst"});
  EXPECT_EQ(ReadFile(dir_ / "b/dst"), data);
  EXPECT_EQ(Meta(dir_ / "b/dst").mode, 0640u);
}

TEST_F(FilesystemTest, RenameAcrossFileSystemsOntoExistingFileFails) {
  MountTwoFileSystems();
  ASSERT_TRUE(WriteFile(dir_ / "a/src", "source bytes\n", 0644));
  ASSERT_TRUE(WriteFile(dir_ / "b/dst", "target bytes\n", 0600));
  ASSERT_EQ(chown((dir_ / "b/dst").c_str(), uid1_, gid1_), 0);
  const auto before_a = Snapshot(dir_ / "a");
  const auto before_b = Snapshot(dir_ / "b");
  LogCapture log;
  EXPECT_EQ(sdk::Rename(dir_ / "a/src", dir_ / "b/dst"), -1);
  // One line: the copy inside the fallback does not log a copy message of its own.
  EXPECT_TRUE(
      Logged(log.Records(), {"Rename(by copying) failed while copying: " + (dir_ / "a/src") +
                             " -> " + (dir_ / "b/dst") + " File exists"}));
  EXPECT_EQ(Snapshot(dir_ / "a"), before_a);
  EXPECT_EQ(Snapshot(dir_ / "b"), before_b);
}

TEST_F(FilesystemTest, RenameMovesDirectoryAcrossFileSystemsAsEmptyDirectory) {
  MountTwoFileSystems();
  ASSERT_EQ(mkdir((dir_ / "a/d").c_str(), 0750), 0);
  ASSERT_EQ(chmod((dir_ / "a/d").c_str(), 0750), 0);
  ASSERT_TRUE(WriteFile(dir_ / "a/d/f", "inside"));
  ASSERT_EQ(sdk::MkDir(dir_ / "a/d/sub/deeper"), 0);
  ASSERT_TRUE(WriteFile(dir_ / "a/d/sub/deeper/g", "deep"));
  LogCapture log;
  EXPECT_EQ(sdk::Rename(dir_ / "a/d", dir_ / "b/d"), 0);
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(Snapshot(dir_ / "a"), (std::map<std::string, std::string>{}));
  EXPECT_EQ(Snapshot(dir_ / "b"), (std::map<std::string, std::string>{{"d", "dir 750 0:0"}}));
}

TEST_F(FilesystemTest, RenameIntoReadOnlyMountFromAnotherFileSystemFailsWhileCopying) {
  MountTwoFileSystems();
  ASSERT_TRUE(WriteFile(dir_ / "a/src", "source\n"));
  ASSERT_TRUE(dir_.RemountReadOnly("b"));
  const auto before_a = Snapshot(dir_ / "a");
  LogCapture log;
  EXPECT_EQ(sdk::Rename(dir_ / "a/src", dir_ / "b/dst"), -1);
  EXPECT_TRUE(
      Logged(log.Records(), {"Rename(by copying) failed while copying: " + (dir_ / "a/src") +
                             " -> " + (dir_ / "b/dst") + " Read-only file system"}));
  EXPECT_EQ(Snapshot(dir_ / "a"), before_a);
  EXPECT_EQ(ListDir(dir_ / "b"), std::vector<std::string>{});
}

TEST_F(FilesystemTest, RenameAcrossFileSystemsKeepsCopyWhenSourceIsReadOnly) {
  MountTwoFileSystems();
  ASSERT_TRUE(WriteFile(dir_ / "a/src", "source bytes\n", 0640));
  ASSERT_TRUE(dir_.RemountReadOnly("a"));
  const auto before_a = Snapshot(dir_ / "a");
  LogCapture log;
  EXPECT_EQ(sdk::Rename(dir_ / "a/src", dir_ / "b/dst"), -1);
  EXPECT_TRUE(
      Logged(log.Records(), {"Rename(by copying) failed while deleting: " + (dir_ / "a/src") +
                             " -> " + (dir_ / "b/dst") + " Read-only file system"}));
  EXPECT_EQ(Snapshot(dir_ / "a"), before_a);
  EXPECT_EQ(Snapshot(dir_ / "b"),
            (std::map<std::string, std::string>{{"dst", "file 640 0:0 [source bytes\n]"}}));
}

TEST_F(FilesystemTest, RenameAcrossFileSystemsKeepsCopyWhenSourceParentIsNotWritable) {
  MountTwoFileSystems();
  // vtuser1 owns the file and the target directory, but not the directory
  // that holds the source, so it can copy the file but not remove it.
  ASSERT_EQ(mkdir((dir_ / "a/locked").c_str(), 0755), 0);
  ASSERT_TRUE(WriteFile(dir_ / "a/locked/f", "user data\n", 0640));
  ASSERT_EQ(chown((dir_ / "a/locked/f").c_str(), uid1_, gid1_), 0);
  ASSERT_EQ(mkdir((dir_ / "b/mine").c_str(), 0755), 0);
  ASSERT_EQ(chown((dir_ / "b/mine").c_str(), uid1_, gid1_), 0);
  const auto before_a = Snapshot(dir_ / "a");
  const std::string from = dir_ / "a/locked/f";
  const std::string to = dir_ / "b/mine/f";
  LogCapture log;
  EXPECT_EQ(RunAs("vtuser1", [&] { return sdk::Rename(from, to) == -1 ? 0 : 1; }), 0);
  EXPECT_TRUE(Logged(log.Records(), {"Rename(by copying) failed while deleting: " + from + " -> " +
                                     to + " Permission denied"}));
  EXPECT_EQ(Snapshot(dir_ / "a"), before_a);
  const std::string owner = std::to_string(uid1_) + ":" + std::to_string(gid1_);
  EXPECT_EQ(Snapshot(dir_ / "b"), (std::map<std::string, std::string>{
                                      {"mine", "dir 755 " + owner},
                                      {"mine/f", "file 640 " + owner + " [user data\n]"},
                                  }));
}

TEST_F(FilesystemTest, RenameOfDirectoryAcrossFileSystemsKeepsCopyWhenSourceCannotGo) {
  MountTwoFileSystems();
  // The source directory belongs to vtuser1, its parent does not: its
  // contents can be removed, the directory itself cannot.
  ASSERT_EQ(mkdir((dir_ / "a/locked").c_str(), 0755), 0);
  ASSERT_EQ(mkdir((dir_ / "a/locked/d").c_str(), 0755), 0);
  ASSERT_TRUE(WriteFile(dir_ / "a/locked/d/f", "x"));
  ASSERT_EQ(chown((dir_ / "a/locked/d").c_str(), uid1_, gid1_), 0);
  ASSERT_EQ(chown((dir_ / "a/locked/d/f").c_str(), uid1_, gid1_), 0);
  ASSERT_EQ(mkdir((dir_ / "b/mine").c_str(), 0755), 0);
  ASSERT_EQ(chown((dir_ / "b/mine").c_str(), uid1_, gid1_), 0);
  const std::string from = dir_ / "a/locked/d";
  const std::string to = dir_ / "b/mine/d";
  LogCapture log;
  EXPECT_EQ(RunAs("vtuser1", [&] { return sdk::Rename(from, to) == -1 ? 0 : 1; }), 0);
  EXPECT_TRUE(Logged(log.Records(), {"Rename(by copying) failed while deleting: " + from + " -> " +
                                     to + " Permission denied"}));
  const std::string owner = std::to_string(uid1_) + ":" + std::to_string(gid1_);
  // Removal goes depth first: what lay below the source is gone, the source
  // directory stays, and the empty copy is in place.
  EXPECT_EQ(Snapshot(dir_ / "a"), (std::map<std::string, std::string>{
                                      {"locked", "dir 755 0:0"},
                                      {"locked/d", "dir 755 " + owner},
                                  }));
  EXPECT_EQ(Snapshot(dir_ / "b"), (std::map<std::string, std::string>{
                                      {"mine", "dir 755 " + owner},
                                      {"mine/d", "dir 755 " + owner},
                                  }));
}

// ---- TouchFile, CanAccess, Unlink ----

TEST_F(FilesystemTest, TouchFileCreatesMissingFile) {
  LogCapture log;
  EXPECT_EQ(sdk::TouchFile(dir_ / "new"), 0);
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(Snapshot(dir_.path()),
            (std::map<std::string, std::string>{{"new", "file 644 0:0 []"}}));
}

TEST_F(FilesystemTest, TouchFileUpdatesTimesOfExistingFile) {
  ASSERT_TRUE(WriteFile(dir_ / "f", "content\n", 0600));
  struct timespec old_times[2] = {{1000000000, 0}, {1000000000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (dir_ / "f").c_str(), old_times, 0), 0);
  const auto before = Snapshot(dir_.path());
  LogCapture log;
  EXPECT_EQ(sdk::TouchFile(dir_ / "f"), 0);
  EXPECT_TRUE(Logged(log.Records(), {}));
  struct stat st;
  ASSERT_EQ(stat((dir_ / "f").c_str(), &st), 0);
  EXPECT_GT(st.st_mtim.tv_sec, 1000000000);
  EXPECT_GT(st.st_atim.tv_sec, 1000000000);
  EXPECT_EQ(Snapshot(dir_.path()), before);
}

TEST_F(FilesystemTest, TouchFileInMissingDirectoryFails) {
  LogCapture log;
  EXPECT_EQ(sdk::TouchFile(dir_ / "missing/f"), -1);
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(ListDir(dir_.path()), std::vector<std::string>{});
}

TEST_F(FilesystemTest, CanAccessTellsWhetherTheCallerMayRead) {
  ASSERT_TRUE(WriteFile(dir_ / "secret", "s", 0600));
  ASSERT_TRUE(WriteFile(dir_ / "public", "p", 0644));
  const std::string secret = dir_ / "secret";
  const std::string pub = dir_ / "public";
  const std::string missing = dir_ / "missing";
  LogCapture log;
  EXPECT_TRUE(sdk::CanAccess(secret));
  EXPECT_TRUE(sdk::CanAccess(pub));
  EXPECT_FALSE(sdk::CanAccess(missing));
  int rc = RunAs("vtuser1", [&] {
    return (sdk::CanAccess(secret) ? 1 : 0) | (sdk::CanAccess(pub) ? 0 : 2) |
           (sdk::CanAccess(missing) ? 4 : 0);
  });
  EXPECT_EQ(rc, 0);
  EXPECT_TRUE(Logged(log.Records(), {}));
}

TEST_F(FilesystemTest, UnlinkRemovesNameOrFailsWithErrno) {
  ASSERT_TRUE(WriteFile(dir_ / "f", "x"));
  ASSERT_TRUE(WriteFile(dir_ / "keep", "k"));
  ASSERT_EQ(mkdir((dir_ / "d").c_str(), 0755), 0);
  LogCapture log;
  EXPECT_EQ(sdk::Unlink(dir_ / "f"), 0);
  errno = 0;
  EXPECT_EQ(sdk::Unlink(dir_ / "f"), -1);
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_EQ(sdk::Unlink(dir_ / "d"), -1);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_TRUE(Logged(log.Records(), {}));
  EXPECT_EQ(ListDir(dir_.path()), (std::vector<std::string>{"d", "keep"}));
}

TEST_F(FilesystemTest, CopyOfMissingSourceFailsAndCreatesNothing) {
  const std::string from = dir_ / "missing";
  const std::string to = dir_ / "copy";
  LogCapture log;
  EXPECT_EQ(sdk::Copy(from, to), -1);
  EXPECT_FALSE(PathExists(to));
  EXPECT_TRUE(Logged(log.Records(),
                     {"Failed to Copy: " + from + " -> " + to + " No such file or directory"}));
}

// Only regular files, directories and symbolic links are copied.
TEST_F(FilesystemTest, CopyOfAFifoIsRefusedAndCreatesNothing) {
  const std::string from = dir_ / "fifo";
  const std::string to = dir_ / "copy";
  ASSERT_EQ(mkfifo(from.c_str(), 0644), 0);
  LogCapture log;
  EXPECT_EQ(sdk::Copy(from, to), -1);
  EXPECT_FALSE(PathExists(to));
  EXPECT_TRUE(Logged(log.Records(),
                     {"Failed to Copy: " + from + " -> " + to + " Function not implemented"}));
}

}  // namespace
}  // namespace velmora
