// velmoractl memcached --config: items stored in and read from a pool of
// three memcached servers, and configuration strings libmemcached refuses.
#include <memory>
#include <string>
#include <vector>

#include <velmora/memcached.h>
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/server_process.h"
#include "support/tool_runner.h"

namespace velmora {
namespace test {
namespace {

const std::vector<int> kPorts = {11331, 11332, 11333};

class VelmoractlMemcachedPool : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (int port : kPorts) servers_.push_back(MemcachedTcpServer(port, {"-m", "16"}));
  }
  static void TearDownTestSuite() { servers_.clear(); }
  void SetUp() override {
    for (auto& server : servers_) ASSERT_TRUE(server->Start());
  }

  static std::string Pool() { return MemcachedPoolOptions(kPorts); }

  // Items each server holds, asked around the tool.
  static std::vector<uint64_t> Items() {
    std::vector<uint64_t> items;
    for (int port : kPorts) {
      memcached_st* raw = memcached_create(nullptr);
      memcached_server_add(raw, "127.0.0.1", static_cast<in_port_t>(port));
      memcached_return_t rc = MEMCACHED_SUCCESS;
      memcached_stat_st* stats = memcached_stat(raw, nullptr, &rc);
      items.push_back(rc == MEMCACHED_SUCCESS ? stats[0].curr_items : 0);
      memcached_stat_free(raw, stats);
      memcached_free(raw);
    }
    return items;
  }

  static std::vector<std::unique_ptr<ServerProcess>> servers_;
};
std::vector<std::unique_ptr<ServerProcess>> VelmoractlMemcachedPool::servers_;

TEST_F(VelmoractlMemcachedPool, SetGetDeleteThroughThePool) {
  const std::string config = "--config=" + Pool();
  const std::vector<uint64_t> before = Items();
  for (int i = 0; i < 30; ++i) {
    const std::string key = "pooled" + std::to_string(i);
    Result set = Tool({"memcached", config, "set", key, "value " + key});
    ASSERT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(set.out, "");
  }
  // The items went to more than one server.
  const std::vector<uint64_t> after = Items();
  uint64_t total = 0;
  int used = 0;
  for (size_t i = 0; i < after.size(); ++i) {
    total += after[i] - before[i];
    if (after[i] > before[i]) ++used;
  }
  EXPECT_EQ(total, 30u);
  EXPECT_GE(used, 2);
  for (int i = 0; i < 30; ++i) {
    const std::string key = "pooled" + std::to_string(i);
    Result get = Tool({"memcached", config, "get", key});
    EXPECT_EQ(get.status, 0) << get.err;
    EXPECT_EQ(get.out, "value " + key + "\n");
  }
  // The value may also follow the option as a word of its own.
  Result get = Tool({"memcached", "--config", "--SERVER=127.0.0.1:11331", "get", "absent"});
  EXPECT_EQ(get.status, 3) << get.err;
  Result del = Tool({"memcached", config, "-v", "delete", "pooled0"});
  EXPECT_EQ(del.status, 0) << del.err;
  EXPECT_EQ(del.out, "memcached delete pooled0\n");
  Result gone = Tool({"memcached", config, "get", "pooled0"});
  EXPECT_EQ(gone.status, 3);
  EXPECT_EQ(gone.err, "velmoractl: no item 'pooled0'\n");
}

TEST_F(VelmoractlMemcachedPool, BadConfigurationStringExitsTwo) {
  const std::string options = Pool() + " --DISTRIBUTION=nope";
  char text[1024] = "";
  ASSERT_EQ(libmemcached_check_configuration(options.data(), options.size(), text, sizeof(text)),
            MEMCACHED_PARSE_ERROR);
  std::string expected = text;
  // Without the address of libmemcached's handle that opens the text.
  ASSERT_EQ(expected.compare(0, 3, "(0x"), 0) << expected;
  expected = expected.substr(expected.find(") ") + 2);
  Result r = Tool({"memcached", "--config=" + options, "get", "k"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "velmoractl: bad --config: " + expected + "\n");
  EXPECT_EQ(r.err,
            "velmoractl: bad --config: Error occured during parsing (syntax error, unexpected "
            "STRING, expecting CONSISTENT or MODULA or RANDOM): last_token=STRING(325) -> "
            "./src/libmemcached/csl/context.cc:55\n");
  EXPECT_THAT(r.err, OneErrorLine());

  Result none = Tool({"memcached", "--config=--POLL-TIMEOUT=10", "set", "k", "v"});
  EXPECT_EQ(none.status, 2);
  EXPECT_EQ(none.err, "velmoractl: bad --config: NO SERVERS DEFINED\n");
}

TEST_F(VelmoractlMemcachedPool, ConfigExcludesTheOtherTargets) {
  for (const auto& other : {std::vector<std::string>{"--server", "127.0.0.1:11331"},
                            std::vector<std::string>{"--socket", "/run/none.sock"}}) {
    std::vector<std::string> args{"memcached", "--config=" + Pool()};
    args.insert(args.end(), other.begin(), other.end());
    args.insert(args.end(), {"get", "k"});
    Result r = Tool(args);
    EXPECT_EQ(r.status, 2);
    EXPECT_THAT(r.err, OneErrorLine());
    EXPECT_THAT(r.err, ::testing::HasSubstr("excludes"));
  }
}

TEST_F(VelmoractlMemcachedPool, AllServersStoppedExitsFour) {
  for (auto& server : servers_) server->Stop();
  Result r = Tool({"memcached", "--config=" + Pool(), "get", "k"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err.rfind("velmoractl: memcached at '" + Pool() + "': ", 0), 0u) << r.err;
  EXPECT_THAT(r.err, OneErrorLine());
}

}  // namespace
}  // namespace test
}  // namespace velmora
