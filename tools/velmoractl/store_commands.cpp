// quota, memcached: the quota store (Redis at 127.0.0.1:8506) and a
// memcached server over TCP or a Unix socket, or a pool of servers given as a
// libmemcached configuration string.
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <velmora/backend.h>
#include <velmora/common.h>
#include <velmora/memcached.h>

#include "cli.h"

namespace velmoractl {
namespace {

using velmora::backend::QuotaRedisClient;

// The store's client, after a first connection proves the server is there
// (its reads cannot tell an absent value from an unreachable server). The
// connection goes back to the pool for the command itself.
std::unique_ptr<QuotaRedisClient> ConnectQuota(Context& ctx) {
  auto client = std::make_unique<QuotaRedisClient>();
  redisContext* connection = client->AcquireContext();
  if (connection == nullptr) {
    Fail(ctx, kUnreachable, "cannot connect to the quota store at 127.0.0.1:8506");
    return nullptr;
  }
  client->ReleaseContext(connection, true);
  return client;
}

// The statuses of the quota commands, for their help.
constexpr char kQuotaRead[] =
    "0 printed (a value that is absent prints as an empty line); 4 the quota store at "
    "127.0.0.1:8506 cannot be reached; 2 bad command line, also an empty user or attribute "
    "name or one holding \"/\" or a control byte.";
constexpr char kQuotaWrite[] =
    "0 stored; 4 the quota store at 127.0.0.1:8506 cannot be reached; 1 the store did not take "
    "the change; 2 bad command line, also an empty user or attribute name or one holding "
    "\"/\" or a control byte, a number that is not decimal or does not fit 64 bits.";
// The statuses of the memcached commands, for their help.
constexpr char kMemcachedStatuses[] =
    "3 no such item; 4 the server cannot be reached or did not answer; 5 the Unix socket may "
    "not be opened; 1 the server refused the operation; 2 bad command line, also a bad "
    "--server, a --config string that libmemcached refuses or that names no server, a key that is "
    "empty, longer than 250 bytes or holds a blank or a control byte.";

// User and attribute names become parts of the store's keys
// ("userdb/USER/ATTR"): empty ones, "/" and control bytes would address
// another record, so they are refused before the store is asked.
bool CheckName(Context& ctx, const char* what, const std::string& name) {
  bool ok = !name.empty();
  for (char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '/' || byte < 0x20 || byte == 0x7f) ok = false;
  }
  if (!ok)
    Fail(ctx, kUsage,
         std::string(what) + " " + Quote(name) + " is empty or holds \"/\" or a control byte");
  return ok;
}

bool CheckNames(Context& ctx, const std::vector<std::string>& users) {
  for (const std::string& user : users) {
    if (!CheckName(ctx, "the user name", user)) return false;
  }
  return true;
}

void PrintValue(const Context& ctx, const char* field, const std::string& user,
                const std::string& value) {
  if (ctx.json) {
    Json::Value out(Json::objectValue);
    out["user"] = user;
    out[field] = value;
    PrintJson(out);
  } else {
    std::cout << value << '\n';
  }
}

void QuotaUsage(Context& ctx, const std::vector<std::string>& users) {
  if (!CheckNames(ctx, users)) return;
  auto client = ConnectQuota(ctx);
  if (!client) return;
  const std::unordered_map<std::string, std::string> usage = client->ListUsage(users);
  Json::Value out(Json::objectValue);
  for (const std::string& user : users) {
    auto it = usage.find(user);
    const std::string value = it == usage.end() ? std::string() : it->second;
    if (ctx.json) {
      out[user] = value;
    } else {
      std::cout << user << '=' << value << '\n';
    }
  }
  if (ctx.json) PrintJson(out);
}

// quota limit|warning get|set: the same shape for both numbers.
void AddNumberCommands(CLI::App& quota, Context& ctx, const char* name, const char* what,
                       bool warning) {
  CLI::App* cmd = quota.add_subcommand(name, std::string("Read or store the ") + what);
  cmd->require_subcommand(1);
  auto user = std::make_shared<std::string>();
  CLI::App* get = cmd->add_subcommand("get", std::string("Print the user's ") + what);
  SetStatuses(get, kQuotaRead);
  get->add_option("USER", *user, "User name")->required();
  get->callback([&ctx, user, warning, name] {
    if (!CheckName(ctx, "the user name", *user)) return;
    auto client = ConnectQuota(ctx);
    if (!client) return;
    const std::string value =
        warning ? client->GetUserdbQuotaWarning(*user) : client->GetUserdbQuotaLimit(*user);
    PrintValue(ctx, name, *user, value);
  });
  auto set_user = std::make_shared<std::string>();
  auto number = std::make_shared<unsigned long long>(0);
  CLI::App* set = cmd->add_subcommand("set", std::string("Store the user's ") + what);
  SetStatuses(set, kQuotaWrite);
  set->add_option("USER", *set_user, "User name")->required();
  AddNumber(set, "N", *number, 0, UINT64_MAX, "Decimal number from 0 to 18446744073709551615")
      ->required();
  set->callback([&ctx, set_user, number, warning, name] {
    if (!CheckName(ctx, "the user name", *set_user)) return;
    auto client = ConnectQuota(ctx);
    if (!client) return;
    const bool ok = warning ? client->SetUserdbQuotaWarning(*set_user, *number)
                            : client->SetUserdbQuotaLimit(*set_user, *number);
    if (!ok) {
      Fail(ctx, kFailed, std::string("cannot store the ") + name + " of " + Quote(*set_user));
      return;
    }
    Verbose(ctx, std::string("quota ") + name + " " + *set_user + "=" + std::to_string(*number));
  });
}

void AddQuotaCommands(CLI::App& app, Context& ctx) {
  CLI::App* quota =
      app.add_subcommand("quota", "Mailbox usage and per-user quota settings in the quota store");
  quota->require_subcommand(1);

  auto users = std::make_shared<std::vector<std::string>>();
  CLI::App* usage = quota->add_subcommand("usage", "Print the storage usage of each user");
  SetStatuses(usage, kQuotaRead);
  usage->add_option("USER", *users, "User name")->required();
  usage->callback([&ctx, users] { QuotaUsage(ctx, *users); });

  AddNumberCommands(*quota, ctx, "limit", "quota limit", false);
  AddNumberCommands(*quota, ctx, "warning", "quota warning threshold", true);

  CLI::App* attr = quota->add_subcommand("attr", "Read or store one attribute of a user");
  attr->require_subcommand(1);
  auto get_user = std::make_shared<std::string>();
  auto get_attr = std::make_shared<std::string>();
  CLI::App* attr_get = attr->add_subcommand("get", "Print the attribute's value");
  SetStatuses(attr_get, kQuotaRead);
  attr_get->add_option("USER", *get_user, "User name")->required();
  attr_get->add_option("ATTR", *get_attr, "Attribute name")->required();
  attr_get->callback([&ctx, get_user, get_attr] {
    if (!CheckName(ctx, "the user name", *get_user) ||
        !CheckName(ctx, "the attribute name", *get_attr)) {
      return;
    }
    auto client = ConnectQuota(ctx);
    if (!client) return;
    const auto values = client->GetUserdbAttr(*get_user, {*get_attr});
    auto it = values.find(*get_attr);
    const std::string value = it == values.end() ? std::string() : it->second;
    if (ctx.json) {
      Json::Value out(Json::objectValue);
      out["user"] = *get_user;
      out["attr"] = *get_attr;
      out["value"] = value;
      PrintJson(out);
    } else {
      std::cout << value << '\n';
    }
  });
  auto set_user = std::make_shared<std::string>();
  auto set_attr = std::make_shared<std::string>();
  auto set_value = std::make_shared<std::string>();
  CLI::App* attr_set = attr->add_subcommand("set", "Store the attribute's value");
  SetStatuses(attr_set, kQuotaWrite);
  attr_set->add_option("USER", *set_user, "User name")->required();
  attr_set->add_option("ATTR", *set_attr, "Attribute name")->required();
  attr_set->add_option("VALUE", *set_value, "Value")->required();
  attr_set->callback([&ctx, set_user, set_attr, set_value] {
    if (!CheckName(ctx, "the user name", *set_user) ||
        !CheckName(ctx, "the attribute name", *set_attr)) {
      return;
    }
    auto client = ConnectQuota(ctx);
    if (!client) return;
    if (!client->SetUserdbAttr(*set_user, *set_attr, *set_value)) {
      Fail(ctx, kFailed,
           "cannot store the attribute " + Quote(*set_attr) + " of " + Quote(*set_user));
      return;
    }
    Verbose(ctx, "quota attr " + *set_user + " " + *set_attr + "=" + Quote(*set_value));
  });

  auto clear_users = std::make_shared<std::vector<std::string>>();
  CLI::App* clear = quota->add_subcommand(
      "clear-usage", "Remove the storage usage of these users, or all usage records");
  SetStatuses(clear, kQuotaWrite);
  clear->add_option("USER", *clear_users, "User name (none: every user, messages counts too)");
  clear->callback([&ctx, clear_users] {
    if (!CheckNames(ctx, *clear_users)) return;
    auto client = ConnectQuota(ctx);
    if (!client) return;
    const bool ok =
        clear_users->empty() ? client->DeleteAllUsage() : client->DeleteUsage(*clear_users);
    if (!ok) {
      Fail(ctx, kFailed, "cannot clear the usage records");
      return;
    }
    Verbose(ctx, clear_users->empty()
                     ? std::string("quota usage cleared for every user")
                     : "quota usage cleared for " + velmora::Join(*clear_users, std::string(" ")));
  });
}

// ---- memcached ----

struct MemcachedTarget {
  std::string server;  // HOST:PORT
  std::string socket;  // Unix socket path
  std::string config;  // libmemcached configuration string, when pooled
  bool pooled = false;
};

bool IsConnectionError(memcached_return_t rc) {
  switch (rc) {
    case MEMCACHED_CONNECTION_FAILURE:
    case MEMCACHED_CONNECTION_SOCKET_CREATE_FAILURE:
    case MEMCACHED_HOST_LOOKUP_FAILURE:
    case MEMCACHED_ERRNO:
    case MEMCACHED_SERVER_MARKED_DEAD:
    case MEMCACHED_SERVER_TEMPORARILY_DISABLED:
    case MEMCACHED_TIMEOUT:
    case MEMCACHED_UNKNOWN_READ_FAILURE:
    case MEMCACHED_READ_FAILURE:
    case MEMCACHED_WRITE_FAILURE:
    case MEMCACHED_NO_SERVERS:
    case MEMCACHED_CONNECTION_BIND_FAILURE:
      return true;
    default:
      return false;
  }
}

std::unique_ptr<velmora::sdk::Memcached> OpenMemcached(Context& ctx,
                                                       const MemcachedTarget& target) {
  if (target.pooled) {
    auto pool =
        std::make_unique<velmora::sdk::Memcached>(velmora::sdk::MemcachedConfig{target.config});
    if (pool->LastResult() == MEMCACHED_SUCCESS) return pool;
    Fail(ctx, kUsage, "bad --config: " + pool->LastErrorMessage());
    return nullptr;
  }
  if (!target.socket.empty()) return std::make_unique<velmora::sdk::Memcached>(target.socket);
  const size_t colon = target.server.rfind(':');
  uint64_t port = 0;
  if (colon == std::string::npos || colon == 0 ||
      !ParseUnsigned(target.server.substr(colon + 1), 65535, port) || port == 0) {
    Fail(ctx, kUsage, "--server takes HOST:PORT, not " + Quote(target.server));
    return nullptr;
  }
  return std::make_unique<velmora::sdk::Memcached>(target.server.substr(0, colon),
                                                   static_cast<int>(port));
}

std::string Where(const MemcachedTarget& target) {
  if (target.pooled) return Quote(target.config);
  return Quote(target.socket.empty() ? target.server : target.socket);
}

// True when the caller may not connect to the Unix socket of `target`
// (connecting needs write permission on it and search permission on the
// directories above): libmemcached reports that as a failed connection.
bool SocketDenied(const MemcachedTarget& target) {
  if (target.socket.empty()) return false;
  return access(target.socket.c_str(), W_OK) != 0 && (errno == EACCES || errno == EPERM);
}

// The keys the memcached text protocol can carry: 1 to 250 bytes, none of
// them a blank, a control byte or DEL. Anything else is refused before a
// server is asked, so that it does not pass for an unreachable server.
bool CheckKey(Context& ctx, const std::string& key) {
  bool ok = !key.empty() && key.size() <= 250;
  for (char c : key) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte == 0x7f) ok = false;
  }
  if (!ok) {
    Fail(ctx, kUsage,
         "a memcached key is 1 to 250 bytes without blanks or control bytes, not " + Quote(key));
  }
  return ok;
}

// Reports a failed memcached call: not found, unreachable or other.
void FailMemcached(Context& ctx, const velmora::sdk::Memcached& client,
                   const MemcachedTarget& target, const std::string& key) {
  const memcached_return_t rc = client.LastResult();
  if (rc == MEMCACHED_NOTFOUND) {
    Fail(ctx, kNotFound, "no item " + Quote(key));
  } else if (IsConnectionError(rc) && SocketDenied(target)) {
    Fail(ctx, kDenied, "memcached at " + Where(target) + ": permission denied");
  } else if (IsConnectionError(rc)) {
    Fail(ctx, kUnreachable,
         "memcached at " + Where(target) + ": " + memcached_strerror(nullptr, rc));
  } else if (rc == MEMCACHED_SUCCESS) {
    Fail(ctx, kFailed, "memcached at " + Where(target) + " could not be used");
  } else {
    Fail(ctx, kFailed, "memcached: " + std::string(memcached_strerror(nullptr, rc)));
  }
}

void AddMemcachedCommands(CLI::App& app, Context& ctx) {
  auto target = std::make_shared<MemcachedTarget>();
  CLI::App* mc =
      app.add_subcommand("memcached", "Read, store or delete items of a memcached server or pool");
  CLI::Option* server =
      mc->add_option("--server", target->server, "TCP server")->type_name("HOST:PORT");
  CLI::Option* socket =
      mc->add_option("--socket", target->socket, "Unix socket of the server")->type_name("PATH");
  CLI::Option* config = mc->add_option_function<std::string>(
                              "--config",
                              [target](const std::string& options) {
                                target->config = options;
                                target->pooled = true;
                              },
                              "Pool of servers, as a libmemcached configuration string "
                              "(\"--SERVER=HOST:PORT --SERVER=HOST:PORT ...\")")
                            ->type_name("STRING");
  server->excludes(socket);
  config->excludes(server)->excludes(socket);
  mc->require_option(1);
  mc->require_subcommand(1);

  auto get_key = std::make_shared<std::string>();
  CLI::App* get = mc->add_subcommand("get", "Print the value of an item");
  SetStatuses(get, std::string("0 printed; ") + kMemcachedStatuses);
  get->add_option("KEY", *get_key, "Item key")->required();
  get->callback([&ctx, target, get_key] {
    if (!CheckKey(ctx, *get_key)) return;
    auto client = OpenMemcached(ctx, *target);
    if (!client) return;
    velmora::sdk::MemcachedData item;
    item.flags = 0;
    item.expiration = 0;
    if (!client->Get(*get_key, item) || client->LastResult() != MEMCACHED_SUCCESS) {
      FailMemcached(ctx, *client, *target, *get_key);
      return;
    }
    if (ctx.json) {
      Json::Value out(Json::objectValue);
      out["key"] = *get_key;
      out["value"] = item.value;
      out["flags"] = item.flags;
      PrintJson(out);
    } else {
      std::cout << item.value << '\n';
    }
  });

  auto set_key = std::make_shared<std::string>();
  auto set_value = std::make_shared<std::string>();
  auto expire = std::make_shared<uint32_t>(0);
  auto flags = std::make_shared<uint32_t>(0);
  CLI::App* set = mc->add_subcommand("set", "Store an item");
  SetStatuses(set, std::string("0 stored; ") + kMemcachedStatuses);
  set->add_option("KEY", *set_key, "Item key")->required();
  set->add_option("VALUE", *set_value, "Value")->required();
  AddNumber(set, "--expire", *expire, 0, UINT32_MAX, "Seconds to live (0: never expires)")
      ->type_name("S");
  AddNumber(set, "--flags", *flags, 0, UINT32_MAX, "Client flags stored with the item")
      ->type_name("N");
  set->callback([&ctx, target, set_key, set_value, expire, flags] {
    if (!CheckKey(ctx, *set_key)) return;
    auto client = OpenMemcached(ctx, *target);
    if (!client) return;
    velmora::sdk::MemcachedData item;
    item.key = *set_key;
    item.value = *set_value;
    item.flags = *flags;
    item.expiration = static_cast<time_t>(*expire);
    if (!client->Set(item)) {
      FailMemcached(ctx, *client, *target, *set_key);
      return;
    }
    Verbose(ctx, "memcached set " + *set_key);
  });

  auto delete_key = std::make_shared<std::string>();
  CLI::App* del = mc->add_subcommand("delete", "Delete an item");
  SetStatuses(del, std::string("0 deleted; ") + kMemcachedStatuses);
  del->add_option("KEY", *delete_key, "Item key")->required();
  del->callback([&ctx, target, delete_key] {
    if (!CheckKey(ctx, *delete_key)) return;
    auto client = OpenMemcached(ctx, *target);
    if (!client) return;
    if (!client->Delete(*delete_key)) {
      FailMemcached(ctx, *client, *target, *delete_key);
      return;
    }
    Verbose(ctx, "memcached delete " + *delete_key);
  });
}

}  // namespace

void AddStoreCommands(CLI::App& app, Context& ctx) {
  AddQuotaCommands(app, ctx);
  AddMemcachedCommands(app, ctx);
}

}  // namespace velmoractl
