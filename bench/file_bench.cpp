// Benchmarks of the file toolkit: each library operation runs beside a plain
// POSIX/standard-library twin that does the same work, in the same process,
// so that their ratio can be read off one run.
//
// Names: "<Operation>/<side>/<place>[/<keys>]" where <side> is "lib" (or
// "lib-<variant>") for the library and "raw" for its twin, and <place> is
// "disk" (an ext4 directory, fsync reaches the device) or "tmpfs" (fsync is
// nearly free). scripts/run-benchmarks pairs "lib*" with "raw" by name.
//
// Places: VELMORA_BENCH_DISK_DIR (default: a directory in the build tree) and
// VELMORA_BENCH_TMPFS_DIR (default: /tmp, a tmpfs inside scripts/hermetic-run).
// The file-system type found there is the label of every benchmark and is
// also recorded in the run's context.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include <velmora/file.h>

#ifndef VELMORA_BENCH_DEFAULT_DISK_DIR
#define VELMORA_BENCH_DEFAULT_DISK_DIR "bench-disk"
#endif

namespace {

constexpr long kTmpfsMagic = 0x01021994;

// A directory that the benchmarks of one place work in.
struct Place {
  std::string name;  // "disk" or "tmpfs"
  std::string dir;   // fresh directory, removed at exit
  std::string fs;    // file-system type as the kernel names it
};

std::vector<Place> g_places;

// File-system type of `dir` from the mount table (the longest mount point
// that holds it); the statfs magic number when the table does not say.
std::string FileSystemType(const std::string& dir) {
  std::error_code ec;
  std::string real = std::filesystem::canonical(dir, ec).string();
  if (ec) real = dir;
  std::ifstream mounts("/proc/self/mountinfo");
  std::string line, best_point, best_type;
  while (std::getline(mounts, line)) {
    // Fields: id parent major:minor root mount-point options [optional...] - type source
    std::istringstream in(line);
    std::string id, parent, dev, root, point;
    in >> id >> parent >> dev >> root >> point;
    std::string word;
    while (in >> word && word != "-") {
    }
    std::string type;
    in >> type;
    bool holds = real == point || point == "/" ||
                 (real.compare(0, point.size(), point) == 0 && real[point.size()] == '/');
    if (holds && point.size() >= best_point.size()) {
      best_point = point;
      best_type = type;
    }
  }
  if (!best_type.empty()) return best_type;
  struct statfs sfs;
  if (statfs(dir.c_str(), &sfs) != 0) return "unknown";
  char hex[32];
  std::snprintf(hex, sizeof(hex), "magic-0x%lx", static_cast<long>(sfs.f_type));
  return hex;
}

bool IsTmpfs(const std::string& dir) {
  struct statfs sfs;
  return statfs(dir.c_str(), &sfs) == 0 && static_cast<long>(sfs.f_type) == kTmpfsMagic;
}

// A fresh directory below `base` (created if missing); "" on failure.
std::string MakeRunDir(const std::string& base) {
  std::error_code ec;
  std::filesystem::create_directories(base, ec);
  std::string model = base + "/velmora-bench-XXXXXX";
  std::vector<char> buf(model.begin(), model.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) return std::string();
  return std::string(buf.data());
}

std::string EnvOr(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : fallback;
}

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t put = write(fd, data, size);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    data += put;
    size -= static_cast<size_t>(put);
  }
  return true;
}

bool WriteFile(const std::string& path, const std::string& content) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = WriteAll(fd, content.data(), content.size());
  return close(fd) == 0 && ok;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// fsync of the directory that holds a renamed file, as a careful writer does.
bool SyncDirectory(const std::string& dir) {
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = fsync(fd) == 0;
  return close(fd) == 0 && ok;
}

// Writes `content` to `tmp`, gives it the owner and mode of `st` (when `st` is
// not null), flushes it, renames it to `target` and flushes `dir`.
bool RawReplace(const std::string& dir, const std::string& tmp, const std::string& target,
                const std::string& content, const struct stat* st) {
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  bool ok = true;
  if (st != nullptr) {
    ok = fchown(fd, st->st_uid, st->st_gid) == 0 && fchmod(fd, st->st_mode & 07777) == 0;
  }
  ok = ok && WriteAll(fd, content.data(), content.size()) && fsync(fd) == 0;
  ok = close(fd) == 0 && ok;
  return ok && rename(tmp.c_str(), target.c_str()) == 0 && SyncDirectory(dir);
}

// Temporary files named after `target` that are still in its directory.
int LeftoverTempFiles(const std::string& dir, const std::string& target) {
  std::string prefix = std::filesystem::path(target).filename().string() + "-";
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    std::string name = entry.path().filename().string();
    if (name.compare(0, prefix.size(), prefix) == 0) ++count;
  }
  return count;
}

// --- Rewrite of a two-line settings file ------------------------------------

const std::string kLine1 = "pop3_enable=\"yes\"";
const std::string kLine2 = "pop3_period=\"10\"";

void RewriteLib(benchmark::State& state, const Place& place) {
  const std::string target = place.dir + "/rewrite_lib.conf";
  if (!WriteFile(target, "old\n")) return state.SkipWithError("cannot create the target");
  for (auto _ : state) {
    velmora::sdk::TempFile temp(target);
    temp.WriteLine(kLine1);
    temp.WriteLine(kLine2);
    if (temp.MoveTo(target) != 0) return state.SkipWithError("TempFile::MoveTo failed");
  }
  if (ReadFile(target) != kLine1 + "\n" + kLine2 + "\n") {
    return state.SkipWithError("the target does not hold the two lines");
  }
  if (LeftoverTempFiles(place.dir, target) != 0) {
    return state.SkipWithError("a temporary file was left behind");
  }
  state.SetLabel(place.fs.c_str());
}

void RewriteRaw(benchmark::State& state, const Place& place) {
  const std::string target = place.dir + "/rewrite_raw.conf";
  const std::string tmp = target + ".tmp";
  const std::string content = kLine1 + "\n" + kLine2 + "\n";
  if (!WriteFile(target, "old\n")) return state.SkipWithError("cannot create the target");
  for (auto _ : state) {
    if (!RawReplace(place.dir, tmp, target, content, nullptr)) {
      return state.SkipWithError("plain rewrite failed");
    }
  }
  if (ReadFile(target) != content) return state.SkipWithError("the target is wrong");
  state.SetLabel(place.fs.c_str());
}

// --- Key-value files ---------------------------------------------------------

// "key000000=value-000000-settings" ... : about 32 bytes a line.
std::string KeyValueFile(int64_t keys) {
  std::string text;
  text.reserve(static_cast<size_t>(keys) * 33);
  char line[64];
  for (int64_t i = 0; i < keys; ++i) {
    int n = std::snprintf(line, sizeof(line), "key%06lld=value-%06lld-settings\n",
                          static_cast<long long>(i), static_cast<long long>(i));
    text.append(line, static_cast<size_t>(n));
  }
  return text;
}

std::string KeyAt(int64_t i) {
  char key[32];
  std::snprintf(key, sizeof(key), "key%06lld", static_cast<long long>(i));
  return key;
}

using PlainMap = std::unordered_map<std::string, std::string>;

// The plain parse: one line at a time, split at the first "=".
bool PlainRead(const std::string& path, PlainMap* map) {
  std::ifstream in(path);
  if (!in) return false;
  map->clear();
  map->reserve(1024);  // the table size the library's callers pass
  std::string line;
  while (std::getline(in, line)) {
    std::string::size_type eq = line.find('=');
    if (eq == std::string::npos) continue;
    (*map)[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return !in.bad();
}

// The plain write: same owner and mode as the target, fsync, rename, fsync of
// the directory (what TempFile::MoveTo does).
bool PlainWrite(const std::string& dir, const std::string& path, const PlainMap& map) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  std::string out;
  out.reserve(static_cast<size_t>(st.st_size) + 64);
  for (const auto& [key, value] : map) {
    out.append(key).push_back('=');
    out.append(value).push_back('\n');
  }
  return RawReplace(dir, path + ".tmp", path, out, &st);
}

// Values alternate between two strings of one length, so the file keeps its
// size from one iteration to the next.
const char* UpdatedValue(int64_t round) { return (round & 1) != 0 ? "changed-1" : "changed-2"; }

// Checks the rewritten file: every key still there and the middle one updated.
bool CheckRewritten(const std::string& path, int64_t keys, const std::string& key) {
  PlainMap map;
  if (!PlainRead(path, &map) || static_cast<int64_t>(map.size()) != keys) return false;
  auto it = map.find(key);
  return it != map.end() && it->second.compare(0, 8, "changed-") == 0;
}

void FinishKeyValue(benchmark::State& state, const Place& place, int64_t keys) {
  state.SetComplexityN(keys);
  state.SetItemsProcessed(state.iterations() * keys);
  state.SetLabel(place.fs.c_str());
}

void KeyValueReadLib(benchmark::State& state, const Place& place) {
  const int64_t keys = state.range(0);
  const std::string path = place.dir + "/read_lib_" + std::to_string(keys) + ".conf";
  if (!WriteFile(path, KeyValueFile(keys))) return state.SkipWithError("cannot create file");
  const std::string last = KeyAt(keys - 1);
  for (auto _ : state) {
    velmora::sdk::FileKeyValue kv(path);
    if (!kv.ReadKeyValues(1024, "=")) return state.SkipWithError("ReadKeyValues failed");
    benchmark::DoNotOptimize(kv);
  }
  velmora::sdk::FileKeyValue kv(path);
  if (!kv.ReadKeyValues(1024, "=") || kv.Get(last) != "value-" + last.substr(3) + "-settings") {
    return state.SkipWithError("the last key did not read back");
  }
  FinishKeyValue(state, place, keys);
}

void KeyValueReadRaw(benchmark::State& state, const Place& place) {
  const int64_t keys = state.range(0);
  const std::string path = place.dir + "/read_raw_" + std::to_string(keys) + ".conf";
  if (!WriteFile(path, KeyValueFile(keys))) return state.SkipWithError("cannot create file");
  for (auto _ : state) {
    PlainMap map;
    if (!PlainRead(path, &map)) return state.SkipWithError("plain read failed");
    benchmark::DoNotOptimize(map);
  }
  PlainMap map;
  if (!PlainRead(path, &map) || static_cast<int64_t>(map.size()) != keys) {
    return state.SkipWithError("plain read lost keys");
  }
  FinishKeyValue(state, place, keys);
}

// Update of one key and Write, the file read once before the loop.
void KeyValueWriteLib(benchmark::State& state, const Place& place) {
  const int64_t keys = state.range(0);
  const std::string path = place.dir + "/write_lib_" + std::to_string(keys) + ".conf";
  if (!WriteFile(path, KeyValueFile(keys))) return state.SkipWithError("cannot create file");
  const std::string key = KeyAt(keys / 2);
  velmora::sdk::FileKeyValue kv(path);
  if (!kv.ReadKeyValues(1024, "=")) return state.SkipWithError("ReadKeyValues failed");
  int64_t round = 0;
  for (auto _ : state) {
    if (!kv.Update(key, UpdatedValue(++round))) return state.SkipWithError("Update failed");
    if (!kv.Write()) return state.SkipWithError("Write failed");
  }
  if (!CheckRewritten(path, keys, key) || LeftoverTempFiles(place.dir, path) != 0) {
    return state.SkipWithError("the written file is wrong");
  }
  FinishKeyValue(state, place, keys);
}

void KeyValueWriteRaw(benchmark::State& state, const Place& place) {
  const int64_t keys = state.range(0);
  const std::string path = place.dir + "/write_raw_" + std::to_string(keys) + ".conf";
  if (!WriteFile(path, KeyValueFile(keys))) return state.SkipWithError("cannot create file");
  const std::string key = KeyAt(keys / 2);
  PlainMap map;
  if (!PlainRead(path, &map)) return state.SkipWithError("plain read failed");
  int64_t round = 0;
  for (auto _ : state) {
    map[key] = UpdatedValue(++round);
    if (!PlainWrite(place.dir, path, map)) return state.SkipWithError("plain write failed");
  }
  if (!CheckRewritten(path, keys, key)) return state.SkipWithError("the written file is wrong");
  FinishKeyValue(state, place, keys);
}

// Puts the pristine file (keys in order, as first written) back at `path`
// through a hard link: no data is written. The plain twin writes its keys in
// hash order, and parsing a file in that order is up to twice as fast for
// 100,000 keys (the hash table fills in memory order), so without this both
// sides would not parse the same file.
bool RestorePristine(const std::string& pristine, const std::string& path) {
  const std::string link_name = path + ".restore";
  unlink(link_name.c_str());
  return link(pristine.c_str(), link_name.c_str()) == 0 &&
         rename(link_name.c_str(), path.c_str()) == 0;
}

// The whole cycle of a settings change: read, update one key, write. Every
// round starts from the same file (restored outside the timed part).
void KeyValueCycleLib(benchmark::State& state, const Place& place) {
  const int64_t keys = state.range(0);
  const std::string path = place.dir + "/cycle_lib_" + std::to_string(keys) + ".conf";
  const std::string pristine = path + ".pristine";
  if (!WriteFile(pristine, KeyValueFile(keys))) return state.SkipWithError("cannot create file");
  const std::string key = KeyAt(keys / 2);
  int64_t round = 0;
  for (auto _ : state) {
    state.PauseTiming();
    if (!RestorePristine(pristine, path)) return state.SkipWithError("cannot restore the file");
    state.ResumeTiming();
    velmora::sdk::FileKeyValue kv(path);
    if (!kv.ReadKeyValues(1024, "=")) return state.SkipWithError("ReadKeyValues failed");
    if (!kv.Update(key, UpdatedValue(++round))) return state.SkipWithError("Update failed");
    if (!kv.Write()) return state.SkipWithError("Write failed");
  }
  if (!CheckRewritten(path, keys, key) || LeftoverTempFiles(place.dir, path) != 0) {
    return state.SkipWithError("the written file is wrong");
  }
  FinishKeyValue(state, place, keys);
}

void KeyValueCycleRaw(benchmark::State& state, const Place& place) {
  const int64_t keys = state.range(0);
  const std::string path = place.dir + "/cycle_raw_" + std::to_string(keys) + ".conf";
  const std::string pristine = path + ".pristine";
  if (!WriteFile(pristine, KeyValueFile(keys))) return state.SkipWithError("cannot create file");
  const std::string key = KeyAt(keys / 2);
  int64_t round = 0;
  for (auto _ : state) {
    state.PauseTiming();
    if (!RestorePristine(pristine, path)) return state.SkipWithError("cannot restore the file");
    state.ResumeTiming();
    PlainMap map;
    if (!PlainRead(path, &map)) return state.SkipWithError("plain read failed");
    map[key] = UpdatedValue(++round);
    if (!PlainWrite(place.dir, path, map)) return state.SkipWithError("plain write failed");
  }
  if (!CheckRewritten(path, keys, key)) return state.SkipWithError("the written file is wrong");
  FinishKeyValue(state, place, keys);
}

// --- Lock cycles -------------------------------------------------------------

// True when another open file description cannot take the lock on `path`.
bool HeldElsewhere(const std::string& path) {
  int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return false;
  bool held = flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  close(fd);
  return held;
}

void LockGuardLib(benchmark::State& state, const Place& place) {
  const std::string path = place.dir + "/guard.lock";
  {
    velmora::sdk::ExclusiveFileLockGuard guard(path, 1);
    if (guard.fd_ < 0 || !HeldElsewhere(path)) return state.SkipWithError("guard holds no lock");
  }
  if (HeldElsewhere(path)) return state.SkipWithError("the guard kept its lock");
  for (auto _ : state) {
    velmora::sdk::ExclusiveFileLockGuard guard(path, 1);
    if (guard.fd_ < 0) return state.SkipWithError("the guard took no lock");
  }
  state.SetLabel(place.fs.c_str());
}

void FileLockLib(benchmark::State& state, const Place& place) {
  const std::string path = place.dir + "/filelock.lock";
  velmora::sdk::FileLock lock(path, true);
  if (!lock.Lock() || !HeldElsewhere(path) || !lock.Unlock() || HeldElsewhere(path)) {
    return state.SkipWithError("FileLock does not lock and unlock");
  }
  for (auto _ : state) {
    if (!lock.Lock()) return state.SkipWithError("Lock failed");
    if (!lock.Unlock()) return state.SkipWithError("Unlock failed");
  }
  state.SetLabel(place.fs.c_str());
}

void LockRaw(benchmark::State& state, const Place& place) {
  const std::string path = place.dir + "/raw.lock";
  for (auto _ : state) {
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0 || flock(fd, LOCK_EX) != 0 || flock(fd, LOCK_UN) != 0 || close(fd) != 0) {
      return state.SkipWithError("plain lock cycle failed");
    }
  }
  state.SetLabel(place.fs.c_str());
}

// --- Registration ------------------------------------------------------------

void Register(const std::string& name, void (*fn)(benchmark::State&, const Place&),
              const Place& place, bool per_key) {
  auto* b = benchmark::RegisterBenchmark((name + "/" + place.name).c_str(), fn, place);
  b->UseRealTime()->Unit(benchmark::kMicrosecond);
  if (per_key) b->Arg(100)->Arg(10000)->Arg(100000)->Complexity(benchmark::oN);
}

void RegisterAll() {
  for (const Place& place : g_places) {
    Register("Rewrite2Lines/lib", RewriteLib, place, false);
    Register("Rewrite2Lines/raw", RewriteRaw, place, false);
  }
  for (const Place& place : g_places) {
    // Reading is a page-cache affair: once, on tmpfs.
    if (place.name == "tmpfs") {
      Register("KeyValueRead/lib", KeyValueReadLib, place, true);
      Register("KeyValueRead/raw", KeyValueReadRaw, place, true);
    }
    Register("KeyValueWrite/lib", KeyValueWriteLib, place, true);
    Register("KeyValueWrite/raw", KeyValueWriteRaw, place, true);
    Register("KeyValueCycle/lib", KeyValueCycleLib, place, true);
    Register("KeyValueCycle/raw", KeyValueCycleRaw, place, true);
  }
  for (const Place& place : g_places) {
    Register("LockCycle/lib-guard", LockGuardLib, place, false);
    Register("LockCycle/lib-filelock", FileLockLib, place, false);
    Register("LockCycle/raw", LockRaw, place, false);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  const std::string disk_base = EnvOr("VELMORA_BENCH_DISK_DIR", VELMORA_BENCH_DEFAULT_DISK_DIR);
  const std::string tmpfs_base = EnvOr("VELMORA_BENCH_TMPFS_DIR", "/tmp");
  for (const auto& [name, base] : {std::pair<std::string, std::string>{"disk", disk_base},
                                   std::pair<std::string, std::string>{"tmpfs", tmpfs_base}}) {
    std::string dir = MakeRunDir(base);
    if (dir.empty()) {
      std::fprintf(stderr, "file_bench: cannot make a directory in %s: %s\n", base.c_str(),
                   std::strerror(errno));
      return 1;
    }
    Place place{name, dir, FileSystemType(dir)};
    bool tmpfs = IsTmpfs(dir);
    if ((name == "tmpfs") != tmpfs) {
      std::fprintf(stderr, "file_bench: warning: the %s directory %s is on %s\n", name.c_str(),
                   dir.c_str(), place.fs.c_str());
    }
    benchmark::AddCustomContext(name + "_dir", dir);
    benchmark::AddCustomContext(name + "_fs", place.fs);
    g_places.push_back(place);
  }

  RegisterAll();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  for (const Place& place : g_places) {
    std::error_code ec;
    std::filesystem::remove_all(place.dir, ec);
  }
  return 0;
}
