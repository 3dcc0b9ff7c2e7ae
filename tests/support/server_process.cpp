#include "support/server_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <iterator>
#include <thread>
#include <utility>

namespace velmora::test {

ServerProcess::ServerProcess(std::vector<std::string> argv, std::function<bool()> ready)
    : argv_(std::move(argv)), ready_(std::move(ready)) {}

ServerProcess::~ServerProcess() { Stop(); }

bool ServerProcess::Start() {
  if (pid_ > 0) return true;
  pid_ = fork();
  if (pid_ < 0) return false;
  if (pid_ == 0) {
    // The server's output would mix with the test's: send it to /dev/null.
    int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
      dup2(null, 0);
      dup2(null, 1);
      dup2(null, 2);
    }
    std::vector<char*> args;
    for (auto& a : argv_) args.push_back(a.data());
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    if (ready_()) return true;
    int status;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  Stop();
  return false;
}

void ServerProcess::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  int status;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  pid_ = -1;
}

void ServerProcess::Kill() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  int status;
  waitpid(pid_, &status, 0);
  pid_ = -1;
}

bool CanConnectTcp(const std::string& host, int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, host.c_str(), &addr.sin_addr);
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
  close(fd);
  return ok;
}

bool CanConnectUnix(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
  close(fd);
  return ok;
}

namespace {

constexpr char kMemcached[] = "/usr/bin/memcached";

std::vector<std::string> Joined(std::vector<std::string> argv, std::vector<std::string> extra) {
  argv.insert(argv.end(), std::make_move_iterator(extra.begin()),
              std::make_move_iterator(extra.end()));
  return argv;
}

}  // namespace

std::unique_ptr<ServerProcess> MemcachedTcpServer(int port, std::vector<std::string> extra) {
  return std::make_unique<ServerProcess>(
      Joined({kMemcached, "-u", "root", "-l", "127.0.0.1", "-p", std::to_string(port), "-U", "0"},
             std::move(extra)),
      [port] { return CanConnectTcp("127.0.0.1", port); });
}

std::unique_ptr<ServerProcess> MemcachedUnixServer(const std::string& path,
                                                   std::vector<std::string> extra) {
  return std::make_unique<ServerProcess>(
      Joined({kMemcached, "-u", "root", "-s", path}, std::move(extra)),
      [path] { return CanConnectUnix(path); });
}

std::string MemcachedPoolOptions(const std::vector<int>& ports) {
  std::string options;
  for (int port : ports) {
    if (!options.empty()) options += " ";
    options += "--SERVER=127.0.0.1:" + std::to_string(port);
  }
  return options;
}

}  // namespace velmora::test
