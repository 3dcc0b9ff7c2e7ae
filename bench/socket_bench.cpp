// The local socket query client and the setting reader, each beside a plain
// twin doing the same work in the same run.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include <benchmark/benchmark.h>
#include <json/json.h>

#include <velmora/config.h>
#include <velmora/socket.h>

namespace {

constexpr char kSocket[] = "/run/velmora-bench-query.sock";

// A server thread answering every connection with `answer_size` bytes and
// closing it; it reads the request until it has `request_size` bytes.
class AnswerServer {
 public:
  AnswerServer() {
    unlink(kSocket);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, kSocket, sizeof(addr.sun_path) - 1);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd_, 64) != 0) {
      perror("socket_bench: bind");
    }
    thread_ = std::thread([this] { Serve(); });
  }
  ~AnswerServer() {
    stop_ = true;
    shutdown(fd_, SHUT_RDWR);
    thread_.join();
    close(fd_);
    unlink(kSocket);
  }
  void SetAnswer(size_t size) { answer_.assign(size, 'a'); }

 private:
  void Serve() {
    char buf[256];
    while (!stop_) {
      int c = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (c < 0) continue;
      // Requests here are 16 bytes ("get_value x/key1").
      size_t got = 0;
      while (got < 16) {
        ssize_t r = read(c, buf, sizeof(buf));
        if (r <= 0) break;
        got += static_cast<size_t>(r);
      }
      for (size_t at = 0; at < answer_.size();) {
        ssize_t w = write(c, answer_.data() + at, answer_.size() - at);
        if (w <= 0) break;
        at += static_cast<size_t>(w);
      }
      close(c);
    }
  }

  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::string answer_;
  std::thread thread_;
};

AnswerServer* g_server = nullptr;
const std::string kRequest = "get_value x/key1";

void BM_QuerySockServer(benchmark::State& state) {
  g_server->SetAnswer(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    std::string response;
    if (velmora::common::socket::QuerySockServer(kSocket, kRequest, response, 0) != 0 ||
        response.size() != static_cast<size_t>(state.range(0))) {
      state.SkipWithError("query failed");
    }
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

// The same exchange by hand: connect, one send, 256-byte reads until close.
void BM_Raw_QuerySockServer(benchmark::State& state) {
  g_server->SetAnswer(static_cast<size_t>(state.range(0)));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, kSocket, sizeof(addr.sun_path) - 1);
  for (auto _ : state) {
    std::string response;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        send(fd, kRequest.data(), kRequest.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(kRequest.size())) {
      state.SkipWithError("raw exchange failed");
    }
    char buf[256];
    ssize_t r;
    while ((r = recv(fd, buf, sizeof(buf), 0)) > 0) response.append(buf, static_cast<size_t>(r));
    close(fd);
    if (response.size() != static_cast<size_t>(state.range(0))) state.SkipWithError("short");
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

BENCHMARK(BM_QuerySockServer)->Arg(16)->Arg(1024)->Arg(1 << 20)->UseRealTime();
BENCHMARK(BM_Raw_QuerySockServer)->Arg(16)->Arg(1024)->Arg(1 << 20)->UseRealTime();

// action::Get from a tree file of 1,000 members (the service is not there,
// as on a node whose configuration service is down), beside reading and
// parsing the same file with jsoncpp and looking the member up.
constexpr char kTreeDir[] = "/var/packages/Velmora-Server/etc/mailconf.d";
constexpr char kTreeFile[] = "/var/packages/Velmora-Server/etc/mailconf.d/smtp";

bool WriteTree() {
  if (system((std::string("mkdir -p ") + kTreeDir).c_str()) != 0) return false;
  Json::Value root(Json::objectValue);
  for (int i = 0; i < 999; ++i)
    root["smtp/member_" + std::to_string(i)] = "value-" + std::to_string(i);
  root["smtp/smtp_enabled"] = "yes";
  FILE* f = fopen(kTreeFile, "we");
  if (f == nullptr) return false;
  std::string text = Json::writeString(Json::StreamWriterBuilder(), root);
  bool ok = fwrite(text.data(), 1, text.size(), f) == text.size();
  return fclose(f) == 0 && ok;
}

void BM_ActionGetFromFile(benchmark::State& state) {
  if (!WriteTree()) state.SkipWithError("cannot write the tree file");
  velmora::config::KeyTreeStore::instance();
  for (auto _ : state) {
    std::string value;
    if (velmora::config::action::Get("smtp_enabled", value) != 0 || value != "yes") {
      state.SkipWithError("Get failed");
    }
  }
}

void BM_Raw_ActionGetFromFile(benchmark::State& state) {
  if (!WriteTree()) state.SkipWithError("cannot write the tree file");
  for (auto _ : state) {
    std::string value;
    // What Get does besides: the failed connect to the service.
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, "/var/run/velmora_server/local_query.sock", sizeof(addr.sun_path) - 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) {
      state.SkipWithError("a service answers");
    }
    close(fd);
    int in = open(kTreeFile, O_RDONLY | O_CLOEXEC);
    std::string data;
    char buf[65536];
    ssize_t r;
    while ((r = read(in, buf, sizeof(buf))) > 0) data.append(buf, static_cast<size_t>(r));
    close(in);
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    if (!reader->parse(data.data(), data.data() + data.size(), &root, &errors)) {
      state.SkipWithError("parse failed");
    }
    const Json::Value* member = root.find("smtp/smtp_enabled", "smtp/smtp_enabled" + 17);
    value = member != nullptr && member->isString() ? member->asString() : "";
    if (value != "yes") state.SkipWithError("member missing");
  }
}

BENCHMARK(BM_ActionGetFromFile)->UseRealTime();
BENCHMARK(BM_Raw_ActionGetFromFile)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  AnswerServer server;
  g_server = &server;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
