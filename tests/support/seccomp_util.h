// Seccomp filters for tests that make one system call fail in a process.
#ifndef VELMORA_TESTS_SUPPORT_SECCOMP_UTIL_H_
#define VELMORA_TESTS_SUPPORT_SECCOMP_UTIL_H_

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>

#include <initializer_list>
#include <vector>

namespace velmora {
namespace test {

// The audit architecture of this build's system calls, 0 where the tests'
// filters do not know it (they then refuse to install).
#if defined(__x86_64__)
constexpr unsigned kAuditArch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned kAuditArch = AUDIT_ARCH_AARCH64;
#else
constexpr unsigned kAuditArch = 0;
#endif

// A filter program: system calls of another architecture are allowed, then
// the call's number is loaded and `rules` decide.
inline std::vector<sock_filter> SeccompProgram(std::initializer_list<sock_filter> rules) {
  std::vector<sock_filter> program = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kAuditArch, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
  };
  program.insert(program.end(), rules);
  return program;
}

// Installs `program` on the calling thread for good (no new privileges);
// false if it was refused or the architecture is unknown.
inline bool InstallSeccomp(std::vector<sock_filter> program) {
  if (kAuditArch == 0) return false;
  sock_fprog fprog{static_cast<unsigned short>(program.size()), program.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &fprog) == 0;
}

}  // namespace test
}  // namespace velmora

#endif  // VELMORA_TESTS_SUPPORT_SECCOMP_UTIL_H_
