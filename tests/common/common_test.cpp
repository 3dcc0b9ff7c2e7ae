#include <errno.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <velmora/velmora.h>

#include "support/log_capture.h"
#include "support/test_util.h"

namespace velmora {
namespace {

using test::LogCapture;

class CommonTest : public ::testing::Test {};

TEST_F(CommonTest, ReplaceReplacesEveryOccurrence) {
  EXPECT_EQ(Replace("aaa", "a", "b"), "bbb");
  EXPECT_EQ(Replace("a.b.c", ".", "::"), "a::b::c");
  EXPECT_EQ(Replace("path/to/x", "/", "/"), "path/to/x");
}

TEST_F(CommonTest, ReplaceSkipsInsertedText) {
  EXPECT_EQ(Replace("aa", "a", "aa"), "aaaa");
  EXPECT_EQ(Replace("xax", "a", "bab"), "xbabx");
}

TEST_F(CommonTest, ReplaceWithoutOccurrenceReturnsInput) {
  EXPECT_EQ(Replace("hello", "z", "y"), "hello");
  EXPECT_EQ(Replace("", "a", "b"), "");
}

TEST_F(CommonTest, ReplaceOfEmptyStringInsertsBeforeEveryCharacterAndAtEnd) {
  EXPECT_EQ(Replace("ab", "", "-"), "-a-b-");
  EXPECT_EQ(Replace("", "", "-"), "-");
}

TEST_F(CommonTest, ReplaceToEmptyDeletes) { EXPECT_EQ(Replace("a-b-c", "-", ""), "abc"); }

TEST_F(CommonTest, JoinOfNoItemsIsEmpty) {
  EXPECT_EQ(Join<std::string>(std::vector<std::string>{}, ","), "");
}

TEST_F(CommonTest, JoinOfOneItemHasNoSeparator) {
  EXPECT_EQ(Join<std::string>(std::vector<std::string>{"only"}, ","), "only");
}

TEST_F(CommonTest, JoinKeepsEmptyItems) {
  EXPECT_EQ(Join<std::string>(std::vector<std::string>{"a", "", "b"}, ","), "a,,b");
  EXPECT_EQ(Join<std::string>(std::vector<std::string>{"x", "y", "z"}, ", "), "x, y, z");
}

TEST_F(CommonTest, ScopeGuardRunsOnceOnReturn) {
  int calls = 0;
  auto leave = [&calls]() {
    ScopeGuard guard([&calls] { ++calls; });
    return 7;
  };
  EXPECT_EQ(leave(), 7);
  EXPECT_EQ(calls, 1);
}

TEST_F(CommonTest, ScopeGuardRunsOnceOnException) {
  int calls = 0;
  try {
    ScopeGuard guard([&calls] { ++calls; });
    throw std::runtime_error("leave");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(calls, 1);
}

TEST_F(CommonTest, ScopeGuardWithEmptyActionThrowsOnDestruction) {
  auto run = [] { ScopeGuard guard{std::function<void()>()}; };
  EXPECT_THROW(run(), std::bad_function_call);
}

TEST_F(CommonTest, ScopeGuardActionExceptionPropagates) {
  auto run = [] { ScopeGuard guard([] { throw std::logic_error("cleanup"); }); };
  EXPECT_THROW(run(), std::logic_error);
}

// Runs the name printer with the given argv and returns what it printed.
std::string NameUnder(const std::vector<std::string>& args) {
  int fds[2];
  if (pipe(fds) != 0) return "<pipe failed>";
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    close(fds[1]);
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(PRINT_PROCESS_NAME_PATH, argv.data());
    _exit(127);
  }
  close(fds[1]);
  std::string out;
  char buf[256];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "<child failed>";
  return out;
}

TEST_F(CommonTest, ProcessNameIsBaseNameOfFirstArgument) {
  EXPECT_EQ(NameUnder({"/usr/bin/tool", "-x"}), "tool");
  EXPECT_EQ(NameUnder({"/usr/sbin/tool", "-a", "-b"}), "tool");
}

TEST_F(CommonTest, ProcessNameWithoutSlash) { EXPECT_EQ(NameUnder({"tool"}), "tool"); }

TEST_F(CommonTest, ProcessNameStopsAtFirstSpace) {
  EXPECT_EQ(NameUnder({"a b/c"}), "a");
  EXPECT_EQ(NameUnder({"master -w"}), "master");
  // An argument holding a space stops the read there; the name is still the
  // first argument's base name.
  EXPECT_EQ(NameUnder({"/opt/x/daemon", "with space"}), "daemon");
}

TEST_F(CommonTest, ProcessNameIgnoresTrailingSlashes) {
  EXPECT_EQ(NameUnder({"/usr/lib/tool/"}), "tool");
}

TEST_F(CommonTest, ProcessNameOfThisTest) {
  EXPECT_EQ(sdk::GetProcessName(), program_invocation_short_name);
}

TEST_F(CommonTest, LogLineCarriesPathLineProcessNameAndMessage) {
  test::ScratchDir dir;
  ASSERT_TRUE(test::WriteFile(dir / "file", "x"));
  LogCapture capture;
  EXPECT_EQ(sdk::MkDir(dir / "file/sub"), -1);
  auto records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].priority, 139);
  EXPECT_EQ(records[0].tag, program_invocation_short_name);
  std::regex line("src/lib/sdk/filesystem:[0-9]+: " + std::string(program_invocation_short_name) +
                  ": MkDir failed: " + dir.path() + "/file/sub Not a directory");
  EXPECT_TRUE(std::regex_match(records[0].text, line)) << records[0].text;
}

TEST_F(CommonTest, UnreadableCommandLineGivesEmptyNameAndEmptyLogField) {
  test::ScratchDir dir;
  ASSERT_TRUE(test::WriteFile(dir / "file", "x"));
  LogCapture capture;
  pid_t pid = fork();
  if (pid == 0) {
    // A private mount namespace without /proc: the command line cannot be
    // opened at all.
    if (unshare(CLONE_NEWNS) != 0) _exit(10);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(11);
    // The runner's /proc lies over the one it started with: take off both.
    if (umount2("/proc", MNT_DETACH) != 0) _exit(12);
    while (umount2("/proc", MNT_DETACH) == 0) {
    }
    if (!sdk::GetProcessName().empty()) _exit(13);
    if (sdk::MkDir(dir / "file/sub") != -1) _exit(14);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 0);
  auto records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].priority, 139);
  std::regex line("src/lib/sdk/filesystem:[0-9]+: : MkDir failed: " + dir.path() +
                  "/file/sub Not a directory");
  EXPECT_TRUE(std::regex_match(records[0].text, line)) << records[0].text;
}

TEST_F(CommonTest, ErrnoTextSurvivesProcessNameLookup) {
  // "%m" must still name the failure after the process name was read.
  LogCapture capture;
  std::string response = "kept";
  EXPECT_EQ(common::socket::QuerySockServer("/run/velmora-missing/none.sock", "x", response, 0),
            -1);
  EXPECT_EQ(response, "kept");
  auto records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  std::regex line("src/lib/common/socket:[0-9]+: " + std::string(program_invocation_short_name) +
                  ": failed to connect No such file or directory");
  EXPECT_TRUE(std::regex_match(records[0].text, line)) << records[0].text;
}

}  // namespace
}  // namespace velmora
