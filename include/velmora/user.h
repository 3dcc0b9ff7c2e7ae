/// @file
/// User identity conversion: a numeric user id to the user's name and back,
/// through the platform's user database.
///
/// Both functions are reentrant (each lookup has its own record, released on
/// every path) and may be called from any thread and in a forked child. A
/// failure is reported by result with one line at LOG_LOCAL1|LOG_ERR.
#ifndef VELMORA_USER_H_
#define VELMORA_USER_H_

#include <cstdint>
#include <string>

#include <velmora/export.h>

namespace velmora {
/// User id and name conversion.
namespace user {

/// Returns the canonical name of the user `uid` (at most 491 bytes); "" when
/// there is no such user or the name cannot be read (logged).
VELMORA_EXPORT std::string ConvertToUsername(uint32_t uid);

/// Returns the uid of the user called `name`; 0xFFFFFFFF when there is no such
/// user (logged). A user whose uid is 0xFFFFFFFF looks the same as a failure.
[[nodiscard]] VELMORA_EXPORT uint32_t ConvertFromUsername(const std::string& name);

}  // namespace user
}  // namespace velmora

#endif  // VELMORA_USER_H_
