// Servers that die under the clients: redis-server killed with SIGKILL in
// the middle of a SCAN walk and of a large MGET, and memcached stopped
// between two calls. The calls fail cleanly (false or null, no crash, no
// log), and the first call after the server is back succeeds with the same
// client object.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

#include <velmora/backend.h>
#include <velmora/memcached.h>

#include "support/log_capture.h"
#include "support/redis_test_util.h"
#include "support/server_process.h"

namespace velmora {
namespace {

using sdk::Memcached;
using sdk::MemcachedData;

using namespace redis_test;  // NOLINT(build/namespaces)

constexpr int kMemcachedPort = 11411;

// hiredis writes with write(2), so a request that meets a connection the
// dead server has reset could raise SIGPIPE; the client takes it back before
// it is delivered. A handler counts any that would get through.
std::atomic<int> g_sigpipes{0};
void CountSigpipe(int) { ++g_sigpipes; }

class RedisKillTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    struct sigaction action {};
    action.sa_handler = CountSigpipe;
    sigemptyset(&action.sa_mask);
    sigaction(SIGPIPE, &action, nullptr);
  }
  static void TearDownTestSuite() { signal(SIGPIPE, SIG_DFL); }

  void SetUp() override {
    server_ = std::make_unique<ServerProcess>(RedisServerCommand(),
                                              [] { return test::CanConnectTcp(kHost, kPort); });
    ASSERT_TRUE(server_->Start());
    ASSERT_TRUE(raw_.Connect());
    ASSERT_TRUE(raw_.Reset());
    client_ = std::make_unique<RedisClient>(kHost, kPort, kTimeoutMs);
  }
  void TearDown() override {
    client_.reset();
    raw_.Close();
    server_.reset();
    EXPECT_EQ(g_sigpipes.exchange(0), 0) << "SIGPIPE reached the program";
  }

  // Freezes the server (SIGSTOP) and then kills it (SIGKILL): whatever the
  // client was waiting for never comes and its connection breaks.
  void FreezeThenKill(int frozen_ms) {
    ASSERT_EQ(kill(server_->pid(), SIGSTOP), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(frozen_ms));
    ASSERT_EQ(kill(server_->pid(), SIGKILL), 0);
  }

  // Reaps the killed server and starts a fresh, empty one on the same port.
  void Restart() {
    raw_.Close();
    server_->Stop();
    ASSERT_TRUE(server_->Start());
    ASSERT_TRUE(raw_.Connect());
  }

  std::unique_ptr<ServerProcess> server_;
  RawRedis raw_;
  std::unique_ptr<RedisClient> client_;
};

TEST_F(RedisKillTest, KilledDuringAScanWalkFailsAndTheNextWalkSucceeds) {
  constexpr int kKeys = 40000;  // a walk of about 4,000 SCAN round trips
  ASSERT_TRUE(raw_.Fill("walk:", kKeys));
  const int walk_length = raw_.ScanWalkLength("walk:*");
  ASSERT_GT(walk_length, 1000);
  ASSERT_TRUE(raw_.Reset()) << "counters only";
  ASSERT_TRUE(raw_.Fill("walk:", kKeys));

  LogCapture capture;
  std::atomic<int> result{-1};
  std::thread walker([&] { result = client_->UnlinkByPattern("walk:*") ? 1 : 0; });
  // Wait until the walk is well under way, then stop the server in its
  // tracks: the scans seen so far are far fewer than the walk needs.
  long long scans = 0;
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  while ((scans = raw_.Calls("scan")) < 50 && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  const long long unlinks = raw_.Calls("unlink");
  FreezeThenKill(100);
  walker.join();
  ASSERT_GE(scans, 50);
  EXPECT_LT(scans, walk_length / 2);
  EXPECT_EQ(unlinks, 0);
  EXPECT_EQ(result, 0);

  // Back again (empty: no persistence). The same client walks anew.
  Restart();
  ASSERT_TRUE(raw_.Fill("walk:", 500));
  ASSERT_TRUE(raw_.Put("keep", "1"));
  EXPECT_TRUE(client_->UnlinkByPattern("walk:*"));
  EXPECT_EQ(raw_.DbSize(), 1);
  EXPECT_EQ(raw_.Get("keep"), "1");
  EXPECT_TRUE(capture.Records().empty()) << "RedisClient wrote to the log";
}

TEST_F(RedisKillTest, KilledDuringALargeMGetFailsAndTheNextMGetSucceeds) {
  // 20,000 keys of about 300 bytes: a request of some 6 MB, which takes the
  // server a while to take in.
  constexpr int kKeys = 20000;
  const std::string prefix = "m:" + std::string(290, 'p') + ":";
  ASSERT_TRUE(raw_.Fill(prefix, kKeys));
  std::vector<std::string> keys;
  keys.reserve(kKeys);
  for (int i = 0; i < kKeys; ++i) keys.push_back(prefix + std::to_string(i));
  // The pool holds a live connection, so the MGET goes out right after a
  // PING, which tells when it starts.
  ASSERT_TRUE(client_->Set("warm", "1"));

  LogCapture capture;
  Map values{{"old", "x"}};
  std::atomic<int> result{-1};
  std::thread getter([&] { result = client_->MGet(keys, values, false) ? 1 : 0; });
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  while (raw_.Calls("ping") < 1 && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  // The request is on its way when the server freezes; the reply never
  // comes, and the kill breaks the connection under the waiting client.
  FreezeThenKill(200);
  getter.join();
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(values.empty());  // cleared, and nothing arrived

  Restart();
  ASSERT_TRUE(raw_.Fill(prefix, kKeys));
  values.clear();
  EXPECT_TRUE(client_->MGet(keys, values, false));
  EXPECT_EQ(values.size(), static_cast<size_t>(kKeys));
  EXPECT_EQ(values[prefix + "19999"], "v19999");
  EXPECT_TRUE(capture.Records().empty()) << "RedisClient wrote to the log";
}

TEST_F(RedisKillTest, KilledWhileTheMGetReplyStreamsFailsWithoutCrashing) {
  // A reply of about 30 MB: the server is killed once it has run the MGET
  // and is still sending. The client may have read part of the reply; it
  // must give up cleanly. A kill that came too late (the reply was already
  // read) proves nothing, so such a round is tried again, up to five times.
  constexpr int kKeys = 30000;
  std::vector<std::string> keys;
  for (int i = 0; i < kKeys; ++i) keys.push_back("big:" + std::to_string(i));
  const std::string value(1000, 'v');
  LogCapture capture;
  int broken = 0;
  for (int round = 0; round < 5 && broken == 0; ++round) {
    if (round > 0) Restart();
    for (int from = 0; from < kKeys; from += 1000) {
      std::vector<std::string> args{"MSET"};
      for (int i = from; i < from + 1000; ++i) {
        args.push_back(keys[i]);
        args.push_back(value);
      }
      ReplyPtr r = raw_.Command(args);
      ASSERT_TRUE(r && r->type == REDIS_REPLY_STATUS);
    }
    Map values;
    std::atomic<int> result{-1};
    std::thread getter([&] { result = client_->MGet(keys, values, false) ? 1 : 0; });
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (raw_.Calls("mget") < 1 && result < 0 && Clock::now() < deadline) {
      std::this_thread::yield();
    }
    ASSERT_EQ(kill(server_->pid(), SIGKILL), 0);
    getter.join();
    if (result == 0) {
      ++broken;
      EXPECT_LT(values.size(), static_cast<size_t>(kKeys));
    } else {
      EXPECT_EQ(values.size(), static_cast<size_t>(kKeys));
    }
  }
  EXPECT_EQ(broken, 1) << "no kill landed while the reply was on its way";
  Restart();
  ASSERT_TRUE(raw_.Put("big:0", "again"));
  Map values;
  EXPECT_TRUE(client_->MGet({"big:0"}, values, false));
  EXPECT_EQ(values["big:0"], "again");
  EXPECT_TRUE(capture.Records().empty()) << "RedisClient wrote to the log";
}

// ---- memcached -----------------------------------------------------------

TEST(MemcachedStopTest, StoppedBetweenCallsFailsCleanlyAndRecoversAfterRestart) {
  std::unique_ptr<ServerProcess> server = test::MemcachedTcpServer(kMemcachedPort, {"-m", "16"});
  ASSERT_TRUE(server->Start());
  Memcached client("127.0.0.1", kMemcachedPort);
  LogCapture capture;
  ASSERT_TRUE(client.Set(MemcachedData{"k", "before", 0, 0}));
  MemcachedData out{"", "", 0, 0};
  ASSERT_TRUE(client.Get("k", out));
  ASSERT_EQ(out.value, "before");

  server->Stop();
  MemcachedData kept{"keep", "keep", 7, 0};
  EXPECT_FALSE(client.Get("k", kept));
  const memcached_return_t down = client.LastResult();
  EXPECT_TRUE(down == MEMCACHED_CONNECTION_FAILURE || down == MEMCACHED_ERRNO ||
              down == MEMCACHED_UNKNOWN_READ_FAILURE || down == MEMCACHED_SERVER_MARKED_DEAD ||
              down == MEMCACHED_CONNECTION_SOCKET_CREATE_FAILURE ||
              down == MEMCACHED_SERVER_TEMPORARILY_DISABLED)
      << memcached_strerror(nullptr, down);
  EXPECT_EQ(kept.key, "keep");
  EXPECT_EQ(kept.value, "keep");
  EXPECT_FALSE(client.Set(MemcachedData{"k", "during", 0, 0}));
  EXPECT_NE(client.LastResult(), MEMCACHED_SUCCESS);

  ASSERT_TRUE(server->Start());  // empty again
  // libmemcached may hold a failed server back for its retry time-out
  // (2 s by default): the client recovers by itself within a few seconds.
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  bool stored = false;
  while (!(stored = client.Set(MemcachedData{"k", "after", 0, 0})) && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_TRUE(stored) << memcached_strerror(nullptr, client.LastResult());
  EXPECT_EQ(client.LastResult(), MEMCACHED_SUCCESS);
  EXPECT_TRUE(client.Get("k", out));
  EXPECT_EQ(out.value, "after");
  EXPECT_TRUE(capture.Records().empty()) << "Memcached wrote to the log";
}

}  // namespace
}  // namespace velmora
