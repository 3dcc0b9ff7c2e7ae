// A Unix stream server on a thread of its own that accepts one connection
// and hands it to a callback, which decides what to read, write and when to
// close. For tests of the local socket query client and its users.
#ifndef VELMORA_TESTS_SUPPORT_ONE_SHOT_SERVER_H_
#define VELMORA_TESTS_SUPPORT_ONE_SHOT_SERVER_H_

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

namespace velmora::test {

class OneShotServer {
 public:
  // Binds `path` (its directory is created if missing) and serves one
  // connection with `serve(fd)`; `serve` owns and closes fd.
  OneShotServer(const std::string& path, std::function<void(int)> serve) : path_(path) {
    std::string dir = path_.substr(0, path_.rfind('/'));
    std::string cmd = "mkdir -p '" + dir + "'";
    if (std::system(cmd.c_str()) != 0) return;
    unlink(path_.c_str());
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path_.c_str(), sizeof(addr.sun_path) - 1);
    bound_ = bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
             listen(listen_fd_, 4) == 0;
    thread_ = std::thread([this, serve] {
      int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) return;
      serve(fd);
    });
  }
  ~OneShotServer() {
    shutdown(listen_fd_, SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
    if (listen_fd_ >= 0) close(listen_fd_);
    unlink(path_.c_str());
  }
  OneShotServer(const OneShotServer&) = delete;
  OneShotServer& operator=(const OneShotServer&) = delete;

  bool bound() const { return bound_; }

 private:
  std::string path_;
  int listen_fd_ = -1;
  bool bound_ = false;
  std::thread thread_;
};

// Reads up to `n` bytes of request (fewer when the peer stops sending).
inline std::string ReadRequest(int fd, size_t n) {
  std::string got;
  char buf[4096];
  while (got.size() < n) {
    ssize_t r = read(fd, buf, std::min(sizeof(buf), n - got.size()));
    if (r <= 0) break;
    got.append(buf, static_cast<size_t>(r));
  }
  return got;
}

// Reads what the peer sends until it has been quiet for `quiet_ms`: the
// client never closes its side, so silence marks the end of the request.
inline std::string ReadUntilQuiet(int fd, int quiet_ms) {
  std::string got;
  char buf[65536];
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, quiet_ms) <= 0) break;
    ssize_t r = read(fd, buf, sizeof(buf));
    if (r <= 0) break;
    got.append(buf, static_cast<size_t>(r));
  }
  return got;
}

// Writes `data` in pieces of `piece` bytes.
inline void WriteAll(int fd, const std::string& data, size_t piece) {
  for (size_t at = 0; at < data.size();) {
    size_t len = std::min(piece, data.size() - at);
    ssize_t w = write(fd, data.data() + at, len);
    if (w <= 0) return;
    at += static_cast<size_t>(w);
  }
}

}  // namespace velmora::test

#endif  // VELMORA_TESTS_SUPPORT_ONE_SHOT_SERVER_H_
