#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <velmora/memcached.h>

#include "support/log_capture.h"
#include "support/one_shot_server.h"
#include "support/server_process.h"

namespace velmora {
namespace {

using sdk::Memcached;
using sdk::MemcachedData;
using test::ServerProcess;

constexpr int kTcpPort = 11311;
constexpr int kWrappedPort = 70000;  // 70000 mod 65536 = 4464.
constexpr int kWrappedTo = 4464;
constexpr char kSocket[] = "/run/velmora-test/memcached.sock";

std::unique_ptr<ServerProcess> TcpServer(int port) {
  return test::MemcachedTcpServer(port, {"-m", "16"});
}

std::unique_ptr<ServerProcess> UnixServer() {
  return test::MemcachedUnixServer(kSocket, {"-a", "0666", "-m", "16"});
}

enum class Transport { kTcp, kUnix };

// Each transport has a server of its own (one memcached process listens on
// TCP or on a Unix socket, not both). The servers run for the whole suite and
// are emptied before every test; a test that stops one gets it back after.
class MemcachedTest : public ::testing::TestWithParam<Transport> {
 protected:
  static void SetUpTestSuite() {
    tcp_server_ = TcpServer(kTcpPort).release();
    unix_server_ = UnixServer().release();
  }
  static void TearDownTestSuite() {
    delete tcp_server_;
    delete unix_server_;
  }

  void SetUp() override {
    server_ = GetParam() == Transport::kTcp ? tcp_server_ : unix_server_;
    ASSERT_TRUE(server_->Start());
    client_ = NewClient();
    memcached_st* raw = RawHandle();
    ASSERT_EQ(memcached_flush(raw, 0), MEMCACHED_SUCCESS);
    memcached_free(raw);
  }

  std::unique_ptr<Memcached> NewClient() {
    return GetParam() == Transport::kTcp ? std::make_unique<Memcached>("127.0.0.1", kTcpPort)
                                         : std::make_unique<Memcached>(std::string(kSocket));
  }

  // A plain libmemcached handle on the same server, for checks that go
  // around the wrapper.
  memcached_st* RawHandle() {
    memcached_st* raw = memcached_create(nullptr);
    if (GetParam() == Transport::kTcp) {
      memcached_server_add(raw, "127.0.0.1", kTcpPort);
    } else {
      memcached_server_add_unix_socket(raw, kSocket);
    }
    return raw;
  }

  static MemcachedData Item(const std::string& key, const std::string& value, uint32_t flags = 0,
                            time_t expiration = 0) {
    return MemcachedData{key, value, flags, expiration};
  }

  static ServerProcess* tcp_server_;
  static ServerProcess* unix_server_;
  ServerProcess* server_ = nullptr;
  std::unique_ptr<Memcached> client_;
};

ServerProcess* MemcachedTest::tcp_server_ = nullptr;
ServerProcess* MemcachedTest::unix_server_ = nullptr;

INSTANTIATE_TEST_SUITE_P(Transports, MemcachedTest,
                         ::testing::Values(Transport::kTcp, Transport::kUnix),
                         [](const auto& info) {
                           return info.param == Transport::kTcp ? "Tcp" : "UnixSocket";
                         });

TEST(MemcachedNoServerTest, DefaultObjectAnswersFalseToEverything) {
  Memcached m;
  MemcachedData d{"k", "v", 1, 2};
  MemcachedData out{"untouched", "untouched", 9, 9};
  uint64_t number = 77;
  uint64_t cas = 88;
  bool exists = true;
  std::vector<MemcachedData> many;
  EXPECT_FALSE(m.BehaviorSet(MEMCACHED_BEHAVIOR_NO_BLOCK, 1));
  EXPECT_FALSE(m.BehaviorGet(MEMCACHED_BEHAVIOR_NO_BLOCK, number));
  EXPECT_FALSE(m.Set(d));
  EXPECT_FALSE(m.Add(d));
  EXPECT_FALSE(m.Replace(d));
  EXPECT_FALSE(m.Cas(d, cas));
  EXPECT_FALSE(m.Append("k", "v"));
  EXPECT_FALSE(m.Prepend("k", "v"));
  EXPECT_FALSE(m.Delete("k"));
  EXPECT_FALSE(m.Increment("k", 1, number));
  EXPECT_FALSE(m.Decrement("k", 1, number));
  EXPECT_FALSE(m.Touch("k", 1));
  EXPECT_FALSE(m.Exist("k", exists));
  EXPECT_FALSE(m.Get("k", out));
  EXPECT_FALSE(m.Gets("k", out, cas));
  EXPECT_FALSE(m.MultiGet({"k"}, many, true));
  // Nothing was touched and no call reached libmemcached.
  EXPECT_EQ(number, 77u);
  EXPECT_EQ(cas, 88u);
  EXPECT_TRUE(exists);
  EXPECT_EQ(out.key, "untouched");
  EXPECT_EQ(out.flags, 9u);
  EXPECT_TRUE(many.empty());
  EXPECT_EQ(m.LastResult(), MEMCACHED_SUCCESS);
}

TEST(MemcachedNoServerTest, PortIsCutTo16Bits) {
  auto server = TcpServer(kWrappedTo);
  ASSERT_TRUE(server->Start());
  Memcached m("127.0.0.1", kWrappedPort);
  ASSERT_TRUE(m.Set(MemcachedData{"wrapped", "yes", 0, 0}));
  MemcachedData out{};
  ASSERT_TRUE(m.Get("wrapped", out));
  EXPECT_EQ(out.value, "yes");
  // The item is on the server at 4464: a second client there sees it.
  Memcached direct("127.0.0.1", kWrappedTo);
  MemcachedData seen{};
  ASSERT_TRUE(direct.Get("wrapped", seen));
  EXPECT_EQ(seen.value, "yes");
}

TEST(MemcachedNoServerTest, BadServerLeavesObjectUnready) {
  Memcached m(std::string(""));
  EXPECT_NE(m.LastResult(), MEMCACHED_SUCCESS);
  EXPECT_FALSE(m.Set(MemcachedData{"k", "v", 0, 0}));
}

TEST(MemcachedNoServerTest, OperationsLogNothing) {
  test::LogCapture capture;
  Memcached m("127.0.0.1", 1);  // Nothing listens there.
  EXPECT_FALSE(m.Set(MemcachedData{"k", "v", 0, 0}));
  EXPECT_TRUE(capture.Records().empty());
}

TEST_P(MemcachedTest, SetThenGetRoundTrips) {
  ASSERT_TRUE(client_->Set(Item("alpha", "one", 42, 0)));
  EXPECT_EQ(client_->LastResult(), MEMCACHED_SUCCESS);
  MemcachedData out{"", "", 0, 1234};
  ASSERT_TRUE(client_->Get("alpha", out));
  EXPECT_EQ(out.key, "alpha");
  EXPECT_EQ(out.value, "one");
  EXPECT_EQ(out.flags, 42u);
  EXPECT_EQ(out.expiration, 1234);  // Left as it was.
}

TEST_P(MemcachedTest, GetOfMissingKeyFailsAndLeavesOutput) {
  MemcachedData out{"keep", "keep", 5, 6};
  EXPECT_FALSE(client_->Get("missing", out));
  EXPECT_EQ(client_->LastResult(), MEMCACHED_NOTFOUND);
  EXPECT_EQ(out.key, "keep");
  EXPECT_EQ(out.value, "keep");
  EXPECT_EQ(out.flags, 5u);
}

TEST_P(MemcachedTest, GetOfEmptyValueSucceeds) {
  ASSERT_TRUE(client_->Set(Item("empty", "", 3)));
  MemcachedData out{"x", "x", 0, 0};
  ASSERT_TRUE(client_->Get("empty", out));
  EXPECT_EQ(out.key, "empty");
  EXPECT_EQ(out.value, "");
  EXPECT_EQ(out.flags, 3u);
}

TEST_P(MemcachedTest, GetStopsAtNulByte) {
  ASSERT_TRUE(client_->Set(Item("nul", std::string("before\0after", 12))));
  MemcachedData out{};
  ASSERT_TRUE(client_->Get("nul", out));
  EXPECT_EQ(out.value, "before");
}

TEST_P(MemcachedTest, AddOnlyNewAndReplaceOnlyExisting) {
  EXPECT_TRUE(client_->Add(Item("k", "first")));
  EXPECT_FALSE(client_->Add(Item("k", "second")));
  EXPECT_EQ(client_->LastResult(), MEMCACHED_NOTSTORED);
  EXPECT_FALSE(client_->Replace(Item("other", "x")));
  EXPECT_EQ(client_->LastResult(), MEMCACHED_NOTSTORED);
  EXPECT_TRUE(client_->Replace(Item("k", "third", 7)));
  MemcachedData out{};
  ASSERT_TRUE(client_->Get("k", out));
  EXPECT_EQ(out.value, "third");
  EXPECT_EQ(out.flags, 7u);
}

TEST_P(MemcachedTest, GetsWithoutCasSupportGivesZeroCas) {
  // libmemcached asks for cas values only when the behaviour is on.
  ASSERT_TRUE(client_->Set(Item("c", "v1", 11)));
  MemcachedData out{};
  uint64_t cas = 99;
  ASSERT_TRUE(client_->Gets("c", out, cas));
  EXPECT_EQ(out.value, "v1");
  EXPECT_EQ(cas, 0u);
}

TEST_P(MemcachedTest, GetsGivesCasThatCasUses) {
  ASSERT_TRUE(client_->BehaviorSet(MEMCACHED_BEHAVIOR_SUPPORT_CAS, 1));
  ASSERT_TRUE(client_->Set(Item("c", "v1", 11)));
  MemcachedData out{};
  uint64_t cas = 0;
  ASSERT_TRUE(client_->Gets("c", out, cas));
  EXPECT_EQ(client_->LastResult(), MEMCACHED_END);
  EXPECT_EQ(out.key, "c");
  EXPECT_EQ(out.value, "v1");
  EXPECT_EQ(out.flags, 11u);
  EXPECT_NE(cas, 0u);

  ASSERT_TRUE(client_->Cas(Item("c", "v2"), cas));
  // The old cas value is stale now.
  EXPECT_FALSE(client_->Cas(Item("c", "v3"), cas));
  EXPECT_EQ(client_->LastResult(), MEMCACHED_DATA_EXISTS);
  MemcachedData now{};
  ASSERT_TRUE(client_->Get("c", now));
  EXPECT_EQ(now.value, "v2");
}

TEST_P(MemcachedTest, GetsOfMissingKeyFailsAndLeavesOutput) {
  MemcachedData out{"keep", "keep", 1, 2};
  uint64_t cas = 99;
  EXPECT_FALSE(client_->Gets("missing", out, cas));
  EXPECT_EQ(out.key, "keep");
  EXPECT_EQ(out.value, "keep");
  EXPECT_EQ(cas, 99u);
}

TEST_P(MemcachedTest, GetsStopsAtNulByte) {
  ASSERT_TRUE(client_->Set(Item("n", std::string("ab\0cd", 5))));
  MemcachedData out{};
  uint64_t cas = 0;
  ASSERT_TRUE(client_->Gets("n", out, cas));
  EXPECT_EQ(out.value, "ab");
}

TEST_P(MemcachedTest, MultiGetSkipsEmptyKeysAndMissingOnes) {
  ASSERT_TRUE(client_->Set(Item("m1", "v1", 5, 0)));
  ASSERT_TRUE(client_->Set(Item("m2", "v2", 6, 0)));
  std::vector<MemcachedData> out{MemcachedData{"pre", "existing", 1, 1}};
  ASSERT_TRUE(client_->MultiGet({"m1", "", "absent", "m2"}, out, false));
  EXPECT_EQ(client_->LastResult(), MEMCACHED_END);
  ASSERT_EQ(out.size(), 3u);  // Appended after what was there.
  EXPECT_EQ(out[0].key, "pre");
  std::vector<std::string> keys{out[1].key, out[2].key};
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (std::vector<std::string>{"m1", "m2"}));
  for (size_t i = 1; i < out.size(); ++i) {
    EXPECT_EQ(out[i].value, out[i].key == "m1" ? "v1" : "v2");
  }
}

TEST_P(MemcachedTest, MultiGetRecordsCarryFlagsZeroAndDefaultTimeout) {
  ASSERT_TRUE(client_->Set(Item("f", "v", 99, 0)));
  std::vector<MemcachedData> out;
  ASSERT_TRUE(client_->MultiGet({"f"}, out, false));
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].flags, 0u);
  EXPECT_EQ(out[0].expiration, 0);

  MemcachedData::default_timeout = 3600;
  std::vector<MemcachedData> again;
  ASSERT_TRUE(client_->MultiGet({"f"}, again, false));
  MemcachedData::default_timeout = 0;
  ASSERT_EQ(again.size(), 1u);
  EXPECT_EQ(again[0].flags, 0u);
  EXPECT_EQ(again[0].expiration, 3600);
}

TEST_P(MemcachedTest, MultiGetStopsValuesAtNulByte) {
  ASSERT_TRUE(client_->Set(Item("z", std::string("x\0y", 3))));
  std::vector<MemcachedData> out;
  ASSERT_TRUE(client_->MultiGet({"z"}, out, false));
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].value, "x");
}

TEST_P(MemcachedTest, MultiGetOfOnlyEmptyKeysReportsTheMgetCode) {
  // The result is libmemcached's own answer to an empty key list: ask it the
  // same question directly and compare.
  memcached_st* raw = RawHandle();
  memcached_return_t expected = memcached_mget(raw, nullptr, nullptr, 0);
  memcached_free(raw);

  std::vector<MemcachedData> out;
  bool ok = client_->MultiGet({"", ""}, out, true);
  EXPECT_EQ(client_->LastResult(), expected);
  EXPECT_EQ(ok, false);  // libmemcached refuses an empty key list.
  EXPECT_NE(expected, MEMCACHED_SUCCESS);
  EXPECT_TRUE(out.empty());
}

TEST_P(MemcachedTest, AppendAndPrependKeepItemAndUseFlagsZero) {
  ASSERT_TRUE(client_->Set(Item("ap", "mid", 17, 0)));
  ASSERT_TRUE(client_->Append("ap", "-end"));
  ASSERT_TRUE(client_->Prepend("ap", "start-"));
  MemcachedData out{};
  ASSERT_TRUE(client_->Get("ap", out));
  EXPECT_EQ(out.value, "start-mid-end");
  // memcached keeps the item's own flags; the zero flags sent are ignored.
  EXPECT_EQ(out.flags, 17u);
  EXPECT_FALSE(client_->Append("nothing-here", "x"));
  EXPECT_EQ(client_->LastResult(), MEMCACHED_NOTSTORED);
  EXPECT_FALSE(client_->Prepend("nothing-here", "x"));
}

TEST_P(MemcachedTest, IncrementAndDecrement) {
  ASSERT_TRUE(client_->Set(Item("n", "10")));
  uint64_t value = 0;
  ASSERT_TRUE(client_->Increment("n", 5, value));
  EXPECT_EQ(value, 15u);
  ASSERT_TRUE(client_->Decrement("n", 3, value));
  EXPECT_EQ(value, 12u);
  ASSERT_TRUE(client_->Decrement("n", 100, value));
  EXPECT_EQ(value, 0u);  // memcached never goes below zero.
  EXPECT_FALSE(client_->Increment("absent", 1, value));
  EXPECT_EQ(client_->LastResult(), MEMCACHED_NOTFOUND);
}

TEST_P(MemcachedTest, DeleteRemovesItem) {
  ASSERT_TRUE(client_->Set(Item("d", "v")));
  ASSERT_TRUE(client_->Delete("d"));
  bool exists = true;
  ASSERT_TRUE(client_->Exist("d", exists));
  EXPECT_FALSE(exists);
  EXPECT_FALSE(client_->Delete("d"));
  EXPECT_EQ(client_->LastResult(), MEMCACHED_NOTFOUND);
}

TEST_P(MemcachedTest, ExistAnswersForPresentAndMissingKeys) {
  ASSERT_TRUE(client_->Set(Item("here", "v")));
  bool exists = false;
  ASSERT_TRUE(client_->Exist("here", exists));
  EXPECT_TRUE(exists);
  exists = true;
  ASSERT_TRUE(client_->Exist("missing", exists));
  EXPECT_FALSE(exists);
  EXPECT_EQ(client_->LastResult(), MEMCACHED_NOTFOUND);
}

TEST_P(MemcachedTest, TouchChangesExpiration) {
  ASSERT_TRUE(client_->Set(Item("t", "v", 0, 0)));
  ASSERT_TRUE(client_->Touch("t", 1));
  EXPECT_FALSE(client_->Touch("absent", 1));
  EXPECT_EQ(client_->LastResult(), MEMCACHED_NOTFOUND);
  // memcached's clock ticks in whole seconds: wait past two of them.
  sleep(3);
  MemcachedData out{};
  EXPECT_FALSE(client_->Get("t", out));
  EXPECT_EQ(client_->LastResult(), MEMCACHED_NOTFOUND);
}

TEST_P(MemcachedTest, BehaviorsSetAndReadBack) {
  uint64_t value = 0;
  ASSERT_TRUE(client_->BehaviorGet(MEMCACHED_BEHAVIOR_POLL_TIMEOUT, value));
  EXPECT_EQ(value, 5000u);
  ASSERT_TRUE(client_->BehaviorSet(MEMCACHED_BEHAVIOR_POLL_TIMEOUT, 250));
  ASSERT_TRUE(client_->BehaviorGet(MEMCACHED_BEHAVIOR_POLL_TIMEOUT, value));
  EXPECT_EQ(value, 250u);
  ASSERT_TRUE(client_->BehaviorSet(MEMCACHED_BEHAVIOR_TCP_NODELAY, 1));
  ASSERT_TRUE(client_->BehaviorGet(MEMCACHED_BEHAVIOR_TCP_NODELAY, value));
  EXPECT_EQ(value, 1u);
  // A read does not change the last result.
  EXPECT_FALSE(client_->Delete("absent"));
  ASSERT_EQ(client_->LastResult(), MEMCACHED_NOTFOUND);
  ASSERT_TRUE(client_->BehaviorGet(MEMCACHED_BEHAVIOR_TCP_NODELAY, value));
  EXPECT_EQ(client_->LastResult(), MEMCACHED_NOTFOUND);
}

TEST_P(MemcachedTest, ServerDownGivesFalseAndKeepsTheCode) {
  ASSERT_TRUE(client_->Set(Item("k", "v")));
  server_->Stop();
  auto fresh = NewClient();
  EXPECT_FALSE(fresh->Set(Item("k", "v")));
  memcached_return_t code = fresh->LastResult();
  EXPECT_NE(code, MEMCACHED_SUCCESS);
  EXPECT_NE(code, MEMCACHED_NOTFOUND);
  MemcachedData out{"keep", "", 0, 0};
  EXPECT_FALSE(fresh->Get("k", out));
  EXPECT_EQ(out.key, "keep");
  bool exists = true;
  EXPECT_FALSE(fresh->Exist("k", exists));
  EXPECT_FALSE(exists);  // Exist writes its answer from the failed code.
  EXPECT_FALSE(client_->Set(Item("k", "v")));
  EXPECT_NE(client_->LastResult(), MEMCACHED_SUCCESS);
}

// A server that sends the first of two items and closes the connection
// before the end of the answer: the items read so far are kept, the call
// fails, even where missing items are allowed.
TEST(MemcachedCutShortTest, MultiGetOfAnAnswerCutShortFailsKeepingTheItemsRead) {
  const std::string path = "/run/velmora-test/memcached-cut-short.sock";
  std::string request;
  {
    test::OneShotServer server(path, [&request](int fd) {
      request = test::ReadUntilQuiet(fd, 200);
      const std::string answer = "VALUE a 0 3\r\none\r\n";
      test::WriteAll(fd, answer, answer.size());
      close(fd);
    });
    ASSERT_TRUE(server.bound());
    Memcached client(path);
    std::vector<MemcachedData> out;
    EXPECT_FALSE(client.MultiGet({"a", "b"}, out, true));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].key, "a");
    EXPECT_EQ(out[0].value, "one");
    EXPECT_NE(client.LastResult(), MEMCACHED_END);
    EXPECT_NE(client.LastResult(), MEMCACHED_NOTFOUND);
  }
  EXPECT_EQ(request, "get a b\r\n");
}

}  // namespace
}  // namespace velmora
