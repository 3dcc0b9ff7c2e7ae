#include <errno.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <velmora/common.h>
#include <velmora/socket.h>

#include "support/log_capture.h"
#include "support/one_shot_server.h"
#include "support/seccomp_util.h"
#include "support/test_util.h"

namespace velmora {
namespace {

using common::socket::QuerySockServer;
using test::LogCapture;
using test::OneShotServer;
using test::ReadRequest;
using test::RunInChild;
using test::WriteAll;

constexpr char kDir[] = "/run/velmora-test/qs";

std::string Pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return s;
}

std::string Line(const std::string& message) {
  return "src/lib/common/socket:[0-9]+: " + std::string(program_invocation_short_name) + ": " +
         message;
}

void ExpectOneLine(LogCapture& capture, const std::string& message) {
  auto records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].priority, 139);
  EXPECT_TRUE(std::regex_match(records[0].text, std::regex(Line(message)))) << records[0].text;
}

class QuerySockServerTest : public ::testing::Test {
 protected:
  std::string path_ = std::string(kDir) + "/server.sock";
};

TEST_F(QuerySockServerTest, SendsRequestBytesExactlyAndReadsAnswerUntilClose) {
  const std::string request("get_value smtp/smtp_enabled\0tail", 32);
  std::string received;
  OneShotServer server(path_, [&](int fd) {
    received = ReadRequest(fd, request.size());
    WriteAll(fd, "yes", 3);
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  LogCapture capture;
  std::string response;
  EXPECT_EQ(QuerySockServer(path_, request, response, 2), 0);
  EXPECT_EQ(response, "yes");
  EXPECT_EQ(received, request);
  EXPECT_TRUE(capture.Records().empty());
}

TEST_F(QuerySockServerTest, AnswersOfEverySizeArriveWhole) {
  for (size_t size :
       {size_t{1}, size_t{255}, size_t{256}, size_t{257}, size_t{1000}, size_t{1} << 20}) {
    for (size_t piece : {size_t{1}, size_t{7}, size_t{256}, size_t{65536}}) {
      if (size >= (size_t{1} << 20) && piece < 256) continue;  // Keep the run short.
      const std::string answer = Pattern(size);
      OneShotServer server(path_, [&](int fd) {
        ReadRequest(fd, 1);
        WriteAll(fd, answer, piece);
        close(fd);
      });
      ASSERT_TRUE(server.bound());
      std::string response;
      ASSERT_EQ(QuerySockServer(path_, "q", response, 5), 0) << size << "/" << piece;
      EXPECT_EQ(response.size(), answer.size());
      EXPECT_TRUE(response == answer) << size << " bytes in pieces of " << piece;
    }
  }
}

TEST_F(QuerySockServerTest, ServerClosingWithoutAnswerGivesSuccessAndUnchangedResponse) {
  OneShotServer server(path_, [](int fd) {
    ReadRequest(fd, 4);
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  std::string response = "before";
  EXPECT_EQ(QuerySockServer(path_, "ping", response, 2), 0);
  EXPECT_EQ(response, "before");
}

TEST_F(QuerySockServerTest, AnswerIsAppendedToExistingText) {
  OneShotServer server(path_, [](int fd) {
    ReadRequest(fd, 1);
    WriteAll(fd, "+answer", 7);
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  std::string response = "held";
  EXPECT_EQ(QuerySockServer(path_, "x", response, 2), 0);
  EXPECT_EQ(response, "held+answer");
}

TEST_F(QuerySockServerTest, ServerThatNeverClosesTimesOutAndEmptiesResponse) {
  std::atomic<bool> done{false};
  OneShotServer server(path_, [&](int fd) {
    ReadRequest(fd, 1);
    WriteAll(fd, "partial", 7);
    while (!done) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  LogCapture capture;
  std::string response = "old";
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(QuerySockServer(path_, "x", response, 2), -1);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  done = true;
  EXPECT_EQ(response, "");
  EXPECT_GE(seconds, 1.9);
  EXPECT_LT(seconds, 3.5);
  ExpectOneLine(capture, "Failed to call recv\\(\\) Resource temporarily unavailable");
}

TEST_F(QuerySockServerTest, TimeoutZeroWaitsForTheClose) {
  OneShotServer server(path_, [](int fd) {
    ReadRequest(fd, 1);
    WriteAll(fd, "slow", 4);
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    WriteAll(fd, "-done", 5);
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  std::string response;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(QuerySockServer(path_, "x", response, 0), 0);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(response, "slow-done");
  EXPECT_GE(seconds, 2.4);
}

TEST_F(QuerySockServerTest, ResetConnectionFailsAndEmptiesResponse) {
  // Closing with the request still unread makes the kernel reset the
  // connection.
  OneShotServer server(path_, [](int fd) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  LogCapture capture;
  std::string response = "old";
  EXPECT_EQ(QuerySockServer(path_, "unread request", response, 2), -1);
  EXPECT_EQ(response, "");
  ExpectOneLine(capture, "Failed to call recv\\(\\) Connection reset by peer");
}

TEST_F(QuerySockServerTest, MissingPathFailsToConnect) {
  LogCapture capture;
  std::string response = "untouched";
  EXPECT_EQ(QuerySockServer(std::string(kDir) + "/absent.sock", "x", response, 2), -1);
  EXPECT_EQ(response, "untouched");
  ExpectOneLine(capture, "failed to connect No such file or directory");
}

TEST_F(QuerySockServerTest, NonSocketPathRefusesConnection) {
  mkdir(kDir, 0755);
  std::string plain = std::string(kDir) + "/plain-file";
  FILE* f = fopen(plain.c_str(), "w");
  ASSERT_NE(f, nullptr);
  fclose(f);
  LogCapture capture;
  std::string response = "untouched";
  EXPECT_EQ(QuerySockServer(plain, "x", response, 2), -1);
  EXPECT_EQ(response, "untouched");
  ExpectOneLine(capture, "failed to connect Connection refused");
}

TEST_F(QuerySockServerTest, PathLongerThan107BytesIsTriedAsItsFirst107) {
  std::string prefix = std::string(kDir) + "/";
  std::string path107 = prefix + std::string(107 - prefix.size(), 's');
  ASSERT_EQ(path107.size(), 107u);
  OneShotServer server(path107, [](int fd) {
    ReadRequest(fd, 1);
    WriteAll(fd, "cut", 3);
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  std::string response;
  EXPECT_EQ(QuerySockServer(path107 + "-and-more-text-beyond-the-field", "x", response, 2), 0);
  EXPECT_EQ(response, "cut");
}

TEST_F(QuerySockServerTest, EmptyRequestSendsNothingAndWaitsForAnswer) {
  std::string received = "unset";
  OneShotServer server(path_, [&](int fd) {
    // Nothing arrives; answer after a short wait and close.
    timeval tv{0, 300000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    char c;
    ssize_t r = read(fd, &c, 1);
    received = r < 0 ? "nothing" : "something";
    WriteAll(fd, "empty-ok", 8);
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  std::string response;
  EXPECT_EQ(QuerySockServer(path_, "", response, 2), 0);
  EXPECT_EQ(response, "empty-ok");
  EXPECT_EQ(received, "nothing");
}

TEST_F(QuerySockServerTest, NoDescriptorLeftFailsToOpenSocket) {
  LogCapture capture;
  int rc = RunInChild([] {
    // The soft limit only: the hard one stays, as for any program that
    // lowered its own limit.
    rlimit none{};
    if (getrlimit(RLIMIT_NOFILE, &none) != 0) return 13;
    none.rlim_cur = 0;
    if (setrlimit(RLIMIT_NOFILE, &none) != 0) return 10;
    std::string response = "untouched";
    if (QuerySockServer("/run/velmora-test/x.sock", "x", response, 1) != -1) return 11;
    return response == "untouched" ? 0 : 12;
  });
  EXPECT_EQ(rc, 0);
  // The child cannot open /proc/self/cmdline either: its name field is empty
  // and so is the errno text's source, which stays EMFILE.
  auto records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].priority, 139);
  EXPECT_TRUE(std::regex_match(
      records[0].text,
      std::regex("src/lib/common/socket:[0-9]+: : Failed to open socket Too many open files")))
      << records[0].text;
}

// Makes setsockopt fail with EPERM for this process from now on.
bool DenySetsockopt() {
  return test::InstallSeccomp(test::SeccompProgram({
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_setsockopt, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (EPERM & SECCOMP_RET_DATA)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  }));
}

TEST_F(QuerySockServerTest, TimeoutThatCannotBeSetFails) {
#if !defined(__x86_64__)
  GTEST_SKIP() << "the seccomp filter here is written for x86_64";
#endif
  OneShotServer server(path_, [](int fd) {
    ReadRequest(fd, 1);
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  LogCapture capture;
  std::string path = path_;
  int rc = RunInChild([path] {
    if (!DenySetsockopt()) return 10;
    std::string response = "untouched";
    if (QuerySockServer(path, "x", response, 1) != -1) return 11;
    return response == "untouched" ? 0 : 12;
  });
  EXPECT_EQ(rc, 0);
  ExpectOneLine(capture, "failed to set socket timeout");
}

TEST_F(QuerySockServerTest, TimeoutZeroSetsNoOption) {
#if !defined(__x86_64__)
  GTEST_SKIP() << "the seccomp filter here is written for x86_64";
#endif
  OneShotServer server(path_, [](int fd) {
    ReadRequest(fd, 1);
    WriteAll(fd, "fine", 4);
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  std::string path = path_;
  int rc = RunInChild([path] {
    if (!DenySetsockopt()) return 10;
    std::string response;
    if (QuerySockServer(path, "x", response, 0) != 0) return 11;
    return response == "fine" ? 0 : 12;
  });
  EXPECT_EQ(rc, 0);
}

TEST_F(QuerySockServerTest, SendToClosedPeerFails) {
  // The server takes the connection and closes it before the request goes
  // out; a request larger than the socket buffer cannot be sent whole.
  OneShotServer server(path_, [](int fd) { close(fd); });
  ASSERT_TRUE(server.bound());
  LogCapture capture;
  std::string response = "untouched";
  EXPECT_EQ(QuerySockServer(path_, std::string(8 << 20, 'r'), response, 2), -1);
  EXPECT_EQ(response, "untouched");
  auto records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_TRUE(std::regex_match(records[0].text, std::regex(Line("Failed to call sendto\\(\\) .*"))))
      << records[0].text;
}

}  // namespace
}  // namespace velmora
