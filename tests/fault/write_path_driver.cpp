// Runs one of the library's write paths (see crash_write_paths.h) so that a
// test can trace it:
//   write_path_driver NAME BASE [COUNT]
// NAME picks the path, BASE is the scratch directory the test prepared it in,
// COUNT (default 1) is the number of writes, alternating the two versions
// from the one that is not on disk now. Exits 0 when every write succeeded,
// 1 when one failed, 2 on bad arguments. The test lays out the files first.
// Right before the first write it writes "write path" to descriptor -1, which
// fails, so that a trace shows where the library's work begins.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "fault/crash_write_paths.h"

int main(int argc, char** argv) {
  using velmora::test::crash::FindWritePath;
  using velmora::test::crash::WritePath;
  if (argc < 3 || argc > 4) {
    std::fprintf(stderr, "usage: %s NAME BASE [COUNT]\n", argv[0]);
    return 2;
  }
  WritePath path;
  if (!FindWritePath(argv[2], argv[1], &path)) {
    std::fprintf(stderr, "%s: no write path named %s\n", argv[0], argv[1]);
    return 2;
  }
  const long count = argc == 4 ? std::atol(argv[3]) : 1;
  int phase = path.first_phase();
  // A marker in the trace: what follows is the library's work.
  const ssize_t marked = write(-1, "write path", 10);
  (void)marked;
  bool ok = true;
  for (long n = 0; n < count; ++n) {
    ok = path.write(phase) && ok;
    phase = 1 - phase;
  }
  return ok ? 0 : 1;
}
