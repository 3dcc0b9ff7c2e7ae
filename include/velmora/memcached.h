/// @file
/// Memcached client: a thin wrapper over one libmemcached handle bound to one
/// server, over TCP or a Unix socket, or to a pool of servers described by a
/// libmemcached configuration string.
///
/// Not thread-safe: an object wraps one libmemcached handle, whichever
/// constructor made it; use one object per thread (or lock around it). Do not
/// carry an object across fork().
/// Operations log nothing; the code of the last libmemcached call is kept in
/// LastResult() (memcached_strerror turns it into text).
#ifndef VELMORA_MEMCACHED_H_
#define VELMORA_MEMCACHED_H_

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include <libmemcached/memcached.h>

#include <velmora/export.h>

namespace velmora {
namespace sdk {

/// One cache item.
struct VELMORA_EXPORT MemcachedData {
  /// Releases the strings; nothing else.
  ~MemcachedData();

  std::string key;    ///< Key of the item.
  std::string value;  ///< Text: values read back end at their first NUL byte.
  uint32_t flags;     ///< Client flags stored with the item.
  time_t expiration;  ///< Seconds (or an absolute time, memcached's rule); 0 never expires.

  /// Expiration given to the records that MultiGet builds; 0 unless a caller
  /// sets it.
  static time_t default_timeout;
};

/// A libmemcached configuration string, e.g. "--SERVER=10.0.0.1:11211
/// --SERVER=10.0.0.2:11211"; see libmemcached_configuration(3). Its own type
/// so that it selects the pool constructor rather than the Unix socket one.
struct MemcachedConfig {
  std::string options;  ///< Options in libmemcached's configuration language.
};

/// Client of one memcached server, or of a pool of them, over one libmemcached
/// handle.
class VELMORA_EXPORT Memcached {
 public:
  /// No server: every operation returns false without network traffic.
  Memcached();
  /// Binds to the TCP server `server`:`port` (port cut to 16 bits, so 70000
  /// gives 4464). Operations return false when the server could not be added.
  Memcached(const std::string& server, int port);
  /// Binds to the server on the Unix socket `path`.
  explicit Memcached(const std::string& path);
  /// Binds to the pool that libmemcached builds from `config.options`, parsed
  /// after the pool defaults below (a later option wins, so the string may
  /// override the ones the language knows). Keys are spread by libmemcached's
  /// hashing; a server that fails is left out of the pool and tried again
  /// later by libmemcached. When the string does not parse, the object is not
  /// ready, LastResult() holds libmemcached's code and LastErrorMessage() its
  /// text; when it names no server, LastResult() is MEMCACHED_NO_SERVERS.
  ///
  /// Pool defaults, in this order before the caller's options:
  /// - `--DISTRIBUTION=consistent`: consistent hashing, so a server leaving or
  ///   coming back moves only its own share of the keys.
  /// - `--REMOVE-FAILED-SERVERS=1`: a server past its failure limit is taken
  ///   out of the distribution (libmemcached's auto-eject); 0 switches it off.
  /// - `--RETRY-TIMEOUT=2`: seconds a server that failed, but is not yet past
  ///   its failure limit, is skipped (its keys fail at once with
  ///   MEMCACHED_SERVER_TEMPORARILY_DISABLED) before it is tried again;
  ///   libmemcached's own default.
  /// - `--CONNECT-TIMEOUT=1000`: milliseconds to wait for a connection
  ///   (libmemcached's default is 4000; -1 waits for ever).
  /// - `--POLL-TIMEOUT=1000`: milliseconds to wait for a server's answer
  ///   (libmemcached's default is 5000).
  ///
  /// Set after parsing, since the configuration language has no option for
  /// them (change them with BehaviorSet):
  /// - MEMCACHED_BEHAVIOR_SERVER_FAILURE_LIMIT = 1: failures before a server
  ///   is ejected. With a higher limit a dead server is only skipped for the
  ///   retry time-out and never ejected while requests keep coming, so its
  ///   share of the keys keeps failing.
  /// - MEMCACHED_BEHAVIOR_DEAD_TIMEOUT = 2: seconds an ejected server stays
  ///   out before libmemcached tries it again; 0 would leave it out for the
  ///   life of the object.
  ///
  /// So when a server dies, the calls that meet it first fail (a connection
  /// failure, then MEMCACHED_SERVER_MARKED_DEAD); from then on its keys are
  /// looked up on the other servers (missing there) and written to them, with
  /// no time-out per call. Once the dead time-out has passed, the next call
  /// that hashes to the server connects again and, when it answers, the
  /// server takes its share of the keys back.
  explicit Memcached(const MemcachedConfig& config);
  /// Frees the libmemcached handle, closing its connection.
  ~Memcached();

  ///@{
  /// Not copyable.
  Memcached(const Memcached&) = delete;
  Memcached& operator=(const Memcached&) = delete;
  ///@}

  /// @name Operations
  /// Every operation returns false at once, touching nothing, when no server
  /// was added. Otherwise it returns true when libmemcached answered
  /// MEMCACHED_SUCCESS (exceptions noted) and keeps the code in LastResult().
  /// @{

  /// memcached_behavior_set.
  [[nodiscard]] bool BehaviorSet(memcached_behavior_t flag, uint64_t data);
  /// data = memcached_behavior_get; true whenever a server is bound; the last
  /// result is not changed.
  [[nodiscard]] bool BehaviorGet(memcached_behavior_t flag, uint64_t& data);
  /// Store with d.expiration and d.flags.
  [[nodiscard]] bool Set(const MemcachedData& d);
  /// Store like Set, only when the key does not exist yet (memcached_add).
  [[nodiscard]] bool Add(const MemcachedData& d);
  /// Store like Set, only when the key exists already (memcached_replace).
  [[nodiscard]] bool Replace(const MemcachedData& d);
  /// Store only if the item's cas value is still `cas`.
  [[nodiscard]] bool Cas(const MemcachedData& d, const uint64_t& cas);
  /// Append/prepend to an existing item (flags and expiration 0).
  [[nodiscard]] bool Append(const std::string& key, const std::string& value);
  /// Like Append, with `value` put before the item's (memcached_prepend).
  [[nodiscard]] bool Prepend(const std::string& key, const std::string& value);
  /// Removes the item at once (memcached_delete, no delay).
  [[nodiscard]] bool Delete(const std::string& key);
  /// value receives the new counter.
  [[nodiscard]] bool Increment(const std::string& key, uint32_t offset, uint64_t& value);
  /// Like Increment, lowering the counter by `offset`; value receives it.
  [[nodiscard]] bool Decrement(const std::string& key, uint32_t offset, uint64_t& value);
  /// Gives the item the new `expiration` (memcached_touch).
  [[nodiscard]] bool Touch(const std::string& key, time_t expiration);
  /// True when the server answered (found or not found); exists tells which.
  [[nodiscard]] bool Exist(const std::string& key, bool& exists);
  /// out.key, out.value (up to its first NUL) and out.flags of the item; out
  /// untouched when it is missing or on failure.
  [[nodiscard]] bool Get(const std::string& key, MemcachedData& out);
  /// Like Get, with the item's cas value. True only when exactly one item came
  /// back; out and cas may have been written even when false.
  [[nodiscard]] bool Gets(const std::string& key, MemcachedData& out, uint64_t& cas);
  /// Appends one record per item found (flags 0, expiration default_timeout),
  /// in the server's order; empty keys are left out. True when the fetch ended
  /// normally, or ended with "not found" and allow_notfound is set.
  [[nodiscard]] bool MultiGet(const std::vector<std::string>& keys, std::vector<MemcachedData>& out,
                              bool allow_notfound);
  /// @}

  /// Code of the last libmemcached call that reports one (MEMCACHED_SUCCESS at
  /// first).
  memcached_return_t LastResult() const { return last_result_; }
  /// libmemcached's text for a configuration string that failed (or "NO
  /// SERVERS DEFINED" when it named no server); otherwise
  /// memcached_last_error_message of the handle, which names the server of
  /// the last failed call ("SUCCESS" after a call that did not fail). Either
  /// without the handle's address that libmemcached puts before its texts.
  std::string LastErrorMessage() const;

 private:
  /// A libmemcached store call: memcached_set, _add, _replace, _append or
  /// _prepend.
  using StoreCall = memcached_return_t (*)(memcached_st*, const char*, size_t, const char*, size_t,
                                           time_t, uint32_t);

  /// False at once, the last result unchanged, when no server is bound.
  /// Otherwise runs op(handle_), keeps the code it returns as the last result
  /// and returns true when that code is MEMCACHED_SUCCESS or `also_accepted`.
  template <typename Op>
  bool Run(Op op, memcached_return_t also_accepted = MEMCACHED_SUCCESS);
  /// Run of `call` with the key, the value, `expiration` and `flags`.
  bool Store(StoreCall call, const std::string& key, const std::string& value, time_t expiration,
             uint32_t flags);

  memcached_st* handle_;
  memcached_return_t last_result_;
  bool ready_;
};

}  // namespace sdk
}  // namespace velmora

#endif  // VELMORA_MEMCACHED_H_
