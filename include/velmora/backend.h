/// @file
/// Redis clients: RedisClient, a small pooled client for any Redis server
/// (hiredis, blocking API), and QuotaRedisClient, the client of the local
/// store of mailbox usage and per-user quota settings at 127.0.0.1:8506.
///
/// Thread-safety: one RedisClient (or QuotaRedisClient) may be shared by any
/// number of threads. The pool of idle connections is its only shared state
/// and is guarded by one mutex; every operation borrows one connection for
/// its own use and gives it back (or closes it) before returning. Do not carry
/// a client across fork(): parent and child would share the pooled sockets.
///
/// Connections: the pool starts empty, grows by one each time a borrowed
/// connection is given back while none is idle, and has no upper bound. A
/// pooled connection is checked with a PING before each reuse; one that fails
/// the check is dropped without being closed (its socket and memory stay with
/// the process until it ends), and a new connection is opened in its place.
/// Only the connection at the front of the pool is tried per borrow. Both are
/// deliberate, kept as the suite's existing callers know them: do not make the
/// drop close the connection. The PING round trip runs while the pool's mutex
/// is held, so concurrent borrowers queue behind it.
///
/// Sentinel-watched masters: a RedisClient built from a list of Redis
/// Sentinel addresses and a master name finds the master by asking the
/// sentinels, in the order given, `SENTINEL get-master-addr-by-name <name>`
/// on a short-lived connection of its own (connect and command time-out both
/// the client's time-out); the first two-element answer wins, and anything
/// else (refused, timed out, nil, an error, another shape) moves on to the
/// next sentinel. The address found is kept. Every new connection goes to it
/// and is used only when `ROLE` answers "master"; otherwise it is closed, the
/// sentinels are asked once more and the address they give is tried once
/// before the borrow fails. A command that got no reply, or an error reply
/// beginning with "READONLY" (a demoted master), makes the client forget the
/// address, so the next new connection asks the sentinels again: after a
/// failover the next operation reaches the new master. The connection that
/// answered READONLY is closed, not pooled; its reply still goes to the
/// caller. A pooled connection whose peer is not the address currently known
/// is closed and replaced instead of being reused. The PING before reuse and
/// its deliberate drop are the same as for a fixed address. The pool mutex
/// is never held while a sentinel is asked.
///
/// Failures are results: a null reply or false. RedisClient logs nothing;
/// QuotaRedisClient logs failed reads to syslog at local1.err.
#ifndef VELMORA_BACKEND_H_
#define VELMORA_BACKEND_H_

#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <hiredis/hiredis.h>

#include <velmora/export.h>

namespace velmora {
/// Clients of the suite's Redis servers.
namespace backend {

/// Address of one Redis server or sentinel: numeric address or name, port.
struct RedisAddress {
  std::string host;  ///< Numeric address or name.
  int port;          ///< TCP port.
};

/// Pooled client of one Redis server, at a fixed address or the master that
/// Redis Sentinel names; see the file comment for the pool and the sentinels.
class VELMORA_EXPORT RedisClient {
 public:
  /// Stores the server's `host` (numeric address or name), TCP `port` and the
  /// connect time-out `timeout` in milliseconds (given to hiredis as
  /// timeout / 1000 seconds and timeout % 1000 * 1000 microseconds; it bounds
  /// the connect only, not the commands). Opens no connection.
  RedisClient(const std::string& host, int port, int timeout);
  /// Client of the master `master_name` watched by `sentinels`, asked in
  /// order; `timeout` in milliseconds bounds every connect, and the commands
  /// on the sentinel connections too. Opens no connection.
  RedisClient(const std::vector<RedisAddress>& sentinels, const std::string& master_name,
              int timeout);
  /// Closes every idle pooled connection. Connections dropped after a failed
  /// PING are not known to it and stay open.
  virtual ~RedisClient();

  ///@{
  /// Not copyable.
  RedisClient(const RedisClient&) = delete;
  RedisClient& operator=(const RedisClient&) = delete;
  ///@}

  /// Returns a connection for the caller's use only: the front of the pool if
  /// it answers PING, else a new one. Null when the connect failed (no log)
  /// or, with sentinels, no master was found. Hand it back with ReleaseContext.
  [[nodiscard]] redisContext* AcquireContext();
  /// True when the server answers a "ping" on `ctx` with a PONG status reply
  /// (any case). Sends one round trip; the reply is freed.
  [[nodiscard]] bool IsContextReady(redisContext* ctx);
  /// Appends `ctx` to the back of the pool when `reuse` is set, closes it with
  /// redisFree otherwise. A null `ctx` is ignored.
  void ReleaseContext(redisContext* ctx, bool reuse);

  /// Runs `cmd` with `args` on a borrowed connection and returns the reply,
  /// which the caller owns and frees with freeReplyObject. Null when no
  /// connection could be had or no reply came (that connection is closed); a
  /// connection that gave any reply, an error reply included, is pooled again
  /// (with sentinels, except after a READONLY error).
  /// Not binary-safe: every argument ends at its first NUL byte.
  [[nodiscard]] redisReply* ExecuteCmd(const std::string& cmd,
                                       const std::vector<std::string>& args);

  /// SET key value (no expiry). True when the reply is not an error. An empty
  /// key returns false without any traffic. A value ends at its first NUL.
  [[nodiscard]] bool Set(const std::string& key, const std::string& value);
  /// One UNLINK of all `keys`. True when the reply is not an error, however
  /// many keys existed. An empty list returns false without any traffic.
  [[nodiscard]] bool Unlink(const std::vector<std::string>& keys);
  /// Walks the whole keyspace with SCAN `<cursor>` MATCH `pattern` (no COUNT),
  /// collecting every key returned, then removes them with one Unlink. True
  /// when nothing matched (no UNLINK is sent) or the UNLINK succeeded. False
  /// for an empty pattern (no traffic), or when any SCAN reply is missing or
  /// not a two-element array; then nothing is removed. The replies of every
  /// SCAN but the last stay allocated until the process ends (one reply per
  /// about ten keys of the keyspace); deliberate, kept as the suite's existing
  /// callers know it: do not free them per iteration.
  [[nodiscard]] bool UnlinkByPattern(const std::string& pattern);
  /// One MGET of all `keys`. An empty list returns true without any traffic
  /// and leaves `values` as it was. Otherwise clears `values` and stores
  /// values[keys[i]] for each element of the reply: a string or status as its
  /// bytes, an integer in decimal; a nil as "" when `allow_nil` is set. False
  /// when no reply came, the reply is not an array or has more elements than
  /// `keys`, or an element is an array or error, or a nil without
  /// `allow_nil`, or (without `allow_nil`) a non-empty reply has fewer
  /// elements than `keys`; `values` then holds what was stored before the
  /// element that failed. An empty array is true with `values` empty.
  [[nodiscard]] bool MGet(const std::vector<std::string>& keys,
                          std::unordered_map<std::string, std::string>& values, bool allow_nil);

 private:
  /// Sentinel mode is marked by port_ == kSentinelPort (see redis_client.cpp).
  const std::string host_;
  const int port_;
  const int timeout_;  ///< Milliseconds, for the connect only.
  /// Idle connections: taken from the front, given back at the back.
  std::deque<redisContext*> pool_;  ///< Guarded by pool_mutex_.
  std::mutex pool_mutex_;
};

/// The store of mailbox usage and per-user settings ("userdb") at
/// 127.0.0.1:8506, connect time-out 2000 ms. Keys, with user names used as
/// given (no escaping):
/// @verbatim
///   <user>/quota/storage             storage usage of the user's mailbox
///   <user>/quota/messages            message-count usage of the mailbox
///   userdb/<user>/<attr>             attribute <attr> of the user
///   userdb/<user>/quota              quota limit, unsigned decimal
///   userdb/<user>/quota_warning      quota warning threshold, unsigned decimal
/// @endverbatim
/// Values are passed through as text; an absent key reads as "". Read
/// operations never fail outward: when the MGET fails they log
/// "Failed to MGet, keys: [<keys joined by ','>]" and return "" for every
/// name whose value did not arrive. Write and delete operations log nothing.
class VELMORA_EXPORT QuotaRedisClient : public RedisClient {
 public:
  /// Binds to 127.0.0.1:8506 with a 2000 ms connect time-out. Opens no
  /// connection.
  QuotaRedisClient();

  /// Removes every "*/quota/storage" key and, only if that succeeded, every
  /// "*/quota/messages" key. True when both walks succeeded.
  [[nodiscard]] bool DeleteAllUsage();
  /// One Unlink of "<user>/quota/storage" for each user; the messages keys
  /// stay. False for an empty list (no traffic) or when the UNLINK failed.
  [[nodiscard]] bool DeleteUsage(const std::vector<std::string>& users);
  /// Map of each user to its storage usage ("" when absent or not read). An
  /// empty list gives an empty map without traffic.
  std::unordered_map<std::string, std::string> ListUsage(const std::vector<std::string>& users);
  /// Storage usage of one user; "" when absent or not read.
  std::string GetUsage(const std::string& user);

  /// SET `userdb/<user>/<attr>` to `value`. False on failure or an error reply.
  [[nodiscard]] bool SetUserdbAttr(const std::string& user, const std::string& attr,
                                   const std::string& value);
  /// Map of each attr to the user's value ("" when absent or not read).
  std::unordered_map<std::string, std::string> GetUserdbAttr(const std::string& user,
                                                             const std::vector<std::string>& attrs);
  /// Removes every key matching "userdb/*/*" (the star also matches "/").
  /// False when the walk or the UNLINK failed.
  [[nodiscard]] bool DeleteAllUserdbAttr();

  ///@{
  /// Store `limit` / `warning` as unsigned decimal text in
  /// `userdb/<user>/quota` / `userdb/<user>/quota_warning`. False on failure.
  [[nodiscard]] bool SetUserdbQuotaLimit(const std::string& user, unsigned long long limit);
  [[nodiscard]] bool SetUserdbQuotaWarning(const std::string& user, unsigned long long warning);
  ///@}
  ///@{
  /// Map of each user to its limit / warning text ("" when absent or not read).
  std::unordered_map<std::string, std::string> ListUserdbQuotaLimit(
      const std::vector<std::string>& users);
  std::unordered_map<std::string, std::string> ListUserdbQuotaWarning(
      const std::vector<std::string>& users);
  ///@}
  ///@{
  /// The user's limit / warning text; "" when absent or not read.
  std::string GetUserdbQuotaLimit(const std::string& user);
  std::string GetUserdbQuotaWarning(const std::string& user);
  ///@}
};

}  // namespace backend
}  // namespace velmora

#endif  // VELMORA_BACKEND_H_
