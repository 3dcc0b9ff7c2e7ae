// Many processes and many objects on the file toolkit: eight processes
// taking turns on one key-value file under the exclusive lock guard, 1,000
// rewrites each, while a ninth reads the file without the lock and must
// always find it whole; and 1,000 temporary files made, written, moved or
// dropped, after which nothing but the moved files is left.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <velmora/file.h>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/log_capture.h"
#include "support/test_util.h"

namespace velmora {
namespace test {
namespace {

using sdk::ExclusiveFileLockGuard;
using sdk::FileKeyValue;
using sdk::TempFile;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kTableSize = 64;
constexpr int kWriters = 8;
constexpr int kRounds = 1000;

// Parses a whole decimal number; -1 for anything else.
long long Number(const std::string& text) {
  if (text.empty() || text.size() > 18) return -1;
  long long n = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return -1;
    n = n * 10 + (c - '0');
  }
  return n;
}

// Open descriptors other than sockets (syslog opens its socket at the first
// line logged).
int OpenFileDescriptors() {
  int count = 0;
  for (const std::string& fd : ListDir("/proc/self/fd")) {
    char target[256];
    const std::string link = "/proc/self/fd/" + fd;
    const ssize_t len = readlink(link.c_str(), target, sizeof(target) - 1);
    if (len >= 0 && std::string(target, static_cast<size_t>(len)).rfind("socket:", 0) != 0) {
      ++count;
    }
  }
  return count;
}

TEST(FileStressTest, EightProcessesLoseNoUpdateAndAReaderNeverSeesAPartialFile) {
  ScratchDir dir;
  const std::string path = dir / "counter.conf";
  const std::string lock = dir / "counter.lock";
  ASSERT_TRUE(WriteFile(path, "name=shared\ncounter=0\n"));
  LogCapture capture;

  // The reader, unlocked: every read must succeed and show a counter equal
  // to the sum of the writers' own counts (both change in one rewrite), and
  // never going back. Exit codes: 0 fine, 10+ a broken read; it reports the
  // number of reads through a pipe.
  int report[2];
  ASSERT_EQ(pipe(report), 0);
  pid_t reader = Spawn([&] {
    close(report[0]);
    long long reads = 0, last = 0;
    int rc = 0;
    for (;;) {
      FileKeyValue kv(path);
      if (!kv.ReadKeyValues(kTableSize, "=")) {
        rc = 10;
        break;
      }
      ++reads;
      const long long counter = Number(kv.Get("counter"));
      long long sum = 0;
      for (int w = 0; w < kWriters; ++w) {
        const std::string own = kv.Get("writer" + std::to_string(w));
        const long long n = own.empty() ? 0 : Number(own);
        if (n < 0) rc = 11;
        sum += n;
      }
      if (rc == 0 && (counter < 0 || kv.Get("name") != "shared")) rc = 12;
      if (rc == 0 && counter != sum) rc = 13;
      if (rc == 0 && counter < last) rc = 14;
      if (rc != 0) break;
      last = counter;
      if (counter == kWriters * kRounds) break;
    }
    (void)!write(report[1], &reads, sizeof(reads));
    return rc;
  });
  ASSERT_GT(reader, 0);
  close(report[1]);

  std::vector<pid_t> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.push_back(Spawn([&, w] {
      for (int round = 1; round <= kRounds; ++round) {
        ExclusiveFileLockGuard guard(lock, 60);
        if (guard.fd_ < 0) return 1;
        FileKeyValue kv(path);
        if (!kv.ReadKeyValues(kTableSize, "=")) return 2;
        const long long counter = Number(kv.Get("counter"));
        if (counter < 0) return 3;
        if (!kv.Update("counter", std::to_string(counter + 1))) return 4;
        if (!kv.Update("writer" + std::to_string(w), std::to_string(round))) return 5;
        if (!kv.Write()) return 6;
      }
      return 0;
    }));
    ASSERT_GT(writers.back(), 0);
  }
  for (pid_t writer : writers) EXPECT_EQ(ExitStatusOf(writer), 0);
  EXPECT_EQ(ExitStatusOf(reader), 0);
  long long reads = 0;
  ASSERT_EQ(read(report[0], &reads, sizeof(reads)), static_cast<ssize_t>(sizeof(reads)));
  close(report[0]);
  std::printf("key-value stress: %d writers x %d rounds, %lld unlocked reads\n", kWriters, kRounds,
              reads);
  EXPECT_GT(reads, 0);

  FileKeyValue kv(path);
  ASSERT_TRUE(kv.ReadKeyValues(kTableSize, "="));
  EXPECT_EQ(kv.Get("counter"), std::to_string(kWriters * kRounds));
  for (int w = 0; w < kWriters; ++w) {
    EXPECT_EQ(kv.Get("writer" + std::to_string(w)), std::to_string(kRounds));
  }
  EXPECT_THAT(ListDir(dir.path()), ElementsAre("counter.conf", "counter.lock"));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST(FileStressTest, AThousandTempFilesLeaveOnlyTheMovedOnes) {
  ScratchDir dir;
  ASSERT_TRUE(dir.MountTmpfs("other"));
  const std::string here = dir / "conf";
  const std::string there = dir / "other/conf";
  const int descriptors = OpenFileDescriptors();
  LogCapture capture;
  int moved = 0, dropped = 0;
  {
    // Up to 64 alive at once, destroyed in a shuffled order.
    std::deque<std::unique_ptr<TempFile>> alive;
    for (int i = 0; i < 1000; ++i) {
      auto temp = std::make_unique<TempFile>(i % 2 == 0 ? here : dir / "work");
      ASSERT_TRUE(temp->valid_) << i;
      temp->WriteLine("round=" + std::to_string(i));
      switch (i % 5) {
        case 0:  // replaces the target beside it
          ASSERT_EQ(temp->MoveTo(here), 0) << i;
          ++moved;
          break;
        case 1:  // across file systems
          ASSERT_EQ(temp->MoveTo(there), i == 1 ? 0 : -1) << i;
          // Later copies meet an existing target and fail, logged; the
          // temporary file stays until the object goes.
          ++moved;
          break;
        default:
          ++dropped;
          break;
      }
      alive.push_back(std::move(temp));
      if (alive.size() > 64) {
        if (i % 3 == 0) {
          alive.pop_front();
        } else {
          alive.pop_back();
        }
      }
    }
  }
  EXPECT_EQ(moved + dropped, 1000);
  EXPECT_THAT(ListDir(dir.path()), ElementsAre("conf", "other"));
  EXPECT_THAT(ListDir(dir / "other"), ElementsAre("conf"));
  EXPECT_EQ(ReadFile(here), "round=995\n");
  EXPECT_EQ(ReadFile(there), "round=1\n");
  EXPECT_EQ(OpenFileDescriptors(), descriptors);
  // Each refused cross-device move logged its one line, nothing else.
  const auto records = capture.Records();
  EXPECT_EQ(records.size(), 199u);
  for (const LogRecord& r : records) {
    EXPECT_NE(r.text.find("Rename(by copying) failed while copying: "), std::string::npos)
        << r.text;
    EXPECT_NE(r.text.find(" File exists"), std::string::npos) << r.text;
  }
}

}  // namespace
}  // namespace test
}  // namespace velmora
