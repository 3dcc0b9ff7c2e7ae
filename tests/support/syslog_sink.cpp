// velmora_syslog_sink: a minimal syslog daemon for the hermetic test runner.
//
//   velmora_syslog_sink SOCKET_PATH LOG_FILE
//
// Binds an AF_UNIX datagram socket at SOCKET_PATH (replacing whatever is
// there) and appends every datagram it receives to LOG_FILE, followed by one
// '\n'. Each datagram is written with a single write() on an O_APPEND
// descriptor, so lines from concurrent senders never interleave. SIGTERM or
// SIGINT makes it write out what is already queued, remove the socket and
// exit 0.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

constexpr size_t kMaxDatagram = 64 * 1024;

int Fail(const char* what) {
  std::fprintf(stderr, "velmora_syslog_sink: %s: %s\n", what, std::strerror(errno));
  return 1;
}

// Appends one record (datagram bytes + '\n') with a single write(). Only a
// short write (disk full and the like) falls back to writing the remainder.
bool AppendRecord(int fd, const char* data, size_t len) {
  while (len > 0) {
    ssize_t n = write(fd, data, len);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

// Reads every datagram queued on `sock`. Returns false on a write error.
bool Drain(int sock, int out, std::vector<char>& buf) {
  for (;;) {
    ssize_t n = recv(sock, buf.data(), kMaxDatagram, MSG_DONTWAIT | MSG_TRUNC);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno == EAGAIN || errno == EWOULDBLOCK;
    }
    // MSG_TRUNC reports the real length; anything beyond our buffer is lost.
    size_t len = static_cast<size_t>(n) > kMaxDatagram ? kMaxDatagram : static_cast<size_t>(n);
    buf[len] = '\n';
    if (!AppendRecord(out, buf.data(), len + 1)) return false;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s SOCKET_PATH LOG_FILE\n", argc > 0 ? argv[0] : "sink");
    return 2;
  }
  const char* socket_path = argv[1];
  const char* log_path = argv[2];

  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  if (sigprocmask(SIG_BLOCK, &stop_signals, nullptr) != 0) return Fail("sigprocmask");
  int sig_fd = signalfd(-1, &stop_signals, SFD_CLOEXEC);
  if (sig_fd < 0) return Fail("signalfd");

  // Open the log first so that the file exists by the time the socket does.
  int out = open(log_path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (out < 0) return Fail(log_path);

  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (std::strlen(socket_path) >= sizeof(addr.sun_path)) {
    std::fprintf(stderr, "velmora_syslog_sink: socket path too long: %s\n", socket_path);
    return 1;
  }
  std::strcpy(addr.sun_path, socket_path);

  int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (sock < 0) return Fail("socket");
  int rcvbuf = 1 << 20;
  setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);  // best effort
  if (unlink(socket_path) != 0 && errno != ENOENT) return Fail(socket_path);
  if (bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return Fail(socket_path);

  std::vector<char> buf(kMaxDatagram + 1);
  pollfd fds[2] = {{sock, POLLIN, 0}, {sig_fd, POLLIN, 0}};
  int status = 0;
  for (;;) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      status = Fail("poll");
      break;
    }
    if ((fds[0].revents & POLLIN) && !Drain(sock, out, buf)) {
      status = Fail(log_path);
      break;
    }
    if (fds[1].revents & POLLIN) {
      if (!Drain(sock, out, buf)) status = Fail(log_path);
      break;
    }
  }
  unlink(socket_path);
  close(sock);
  close(out);
  close(sig_fd);
  return status;
}
