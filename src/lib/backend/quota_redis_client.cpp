#include <cstdio>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include <velmora/backend.h>
#include <velmora/common.h>

#include "lib/log.h"

namespace velmora {
namespace backend {
namespace {

constexpr char kLogModule[] = "src/lib/backend/quota_redis_client";

constexpr char kHost[] = "127.0.0.1";
constexpr int kPort = 8506;
constexpr int kConnectTimeoutMs = 2000;

constexpr char kStorageSuffix[] = "/quota/storage";
constexpr char kMessagesSuffix[] = "/quota/messages";
constexpr char kUserdb[] = "userdb";
constexpr char kQuotaAttr[] = "quota";
constexpr char kQuotaWarningAttr[] = "quota_warning";

std::string StorageKey(const std::string& user) { return user + kStorageSuffix; }

std::string UserdbKey(const std::string& user, const std::string& attr) {
  return std::string(kUserdb) + "/" + user + "/" + attr;
}

std::string Decimal(unsigned long long number) {
  char text[32];
  // NOLINTNEXTLINE(cert-err33-c): any 64-bit value fits
  std::snprintf(text, sizeof(text), "%llu", number);
  return text;
}

// Reads `keys` with one MGET (nil allowed) and maps names[i] to the value of
// keys[i]. Every name is in the result, with "" for a value that is absent or
// did not arrive; a failed MGET is logged and otherwise ignored.
std::unordered_map<std::string, std::string> ListValues(RedisClient& client,
                                                        const std::vector<std::string>& names,
                                                        const std::vector<std::string>& keys) {
  std::unordered_map<std::string, std::string> raw;
  if (!client.MGet(keys, raw, true)) {
    VELMORA_LOG("Failed to MGet, keys: [%s]", Join(keys, ",").c_str());
  }
  std::unordered_map<std::string, std::string> result(10);
  for (size_t i = 0; i < names.size(); ++i) {
    auto found = raw.find(keys[i]);
    result[names[i]] = found == raw.end() ? std::string() : found->second;
  }
  return result;
}

std::vector<std::string> UserdbKeys(const std::vector<std::string>& users,
                                    const std::string& attr) {
  std::vector<std::string> keys;
  keys.reserve(users.size());
  for (const std::string& user : users) keys.push_back(UserdbKey(user, attr));
  return keys;
}

// The user's value of `attr`; "" when absent or not read. GetUserdbAttr
// always maps every attr it was given, so the lookup cannot miss today; the
// guard stays, logged under the name of `operation`, in case that changes.
std::string UserdbValue(QuotaRedisClient& client, const std::string& user, const char* attr,
                        const char* operation) {
  const std::unordered_map<std::string, std::string> values = client.GetUserdbAttr(user, {attr});
  try {
    return values.at(attr);
  } catch (const std::out_of_range& e) {
    VELMORA_LOG("Failed to %s, user: [%s], out_of_range: [%s]", operation, user.c_str(), e.what());
    return std::string();
  }
}

}  // namespace

QuotaRedisClient::QuotaRedisClient() : RedisClient(kHost, kPort, kConnectTimeoutMs) {}

bool QuotaRedisClient::DeleteAllUsage() {
  if (!UnlinkByPattern(std::string("*") + kStorageSuffix)) return false;
  return UnlinkByPattern(std::string("*") + kMessagesSuffix);
}

bool QuotaRedisClient::DeleteUsage(const std::vector<std::string>& users) {
  std::vector<std::string> keys;
  keys.reserve(users.size());
  for (const std::string& user : users) keys.push_back(StorageKey(user));
  return Unlink(keys);
}

std::unordered_map<std::string, std::string> QuotaRedisClient::ListUsage(
    const std::vector<std::string>& users) {
  std::vector<std::string> keys;
  keys.reserve(users.size());
  for (const std::string& user : users) keys.push_back(StorageKey(user));
  return ListValues(*this, users, keys);
}

std::string QuotaRedisClient::GetUsage(const std::string& user) {
  const std::unordered_map<std::string, std::string> usage = ListUsage({user});
  auto found = usage.find(user);
  return found == usage.end() ? std::string() : found->second;
}

bool QuotaRedisClient::SetUserdbAttr(const std::string& user, const std::string& attr,
                                     const std::string& value) {
  return Set(UserdbKey(user, attr), value);
}

std::unordered_map<std::string, std::string> QuotaRedisClient::GetUserdbAttr(
    const std::string& user, const std::vector<std::string>& attrs) {
  std::vector<std::string> keys;
  keys.reserve(attrs.size());
  for (const std::string& attr : attrs) keys.push_back(UserdbKey(user, attr));
  return ListValues(*this, attrs, keys);
}

bool QuotaRedisClient::DeleteAllUserdbAttr() {
  return UnlinkByPattern(std::string(kUserdb) + "/*/*");
}

bool QuotaRedisClient::SetUserdbQuotaLimit(const std::string& user, unsigned long long limit) {
  return SetUserdbAttr(user, kQuotaAttr, Decimal(limit));
}

bool QuotaRedisClient::SetUserdbQuotaWarning(const std::string& user, unsigned long long warning) {
  return SetUserdbAttr(user, kQuotaWarningAttr, Decimal(warning));
}

std::unordered_map<std::string, std::string> QuotaRedisClient::ListUserdbQuotaLimit(
    const std::vector<std::string>& users) {
  return ListValues(*this, users, UserdbKeys(users, kQuotaAttr));
}

std::unordered_map<std::string, std::string> QuotaRedisClient::ListUserdbQuotaWarning(
    const std::vector<std::string>& users) {
  return ListValues(*this, users, UserdbKeys(users, kQuotaWarningAttr));
}

std::string QuotaRedisClient::GetUserdbQuotaLimit(const std::string& user) {
  return UserdbValue(*this, user, kQuotaAttr, "GetUserdbQuotaLimit");
}

std::string QuotaRedisClient::GetUserdbQuotaWarning(const std::string& user) {
  return UserdbValue(*this, user, kQuotaWarningAttr, "GetUserdbQuotaWarning");
}

}  // namespace backend
}  // namespace velmora
