// Descriptors that the library opens are never inherited across exec(): a
// held lock, a live temporary file and a query socket in the middle of its
// exchange are open in this process while a child is exec'd, and the child
// must hold none of them.
//
// The child is this binary started again with VELMORA_FD_PROBE set: before
// main() it writes the numbers of the descriptors it inherited to its stdout
// (a pipe to the parent), one per line, and exits.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <velmora/backend.h>
#include <velmora/file.h>
#include <velmora/memcached.h>
#include <velmora/socket.h>

#include "support/log_capture.h"
#include "support/test_util.h"

extern char** environ;

namespace velmora {
namespace {

constexpr char kProbeVariable[] = "VELMORA_FD_PROBE";

// The child's side: report inherited descriptors and leave before main().
int ReportInheritedDescriptors() {
  if (std::getenv(kProbeVariable) == nullptr) return 0;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) _exit(2);
  const int own = dirfd(d);
  std::string out;
  while (struct dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    if (std::atoi(e->d_name) == own) continue;
    out += e->d_name;
    out += '\n';
  }
  closedir(d);
  const char* p = out.data();
  size_t left = out.size();
  while (left > 0) {
    ssize_t n = write(1, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) _exit(3);
    p += n;
    left -= static_cast<size_t>(n);
  }
  _exit(0);
}
// Runs before main() in every start of this binary; returns at once unless probing.
[[maybe_unused]] const int probe_checked = ReportInheritedDescriptors();

// Descriptors open in this process now.
std::set<int> OpenDescriptors() {
  std::set<int> fds;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return fds;
  const int own = dirfd(d);
  while (struct dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    const int fd = std::atoi(e->d_name);
    if (fd != own) fds.insert(fd);
  }
  closedir(d);
  return fds;
}

std::string FdTarget(int fd) {
  char buf[4096];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  ssize_t n = readlink(link.c_str(), buf, sizeof buf);
  return n < 0 ? std::string() : std::string(buf, static_cast<size_t>(n));
}

std::set<int> Minus(std::set<int> a, const std::set<int>& b) {
  for (int x : b) a.erase(x);
  return a;
}

std::string Show(const std::set<int>& fds) {
  std::ostringstream s;
  s << "{";
  for (int fd : fds) s << " " << fd;
  s << " }";
  return s.str();
}

// Fork, exec this binary as a probe and return the descriptors that it
// inherited. Only async-signal-safe calls run between fork and exec, so
// this is safe while other threads run.
::testing::AssertionResult RunProbe(std::set<int>* inherited) {
  inherited->clear();
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) {
    return ::testing::AssertionFailure() << "pipe2: " << std::strerror(errno);
  }
  std::vector<std::string> env_strings;
  for (char** e = environ; *e != nullptr; ++e) env_strings.emplace_back(*e);
  env_strings.push_back(std::string(kProbeVariable) + "=1");
  std::vector<char*> envp;
  for (std::string& s : env_strings) envp.push_back(&s[0]);
  envp.push_back(nullptr);
  char arg0[] = "fd-probe";
  char* argv[] = {arg0, nullptr};

  pid_t pid = fork();
  if (pid == 0) {
    if (dup2(pipe_fds[1], 1) < 0) _exit(4);
    execve("/proc/self/exe", argv, envp.data());
    _exit(5);
  }
  close(pipe_fds[1]);
  if (pid < 0) {
    close(pipe_fds[0]);
    return ::testing::AssertionFailure() << "fork: " << std::strerror(errno);
  }
  std::string out;
  char buf[512];
  for (;;) {
    ssize_t n = read(pipe_fds[0], buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    out.append(buf, static_cast<size_t>(n));
  }
  close(pipe_fds[0]);
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    return ::testing::AssertionFailure() << "probe failed, status " << status;
  }
  std::istringstream lines(out);
  int fd;
  while (lines >> fd) inherited->insert(fd);
  return ::testing::AssertionSuccess();
}

// A Unix stream server that accepts one client and reads its request, then
// waits until told to answer.
class HeldServer {
 public:
  explicit HeldServer(const std::string& path) : path_(path) {
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    ok_ = listen_fd_ >= 0 &&
          bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
          listen(listen_fd_, 4) == 0;
  }
  ~HeldServer() {
    if (conn_fd_ >= 0) close(conn_fd_);
    if (listen_fd_ >= 0) close(listen_fd_);
  }
  bool ok() const { return ok_; }
  int conn_fd() const { return conn_fd_; }

  // Accepts one client and reads `size` request bytes; false after 10 s.
  bool AcceptAndRead(size_t size, std::string* request) {
    pollfd p{listen_fd_, POLLIN, 0};
    if (poll(&p, 1, 10000) != 1) return false;
    conn_fd_ = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (conn_fd_ < 0) return false;
    while (request->size() < size) {
      pollfd c{conn_fd_, POLLIN, 0};
      if (poll(&c, 1, 10000) != 1) return false;
      char buf[256];
      ssize_t n = recv(conn_fd_, buf, sizeof buf, 0);
      if (n <= 0) return false;
      request->append(buf, static_cast<size_t>(n));
    }
    return true;
  }

  // Sends the answer and closes the connection.
  void AnswerAndClose(const std::string& answer) {
    if (conn_fd_ < 0) return;
    ssize_t n = send(conn_fd_, answer.data(), answer.size(), MSG_NOSIGNAL);
    (void)n;
    close(conn_fd_);
    conn_fd_ = -1;
  }

 private:
  std::string path_;
  int listen_fd_ = -1;
  int conn_fd_ = -1;
  bool ok_ = false;
};

class CloseOnExecTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    // What a child inherits before the library has opened anything.
    ASSERT_TRUE(RunProbe(&baseline_));
  }

  // The child inherits what it inherited before, and none of `library_fds`.
  void ExpectNotInherited(const std::set<int>& library_fds) {
    std::set<int> inherited;
    ASSERT_TRUE(RunProbe(&inherited));
    EXPECT_EQ(inherited, baseline_) << "child inherited " << Show(inherited)
                                    << ", before the library opened anything " << Show(baseline_);
    for (int fd : library_fds) {
      EXPECT_EQ(inherited.count(fd), 0u)
          << "descriptor " << fd << " (" << FdTarget(fd) << ") crossed exec";
    }
  }

  // Opens the lock, checks it is held by this process, returns its descriptor.
  int HoldLock(sdk::FileLock* lock, const std::string& path) {
    EXPECT_TRUE(lock->Lock());
    EXPECT_GE(lock->fd_, 0);
    EXPECT_EQ(FdTarget(lock->fd_), path);
    return lock->fd_;
  }

  test::ScratchDir dir_;
  std::set<int> baseline_;
};

TEST_F(CloseOnExecTest, ProbeSeesDescriptorLeftOpenAcrossExec) {
  // The check itself: a descriptor opened without close-on-exec is reported.
  int fd = open((dir_ / "plain").c_str(), O_WRONLY | O_CREAT, 0644);
  ASSERT_GE(fd, 0);
  std::set<int> inherited;
  ASSERT_TRUE(RunProbe(&inherited));
  close(fd);
  EXPECT_EQ(inherited.count(fd), 1u) << Show(inherited);
  EXPECT_EQ(Minus(inherited, {fd}), baseline_);
}

TEST_F(CloseOnExecTest, HeldLockIsNotInherited) {
  test::LogCapture log;
  sdk::FileLock exclusive(dir_ / "x.lock", true);
  sdk::FileLock shared(dir_ / "s.lock", false);
  sdk::ExclusiveFileLockGuard guard(dir_ / "g.lock", 1);
  ASSERT_GE(guard.fd_, 0);
  const std::set<int> fds = {HoldLock(&exclusive, dir_ / "x.lock"),
                             HoldLock(&shared, dir_ / "s.lock"), guard.fd_};
  ASSERT_EQ(fds.size(), 3u);
  ExpectNotInherited(fds);
  EXPECT_TRUE(log.Records().empty());
}

TEST_F(CloseOnExecTest, LiveTempFileIsNotInherited) {
  test::LogCapture log;
  const std::set<int> before = OpenDescriptors();
  sdk::TempFile tmp(dir_ / "conf");
  ASSERT_TRUE(tmp.valid_);
  tmp.WriteLine("open while the child starts");
  const std::set<int> opened = Minus(OpenDescriptors(), before);
  ASSERT_EQ(opened.size(), 1u) << Show(opened);
  EXPECT_EQ(FdTarget(*opened.begin()), tmp.path());
  ExpectNotInherited(opened);
  ASSERT_EQ(tmp.MoveTo(dir_ / "conf"), 0);
  EXPECT_EQ(test::ReadFile(dir_ / "conf"), "open while the child starts\n");
  EXPECT_TRUE(log.Records().empty());
}

// A loopback listener that never accepts: the kernel completes a client's
// connect all the same. Its port, or -1.
int SilentListener(int* fd) {
  *fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  if (*fd < 0 || bind(*fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      listen(*fd, 4) != 0 || getsockname(*fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    return -1;
  }
  return ntohs(addr.sin_port);
}

TEST_F(CloseOnExecTest, RedisConnectionIsNotInherited) {
  int listener = -1;
  const int port = SilentListener(&listener);
  ASSERT_GT(port, 0);
  // A new connection is only a connect: the listener need not answer.
  backend::RedisClient client("127.0.0.1", port, 1000);
  const std::set<int> before = OpenDescriptors();
  redisContext* ctx = client.AcquireContext();
  ASSERT_NE(ctx, nullptr);
  const std::set<int> opened = Minus(OpenDescriptors(), before);
  EXPECT_EQ(opened, std::set<int>{ctx->fd}) << Show(opened);
  ExpectNotInherited(opened);
  client.ReleaseContext(ctx, false);
  close(listener);
}

TEST_F(CloseOnExecTest, MemcachedConnectionIsNotInherited) {
  int listener = -1;
  const int port = SilentListener(&listener);
  ASSERT_GT(port, 0);
  sdk::Memcached client("127.0.0.1", port);
  // Without replies a store is only sent: the connection stays open after
  // the call although the listener never answers.
  ASSERT_TRUE(client.BehaviorSet(MEMCACHED_BEHAVIOR_NOREPLY, 1));
  const std::set<int> before = OpenDescriptors();
  sdk::MemcachedData item;
  item.key = "k";
  item.value = "v";
  item.flags = 0;
  item.expiration = 0;
  EXPECT_TRUE(client.Set(item)) << memcached_strerror(nullptr, client.LastResult());
  const std::set<int> opened = Minus(OpenDescriptors(), before);
  ASSERT_EQ(opened.size(), 1u) << Show(opened);
  EXPECT_EQ(FdTarget(*opened.begin()).compare(0, 8, "socket:["), 0);
  ExpectNotInherited(opened);
  close(listener);
}

TEST_F(CloseOnExecTest, QuerySocketIsNotInherited) {
  const std::string path = dir_ / "query.sock";
  HeldServer server(path);
  ASSERT_TRUE(server.ok());
  test::LogCapture log;
  const std::set<int> before = OpenDescriptors();
  int rc = -2;
  std::string response = "prior:";
  std::thread client(
      [&] { rc = common::socket::QuerySockServer(path, "get_value x", response, 10); });
  std::string request;
  const bool got = server.AcceptAndRead(11, &request);
  std::set<int> opened = Minus(OpenDescriptors(), before);
  opened.erase(server.conn_fd());
  if (got) {
    EXPECT_EQ(request, "get_value x");
    // The client waits for the answer now: its socket is open.
    EXPECT_EQ(opened.size(), 1u) << Show(opened);
    for (int fd : opened) EXPECT_EQ(FdTarget(fd).compare(0, 8, "socket:["), 0) << FdTarget(fd);
    ExpectNotInherited(opened);
  } else {
    ADD_FAILURE() << "the query never reached the server";
  }
  server.AnswerAndClose("answer");
  client.join();
  if (got) {
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(response, "prior:answer");
    // And it is closed once the call returns.
    for (int fd : opened) EXPECT_EQ(OpenDescriptors().count(fd), 0u) << fd;
  }
  EXPECT_TRUE(log.Records().empty());
}

TEST_F(CloseOnExecTest, NothingIsInheritedWhileLockTempFileAndSocketAreOpen) {
  const std::string path = dir_ / "query.sock";
  HeldServer server(path);
  ASSERT_TRUE(server.ok());
  test::LogCapture log;

  sdk::FileLock lock(dir_ / "velmora.lock", true);
  const int lock_fd = HoldLock(&lock, dir_ / "velmora.lock");

  std::set<int> before = OpenDescriptors();
  sdk::TempFile tmp(dir_ / "conf");
  ASSERT_TRUE(tmp.valid_);
  const std::set<int> temp_fds = Minus(OpenDescriptors(), before);
  ASSERT_EQ(temp_fds.size(), 1u) << Show(temp_fds);

  before = OpenDescriptors();
  int rc = -2;
  std::string response;
  std::thread client([&] { rc = common::socket::QuerySockServer(path, "ping", response, 10); });
  std::string request;
  const bool got = server.AcceptAndRead(4, &request);
  std::set<int> socket_fds = Minus(OpenDescriptors(), before);
  socket_fds.erase(server.conn_fd());
  if (got) {
    EXPECT_EQ(socket_fds.size(), 1u) << Show(socket_fds);
    std::set<int> all = socket_fds;
    all.insert(lock_fd);
    all.insert(temp_fds.begin(), temp_fds.end());
    EXPECT_EQ(all.size(), 3u) << Show(all);
    ExpectNotInherited(all);
  } else {
    ADD_FAILURE() << "the query never reached the server";
  }
  server.AnswerAndClose("pong");
  client.join();
  if (got) {
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(response, "pong");
  }
  EXPECT_TRUE(log.Records().empty());
}

}  // namespace
}  // namespace velmora
