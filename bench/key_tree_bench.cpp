// Key routing lookups beside a bare std::map doing the same work.
//
// Every BM_<Name> has a twin BM_Raw_<Name>: the same lookup written directly
// against a std::map<std::string, std::string> that holds the same 294 rows
// (cut at the first "-", find, and "tree/key" built by concatenation). The
// ratio of the two is the cost of the library's call.
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include <velmora/config.h>

namespace {

using velmora::config::KeyTreeStore;
using RawMap = std::map<std::string, std::string>;

const std::string kPlainKey = "smtp_enabled";
const std::string kFamilyKey = "peer_info_hostname-node2";
const std::string kUnknownKey = "unknown_setting-node2";

KeyTreeStore* Store() { return KeyTreeStore::instance(); }

// The same rows as the library's table, in a map of the caller's own.
const RawMap& Raw() {
  static const RawMap raw(Store()->keyTree().begin(), Store()->keyTree().end());
  return raw;
}

std::string RawComplete(const RawMap& raw, const std::string& key) {
  const std::string::size_type dash = key.find('-');
  const auto it = dash == std::string::npos ? raw.find(key) : raw.find(key.substr(0, dash + 1));
  if (it == raw.end()) return key;
  return it->second + "/" + key;
}

std::string RawTree(const RawMap& raw, const std::string& key) {
  const std::string::size_type dash = key.find('-');
  const auto it = dash == std::string::npos ? raw.find(key) : raw.find(key.substr(0, dash + 1));
  return it == raw.end() ? std::string() : it->second;
}

void RunKeyComplete(benchmark::State& state, const std::string& key) {
  const KeyTreeStore* store = Store();
  for (auto _ : state) {
    std::string full = store->keyComplete(key);
    benchmark::DoNotOptimize(full);
  }
}

void RunRawKeyComplete(benchmark::State& state, const std::string& key) {
  const RawMap& raw = Raw();
  for (auto _ : state) {
    std::string full = RawComplete(raw, key);
    benchmark::DoNotOptimize(full);
  }
}

void RunTreeGet(benchmark::State& state, const std::string& key) {
  const KeyTreeStore* store = Store();
  for (auto _ : state) {
    std::string tree = store->treeGet(key);
    benchmark::DoNotOptimize(tree);
  }
}

void RunRawTreeGet(benchmark::State& state, const std::string& key) {
  const RawMap& raw = Raw();
  for (auto _ : state) {
    std::string tree = RawTree(raw, key);
    benchmark::DoNotOptimize(tree);
  }
}

void BM_KeyComplete_Plain(benchmark::State& state) { RunKeyComplete(state, kPlainKey); }
void BM_Raw_KeyComplete_Plain(benchmark::State& state) { RunRawKeyComplete(state, kPlainKey); }
void BM_KeyComplete_Family(benchmark::State& state) { RunKeyComplete(state, kFamilyKey); }
void BM_Raw_KeyComplete_Family(benchmark::State& state) { RunRawKeyComplete(state, kFamilyKey); }
void BM_KeyComplete_Unknown(benchmark::State& state) { RunKeyComplete(state, kUnknownKey); }
void BM_Raw_KeyComplete_Unknown(benchmark::State& state) { RunRawKeyComplete(state, kUnknownKey); }

void BM_TreeGet_Plain(benchmark::State& state) { RunTreeGet(state, kPlainKey); }
void BM_Raw_TreeGet_Plain(benchmark::State& state) { RunRawTreeGet(state, kPlainKey); }
void BM_TreeGet_Family(benchmark::State& state) { RunTreeGet(state, kFamilyKey); }
void BM_Raw_TreeGet_Family(benchmark::State& state) { RunRawTreeGet(state, kFamilyKey); }
void BM_TreeGet_Unknown(benchmark::State& state) { RunTreeGet(state, kUnknownKey); }
void BM_Raw_TreeGet_Unknown(benchmark::State& state) { RunRawTreeGet(state, kUnknownKey); }

// Building the whole store (four maps) against building a map of the same
// 294 key rows from rows already in memory.
void BM_Construct(benchmark::State& state) {
  for (auto _ : state) {
    KeyTreeStore store;
    benchmark::DoNotOptimize(store);
  }
}

void BM_Raw_Construct(benchmark::State& state) {
  const std::vector<std::pair<std::string, std::string>> rows(Raw().begin(), Raw().end());
  for (auto _ : state) {
    RawMap map;
    for (const auto& row : rows) map[row.first] = row.second;
    benchmark::DoNotOptimize(map);
  }
}

BENCHMARK(BM_KeyComplete_Plain);
BENCHMARK(BM_Raw_KeyComplete_Plain);
BENCHMARK(BM_KeyComplete_Family);
BENCHMARK(BM_Raw_KeyComplete_Family);
BENCHMARK(BM_KeyComplete_Unknown);
BENCHMARK(BM_Raw_KeyComplete_Unknown);
BENCHMARK(BM_TreeGet_Plain);
BENCHMARK(BM_Raw_TreeGet_Plain);
BENCHMARK(BM_TreeGet_Family);
BENCHMARK(BM_Raw_TreeGet_Family);
BENCHMARK(BM_TreeGet_Unknown);
BENCHMARK(BM_Raw_TreeGet_Unknown);
BENCHMARK(BM_Construct)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Raw_Construct)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
