// Conversion between user ids and user names through the platform's user
// database. The record of every lookup is released by a scope guard on every
// path.
#include <cstdint>
#include <string>

#include <velmora/common.h>
#include <velmora/user.h>

#include "lib/log.h"
#include "platform/orvo_platform.h"

namespace velmora {
namespace user {
namespace {

constexpr char kLogModule[] = "src/lib/user/uid_convert";
// Size of the buffer that receives a canonical name, NUL included.
constexpr int kRealNameSize = 492;
constexpr uint32_t kNoUser = 0xFFFFFFFFu;

}  // namespace

std::string ConvertToUsername(uint32_t uid) {
  std::string name;
  ORVOUSER* record = nullptr;
  ScopeGuard free_record([&record] {
    if (record != nullptr) ORVOUserFree(record);
  });
  if (ORVOUserGetByUID(uid, &record) < 0) {
    VELMORA_LOG("Get user name by uid fail: %u", uid);
    return name;
  }
  char real_name[kRealNameSize];
  if (OLIBUserRealNameGet(record->szName, real_name, kRealNameSize) < 0) {
    VELMORA_LOG("Get user real name fail");
    return name;
  }
  name = real_name;
  return name;
}

uint32_t ConvertFromUsername(const std::string& name) {
  ORVOUSER* record = nullptr;
  ScopeGuard free_record([&record] {
    if (record != nullptr) ORVOUserFree(record);
  });
  if (ORVOUserGet(name.c_str(), &record) < 0) {
    VELMORA_LOG("Get username fail: %s", name.c_str());
    return kNoUser;
  }
  return record->uid;
}

}  // namespace user
}  // namespace velmora
