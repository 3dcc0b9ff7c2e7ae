// The memcached client beside raw libmemcached doing the same work, over TCP,
// over a Unix socket and over a pool of three TCP servers. Starts its own
// five memcached servers (pinned with the benchmark to CPU 0 when run through
// scripts/run-benchmarks).
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <libmemcached/memcached.h>

#include <velmora/memcached.h>

#include "support/server_process.h"

namespace {

using velmora::sdk::Memcached;
using velmora::sdk::MemcachedConfig;
using velmora::sdk::MemcachedData;

constexpr int kPort = 11411;
constexpr char kSocket[] = "/run/velmora-bench-memcached.sock";
constexpr int kMultiKeys = 100;
const std::vector<int> kPoolPorts = {11421, 11422, 11423};
// Keys cycled through by the pool benchmarks, so that every server works.
constexpr int kPoolKeys = 64;
// The options the pool constructor puts before the caller's, and the two
// behaviours it sets after parsing: the raw twin is built the same way.
constexpr char kPoolDefaults[] =
    "--DISTRIBUTION=consistent --REMOVE-FAILED-SERVERS=1 --RETRY-TIMEOUT=2 "
    "--CONNECT-TIMEOUT=1000 --POLL-TIMEOUT=1000";

const std::string kValue(32, 'v');

std::unique_ptr<Memcached> Client(int transport) {
  return transport == 0 ? std::make_unique<Memcached>("127.0.0.1", kPort)
                        : std::make_unique<Memcached>(std::string(kSocket));
}

memcached_st* RawClient(int transport) {
  memcached_st* raw = memcached_create(nullptr);
  if (transport == 0) {
    memcached_server_add(raw, "127.0.0.1", kPort);
  } else {
    memcached_server_add_unix_socket(raw, kSocket);
  }
  return raw;
}

const char* Label(int transport) { return transport == 0 ? "tcp" : "unix"; }

std::vector<std::string> MultiKeys() {
  std::vector<std::string> keys;
  for (int i = 0; i < kMultiKeys; ++i) keys.push_back("multi-key-" + std::to_string(i));
  return keys;
}

void Fill(int transport) {
  memcached_st* raw = RawClient(transport);
  memcached_set(raw, "bench-key", 9, kValue.data(), kValue.size(), 0, 0);
  for (const auto& k : MultiKeys()) {
    memcached_set(raw, k.data(), k.size(), kValue.data(), kValue.size(), 0, 0);
  }
  memcached_free(raw);
}

void BM_Set(benchmark::State& state) {
  auto client = Client(static_cast<int>(state.range(0)));
  MemcachedData item{"bench-key", kValue, 0, 0};
  for (auto _ : state) {
    if (!client->Set(item)) state.SkipWithError("Set failed");
  }
  state.SetLabel(Label(static_cast<int>(state.range(0))));
}

void BM_Raw_Set(benchmark::State& state) {
  memcached_st* raw = RawClient(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    if (memcached_set(raw, "bench-key", 9, kValue.data(), kValue.size(), 0, 0) !=
        MEMCACHED_SUCCESS) {
      state.SkipWithError("memcached_set failed");
    }
  }
  memcached_free(raw);
  state.SetLabel(Label(static_cast<int>(state.range(0))));
}

void BM_Get(benchmark::State& state) {
  Fill(static_cast<int>(state.range(0)));
  auto client = Client(static_cast<int>(state.range(0)));
  MemcachedData out{};
  for (auto _ : state) {
    if (!client->Get("bench-key", out)) state.SkipWithError("Get failed");
    benchmark::DoNotOptimize(out.value.data());
  }
  state.SetLabel(Label(static_cast<int>(state.range(0))));
}

void BM_Raw_Get(benchmark::State& state) {
  Fill(static_cast<int>(state.range(0)));
  memcached_st* raw = RawClient(static_cast<int>(state.range(0)));
  std::string value;
  for (auto _ : state) {
    size_t length = 0;
    uint32_t flags = 0;
    memcached_return_t rc;
    char* got = memcached_get(raw, "bench-key", 9, &length, &flags, &rc);
    if (got == nullptr) state.SkipWithError("memcached_get failed");
    value.assign(got, length);
    free(got);
    benchmark::DoNotOptimize(value.data());
  }
  memcached_free(raw);
  state.SetLabel(Label(static_cast<int>(state.range(0))));
}

void BM_MultiGet100(benchmark::State& state) {
  Fill(static_cast<int>(state.range(0)));
  auto client = Client(static_cast<int>(state.range(0)));
  const auto keys = MultiKeys();
  std::vector<MemcachedData> out;
  for (auto _ : state) {
    out.clear();
    if (!client->MultiGet(keys, out, false) || out.size() != keys.size()) {
      state.SkipWithError("MultiGet failed");
    }
  }
  state.SetItemsProcessed(state.iterations() * kMultiKeys);
  state.SetLabel(Label(static_cast<int>(state.range(0))));
}

void BM_Raw_MultiGet100(benchmark::State& state) {
  Fill(static_cast<int>(state.range(0)));
  memcached_st* raw = RawClient(static_cast<int>(state.range(0)));
  const auto keys = MultiKeys();
  std::vector<const char*> ptrs;
  std::vector<size_t> lengths;
  for (const auto& k : keys) {
    ptrs.push_back(k.data());
    lengths.push_back(k.size());
  }
  std::vector<std::pair<std::string, std::string>> out;
  memcached_result_st result;
  memcached_result_create(raw, &result);
  for (auto _ : state) {
    out.clear();
    if (memcached_mget(raw, ptrs.data(), lengths.data(), ptrs.size()) != MEMCACHED_SUCCESS) {
      state.SkipWithError("memcached_mget failed");
    }
    memcached_return_t rc;
    while (memcached_fetch_result(raw, &result, &rc) != nullptr) {
      out.emplace_back(
          std::string(memcached_result_key_value(&result), memcached_result_key_length(&result)),
          std::string(memcached_result_value(&result), memcached_result_length(&result)));
    }
    if (out.size() != keys.size()) state.SkipWithError("fetch incomplete");
  }
  memcached_result_free(&result);
  memcached_free(raw);
  state.SetItemsProcessed(state.iterations() * kMultiKeys);
  state.SetLabel(Label(static_cast<int>(state.range(0))));
}

std::string PoolServers() { return velmora::test::MemcachedPoolOptions(kPoolPorts); }

memcached_st* RawPool() {
  const std::string options = std::string(kPoolDefaults) + " " + PoolServers();
  memcached_st* raw = memcached(options.data(), options.size());
  if (raw == nullptr) return nullptr;
  memcached_behavior_set(raw, MEMCACHED_BEHAVIOR_SERVER_FAILURE_LIMIT, 1);
  memcached_behavior_set(raw, MEMCACHED_BEHAVIOR_DEAD_TIMEOUT, 2);
  return raw;
}

// The library's pool and the raw one must agree on every behaviour that
// changes the work done, or the two sides do not compare.
bool SameBehaviours(Memcached& pool, memcached_st* raw) {
  for (memcached_behavior_t flag :
       {MEMCACHED_BEHAVIOR_DISTRIBUTION, MEMCACHED_BEHAVIOR_REMOVE_FAILED_SERVERS,
        MEMCACHED_BEHAVIOR_RETRY_TIMEOUT, MEMCACHED_BEHAVIOR_CONNECT_TIMEOUT,
        MEMCACHED_BEHAVIOR_POLL_TIMEOUT, MEMCACHED_BEHAVIOR_SERVER_FAILURE_LIMIT,
        MEMCACHED_BEHAVIOR_DEAD_TIMEOUT, MEMCACHED_BEHAVIOR_NO_BLOCK,
        MEMCACHED_BEHAVIOR_TCP_NODELAY, MEMCACHED_BEHAVIOR_BINARY_PROTOCOL}) {
    uint64_t value = 0;
    if (!pool.BehaviorGet(flag, value) || value != memcached_behavior_get(raw, flag)) return false;
  }
  return memcached_server_count(raw) == kPoolPorts.size();
}

std::vector<std::string> PoolKeys() {
  std::vector<std::string> keys;
  for (int i = 0; i < kPoolKeys; ++i) keys.push_back("pool-key-" + std::to_string(i));
  return keys;
}

void FillPool() {
  memcached_st* raw = RawPool();
  for (const auto& k : PoolKeys()) {
    memcached_set(raw, k.data(), k.size(), kValue.data(), kValue.size(), 0, 0);
  }
  memcached_free(raw);
}

void BM_PoolSet(benchmark::State& state) {
  Memcached pool(MemcachedConfig{PoolServers()});
  memcached_st* raw = RawPool();
  if (raw == nullptr || !SameBehaviours(pool, raw)) state.SkipWithError("pools differ");
  memcached_free(raw);
  std::vector<MemcachedData> items(kPoolKeys);
  const auto keys = PoolKeys();
  for (int i = 0; i < kPoolKeys; ++i) items[i] = MemcachedData{keys[i], kValue, 0, 0};
  size_t next = 0;
  for (auto _ : state) {
    if (!pool.Set(items[next])) state.SkipWithError("Set failed");
    next = (next + 1) % items.size();
  }
  state.SetLabel("pool3");
}

void BM_Raw_PoolSet(benchmark::State& state) {
  memcached_st* raw = RawPool();
  if (raw == nullptr) {
    state.SkipWithError("bad pool options");
    return;
  }
  const auto keys = PoolKeys();
  size_t next = 0;
  for (auto _ : state) {
    const std::string& key = keys[next];
    if (memcached_set(raw, key.data(), key.size(), kValue.data(), kValue.size(), 0, 0) !=
        MEMCACHED_SUCCESS) {
      state.SkipWithError("memcached_set failed");
    }
    next = (next + 1) % keys.size();
  }
  memcached_free(raw);
  state.SetLabel("pool3");
}

void BM_PoolGet(benchmark::State& state) {
  FillPool();
  Memcached pool(MemcachedConfig{PoolServers()});
  const auto keys = PoolKeys();
  MemcachedData out{};
  size_t next = 0;
  for (auto _ : state) {
    if (!pool.Get(keys[next], out)) state.SkipWithError("Get failed");
    benchmark::DoNotOptimize(out.value.data());
    next = (next + 1) % keys.size();
  }
  state.SetLabel("pool3");
}

void BM_Raw_PoolGet(benchmark::State& state) {
  FillPool();
  memcached_st* raw = RawPool();
  if (raw == nullptr) {
    state.SkipWithError("bad pool options");
    return;
  }
  const auto keys = PoolKeys();
  std::string value;
  size_t next = 0;
  for (auto _ : state) {
    const std::string& key = keys[next];
    size_t length = 0;
    uint32_t flags = 0;
    memcached_return_t rc;
    char* got = memcached_get(raw, key.data(), key.size(), &length, &flags, &rc);
    if (got == nullptr) state.SkipWithError("memcached_get failed");
    value.assign(got, length);
    free(got);
    benchmark::DoNotOptimize(value.data());
    next = (next + 1) % keys.size();
  }
  memcached_free(raw);
  state.SetLabel("pool3");
}

// Each library call and its raw twin run back to back for one transport.
BENCHMARK(BM_Set)->Arg(0)->Arg(1);
BENCHMARK(BM_Raw_Set)->Arg(0)->Arg(1);
BENCHMARK(BM_Get)->Arg(0)->Arg(1);
BENCHMARK(BM_Raw_Get)->Arg(0)->Arg(1);
BENCHMARK(BM_MultiGet100)->Arg(0)->Arg(1);
BENCHMARK(BM_Raw_MultiGet100)->Arg(0)->Arg(1);
BENCHMARK(BM_PoolSet);
BENCHMARK(BM_Raw_PoolSet);
BENCHMARK(BM_PoolGet);
BENCHMARK(BM_Raw_PoolGet);

}  // namespace

int main(int argc, char** argv) {
  // The servers inherit this process's CPU affinity, so pinning the
  // benchmark pins them too.
  std::unique_ptr<velmora::test::ServerProcess> tcp =
      velmora::test::MemcachedTcpServer(kPort, {"-t", "1"});
  std::unique_ptr<velmora::test::ServerProcess> unix_socket =
      velmora::test::MemcachedUnixServer(kSocket, {"-t", "1"});
  std::vector<std::unique_ptr<velmora::test::ServerProcess>> pool;
  for (int port : kPoolPorts) pool.push_back(velmora::test::MemcachedTcpServer(port, {"-t", "1"}));
  bool started = tcp->Start() && unix_socket->Start();
  for (auto& server : pool) started = started && server->Start();
  if (!started) {
    fprintf(stderr, "memcached_bench: cannot start memcached\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
