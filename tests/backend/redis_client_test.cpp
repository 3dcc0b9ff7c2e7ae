// RedisClient against a real redis-server started inside the test's own
// network namespace (127.0.0.1:8506 is private to this binary), and against
// a small stand-in server (redis_test_util.h) for reply shapes that Redis
// never sends. Traffic is observed from the server's side: INFO commandstats
// counts the commands that arrived, INFO stats/clients the connections.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

#include <velmora/backend.h>

#include "support/log_capture.h"
#include "support/redis_test_util.h"
#include "support/server_process.h"

namespace velmora {
namespace {

using namespace redis_test;  // NOLINT(build/namespaces)

// The server-side id of a connection.
long long ClientId(redisContext* ctx) {
  ReplyPtr r(static_cast<redisReply*>(redisCommand(ctx, "CLIENT ID")));
  return r && r->type == REDIS_REPLY_INTEGER ? r->integer : -1;
}

long long ClientIdVia(RedisClient& client) {
  ReplyPtr r(client.ExecuteCmd("CLIENT", {"ID"}));
  return r && r->type == REDIS_REPLY_INTEGER ? r->integer : -1;
}

// ---------------------------------------------------------------------------

// The real server runs for the whole suite and is emptied (keys and
// counters) before every test; a test that stops it gets it back after.
// Every test also checks that the client wrote nothing to the log.
class RedisClientTest : public RealRedisTest {
 protected:
  void SetUp() override {
    RealRedisTest::SetUp();
    if (HasFatalFailure()) return;
    log_ = std::make_unique<LogCapture>();
    client_ = std::make_unique<RedisClient>(kHost, kPort, kTimeoutMs);
  }

  void TearDown() override {
    client_.reset();
    if (log_) {
      EXPECT_TRUE(log_->Records().empty()) << "RedisClient wrote to the log";
    }
  }

  // Brings the server back after a stop, with fresh counters.
  void RestartServer() {
    server_->Stop();
    ASSERT_TRUE(server_->Start());
    ASSERT_TRUE(raw_.Connect());
    ASSERT_TRUE(raw_.Reset());
  }

  std::unique_ptr<LogCapture> log_;
  std::unique_ptr<RedisClient> client_;
};

// ---- Connections and the pool ---------------------------------------------

TEST_F(RedisClientTest, ConstructionOpensNoConnection) {
  RedisClient other(kHost, kPort, kTimeoutMs);
  RedisClient nowhere("127.0.0.1", 1, kTimeoutMs);
  EXPECT_EQ(raw_.Opened(0), 0);
  EXPECT_EQ(raw_.Connected(1), 1);  // The test's own connection.
}

TEST_F(RedisClientTest, FirstCommandConnectsWithoutPing) {
  ASSERT_TRUE(client_->Set("k", "v"));
  EXPECT_EQ(raw_.Opened(1), 1);
  EXPECT_EQ(raw_.Calls("ping"), 0);
  EXPECT_EQ(raw_.Calls("set"), 1);
}

TEST_F(RedisClientTest, PooledConnectionIsPingedBeforeEachReuse) {
  ASSERT_TRUE(client_->Set("k", "1"));
  ASSERT_TRUE(client_->Set("k", "2"));
  ASSERT_TRUE(client_->Set("k", "3"));
  EXPECT_EQ(raw_.Calls("set"), 3);
  EXPECT_EQ(raw_.Calls("ping"), 2);
  EXPECT_EQ(raw_.Opened(1), 1);
  EXPECT_EQ(raw_.Get("k"), "3");
}

TEST_F(RedisClientTest, SequentialCallsShareOneConnection) {
  const long long id = ClientIdVia(*client_);
  ASSERT_GT(id, 0);
  Map values;
  for (int k = 0; k < 5; ++k) {
    ASSERT_TRUE(client_->Set("k" + std::to_string(k), "v"));
    ASSERT_TRUE(client_->MGet({"k0"}, values, false));
    ASSERT_TRUE(client_->Unlink({"gone"}));
    EXPECT_EQ(ClientIdVia(*client_), id);
  }
  EXPECT_EQ(raw_.Opened(1), 1);
  EXPECT_EQ(raw_.Connected(2), 2);
}

TEST_F(RedisClientTest, ReleasedConnectionsAreReusedInReleaseOrder) {
  redisContext* a = client_->AcquireContext();
  redisContext* b = client_->AcquireContext();
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_NE(a, b);  // Nothing idle: each acquisition connects.
  EXPECT_EQ(raw_.Opened(2), 2);
  EXPECT_EQ(raw_.Calls("ping"), 0);

  client_->ReleaseContext(a, true);
  client_->ReleaseContext(b, true);
  ASSERT_EQ(client_->AcquireContext(), a);  // Taken from the front...
  ASSERT_EQ(client_->AcquireContext(), b);
  EXPECT_EQ(raw_.Calls("ping"), 2);  // ...each checked with a PING.
  EXPECT_EQ(raw_.Opened(2), 2);

  client_->ReleaseContext(b, true);
  client_->ReleaseContext(a, true);
  ASSERT_EQ(client_->AcquireContext(), b);  // Given back at the back.
  client_->ReleaseContext(b, true);
}

// A pooled connection whose sending side is gone makes the next PING's write
// fail with EPIPE. Runs `body` in a child that keeps SIGPIPE's default
// action (or blocks it when `blocked`) and returns the child's wait status.
int InChildWithDeadPooledConnection(bool blocked, const std::function<int(RedisClient&)>& body) {
  pid_t pid = fork();
  if (pid == 0) {
    signal(SIGPIPE, SIG_DFL);
    sigset_t pipe_set;
    sigemptyset(&pipe_set);
    sigaddset(&pipe_set, SIGPIPE);
    pthread_sigmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &pipe_set, nullptr);
    RedisClient client(kHost, kPort, kTimeoutMs);
    redisContext* ctx = client.AcquireContext();
    if (ctx == nullptr) _exit(10);
    if (shutdown(ctx->fd, SHUT_WR) != 0) _exit(11);
    client.ReleaseContext(ctx, true);
    _exit(body(client));
  }
  int status = -1;
  waitpid(pid, &status, 0);
  return status;
}

bool SigpipeIs(bool in_mask, bool pending) {
  sigset_t mask, waiting;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  sigpending(&waiting);
  return (sigismember(&mask, SIGPIPE) == 1) == in_mask &&
         (sigismember(&waiting, SIGPIPE) == 1) == pending;
}

TEST_F(RedisClientTest, AWriteToAClosedConnectionNeverDeliversSigpipe) {
  // The default action would end the program; the client takes the signal
  // back and restores the thread's mask.
  int status = InChildWithDeadPooledConnection(false, [](RedisClient& client) {
    if (!client.Set("k", "v")) return 12;  // the PING fails, a new connection works
    return SigpipeIs(false, false) ? 0 : 13;
  });
  ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(raw_.Get("k"), "v");
}

TEST_F(RedisClientTest, ACallerThatBlocksSigpipeKeepsItsMaskAndItsSignal) {
  int status = InChildWithDeadPooledConnection(true, [](RedisClient& client) {
    if (!client.Set("k", "w")) return 12;
    return SigpipeIs(true, true) ? 0 : 13;
  });
  ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(raw_.Get("k"), "w");
}

TEST_F(RedisClientTest, ReleaseWithoutReuseClosesConnection) {
  redisContext* a = client_->AcquireContext();
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(raw_.Connected(2), 2);
  client_->ReleaseContext(a, false);
  EXPECT_EQ(raw_.Connected(1), 1);
  // The pool stayed empty: the next acquisition connects, without a PING.
  redisContext* b = client_->AcquireContext();
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(raw_.Opened(2), 2);
  EXPECT_EQ(raw_.Calls("ping"), 0);
  client_->ReleaseContext(b, true);
}

TEST_F(RedisClientTest, ReleaseOfNullIsIgnored) {
  client_->ReleaseContext(nullptr, true);
  client_->ReleaseContext(nullptr, false);
  redisContext* a = client_->AcquireContext();
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(raw_.Calls("ping"), 0);  // Nothing had entered the pool.
  client_->ReleaseContext(a, true);
}

TEST_F(RedisClientTest, DestructorClosesEveryPooledConnection) {
  redisContext* held[3];
  for (auto& ctx : held) {
    ctx = client_->AcquireContext();
    ASSERT_NE(ctx, nullptr);
  }
  for (auto* ctx : held) client_->ReleaseContext(ctx, true);
  EXPECT_EQ(raw_.Connected(4), 4);
  client_.reset();
  EXPECT_EQ(raw_.Connected(1), 1);
}

TEST_F(RedisClientTest, IsContextReadyWantsPongStatusInAnyCase) {
  // Answers to the successive PINGs, in order.
  const std::vector<Answer> answers{
      {Status("PONG")}, {Status("pong")},     {Status("PoNg")},
      {Bulk("PONG")},   {Status("PONG now")}, {Error("ERR no")},
      {Int(1)},         {Status("")},         {"", /*close=*/true},
  };
  const std::vector<bool> expected{true, true, true, false, false, false, false, false, false};
  FakeRedis fake([&](const Request& r, int nth) -> std::optional<Answer> {
    if (r[0] == "ping" && nth < static_cast<int>(answers.size())) return answers[nth];
    return std::nullopt;
  });
  ASSERT_TRUE(fake.ok());
  RedisClient client(kHost, fake.port(), kTimeoutMs);
  redisContext* ctx = client.AcquireContext();
  ASSERT_NE(ctx, nullptr);
  for (size_t k = 0; k < answers.size(); ++k) {
    EXPECT_EQ(client.IsContextReady(ctx), expected[k]) << "answer " << k;
  }
  client.ReleaseContext(ctx, false);
  // Every check sent the one lower-case word "ping".
  EXPECT_EQ(fake.Requests(), std::vector<Request>(answers.size(), Request{"ping"}));
}

TEST_F(RedisClientTest, DeadFrontConnectionIsDroppedUnfreedAndOnlyTheFrontIsTried) {
  redisContext* a = client_->AcquireContext();
  redisContext* b = client_->AcquireContext();
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  const long long a_id = ClientId(a);
  const long long b_id = ClientId(b);
  client_->ReleaseContext(a, true);
  client_->ReleaseContext(b, true);
  ASSERT_EQ(raw_.Integer({"CLIENT", "KILL", "ID", std::to_string(a_id)}), 1);
  ASSERT_TRUE(raw_.Reset());

  // The front (a) fails its PING. The live b behind it is not looked at: a
  // new connection is made instead.
  redisContext* c = client_->AcquireContext();
  ASSERT_NE(c, nullptr);
  ASSERT_NE(c, a);
  ASSERT_NE(c, b);
  EXPECT_EQ(raw_.Opened(1), 1);
  EXPECT_EQ(raw_.Calls("ping"), 0);  // a's PING never reached the server.
  EXPECT_NE(ClientId(c), b_id);

  // a was neither closed nor freed: its memory is intact (a freed context
  // would trip AddressSanitizer here) and its socket is still open.
  struct stat st;
  ASSERT_EQ(fstat(a->fd, &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_NE(a->err, 0);  // hiredis marked it dead during the PING.

  // Nor is it back in the pool: next comes b, checked with a PING.
  ASSERT_EQ(client_->AcquireContext(), b);
  EXPECT_EQ(raw_.Calls("ping"), 1);
  client_->ReleaseContext(b, true);
  client_->ReleaseContext(c, true);
  redisFree(a);  // The client forgot it; the test tidies up.
}

TEST_F(RedisClientTest, AcquisitionsQueueBehindAPingInProgress) {
  constexpr int kPingDelayMs = 400;
  FakeRedis fake([](const Request& r, int) -> std::optional<Answer> {
    if (r[0] == "ping") return Answer{Status("PONG"), false, kPingDelayMs};
    return std::nullopt;
  });
  ASSERT_TRUE(fake.ok());
  RedisClient client(kHost, fake.port(), kTimeoutMs);
  redisContext* first = client.AcquireContext();
  ASSERT_NE(first, nullptr);
  client.ReleaseContext(first, true);

  redisContext* pinged = nullptr;
  std::thread other([&] { pinged = client.AcquireContext(); });
  ASSERT_TRUE(fake.WaitFor("ping", std::chrono::seconds(5)));
  // The pool is empty now, yet this acquisition must wait for the other
  // thread's PING to finish before it may look, then it connects.
  const auto start = Clock::now();
  redisContext* second = client.AcquireContext();
  const long long waited = ElapsedMs(start);
  other.join();
  EXPECT_EQ(pinged, first);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(second, first);
  EXPECT_GE(waited, kPingDelayMs / 2);
  client.ReleaseContext(pinged, false);
  client.ReleaseContext(second, false);
}

// ---- ExecuteCmd ------------------------------------------------------------

TEST_F(RedisClientTest, ExecuteCmdHandsTheReplyToTheCaller) {
  for (long long expect = 1; expect <= 3; ++expect) {
    redisReply* reply = client_->ExecuteCmd("INCR", {"counter"});
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->type, REDIS_REPLY_INTEGER);
    EXPECT_EQ(reply->integer, expect);
    freeReplyObject(reply);
  }
  EXPECT_EQ(raw_.Get("counter"), "3");
}

TEST_F(RedisClientTest, ErrorReplyKeepsTheConnectionPooled) {
  ASSERT_TRUE(raw_.Put("text", "abc"));
  const long long id = ClientIdVia(*client_);
  ReplyPtr reply(client_->ExecuteCmd("INCR", {"text"}));
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->type, REDIS_REPLY_ERROR);
  EXPECT_EQ(ClientIdVia(*client_), id);
  EXPECT_EQ(raw_.Opened(1), 1);
}

TEST_F(RedisClientTest, CommandWithoutReplyClosesItsConnection) {
  FakeRedis fake([](const Request& r, int nth) -> std::optional<Answer> {
    if (r[0] == "GET" && nth == 0) return Answer{"", true};
    if (r[0] == "GET") return Answer{Bulk("v")};
    return std::nullopt;
  });
  ASSERT_TRUE(fake.ok());
  RedisClient client(kHost, fake.port(), kTimeoutMs);
  EXPECT_EQ(client.ExecuteCmd("GET", {"k"}), nullptr);
  ReplyPtr reply(client.ExecuteCmd("GET", {"k"}));
  ASSERT_TRUE(reply);
  EXPECT_EQ(std::string(reply->str, reply->len), "v");
  // The broken connection was not pooled: the second command connected
  // anew and sent no PING.
  EXPECT_EQ(fake.Accepted(), 2);
  EXPECT_EQ(fake.Requests(), (std::vector<Request>{{"GET", "k"}, {"GET", "k"}}));
}

TEST_F(RedisClientTest, ArgumentsEndAtTheirFirstNulByte) {
  ReplyPtr reply(client_->ExecuteCmd("SET", {std::string("k\0x", 3), std::string("ab\0cd", 5)}));
  ASSERT_TRUE(reply);
  EXPECT_EQ(raw_.Get("k"), "ab");
  EXPECT_EQ(raw_.Get(std::string("k\0x", 3)), "<nil>");
  EXPECT_EQ(raw_.DbSize(), 1);
}

// ---- Set and Unlink --------------------------------------------------------

TEST_F(RedisClientTest, SetStoresTheValueWithoutExpiry) {
  ASSERT_TRUE(client_->Set("k", "first"));
  ASSERT_TRUE(client_->Set("k", "second"));
  EXPECT_EQ(raw_.Get("k"), "second");
  EXPECT_EQ(raw_.Integer({"TTL", "k"}), -1);
  ASSERT_TRUE(client_->Set("empty", ""));
  EXPECT_EQ(raw_.Get("empty"), "");
}

TEST_F(RedisClientTest, SetStoresAValueCutAtItsNulByte) {
  ASSERT_TRUE(client_->Set("k", std::string("ab\0cd", 5)));
  EXPECT_EQ(raw_.Get("k"), "ab");
}

TEST_F(RedisClientTest, SetFailsOnAnErrorReply) {
  // With almost no memory allowed, Redis refuses writes with an OOM error.
  ReplyPtr limit = raw_.Command({"CONFIG", "SET", "maxmemory", "1"});
  ASSERT_TRUE(limit && limit->type == REDIS_REPLY_STATUS);
  EXPECT_FALSE(client_->Set("k", "v"));
  ReplyPtr lift = raw_.Command({"CONFIG", "SET", "maxmemory", "0"});
  ASSERT_TRUE(lift && lift->type == REDIS_REPLY_STATUS);
  EXPECT_EQ(raw_.Get("k"), "<nil>");
  EXPECT_EQ(raw_.Calls("set", "rejected_calls"), 1);
  // The connection that got the error reply is used again.
  EXPECT_TRUE(client_->Set("k", "v"));
  EXPECT_EQ(raw_.Opened(1), 1);
}

TEST_F(RedisClientTest, UnlinkRemovesEveryKeyWithOneCommand) {
  for (const char* key : {"a", "b", "c", "keep"}) ASSERT_TRUE(raw_.Put(key, "v"));
  EXPECT_TRUE(client_->Unlink({"a", "b", "c", "absent"}));
  EXPECT_EQ(raw_.Calls("unlink"), 1);
  EXPECT_EQ(raw_.DbSize(), 1);
  EXPECT_EQ(raw_.Get("keep"), "v");
}

TEST_F(RedisClientTest, UnlinkOfAbsentKeysSucceeds) {
  EXPECT_TRUE(client_->Unlink({"none", "neither"}));
  EXPECT_EQ(raw_.Calls("unlink"), 1);
}

TEST_F(RedisClientTest, SetAndUnlinkFailOnErrorReplies) {
  FakeRedis fake([](const Request& r, int) -> std::optional<Answer> {
    if (r[0] == "SET" || r[0] == "UNLINK") return Answer{Error("ERR refused")};
    return std::nullopt;
  });
  ASSERT_TRUE(fake.ok());
  RedisClient client(kHost, fake.port(), kTimeoutMs);
  EXPECT_FALSE(client.Set("k", "v"));
  EXPECT_FALSE(client.Unlink({"a", "b"}));
  EXPECT_EQ(fake.Commands(), (std::vector<Request>{{"SET", "k", "v"}, {"UNLINK", "a", "b"}}));
  EXPECT_EQ(fake.Accepted(), 1);
}

TEST_F(RedisClientTest, EmptyInputsSendNothing) {
  Map values{{"before", "x"}};
  EXPECT_FALSE(client_->Set("", "v"));
  EXPECT_FALSE(client_->Unlink({}));
  EXPECT_FALSE(client_->UnlinkByPattern(""));
  EXPECT_TRUE(client_->MGet({}, values, true));
  EXPECT_TRUE(client_->MGet({}, values, false));
  EXPECT_EQ(values, (Map{{"before", "x"}}));
  EXPECT_TRUE(raw_.AllCalls().empty());
  EXPECT_EQ(raw_.Opened(0), 0);
}

TEST_F(RedisClientTest, KeysWithSlashesAndGlobCharactersAreUsedAsTheyStand) {
  const std::string odd = "dom/al*ce?[1]/x";
  ASSERT_TRUE(raw_.Put("dom/alice/x", "other"));
  ASSERT_TRUE(client_->Set(odd, "v"));
  EXPECT_EQ(raw_.Get(odd), "v");
  EXPECT_EQ(raw_.Get("dom/alice/x"), "other");
  Map values;
  ASSERT_TRUE(client_->MGet({odd}, values, false));
  EXPECT_EQ(values, (Map{{odd, "v"}}));
  EXPECT_TRUE(client_->Unlink({odd}));
  EXPECT_EQ(raw_.Get(odd), "<nil>");
  EXPECT_EQ(raw_.Get("dom/alice/x"), "other");
}

// ---- UnlinkByPattern -------------------------------------------------------

// A SCAN walk's length depends on the server's hash table; it is measured
// with the test's own walk once two walks in a row agree.
int SettledWalkLength(RawRedis& raw, const std::string& pattern) {
  int last = raw.ScanWalkLength(pattern);
  for (int k = 0; k < 20; ++k) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    int now = raw.ScanWalkLength(pattern);
    if (now == last) return now;
    last = now;
  }
  return -1;
}

TEST_F(RedisClientTest, PatternRemovesEveryMatchWithOneUnlinkAfterTheWalk) {
  ASSERT_TRUE(raw_.Fill("match:", 3000));
  ASSERT_TRUE(raw_.Fill("other:", 7000));
  ASSERT_EQ(raw_.DbSize(), 10000);
  const int walk = SettledWalkLength(raw_, "match:*");
  ASSERT_GT(walk, 100);  // About ten keys per SCAN.
  ReplyPtr reset = raw_.Command({"CONFIG", "RESETSTAT"});

  EXPECT_TRUE(client_->UnlinkByPattern("match:*"));
  EXPECT_EQ(raw_.Calls("scan"), walk);
  EXPECT_EQ(raw_.Calls("unlink"), 1);
  EXPECT_EQ(raw_.DbSize(), 7000);
  ReplyPtr left = raw_.Command({"KEYS", "match:*"});
  ASSERT_TRUE(left);
  EXPECT_EQ(left->elements, 0u);
  EXPECT_EQ(raw_.Get("other:6999"), "v6999");
}

TEST_F(RedisClientTest, PatternThatMatchesNothingWalksToTheEndAndSendsNoUnlink) {
  ASSERT_TRUE(raw_.Fill("key:", 10000));
  const int walk = SettledWalkLength(raw_, "absent:*");
  ASSERT_GT(walk, 100);
  ReplyPtr reset = raw_.Command({"CONFIG", "RESETSTAT"});
  EXPECT_TRUE(client_->UnlinkByPattern("absent:*"));
  EXPECT_EQ(raw_.Calls("scan"), walk);
  EXPECT_EQ(raw_.Calls("unlink"), 0);
  EXPECT_EQ(raw_.DbSize(), 10000);
}

TEST_F(RedisClientTest, PatternOnAnEmptyServerIsOneScan) {
  EXPECT_TRUE(client_->UnlinkByPattern("*"));
  EXPECT_EQ(raw_.Calls("scan"), 1);
  EXPECT_EQ(raw_.Calls("unlink"), 0);
}

TEST_F(RedisClientTest, PatternStarMatchesSlashes) {
  for (const char* key : {"user/a", "user/a/b", "user/al*ce?[1]/quota", "users/a", "user"}) {
    ASSERT_TRUE(raw_.Put(key, "v"));
  }
  EXPECT_TRUE(client_->UnlinkByPattern("user/*"));
  ReplyPtr left = raw_.Command({"KEYS", "*"});
  ASSERT_TRUE(left);
  std::vector<std::string> names;
  for (size_t k = 0; k < left->elements; ++k) names.push_back(left->element[k]->str);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"user", "users/a"}));
}

TEST_F(RedisClientTest, ScanCursorsAreFollowedAndAllKeysGoToOneUnlink) {
  FakeRedis fake([](const Request& r, int nth) -> std::optional<Answer> {
    if (r[0] == "SCAN" && nth == 0) return Answer{ScanReply("17", {"a", "b"})};
    if (r[0] == "SCAN" && nth == 1) return Answer{ScanReply("3", {})};
    if (r[0] == "SCAN" && nth == 2) return Answer{ScanReply("0", {"a", "c"})};
    if (r[0] == "UNLINK") return Answer{Int(3)};
    return std::nullopt;
  });
  ASSERT_TRUE(fake.ok());
  RedisClient client(kHost, fake.port(), kTimeoutMs);
  EXPECT_TRUE(client.UnlinkByPattern("p*"));
  // Each reuse of the pooled connection is preceded by its PING; the keys
  // are removed only after the walk, duplicates and all, in one command.
  EXPECT_EQ(fake.Requests(), (std::vector<Request>{{"SCAN", "0", "MATCH", "p*"},
                                                   {"ping"},
                                                   {"SCAN", "17", "MATCH", "p*"},
                                                   {"ping"},
                                                   {"SCAN", "3", "MATCH", "p*"},
                                                   {"ping"},
                                                   {"UNLINK", "a", "b", "a", "c"}}));
  EXPECT_EQ(fake.Accepted(), 1);
}

TEST_F(RedisClientTest, FailedFinalUnlinkFailsThePatternRemoval) {
  FakeRedis fake([](const Request& r, int) -> std::optional<Answer> {
    if (r[0] == "SCAN") return Answer{ScanReply("0", {"a"})};
    if (r[0] == "UNLINK") return Answer{Error("ERR no")};
    return std::nullopt;
  });
  ASSERT_TRUE(fake.ok());
  RedisClient client(kHost, fake.port(), kTimeoutMs);
  EXPECT_FALSE(client.UnlinkByPattern("p*"));
  EXPECT_EQ(fake.Commands(), (std::vector<Request>{{"SCAN", "0", "MATCH", "p*"}, {"UNLINK", "a"}}));
}

TEST_F(RedisClientTest, WrongScanReplyInAnyIterationRemovesNothing) {
  const std::vector<std::pair<std::string, Answer>> wrong{
      {"three elements", {Array({Bulk("0"), BulkArray({"x"}), Bulk("y")})}},
      {"one element", {Array({Bulk("0")})}},
      {"empty array", {Array({})}},
      {"status", {Status("OK")}},
      {"error", {Error("ERR scan")}},
      {"nil", {Nil()}},
      {"no reply", {"", true}},
      // Two elements, but not a cursor and a list of keys.
      {"integer cursor", {Array({Int(0), BulkArray({"x"})})}},
      {"keys not a list", {Array({Bulk("0"), Bulk("x")})}},
      {"key not text", {Array({Bulk("0"), Array({Bulk("x"), Int(1)})})}},
  };
  for (int bad_at : {0, 1}) {
    for (const auto& [name, answer] : wrong) {
      SCOPED_TRACE(name + " in SCAN #" + std::to_string(bad_at + 1));
      FakeRedis fake([&, bad = answer](const Request& r, int nth) -> std::optional<Answer> {
        if (r[0] == "SCAN" && nth == bad_at) return bad;
        if (r[0] == "SCAN")
          return Answer{ScanReply(nth == 0 ? "5" : "0", {"k" + std::to_string(nth)})};
        if (r[0] == "UNLINK") return Answer{Int(1)};
        return std::nullopt;
      });
      ASSERT_TRUE(fake.ok());
      RedisClient client(kHost, fake.port(), kTimeoutMs);
      EXPECT_FALSE(client.UnlinkByPattern("k*"));
      std::vector<Request> expected{{"SCAN", "0", "MATCH", "k*"}};
      if (bad_at == 1) expected.push_back({"SCAN", "5", "MATCH", "k*"});
      EXPECT_EQ(fake.Commands(), expected);  // No UNLINK.
    }
  }
}

// ---- MGet ------------------------------------------------------------------

TEST_F(RedisClientTest, MGetMapsEachKeyToItsValue) {
  ASSERT_TRUE(raw_.Put("a", "1"));
  ASSERT_TRUE(raw_.Put("b", std::string("x\0y", 3)));  // Read back whole.
  Map values{{"stale", "s"}};
  ASSERT_TRUE(client_->MGet({"a", "b"}, values, false));
  EXPECT_EQ(values, (Map{{"a", "1"}, {"b", std::string("x\0y", 3)}}));
  EXPECT_EQ(raw_.Calls("mget"), 1);
}

TEST_F(RedisClientTest, MGetOfMissingKeyWithNilAllowedGivesEmptyString) {
  ASSERT_TRUE(raw_.Put("a", "1"));
  Map values;
  ASSERT_TRUE(client_->MGet({"a", "missing"}, values, true));
  EXPECT_EQ(values, (Map{{"a", "1"}, {"missing", ""}}));
}

TEST_F(RedisClientTest, MGetOfMissingKeyWithoutNilFailsKeepingEarlierEntries) {
  ASSERT_TRUE(raw_.Put("a", "1"));
  ASSERT_TRUE(raw_.Put("b", "2"));
  Map values{{"stale", "s"}};
  EXPECT_FALSE(client_->MGet({"a", "missing", "b"}, values, false));
  EXPECT_EQ(values, (Map{{"a", "1"}}));
}

// An MGET of `keys` against a stand-in that answers with `reply`.
struct FakeMGet {
  explicit FakeMGet(std::string reply)
      : fake([reply](const Request& r, int) -> std::optional<Answer> {
          if (r[0] == "MGET") return Answer{reply};
          return std::nullopt;
        }),
        client(kHost, fake.port(), kTimeoutMs) {}
  FakeRedis fake;
  RedisClient client;
};

TEST_F(RedisClientTest, MGetWritesIntegersInDecimalKeepingTheSign) {
  for (bool allow_nil : {true, false}) {
    FakeMGet f(Array({Int(42), Int(-7), Int(0), Int(-9223372036854775807LL - 1)}));
    ASSERT_TRUE(f.fake.ok());
    Map values;
    ASSERT_TRUE(f.client.MGet({"a", "b", "c", "d"}, values, allow_nil));
    EXPECT_EQ(values, (Map{{"a", "42"}, {"b", "-7"}, {"c", "0"}, {"d", "-9223372036854775808"}}));
    EXPECT_EQ(f.fake.Commands(), (std::vector<Request>{{"MGET", "a", "b", "c", "d"}}));
  }
}

TEST_F(RedisClientTest, MGetTakesStatusElementsAsText) {
  for (bool allow_nil : {true, false}) {
    FakeMGet f(Array({Status("OK"), Bulk("abc"), Bulk("")}));
    ASSERT_TRUE(f.fake.ok());
    Map values;
    ASSERT_TRUE(f.client.MGet({"a", "b", "c"}, values, allow_nil));
    EXPECT_EQ(values, (Map{{"a", "OK"}, {"b", "abc"}, {"c", ""}}));
  }
}

TEST_F(RedisClientTest, MGetFailsAtAnErrorOrArrayElement) {
  for (const std::string& bad : {Error("ERR x"), BulkArray({"n"})}) {
    for (bool allow_nil : {true, false}) {
      FakeMGet f(Array({Bulk("1"), bad, Bulk("3")}));
      ASSERT_TRUE(f.fake.ok());
      Map values{{"stale", "s"}};
      EXPECT_FALSE(f.client.MGet({"a", "b", "c"}, values, allow_nil));
      EXPECT_EQ(values, (Map{{"a", "1"}}));
    }
  }
}

TEST_F(RedisClientTest, MGetRepeatedKeyKeepsItsLastValue) {
  FakeMGet f(Array({Bulk("first"), Bulk("x"), Bulk("last")}));
  ASSERT_TRUE(f.fake.ok());
  Map values;
  ASSERT_TRUE(f.client.MGet({"k", "y", "k"}, values, true));
  EXPECT_EQ(values, (Map{{"k", "last"}, {"y", "x"}}));
}

TEST_F(RedisClientTest, MGetOfAnEmptyArrayIsTrueWithAnEmptyMap) {
  for (bool allow_nil : {false, true}) {
    FakeMGet f(Array({}));
    ASSERT_TRUE(f.fake.ok());
    Map values{{"stale", "s"}};
    EXPECT_TRUE(f.client.MGet({"a", "b"}, values, allow_nil)) << allow_nil;
    EXPECT_TRUE(values.empty()) << allow_nil;
  }
}

TEST_F(RedisClientTest, MGetFailsWhenTheReplyIsNotAnArray) {
  for (const std::string& reply : {Status("OK"), Error("ERR x"), Int(2), Nil(), Bulk("a")}) {
    FakeMGet f(reply);
    ASSERT_TRUE(f.fake.ok());
    Map values{{"stale", "s"}};
    EXPECT_FALSE(f.client.MGet({"a"}, values, true));
    EXPECT_TRUE(values.empty());
  }
}

TEST_F(RedisClientTest, MGetFailsWithoutAReply) {
  FakeRedis fake([](const Request& r, int) -> std::optional<Answer> {
    if (r[0] == "MGET") return Answer{"", true};
    return std::nullopt;
  });
  ASSERT_TRUE(fake.ok());
  RedisClient client(kHost, fake.port(), kTimeoutMs);
  Map values{{"stale", "s"}};
  EXPECT_FALSE(client.MGet({"a"}, values, true));
  EXPECT_TRUE(values.empty());
}

// A reply with more elements than keys has answers for keys never asked:
// it fails. A shorter one maps what it has.
TEST_F(RedisClientTest, MGetPairsElementsWithKeysByPosition) {
  {
    FakeMGet f(Array({Bulk("1"), Bulk("2"), Bulk("3")}));
    ASSERT_TRUE(f.fake.ok());
    Map values;
    EXPECT_FALSE(f.client.MGet({"a", "b"}, values, true));
    EXPECT_EQ(values, (Map{{"a", "1"}, {"b", "2"}}));
  }
  {
    FakeMGet f(Array({Bulk("1")}));
    ASSERT_TRUE(f.fake.ok());
    Map values;
    EXPECT_TRUE(f.client.MGet({"a", "b"}, values, true));
    EXPECT_EQ(values, (Map{{"a", "1"}}));
  }
}

// Without nils allowed, a key past the end of a shorter array is missing:
// the call fails with the answers before it stored.
TEST_F(RedisClientTest, MGetOfAShortArrayWithoutNilFailsKeepingTheKeysAnswered) {
  {
    FakeMGet f(Array({Bulk("1"), Int(-2)}));
    ASSERT_TRUE(f.fake.ok());
    Map values{{"stale", "s"}};
    EXPECT_FALSE(f.client.MGet({"a", "b", "c"}, values, false));
    EXPECT_EQ(values, (Map{{"a", "1"}, {"b", "-2"}}));
    EXPECT_EQ(f.fake.Commands(), (std::vector<Request>{{"MGET", "a", "b", "c"}}));
  }
  {
    FakeMGet f(Array({Status("OK")}));
    ASSERT_TRUE(f.fake.ok());
    Map values;
    EXPECT_FALSE(f.client.MGet({"a", "b"}, values, false));
    EXPECT_EQ(values, (Map{{"a", "OK"}}));
  }
  {
    // A repeated key answered once: its second position is missing.
    FakeMGet f(Array({Bulk("x")}));
    ASSERT_TRUE(f.fake.ok());
    Map values;
    EXPECT_FALSE(f.client.MGet({"k", "k"}, values, false));
    EXPECT_EQ(values, (Map{{"k", "x"}}));
  }
  {
    // A nil among the answers fails first, as it does in a full array.
    FakeMGet f(Array({Bulk("1"), Nil()}));
    ASSERT_TRUE(f.fake.ok());
    Map values;
    EXPECT_FALSE(f.client.MGet({"a", "b", "c"}, values, false));
    EXPECT_EQ(values, (Map{{"a", "1"}}));
  }
}

TEST_F(RedisClientTest, MGetOfAShortArrayWithNilAllowedStoresWhatItHas) {
  FakeMGet f(Array({Bulk("1"), Nil(), Int(3)}));
  ASSERT_TRUE(f.fake.ok());
  Map values{{"stale", "s"}};
  EXPECT_TRUE(f.client.MGet({"a", "b", "c", "d", "e"}, values, true));
  EXPECT_EQ(values, (Map{{"a", "1"}, {"b", ""}, {"c", "3"}}));
}

TEST_F(RedisClientTest, MGetOfAFullArrayWithoutNilSucceeds) {
  FakeMGet f(Array({Bulk("1"), Bulk("2")}));
  ASSERT_TRUE(f.fake.ok());
  Map values;
  EXPECT_TRUE(f.client.MGet({"a", "b"}, values, false));
  EXPECT_EQ(values, (Map{{"a", "1"}, {"b", "2"}}));
}

// ---- Server gone and back --------------------------------------------------

TEST_F(RedisClientTest, ServerRestartBetweenCallsIsMetWithANewConnection) {
  ASSERT_TRUE(client_->Set("before", "1"));
  RestartServer();
  // The pooled connection is dead: its PING fails, it is dropped, and the
  // command runs on a new connection.
  EXPECT_TRUE(client_->Set("after", "2"));
  EXPECT_EQ(raw_.Get("after"), "2");
  EXPECT_EQ(raw_.Get("before"), "<nil>");  // No persistence.
  EXPECT_EQ(raw_.Opened(1), 1);
  EXPECT_EQ(raw_.Calls("ping"), 0);
  EXPECT_EQ(raw_.Calls("set"), 1);
  // From then on the new connection is the pooled one.
  Map values;
  EXPECT_TRUE(client_->MGet({"after"}, values, false));
  EXPECT_EQ(raw_.Opened(1), 1);
  EXPECT_EQ(raw_.Calls("ping"), 1);
}

TEST_F(RedisClientTest, ServerDownFailsEveryOperationQuicklyWithoutLogging) {
  ASSERT_TRUE(client_->Set("k", "v"));  // One pooled connection to the server...
  server_->Stop();                      // ...that is now dead.
  RedisClient fresh(kHost, kPort, kTimeoutMs);
  LogCapture log;
  for (RedisClient* client : {client_.get(), &fresh}) {
    const auto check = [&](const char* what, bool failed) { EXPECT_TRUE(failed) << what; };
    Map values{{"stale", "s"}};
    const auto start = Clock::now();
    check("AcquireContext", client->AcquireContext() == nullptr);
    check("ExecuteCmd", client->ExecuteCmd("PING", {}) == nullptr);
    check("Set", !client->Set("k", "v"));
    check("Unlink", !client->Unlink({"k"}));
    check("UnlinkByPattern", !client->UnlinkByPattern("*"));
    check("MGet", !client->MGet({"k"}, values, true));
    EXPECT_TRUE(values.empty());
    // Six refused connects: far below one connect time-out.
    EXPECT_LT(ElapsedMs(start), kTimeoutMs);
  }
  EXPECT_TRUE(log.Records().empty());
}

TEST_F(RedisClientTest, ConnectGivesUpAfterTheTimeOut) {
  BlackHole hole;
  ASSERT_TRUE(hole.full()) << "could not fill the accept queue";
  // 1500 ms is 1 s and 500,000 µs for hiredis.
  RedisClient client(kHost, hole.port(), 1500);
  const auto start = Clock::now();
  EXPECT_EQ(client.AcquireContext(), nullptr);
  const long long took = ElapsedMs(start);
  EXPECT_GE(took, 1400);
  EXPECT_LT(took, 2500);
}

// ---- Threads ---------------------------------------------------------------

TEST_F(RedisClientTest, ThreadsSharingOneClientNeverFail) {
  constexpr int kThreads = 8;
  constexpr int ops = 10000;  // Per thread.
  std::atomic<int> failures{0};
  std::vector<int> incr_shared(kThreads, 0), incr_own(kThreads, 0), last_set(kThreads, -1);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const std::string me = "t" + std::to_string(t);
      for (int i = 0; i < ops; ++i) {
        switch (i % 4) {
          case 0:
            if (client_->Set(me + ":last", std::to_string(i))) {
              last_set[t] = i;
            } else {
              ++failures;
            }
            break;
          case 1: {
            // Only this thread writes its keys: what it reads is what it
            // wrote last.
            Map values;
            if (!client_->MGet({me + ":last", me + ":count"}, values, true) ||
                values[me + ":last"] != std::to_string(last_set[t]) ||
                values[me + ":count"] != (incr_own[t] ? std::to_string(incr_own[t]) : "")) {
              ++failures;
            }
            break;
          }
          case 2: {
            ReplyPtr r(client_->ExecuteCmd("INCR", {"shared"}));
            if (r && r->type == REDIS_REPLY_INTEGER) {
              ++incr_shared[t];
            } else {
              ++failures;
            }
            break;
          }
          default: {
            ReplyPtr r(client_->ExecuteCmd("INCR", {me + ":count"}));
            if (r && r->type == REDIS_REPLY_INTEGER && r->integer == incr_own[t] + 1) {
              ++incr_own[t];
            } else {
              ++failures;
            }
            break;
          }
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  long long shared = 0;
  for (int t = 0; t < kThreads; ++t) {
    shared += incr_shared[t];
    const std::string me = "t" + std::to_string(t);
    EXPECT_EQ(raw_.Get(me + ":count"), std::to_string(incr_own[t]));
    EXPECT_EQ(raw_.Get(me + ":last"), std::to_string(last_set[t]));
  }
  EXPECT_EQ(shared, static_cast<long long>(kThreads) * ((ops + 1) / 4));
  EXPECT_EQ(raw_.Get("shared"), std::to_string(shared));
  // The pool never holds more connections than there were borrowers (every
  // connection ran commands, so the server has counted them all).
  EXPECT_LE(raw_.Opened(), kThreads);
}

}  // namespace
}  // namespace velmora
