// Fails one chosen libc call of this process, through libfiu's POSIX
// preload (fiu_posix_preload.so, which must be loaded: see
// EnsurePreloaded). Every point of kPoints is enabled with one external
// callback while an operation runs; the callback counts the calls that this
// process makes to each point and fails exactly the Nth call of one point
// with a chosen errno (the preload sets errno from the failinfo that the
// callback hands back). Calls made by forked children are passed through
// and not counted.
#ifndef VELMORA_TESTS_FAULT_FIU_INJECTOR_H_
#define VELMORA_TESTS_FAULT_FIU_INJECTOR_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace velmora {
namespace test {
namespace fiu {

// One libc function as the preload names it, with the errnos that Linux can
// really return from it for a file rewrite, each with the reason it is
// tried.
struct ErrnoChoice {
  int err;
  const char* why;
};
struct Point {
  const char* name;
  const char* function;  // what the matrix calls it
  std::vector<ErrnoChoice> errnos;
};

// Every point whose calls are counted.
const std::vector<Point>& Points();

// Re-executes the program with the preload in LD_PRELOAD unless it is
// loaded already, then removes LD_PRELOAD from the environment so that the
// programs the library runs do not get it. Returns false (with `why`) when
// the preload is not loaded after all.
bool EnsurePreloaded(std::string* why);

// What to fail: the `occurrence`th call (from 1) of point `point` (an index
// into Points()) with `err`. occurrence 0 fails nothing.
struct Plan {
  size_t point = 0;
  int occurrence = 0;
  int err = 0;
};

// Enables every point with the counting callback for this process.
void Arm(const Plan& plan);
// Disables every point again.
void Disarm();
// Calls made to each point between the last Arm and Disarm.
std::vector<int> Counts();
// How many calls were failed since the last Arm (0 or 1).
int Failed();

}  // namespace fiu
}  // namespace test
}  // namespace velmora

#endif  // VELMORA_TESTS_FAULT_FIU_INJECTOR_H_
