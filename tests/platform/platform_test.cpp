// Tests of the portable platform layer: the ordered string table, the
// key-value file reader and writer, touch, the user database and the two
// process helpers.
#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "platform/orvo_platform.h"
#include "support/scratch_test.h"
#include "support/test_util.h"

namespace velmora {
namespace test {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

// Every pair of `table` in its iteration order.
Pairs Entries(const OLIBC_SZHASH* table) {
  Pairs pairs;
  const size_t count = OLIBCSzHashCount(table);
  for (size_t i = 0; i < count; ++i) {
    const char* key = nullptr;
    const char* value = nullptr;
    if (OLIBCSzHashGetAt(table, i, &key, &value) != 0) break;
    pairs.emplace_back(key, value);
  }
  return pairs;
}

// A table that frees itself.
class Table {
 public:
  Table() : table_(OLIBCSzHashAlloc(16)) {}
  ~Table() { OLIBCSzHashFree(table_); }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  OLIBC_SZHASH* get() const { return table_; }
  OLIBC_SZHASH** address() { return &table_; }
  int Set(const std::string& key, const std::string& value) {
    return OLIBCSzHashSetValue(&table_, key.c_str(), value.c_str());
  }
  const char* Get(const std::string& key) const { return OLIBCSzHashGetValue(table_, key.c_str()); }

 private:
  OLIBC_SZHASH* table_;
};

// The pairs that the reader takes from a file holding `content`.
Pairs ReadPairs(const ScratchDir& dir, const std::string& content, int* result = nullptr) {
  const std::string path = dir / "read.conf";
  WriteFile(path, content);
  Table table;
  int rc = OLIBCFileGetKeys(path.c_str(), 0, table.address(), "=");
  if (result != nullptr) *result = rc;
  return Entries(table.get());
}

struct ProcStat {
  pid_t pid;
  char state;
  pid_t ppid;
};

// pid, state and parent of every process visible in /proc.
std::vector<ProcStat> Processes() {
  std::vector<ProcStat> all;
  for (const std::string& name : ListDir("/proc")) {
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string stat = ReadFile("/proc/" + name + "/stat");
    size_t close_paren = stat.rfind(')');
    if (close_paren == std::string::npos) continue;
    std::istringstream rest(stat.substr(close_paren + 1));
    ProcStat p{static_cast<pid_t>(std::stol(name)), '?', 0};
    rest >> p.state >> p.ppid;
    all.push_back(p);
  }
  return all;
}

class PlatformTest : public ScratchDirTest {};

// ---- String table ----

TEST_F(PlatformTest, TableKeepsInsertionOrder) {
  Table table;
  ASSERT_NE(table.get(), nullptr);
  EXPECT_EQ(OLIBCSzHashCount(table.get()), 0u);
  ASSERT_EQ(table.Set("zulu", "1"), 0);
  ASSERT_EQ(table.Set("alpha", "2"), 0);
  ASSERT_EQ(table.Set("mike", "3"), 0);
  EXPECT_THAT(Entries(table.get()),
              ElementsAre(Pair("zulu", "1"), Pair("alpha", "2"), Pair("mike", "3")));
  EXPECT_STREQ(table.Get("alpha"), "2");
  const char* key = nullptr;
  const char* value = nullptr;
  EXPECT_LT(OLIBCSzHashGetAt(table.get(), 3, &key, &value), 0);
}

TEST_F(PlatformTest, SetOnExistingKeyReplacesValueInPlace) {
  Table table;
  ASSERT_EQ(table.Set("a", "1"), 0);
  ASSERT_EQ(table.Set("b", "2"), 0);
  ASSERT_EQ(table.Set("c", "3"), 0);
  ASSERT_EQ(table.Set("a", "one"), 0);
  ASSERT_EQ(table.Set("b", ""), 0);
  EXPECT_EQ(OLIBCSzHashCount(table.get()), 3u);
  EXPECT_THAT(Entries(table.get()), ElementsAre(Pair("a", "one"), Pair("b", ""), Pair("c", "3")));
}

TEST_F(PlatformTest, TableStoresCopies) {
  Table table;
  std::string key = "key";
  std::string value = "value";
  ASSERT_EQ(table.Set(key, value), 0);
  key[0] = 'X';
  value[0] = 'X';
  EXPECT_STREQ(table.Get("key"), "value");
  EXPECT_EQ(table.Get("Xey"), nullptr);
}

TEST_F(PlatformTest, MissingKeyOrTableGivesNull) {
  Table table;
  ASSERT_EQ(table.Set("a", "1"), 0);
  EXPECT_EQ(table.Get("b"), nullptr);
  EXPECT_EQ(table.Get(""), nullptr);
  EXPECT_EQ(OLIBCSzHashGetValue(nullptr, "a"), nullptr);
  EXPECT_EQ(OLIBCSzHashCount(nullptr), 0u);
}

TEST_F(PlatformTest, SetValueAllocatesMissingTable) {
  OLIBC_SZHASH* table = nullptr;
  ASSERT_EQ(OLIBCSzHashSetValue(&table, "a", "1"), 0);
  ASSERT_NE(table, nullptr);
  EXPECT_THAT(Entries(table), ElementsAre(Pair("a", "1")));
  OLIBCSzHashFree(table);
  OLIBCSzHashFree(nullptr);
}

TEST_F(PlatformTest, RemoveAllEmptiesTableAndKeepsItUsable) {
  Table table;
  ASSERT_EQ(table.Set("a", "1"), 0);
  ASSERT_EQ(table.Set("b", "2"), 0);
  OLIBC_SZHASH* const before = table.get();
  EXPECT_EQ(OLIBCHashRemoveAll(table.get()), 0);
  EXPECT_EQ(table.get(), before);
  EXPECT_EQ(OLIBCSzHashCount(table.get()), 0u);
  EXPECT_EQ(table.Get("a"), nullptr);
  ASSERT_EQ(table.Set("b", "3"), 0);
  ASSERT_EQ(table.Set("a", "4"), 0);
  EXPECT_THAT(Entries(table.get()), ElementsAre(Pair("b", "3"), Pair("a", "4")));
  EXPECT_LT(OLIBCHashRemoveAll(nullptr), 0);
}

// ---- Key-value file reader and writer ----

TEST_F(PlatformTest, ReaderSplitsAtFirstSeparator) {
  int rc = -1;
  EXPECT_THAT(ReadPairs(dir_, "url=http://h/?a=b\nkey=\n=x\n", &rc),
              ElementsAre(Pair("url", "http://h/?a=b"), Pair("key", ""), Pair("", "x")));
  EXPECT_EQ(rc, 0);
}

TEST_F(PlatformTest, ReaderKeepsBytesAroundSeparator) {
  EXPECT_THAT(ReadPairs(dir_, " a = b \n\tc=\td\t\n"),
              ElementsAre(Pair(" a ", " b "), Pair("\tc", "\td\t")));
}

TEST_F(PlatformTest, ReaderKeepsFirstPlaceAndLastValueOfRepeatedKey) {
  EXPECT_THAT(ReadPairs(dir_, "a=1\nb=2\na=3\nc=4\na=5\n"),
              ElementsAre(Pair("a", "5"), Pair("b", "2"), Pair("c", "4")));
}

TEST_F(PlatformTest, ReaderRemovesOnePairOfQuotes) {
  EXPECT_THAT(
      ReadPairs(dir_,
                "a=\"two words\"\n"
                "b=\"\"\n"
                "c=\"\"x\"\"\n"
                "d=\"open\n"
                "e=close\"\n"
                "f=\"\n"
                "g=in\"side\n"),
      ElementsAre(Pair("a", "two words"), Pair("b", ""), Pair("c", "\"x\""), Pair("d", "\"open"),
                  Pair("e", "close\""), Pair("f", "\""), Pair("g", "in\"side")));
}

TEST_F(PlatformTest, ReaderDropsTrailingCarriageReturn) {
  EXPECT_THAT(ReadPairs(dir_, "a=1\r\nb=\"q\"\r\nc=x\ry\nd=last"),
              ElementsAre(Pair("a", "1"), Pair("b", "q"), Pair("c", "x\ry"), Pair("d", "last")));
}

TEST_F(PlatformTest, ReaderSkipsBlankCommentAndSeparatorlessLines) {
  EXPECT_THAT(ReadPairs(dir_,
                        "\n"
                        "# a=comment\n"
                        "#\n"
                        "a=1\n"
                        "\r\n"
                        "no separator here\n"
                        "b=2#not a comment\n"),
              ElementsAre(Pair("a", "1"), Pair("b", "2#not a comment")));
}

TEST_F(PlatformTest, ReaderOfEmptyFileSucceedsWithNothing) {
  int rc = -1;
  EXPECT_THAT(ReadPairs(dir_, "", &rc), IsEmpty());
  EXPECT_EQ(rc, 0);
}

TEST_F(PlatformTest, ReaderAllocatesMissingTable) {
  const std::string path = dir_ / "a.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n"));
  OLIBC_SZHASH* table = nullptr;
  ASSERT_EQ(OLIBCFileGetKeys(path.c_str(), 0, &table, "="), 0);
  ASSERT_NE(table, nullptr);
  EXPECT_THAT(Entries(table), ElementsAre(Pair("a", "1")));
  OLIBCSzHashFree(table);
}

TEST_F(PlatformTest, ReaderOfMissingFileFails) {
  Table table;
  const std::string path = dir_ / "missing.conf";
  EXPECT_LT(OLIBCFileGetKeys(path.c_str(), 0, table.address(), "="), 0);
  EXPECT_EQ(OLIBCSzHashCount(table.get()), 0u);
  EXPECT_FALSE(PathExists(path));
}

TEST_F(PlatformTest, ReaderOfDirectoryFails) {
  Table table;
  EXPECT_LT(OLIBCFileGetKeys(dir_.path().c_str(), 0, table.address(), "="), 0);
}

TEST_F(PlatformTest, ReaderOfUnreadableFileFails) {
  const std::string path = dir_ / "secret.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n", 0600));
  int status = RunAs("vtuser1", [&] {
    OLIBC_SZHASH* table = OLIBCSzHashAlloc(16);
    if (table == nullptr) return 10;
    int rc = OLIBCFileGetKeys(path.c_str(), 0, &table, "=");
    size_t count = OLIBCSzHashCount(table);
    OLIBCSzHashFree(table);
    if (count != 0) return 2;
    return rc < 0 ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ReadFile(path), "a=1\n");
}

TEST_F(PlatformTest, WriterWritesPairsInTableOrder) {
  const std::string path = dir_ / "out.conf";
  ASSERT_TRUE(WriteFile(path, "a much longer old content that must go away\nx=y\n"));
  Table table;
  ASSERT_EQ(table.Set("b", "2"), 0);
  ASSERT_EQ(table.Set("a", "two words"), 0);
  ASSERT_EQ(table.Set("url", "h?x=y"), 0);
  ASSERT_EQ(table.Set("empty", ""), 0);
  ASSERT_EQ(table.Set("b", "3"), 0);
  EXPECT_EQ(OLIBCFileSetKeys(path.c_str(), table.get(), 0, 0), 0);
  EXPECT_EQ(ReadFile(path), "b=3\na=two words\nurl=h?x=y\nempty=\n");
}

TEST_F(PlatformTest, WriterOutputReadsBackTheSame) {
  const std::string path = dir_ / "out.conf";
  Table table;
  ASSERT_EQ(table.Set("k1", "v=1"), 0);
  ASSERT_EQ(table.Set("k2", " spaced "), 0);
  ASSERT_EQ(OLIBCFileSetKeys(path.c_str(), table.get(), 0, 0), 0);
  Table again;
  ASSERT_EQ(OLIBCFileGetKeys(path.c_str(), 0, again.address(), "="), 0);
  EXPECT_EQ(Entries(again.get()), Entries(table.get()));
}

TEST_F(PlatformTest, WriterOfEmptyTableTruncates) {
  const std::string path = dir_ / "out.conf";
  ASSERT_TRUE(WriteFile(path, "a=1\n", 0640));
  Table table;
  EXPECT_EQ(OLIBCFileSetKeys(path.c_str(), table.get(), 0, 0), 0);
  EXPECT_EQ(ReadFile(path), "");
  EXPECT_EQ(Meta(path).mode, 0640u);
}

TEST_F(PlatformTest, WriterCreatesMissingFile) {
  const std::string path = dir_ / "new.conf";
  Table table;
  ASSERT_EQ(table.Set("a", "1"), 0);
  EXPECT_EQ(OLIBCFileSetKeys(path.c_str(), table.get(), 0, 0), 0);
  EXPECT_EQ(ReadFile(path), "a=1\n");
}

TEST_F(PlatformTest, WriterIntoMissingDirectoryFails) {
  const std::string path = dir_ / "missing/out.conf";
  Table table;
  ASSERT_EQ(table.Set("a", "1"), 0);
  EXPECT_LT(OLIBCFileSetKeys(path.c_str(), table.get(), 0, 0), 0);
  EXPECT_FALSE(PathExists(dir_ / "missing"));
}

TEST_F(PlatformTest, WriterOnFullFileSystemFails) {
  ASSERT_TRUE(dir_.MountTmpfs("small", "64k"));
  const std::string path = dir_ / "small/out.conf";
  Table table;
  ASSERT_EQ(table.Set("big", std::string(128 * 1024, 'v')), 0);
  EXPECT_LT(OLIBCFileSetKeys(path.c_str(), table.get(), 0, 0), 0);
}

// ---- Touch ----

TEST_F(PlatformTest, TouchCreatesMissingFileWithModeFromUmask) {
  const std::string path = dir_ / "touched";
  ASSERT_EQ(OLIBCFileTouch(path.c_str()), 0);
  EXPECT_EQ(ReadFile(path), "");
  EXPECT_EQ(Meta(path).mode, 0644u);
  umask(077);
  const std::string other = dir_ / "private";
  ASSERT_EQ(OLIBCFileTouch(other.c_str()), 0);
  EXPECT_EQ(Meta(other).mode, 0600u);
  umask(0);
  const std::string open = dir_ / "open";
  ASSERT_EQ(OLIBCFileTouch(open.c_str()), 0);
  EXPECT_EQ(Meta(open).mode, 0644u);
}

TEST_F(PlatformTest, TouchUpdatesTimesAndKeepsContents) {
  const std::string path = dir_ / "touched";
  ASSERT_TRUE(WriteFile(path, "keep\n", 0600));
  const timeval old_times[2] = {{946684800, 0}, {946684800, 0}};  // 2000-01-01
  ASSERT_EQ(utimes(path.c_str(), old_times), 0);
  const time_t before = time(nullptr);
  ASSERT_EQ(OLIBCFileTouch(path.c_str()), 0);
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_GE(st.st_mtime, before - 1);
  EXPECT_GE(st.st_atime, before - 1);
  EXPECT_EQ(ReadFile(path), "keep\n");
  EXPECT_EQ(Meta(path).mode, 0600u);
}

TEST_F(PlatformTest, TouchInMissingDirectoryFails) {
  const std::string path = dir_ / "missing/touched";
  EXPECT_LT(OLIBCFileTouch(path.c_str()), 0);
  EXPECT_FALSE(PathExists(dir_ / "missing"));
}

// ---- User database ----

TEST_F(PlatformTest, UserGetFindsPackageAccount) {
  ORVOUSER* user = nullptr;
  ASSERT_EQ(ORVOUserGet("Velmora-Server", &user), 0);
  ASSERT_NE(user, nullptr);
  EXPECT_STREQ(user->szName, "Velmora-Server");
  EXPECT_EQ(user->uid, 61000u);
  EXPECT_EQ(user->gid, 61000u);
  const passwd* pw = getpwnam("Velmora-Server");
  ASSERT_NE(pw, nullptr);
  EXPECT_STREQ(user->szHome, pw->pw_dir);
  EXPECT_STREQ(user->szShell, pw->pw_shell);
  ORVOUserFree(user);
}

TEST_F(PlatformTest, UserGetFindsTestUser) {
  ORVOUSER* user = nullptr;
  ASSERT_EQ(ORVOUserGet("vtuser1", &user), 0);
  ASSERT_NE(user, nullptr);
  EXPECT_STREQ(user->szName, "vtuser1");
  EXPECT_EQ(user->uid, 61001u);
  EXPECT_EQ(user->gid, 61001u);
  ORVOUserFree(user);
}

TEST_F(PlatformTest, UserGetByUidFindsUsers) {
  ORVOUSER* user = nullptr;
  ASSERT_EQ(ORVOUserGetByUID(61001, &user), 0);
  ASSERT_NE(user, nullptr);
  EXPECT_STREQ(user->szName, "vtuser1");
  EXPECT_EQ(user->uid, 61001u);
  EXPECT_EQ(user->gid, 61001u);
  ORVOUserFree(user);
  user = nullptr;
  ASSERT_EQ(ORVOUserGetByUID(61000, &user), 0);
  ASSERT_NE(user, nullptr);
  EXPECT_STREQ(user->szName, "Velmora-Server");
  EXPECT_EQ(user->gid, 61000u);
  ORVOUserFree(user);
  ORVOUserFree(nullptr);
}

TEST_F(PlatformTest, UnknownUserIsNotFound) {
  ORVOUSER* user = nullptr;
  EXPECT_LT(ORVOUserGet("no-such-user", &user), 0);
  EXPECT_EQ(user, nullptr);
  ASSERT_EQ(getpwuid(61999), nullptr);
  EXPECT_LT(ORVOUserGetByUID(61999, &user), 0);
  EXPECT_EQ(user, nullptr);
  EXPECT_LT(ORVOUserGetByUID(0xFFFFFFFFu, &user), 0);
  EXPECT_EQ(user, nullptr);
}

TEST_F(PlatformTest, RealNameIsPasswdName) {
  char buf[64];
  std::memset(buf, 'x', sizeof(buf));
  ASSERT_EQ(OLIBUserRealNameGet("vtuser1", buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "vtuser1");
  ASSERT_EQ(OLIBUserRealNameGet("Velmora-Server", buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "Velmora-Server");
}

TEST_F(PlatformTest, RealNameNeedsRoomForTerminator) {
  char buf[16];
  EXPECT_EQ(OLIBUserRealNameGet("Velmora-Server", buf, 15), 0);  // 14 bytes and NUL
  EXPECT_STREQ(buf, "Velmora-Server");
  EXPECT_LT(OLIBUserRealNameGet("Velmora-Server", buf, 14), 0);
  EXPECT_LT(OLIBUserRealNameGet("vtuser1", buf, 7), 0);
  EXPECT_EQ(OLIBUserRealNameGet("vtuser1", buf, 8), 0);
  EXPECT_STREQ(buf, "vtuser1");
}

TEST_F(PlatformTest, RealNameOfUnknownUserFails) {
  char buf[64];
  EXPECT_LT(OLIBUserRealNameGet("no-such-user", buf, sizeof(buf)), 0);
}

// ---- Running programs ----

TEST_F(PlatformTest, ExeclPassesExactArguments) {
  const std::string out = dir_ / "argv";
  // The shell copies its own command line, argv[0] included.
  const std::string script = "cat /proc/$$/cmdline > '" + out + "'; exit 0";
  ASSERT_EQ(OLIBCExecl("/bin/sh", 0, "-c", script.c_str(), "zero", "a b", "", "c*", "$HOME",
                       static_cast<char*>(nullptr)),
            0);
  const std::string expected = std::string("/bin/sh") + '\0' + "-c" + '\0' + script + '\0' +
                               "zero" + '\0' + "a b" + '\0' + '\0' + "c*" + '\0' + "$HOME" + '\0';
  EXPECT_EQ(ReadFile(out), expected);
}

TEST_F(PlatformTest, ExeclWithoutArgumentsPassesOnlyPath) {
  const std::string out = dir_ / "argv";
  const std::string script = dir_ / "record.sh";
  ASSERT_TRUE(WriteFile(script, "#!/bin/sh\necho \"$#\" > '" + out + "'\n", 0755));
  ASSERT_EQ(OLIBCExecl(script.c_str(), 0, static_cast<char*>(nullptr)), 0);
  EXPECT_EQ(ReadFile(out), "0\n");
}

TEST_F(PlatformTest, ExeclWaitsForProgram) {
  const std::string out = dir_ / "done";
  const std::string script = "sleep 0.3; echo done > '" + out + "'";
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(OLIBCExecl("/bin/sh", 0, "-c", script.c_str(), static_cast<char*>(nullptr)), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
  EXPECT_EQ(ReadFile(out), "done\n");
  errno = 0;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(PlatformTest, ExeclReturnsTheExitStatus) {
  EXPECT_EQ(OLIBCExecl("/bin/sh", 0, "-c", "exit 0", static_cast<char*>(nullptr)), 0);
  EXPECT_EQ(OLIBCExecl("/bin/sh", 0, "-c", "exit 1", static_cast<char*>(nullptr)), 1);
  EXPECT_EQ(OLIBCExecl("/bin/sh", 0, "-c", "exit 3", static_cast<char*>(nullptr)), 3);
  EXPECT_EQ(OLIBCExecl("/bin/sh", 0, "-c", "exit 6", static_cast<char*>(nullptr)), 6);
  EXPECT_EQ(OLIBCExecl("/bin/sh", 0, "-c", "exit 128", static_cast<char*>(nullptr)), 128);
  EXPECT_EQ(OLIBCExecl("/bin/sh", 0, "-c", "exit 255", static_cast<char*>(nullptr)), 255);
  // Only the low eight bits of a status survive the exit.
  EXPECT_EQ(OLIBCExecl("/bin/sh", 0, "-c", "exit 257", static_cast<char*>(nullptr)), 1);
  EXPECT_EQ(OLIBCExecl("/bin/false", 0, static_cast<char*>(nullptr)), 1);
  EXPECT_EQ(OLIBCExecl("/bin/true", 0, static_cast<char*>(nullptr)), 0);
}

TEST_F(PlatformTest, ExeclReportsDeathBySignal) {
  const int killed = OLIBCExecl("/bin/sh", 0, "-c", "kill -KILL $$", static_cast<char*>(nullptr));
  EXPECT_LT(killed, 0);
  EXPECT_EQ(killed, -2);
  EXPECT_EQ(OLIBCExecl("/bin/sh", 0, "-c", "kill -TERM $$", static_cast<char*>(nullptr)), -2);
  // A signal number is not mistaken for an exit status.
  EXPECT_EQ(OLIBCExecl("/bin/sh", 0, "-c", "kill -HUP $$", static_cast<char*>(nullptr)), -2);
  errno = 0;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(PlatformTest, ExeclOfMissingOrNonExecutableProgramFails) {
  const std::string missing = dir_ / "no-such-program";
  const int rc = OLIBCExecl(missing.c_str(), 0, static_cast<char*>(nullptr));
  EXPECT_LT(rc, 0);
  EXPECT_EQ(rc, -1);
  const std::string plain = dir_ / "plain";
  ASSERT_TRUE(WriteFile(plain, "#!/bin/sh\nexit 0\n", 0644));
  EXPECT_EQ(OLIBCExecl(plain.c_str(), 0, static_cast<char*>(nullptr)), -1);
  // A directory is no program either.
  EXPECT_EQ(OLIBCExecl(dir_.path().c_str(), 0, static_cast<char*>(nullptr)), -1);
  EXPECT_EQ(OLIBCExecl(nullptr, 0, static_cast<char*>(nullptr)), -1);
  errno = 0;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(PlatformTest, ExeclThatCannotWaitFails) {
  // With SA_NOCLDWAIT the system reaps the program itself, so the wait
  // finds no child to report on: the program ran, its status is lost.
  const std::string out = dir_ / "ran";
  const std::string script = "echo ran > '" + out + "'; exit 0";
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    action.sa_flags = SA_NOCLDWAIT;
    sigemptyset(&action.sa_mask);
    if (sigaction(SIGCHLD, &action, nullptr) != 0) _exit(64);
    const int rc = OLIBCExecl("/bin/sh", 0, "-c", script.c_str(), static_cast<char*>(nullptr));
    _exit(rc == -1 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(ReadFile(out), "ran\n");
}

TEST_F(PlatformTest, ForkChildNoWaitLeavesNoZombie) {
  const std::string out = dir_ / "child";
  const pid_t parent = getpid();
  const int pid = OLIBCProcForkChildNoWait();
  if (pid == 0) {
    // The child: record who it is, then leave without touching the test.
    const std::string text = std::to_string(getpid()) + " " + std::to_string(getppid()) + "\n";
    const std::string temp = out + ".tmp";
    WriteFile(temp, text);
    rename(temp.c_str(), out.c_str());
    _exit(0);
  }
  ASSERT_GT(pid, 0);
  ASSERT_NE(pid, parent);

  std::string text;
  for (int i = 0; i < 500 && text.empty(); ++i) {
    text = ReadFile(out);
    if (text.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_FALSE(text.empty()) << "the child never ran";
  std::istringstream fields(text);
  pid_t child_pid = 0;
  pid_t child_parent = 0;
  fields >> child_pid >> child_parent;
  EXPECT_EQ(child_pid, pid);
  EXPECT_NE(child_parent, parent);

  // Nothing is left for this process to reap, now or once the child is gone.
  errno = 0;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  for (int i = 0; i < 500 && kill(pid, 0) == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  for (const ProcStat& p : Processes()) {
    EXPECT_FALSE(p.ppid == parent) << "pid " << p.pid << " state " << p.state;
    if (p.pid == pid) {
      EXPECT_NE(p.ppid, parent);
    }
  }
  errno = 0;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

// ---- Key file reader and writer, further cases ----

TEST_F(PlatformTest, ReaderRefusesBadArgumentsAndLeavesTheTableAlone) {
  const std::string path = dir_ / "read.conf";
  ASSERT_TRUE(WriteFile(path, "b=2\n"));
  Table table;
  ASSERT_EQ(table.Set("a", "1"), 0);
  EXPECT_LT(OLIBCFileGetKeys(path.c_str(), 1, table.address(), "="), 0);
  EXPECT_LT(OLIBCFileGetKeys(path.c_str(), 0, table.address(), ""), 0);
  EXPECT_LT(OLIBCFileGetKeys(path.c_str(), 0, table.address(), nullptr), 0);
  EXPECT_LT(OLIBCFileGetKeys(nullptr, 0, table.address(), "="), 0);
  EXPECT_LT(OLIBCFileGetKeys(path.c_str(), 0, nullptr, "="), 0);
  EXPECT_EQ(Entries(table.get()), (Pairs{{"a", "1"}}));
}

// The writer hands its text to the file in pieces of 64 KiB; a table of
// several pieces arrives whole and in order.
TEST_F(PlatformTest, WriterOfATableLargerThanOnePieceWritesEveryPair) {
  const std::string path = dir_ / "big.conf";
  Table table;
  Pairs pairs;
  std::string expected;
  for (int i = 0; i < 5000; ++i) {
    std::string key = "key" + std::to_string(i);
    std::string value(20 + i % 50, static_cast<char>('a' + i % 26));
    ASSERT_EQ(table.Set(key, value), 0);
    expected += key + "=" + value + "\n";
    pairs.emplace_back(key, value);
  }
  ASSERT_GT(expected.size(), 3u * 64 * 1024);
  ASSERT_EQ(OLIBCFileSetKeys(path.c_str(), table.get(), 0, 0), 0);
  EXPECT_EQ(ReadFile(path), expected);
  Table again;
  ASSERT_EQ(OLIBCFileGetKeys(path.c_str(), 0, again.address(), "="), 0);
  EXPECT_EQ(Entries(again.get()), pairs);
}

}  // namespace
}  // namespace test
}  // namespace velmora
