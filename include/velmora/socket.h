/// @file
/// Client of the suite's local query sockets: one request, then the whole
/// answer read until the server closes the connection.
///
/// Reentrant: every call has its own socket (close-on-exec) and nothing is
/// kept between calls, so it may be called from any thread and in a forked
/// child.
#ifndef VELMORA_SOCKET_H_
#define VELMORA_SOCKET_H_

#include <string>

#include <velmora/export.h>

namespace velmora {
/// Helpers shared by the whole suite.
namespace common {
/// The local socket query client.
namespace socket {

/// Connects to the Unix stream socket at `socket_path` (at most its first 107
/// bytes are used), sends `request` as it is and appends the answer to
/// `response`. `timeout` is in seconds for each send and each receive; 0 or
/// less waits without limit. Returns 0 when the server closed the connection
/// after its answer; -1 on any failure, with one log line. A receive error or
/// time-out clears `response`; other failures leave it untouched.
[[nodiscard]] VELMORA_EXPORT int QuerySockServer(const std::string& socket_path,
                                                 const std::string& request, std::string& response,
                                                 int timeout);

}  // namespace socket
}  // namespace common
}  // namespace velmora

#endif  // VELMORA_SOCKET_H_
