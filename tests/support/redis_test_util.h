// Helpers shared by the tests of the Redis clients: replies written by hand
// in the Redis protocol, a stand-in Redis server for reply shapes that Redis
// never sends, a plain hiredis connection for looking at the real server
// from the side, a listener that never answers a connect, and the command
// line of the real redis-server that the tests start inside the runner.
//
// Only valid inside the hermetic test runner (private loopback, so the
// fixed port 8506 belongs to the test). A binary that includes this also
// links redis_test_util.cpp.
#ifndef VELMORA_TESTS_SUPPORT_REDIS_TEST_UTIL_H_
#define VELMORA_TESTS_SUPPORT_REDIS_TEST_UTIL_H_

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <hiredis/hiredis.h>

#include <velmora/backend.h>

#include "gtest/gtest.h"
#include "support/log_capture.h"
#include "support/server_process.h"

namespace velmora {
namespace redis_test {

using Clock = std::chrono::steady_clock;

constexpr char kHost[] = "127.0.0.1";
constexpr int kPort = 8506;
// The names that the Redis tests share.
using backend::RedisClient;
using test::LogCapture;
using test::ServerProcess;

// The time limit the tests give a client's calls.
constexpr int kTimeoutMs = 2000;

using Map = std::unordered_map<std::string, std::string>;

// The real server on kHost:`port`, without persistence, in the foreground.
inline std::vector<std::string> RedisServerCommand(int port = kPort) {
  return {
      REDIS_SERVER_PATH, "--port", std::to_string(port), "--bind", kHost,   "--save",           "",
      "--appendonly",    "no",     "--daemonize",        "no",     "--dir", "/run/velmora-test"};
}

// ---------------------------------------------------------------------------
// Replies written by hand, in the Redis protocol.

// A bulk string.
inline std::string Bulk(const std::string& s) {
  return "$" + std::to_string(s.size()) + "\r\n" + s + "\r\n";
}
// A status reply ("+OK").
inline std::string Status(const std::string& s) { return "+" + s + "\r\n"; }
// An error reply.
inline std::string Error(const std::string& s) { return "-" + s + "\r\n"; }
// An integer reply.
inline std::string Int(long long n) { return ":" + std::to_string(n) + "\r\n"; }
// The nil bulk string.
inline std::string Nil() { return "$-1\r\n"; }
// An array of replies already encoded.
inline std::string Array(const std::vector<std::string>& encoded) {
  std::string out = "*" + std::to_string(encoded.size()) + "\r\n";
  for (const std::string& e : encoded) out += e;
  return out;
}
// An array of bulk strings.
inline std::string BulkArray(const std::vector<std::string>& items) {
  std::vector<std::string> encoded;
  for (const std::string& i : items) encoded.push_back(Bulk(i));
  return Array(encoded);
}
// A SCAN reply: the next cursor and a page of keys.
inline std::string ScanReply(const std::string& cursor, const std::vector<std::string>& keys) {
  return Array({Bulk(cursor), BulkArray(keys)});
}

// `s` in upper case (command names).
inline std::string Upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

// Makes the TCP socket `fd` listen on kHost:`port` (0: a free port) with
// `backlog`; *addr is the address it got. False when any step failed.
inline bool ListenOnLoopback(int fd, int port, int backlog, sockaddr_in* addr) {
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  addr->sin_family = AF_INET;
  addr->sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, kHost, &addr->sin_addr);
  socklen_t len = sizeof(*addr);
  return fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(addr), sizeof(*addr)) == 0 &&
         listen(fd, backlog) == 0 && getsockname(fd, reinterpret_cast<sockaddr*>(addr), &len) == 0;
}

// A stand-in Redis server on 127.0.0.1 (an ephemeral port unless one is
// given). One thread serves every connection with poll(); each request is
// recorded and answered by the handler. A handler that returns nothing
// leaves the default: PONG to a PING, an error to anything else.
class FakeRedis {
 public:
  struct Answer {
    std::string bytes;   // Sent as they are.
    bool close = false;  // Close the connection instead of answering.
    int delay_ms = 0;    // Wait this long before answering.
  };
  // `nth`: how many earlier requests had the same command word.
  using Handler =
      std::function<std::optional<Answer>(const std::vector<std::string>& request, int nth)>;

  explicit FakeRedis(Handler handler, int port = 0) : handler_(std::move(handler)) {
    sockaddr_in addr{};
    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ok_ = ListenOnLoopback(listen_fd_, port, 16, &addr) && pipe2(wake_, O_CLOEXEC) == 0;
    port_ = ntohs(addr.sin_port);
    if (ok_) thread_ = std::thread([this] { Serve(); });
  }

  ~FakeRedis() {
    if (thread_.joinable()) {
      (void)!write(wake_[1], "x", 1);
      thread_.join();
    }
    for (int fd : {listen_fd_, wake_[0], wake_[1]}) {
      if (fd >= 0) close(fd);
    }
  }

  bool ok() const { return ok_; }
  int port() const { return port_; }

  std::vector<std::vector<std::string>> Requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }
  // Requests without the PINGs between them.
  std::vector<std::vector<std::string>> Commands() const {
    std::vector<std::vector<std::string>> out;
    for (auto& r : Requests()) {
      if (Upper(r[0]) != "PING") out.push_back(r);
    }
    return out;
  }
  int Accepted() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return accepted_;
  }
  // Waits until a request with command word `word` arrived.
  bool WaitFor(const std::string& word, std::chrono::milliseconds limit) const {
    const auto deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
      for (auto& r : Requests()) {
        if (Upper(r[0]) == Upper(word)) return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }

 private:
  struct Conn {
    int fd;
    std::string in;
  };

  // One complete request ("*N" of "$len" strings) from the front of `in`.
  static bool Parse(std::string& in, std::vector<std::string>* request) {
    size_t pos = 0;
    auto line = [&](std::string* out) {
      size_t end = in.find("\r\n", pos);
      if (end == std::string::npos) return false;
      *out = in.substr(pos, end - pos);
      pos = end + 2;
      return true;
    };
    std::string head;
    if (!line(&head) || head.empty() || head[0] != '*') return false;
    const long n = std::strtol(head.c_str() + 1, nullptr, 10);
    request->clear();
    for (long k = 0; k < n; ++k) {
      std::string size;
      if (!line(&size) || size.empty() || size[0] != '$') return false;
      const size_t len = std::strtoul(size.c_str() + 1, nullptr, 10);
      if (in.size() < pos + len + 2) return false;
      request->push_back(in.substr(pos, len));
      pos += len + 2;
    }
    in.erase(0, pos);
    return true;
  }

  void Serve() {
    std::vector<Conn> conns;
    std::map<std::string, int> seen;
    for (;;) {
      std::vector<pollfd> fds{{wake_[0], POLLIN, 0}, {listen_fd_, POLLIN, 0}};
      for (auto& c : conns) fds.push_back({c.fd, POLLIN, 0});
      if (poll(fds.data(), fds.size(), -1) < 0) continue;
      if (fds[0].revents != 0) break;
      if (fds[1].revents & POLLIN) {
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
          conns.push_back({fd, ""});
          std::lock_guard<std::mutex> lock(mutex_);
          ++accepted_;
        }
      }
      std::vector<int> closed;
      for (size_t k = 2; k < fds.size(); ++k) {
        if (fds[k].revents == 0) continue;
        Conn& c = conns[k - 2];
        char buf[65536];
        ssize_t got = read(c.fd, buf, sizeof(buf));
        if (got <= 0) {
          closed.push_back(c.fd);
          continue;
        }
        c.in.append(buf, static_cast<size_t>(got));
        std::vector<std::string> request;
        while (Parse(c.in, &request)) {
          {
            std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back(request);
          }
          const int nth = seen[Upper(request[0])]++;
          std::optional<Answer> answer = handler_(request, nth);
          if (!answer) {
            answer = Answer{Upper(request[0]) == "PING" ? Status("PONG") : Error("ERR unknown")};
          }
          if (answer->delay_ms > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(answer->delay_ms));
          }
          if (answer->close) {
            closed.push_back(c.fd);
            break;
          }
          (void)!write(c.fd, answer->bytes.data(), answer->bytes.size());
        }
      }
      for (int fd : closed) {
        close(fd);
        conns.erase(
            std::remove_if(conns.begin(), conns.end(), [fd](const Conn& c) { return c.fd == fd; }),
            conns.end());
      }
    }
    for (auto& c : conns) close(c.fd);
  }

  Handler handler_;
  int listen_fd_ = -1;
  int wake_[2] = {-1, -1};
  int port_ = 0;
  bool ok_ = false;
  std::thread thread_;
  mutable std::mutex mutex_;
  std::vector<std::vector<std::string>> requests_;  // Guarded by mutex_.
  int accepted_ = 0;                                // Guarded by mutex_.
};

using Request = std::vector<std::string>;
using Answer = FakeRedis::Answer;

// ---------------------------------------------------------------------------
// A plain hiredis connection to the real server, for looking around the
// client: binary-safe commands and the server's own counters.

struct ReplyDeleter {
  void operator()(redisReply* r) const { freeReplyObject(r); }
};
using ReplyPtr = std::unique_ptr<redisReply, ReplyDeleter>;

class RawRedis {
 public:
  ~RawRedis() { Close(); }

  bool Connect(int port = kPort) {
    Close();
    ctx_ = redisConnect(kHost, port);
    return ctx_ != nullptr && ctx_->err == 0;
  }
  void Close() {
    if (ctx_ != nullptr) redisFree(ctx_);
    ctx_ = nullptr;
  }

  ReplyPtr Command(const std::vector<std::string>& args) {
    std::vector<const char*> argv;
    std::vector<size_t> lens;
    for (const std::string& a : args) {
      argv.push_back(a.data());
      lens.push_back(a.size());
    }
    return ReplyPtr(static_cast<redisReply*>(
        redisCommandArgv(ctx_, static_cast<int>(argv.size()), argv.data(), lens.data())));
  }
  // The bytes of a string reply; "<nil>" for a nil and "<error>" otherwise.
  std::string Get(const std::string& key) {
    ReplyPtr r = Command({"GET", key});
    if (!r) return "<error>";
    if (r->type == REDIS_REPLY_NIL) return "<nil>";
    if (r->type != REDIS_REPLY_STRING) return "<error>";
    return std::string(r->str, r->len);
  }
  bool Put(const std::string& key, const std::string& value) {
    ReplyPtr r = Command({"SET", key, value});
    return r && r->type == REDIS_REPLY_STATUS;
  }
  long long Integer(const std::vector<std::string>& args) {
    ReplyPtr r = Command(args);
    return r && r->type == REDIS_REPLY_INTEGER ? r->integer : -1;
  }
  long long DbSize() { return Integer({"DBSIZE"}); }

  // Calls of `command` (lower case, e.g. "ping") since the last reset, or
  // another counter of its line ("rejected_calls": refused ones).
  long long Calls(const std::string& command, const std::string& counter = "calls") {
    const std::string stats = Info("commandstats");
    size_t at = stats.find("cmdstat_" + command + ":");
    if (at == std::string::npos) return 0;
    const std::string line = stats.substr(at, stats.find("\r\n", at) - at);
    const std::string head = counter + "=";
    size_t field = line.find(":" + head);
    if (field == std::string::npos) field = line.find("," + head);
    if (field == std::string::npos) return -1;
    return std::strtoll(line.c_str() + field + 1 + head.size(), nullptr, 10);
  }
  // A numeric field of INFO, e.g. "total_connections_received".
  long long Field(const std::string& section, const std::string& field) {
    const std::string info = Info(section);
    const std::string head = "\n" + field + ":";
    size_t at = ("\n" + info).find(head);
    if (at == std::string::npos) return -1;
    return std::strtoll(info.c_str() + at - 1 + head.size(), nullptr, 10);
  }
  // Connections accepted since the last reset, and open now. The server
  // notices a new or closed connection in its own time, after the client's
  // connect or close returned: both wait (up to 3 s) for `expect`, then look
  // once more a little later so that a late extra one is still seen.
  long long Opened() { return Field("stats", "total_connections_received"); }
  long long Opened(long long expect) {
    return Settled([this] { return Field("stats", "total_connections_received"); }, expect);
  }
  long long Connected(long long expect) {
    return Settled([this] { return Field("clients", "connected_clients"); }, expect);
  }
  // Every command counter, for "nothing arrived" checks (INFO and CONFIG
  // are the test's own).
  std::map<std::string, long long> AllCalls() {
    std::map<std::string, long long> out;
    std::istringstream in(Info("commandstats"));
    std::string line;
    while (std::getline(in, line)) {
      size_t colon = line.find(":calls=");
      if (line.rfind("cmdstat_", 0) != 0 || colon == std::string::npos) continue;
      std::string name = line.substr(8, colon - 8);
      const std::string word = name.substr(0, name.find('|'));  // "config|resetstat"
      if (word == "info" || word == "config") continue;
      out[name] = std::strtoll(line.c_str() + colon + 7, nullptr, 10);
    }
    return out;
  }
  bool Reset() {
    ReplyPtr f = Command({"FLUSHALL"});
    ReplyPtr r = Command({"CONFIG", "RESETSTAT"});
    return f && f->type == REDIS_REPLY_STATUS && r && r->type == REDIS_REPLY_STATUS;
  }
  // Number of SCAN calls that a walk of `pattern` without COUNT takes now.
  int ScanWalkLength(const std::string& pattern) {
    std::string cursor = "0";
    int calls = 0;
    do {
      ReplyPtr r = Command({"SCAN", cursor, "MATCH", pattern});
      if (!r || r->type != REDIS_REPLY_ARRAY || r->elements != 2) return -1;
      cursor = r->element[0]->str;
      ++calls;
    } while (cursor != "0");
    return calls;
  }
  // `count` keys "<prefix><i>" with the value "v<i>", by MSET in batches.
  bool Fill(const std::string& prefix, int count) {
    for (int from = 0; from < count; from += 1000) {
      std::vector<std::string> args{"MSET"};
      for (int i = from; i < std::min(count, from + 1000); ++i) {
        args.push_back(prefix + std::to_string(i));
        args.push_back("v" + std::to_string(i));
      }
      ReplyPtr r = Command(args);
      if (!r || r->type != REDIS_REPLY_STATUS) return false;
    }
    return true;
  }

 private:
  static long long Settled(const std::function<long long()>& read, long long expect) {
    const auto deadline = Clock::now() + std::chrono::seconds(3);
    while (read() != expect && Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return read();
  }

  std::string Info(const std::string& section) {
    ReplyPtr r = Command({"INFO", section});
    return r && r->type == REDIS_REPLY_STRING ? std::string(r->str, r->len) : std::string();
  }

  redisContext* ctx_ = nullptr;
};

// Milliseconds since `since`.
inline long long ElapsedMs(Clock::time_point since) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

// A listener on 127.0.0.1 whose accept queue is full and never drained:
// a further connect gets no answer to its SYN and hangs until its time-out.
class BlackHole {
 public:
  explicit BlackHole(int port = 0) {
    sockaddr_in addr{};
    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (!ListenOnLoopback(listen_fd_, port, 0, &addr)) return;
    port_ = ntohs(addr.sin_port);
    // Fill the queue: once a non-blocking connect stays in progress, the
    // queue is full.
    for (int k = 0; k < 8; ++k) {
      int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
      fillers_.push_back(fd);
      if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 &&
          errno == EINPROGRESS) {
        pollfd p{fd, POLLOUT, 0};
        if (poll(&p, 1, 200) == 0) {
          full_ = true;
          break;
        }
      }
    }
  }
  ~BlackHole() {
    for (int fd : fillers_) close(fd);
    if (listen_fd_ >= 0) close(listen_fd_);
  }
  bool full() const { return full_; }
  int port() const { return port_; }

 private:
  int listen_fd_ = -1;
  int port_ = 0;
  bool full_ = false;
  std::vector<int> fillers_;
};

// A suite sharing one real redis-server on kPort, started with the suite
// and emptied (keys and counters) before every test; raw_ is the test's own
// connection to it.
class RealRedisTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    server_ = new test::ServerProcess(RedisServerCommand(),
                                      [] { return test::CanConnectTcp(kHost, kPort); });
  }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }
  void SetUp() override {
    ASSERT_TRUE(server_->Start());
    ASSERT_TRUE(raw_.Connect());
    ASSERT_TRUE(raw_.Reset());
  }

  static inline test::ServerProcess* server_ = nullptr;
  RawRedis raw_;
};

}  // namespace redis_test
}  // namespace velmora

#endif  // VELMORA_TESTS_SUPPORT_REDIS_TEST_UTIL_H_
