// One sentinel-aware RedisClient shared by several threads: against a real
// redis-server named by a stand-in sentinel, and against a stand-in master
// whose READONLY answers make the threads forget and look up the master
// while others use the pool. Short enough to run under ThreadSanitizer.
#include <atomic>

#include "support/redis_test_util.h"

namespace velmora {
namespace redis_test {
namespace {

using backend::RedisAddress;

constexpr int kMasterPort = 8543;  // This file's own server.
constexpr int kThreads = 4;
constexpr int kRounds = 100;

std::string Naming(int port) { return BulkArray({kHost, std::to_string(port)}); }
std::string RoleMaster() { return Array({Bulk("master"), Int(0), Array({})}); }

TEST(SentinelThreadsTest, ThreadsShareOneClientOfARealMaster) {
  ServerProcess server(RedisServerCommand(kMasterPort),
                       [] { return test::CanConnectTcp(kHost, kMasterPort); });
  ASSERT_TRUE(server.Start());
  FakeRedis sentinel([](const Request& r, int) -> std::optional<Answer> {
    if (Upper(r[0]) == "SENTINEL") return Answer{Naming(kMasterPort)};
    return std::nullopt;
  });
  ASSERT_TRUE(sentinel.ok());
  RedisClient client({RedisAddress{kHost, sentinel.port()}}, "mailstore", kTimeoutMs);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&client, &failures, t] {
      for (int i = 0; i < kRounds; ++i) {
        const std::string key = "t" + std::to_string(t) + "/" + std::to_string(i);
        Map values;
        if (!client.Set(key, std::to_string(i)) || !client.MGet({key}, values, false) ||
            values[key] != std::to_string(i)) {
          ++failures;
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  RawRedis raw;
  ASSERT_TRUE(raw.Connect(kMasterPort));
  EXPECT_EQ(raw.DbSize(), kThreads * kRounds);
  // Every connection the client opened asked ROLE once: at most one per
  // thread was ever opened.
  EXPECT_GE(raw.Calls("role"), 1);
  EXPECT_LE(raw.Calls("role"), kThreads);
}

TEST(SentinelThreadsTest, ThreadsForgetAndFindTheMasterWhileOthersUseThePool) {
  FakeRedis master([](const Request& r, int nth) -> std::optional<Answer> {
    const std::string word = Upper(r[0]);
    if (word == "ROLE") return Answer{RoleMaster()};
    if (word == "SET") return Answer{nth % 7 == 3 ? Error("READONLY demoted") : Status("OK")};
    return std::nullopt;
  });
  ASSERT_TRUE(master.ok());
  const int port = master.port();
  FakeRedis sentinel([port](const Request& r, int) -> std::optional<Answer> {
    if (Upper(r[0]) == "SENTINEL") return Answer{Naming(port)};
    return std::nullopt;
  });
  ASSERT_TRUE(sentinel.ok());
  RedisClient client({RedisAddress{kHost, sentinel.port()}}, "mailstore", kTimeoutMs);
  std::atomic<int> written{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&client, &written] {
      for (int i = 0; i < kRounds; ++i) {
        if (client.Set("k", "v")) ++written;
      }
    });
  }
  for (auto& t : threads) t.join();
  const auto requests = master.Requests();
  const int sets = static_cast<int>(std::count_if(
      requests.begin(), requests.end(), [](const Request& r) { return Upper(r[0]) == "SET"; }));
  const int readonly = (sets + 3) / 7;  // SETs numbered 3, 10, 17, ...
  EXPECT_EQ(sets, kThreads * kRounds);
  EXPECT_EQ(written.load(), sets - readonly);
  // Each READONLY closed its connection, and the master was looked up again.
  EXPECT_GE(master.Accepted(), readonly);
  EXPECT_GT(static_cast<int>(sentinel.Requests().size()), 1);
}

}  // namespace
}  // namespace redis_test
}  // namespace velmora
