#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <velmora/common.h>
#include <velmora/socket.h>

#include "lib/log.h"

namespace velmora {
namespace common {
namespace socket {
namespace {
constexpr char kLogModule[] = "src/lib/common/socket";
constexpr size_t kReadSize = 256;
}  // namespace

int QuerySockServer(const std::string& socket_path, const std::string& request,
                    std::string& response, int timeout) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ScopeGuard close_fd([fd] {
    if (fd >= 0) close(fd);
  });
  if (fd < 0) {
    VELMORA_LOG("Failed to open socket %m");
    return -1;
  }

  struct sockaddr_un addr;
  memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  // A longer path is cut to 107 bytes and always ends with a NUL.
  // NOLINTNEXTLINE(cert-err33-c): the cut is wanted
  snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", socket_path.c_str());
  const socklen_t addr_len = static_cast<socklen_t>(strlen(addr.sun_path) + 2);
  if (connect(fd, reinterpret_cast<const struct sockaddr*>(&addr), addr_len) != 0) {
    VELMORA_LOG("failed to connect %m");
    return -1;
  }

  if (timeout > 0) {
    struct timeval tv;
    tv.tv_sec = timeout;
    tv.tv_usec = 0;
    if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) != 0) {
      VELMORA_LOG("failed to set socket timeout");
      return -1;
    }
  }

  // One send; the server recognises the end of the request by itself.
  ssize_t sent = send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  if (sent < 0 || static_cast<size_t>(sent) != request.size()) {
    VELMORA_LOG("Failed to call sendto() %m");
    return -1;
  }

  char buf[kReadSize];
  memset(buf, 0, sizeof(buf));
  for (;;) {
    ssize_t got = recv(fd, buf, sizeof(buf), 0);
    if (got > 0) {
      response.append(buf, static_cast<size_t>(got));
      memset(buf, 0, sizeof(buf));
      continue;
    }
    if (got == 0) return 0;
    response.clear();
    VELMORA_LOG("Failed to call recv() %m");
    return -1;
  }
}

}  // namespace socket
}  // namespace common
}  // namespace velmora
