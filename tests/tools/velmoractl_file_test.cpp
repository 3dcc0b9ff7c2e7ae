// velmoractl kv and lock as installed: key=value files edited in place
// and commands run under a lock file.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include <velmora/velmora.h>
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/settings_test_util.h"
#include "support/tool_runner.h"

namespace velmora {
namespace test {
namespace {

// ---- key=value files ----

class VelmoractlKv : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = scratch_.path();
    file_ = dir_ + "/app.conf";
  }
  // The value of `key` in `path` through the library's reader; "<unread>"
  // when the file cannot be read, "<absent>" without the key.
  static std::string LibraryValue(const std::string& path, const std::string& key) {
    sdk::FileKeyValue reader(path);
    if (!reader.ReadKeyValues(16, "=")) return "<unread>";
    return reader.Contains(key) ? reader.Get(key) : "<absent>";
  }
  ScratchDir scratch_;
  std::string dir_;
  std::string file_;
};

TEST_F(VelmoractlKv, GetReadsValuesAsTheLibraryDoes) {
  ASSERT_TRUE(WriteFile(file_,
                        "# a=commented\n"
                        "a=\"1\"\n"
                        "empty=\"\"\n"
                        "url=x=y\n"
                        "crlf=v\r\n"
                        "dup=first\n"
                        "dup=last\n"
                        " spaced = s \n"
                        "half=\"open\n"
                        "last=no newline"));
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"a", "1"},      {"empty", ""},       {"url", "x=y"},     {"crlf", "v"},
      {"dup", "last"}, {" spaced ", " s "}, {"half", "\"open"}, {"last", "no newline"},
  };
  for (const auto& c : cases) {
    Result r = Tool({"kv", "get", file_, c.first});
    EXPECT_EQ(r.status, 0) << c.first << ": " << r.err;
    EXPECT_EQ(r.out, c.second + "\n") << c.first;
    EXPECT_EQ(LibraryValue(file_, c.first), c.second) << c.first;
  }
  Json::Value v = ParseJson(Tool({"--json", "kv", "get", file_, "url"}).out);
  EXPECT_EQ(v["key"].asString(), "url");
  EXPECT_EQ(v["value"].asString(), "x=y");
  EXPECT_EQ(Tool({"kv", "get", file_, "# a"}).status, 3);
}

TEST_F(VelmoractlKv, SetChangesOnlyTheLineOfItsKey) {
  // Comments, blank lines, a line without "=", an indented "#" (a key for
  // the reader), a NUL byte and a byte that is not UTF-8 all stay.
  const std::string before = std::string(
                                 "# settings\n"
                                 "\n"
                                 "plain=1\n"
                                 "quoted=\"two words\"\r\n"
                                 "dup=first\n"
                                 "noseparator\n"
                                 "  # indented=1\n") +
                             std::string("bin=a\0b\xff\n", 9) +
                             "dup=second\r\n"
                             "#dup=commented\n"
                             "last=end";
  ASSERT_NE(before.find('\0'), std::string::npos);
  ASSERT_TRUE(WriteFile(file_, before));

  Result set = Tool({"kv", "set", file_, "dup", "new"});
  EXPECT_EQ(set.status, 0) << set.err;
  EXPECT_EQ(set.out, "");
  EXPECT_EQ(set.err, "");
  std::string expected = before;
  expected.replace(expected.find("dup=second"), 10, "dup=new");
  EXPECT_EQ(ReadFile(file_), expected);

  // A quoted value stays quoted.
  EXPECT_EQ(Tool({"kv", "set", file_, "quoted", "x y"}).status, 0);
  expected.replace(expected.find("quoted=\"two words\""), 18, "quoted=\"x y\"");
  EXPECT_EQ(ReadFile(file_), expected);

  // The last line keeps its missing newline.
  Result last = Tool({"-v", "kv", "set", file_, "last", "v"});
  EXPECT_EQ(last.status, 0) << last.err;
  EXPECT_EQ(last.out, "set last in " + file_ + "\n");
  expected.replace(expected.find("last=end"), 8, "last=v");
  EXPECT_EQ(ReadFile(file_), expected);

  EXPECT_EQ(Tool({"kv", "set", file_, "plain", ""}).status, 0);
  expected.replace(expected.find("plain=1"), 7, "plain=");
  EXPECT_EQ(ReadFile(file_), expected);

  EXPECT_EQ(LibraryValue(file_, "dup"), "new");
  EXPECT_EQ(LibraryValue(file_, "quoted"), "x y");
  EXPECT_EQ(LibraryValue(file_, "plain"), "");
  EXPECT_EQ(LibraryValue(file_, "last"), "v");
  EXPECT_THAT(ListDir(dir_), ElementsAre("app.conf"));
}

TEST_F(VelmoractlKv, SetAppendsAMissingKeyInTheFilesLineEnds) {
  struct Case {
    std::string before;
    std::string after;
  };
  const std::vector<Case> cases = {
      {"", "k=v\n"},
      {"a=1\n", "a=1\nk=v\n"},
      {"a=1", "a=1\nk=v\n"},
      {"a=1\r\nb=2\r\n", "a=1\r\nb=2\r\nk=v\r\n"},
      {"a=1\r\nb=2", "a=1\r\nb=2\r\nk=v\r\n"},
      // A last line ending in "\r" gets only "\n": its value stays "2".
      {"a=1\r\nb=2\r", "a=1\r\nb=2\r\nk=v\r\n"},
      {"# only a comment", "# only a comment\nk=v\n"},
      {"#k=v\n", "#k=v\nk=v\n"},
  };
  for (const Case& c : cases) {
    ASSERT_TRUE(WriteFile(file_, c.before));
    Result r = Tool({"-v", "kv", "set", file_, "k", "v"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "added k to " + file_ + "\n");
    EXPECT_EQ(ReadFile(file_), c.after) << c.before;
    EXPECT_EQ(LibraryValue(file_, "k"), "v") << c.before;
  }
  EXPECT_EQ(LibraryValue(file_, "b"), "<absent>");
  ASSERT_TRUE(WriteFile(file_, "a=1\r\nb=2\r"));
  ASSERT_EQ(Tool({"kv", "set", file_, "k", "v"}).status, 0);
  EXPECT_EQ(LibraryValue(file_, "b"), "2");
  Json::Value v = ParseJson(Tool({"--json", "-v", "kv", "set", file_, "n", "1"}).out);
  EXPECT_EQ(v["done"].asString(), "added n to " + file_);
}

TEST_F(VelmoractlKv, EveryValueReadsBackExactly) {
  const std::vector<std::string> values = {"\"q\"",       "\"\"",     "\"",   "say \"hi\"",
                                           "\"a\" \"b\"", " spaced ", "",     "x=y",
                                           "#x",          "\t",       "\xff", "caf\xc3\xa9"};
  for (const std::string& start :
       {std::string("k=old\n"), std::string("k=\"old\"\n"), std::string("other=1\n")}) {
    for (const std::string& value : values) {
      ASSERT_TRUE(WriteFile(file_, start));
      Result set = Tool({"kv", "set", file_, "k", value});
      EXPECT_EQ(set.status, 0) << start << value << ": " << set.err;
      EXPECT_EQ(Tool({"kv", "get", file_, "k"}).out, value + "\n") << start << value;
      EXPECT_EQ(LibraryValue(file_, "k"), value) << start << value;
    }
  }
  // Quotes are added only where the reader would take some away.
  ASSERT_TRUE(WriteFile(file_, "k=old\n"));
  ASSERT_EQ(Tool({"kv", "set", file_, "k", "\"q\""}).status, 0);
  EXPECT_EQ(ReadFile(file_), "k=\"\"q\"\"\n");
  // That line is quoted now, and stays so.
  ASSERT_EQ(Tool({"kv", "set", file_, "k", "say \"hi\""}).status, 0);
  EXPECT_EQ(ReadFile(file_), "k=\"say \"hi\"\"\n");
  ASSERT_TRUE(WriteFile(file_, "k=old\n"));
  ASSERT_EQ(Tool({"kv", "set", file_, "k", "say \"hi\""}).status, 0);
  EXPECT_EQ(ReadFile(file_), "k=say \"hi\"\n");
  ASSERT_EQ(Tool({"kv", "set", file_, "n", "\"\""}).status, 0);
  EXPECT_EQ(ReadFile(file_), "k=say \"hi\"\nn=\"\"\"\"\n");
  EXPECT_EQ(ParseJson(Tool({"--json", "kv", "get", file_, "n"}).out)["value"].asString(), "\"\"");
}

TEST_F(VelmoractlKv, SetKeepsOwnerGroupAndModeAndReplacesTheFile) {
  for (mode_t mode : {0640, 0400, 02664}) {
    ASSERT_TRUE(WriteOwned(file_, "a=1\n", kUser1, kShared, mode));
    const ino_t before = InodeOf(file_);
    Result r = Tool({"kv", "set", file_, "a", "2"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ReadFile(file_), "a=2\n");
    FileMeta meta = Meta(file_);
    EXPECT_EQ(meta.uid, kUser1);
    EXPECT_EQ(meta.gid, kShared);
    EXPECT_EQ(meta.mode, mode);
    // A new file took the old one's name.
    EXPECT_NE(InodeOf(file_), before);
    EXPECT_THAT(ListDir(dir_), ElementsAre("app.conf"));
  }
  // A user edits a file of its own in a directory of its own.
  const std::string own = dir_ + "/own";
  ASSERT_TRUE(MakeDir(own, kUser1, GidOf("vtuser1"), 0755));
  ASSERT_TRUE(WriteOwned(own + "/u.conf", "a=1\n", kUser1, GidOf("vtuser1"), 0600));
  Result user = Tool({"kv", "set", own + "/u.conf", "a", "2"}, "vtuser1");
  EXPECT_EQ(user.status, 0) << user.err;
  EXPECT_EQ(ReadFile(own + "/u.conf"), "a=2\n");
  EXPECT_EQ(Meta(own + "/u.conf").mode, 0600u);
  EXPECT_EQ(Meta(own + "/u.conf").uid, kUser1);
}

TEST_F(VelmoractlKv, SetThroughALinkEditsItsTargetAndKeepsTheLink) {
  ASSERT_TRUE(MakeDir(dir_ + "/data"));
  ASSERT_TRUE(MakeDir(dir_ + "/links"));
  const std::string target = dir_ + "/data/real.conf";
  const std::string link = dir_ + "/links/app.conf";
  ASSERT_TRUE(WriteOwned(target, "# kept\na=1\n", kUser1, kShared, 0640));
  ASSERT_EQ(symlink("../data/real.conf", link.c_str()), 0);
  Result r = Tool({"-v", "kv", "set", link, "a", "2"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "set a in " + link + "\n");
  EXPECT_EQ(ReadFile(target), "# kept\na=2\n");
  struct stat st;
  ASSERT_EQ(lstat(link.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  char text[64] = {};
  ASSERT_GT(readlink(link.c_str(), text, sizeof(text) - 1), 0);
  EXPECT_STREQ(text, "../data/real.conf");
  EXPECT_EQ(Meta(target).uid, kUser1);
  EXPECT_EQ(Meta(target).mode, 0640u);
  EXPECT_THAT(ListDir(dir_ + "/data"), ElementsAre("real.conf"));
  EXPECT_THAT(ListDir(dir_ + "/links"), ElementsAre("app.conf"));

  ASSERT_EQ(symlink("missing.conf", (dir_ + "/dangling.conf").c_str()), 0);
  Result dangling = Tool({"kv", "set", dir_ + "/dangling.conf", "a", "1"});
  EXPECT_EQ(dangling.status, 3);
  EXPECT_FALSE(PathExists(dir_ + "/missing.conf"));
}

TEST_F(VelmoractlKv, RefusedKeysAndValuesExitTwoAndChangeNothing) {
  struct Case {
    std::string key;
    std::string value;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"", "v", "the key cannot be empty"},
      {"a=b", "v", "key 'a=b' cannot hold \"=\""},
      {"=", "v", "key '=' cannot hold \"=\""},
      {"#a", "v", "key '#a' cannot start with \"#\""},
      {"a\nb", "v", "key 'a\\nb' cannot hold a line break"},
      {"a\rb", "v", "key 'a\\rb' cannot hold a carriage return"},
      {"a\r", "v", "key 'a\\r' cannot hold a carriage return"},
      {"a", "x\ny", "value 'x\\ny' cannot hold a line break"},
      {"a", "\n", "value '\\n' cannot hold a line break"},
      {"a", "x\r", "value 'x\\r' cannot hold a carriage return"},
      {"a", "x\ry", "value 'x\\ry' cannot hold a carriage return"},
  };
  const std::string before = "# c\na=1\r\n";
  ASSERT_TRUE(WriteFile(file_, before));
  const ino_t inode = InodeOf(file_);
  for (const Case& c : cases) {
    Result r = Tool({"kv", "set", file_, c.key, c.value});
    EXPECT_EQ(r.status, 2) << c.error;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "velmoractl: " + c.error + "\n");
    EXPECT_EQ(ReadFile(file_), before) << c.error;
    EXPECT_EQ(InodeOf(file_), inode) << c.error;
    EXPECT_THAT(ListDir(dir_), ElementsAre("app.conf")) << c.error;
  }
}

TEST_F(VelmoractlKv, LongOrMultiLineArgumentsGiveShortOneLineMessages) {
  ASSERT_TRUE(WriteFile(file_, "a=1\n"));
  const std::string huge = std::string(100 * 1024, 'k');
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"kv", "set", file_, huge + "=", "v"},
        std::vector<std::string>{"kv", "set", file_, "a", huge + "\n"},
        std::vector<std::string>{"kv", "get", file_, huge},
        std::vector<std::string>{"kv", "set", dir_ + "/" + huge.substr(0, 200) + "/x", "a", "v"}}) {
    Result r = Tool(args);
    EXPECT_NE(r.status, 0);
    EXPECT_THAT(r.err, OneErrorLine());
    EXPECT_LT(r.err.size(), 300u) << r.err;
  }
  Result cut = Tool({"kv", "get", file_, huge});
  EXPECT_EQ(cut.status, 3);
  EXPECT_EQ(cut.err, "velmoractl: no key '" + huge.substr(0, 200) + "'...(102400 " + "bytes) in '" +
                         file_ + "'\n");
  Result line = Tool({"kv", "get", file_, "x\ny"});
  EXPECT_EQ(line.err, "velmoractl: no key 'x\\ny' in '" + file_ + "'\n");
  EXPECT_EQ(ReadFile(file_), "a=1\n");
}

TEST_F(VelmoractlKv, MissingFileExitsThreeAndIsNotCreated) {
  ASSERT_TRUE(WriteFile(file_, "a=\"1\"\n"));
  Result key = Tool({"kv", "get", file_, "zzz"});
  EXPECT_EQ(key.status, 3);
  EXPECT_EQ(key.out, "");
  EXPECT_EQ(key.err, "velmoractl: no key 'zzz' in '" + file_ + "'\n");
  const std::string none = dir_ + "/none.conf";
  Result get = Tool({"kv", "get", none, "a"});
  EXPECT_EQ(get.status, 3);
  EXPECT_EQ(get.err, "velmoractl: cannot read '" + none + "': No such file or directory\n");
  Result set = Tool({"kv", "set", none, "a", "1"});
  EXPECT_EQ(set.status, 3);
  EXPECT_EQ(set.err, "velmoractl: cannot read '" + none + "': No such file or directory\n");
  EXPECT_EQ(Tool({"kv", "set", dir_ + "/no/dir.conf", "a", "1"}).status, 3);
  EXPECT_EQ(Tool({"kv", "set", file_ + "/below", "a", "1"}).status, 3);
  EXPECT_THAT(ListDir(dir_), ElementsAre("app.conf"));
}

TEST_F(VelmoractlKv, NotARegularFileFailsWithOne) {
  ASSERT_TRUE(MakeDir(dir_ + "/sub"));
  Result dir = Tool({"kv", "set", dir_ + "/sub", "a", "1"});
  EXPECT_EQ(dir.status, 1);
  EXPECT_EQ(dir.err, "velmoractl: '" + dir_ + "/sub' is not a regular file\n");
  ASSERT_EQ(mkfifo((dir_ + "/fifo").c_str(), 0644), 0);
  Result fifo = Tool({"kv", "set", dir_ + "/fifo", "a", "1"});  // returns at once
  EXPECT_EQ(fifo.status, 1);
  EXPECT_THAT(ListDir(dir_), ElementsAre("fifo", "sub"));
  EXPECT_TRUE(ListDir(dir_ + "/sub").empty());
}

TEST_F(VelmoractlKv, PermissionDeniedExitsFiveAndChangesNothing) {
  ASSERT_TRUE(WriteFile(file_, "a=\"1\"\n", 0600));
  Result get = Tool({"kv", "get", file_, "a"}, "vtuser1");
  EXPECT_EQ(get.status, 5);
  EXPECT_EQ(get.err, "velmoractl: cannot read '" + file_ + "': Permission denied\n");
  Result read = Tool({"kv", "set", file_, "a", "2"}, "vtuser1");
  EXPECT_EQ(read.status, 5);
  EXPECT_EQ(read.err, "velmoractl: cannot read '" + file_ + "': Permission denied\n");
  // Readable, but the directory (root's, 0755) takes no new file.
  ASSERT_EQ(chmod(file_.c_str(), 0644), 0);
  Result set = Tool({"kv", "set", file_, "a", "2"}, "vtuser1");
  EXPECT_EQ(set.status, 5);
  EXPECT_EQ(set.err, "velmoractl: cannot create a temporary file beside '" + file_ +
                         "': Permission denied\n");
  EXPECT_EQ(ReadFile(file_), "a=\"1\"\n");
  EXPECT_THAT(ListDir(dir_), ElementsAre("app.conf"));
}

TEST_F(VelmoractlKv, AReadOnlyDirectoryExitsFiveEvenForAWritableFile) {
  const std::string ro = dir_ + "/ro";
  ASSERT_TRUE(MakeDir(ro, kUser1, GidOf("vtuser1"), 0755));
  ASSERT_TRUE(WriteOwned(ro + "/u.conf", "a=1\n", kUser1, GidOf("vtuser1"), 0644));
  ASSERT_EQ(chmod(ro.c_str(), 0555), 0);
  Result r = Tool({"kv", "set", ro + "/u.conf", "a", "2"}, "vtuser1");
  EXPECT_EQ(r.status, 5);
  EXPECT_THAT(r.err, OneErrorLine());
  EXPECT_EQ(ReadFile(ro + "/u.conf"), "a=1\n");
  EXPECT_THAT(ListDir(ro), ElementsAre("u.conf"));
}

TEST_F(VelmoractlKv, AnOwnerThatCannotBeKeptExitsFiveAndLeavesNoTemporary) {
  // The user may write the file and its directory, but cannot give a new
  // file root's ownership.
  const std::string open_dir = dir_ + "/open";
  ASSERT_TRUE(MakeDir(open_dir, kUser1, GidOf("vtuser1"), 0755));
  ASSERT_TRUE(WriteOwned(open_dir + "/root.conf", "a=1\n", 0, 0, 0666));
  Result r = Tool({"kv", "set", open_dir + "/root.conf", "a", "2"}, "vtuser1");
  EXPECT_EQ(r.status, 5);
  EXPECT_EQ(r.err,
            "velmoractl: cannot write '" + open_dir + "/root.conf': Operation not permitted\n");
  EXPECT_EQ(ReadFile(open_dir + "/root.conf"), "a=1\n");
  EXPECT_EQ(Meta(open_dir + "/root.conf").uid, 0u);
  EXPECT_THAT(ListDir(open_dir), ElementsAre("root.conf"));
}

TEST_F(VelmoractlKv, AFailedWriteLeavesTheFileAndNoTemporary) {
  // 40 KB of settings on a 64 KB file system: a second copy does not fit.
  ASSERT_TRUE(scratch_.MountTmpfs("small", "64k"));
  const std::string small = dir_ + "/small/app.conf";
  std::string text;
  for (int i = 0; text.size() < 40 * 1024; ++i) text += "key" + std::to_string(i) + "=value\n";
  ASSERT_TRUE(WriteFile(small, text));
  Result r = Tool({"kv", "set", small, "key1", "changed"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "velmoractl: cannot write '" + small + "': No space left on device\n");
  EXPECT_EQ(ReadFile(small), text);
  EXPECT_THAT(ListDir(dir_ + "/small"), ElementsAre("app.conf"));
}

// Memory that runs out while a command works ends the tool with the generic
// failure and one line, not an abort: kv set reads a 1 GiB file (one hole,
// which takes no memory) under an address-space limit of 256 MiB.
TEST_F(VelmoractlKv, MemoryRunningOutFailsWithOneLineInsteadOfAborting) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers' shadow memory does not fit an address-space limit";
#endif
  const int fd = open(file_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, off_t{1} << 30), 0);
  ASSERT_EQ(close(fd), 0);
  ScratchDir out;
  const std::string command = "prlimit --as=268435456 -- " + std::string(VELMORACTL_PATH) +
                              " kv set " + file_ + " a 1 >" + out.path() + "/out 2>" + out.path() +
                              "/err";
  const int status = std::system(command.c_str());  // NOLINT(cert-env33-c): fixed programs
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(ReadFile(out.path() + "/out"), "");
  EXPECT_EQ(ReadFile(out.path() + "/err"), "velmoractl: out of memory\n");
  struct stat st;
  ASSERT_EQ(stat(file_.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, off_t{1} << 30);
  EXPECT_THAT(ListDir(dir_), ElementsAre("app.conf"));
}

TEST_F(VelmoractlKv, HelpNamesTheReaderAndEachCommandsStatuses) {
  Result get = Tool({"kv", "get", "--help"});
  EXPECT_EQ(get.status, 0);
  EXPECT_THAT(get.out, HasSubstr("split at the first '='"));
  EXPECT_THAT(get.out, HasSubstr("Exit status: 0 printed; 2 bad command line; 3 no such key"));
  Result set = Tool({"kv", "set", "--help"});
  EXPECT_EQ(set.status, 0);
  EXPECT_THAT(set.out, HasSubstr("Exit status: 0 done; 2 bad command line"));
  EXPECT_THAT(set.out, HasSubstr("3 no such file; 5 permission denied"));
  Result lock = Tool({"lock", "--help"});
  EXPECT_EQ(lock.status, 0);
  EXPECT_THAT(lock.out, HasSubstr("Exit status: the command's own status"));
  EXPECT_THAT(lock.out, HasSubstr("6 the lock was still held"));
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

TEST_F(VelmoractlLock, VerboseReportComesBeforeTheCommandsOutput) {
  Result text = Tool({"-v", "lock", lock_, "--", "echo", "hi"});
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_EQ(text.out, "locked " + lock_ + "\nhi\n");
  Result json = Tool({"--json", "-v", "lock", lock_, "--", "true"});
  EXPECT_EQ(json.status, 0) << json.err;
  EXPECT_EQ(json.out, "{\"done\":\"locked " + lock_ + "\"}\n");
  EXPECT_EQ(ParseJson(json.out)["done"].asString(), "locked " + lock_);
  // Without -v the command's output is all there is.
  EXPECT_EQ(Tool({"lock", lock_, "--", "echo", "hi"}).out, "hi\n");
}

TEST_F(VelmoractlLock, ExitsWithTheCommandsStatus) {
  EXPECT_EQ(Tool({"lock", lock_, "--", "sh", "-c", "exit 7"}).status, 7);
  EXPECT_EQ(Tool({"lock", lock_, "--", "sh", "-c", "kill -TERM $$"}).status, 128 + SIGTERM);
  Result missing = Tool({"lock", lock_, "--", "/nonexistent/cmd"});
  EXPECT_EQ(missing.status, 127);
  EXPECT_EQ(missing.err, "velmoractl: cannot run '/nonexistent/cmd': No such file or directory\n");
  Result odd = Tool({"lock", lock_, "--", "/nonexistent/a\nb"});
  EXPECT_EQ(odd.status, 127);
  EXPECT_EQ(odd.err, "velmoractl: cannot run '/nonexistent/a\\nb': No such file or directory\n");
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
  EXPECT_EQ(r.err, "velmoractl: the lock '" + lock_ + "' is still held after 1 s\n");
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
  EXPECT_EQ(denied.err, "velmoractl: cannot lock '" + lock_ + "': Permission denied\n");
  Result missing = Tool({"lock", scratch_.path() + "/no/dir.lock", "--", "true"});
  EXPECT_EQ(missing.status, 3);
  EXPECT_EQ(missing.err, "velmoractl: cannot lock '" + scratch_.path() +
                             "/no/dir.lock': No such file or directory\n");
}

}  // namespace
}  // namespace test
}  // namespace velmora
