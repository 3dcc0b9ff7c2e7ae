// Benchmarks of the pooled Redis client: each library operation runs beside
// a plain hiredis twin that does the same work on one connection of its own,
// in the same process and against the same server, so that their ratio can
// be read off one run.
//
// Names: "BM_<Operation>" for the library and "BM_Raw_<Operation>" for its
// twin (Google Benchmark appends "/real_time" and "/threads:N");
// scripts/run-benchmarks pairs them by name.
// The twins follow the library's pattern: a PING before every command sent
// on a connection that was already used, then the command.
//
// BM_SentinelSet is the exception: its twin BM_Raw_SentinelSet is the
// library's fixed-address client, so that the pair's ratio is the cost of
// the sentinel-aware client over the fixed one, both once connected.
//
// The program starts its own redis-server (no persistence) on 127.0.0.1:8506
// and one redis-sentinel watching it on 127.0.0.1:26479, and so runs only
// inside scripts/hermetic-run, whose private network namespace owns those
// ports. Pin it with `taskset -c 0`: the server inherits
// the affinity, so client and server share one CPU, which makes round trips
// steady enough to compare.
#include <strings.h>
#include <sys/time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>

#include <velmora/backend.h>

#include "support/server_process.h"

namespace {

constexpr char kHost[] = "127.0.0.1";
constexpr int kPort = 8506;
constexpr int kTimeoutMs = 2000;
constexpr char kServer[] = "/usr/bin/redis-server";
constexpr char kSentinel[] = "/usr/bin/redis-sentinel";
constexpr int kSentinelPort = 26479;
constexpr char kMasterName[] = "mailstore";
constexpr int kMGetKeys = 100;
constexpr int kPatternKeys = 10000;

// The redis-server that every benchmark talks to.
velmora::test::ServerProcess* g_server = nullptr;

struct ReplyDeleter {
  void operator()(redisReply* r) const { freeReplyObject(r); }
};
using ReplyPtr = std::unique_ptr<redisReply, ReplyDeleter>;

// One plain hiredis connection, used the way the library uses its pooled
// ones: PING before each command except the first.
class RawConnection {
 public:
  RawConnection() { Open(); }
  ~RawConnection() { Close(); }

  bool ok() const { return ctx_ != nullptr && ctx_->err == 0; }

  void Open() {
    Close();
    timeval tv{kTimeoutMs / 1000, (kTimeoutMs % 1000) * 1000};
    ctx_ = redisConnectWithTimeout(kHost, kPort, tv);
    used_ = false;
  }
  void Close() {
    if (ctx_ != nullptr) redisFree(ctx_);
    ctx_ = nullptr;
  }

  // PING (when the connection was used before), then the command.
  ReplyPtr Command(const std::vector<std::string>& args) {
    if (used_ && !Ping()) return nullptr;
    used_ = true;
    return Send(args);
  }

  bool Ping() {
    ReplyPtr pong(static_cast<redisReply*>(redisCommand(ctx_, "ping")));
    return pong && pong->type == REDIS_REPLY_STATUS && strcasecmp(pong->str, "pong") == 0;
  }

  ReplyPtr Send(const std::vector<std::string>& args) {
    std::vector<const char*> argv;
    argv.reserve(args.size());
    for (const std::string& a : args) argv.push_back(a.c_str());
    return ReplyPtr(static_cast<redisReply*>(
        redisCommandArgv(ctx_, static_cast<int>(argv.size()), argv.data(), nullptr)));
  }

  redisContext* ctx() { return ctx_; }

 private:
  redisContext* ctx_ = nullptr;
  bool used_ = false;
};

// Stops and starts the server, then runs a first write on a connection of
// its own: a fresh server's first write costs it about a millisecond of its
// own start-up work, which is not the client's reconnect cost.
bool RestartServer() {
  g_server->Stop();
  if (!g_server->Start()) return false;
  RawConnection c;
  ReplyPtr r = c.Send({"SET", "warm-up", "1"});
  return r && r->type == REDIS_REPLY_STATUS;
}

bool Flush() {
  RawConnection c;
  ReplyPtr r = c.Send({"FLUSHALL"});
  return r && r->type == REDIS_REPLY_STATUS;
}

// `count` keys "<prefix><i>" holding 16-byte values.
bool Fill(const std::string& prefix, int count) {
  RawConnection c;
  for (int from = 0; from < count; from += 1000) {
    std::vector<std::string> args{"MSET"};
    for (int i = from; i < std::min(count, from + 1000); ++i) {
      args.push_back(prefix + std::to_string(i));
      args.push_back("value-0123456789");
    }
    ReplyPtr r = c.Send(args);
    if (!r || r->type != REDIS_REPLY_STATUS) return false;
  }
  return true;
}

std::vector<std::string> MGetKeys() {
  std::vector<std::string> keys;
  for (int i = 0; i < kMGetKeys; ++i) keys.push_back("mget:" + std::to_string(i));
  return keys;
}

// ---- SET -------------------------------------------------------------------

// Shared by the threads of one run.
velmora::backend::RedisClient* g_client = nullptr;

// Each thread's Set on g_client, which thread 0 made before the loop and
// frees after it.
void SetOnSharedClient(benchmark::State& state) {
  const std::string key = "set:" + std::to_string(state.thread_index());
  for (auto _ : state) {
    if (!g_client->Set(key, "value-0123456789")) {
      state.SkipWithError("Set failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) {
    delete g_client;
    g_client = nullptr;
  }
}

void BM_Set(benchmark::State& state) {
  if (state.thread_index() == 0) {
    g_client = new velmora::backend::RedisClient(kHost, kPort, kTimeoutMs);
  }
  SetOnSharedClient(state);
}
BENCHMARK(BM_Set)->UseRealTime()->Threads(1)->Threads(2)->Threads(8);

// Each thread its own connection: the twin has no pool to share.
void BM_Raw_Set(benchmark::State& state) {
  RawConnection c;
  if (!c.ok()) state.SkipWithError("connect failed");
  const std::string key = "set:" + std::to_string(state.thread_index());
  for (auto _ : state) {
    ReplyPtr r = c.Command({"SET", key, "value-0123456789"});
    if (!r || r->type == REDIS_REPLY_ERROR) {
      state.SkipWithError("SET failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Raw_Set)->UseRealTime()->Threads(1)->Threads(2)->Threads(8);

// ---- SET through the sentinels' master vs the fixed address ------------------

// Fills the pool with one connection per thread before the timed loop, so
// that neither side times its first connections (nor the sentinel question).
bool Connected(velmora::backend::RedisClient* client, int threads) {
  std::vector<redisContext*> held;
  for (int i = 0; i < threads; ++i) held.push_back(client->AcquireContext());
  bool ok = true;
  for (redisContext* ctx : held) {
    ok = ok && ctx != nullptr;
    client->ReleaseContext(ctx, ctx != nullptr);
  }
  return ok;
}

void RunSet(benchmark::State& state, bool sentinel) {
  if (state.thread_index() == 0) {
    g_client = sentinel ? new velmora::backend::RedisClient(
                              {velmora::backend::RedisAddress{kHost, kSentinelPort}}, kMasterName,
                              kTimeoutMs)
                        : new velmora::backend::RedisClient(kHost, kPort, kTimeoutMs);
    if (!Connected(g_client, state.threads())) state.SkipWithError("connect failed");
  }
  SetOnSharedClient(state);
}

void BM_SentinelSet(benchmark::State& state) { RunSet(state, true); }
BENCHMARK(BM_SentinelSet)->UseRealTime()->Threads(1)->Threads(2)->Threads(8);

// The twin: the fixed-address client of the same master.
void BM_Raw_SentinelSet(benchmark::State& state) { RunSet(state, false); }
BENCHMARK(BM_Raw_SentinelSet)->UseRealTime()->Threads(1)->Threads(2)->Threads(8);

// ---- MGET of 100 keys --------------------------------------------------------

// Other benchmarks empty or restart the server: the keys are stored again
// before each run (by its first thread, before any thread starts timing).
void BM_MGet100(benchmark::State& state) {
  if (state.thread_index() == 0) {
    if (!Fill("mget:", kMGetKeys)) state.SkipWithError("fill failed");
    g_client = new velmora::backend::RedisClient(kHost, kPort, kTimeoutMs);
  }
  const std::vector<std::string> keys = MGetKeys();
  std::unordered_map<std::string, std::string> values;
  for (auto _ : state) {
    if (!g_client->MGet(keys, values, true) || values.size() != keys.size()) {
      state.SkipWithError("MGet failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kMGetKeys);
  if (state.thread_index() == 0) {
    delete g_client;
    g_client = nullptr;
  }
}
BENCHMARK(BM_MGet100)->UseRealTime()->Threads(1)->Threads(2)->Threads(8);

// The same work: PING, MGET, and the values into a map by key.
void BM_Raw_MGet100(benchmark::State& state) {
  if (state.thread_index() == 0 && !Fill("mget:", kMGetKeys)) state.SkipWithError("fill failed");
  RawConnection c;
  if (!c.ok()) state.SkipWithError("connect failed");
  const std::vector<std::string> keys = MGetKeys();
  std::vector<std::string> args{"MGET"};
  args.insert(args.end(), keys.begin(), keys.end());
  std::unordered_map<std::string, std::string> values;
  for (auto _ : state) {
    ReplyPtr r = c.Command(args);
    if (!r || r->type != REDIS_REPLY_ARRAY || r->elements != keys.size()) {
      state.SkipWithError("MGET failed");
      break;
    }
    values.clear();
    for (size_t i = 0; i < r->elements; ++i) {
      const redisReply* e = r->element[i];
      values[keys[i]] = e->type == REDIS_REPLY_STRING ? std::string(e->str, e->len) : "";
    }
    benchmark::DoNotOptimize(values);
  }
  state.SetItemsProcessed(state.iterations() * kMGetKeys);
}
BENCHMARK(BM_Raw_MGet100)->UseRealTime()->Threads(1)->Threads(2)->Threads(8);

// ---- UnlinkByPattern over 10,000 keys ------------------------------------------

// Each iteration refills the keyspace (not timed): half the keys match.
bool RefillPattern() {
  return Flush() && Fill("match:", kPatternKeys / 2) && Fill("other:", kPatternKeys / 2);
}

void BM_UnlinkByPattern10000(benchmark::State& state) {
  velmora::backend::RedisClient client(kHost, kPort, kTimeoutMs);
  for (auto _ : state) {
    state.PauseTiming();
    if (!RefillPattern()) state.SkipWithError("fill failed");
    state.ResumeTiming();
    if (!client.UnlinkByPattern("match:*")) {
      state.SkipWithError("UnlinkByPattern failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kPatternKeys);
}
BENCHMARK(BM_UnlinkByPattern10000)->UseRealTime();

// The same walk on one connection: PING + SCAN until the cursor is 0, then
// PING + one UNLINK of every key collected.
void BM_Raw_UnlinkByPattern10000(benchmark::State& state) {
  RawConnection c;
  if (!c.ok()) state.SkipWithError("connect failed");
  for (auto _ : state) {
    state.PauseTiming();
    if (!RefillPattern()) state.SkipWithError("fill failed");
    state.ResumeTiming();
    std::vector<std::string> unlink{"UNLINK"};
    long cursor = 0;
    bool walked = true;
    do {
      ReplyPtr r = c.Command({"SCAN", std::to_string(cursor), "MATCH", "match:*"});
      if (!r || r->type != REDIS_REPLY_ARRAY || r->elements != 2) {
        walked = false;
        break;
      }
      cursor = std::strtol(r->element[0]->str, nullptr, 10);
      const redisReply* keys = r->element[1];
      for (size_t i = 0; i < keys->elements; ++i) {
        unlink.emplace_back(keys->element[i]->str, keys->element[i]->len);
      }
    } while (cursor > 0);
    ReplyPtr r = walked ? c.Command(unlink) : nullptr;
    if (!r || r->type != REDIS_REPLY_INTEGER || r->integer != kPatternKeys / 2) {
      state.SkipWithError("SCAN or UNLINK failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kPatternKeys);
}
BENCHMARK(BM_Raw_UnlinkByPattern10000)->UseRealTime();

// ---- The first command after a server restart ----------------------------------

// Timed: one Set on a client whose pooled connection died with the old
// server (its PING fails, a new connection is made, SET runs). The restart
// and the server's warm-up are not timed.
void BM_SetAfterRestart(benchmark::State& state) {
  velmora::backend::RedisClient client(kHost, kPort, kTimeoutMs);
  for (auto _ : state) {
    state.PauseTiming();
    const bool used = client.Set("before", "1");
    if (!RestartServer() || !used) state.SkipWithError("restart failed");
    state.ResumeTiming();
    if (!client.Set("k", "value-0123456789")) {
      state.SkipWithError("Set after restart failed");
      break;
    }
  }
}
BENCHMARK(BM_SetAfterRestart)->UseRealTime()->Iterations(30);

// The same work by hand: PING on the dead connection, free it, connect,
// SET.
void BM_Raw_SetAfterRestart(benchmark::State& state) {
  RawConnection c;
  for (auto _ : state) {
    state.PauseTiming();
    if (!c.ok()) c.Open();
    ReplyPtr used = c.Command({"SET", "before", "1"});
    if (!RestartServer() || !used) state.SkipWithError("restart failed");
    state.ResumeTiming();
    if (c.Ping()) {
      state.SkipWithError("old connection still answers");
      break;
    }
    c.Open();
    ReplyPtr r = c.Command({"SET", "k", "value-0123456789"});
    if (!r || r->type == REDIS_REPLY_ERROR) {
      state.SkipWithError("SET after restart failed");
      break;
    }
  }
}
BENCHMARK(BM_Raw_SetAfterRestart)->UseRealTime()->Iterations(30);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const char* hermetic = std::getenv("VELMORA_HERMETIC");
  if (hermetic == nullptr || std::strcmp(hermetic, "1") != 0) {
    std::fprintf(stderr,
                 "%s: refusing to run outside scripts/hermetic-run (it starts redis-server on "
                 "127.0.0.1:%d)\n",
                 argv[0], kPort);
    return 1;
  }
  // The server inherits this process's CPU affinity, so pinning the
  // benchmark pins it too.
  velmora::test::ServerProcess server(
      {kServer, "--port", std::to_string(kPort), "--bind", kHost, "--save", "", "--appendonly",
       "no", "--daemonize", "no", "--dir", "/tmp"},
      [] { return velmora::test::CanConnectTcp(kHost, kPort); });
  g_server = &server;
  if (!server.Start()) {
    std::fprintf(stderr, "%s: could not start %s\n", argv[0], kServer);
    return 1;
  }
  // One sentinel watching the server, for BM_SentinelSet.
  const std::string sentinel_conf = "/tmp/velmora-bench-sentinel.conf";
  {
    std::ofstream conf(sentinel_conf);
    conf << "port " << kSentinelPort << "\nbind " << kHost << "\ndaemonize no\ndir /tmp\n"
         << "sentinel monitor " << kMasterName << " " << kHost << " " << kPort << " 1\n";
  }
  velmora::test::ServerProcess sentinel({kSentinel, sentinel_conf}, [] {
    return velmora::test::CanConnectTcp(kHost, kSentinelPort);
  });
  if (!sentinel.Start()) {
    std::fprintf(stderr, "%s: could not start %s\n", argv[0], kSentinel);
    return 1;
  }
  benchmark::AddCustomContext("redis-server", kServer);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  g_server = nullptr;
  return 0;
}
