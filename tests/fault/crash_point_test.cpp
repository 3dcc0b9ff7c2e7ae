// Writers killed at random moments. A child rewrites files through one of
// the library's write paths in a loop, alternating two versions of different
// sizes; the test kills it (with its whole process group, so a helper program
// it runs dies too) with SIGKILL after a random delay spread over the first
// write of a freshly started writer, then checks what a reader finds:
//
//   - an atomic rewrite leaves the old or the new version, whole, that the
//     library's own reader parses, with the owner and mode the file had;
//   - a copy into a new file (CopyFile, a move across file systems) leaves
//     no file, a prefix of the version being copied, or a whole version;
//   - the temporary files that killed writers leave behind are counted (a
//     kill that finds one landed between the creation of the temporary file
//     and its rename) and then removed, as an operator would.
//
// The seed of the delays is printed first; VELMORA_CRASH_SEED replays it.
// VELMORA_CRASH_KILLS sets the number of kills per operation (default 1000).
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "fault/crash_write_paths.h"
#include "gtest/gtest.h"
#include "support/test_util.h"

namespace velmora {
namespace test {
namespace crash {
namespace {

using Clock = std::chrono::steady_clock;

// State the writer shares with the test through an anonymous shared mapping.
struct SharedState {
  std::atomic<int> phase;
  std::atomic<long> writes_done;
  std::atomic<long> writes_failed;
};

uint64_t SeedFromEnvironment() {
  const char* text = std::getenv("VELMORA_CRASH_SEED");
  if (text != nullptr && *text != '\0') return std::strtoull(text, nullptr, 10);
  std::random_device device;
  return (static_cast<uint64_t>(device()) << 32) ^ device();
}

int KillsFromEnvironment() {
  const char* text = std::getenv("VELMORA_CRASH_KILLS");
  const int kills = text != nullptr ? std::atoi(text) : 0;
  return kills > 0 ? kills : 1000;
}

// Reaps every child and adopted orphan; false when some are still alive
// after `limit`.
bool ReapAll(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    const pid_t got = waitpid(-1, nullptr, WNOHANG);
    if (got > 0) continue;
    if (got < 0 && errno == ECHILD) return true;
    if (Clock::now() > deadline) return false;
    usleep(100);
  }
}

// Waits `delay` from `from`. Short waits spin: a sleep would wake up tens of
// microseconds late and never reach the first writes of an iteration.
void WaitUntil(Clock::time_point from, std::chrono::nanoseconds delay) {
  const auto deadline = from + delay;
  if (delay > std::chrono::microseconds(500)) {
    const auto rest = deadline - Clock::now() - std::chrono::microseconds(100);
    struct timespec ts;
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(rest).count();
    if (ns > 0) {
      ts.tv_sec = static_cast<time_t>(ns / 1000000000);
      ts.tv_nsec = static_cast<long>(ns % 1000000000);
      while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
      }
    }
  }
  while (Clock::now() < deadline) {
  }
}

std::string Describe(const std::string& bytes) {
  std::string shown = bytes.substr(0, 60);
  for (char& c : shown) {
    if (c == '\n') c = '|';
  }
  return std::to_string(bytes.size()) + " bytes \"" + shown + (bytes.size() > 60 ? "...\"" : "\"");
}

struct Figures {
  std::vector<long> kills_in_phase;
  std::vector<long> unfinished_in_phase;  // of those, kills that found the write unfinished
  long kills = 0;
  long whole[2] = {0, 0};
  long missing = 0;
  long partial = 0;
  long with_temp = 0;    // kills after which a temporary file was there
  long with_staged = 0;  // kills after which the writer's staged file was there
  long temps_left = 0;   // temporary files found, all kills together
  long temps_owned = 0;  // of those, already given the target's owner and mode
};

class CrashPointTest : public testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(MakeWritePathTrees(scratch_));
    // Orphaned helpers of a killed writer become this process's children,
    // so that every one of them is known to be gone before the files are
    // looked at.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0), 0);
    // Short sleeps as asked for, not rounded up by 50 µs.
    prctl(PR_SET_TIMERSLACK, 1, 0, 0, 0);
    void* map = mmap(nullptr, sizeof(SharedState), PROT_READ | PROT_WRITE,
                     MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(map, MAP_FAILED);
    shared_ = new (map) SharedState();
  }
  void TearDown() override {
    if (shared_ != nullptr) munmap(shared_, sizeof(SharedState));
    prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0);
  }

  // Starts a writer in a process group of its own that runs `iterations`
  // writes (forever when negative) and then exits; returns its pid once it
  // has started, or -1.
  pid_t StartWriter(const WritePath& path, long iterations) {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) return -1;
    const pid_t pid = fork();
    if (pid < 0) {
      close(ready[0]);
      close(ready[1]);
      return -1;
    }
    if (pid == 0) {
      setpgid(0, 0);
      close(ready[0]);
      const char byte = 1;
      if (write(ready[1], &byte, 1) != 1) _exit(3);
      close(ready[1]);
      int phase = path.first_phase();
      for (long n = 0; iterations < 0 || n < iterations; ++n) {
        shared_->phase.store(phase);
        if (!path.write(phase)) shared_->writes_failed.fetch_add(1);
        shared_->writes_done.fetch_add(1);
        phase = 1 - phase;
      }
      _exit(0);
    }
    setpgid(pid, pid);  // also here, so the kill never misses the group
    close(ready[1]);
    char byte = 0;
    const bool started = read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!started) {
      kill(-pid, SIGKILL);
      ReapAll(std::chrono::seconds(5));
      return -1;
    }
    return pid;
  }

  // Checks every target after a kill and counts what was found; false (with
  // failures added) when a reader would have seen something it must not.
  bool CheckAfterKill(const WritePath& path, long kill_number, Figures* figures, bool* inside) {
    bool ok = true;
    bool bytes_missing = false;
    bool bytes_partial = false;
    for (const auto& target : path.targets) {
      const bool there = PathExists(target.path);
      const std::string bytes = ReadFile(target.path);
      int version = -1;
      for (int v = 0; v < 2; ++v) {
        if (version < 0 && there && bytes == target.content[v]) version = v;
      }
      const std::string where =
          path.name + " kill " + std::to_string(kill_number) + ", " + target.path + ": ";
      if (version >= 0) {
        if (target.path == path.targets[0].path) ++figures->whole[version];
        const FileMeta meta = Meta(target.path);
        if (meta.uid != target.uid || meta.gid != target.gid || meta.mode != target.mode) {
          ADD_FAILURE() << where << "owner " << meta.uid << ":" << meta.gid << " mode " << std::oct
                        << meta.mode << std::dec << ", expected " << target.uid << ":" << target.gid
                        << " mode " << std::oct << target.mode;
          ok = false;
        }
        const int parsed = target.parsed();
        if (parsed != version) {
          ADD_FAILURE() << where << "the reader sees version " << parsed << " in version "
                        << version;
          ok = false;
        }
        continue;
      }
      if (!target.atomic) {
        if (!there) {
          ++figures->missing;
          bytes_missing = true;
          continue;
        }
        bool prefix = false;
        for (int v = 0; v < 2; ++v) {
          prefix = prefix || target.content[v].compare(0, bytes.size(), bytes) == 0;
        }
        if (prefix) {
          ++figures->partial;
          bytes_partial = true;
          continue;
        }
      }
      ADD_FAILURE() << where << (there ? "holds " + Describe(bytes) : std::string("is missing"));
      ok = false;
    }
    bool temp_seen = false;
    for (size_t k = 0; k < path.temp_sites.size(); ++k) {
      const Target& target = path.targets[k];
      for (const auto& temp : TempFilesAt(path.temp_sites[k])) {
        temp_seen = true;
        ++figures->temps_left;
        const FileMeta meta = Meta(temp);
        if (meta.uid == target.uid && meta.gid == target.gid && meta.mode == target.mode) {
          ++figures->temps_owned;
        } else if (!ReadFile(temp).empty()) {
          // Owner and mode are set before anything is written: a left-over
          // temporary file never shows data under other permissions.
          ADD_FAILURE() << path.name << " kill " << kill_number << ": " << temp << " holds data "
                        << "with owner " << meta.uid << ":" << meta.gid << " mode " << std::oct
                        << meta.mode;
          ok = false;
        }
        unlink(temp.c_str());
      }
    }
    if (temp_seen) ++figures->with_temp;
    if (!path.staged.empty() && PathExists(path.staged)) {
      ++figures->with_staged;
      temp_seen = true;
    }
    *inside = temp_seen || (!path.targets[0].atomic && (bytes_missing || bytes_partial));
    return ok;
  }

  ScratchDir scratch_;
  SharedState* shared_ = nullptr;
};

TEST_P(CrashPointTest, KilledWriterLeavesAWholeFile) {
  WritePath path;
  ASSERT_TRUE(FindWritePath(scratch_.path(), GetParam(), &path));
  const uint64_t seed = SeedFromEnvironment();
  std::printf("crash seed for %s: %llu (VELMORA_CRASH_SEED=%llu replays it)\n", path.name.c_str(),
              static_cast<unsigned long long>(seed), static_cast<unsigned long long>(seed));
  std::fflush(stdout);
  RecordProperty("crash_seed", std::to_string(seed));
  ASSERT_TRUE(path.prepare());

  // Calibration: an undisturbed loop of 20 writes has to succeed at every
  // one; then the time a freshly started writer takes for its first write
  // (longer than a later one: the new process still faults its pages in),
  // the mean of five, is the length of the kill window.
  int status = 0;
  const pid_t looper = StartWriter(path, 20);
  ASSERT_GT(looper, 0);
  ASSERT_EQ(waitpid(looper, &status, 0), looper);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  ASSERT_TRUE(ReapAll(std::chrono::seconds(5)));
  Clock::duration first_writes{};
  for (int run = 0; run < 5; ++run) {
    const pid_t writer = StartWriter(path, 1);
    const auto started = Clock::now();
    ASSERT_GT(writer, 0);
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    first_writes += Clock::now() - started;
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    ASSERT_TRUE(ReapAll(std::chrono::seconds(5)));
  }
  const auto iteration = first_writes / 5;
  ASSERT_EQ(shared_->writes_failed.load(), 0);
  shared_->writes_done.store(0);

  // Kill points, in turn of three kinds: drawn evenly from the first
  // iteration and a quarter after the start (a writer starts with the version
  // that is not on disk, so one iteration covers a whole write); evenly on a
  // logarithmic scale from 1 µs to that length (which reaches the short
  // writes at the start of an iteration of a path that then runs a helper
  // program for most of it); and, once there are some, within 25% of one of
  // the last 64 delays whose kill found the write unfinished (a temporary or
  // staged file there, or a copy missing or partial).
  std::mt19937_64 random(seed);
  const double iteration_ns = std::chrono::duration<double, std::nano>(iteration).count();
  std::uniform_real_distribution<double> wide_ns(0, 1.25 * iteration_ns);
  std::uniform_real_distribution<double> log_ns(std::log(1e3),
                                                std::log(std::max(2e3, 1.25 * iteration_ns)));
  std::uniform_real_distribution<double> jitter(0.75, 1.25);
  std::vector<double> hits;
  auto next_delay = [&](long kill) {
    if (kill % 3 == 0) return wide_ns(random);
    if (kill % 3 == 1 || hits.empty()) return std::exp(log_ns(random));
    const size_t pick = std::uniform_int_distribution<size_t>(0, hits.size() - 1)(random);
    return hits[pick] * jitter(random);
  };
  const int kills_wanted = KillsFromEnvironment();
  Figures figures;
  figures.kills_in_phase.assign(path.phase_names.size(), 0);
  figures.unfinished_in_phase.assign(path.phase_names.size(), 0);
  int failures = 0;
  const auto loop_started = Clock::now();
  while (*std::min_element(figures.kills_in_phase.begin(), figures.kills_in_phase.end()) <
         kills_wanted) {
    const pid_t writer = StartWriter(path, -1);
    ASSERT_GT(writer, 0);
    const double delay = next_delay(figures.kills);
    WaitUntil(Clock::now(), std::chrono::nanoseconds(static_cast<int64_t>(delay)));
    ASSERT_EQ(kill(-writer, SIGKILL), 0);
    const int phase = shared_->phase.load();
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    ASSERT_TRUE(ReapAll(std::chrono::seconds(5))) << "a helper of the writer outlived the kill";
    ++figures.kills;
    const size_t phase_index = path.phase_names.size() == 1 ? 0 : static_cast<size_t>(phase);
    ++figures.kills_in_phase[phase_index];
    bool inside = false;
    if (!CheckAfterKill(path, figures.kills, &figures, &inside) && ++failures >= 5) break;
    if (inside) {
      ++figures.unfinished_in_phase[phase_index];
      if (hits.size() == 64) hits.erase(hits.begin());
      hits.push_back(delay);
    }
  }
  const auto loop_time = Clock::now() - loop_started;
  EXPECT_EQ(failures, 0) << "seed " << seed;
  EXPECT_EQ(shared_->writes_failed.load(), 0) << "writes that failed without a kill";
  // The kills have to reach into the writes, not only land between them.
  if (!path.temp_sites.empty()) {
    EXPECT_GT(figures.with_temp, 0);
  }
  if (!path.targets[0].atomic) {
    EXPECT_GT(figures.missing + figures.partial, 0);
  }
  if (path.targets[0].atomic) {
    EXPECT_GT(figures.whole[0], 0);
    EXPECT_GT(figures.whole[1], 0);
  } else {
    // The writer removes the old target before it copies, so a kill finds
    // the old version whole only in that short gap: any whole version will do.
    EXPECT_GT(figures.whole[0] + figures.whole[1], 0);
  }

  std::string phases;
  for (size_t k = 0; k < path.phase_names.size(); ++k) {
    phases += " " + path.phase_names[k] + "=" + std::to_string(figures.kills_in_phase[k]) + " (" +
              std::to_string(figures.unfinished_in_phase[k]) + " unfinished)";
  }
  std::printf(
      "crash %s: %ld kills (%s ), first write of a writer %.0f us, %ld writes completed; first "
      "target whole "
      "old/new %ld/%ld, missing %ld, partial %ld; kills with a temporary file left %ld (%.1f%%), "
      "temporary files left %ld (%ld already with the target's owner and mode); kills with the "
      "staged "
      "file there %ld; %.1f s\n",
      path.name.c_str(), figures.kills, phases.c_str(),
      std::chrono::duration<double, std::micro>(iteration).count(), shared_->writes_done.load(),
      figures.whole[0], figures.whole[1], figures.missing, figures.partial, figures.with_temp,
      100.0 * static_cast<double>(figures.with_temp) / static_cast<double>(figures.kills),
      figures.temps_left, figures.temps_owned, figures.with_staged,
      std::chrono::duration<double>(loop_time).count());
  std::fflush(stdout);
}

INSTANTIATE_TEST_SUITE_P(WritePaths, CrashPointTest,
                         testing::Values("TempFileMoveTo", "TempFileMoveToAcrossFileSystems",
                                         "Rename", "CopyFile", "CopyFileAcrossFileSystems",
                                         "FileKeyValueWrite", "SetVelmoraConfig", "SetPOP3Config",
                                         "ModifyFetchmailrc", "TrackStartTrackStop"),
                         [](const testing::TestParamInfo<std::string>& info) {
                           return info.param;
                         });

}  // namespace
}  // namespace crash
}  // namespace test
}  // namespace velmora
