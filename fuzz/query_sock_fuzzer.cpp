// Fuzzes the answer handling of common::socket::QuerySockServer: a server
// thread of this process, on a Unix socket in the scratch directory, reads
// the request, writes the fuzz input as its answer in pieces of fuzzed sizes
// and closes the connection.
//
// Properties: the server receives the request byte for byte and nothing
// more; the call returns 0 and appends the answer, whole and in order, to
// what `response` held before, whether the server closes the connection or
// first only its sending side.
#include <fuzzer/FuzzedDataProvider.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <velmora/socket.h>

#include "fuzz_util.h"

namespace velmora {
namespace fuzz {
namespace {

// How long the server waits for the client at each step, in milliseconds.
constexpr int kServerWaitMs = 10000;

int listen_fd = -1;
std::string socket_path;

// The server thread takes libFuzzer's timer signal (see below), so each of
// its calls is repeated when a signal interrupts it.
bool WaitReadable(int fd) {
  pollfd p{fd, POLLIN, 0};
  int rc;
  do {
    rc = poll(&p, 1, kServerWaitMs);
  } while (rc < 0 && errno == EINTR);
  return rc > 0;
}

// Reads exactly `size` bytes unless the peer stops sending first.
std::string ReadRequest(int fd, size_t size) {
  std::string got;
  char buf[4096];
  while (got.size() < size && WaitReadable(fd)) {
    ssize_t r = read(fd, buf, std::min(sizeof(buf), size - got.size()));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    got.append(buf, static_cast<size_t>(r));
  }
  return got;
}

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t put = send(fd, data, size, MSG_NOSIGNAL);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    data += put;
    size -= static_cast<size_t>(put);
  }
  return true;
}

// One connection: read the request, answer in `pieces`, close. With
// `half_close` the server first ends only its sending side and waits for the
// client to close: the client then sees the same end of the answer, and an
// empty request, which the server cannot wait for, may still be sent after
// the answer (a client whose peer has closed completely cannot send).
void Serve(size_t request_size, const std::string& answer, const std::vector<size_t>& pieces,
           bool half_close, std::string* request, bool* answered) {
  if (!WaitReadable(listen_fd)) return;
  int fd;
  do {
    fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return;
  *request = ReadRequest(fd, request_size);
  size_t at = 0;
  bool ok = true;
  for (size_t piece : pieces) {
    if (!ok || at == answer.size()) break;
    const size_t n = std::min(piece, answer.size() - at);
    ok = WriteAll(fd, answer.data() + at, n);
    at += n;
  }
  if (ok) ok = WriteAll(fd, answer.data() + at, answer.size() - at);
  *answered = ok;
  if (half_close && shutdown(fd, SHUT_WR) == 0) {
    // Whatever the client still sends is a failure the caller sees in
    // `request`; the wait ends when it closes.
    request->append(ReadRequest(fd, SIZE_MAX));
  }
  close(fd);
}

}  // namespace
}  // namespace fuzz
}  // namespace velmora

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  using namespace velmora::fuzz;
  socket_path = Scratch() + "/query.sock";
  listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  VELMORA_FUZZ_CHECK(listen_fd >= 0 && socket_path.size() < sizeof(addr.sun_path),
                     "cannot make a socket at " + socket_path);
  std::memcpy(addr.sun_path, socket_path.c_str(), socket_path.size() + 1);
  VELMORA_FUZZ_CHECK(bind(listen_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
                         listen(listen_fd, 4) == 0,
                     "cannot listen on " + socket_path);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace velmora;
  using namespace velmora::fuzz;
  FuzzedDataProvider in(data, size);
  const std::string request = in.ConsumeRandomLengthString(64);
  const std::string before = in.ConsumeRandomLengthString(16);
  const int timeout = in.ConsumeBool() ? 0 : 10;
  const bool half_close = request.empty() || in.ConsumeBool();
  std::vector<size_t> pieces(in.ConsumeIntegralInRange<size_t>(0, 8));
  for (size_t& piece : pieces) piece = in.ConsumeIntegralInRange<size_t>(1, 700);
  const std::string answer = in.ConsumeRemainingBytesAsString();

  std::string received;
  bool answered = false;
  std::thread server(Serve, request.size(), std::cref(answer), std::cref(pieces), half_close,
                     &received, &answered);
  // libFuzzer's per-input timer raises SIGALRM every few seconds through a
  // handler without SA_RESTART. The client treats an interrupted receive as
  // a failed one (it does not retry), so the timer is kept away from the
  // client's thread during the call; the server thread, made before, still
  // takes it, and the server always ends the exchange within its waits.
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  sigset_t old_mask;
  pthread_sigmask(SIG_BLOCK, &alarm, &old_mask);
  std::string response = before;
  const int rc = common::socket::QuerySockServer(socket_path, request, response, timeout);
  pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
  server.join();

  VELMORA_FUZZ_CHECK(answered, "the server could not answer");
  VELMORA_FUZZ_CHECK(received == request,
                     "request " + Quoted(request) + " arrived as " + Quoted(received));
  VELMORA_FUZZ_CHECK(rc == 0, "QuerySockServer returned " + std::to_string(rc));
  VELMORA_FUZZ_CHECK(response == before + answer, "answer " + Quoted(answer) + " after " +
                                                      Quoted(before) + " gave " + Quoted(response));
  return 0;
}
