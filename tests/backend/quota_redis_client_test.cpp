// QuotaRedisClient against a real redis-server on 127.0.0.1:8506 inside the
// test's own network namespace (the client's address is fixed), every key
// checked with a plain hiredis connection; a stand-in server
// (redis_test_util.h) takes that port where a reply Redis never sends is needed.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
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

using backend::QuotaRedisClient;
using test::LogRecord;

using namespace redis_test;  // NOLINT(build/namespaces)

constexpr int kErrPriority = 139;  // LOG_LOCAL1 | LOG_ERR
constexpr char kModule[] = "src/lib/backend/quota_redis_client";
constexpr char kMax[] = "18446744073709551615";

// Exactly `messages`, in order, each one line at local1.err from the quota
// client's module; nothing else.
const test::ModuleLog Logged{kErrPriority, kModule};

// ---------------------------------------------------------------------------

// The real server runs for the whole suite on the client's fixed port and is
// emptied (keys and counters) before every test. A test that needs the port
// for a stand-in stops it (TakePort); the next test gets it back.
class QuotaRedisClientTest : public RealRedisTest {
 protected:
  // Stops the real server so that a stand-in may listen on its port.
  void TakePort() {
    raw_.Close();
    server_->Stop();
  }

  void Put(const std::string& key, const std::string& value) {
    ASSERT_TRUE(raw_.Put(key, value)) << key;
  }
  // Every key on the server, sorted.
  std::vector<std::string> AllKeys() {
    ReplyPtr r = raw_.Command({"KEYS", "*"});
    std::vector<std::string> keys;
    for (size_t k = 0; r && k < r->elements; ++k) {
      keys.emplace_back(r->element[k]->str, r->element[k]->len);
    }
    std::sort(keys.begin(), keys.end());
    return keys;
  }
};

using Names = std::vector<std::string>;

// ---- Address ---------------------------------------------------------------

TEST_F(QuotaRedisClientTest, TalksToTheStoreOnLoopbackPort8506) {
  QuotaRedisClient quota;
  EXPECT_EQ(raw_.Opened(0), 0);  // Construction connects nowhere.
  ASSERT_TRUE(quota.SetUserdbAttr("u1", "lang", "en"));
  EXPECT_EQ(raw_.Get("userdb/u1/lang"), "en");
  EXPECT_EQ(raw_.Opened(1), 1);
}

TEST_F(QuotaRedisClientTest, ConnectGivesUpAfterTwoSeconds) {
  TakePort();
  BlackHole hole(kPort);
  ASSERT_TRUE(hole.full()) << "could not fill the accept queue on port " << kPort;
  QuotaRedisClient quota;
  LogCapture log;
  const auto start = Clock::now();
  EXPECT_EQ(quota.GetUsage("u1"), "");
  const long long took = ElapsedMs(start);
  EXPECT_GE(took, 1900);
  EXPECT_LT(took, 3000);
  EXPECT_TRUE(Logged(log.Records(), {"Failed to MGet, keys: [u1/quota/storage]"}));
}

TEST_F(QuotaRedisClientTest, DestroyingThroughTheBaseClassClosesItsConnections) {
  std::unique_ptr<RedisClient> client = std::make_unique<QuotaRedisClient>();
  redisContext* held[2] = {client->AcquireContext(), client->AcquireContext()};
  ASSERT_NE(held[0], nullptr);
  ASSERT_NE(held[1], nullptr);
  for (auto* ctx : held) client->ReleaseContext(ctx, true);
  EXPECT_EQ(raw_.Connected(3), 3);
  client.reset();
  EXPECT_EQ(raw_.Connected(1), 1);
}

// ---- Usage -----------------------------------------------------------------

TEST_F(QuotaRedisClientTest, ListUsageReadsEachUsersStorageKey) {
  Put("u1/quota/storage", "100");
  Put("u2/quota/storage", " 0042");  // Text, passed through unparsed.
  Put("u1/quota/messages", "5");
  Put("userdb/u3/quota", "7");
  QuotaRedisClient quota;
  LogCapture log;
  EXPECT_EQ(quota.ListUsage({"u1", "u2", "u3"}), (Map{{"u1", "100"}, {"u2", " 0042"}, {"u3", ""}}));
  EXPECT_EQ(raw_.Calls("mget"), 1);
  EXPECT_TRUE(log.Records().empty());
}

TEST_F(QuotaRedisClientTest, ListUsageOfUsersWithoutUsageGivesEmptyValuesWithoutLog) {
  QuotaRedisClient quota;
  LogCapture log;
  EXPECT_EQ(quota.ListUsage({"a", "b"}), (Map{{"a", ""}, {"b", ""}}));
  EXPECT_TRUE(log.Records().empty());
}

TEST_F(QuotaRedisClientTest, ListUsageOfNoUsersSendsNothing) {
  QuotaRedisClient quota;
  LogCapture log;
  EXPECT_TRUE(quota.ListUsage({}).empty());
  EXPECT_TRUE(raw_.AllCalls().empty());
  EXPECT_EQ(raw_.Opened(0), 0);
  EXPECT_TRUE(log.Records().empty());
}

TEST_F(QuotaRedisClientTest, ListUsageKeepsOneEntryForARepeatedUser) {
  Put("u1/quota/storage", "9");
  QuotaRedisClient quota;
  EXPECT_EQ(quota.ListUsage({"u1", "u2", "u1"}), (Map{{"u1", "9"}, {"u2", ""}}));
}

TEST_F(QuotaRedisClientTest, GetUsageReturnsTheStoredTextOrEmpty) {
  Put("u1/quota/storage", "123");
  QuotaRedisClient quota;
  LogCapture log;
  EXPECT_EQ(quota.GetUsage("u1"), "123");
  EXPECT_EQ(quota.GetUsage("nobody"), "");
  EXPECT_EQ(raw_.Calls("mget"), 2);
  EXPECT_TRUE(log.Records().empty());
}

TEST_F(QuotaRedisClientTest, DeleteUsageRemovesOnlyTheListedUsersStorageKeys) {
  for (const char* user : {"u1", "u2", "u3"}) {
    Put(std::string(user) + "/quota/storage", "1");
    Put(std::string(user) + "/quota/messages", "2");
  }
  QuotaRedisClient quota;
  EXPECT_TRUE(quota.DeleteUsage({"u1", "u2", "absent"}));
  EXPECT_EQ(raw_.Calls("unlink"), 1);
  EXPECT_EQ(AllKeys(), (Names{"u1/quota/messages", "u2/quota/messages", "u3/quota/messages",
                              "u3/quota/storage"}));
}

TEST_F(QuotaRedisClientTest, DeleteUsageOfNoUsersFailsWithoutTraffic) {
  Put("u1/quota/storage", "1");
  ReplyPtr reset = raw_.Command({"CONFIG", "RESETSTAT"});
  QuotaRedisClient quota;
  EXPECT_FALSE(quota.DeleteUsage({}));
  EXPECT_TRUE(raw_.AllCalls().empty());
  EXPECT_EQ(raw_.Opened(0), 0);
  EXPECT_EQ(AllKeys(), (Names{"u1/quota/storage"}));
}

TEST_F(QuotaRedisClientTest, DeleteAllUsageRemovesStorageAndMessagesKeysOnly) {
  for (const char* user : {"u1", "dom/u2", "a*b?[c]"}) {
    Put(std::string(user) + "/quota/storage", "1");
    Put(std::string(user) + "/quota/messages", "2");
  }
  Put("u1/quota/storage/old", "3");
  Put("u1/quota/other", "4");
  Put("userdb/u1/quota", "5");
  Put("quota/storage", "6");  // No "/" before "quota": no match.
  QuotaRedisClient quota;
  EXPECT_TRUE(quota.DeleteAllUsage());
  EXPECT_EQ(raw_.Calls("unlink"), 2);
  EXPECT_EQ(AllKeys(),
            (Names{"quota/storage", "u1/quota/other", "u1/quota/storage/old", "userdb/u1/quota"}));
}

TEST_F(QuotaRedisClientTest, DeleteAllUsageOfAnEmptyStoreSucceeds) {
  QuotaRedisClient quota;
  EXPECT_TRUE(quota.DeleteAllUsage());
  EXPECT_EQ(raw_.Calls("scan"), 2);
  EXPECT_EQ(raw_.Calls("unlink"), 0);
}

TEST_F(QuotaRedisClientTest, DeleteAllUsageStopsWhenTheStorageScanFails) {
  TakePort();
  for (const std::string& bad : {Error("ERR scan"), Status("OK"), Nil(), BulkArray({"0"})}) {
    FakeRedis fake(
        [&bad](const Request& r, int) -> std::optional<Answer> {
          if (r[0] == "SCAN") return Answer{bad};
          return std::nullopt;
        },
        kPort);
    ASSERT_TRUE(fake.ok());
    QuotaRedisClient quota;
    EXPECT_FALSE(quota.DeleteAllUsage());
    // The messages keys were never scanned, nothing was removed.
    EXPECT_EQ(fake.Commands(), (std::vector<Request>{{"SCAN", "0", "MATCH", "*/quota/storage"}}));
  }
}

TEST_F(QuotaRedisClientTest, DeleteAllUsageFailsWhenTheMessagesScanFails) {
  TakePort();
  FakeRedis fake(
      [](const Request& r, int nth) -> std::optional<Answer> {
        if (r[0] == "SCAN" && nth == 0) return Answer{ScanReply("0", {"u/quota/storage"})};
        if (r[0] == "SCAN") return Answer{Error("ERR scan")};
        if (r[0] == "UNLINK") return Answer{Int(1)};
        return std::nullopt;
      },
      kPort);
  ASSERT_TRUE(fake.ok());
  QuotaRedisClient quota;
  EXPECT_FALSE(quota.DeleteAllUsage());
  EXPECT_EQ(fake.Commands(), (std::vector<Request>{{"SCAN", "0", "MATCH", "*/quota/storage"},
                                                   {"UNLINK", "u/quota/storage"},
                                                   {"SCAN", "0", "MATCH", "*/quota/messages"}}));
}

// ---- Userdb attributes -----------------------------------------------------

TEST_F(QuotaRedisClientTest, UserdbAttributesLiveUnderUserdbUserAttr) {
  QuotaRedisClient quota;
  LogCapture log;
  ASSERT_TRUE(quota.SetUserdbAttr("u1", "lang", "en"));
  ASSERT_TRUE(quota.SetUserdbAttr("u1", "lang", "fr"));
  Put("userdb/u1/theme", "dark");
  Put("userdb/u2/size", "9");
  EXPECT_EQ(raw_.Get("userdb/u1/lang"), "fr");
  EXPECT_EQ(quota.GetUserdbAttr("u1", {"lang", "theme", "size"}),
            (Map{{"lang", "fr"}, {"theme", "dark"}, {"size", ""}}));
  EXPECT_TRUE(quota.GetUserdbAttr("u1", {}).empty());
  EXPECT_TRUE(log.Records().empty());
}

TEST_F(QuotaRedisClientTest, QuotaLimitAndWarningAreStoredAsUnsignedDecimal) {
  QuotaRedisClient quota;
  ASSERT_TRUE(quota.SetUserdbQuotaLimit("u0", 0));
  ASSERT_TRUE(quota.SetUserdbQuotaLimit("umax", 18446744073709551615ULL));
  ASSERT_TRUE(quota.SetUserdbQuotaWarning("u0", 0));
  ASSERT_TRUE(quota.SetUserdbQuotaWarning("umax", 18446744073709551615ULL));
  ASSERT_TRUE(quota.SetUserdbQuotaLimit("u5", 5120));
  EXPECT_EQ(raw_.Get("userdb/u0/quota"), "0");
  EXPECT_EQ(raw_.Get("userdb/umax/quota"), kMax);
  EXPECT_EQ(raw_.Get("userdb/u0/quota_warning"), "0");
  EXPECT_EQ(raw_.Get("userdb/umax/quota_warning"), kMax);
  EXPECT_EQ(raw_.Get("userdb/u5/quota"), "5120");
  EXPECT_EQ(quota.GetUserdbQuotaLimit("umax"), kMax);
  EXPECT_EQ(quota.GetUserdbQuotaWarning("u0"), "0");
}

TEST_F(QuotaRedisClientTest, ListQuotaLimitAndWarningMapEachUser) {
  Put("userdb/u1/quota", "100");
  Put("userdb/u2/quota", "200");
  Put("userdb/u1/quota_warning", "90");
  QuotaRedisClient quota;
  LogCapture log;
  EXPECT_EQ(quota.ListUserdbQuotaLimit({"u1", "u2", "u3"}),
            (Map{{"u1", "100"}, {"u2", "200"}, {"u3", ""}}));
  EXPECT_EQ(quota.ListUserdbQuotaWarning({"u1", "u2"}), (Map{{"u1", "90"}, {"u2", ""}}));
  EXPECT_TRUE(quota.ListUserdbQuotaLimit({}).empty());
  EXPECT_EQ(raw_.Calls("mget"), 2);
  EXPECT_TRUE(log.Records().empty());
}

TEST_F(QuotaRedisClientTest, UserWithoutLimitOrWarningGetsEmptyTextWithoutLog) {
  Put("userdb/u1/other", "x");
  QuotaRedisClient quota;
  LogCapture log;
  EXPECT_EQ(quota.GetUserdbQuotaLimit("u1"), "");
  EXPECT_EQ(quota.GetUserdbQuotaWarning("u1"), "");
  EXPECT_TRUE(log.Records().empty());
}

TEST_F(QuotaRedisClientTest, DeleteAllUserdbAttrMatchesUserNamesWithSlashes) {
  for (const char* key : {"userdb/u1/quota", "userdb/u1/lang", "userdb/dom/u2/quota",
                          "userdb/a*b?[c]/quota_warning", "userdb//x"}) {
    Put(key, "1");
  }
  for (const char* key :
       {"userdb/u1", "userdb", "userdbx/u1/quota", "u1/quota/storage", "x/userdb/u1/quota"}) {
    Put(key, "keep");
  }
  QuotaRedisClient quota;
  EXPECT_TRUE(quota.DeleteAllUserdbAttr());
  EXPECT_EQ(raw_.Calls("unlink"), 1);
  EXPECT_EQ(AllKeys(), (Names{"u1/quota/storage", "userdb", "userdb/u1", "userdbx/u1/quota",
                              "x/userdb/u1/quota"}));
}

TEST_F(QuotaRedisClientTest, UserNamesWithSlashesAndGlobCharactersAreUsedAsTheyStand) {
  const std::string user = "dom/al*ce?[1]";
  Put(user + "/quota/storage", "77");
  Put("dom/alice/quota/storage", "other");
  QuotaRedisClient quota;
  ASSERT_TRUE(quota.SetUserdbQuotaLimit(user, 10));
  ASSERT_TRUE(quota.SetUserdbQuotaWarning(user, 8));
  ASSERT_TRUE(quota.SetUserdbAttr(user, "a/b*", "v"));
  EXPECT_EQ(raw_.Get("userdb/dom/al*ce?[1]/quota"), "10");
  EXPECT_EQ(raw_.Get("userdb/dom/al*ce?[1]/quota_warning"), "8");
  EXPECT_EQ(raw_.Get("userdb/dom/al*ce?[1]/a/b*"), "v");
  EXPECT_EQ(quota.GetUsage(user), "77");
  EXPECT_EQ(quota.GetUserdbQuotaLimit(user), "10");
  EXPECT_EQ(quota.GetUserdbAttr(user, {"a/b*"}), (Map{{"a/b*", "v"}}));
  EXPECT_TRUE(quota.DeleteUsage({user}));
  EXPECT_EQ(raw_.Get(user + "/quota/storage"), "<nil>");
  EXPECT_EQ(raw_.Get("dom/alice/quota/storage"), "other");
}

// ---- Store unreachable -----------------------------------------------------

TEST_F(QuotaRedisClientTest, ServerDownReadsLogTheFailedMGetAndGiveEmptyValues) {
  QuotaRedisClient quota;
  ASSERT_TRUE(quota.SetUserdbAttr("u1", "x", "1"));  // A pooled connection...
  TakePort();                                        // ...now dead.
  LogCapture log;
  EXPECT_EQ(quota.ListUsage({"u1", "u2"}), (Map{{"u1", ""}, {"u2", ""}}));
  EXPECT_TRUE(Logged(log.Records(), {"Failed to MGet, keys: [u1/quota/storage,u2/quota/storage]"}));

  log.Reset();
  EXPECT_EQ(quota.GetUsage("u1"), "");
  EXPECT_EQ(quota.GetUserdbAttr("u1", {"a", "b"}), (Map{{"a", ""}, {"b", ""}}));
  EXPECT_EQ(quota.ListUserdbQuotaLimit({"u1", "u2"}), (Map{{"u1", ""}, {"u2", ""}}));
  EXPECT_EQ(quota.ListUserdbQuotaWarning({"u1"}), (Map{{"u1", ""}}));
  EXPECT_EQ(quota.GetUserdbQuotaLimit("u1"), "");
  EXPECT_EQ(quota.GetUserdbQuotaWarning("u2"), "");
  EXPECT_TRUE(Logged(log.Records(), {
                                        "Failed to MGet, keys: [u1/quota/storage]",
                                        "Failed to MGet, keys: [userdb/u1/a,userdb/u1/b]",
                                        "Failed to MGet, keys: [userdb/u1/quota,userdb/u2/quota]",
                                        "Failed to MGet, keys: [userdb/u1/quota_warning]",
                                        "Failed to MGet, keys: [userdb/u1/quota]",
                                        "Failed to MGet, keys: [userdb/u2/quota_warning]",
                                    }));
}

TEST_F(QuotaRedisClientTest, ServerDownWritesAndDeletesFailWithoutLog) {
  TakePort();
  QuotaRedisClient quota;
  LogCapture log;
  EXPECT_FALSE(quota.SetUserdbAttr("u1", "a", "b"));
  EXPECT_FALSE(quota.SetUserdbQuotaLimit("u1", 1));
  EXPECT_FALSE(quota.SetUserdbQuotaWarning("u1", 1));
  EXPECT_FALSE(quota.DeleteUsage({"u1"}));
  EXPECT_FALSE(quota.DeleteAllUsage());
  EXPECT_FALSE(quota.DeleteAllUserdbAttr());
  EXPECT_TRUE(log.Records().empty());
}

TEST_F(QuotaRedisClientTest, FailedMGetKeepsTheValuesThatArrived) {
  TakePort();
  FakeRedis fake(
      [](const Request& r, int) -> std::optional<Answer> {
        if (r[0] == "MGET") return Answer{Array({Bulk("100"), Error("ERR odd"), Bulk("300")})};
        return std::nullopt;
      },
      kPort);
  ASSERT_TRUE(fake.ok());
  QuotaRedisClient quota;
  LogCapture log;
  EXPECT_EQ(quota.ListUsage({"u1", "u2", "u3"}), (Map{{"u1", "100"}, {"u2", ""}, {"u3", ""}}));
  EXPECT_TRUE(
      Logged(log.Records(),
             {"Failed to MGet, keys: [u1/quota/storage,u2/quota/storage,u3/quota/storage]"}));
  EXPECT_EQ(
      fake.Commands(),
      (std::vector<Request>{{"MGET", "u1/quota/storage", "u2/quota/storage", "u3/quota/storage"}}));
}

}  // namespace
}  // namespace velmora
