/// @file
/// Core helpers: string replacement and joining, the scope guard and the
/// process name that heads every log line of the library.
///
/// Everything here is reentrant and keeps no state between calls; any function
/// may be called from any thread and in a forked child.
#ifndef VELMORA_COMMON_H_
#define VELMORA_COMMON_H_

#include <functional>
#include <string>
#include <vector>

#include <velmora/export.h>

/// The public names of libvelmora.
namespace velmora {

/// Returns a copy of `str` with every occurrence of `from` replaced by `to`.
/// Text brought in by `to` is never searched again. An empty `from` inserts
/// `to` before every character and once at the end; an empty `from` with an
/// empty `to` never returns (callers never pass an empty `from`).
VELMORA_EXPORT std::string Replace(const std::string& str, const std::string& from,
                                   const std::string& to);

/// Returns the items in order with `sep` between neighbours ("" for no items).
/// Instantiated in the library for std::string.
template <typename T>
VELMORA_EXPORT std::string Join(const std::vector<T>& items, const std::string& sep);
/// Join for std::string items, built into the library.
extern template VELMORA_EXPORT std::string Join<std::string>(const std::vector<std::string>&,
                                                             const std::string&);

/// Runs its clean-up action exactly once when the scope is left, by return or
/// by exception. It cannot be dismissed. An empty action makes the destructor
/// throw std::bad_function_call; a throwing action propagates.
class VELMORA_EXPORT ScopeGuard {
 public:
  /// Keeps `action` to run when the guard is destroyed.
  explicit ScopeGuard(std::function<void()> action);
  /// Runs the action; what it throws propagates.
  ~ScopeGuard() noexcept(false);

  ///@{
  /// Not copyable.
  ScopeGuard(const ScopeGuard&) = delete;
  ScopeGuard& operator=(const ScopeGuard&) = delete;
  ///@}

 private:
  std::function<void()> action_;
};

/// Files, locks, the memcached client and the process name.
namespace sdk {

/// Returns the base name of the running program, read anew from
/// /proc/self/cmdline on every call; the empty string when it cannot be read.
/// The read stops at the first space, so a rewritten title "master -w" gives
/// "master".
VELMORA_EXPORT std::string GetProcessName();

}  // namespace sdk
}  // namespace velmora

#endif  // VELMORA_COMMON_H_
