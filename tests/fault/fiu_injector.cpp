#include "fault/fiu_injector.h"

#include <errno.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#define FIU_ENABLE 1
#include <fiu-control.h>
#include <fiu.h>

namespace velmora {
namespace test {
namespace fiu {
namespace {

constexpr char kPreload[] = "/usr/lib/fiu/fiu_posix_preload.so";
constexpr char kReexecMark[] = "VELMORA_FIU_REEXECED";

struct State {
  pid_t pid = 0;
  Plan plan;
  std::vector<int> counts;
  int failed = 0;
};
State state;

int Decide(const char* name, int* /*failnum*/, void** failinfo, unsigned int* /*flags*/) {
  // Children forked by the operation inherit the enabled points; their calls
  // are theirs.
  if (getpid() != state.pid) return 0;
  const auto& points = Points();
  for (size_t i = 0; i < points.size(); ++i) {
    if (std::strcmp(points[i].name, name) != 0) continue;
    const int call = ++state.counts[i];
    if (i == state.plan.point && call == state.plan.occurrence) {
      *failinfo = reinterpret_cast<void*>(static_cast<long>(state.plan.err));
      ++state.failed;
      return 1;
    }
    return 0;
  }
  return 0;
}

bool PreloadInMaps() {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    if (line.find(kPreload) != std::string::npos) return true;
  }
  return false;
}

}  // namespace

const std::vector<Point>& Points() {
  // errnos from each function's manual page that a rewrite on a local file
  // system (or the descriptor and process limits) can really produce.
  static const std::vector<Point> points = {
      {"posix/io/oc/open",
       "open",
       {{EACCES, "directory or file not writable for the caller"},
        {EMFILE, "process descriptor limit reached"},
        {ENFILE, "system-wide file table full"},
        {ENOSPC, "no room for a new inode"},
        {EROFS, "file system remounted read-only"},
        {ENOENT, "directory removed meanwhile"},
        {EINTR, "open interrupted by a signal"}}},
      {"posix/io/rw/read",
       "read",
       {{EIO, "media error while reading"}, {EINTR, "read interrupted by a signal"}}},
      {"posix/io/rw/write",
       "write",
       {{EIO, "write-back error reported at write time"},
        {ENOSPC, "file system full"},
        {EDQUOT, "user's block quota exhausted"},
        {EFBIG, "file size limit (RLIMIT_FSIZE) reached"},
        {EINTR, "write interrupted before any byte"}}},
      {"posix/io/sync/fsync",
       "fsync",
       {{EIO, "write-back failed"},
        {ENOSPC, "no room for the delayed allocation"},
        {EDQUOT, "quota exhausted at write-back"}}},
      {"posix/io/oc/close",
       "close",
       {{EIO, "delayed write error reported at close"},
        {EINTR, "close interrupted by a signal"},
        {ENOSPC, "delayed allocation failed (network file systems)"}}},
      {"posix/io/dir/rename",
       "rename",
       {{EACCES, "directory not writable"},
        {EBUSY, "target in use as a mount point"},
        {EIO, "directory update failed"},
        {ENOSPC, "directory cannot grow"},
        {EROFS, "file system remounted read-only"},
        {EXDEV, "source and target on different mounts"}}},
      {"posix/io/dir/unlink",
       "unlink",
       {{EBUSY, "name in use by the system"},
        {EIO, "directory update failed"},
        {EROFS, "file system remounted read-only"}}},
      {"posix/io/dir/opendir",
       "opendir",
       {{EMFILE, "process descriptor limit reached"}, {ENOMEM, "out of memory"}}},
      {"posix/io/dir/readdir", "readdir", {{EIO, "directory read failed"}}},
      {"posix/io/rw/ftruncate", "ftruncate", {{EIO, "I/O error"}, {EINTR, "interrupted"}}},
      {"posix/io/rw/pwrite", "pwrite", {{EIO, "I/O error"}, {ENOSPC, "file system full"}}},
      {"posix/io/sync/fdatasync", "fdatasync", {{EIO, "write-back failed"}}},
      {"posix/stdio/oc/fopen",
       "fopen",
       {{EACCES, "file not readable"},
        {EMFILE, "process descriptor limit reached"},
        {ENOMEM, "no memory for the stream"}}},
      {"posix/stdio/oc/fclose", "fclose", {{EIO, "delayed write error"}}},
      {"posix/stdio/gp/getline", "getline", {{EIO, "media error while reading"}}},
      {"posix/stdio/gp/getdelim", "getdelim", {{EIO, "media error while reading"}}},
      {"posix/stdio/gp/fgets", "fgets", {{EIO, "media error while reading"}}},
      {"posix/stdio/rw/fread", "fread", {{EIO, "media error while reading"}}},
      {"posix/stdio/rw/fwrite", "fwrite", {{EIO, "I/O error"}, {ENOSPC, "file system full"}}},
      {"posix/stdio/fflush", "fflush", {{EIO, "I/O error"}, {ENOSPC, "file system full"}}},
      {"posix/proc/fork",
       "fork",
       {{EAGAIN, "process limit (RLIMIT_NPROC) reached"}, {ENOMEM, "out of memory"}}},
      {"posix/proc/waitpid",
       "waitpid",
       {{ECHILD, "child already reaped (SIGCHLD ignored)"}, {EINTR, "wait interrupted"}}},
      {"posix/proc/wait", "wait", {{ECHILD, "no child"}, {EINTR, "wait interrupted"}}},
  };
  return points;
}

bool EnsurePreloaded(std::string* why) {
  if (!PreloadInMaps()) {
    if (std::getenv(kReexecMark) != nullptr) {
      *why = std::string(kPreload) + " is not loaded although it was put in LD_PRELOAD";
      return false;
    }
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    const std::string text = all.str();
    std::vector<std::string> args;
    for (size_t start = 0; start < text.size();) {
      size_t end = text.find('\0', start);
      if (end == std::string::npos) end = text.size();
      args.push_back(text.substr(start, end - start));
      start = end + 1;
    }
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    setenv("LD_PRELOAD", kPreload, 1);
    setenv(kReexecMark, "1", 1);
    execv("/proc/self/exe", argv.data());
    *why = std::string("re-exec with the preload failed: ") + std::strerror(errno);
    return false;
  }
  unsetenv("LD_PRELOAD");
  if (fiu_init(0) != 0) {
    *why = "fiu_init failed";
    return false;
  }
  return true;
}

void Arm(const Plan& plan) {
  state.pid = getpid();
  state.plan = plan;
  state.counts.assign(Points().size(), 0);
  state.failed = 0;
  for (const Point& p : Points()) {
    void* info = plan.occurrence > 0 && std::strcmp(Points()[plan.point].name, p.name) == 0
                     ? reinterpret_cast<void*>(static_cast<long>(plan.err))
                     : nullptr;
    fiu_enable_external(p.name, 1, info, 0, Decide);
  }
}

void Disarm() {
  for (const Point& p : Points()) fiu_disable(p.name);
}

std::vector<int> Counts() { return state.counts; }

int Failed() { return state.failed; }

}  // namespace fiu
}  // namespace test
}  // namespace velmora
