#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <velmora/memcached.h>

#include "support/server_process.h"

namespace velmora {
namespace {

using sdk::Memcached;
using sdk::MemcachedConfig;
using sdk::MemcachedData;
using test::ServerProcess;

const std::vector<int> kPorts = {11321, 11322, 11323};
constexpr int kKeys = 3000;
// A fair share of kKeys for one of three servers, with room for the hashing.
constexpr uint64_t kFairShare = kKeys / 5;
// The pool's retry and dead time-outs are 2 s each.
constexpr unsigned kPastDeadTimeoutSeconds = 3;

std::string PoolOptions() { return test::MemcachedPoolOptions(kPorts); }

std::string Key(const std::string& prefix, int i) { return prefix + std::to_string(i); }

MemcachedData Item(const std::string& key) {
  MemcachedData d;
  d.key = key;
  d.value = "value of " + key;
  d.flags = 0;
  d.expiration = 0;
  return d;
}

// libmemcached opens its texts with the address of the handle that made
// them, which differs from one parse to the next; LastErrorMessage leaves
// it out.
std::string WithoutHandleAddress(const std::string& text) {
  return std::regex_replace(text, std::regex("^\\(0x[0-9a-f]+\\) "), "");
}

class MemcachedPoolTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (int port : kPorts) servers_.push_back(test::MemcachedTcpServer(port, {"-m", "16"}));
  }
  static void TearDownTestSuite() { servers_.clear(); }

  void SetUp() override {
    for (size_t i = 0; i < kPorts.size(); ++i) {
      ASSERT_TRUE(servers_[i]->Start());
      memcached_st* raw = RawHandle(kPorts[i]);
      ASSERT_EQ(memcached_flush(raw, 0), MEMCACHED_SUCCESS);
      memcached_free(raw);
    }
    pool_ = std::make_unique<Memcached>(MemcachedConfig{PoolOptions()});
    ASSERT_EQ(pool_->LastResult(), MEMCACHED_SUCCESS);
  }

  static memcached_st* RawHandle(int port) {
    memcached_st* raw = memcached_create(nullptr);
    memcached_server_add(raw, "127.0.0.1", static_cast<in_port_t>(port));
    return raw;
  }

  // Items one server holds, asked with `stats` around the pool.
  static uint64_t ItemsOn(int port) {
    memcached_st* raw = RawHandle(port);
    memcached_return_t rc = MEMCACHED_SUCCESS;
    memcached_stat_st* stats = memcached_stat(raw, nullptr, &rc);
    const uint64_t items = rc == MEMCACHED_SUCCESS ? stats[0].curr_items : 0;
    memcached_stat_free(raw, stats);
    memcached_free(raw);
    EXPECT_EQ(rc, MEMCACHED_SUCCESS) << "stats of port " << port;
    return items;
  }

  // Writes kKeys items named prefix0, prefix1...; returns how many failed and
  // the index of the last failure (-1 when none did).
  int WriteKeys(const std::string& prefix, int& last_failure) {
    int failures = 0;
    last_failure = -1;
    for (int i = 0; i < kKeys; ++i) {
      if (!pool_->Set(Item(Key(prefix, i)))) {
        ++failures;
        last_failure = i;
      }
    }
    return failures;
  }

  // Stops the server on kPorts[1] and reads every key back through the pool,
  // which ejects it.
  struct ReadBack {
    int hits = 0;
    int misses = 0;
    int failures = 0;
    double seconds = 0;
    std::string first_failure_text;
  };
  ReadBack ReadKeys(const std::string& prefix) {
    ReadBack read;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kKeys; ++i) {
      MemcachedData out;
      const std::string key = Key(prefix, i);
      if (pool_->Get(key, out)) {
        EXPECT_EQ(out.value, "value of " + key);
        ++read.hits;
      } else if (pool_->LastResult() == MEMCACHED_NOTFOUND) {
        ++read.misses;
      } else {
        if (read.failures++ == 0) read.first_failure_text = pool_->LastErrorMessage();
      }
    }
    read.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return read;
  }

  static std::vector<std::unique_ptr<ServerProcess>> servers_;
  std::unique_ptr<Memcached> pool_;
};

std::vector<std::unique_ptr<ServerProcess>> MemcachedPoolTest::servers_;

TEST_F(MemcachedPoolTest, KeysSpreadOverEveryServer) {
  int last_failure = 0;
  ASSERT_EQ(WriteKeys("spread", last_failure), 0);
  uint64_t total = 0;
  for (int port : kPorts) {
    const uint64_t items = ItemsOn(port);
    std::printf("port %d holds %llu of %d keys\n", port, static_cast<unsigned long long>(items),
                kKeys);
    EXPECT_GE(items, kFairShare) << "port " << port;
    total += items;
  }
  EXPECT_EQ(total, static_cast<uint64_t>(kKeys));
}

TEST_F(MemcachedPoolTest, StoppedServerCostsOnlyItsShare) {
  int last_failure = 0;
  ASSERT_EQ(WriteKeys("before", last_failure), 0);
  const uint64_t live_items = ItemsOn(kPorts[0]) + ItemsOn(kPorts[2]);
  const uint64_t lost_items = ItemsOn(kPorts[1]);
  servers_[1]->Stop();

  const ReadBack read = ReadKeys("before");
  std::printf("read back with one server stopped: %d hits, %d misses, %d failures in %.3f s\n",
              read.hits, read.misses, read.failures, read.seconds);
  EXPECT_EQ(static_cast<uint64_t>(read.hits), live_items);
  EXPECT_EQ(static_cast<uint64_t>(read.misses + read.failures), lost_items);
  // Only the calls before the ejection fail; the rest of the stopped
  // server's keys are looked up on the others and simply missing there.
  EXPECT_GE(read.failures, 1);
  EXPECT_LE(read.failures, 5);
  EXPECT_NE(read.first_failure_text.find("127.0.0.1:11322"), std::string::npos)
      << read.first_failure_text;
  // Not one poll time-out (1 s) per missing key.
  EXPECT_LT(read.seconds, 5.0);

  // Writes now land on the two live servers.
  const int write_failures = WriteKeys("after", last_failure);
  std::printf("writes after the ejection: %d failures\n", write_failures);
  EXPECT_EQ(write_failures, 0);
  EXPECT_EQ(ItemsOn(kPorts[0]) + ItemsOn(kPorts[2]), live_items + kKeys);
}

TEST_F(MemcachedPoolTest, RestartedServerIsUsedAgain) {
  servers_[1]->Stop();
  // The first writes find the server gone and eject it; every later one
  // succeeds on the two others.
  int last_failure = 0;
  const int failures = WriteKeys("down", last_failure);
  std::printf("writes with one server stopped: %d failures, the last at #%d\n", failures,
              last_failure);
  EXPECT_GE(failures, 1);
  EXPECT_LE(failures, 5);
  EXPECT_LT(last_failure, 10);
  EXPECT_EQ(ItemsOn(kPorts[0]) + ItemsOn(kPorts[2]), static_cast<uint64_t>(kKeys - failures));

  ASSERT_TRUE(servers_[1]->Start());
  sleep(kPastDeadTimeoutSeconds);
  ASSERT_EQ(WriteKeys("again", last_failure), 0);
  const uint64_t restarted = ItemsOn(kPorts[1]);
  std::printf("restarted server received %llu of %d new keys\n",
              static_cast<unsigned long long>(restarted), kKeys);
  EXPECT_GE(restarted, kFairShare);
}

TEST_F(MemcachedPoolTest, PoolDefaultsAreSet) {
  const std::vector<std::pair<memcached_behavior_t, uint64_t>> expected = {
      {MEMCACHED_BEHAVIOR_DISTRIBUTION, MEMCACHED_DISTRIBUTION_CONSISTENT},
      {MEMCACHED_BEHAVIOR_REMOVE_FAILED_SERVERS, 1},
      {MEMCACHED_BEHAVIOR_RETRY_TIMEOUT, 2},
      {MEMCACHED_BEHAVIOR_CONNECT_TIMEOUT, 1000},
      {MEMCACHED_BEHAVIOR_POLL_TIMEOUT, 1000},
      {MEMCACHED_BEHAVIOR_SERVER_FAILURE_LIMIT, 1},
      {MEMCACHED_BEHAVIOR_DEAD_TIMEOUT, 2},
  };
  for (const auto& [flag, value] : expected) {
    uint64_t data = 0;
    ASSERT_TRUE(pool_->BehaviorGet(flag, data));
    EXPECT_EQ(data, value) << "behaviour " << flag;
  }
}

TEST_F(MemcachedPoolTest, CallerOptionsOverrideDefaults) {
  Memcached pool(MemcachedConfig{PoolOptions() +
                                 " --DISTRIBUTION=modula --REMOVE-FAILED-SERVERS=0 "
                                 "--RETRY-TIMEOUT=7 --CONNECT-TIMEOUT=300 --POLL-TIMEOUT=400"});
  ASSERT_EQ(pool.LastResult(), MEMCACHED_SUCCESS);
  const std::vector<std::pair<memcached_behavior_t, uint64_t>> expected = {
      {MEMCACHED_BEHAVIOR_DISTRIBUTION, MEMCACHED_DISTRIBUTION_MODULA},
      {MEMCACHED_BEHAVIOR_REMOVE_FAILED_SERVERS, 0},
      {MEMCACHED_BEHAVIOR_RETRY_TIMEOUT, 7},
      {MEMCACHED_BEHAVIOR_CONNECT_TIMEOUT, 300},
      {MEMCACHED_BEHAVIOR_POLL_TIMEOUT, 400},
  };
  for (const auto& [flag, value] : expected) {
    uint64_t data = 0;
    ASSERT_TRUE(pool.BehaviorGet(flag, data));
    EXPECT_EQ(data, value) << "behaviour " << flag;
  }
  // The behaviours the language cannot set are the caller's to change too.
  ASSERT_TRUE(pool.BehaviorSet(MEMCACHED_BEHAVIOR_DEAD_TIMEOUT, 30));
  uint64_t dead_timeout = 0;
  ASSERT_TRUE(pool.BehaviorGet(MEMCACHED_BEHAVIOR_DEAD_TIMEOUT, dead_timeout));
  EXPECT_EQ(dead_timeout, 30u);
  ASSERT_TRUE(pool.Set(Item("override")));
  MemcachedData out;
  ASSERT_TRUE(pool.Get("override", out));
  EXPECT_EQ(out.value, "value of override");
}

// Every operation of an object that is not ready fails at once, leaving the
// last result alone.
void ExpectNotReady(Memcached& client, memcached_return_t code) {
  uint64_t data = 0;
  MemcachedData out;
  bool exists = false;
  EXPECT_FALSE(client.BehaviorGet(MEMCACHED_BEHAVIOR_POLL_TIMEOUT, data));
  EXPECT_FALSE(client.BehaviorSet(MEMCACHED_BEHAVIOR_POLL_TIMEOUT, 1));
  EXPECT_FALSE(client.Set(Item("k")));
  EXPECT_FALSE(client.Get("k", out));
  EXPECT_FALSE(client.Exist("k", exists));
  EXPECT_FALSE(client.Delete("k"));
  EXPECT_EQ(client.LastResult(), code);
}

// A string libmemcached refuses: the code and the text that
// libmemcached_check_configuration gives for it (without the handle
// address), `fragment` in that text, and an object that is not ready.
void ExpectRefused(const std::string& options, memcached_return_t code,
                   const std::string& fragment) {
  char expected[1024] = "";
  ASSERT_EQ(
      libmemcached_check_configuration(options.data(), options.size(), expected, sizeof(expected)),
      code);
  Memcached pool(MemcachedConfig{options});
  EXPECT_EQ(pool.LastResult(), code);
  EXPECT_EQ(std::string(expected).rfind("(0x", 0), 0u) << expected;
  EXPECT_EQ(pool.LastErrorMessage(), WithoutHandleAddress(expected));
  EXPECT_NE(pool.LastErrorMessage().find(fragment), std::string::npos) << pool.LastErrorMessage();
  ExpectNotReady(pool, code);
}

TEST_F(MemcachedPoolTest, BadStringGivesLibmemcachedCodeAndText) {
  ExpectRefused(PoolOptions() + " --NO-SUCH-OPTION=1", MEMCACHED_PARSE_ERROR,
                "unexpected UNKNOWN_OPTION");
}

TEST_F(MemcachedPoolTest, BadValueGivesLibmemcachedText) {
  ExpectRefused(PoolOptions() + " --DISTRIBUTION=nope", MEMCACHED_PARSE_ERROR,
                "expecting CONSISTENT or MODULA or RANDOM");
}

TEST_F(MemcachedPoolTest, MissingConfigurationFileGivesSystemError) {
  ExpectRefused("--CONFIGURE-FILE=\"/run/velmora-test/no-such-pool.conf\"", MEMCACHED_ERRNO,
                "SYSTEM ERROR(No such file or directory), /run/velmora-test/no-such-pool.conf");
}

TEST_F(MemcachedPoolTest, StringWithoutServerIsNotReady) {
  for (const std::string options : {"", "--DISTRIBUTION=consistent --POLL-TIMEOUT=10"}) {
    Memcached pool(MemcachedConfig{options});
    EXPECT_EQ(pool.LastResult(), MEMCACHED_NO_SERVERS) << options;
    EXPECT_EQ(pool.LastErrorMessage(), memcached_strerror(nullptr, MEMCACHED_NO_SERVERS));
    ExpectNotReady(pool, MEMCACHED_NO_SERVERS);
  }
}

TEST_F(MemcachedPoolTest, ErrorTextOfReadyObjects) {
  EXPECT_EQ(pool_->LastErrorMessage(), "SUCCESS");
  Memcached none;
  EXPECT_EQ(none.LastErrorMessage(), "SUCCESS");
  // A single server that is not there: the text names it.
  Memcached absent("127.0.0.1", 11329);
  MemcachedData out;
  EXPECT_FALSE(absent.Get("k", out));
  EXPECT_EQ(absent.LastResult(), MEMCACHED_CONNECTION_FAILURE);
  EXPECT_EQ(absent.LastErrorMessage().rfind("CONNECTION FAILURE", 0), 0u)
      << absent.LastErrorMessage();
  EXPECT_NE(absent.LastErrorMessage().find(",  host: 127.0.0.1:11329"), std::string::npos)
      << absent.LastErrorMessage();
}

}  // namespace
}  // namespace velmora
