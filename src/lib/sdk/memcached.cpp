#include <netinet/in.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <velmora/common.h>
#include <velmora/memcached.h>

namespace velmora {
namespace sdk {
namespace {

// Values and keys are text: they end at their first NUL byte.
std::string Text(const char* data, size_t length) {
  return data == nullptr ? std::string() : std::string(data, strnlen(data, length));
}

// Options given before the caller's, which may override them: libmemcached
// applies the options of a configuration string in order. No blank at the
// end: libmemcached refuses a string that ends with one.
constexpr char kPoolDefaults[] =
    "--DISTRIBUTION=consistent --REMOVE-FAILED-SERVERS=1 --RETRY-TIMEOUT=2 "
    "--CONNECT-TIMEOUT=1000 --POLL-TIMEOUT=1000";
// Behaviours the configuration language cannot set.
constexpr uint64_t kPoolFailureLimit = 1;
constexpr uint64_t kPoolDeadTimeoutSeconds = 2;

// The text kept for a pool whose construction failed lives in the handle's
// user data: the class has no room for it, and the handle is private to the
// object, so no callback or caller can have set that pointer. The destructor
// frees it.
void KeepErrorText(memcached_st* handle, const std::string& text) {
  memcached_set_user_data(handle, new std::string(text));
}

const std::string* KeptErrorText(const memcached_st* handle) {
  return static_cast<const std::string*>(memcached_get_user_data(handle));
}

// libmemcached opens its messages with the address of the handle that made
// them ("(0x55d0c2a4beb0) "), which tells a caller nothing and differs from
// one run to the next: the text is given without it. libmemcached never
// gives a null text for a handle.
std::string WithoutHandleAddress(const char* text) {
  const char* end = nullptr;
  if (std::strncmp(text, "(0x", 3) == 0) end = std::strstr(text, ") ");
  return end == nullptr ? std::string(text) : std::string(end + 2);
}

}  // namespace

time_t MemcachedData::default_timeout = 0;

MemcachedData::~MemcachedData() = default;

Memcached::Memcached()
    : handle_(memcached_create(nullptr)), last_result_(MEMCACHED_SUCCESS), ready_(false) {}

Memcached::Memcached(const std::string& server, int port) : Memcached() {
  if (handle_ == nullptr) return;
  last_result_ = memcached_server_add(handle_, server.c_str(), static_cast<in_port_t>(port));
  ready_ = last_result_ == MEMCACHED_SUCCESS && memcached_server_count(handle_) != 0;
}

Memcached::Memcached(const std::string& path) : Memcached() {
  if (handle_ == nullptr) return;
  last_result_ = memcached_server_add_unix_socket(handle_, path.c_str());
  ready_ = last_result_ == MEMCACHED_SUCCESS && memcached_server_count(handle_) != 0;
}

Memcached::Memcached(const MemcachedConfig& config) : Memcached() {
  if (handle_ == nullptr) return;
  const std::string options =
      config.options.empty() ? kPoolDefaults : std::string(kPoolDefaults) + " " + config.options;
  memcached_st* pool = memcached(options.data(), options.size());
  if (pool == nullptr) {
    // libmemcached gives neither code nor text for a string it refused: parse
    // it again to get both.
    char text[1024] = "";
    last_result_ =
        libmemcached_check_configuration(options.data(), options.size(), text, sizeof(text));
    if (last_result_ == MEMCACHED_SUCCESS) last_result_ = MEMCACHED_MEMORY_ALLOCATION_FAILURE;
    KeepErrorText(handle_, text[0] != '\0' ? text : memcached_strerror(handle_, last_result_));
    return;
  }
  memcached_free(handle_);
  handle_ = pool;
  last_result_ =
      memcached_behavior_set(handle_, MEMCACHED_BEHAVIOR_SERVER_FAILURE_LIMIT, kPoolFailureLimit);
  if (last_result_ == MEMCACHED_SUCCESS) {
    last_result_ =
        memcached_behavior_set(handle_, MEMCACHED_BEHAVIOR_DEAD_TIMEOUT, kPoolDeadTimeoutSeconds);
  }
  if (last_result_ == MEMCACHED_SUCCESS && memcached_server_count(handle_) == 0) {
    last_result_ = MEMCACHED_NO_SERVERS;
    KeepErrorText(handle_, memcached_strerror(handle_, last_result_));
  }
  ready_ = last_result_ == MEMCACHED_SUCCESS;
}

Memcached::~Memcached() {
  if (handle_ == nullptr) return;
  delete KeptErrorText(handle_);
  memcached_free(handle_);
}

std::string Memcached::LastErrorMessage() const {
  if (handle_ == nullptr) return std::string();
  const std::string* kept = KeptErrorText(handle_);
  return WithoutHandleAddress(kept != nullptr ? kept->c_str()
                                              : memcached_last_error_message(handle_));
}

template <typename Op>
bool Memcached::Run(Op op, memcached_return_t also_accepted) {
  if (!ready_) return false;
  last_result_ = op(handle_);
  return last_result_ == MEMCACHED_SUCCESS || last_result_ == also_accepted;
}

bool Memcached::Store(StoreCall call, const std::string& key, const std::string& value,
                      time_t expiration, uint32_t flags) {
  return Run([&](memcached_st* handle) {
    return call(handle, key.data(), key.size(), value.data(), value.size(), expiration, flags);
  });
}

bool Memcached::BehaviorSet(memcached_behavior_t flag, uint64_t data) {
  return Run([&](memcached_st* handle) { return memcached_behavior_set(handle, flag, data); });
}

// The only operation that leaves the last result alone: the behaviour's value
// is not a return code.
bool Memcached::BehaviorGet(memcached_behavior_t flag, uint64_t& data) {
  if (!ready_) return false;
  data = memcached_behavior_get(handle_, flag);
  return true;
}

bool Memcached::Set(const MemcachedData& d) {
  return Store(memcached_set, d.key, d.value, d.expiration, d.flags);
}

bool Memcached::Add(const MemcachedData& d) {
  return Store(memcached_add, d.key, d.value, d.expiration, d.flags);
}

bool Memcached::Replace(const MemcachedData& d) {
  return Store(memcached_replace, d.key, d.value, d.expiration, d.flags);
}

bool Memcached::Cas(const MemcachedData& d, const uint64_t& cas) {
  return Run([&](memcached_st* handle) {
    return memcached_cas(handle, d.key.data(), d.key.size(), d.value.data(), d.value.size(),
                         d.expiration, d.flags, cas);
  });
}

// Append and prepend always pass expiration 0 and flags 0, whatever the item
// had.
bool Memcached::Append(const std::string& key, const std::string& value) {
  return Store(memcached_append, key, value, 0, 0);
}

bool Memcached::Prepend(const std::string& key, const std::string& value) {
  return Store(memcached_prepend, key, value, 0, 0);
}

bool Memcached::Delete(const std::string& key) {
  return Run(
      [&](memcached_st* handle) { return memcached_delete(handle, key.data(), key.size(), 0); });
}

bool Memcached::Increment(const std::string& key, uint32_t offset, uint64_t& value) {
  return Run([&](memcached_st* handle) {
    return memcached_increment(handle, key.data(), key.size(), offset, &value);
  });
}

bool Memcached::Decrement(const std::string& key, uint32_t offset, uint64_t& value) {
  return Run([&](memcached_st* handle) {
    return memcached_decrement(handle, key.data(), key.size(), offset, &value);
  });
}

bool Memcached::Touch(const std::string& key, time_t expiration) {
  return Run([&](memcached_st* handle) {
    return memcached_touch(handle, key.data(), key.size(), expiration);
  });
}

// A missing key is an answer too: true with exists false.
bool Memcached::Exist(const std::string& key, bool& exists) {
  return Run(
      [&](memcached_st* handle) {
        const memcached_return_t rc = memcached_exist(handle, key.data(), key.size());
        exists = rc == MEMCACHED_SUCCESS;
        return rc;
      },
      MEMCACHED_NOTFOUND);
}

bool Memcached::Get(const std::string& key, MemcachedData& out) {
  if (!ready_) return false;
  size_t length = 0;
  uint32_t flags = 0;
  memcached_return_t rc = MEMCACHED_SUCCESS;
  char* value = memcached_get(handle_, key.data(), key.size(), &length, &flags, &rc);
  last_result_ = rc;
  if (value != nullptr) {
    out.key = key;
    out.value = Text(value, length);
    free(value);
  } else if (rc != MEMCACHED_SUCCESS) {
    return false;
  } else {
    out.key = key;
    out.value.clear();
  }
  out.flags = flags;
  return true;
}

bool Memcached::Gets(const std::string& key, MemcachedData& out, uint64_t& cas) {
  if (!ready_) return false;
  memcached_result_st result;
  if (memcached_result_create(handle_, &result) == nullptr) return false;
  ScopeGuard free_result([&result] { memcached_result_free(&result); });

  const char* keys[] = {key.data()};
  const size_t lengths[] = {key.size()};
  last_result_ = memcached_mget(handle_, keys, lengths, 1);
  if (last_result_ != MEMCACHED_SUCCESS) return false;

  memcached_return_t rc = MEMCACHED_SUCCESS;
  if (memcached_fetch_result(handle_, &result, &rc) == nullptr) {
    last_result_ = rc;
    return false;
  }
  last_result_ = rc;
  out.key = Text(memcached_result_key_value(&result), memcached_result_key_length(&result));
  out.value = Text(memcached_result_value(&result), memcached_result_length(&result));
  out.flags = memcached_result_flags(&result);
  cas = memcached_result_cas(&result);

  // Exactly one item must have come back.
  memcached_result_st* extra = memcached_fetch_result(handle_, &result, &rc);
  last_result_ = rc;
  return extra == nullptr && rc == MEMCACHED_END;
}

bool Memcached::MultiGet(const std::vector<std::string>& keys, std::vector<MemcachedData>& out,
                         bool allow_notfound) {
  if (!ready_) return false;
  std::vector<const char*> key_ptrs;
  std::vector<size_t> key_lengths;
  key_ptrs.reserve(keys.size());
  key_lengths.reserve(keys.size());
  for (const auto& key : keys) {
    if (key.empty()) continue;
    key_ptrs.push_back(key.data());
    key_lengths.push_back(key.size());
  }

  memcached_result_st result;
  if (memcached_result_create(handle_, &result) == nullptr) return false;
  ScopeGuard free_result([&result] { memcached_result_free(&result); });

  last_result_ = memcached_mget(handle_, key_ptrs.data(), key_lengths.data(), key_ptrs.size());
  if (last_result_ != MEMCACHED_SUCCESS) return false;

  // Records are built in place: MemcachedData has no move constructor (its
  // destructor is declared), so a temporary or a reallocation would copy
  // every key and value.
  out.reserve(out.size() + key_ptrs.size());
  memcached_return_t rc = MEMCACHED_SUCCESS;
  while (memcached_fetch_result(handle_, &result, &rc) != nullptr) {
    out.emplace_back();
    MemcachedData& record = out.back();
    record.key = Text(memcached_result_key_value(&result), memcached_result_key_length(&result));
    record.value = Text(memcached_result_value(&result), memcached_result_length(&result));
    // The item's stored flags are not copied: records carry flags 0.
    record.flags = 0;
    record.expiration = MemcachedData::default_timeout;
  }
  last_result_ = rc;
  if (rc == MEMCACHED_END) return true;
  return allow_notfound && rc == MEMCACHED_NOTFOUND;
}

}  // namespace sdk
}  // namespace velmora
