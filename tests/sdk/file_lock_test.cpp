// Tests of FileLock and ExclusiveFileLockGuard: flock(2) locks on lock files,
// waiting for other holders, the bounded retries of the guard, handing the
// lock file to a user, and the log line of every failure.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stddef.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <velmora/file.h>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/log_capture.h"
#include "support/scratch_test.h"
#include "support/seccomp_util.h"
#include "support/test_util.h"

namespace velmora {
namespace test {

namespace {

using sdk::ExclusiveFileLockGuard;
using sdk::FileLock;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kLocal1Err = LOG_LOCAL1 | LOG_ERR;  // 139
constexpr char kLockModule[] = "src/lib/sdk/file_lock";
constexpr char kGuardModule[] = "src/lib/sdk/file_lock_guard";

// A line of `module` at local1.err.
auto LogLine(const std::string& module, const std::string& message) {
  return LogAt(kLocal1Err, module, message);
}

double SecondsSince(steady_clock::time_point start) {
  return std::chrono::duration<double>(steady_clock::now() - start).count();
}

// True when a lock of kind `operation` (LOCK_SH or LOCK_EX) on `path`, asked
// for through a new open file description, would have to wait.
bool WouldBlock(const std::string& path, int operation) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool blocked = flock(fd, operation | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  close(fd);
  return blocked;
}

// Number of descriptors of this process open on `path`.
int DescriptorsOn(const std::string& path) {
  int count = 0;
  for (const std::string& name : ListDir("/proc/self/fd")) {
    char target[4096];
    std::string link = "/proc/self/fd/" + name;
    ssize_t len = readlink(link.c_str(), target, sizeof(target) - 1);
    if (len > 0 && std::string(target, static_cast<size_t>(len)) == path) ++count;
  }
  return count;
}

// The lowest descriptor number that the next open() would return.
int NextDescriptor() {
  int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (fd >= 0) close(fd);
  return fd;
}

// Waits up to `timeout` for `fd` to become readable (data or end of file).
bool Readable(int fd, milliseconds timeout) {
  const auto deadline = steady_clock::now() + timeout;
  for (;;) {
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
    pollfd p{fd, POLLIN, 0};
    int rc = poll(&p, 1, static_cast<int>(std::max(left.count(), milliseconds::rep{0})));
    if (rc >= 0 || errno != EINTR) return rc > 0;
  }
}

// A child that waits longer than this is stuck: SIGALRM ends it.
constexpr unsigned kChildLimitSeconds = 30;

// Called first in every child, which may have inherited a SIGALRM handler.
void LimitChildTime() {
  signal(SIGALRM, SIG_DFL);
  alarm(kChildLimitSeconds);
}

// Runs `fn` in a forked child with a time limit that exits with fn's result;
// returns its pid.
pid_t SpawnLimited(const std::function<int()>& fn) {
  pid_t pid = fork();
  if (pid == 0) {
    LimitChildTime();
    _exit(fn());
  }
  return pid;
}

// Another process holding a flock(2) lock of kind `operation` on `path` for
// at most `hold`, or until Finish().
class LockHolder {
 public:
  LockHolder(const std::string& path, int operation, milliseconds hold) {
    if (pipe2(ready_, O_CLOEXEC) != 0 || pipe2(release_, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      LimitChildTime();
      close(ready_[0]);
      close(release_[1]);
      int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
      if (fd < 0 || flock(fd, operation) != 0) _exit(1);
      char held = 'h';
      if (write(ready_[1], &held, 1) != 1) _exit(2);
      Readable(release_[0], hold);
      _exit(0);  // Exiting releases the lock.
    }
    close(ready_[1]);
    close(release_[0]);
    ready_[1] = release_[0] = -1;
  }
  ~LockHolder() { Finish(); }

  // True once the child holds the lock.
  bool WaitHeld() {
    char held = 0;
    return pid_ > 0 && Readable(ready_[0], milliseconds(5000)) && read(ready_[0], &held, 1) == 1;
  }
  // Lets the child go and returns its exit status.
  int Finish() {
    if (release_[1] >= 0) close(release_[1]);
    if (ready_[0] >= 0) close(ready_[0]);
    release_[1] = ready_[0] = -1;
    int status = ExitStatusOf(pid_);
    pid_ = -1;
    return status;
  }

 private:
  pid_t pid_ = -1;
  int ready_[2] = {-1, -1};
  int release_[2] = {-1, -1};
};

void IgnoreSignal(int) {}

// Delivers SIGALRM after `delay` (and then every `interval`, if not zero) to
// a handler installed without SA_RESTART, so that a blocking call waiting at
// that moment fails with EINTR. The previous handler comes back with the
// object.
class AlarmInterrupt {
 public:
  explicit AlarmInterrupt(milliseconds delay, milliseconds interval = milliseconds(0)) {
    struct sigaction action {};
    action.sa_handler = IgnoreSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(SIGALRM, &action, &previous_);
    itimerval timer{};
    timer.it_value.tv_sec = static_cast<time_t>(delay.count() / 1000);
    timer.it_value.tv_usec = static_cast<suseconds_t>((delay.count() % 1000) * 1000);
    timer.it_interval.tv_sec = static_cast<time_t>(interval.count() / 1000);
    timer.it_interval.tv_usec = static_cast<suseconds_t>((interval.count() % 1000) * 1000);
    setitimer(ITIMER_REAL, &timer, nullptr);
  }
  ~AlarmInterrupt() {
    itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &previous_, nullptr);
  }

 private:
  struct sigaction previous_ {};
};

// From now on close(fd) fails with `err` in this process, leaving `fd` open:
// a seccomp filter answers that one system call itself. For a forked child
// only (the filter cannot be removed). False if the filter was refused.
bool FailCloseOf(int fd, int err) {
  return InstallSeccomp(SeccompProgram({
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_close, 0, 3),
      // Low half of the first argument (little-endian).
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(fd), 0, 1),
      BPF_STMT(BPF_RET | BPF_K,
               SECCOMP_RET_ERRNO | (static_cast<unsigned>(err) & SECCOMP_RET_DATA)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  }));
}

class FileLockTest : public ScratchDirTest {
 protected:
  // A lock that waits forever here is a failure, not a hang: after 20 s
  // every wait (and every sleep between retries) is interrupted, so Lock()
  // and LockRetry() return false. Tests that set their own alarm replace
  // this one.
  AlarmInterrupt watchdog_{milliseconds(20000), milliseconds(100)};
};

TEST_F(FileLockTest, LockCreatesMissingFileWithModeFromUmask) {
  const std::string path = dir_ / "a.lock";
  const std::string open_path = dir_ / "b.lock";
  LogCapture capture;
  {
    FileLock lock(path, true);
    EXPECT_EQ(lock.fd_, -1);
    EXPECT_FALSE(PathExists(path));  // The constructor opens nothing.
    ASSERT_TRUE(lock.Lock());
    EXPECT_GE(lock.fd_, 0);
    EXPECT_EQ(Meta(path).mode, 0644u);
    EXPECT_EQ(Meta(path).uid, 0u);
    EXPECT_EQ(ReadFile(path), "");
    EXPECT_TRUE(WouldBlock(path, LOCK_SH));
  }
  umask(0);
  {
    FileLock lock(open_path, false);
    ASSERT_TRUE(lock.Lock());
    EXPECT_EQ(Meta(open_path).mode, 0666u);
  }
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileLockTest, LockKeepsExistingFileContents) {
  const std::string path = dir_ / "a.lock";
  ASSERT_TRUE(WriteFile(path, "1234\n", 0600));
  FileLock lock(path, true);
  ASSERT_TRUE(lock.Lock());
  ASSERT_TRUE(lock.Unlock());
  EXPECT_EQ(ReadFile(path), "1234\n");
  EXPECT_EQ(Meta(path).mode, 0600u);
}

TEST_F(FileLockTest, LockTwiceKeepsOneDescriptor) {
  const std::string path = dir_ / "a.lock";
  LogCapture capture;
  FileLock lock(path, true);
  ASSERT_TRUE(lock.Lock());
  const int fd = lock.fd_;
  ASSERT_TRUE(lock.Lock());
  EXPECT_EQ(lock.fd_, fd);
  EXPECT_EQ(DescriptorsOn(path), 1);
  // One Unlock releases it: locks do not count.
  ASSERT_TRUE(lock.Unlock());
  EXPECT_EQ(lock.fd_, -1);
  EXPECT_EQ(DescriptorsOn(path), 0);
  EXPECT_FALSE(WouldBlock(path, LOCK_EX));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileLockTest, UnlockWithoutLockIsTrue) {
  const std::string path = dir_ / "a.lock";
  LogCapture capture;
  {
    FileLock lock(path, true);
    EXPECT_TRUE(lock.Unlock());
    EXPECT_EQ(lock.fd_, -1);
  }
  EXPECT_FALSE(PathExists(path));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileLockTest, UnlockReleasesAndKeepsLockFile) {
  const std::string path = dir_ / "a.lock";
  const std::vector<std::string> before = ListDir(dir_.path());
  LogCapture capture;
  FileLock lock(path, true);
  ASSERT_TRUE(lock.Lock());
  EXPECT_TRUE(WouldBlock(path, LOCK_SH));
  ASSERT_TRUE(lock.Unlock());
  EXPECT_EQ(lock.fd_, -1);
  EXPECT_EQ(DescriptorsOn(path), 0);
  EXPECT_FALSE(WouldBlock(path, LOCK_EX));
  EXPECT_TRUE(PathExists(path));
  EXPECT_THAT(ListDir(dir_.path()), ElementsAre("a.lock"));
  EXPECT_TRUE(before.empty());
  // The cycle may repeat on one object.
  ASSERT_TRUE(lock.Lock());
  EXPECT_TRUE(WouldBlock(path, LOCK_SH));
  ASSERT_TRUE(lock.Unlock());
  EXPECT_FALSE(WouldBlock(path, LOCK_EX));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileLockTest, DestructorReleasesLock) {
  const std::string path = dir_ / "a.lock";
  LogCapture capture;
  {
    FileLock lock(path, true);
    ASSERT_TRUE(lock.Lock());
    EXPECT_TRUE(WouldBlock(path, LOCK_SH));
  }
  EXPECT_FALSE(WouldBlock(path, LOCK_EX));
  EXPECT_EQ(DescriptorsOn(path), 0);
  EXPECT_TRUE(PathExists(path));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileLockTest, EmptyPathFailsWithoutMessage) {
  LogCapture capture;
  FileLock lock("", true);
  EXPECT_FALSE(lock.Lock());
  EXPECT_EQ(lock.fd_, -1);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileLockTest, MissingDirectoryFailsOpen) {
  const std::string path = dir_ / "missing/a.lock";
  LogCapture capture;
  {
    FileLock lock(path, true);
    EXPECT_FALSE(lock.Lock());
    EXPECT_EQ(lock.fd_, -1);
  }
  EXPECT_FALSE(PathExists(dir_ / "missing"));
  EXPECT_THAT(capture.Records(), ElementsAre(LogLine(kLockModule, "Open file(" + path + ") fail")));
}

TEST_F(FileLockTest, ExclusiveLockWaitsForHolderInAnotherProcess) {
  const std::string path = dir_ / "a.lock";
  LogCapture capture;
  LockHolder holder(path, LOCK_EX, milliseconds(1000));
  ASSERT_TRUE(holder.WaitHeld());
  FileLock lock(path, true);
  const auto start = steady_clock::now();
  ASSERT_TRUE(lock.Lock());
  const double waited = SecondsSince(start);
  EXPECT_GE(waited, 0.8);
  EXPECT_LT(waited, 5.0);
  EXPECT_EQ(holder.Finish(), 0);
  EXPECT_TRUE(WouldBlock(path, LOCK_SH));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileLockTest, SharedLockWaitsForExclusiveHolder) {
  const std::string path = dir_ / "a.lock";
  LockHolder holder(path, LOCK_EX, milliseconds(1000));
  ASSERT_TRUE(holder.WaitHeld());
  FileLock lock(path, false);
  const auto start = steady_clock::now();
  ASSERT_TRUE(lock.Lock());
  EXPECT_GE(SecondsSince(start), 0.8);
  EXPECT_EQ(holder.Finish(), 0);
  EXPECT_FALSE(WouldBlock(path, LOCK_SH));
  EXPECT_TRUE(WouldBlock(path, LOCK_EX));
}

TEST_F(FileLockTest, SharedLocksCoexistAndExclusiveWaitsForBoth) {
  const std::string path = dir_ / "a.lock";
  LogCapture capture;
  FileLock first(path, false);
  FileLock second(path, false);
  ASSERT_TRUE(first.Lock());
  ASSERT_TRUE(second.Lock());
  EXPECT_NE(first.fd_, second.fd_);
  EXPECT_FALSE(WouldBlock(path, LOCK_SH));
  EXPECT_TRUE(WouldBlock(path, LOCK_EX));

  int got[2];
  ASSERT_EQ(pipe2(got, O_CLOEXEC), 0);
  const int shared_fds[2] = {first.fd_, second.fd_};
  pid_t child = SpawnLimited([&] {
    close(got[0]);
    // The inherited descriptors are the parent's business.
    close(shared_fds[0]);
    close(shared_fds[1]);
    FileLock exclusive(path, true);
    if (!exclusive.Lock()) return 1;
    char done = 'x';
    return write(got[1], &done, 1) == 1 ? 0 : 2;
  });
  ASSERT_GT(child, 0);
  close(got[1]);

  EXPECT_FALSE(Readable(got[0], milliseconds(500)));
  ASSERT_TRUE(first.Unlock());
  EXPECT_FALSE(Readable(got[0], milliseconds(500)));
  ASSERT_TRUE(second.Unlock());
  EXPECT_TRUE(Readable(got[0], milliseconds(5000)));
  close(got[0]);
  EXPECT_EQ(ExitStatusOf(child), 0);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileLockTest, UnlockReleasesLockSharedWithForkedChild) {
  const std::string path = dir_ / "a.lock";
  FileLock lock(path, true);
  ASSERT_TRUE(lock.Lock());
  int release[2];
  ASSERT_EQ(pipe2(release, O_CLOEXEC), 0);
  // The child keeps the inherited descriptor open until told to go.
  pid_t child = SpawnLimited([&] {
    close(release[1]);
    Readable(release[0], milliseconds(10000));
    return 0;
  });
  ASSERT_GT(child, 0);
  close(release[0]);
  EXPECT_TRUE(WouldBlock(path, LOCK_SH));
  ASSERT_TRUE(lock.Unlock());
  EXPECT_FALSE(WouldBlock(path, LOCK_EX));
  close(release[1]);
  EXPECT_EQ(ExitStatusOf(child), 0);
}

TEST_F(FileLockTest, InterruptedWaitFailsWithClosedDescriptor) {
  const std::string path = dir_ / "a.lock";
  LockHolder holder(path, LOCK_EX, milliseconds(10000));
  ASSERT_TRUE(holder.WaitHeld());
  LogCapture capture;
  FileLock lock(path, true);
  const int fd = NextDescriptor();
  bool locked;
  const auto start = steady_clock::now();
  {
    AlarmInterrupt alarm(milliseconds(300));
    locked = lock.Lock();
  }
  EXPECT_FALSE(locked);
  EXPECT_GE(SecondsSince(start), 0.25);  // It did wait until the signal.
  EXPECT_EQ(lock.fd_, -1);
  EXPECT_EQ(DescriptorsOn(path), 0);
  EXPECT_EQ(holder.Finish(), 0);
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogLine(kLockModule,
                                  "Get file lock(" + std::to_string(fd) + ") fail, close(0)")));
}

TEST_F(FileLockTest, FailedUnlockKeepsDescriptorAndDestructorReports) {
  const std::string path = dir_ / "a.lock";
  LogCapture capture;
  int fd = -1;
  {
    FileLock lock(path, true);
    ASSERT_TRUE(lock.Lock());
    fd = lock.fd_;
    // Put a descriptor that flock(2) rejects (EBADF) at the same number: an
    // O_PATH descriptor of the same file.
    int path_only = open(path.c_str(), O_PATH | O_CLOEXEC);
    ASSERT_GE(path_only, 0);
    ASSERT_EQ(dup2(path_only, fd), fd);
    close(path_only);

    EXPECT_FALSE(lock.Unlock());
    EXPECT_EQ(lock.fd_, fd);
    EXPECT_THAT(capture.Records(),
                ElementsAre(LogLine(kLockModule, "Unlock file (" + std::to_string(fd) + ") fail")));
    capture.Reset();
  }
  // The destructor tried again and reported it; the descriptor stayed open.
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogLine(kLockModule, "Unlock file (" + std::to_string(fd) + ") fail"),
                          LogLine(kLockModule, "Release lock fail when guard destruct: " + path)));
  EXPECT_NE(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(FileLockTest, FailedCloseKeepsDescriptorAndDestructorReports) {
  if (kAuditArch == 0) GTEST_SKIP() << "no seccomp architecture constant for this machine";
  const std::string path = dir_ / "a.lock";
  LogCapture capture;
  // In a child, because the close(2) failure is injected there for good.
  pid_t child = SpawnLimited([&] {
    int status = 0;
    {
      FileLock lock(path, true);
      if (!lock.Lock()) return 10;
      const int fd = lock.fd_;
      if (!FailCloseOf(fd, EIO)) return 11;
      if (lock.Unlock()) status |= 1;
      if (lock.fd_ != fd) status |= 2;
      // flock(LOCK_UN) itself went through: the lock is free.
      if (WouldBlock(path, LOCK_EX)) status |= 4;
    }
    return status;
  });
  ASSERT_EQ(ExitStatusOf(child), 0);
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogLine(kLockModule, "Close file (" + path + ") fail"),
                          LogLine(kLockModule, "Close file (" + path + ") fail"),
                          LogLine(kLockModule, "Release lock fail when guard destruct: " + path)));
}

TEST_F(FileLockTest, GuardWithZeroRetriesNeverLocks) {
  const std::string path = dir_ / "a.lock";
  LogCapture capture;
  {
    ExclusiveFileLockGuard guard(path, 0);
    EXPECT_EQ(guard.fd_, -1);
    EXPECT_FALSE(guard.LockRetry());
    EXPECT_EQ(guard.fd_, -1);
    // Not a single attempt: the file was not even created.
    EXPECT_FALSE(PathExists(path));
  }
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileLockTest, GuardLocksFreeFileAtOnce) {
  const std::string path = dir_ / "a.lock";
  LogCapture capture;
  {
    const auto start = steady_clock::now();
    ExclusiveFileLockGuard guard(path, 60);
    EXPECT_LT(SecondsSince(start), 0.5);
    ASSERT_GE(guard.fd_, 0);
    EXPECT_TRUE(WouldBlock(path, LOCK_SH));
    const int fd = guard.fd_;
    EXPECT_TRUE(guard.LockRetry());
    EXPECT_EQ(guard.fd_, fd);
    EXPECT_EQ(DescriptorsOn(path), 1);
  }
  EXPECT_FALSE(WouldBlock(path, LOCK_EX));
  EXPECT_EQ(DescriptorsOn(path), 0);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileLockTest, GuardWaitsForHolderInAnotherProcess) {
  const std::string path = dir_ / "a.lock";
  LogCapture capture;
  LockHolder holder(path, LOCK_EX, milliseconds(1000));
  ASSERT_TRUE(holder.WaitHeld());
  const auto start = steady_clock::now();
  ExclusiveFileLockGuard guard(path, 60);
  const double waited = SecondsSince(start);
  EXPECT_GE(guard.fd_, 0);
  EXPECT_GE(waited, 0.8);
  EXPECT_LT(waited, 5.0);
  EXPECT_EQ(holder.Finish(), 0);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileLockTest, GuardWithThreeRetriesTriesFourTimesOneSecondApart) {
  const std::string path = dir_ / "missing/a.lock";
  const std::string failed = "Open file(" + path + ") fail";
  LogCapture capture;
  const auto start = steady_clock::now();
  {
    ExclusiveFileLockGuard guard(path, 3);
    const double elapsed = SecondsSince(start);
    EXPECT_EQ(guard.fd_, -1);
    EXPECT_GE(elapsed, 2.9);
    EXPECT_LT(elapsed, 4.5);
  }
  EXPECT_FALSE(PathExists(dir_ / "missing"));
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogLine(kLockModule, failed), LogLine(kLockModule, failed),
                          LogLine(kLockModule, failed), LogLine(kLockModule, failed)));
}

TEST_F(FileLockTest, GuardLocksOnceDirectoryAppears) {
  const std::string missing = dir_ / "missing";
  const std::string path = missing + "/a.lock";
  const std::string failed = "Open file(" + path + ") fail";
  // Attempts at about 0 s, 1 s and 2 s; the directory comes at 1.5 s.
  pid_t maker = SpawnLimited([&] {
    usleep(1500 * 1000);
    return mkdir(missing.c_str(), 0755) == 0 ? 0 : 1;
  });
  ASSERT_GT(maker, 0);
  LogCapture capture;
  const auto start = steady_clock::now();
  ExclusiveFileLockGuard guard(path, 3);
  const double elapsed = SecondsSince(start);
  EXPECT_EQ(ExitStatusOf(maker), 0);
  EXPECT_GE(guard.fd_, 0);
  EXPECT_GE(elapsed, 1.9);
  EXPECT_LT(elapsed, 2.9);
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogLine(kLockModule, failed), LogLine(kLockModule, failed)));
}

TEST_F(FileLockTest, GuardRetryCountIsNotUsedUp) {
  const std::string path = dir_ / "missing/a.lock";
  const std::string failed = "Open file(" + path + ") fail";
  LogCapture capture;
  ExclusiveFileLockGuard guard(path, 1);
  EXPECT_EQ(guard.fd_, -1);
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogLine(kLockModule, failed), LogLine(kLockModule, failed)));
  capture.Reset();

  // A later call counts down a fresh copy of the same retry count.
  const auto start = steady_clock::now();
  EXPECT_FALSE(guard.LockRetry());
  const double elapsed = SecondsSince(start);
  EXPECT_GE(elapsed, 0.9);
  EXPECT_LT(elapsed, 2.5);
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogLine(kLockModule, failed), LogLine(kLockModule, failed)));
  capture.Reset();

  ASSERT_EQ(mkdir((dir_ / "missing").c_str(), 0755), 0);
  EXPECT_TRUE(guard.LockRetry());
  EXPECT_GE(guard.fd_, 0);
  EXPECT_TRUE(WouldBlock(path, LOCK_SH));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileLockTest, GuardRetriesInterruptedWaitOneSecondLater) {
  const std::string path = dir_ / "a.lock";
  LockHolder holder(path, LOCK_EX, milliseconds(1500));
  ASSERT_TRUE(holder.WaitHeld());
  LogCapture capture;
  const int fd = NextDescriptor();
  const auto start = steady_clock::now();
  int guard_fd;
  {
    AlarmInterrupt alarm(milliseconds(300));
    ExclusiveFileLockGuard guard(path, 2);
    guard_fd = guard.fd_;
  }
  const double elapsed = SecondsSince(start);
  EXPECT_GE(guard_fd, 0);
  // Interrupted at 0.3 s, a second attempt at 1.3 s, granted at 1.5 s.
  EXPECT_GE(elapsed, 1.2);
  EXPECT_LT(elapsed, 5.0);
  EXPECT_EQ(holder.Finish(), 0);
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogLine(kLockModule,
                                  "Get file lock(" + std::to_string(fd) + ") fail, close(0)")));
}

TEST_F(FileLockTest, GuardianWithoutLockFailsWithoutMessage) {
  const std::string path = dir_ / "a.lock";
  ASSERT_TRUE(WriteFile(path, "", 0644));
  LogCapture capture;
  ExclusiveFileLockGuard guard(path, 0);
  ASSERT_EQ(guard.fd_, -1);
  EXPECT_FALSE(guard.Guardian("Velmora-Server"));
  EXPECT_EQ(Meta(path).uid, 0u);
  EXPECT_EQ(Meta(path).gid, 0u);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileLockTest, GuardianUnknownUserFails) {
  const std::string path = dir_ / "a.lock";
  LogCapture capture;
  ExclusiveFileLockGuard guard(path, 1);
  ASSERT_GE(guard.fd_, 0);
  EXPECT_FALSE(guard.Guardian("no-such-user"));
  EXPECT_EQ(Meta(path).uid, 0u);
  EXPECT_EQ(Meta(path).gid, 0u);
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogLine(kGuardModule, "Get user no-such-user pwd fail")));
}

TEST_F(FileLockTest, GuardianAsRootHandsLockFileToUser) {
  const std::string path = dir_ / "a.lock";
  LogCapture capture;
  ExclusiveFileLockGuard guard(path, 60);
  ASSERT_GE(guard.fd_, 0);
  ASSERT_EQ(Meta(path).uid, 0u);
  EXPECT_TRUE(guard.Guardian("Velmora-Server"));
  EXPECT_EQ(Meta(path).uid, 61000u);
  EXPECT_EQ(Meta(path).gid, 61000u);
  EXPECT_EQ(Meta(path).mode, 0644u);
  // Still locked.
  EXPECT_TRUE(WouldBlock(path, LOCK_SH));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileLockTest, GuardianForAnotherUserNeedsRoot) {
  const std::string path = dir_ / "a.lock";
  LogCapture capture;
  int status = RunAs("vtuser1", [&] {
    LimitChildTime();
    ExclusiveFileLockGuard guard(path, 1);
    if (guard.fd_ < 0) return 10;
    return guard.Guardian("vtuser2") ? 1 : 0;
  });
  EXPECT_EQ(status, 0);
  // The file is vtuser1's own, made by its Lock, and stays so.
  EXPECT_EQ(Meta(path).uid, UidOf("vtuser1"));
  EXPECT_EQ(Meta(path).gid, GidOf("vtuser1"));
  EXPECT_THAT(capture.Records(), ElementsAre(LogLine(kGuardModule, "Wrong user privilege")));
}

TEST_F(FileLockTest, GuardianForItselfTakesUsersPrimaryGroup) {
  const std::string path = dir_ / "a.lock";
  ASSERT_TRUE(WriteFile(path, "", 0644));
  ASSERT_EQ(chown(path.c_str(), UidOf("vtuser1"), 61100), 0);  // vtuser1:vtshared
  LogCapture capture;
  int status = RunAs("vtuser1", [&] {
    LimitChildTime();
    ExclusiveFileLockGuard guard(path, 1);
    if (guard.fd_ < 0) return 10;
    return guard.Guardian("vtuser1") ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Meta(path).uid, 61001u);
  EXPECT_EQ(Meta(path).gid, 61001u);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(FileLockTest, GuardianReportsChownRefusedToNonOwner) {
  // A lock file left by root, open to everyone: vtuser1 can lock it but may
  // not take it over.
  const std::string path = dir_ / "a.lock";
  ASSERT_TRUE(WriteFile(path, "", 0666));
  LogCapture capture;
  int status = RunAs("vtuser1", [&] {
    LimitChildTime();
    ExclusiveFileLockGuard guard(path, 1);
    if (guard.fd_ < 0) return 10;
    return guard.Guardian("vtuser1") ? 1 : 0;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Meta(path).uid, 0u);
  EXPECT_EQ(Meta(path).gid, 0u);
  EXPECT_THAT(capture.Records(), ElementsAre(LogLine(kGuardModule, "Turn owner to vtuser1 fail")));
}

TEST_F(FileLockTest, GuardianReportsChownOnReadOnlyMount) {
  ASSERT_EQ(mkdir((dir_ / "locks").c_str(), 0755), 0);
  const std::string locks = dir_ / "locks";
  const std::string path = locks + "/a.lock";
  ExclusiveFileLockGuard guard(path, 1);
  ASSERT_GE(guard.fd_, 0);
  // Cover the directory with a read-only view of itself. The held descriptor
  // belongs to the mount below, so the remount is not refused as busy.
  ASSERT_EQ(mount(locks.c_str(), locks.c_str(), nullptr, MS_BIND, nullptr), 0);
  struct Unmount {
    std::string dir;
    ~Unmount() { umount2(dir.c_str(), MNT_DETACH); }
  } unmount{locks};
  ASSERT_EQ(mount(nullptr, locks.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
  ASSERT_NE(chown(path.c_str(), 0, 0), 0);
  ASSERT_EQ(errno, EROFS);

  LogCapture capture;
  EXPECT_FALSE(guard.Guardian("Velmora-Server"));
  EXPECT_EQ(Meta(path).uid, 0u);
  EXPECT_EQ(Meta(path).gid, 0u);
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogLine(kGuardModule, "Turn owner to Velmora-Server fail")));
}

}  // namespace
}  // namespace test
}  // namespace velmora
