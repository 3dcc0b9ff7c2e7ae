// velmoractl as installed (cmake --install into the build tree), run as a
// separate program inside the test runner: the command line, key routing,
// the setting reader, user conversion, and the servers it talks to (redis-server
// on the quota store's port, memcached, a local query socket). Each test
// checks the output, the exit status and the log lines.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include <velmora/velmora.h>
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/one_shot_server.h"
#include "support/redis_test_util.h"
#include "support/server_process.h"
#include "support/settings_test_util.h"
#include "support/tool_runner.h"

namespace velmora {
namespace test {
namespace {

// ---- Command line ----

TEST(VelmoractlCli, HelpOnEveryLevelExitsZero) {
  const std::vector<std::vector<std::string>> levels = {
      {"--help"},
      {"route", "--help"},
      {"services", "--help"},
      {"script", "--help"},
      {"get", "--help"},
      {"features", "--help"},
      {"features", "set", "--help"},
      {"pop3", "--help"},
      {"pop3", "x", "set", "--help"},
      {"quota", "--help"},
      {"quota", "limit", "set", "--help"},
      {"quota", "attr", "get", "--help"},
      {"kv", "--help"},
      {"kv", "set", "--help"},
      {"lock", "--help"},
      {"user", "--help"},
      {"query", "--help"},
      {"memcached", "--help"},
      {"memcached", "get", "--help"},
  };
  for (const auto& args : levels) {
    Result r = Tool(args);
    EXPECT_EQ(r.status, 0) << args[0];
    EXPECT_THAT(r.out, HasSubstr("Usage: velmoractl")) << args[0];
    EXPECT_EQ(r.err, "") << args[0];
  }
  Result top = Tool({"--help"});
  for (const char* sub : {"route", "services", "script", "get", "features", "pop3", "quota", "kv",
                          "lock", "user", "query", "memcached"}) {
    EXPECT_THAT(top.out, HasSubstr(std::string("\n  ") + sub + " ")) << sub;
  }
  EXPECT_THAT(top.out, HasSubstr("Exit status:"));
}

// The usage line of every command names the positionals of its own level
// and of the levels above it, in order.
TEST(VelmoractlCli, EveryUsageLineShowsItsPositionals) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> levels = {
      {{"route"}, "Usage: velmoractl route [OPTIONS] KEY..."},
      {{"script"}, "Usage: velmoractl script [OPTIONS] SERVICE"},
      {{"get"}, "Usage: velmoractl get [OPTIONS] NAME..."},
      {{"pop3", "x", "status"}, "Usage: velmoractl pop3 NAME status [OPTIONS]"},
      {{"pop3", "x", "start"}, "Usage: velmoractl pop3 NAME start [OPTIONS] USER..."},
      {{"pop3", "x", "list"}, "Usage: velmoractl pop3 NAME list [OPTIONS]"},
      {{"quota", "limit", "set"}, "Usage: velmoractl quota limit set [OPTIONS] USER N"},
      {{"quota", "attr", "set"}, "Usage: velmoractl quota attr set [OPTIONS] USER ATTR VALUE"},
      {{"kv", "set"}, "Usage: velmoractl kv set [OPTIONS] FILE KEY VALUE"},
      {{"lock"}, "Usage: velmoractl lock [OPTIONS] FILE COMMAND..."},
      {{"memcached", "get"}, "Usage: velmoractl memcached get [OPTIONS] KEY"},
  };
  for (const auto& level : levels) {
    std::vector<std::string> args = level.first;
    args.push_back("--help");
    Result r = Tool(args);
    EXPECT_EQ(r.status, 0) << level.second;
    EXPECT_THAT(r.out, HasSubstr(level.second + "\n")) << r.out;
  }
}

// Each command's help ends with the exit statuses it can give.
TEST(VelmoractlCli, EveryCommandListsItsExitStatuses) {
  const std::vector<std::vector<std::string>> commands = {{"route"},
                                                          {"services"},
                                                          {"script"},
                                                          {"get"},
                                                          {"quota", "usage"},
                                                          {"quota", "limit", "get"},
                                                          {"quota", "limit", "set"},
                                                          {"quota", "warning", "set"},
                                                          {"quota", "attr", "get"},
                                                          {"quota", "attr", "set"},
                                                          {"quota", "clear-usage"},
                                                          {"memcached", "get"},
                                                          {"memcached", "set"},
                                                          {"memcached", "delete"},
                                                          {"query"},
                                                          {"kv", "get"},
                                                          {"kv", "set"},
                                                          {"lock"}};
  for (std::vector<std::string> args : commands) {
    const std::string line = Join(args, std::string(" "));
    args.push_back("--help");
    Result r = Tool(args);
    EXPECT_EQ(r.status, 0) << line;
    EXPECT_THAT(r.out, HasSubstr("\nExit status: ")) << line;
    EXPECT_THAT(r.out, HasSubstr(" 2 bad command line")) << line;
  }
}

TEST(VelmoractlCli, NumbersAreDecimalDigitsThatFit) {
  for (const std::string bad : {"99999999999999999999999", "18446744073709551616", "0x10", " 12",
                                "12 ", "+7", "-0", "1e3", "abc", ""}) {
    Result r = Tool({"quota", "limit", "set", "alice", bad});
    EXPECT_EQ(r.status, 2) << bad;
    EXPECT_EQ(r.out, "") << bad;
    EXPECT_EQ(r.err,
              "velmoractl: N: expects a decimal number from 0 to 18446744073709551615, not '" +
                  bad + "' (see 'velmoractl quota limit set --help')\n")
        << bad;
  }
  for (const auto& args :
       {std::vector<std::string>{"pop3", "vt", "set", "--period", "010x"},
        std::vector<std::string>{"lock", "/tmp/l", "--timeout", "+1", "--", "true"},
        std::vector<std::string>{"query", "/tmp/s", "x", "--timeout", "0x1"},
        std::vector<std::string>{"memcached", "--server", "h:1", "set", "k", "v", "--expire",
                                 "4294967296"}}) {
    Result r = Tool(args);
    EXPECT_EQ(r.status, 2) << args[0];
    EXPECT_THAT(r.err, HasSubstr("expects a decimal number from ")) << args[0];
    EXPECT_THAT(r.err, OneErrorLine()) << args[0];
  }
}

// Arguments in messages are quoted with their control bytes escaped and cut
// after 200 bytes, so every error stays one short line.
TEST(VelmoractlCli, MessagesQuoteArgumentsOnOneShortLine) {
  Result newline = Tool({"route", "a\nb\tc\\d\x7f"});
  EXPECT_EQ(newline.status, 3);
  EXPECT_EQ(newline.err, "velmoractl: unknown key 'a\\nb\\tc\\\\d\\x7f'\n");

  const std::string huge(100 * 1024, 'k');
  Result route = Tool({"route", huge});
  EXPECT_EQ(route.status, 3);
  EXPECT_EQ(route.err, "velmoractl: unknown key '" + huge.substr(0, 200) + "'...(102400 bytes)\n");
  // A character is never cut in half: 'é' is two bytes and 201 bytes end
  // in the middle of the 101st.
  std::string accents;
  for (int i = 0; i < 150; ++i) accents += "\xc3\xa9";
  Result cut = Tool({"route", accents});
  EXPECT_EQ(cut.err, "velmoractl: unknown key '" + accents.substr(0, 200) + "'...(300 bytes)\n");

  // The parser's own messages are cut as well.
  Result parser = Tool({"route", "k", "--" + huge});
  EXPECT_EQ(parser.status, 2);
  EXPECT_THAT(parser.err, OneErrorLine());
  EXPECT_LT(parser.err.size(), 500u);
  Result unknown = Tool({"bo\ngus"});
  EXPECT_EQ(unknown.err, "velmoractl: unknown command 'bo\\ngus' (see 'velmoractl --help')\n");
}

TEST(VelmoractlCli, VersionPrintsTheLibraryVersion) {
  Result r = Tool({"--version"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "velmoractl " VELMORA_PROJECT_VERSION "\n");
}

TEST(VelmoractlCli, BadCommandLinesExitTwoWithOneLine) {
  struct Case {
    std::vector<std::string> args;
    std::string error;
  };
  const std::vector<Case> cases = {
      {{}, "velmoractl: A subcommand is required (see 'velmoractl --help')\n"},
      {{"bogus"}, "velmoractl: unknown command 'bogus' (see 'velmoractl --help')\n"},
      {{"pop3", "vt", "bogus"},
       "velmoractl: unknown command 'bogus' (see 'velmoractl pop3 --help')\n"},
      {{"route"}, "velmoractl: KEY is required (see 'velmoractl route --help')\n"},
      {{"route", "smtp_enabled", "--bogus"},
       "velmoractl: The following argument was not expected: --bogus (see 'velmoractl route "
       "--help')\n"},
      {{"services", "--role", "a", "--key", "b"},
       "velmoractl: --role excludes --key (see 'velmoractl services --help')\n"},
      {{"pop3", "vt", "set", "--period", "0"},
       "velmoractl: --period: expects a decimal number from 1 to 71582788, not '0' (see "
       "'velmoractl pop3 NAME set --help')\n"},
      {{"pop3", "vt", "set", "--enabled", "maybe"}, ""},
      {{"pop3", "vt", "set"}, ""},
      {{"features", "set", "bogus=yes"},
       "velmoractl: unknown switch 'bogus' (see 'velmoractl features get')\n"},
      {{"features", "set", "enable_chat=on"},
       "velmoractl: switch 'enable_chat' takes yes or no, not 'on'\n"},
      {{"user", "name", "abc"}, "velmoractl: 'abc' is not a user id\n"},
      {{"user", "name", "4294967296"}, "velmoractl: '4294967296' is not a user id\n"},
      {{"quota", "limit", "set", "u", "-5"}, ""},
      {{"memcached", "--server", "localhost", "get", "k"},
       "velmoractl: --server takes HOST:PORT, not 'localhost'\n"},
      {{"memcached", "get", "k"}, ""},
      {{"lock", "/tmp/x.lock", "--retries", "0", "--", "true"}, ""},
      {{"lock", "/tmp/x.lock", "--retries", "1", "--timeout", "1", "--", "true"}, ""},
  };
  for (const Case& c : cases) {
    const std::string line = c.args.empty() ? "(none)" : Join(c.args, std::string(" "));
    Result r = Tool(c.args);
    EXPECT_EQ(r.status, 2) << line;
    EXPECT_EQ(r.out, "") << line;
    EXPECT_THAT(r.err, OneErrorLine()) << line << ": " << r.err;
    if (!c.error.empty()) {
      EXPECT_EQ(r.err, c.error) << line;
    }
  }
}

// ---- Key routing ----

TEST(VelmoractlRoute, PrintsAddressAndTreeOfEachKey) {
  Result r = Tool({"route", "smtp_enabled", "peer_info_hostname-node2"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "smtp_enabled address=smtp/smtp_enabled tree=smtp\n"
            "peer_info_hostname-node2 address=silent_config/peer_info_hostname-node2 "
            "tree=silent_config\n");
  EXPECT_EQ(r.err, "");
}

TEST(VelmoractlRoute, AgreesWithTheLibraryOnEveryTableRow) {
  const config::KeyTreeStore* store = config::KeyTreeStore::instance();
  std::vector<std::string> args{"route"};
  std::string expected;
  for (const auto& row : store->keyTree()) {
    // A family row is asked for with an instance part.
    const std::string key = row.first.back() == '-' ? row.first + "inst" : row.first;
    args.push_back(key);
    expected += key + " address=" + store->keyComplete(key) + " tree=" + store->treeGet(key) + "\n";
  }
  Result r = Tool(args);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, expected);
}

TEST(VelmoractlRoute, UnknownKeyExitsThreeAndTheOthersArePrinted) {
  Result r = Tool({"route", "no_such_key", "smtp_enabled"});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.out, "smtp_enabled address=smtp/smtp_enabled tree=smtp\n");
  EXPECT_EQ(r.err, "velmoractl: unknown key 'no_such_key'\n");
}

TEST(VelmoractlRoute, JsonBeforeOrAfterTheSubcommand) {
  for (const auto& args : {std::vector<std::string>{"--json", "route", "smtp_enabled"},
                           std::vector<std::string>{"route", "smtp_enabled", "--json"}}) {
    Result r = Tool(args);
    EXPECT_EQ(r.status, 0);
    Json::Value v = ParseJson(r.out);
    ASSERT_TRUE(v.isArray());
    ASSERT_EQ(v.size(), 1u);
    EXPECT_EQ(v[0]["key"].asString(), "smtp_enabled");
    EXPECT_EQ(v[0]["address"].asString(), "smtp/smtp_enabled");
    EXPECT_EQ(v[0]["tree"].asString(), "smtp");
  }
}

TEST(VelmoractlServices, ByRoleByKeyAndScript) {
  const config::KeyTreeStore* store = config::KeyTreeStore::instance();
  std::vector<std::string> balancers;
  store->roleKeyToServ("balancer", balancers);
  ASSERT_FALSE(balancers.empty());
  Result r = Tool({"services", "--role", "balancer"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, Join(balancers, std::string("\n")) + "\n");

  Result json = Tool({"--json", "services", "--role", "balancer"});
  Json::Value v = ParseJson(json.out);
  ASSERT_EQ(v.size(), balancers.size());
  for (Json::ArrayIndex i = 0; i < v.size(); ++i) EXPECT_EQ(v[i].asString(), balancers[i]);

  ASSERT_FALSE(store->keyServs().empty());
  const auto& switched = *store->keyServs().begin();
  Result by_key = Tool({"services", "--key", switched.first});
  EXPECT_EQ(by_key.status, 0);
  EXPECT_EQ(by_key.out, Join(switched.second, std::string("\n")) + "\n");

  Result none = Tool({"services", "--role", "no_such_role"});
  EXPECT_EQ(none.status, 3);
  EXPECT_EQ(none.out, "");
  EXPECT_EQ(none.err, "velmoractl: no service has the role 'no_such_role'\n");
  Result no_key = Tool({"services", "--key", "no_such_key"});
  EXPECT_EQ(no_key.status, 3);
  EXPECT_EQ(no_key.err, "velmoractl: no service is switched by the key 'no_such_key'\n");

  ASSERT_FALSE(store->servScript().empty());
  const auto& script = *store->servScript().begin();
  Result s = Tool({"script", script.first});
  EXPECT_EQ(s.status, 0);
  EXPECT_EQ(s.out, script.second + "\n");
  Result sj = Tool({"script", script.first, "--json"});
  Json::Value sv = ParseJson(sj.out);
  EXPECT_EQ(sv["service"].asString(), script.first);
  EXPECT_EQ(sv["script"].asString(), script.second);
  Result unknown = Tool({"script", "no_such_service"});
  EXPECT_EQ(unknown.status, 3);
  EXPECT_EQ(unknown.err, "velmoractl: no control script for the service 'no_such_service'\n");
}

// ---- Settings reader ----

class VelmoractlGet : public ::testing::Test {
 protected:
  void SetUp() override {
    Shell("rm -rf /var/packages /var/run/velmora_server");
    ASSERT_TRUE(MakeDir("/var/packages/Velmora-Server/etc/mailconf.d"));
  }
  static constexpr char kTreeFile[] = "/var/packages/Velmora-Server/etc/mailconf.d/smtp";
};

TEST_F(VelmoractlGet, ReadsTheTreeFileWhenTheServiceIsDown) {
  ASSERT_TRUE(WriteFile(kTreeFile, "{\"smtp/smtp_enabled\": \"yes\", \"smtp/smtp_port\": 25}"));
  LogCapture capture;
  Result r = Tool({"get", "smtp_enabled", "smtp_port"});
  EXPECT_EQ(r.status, 0);
  // A member that is not a string reads as empty.
  EXPECT_EQ(r.out, "smtp_enabled=yes\nsmtp_port=\n");
  EXPECT_EQ(r.err, "");
  // The library's own lines name the tool as the process.
  // The library's own lines, one pair per name, name the tool as the process.
  std::vector<LogRecord> records = capture.Records();
  ASSERT_EQ(records.size(), 4u);
  EXPECT_THAT(records[0], ToolLine(kErr, "src/lib/common/socket",
                                   "failed to connect No such file or directory"));
  EXPECT_THAT(records[1],
              ToolLine(kErr, "src/lib/config/action", "Failed get key smtp/smtp_enabled"));
  EXPECT_THAT(records[3], ToolLine(kErr, "src/lib/config/action", "Failed get key smtp/smtp_port"));
  Result json = Tool({"--json", "get", "smtp_enabled"});
  EXPECT_EQ(ParseJson(json.out)["smtp_enabled"].asString(), "yes");
}

TEST_F(VelmoractlGet, AnUnreadableTreeFileExitsOne) {
  ASSERT_TRUE(WriteFile(kTreeFile, "{not json"));
  Result r = Tool({"get", "smtp_enabled"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "velmoractl: cannot read the setting 'smtp_enabled' (see the system log)\n");
}

TEST_F(VelmoractlGet, AsksTheConfigurationServiceFirst) {
  std::string request;
  OneShotServer server("/var/run/velmora_server/local_query.sock", [&request](int fd) {
    request = ReadUntilQuiet(fd, 100);
    WriteAll(fd, "no", 4096);
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  Result r = Tool({"get", "smtp_enabled"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "smtp_enabled=no\n");
  EXPECT_EQ(request, "get_value smtp/smtp_enabled");
}

TEST_F(VelmoractlGet, AnUnknownNameExitsThreeWithoutAskingAnyone) {
  LogCapture capture;
  Result r = Tool({"get", "no_such_key", "nosuchtree/key", "smtp/"});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err,
            "velmoractl: unknown setting 'no_such_key'\n"
            "velmoractl: unknown setting 'nosuchtree/key'\n"
            "velmoractl: unknown setting 'smtp/'\n");
  EXPECT_THAT(capture.Records(), IsEmpty());
  // A known tree with any key is an address the reader can look up.
  ASSERT_TRUE(WriteFile(kTreeFile, "{\"smtp/other\": \"v\"}"));
  Result address = Tool({"get", "smtp/other"});
  EXPECT_EQ(address.status, 0);
  EXPECT_EQ(address.out, "smtp/other=v\n");
}

TEST_F(VelmoractlGet, ATreeFileTheUserMayNotReadExitsFive) {
  ASSERT_TRUE(WriteFile(kTreeFile, "{\"smtp/smtp_enabled\": \"yes\"}", 0600));
  Result r = Tool({"get", "smtp_enabled"}, "vtuser1");
  EXPECT_EQ(r.status, 5);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "velmoractl: cannot read the setting 'smtp_enabled': " + std::string(kTreeFile) +
                       ": permission denied\n");
}

// ---- User conversion ----

TEST(VelmoractlUser, NameAndUid) {
  Result name = Tool({"user", "name", "61001"});
  EXPECT_EQ(name.status, 0);
  EXPECT_EQ(name.out, "vtuser1\n");
  Result uid = Tool({"user", "uid", "vtuser2"});
  EXPECT_EQ(uid.status, 0);
  EXPECT_EQ(uid.out, "61002\n");
  Json::Value v = ParseJson(Tool({"--json", "user", "name", "61003"}).out);
  EXPECT_EQ(v["name"].asString(), "vtuser3");
  EXPECT_EQ(v["uid"].asUInt(), 61003u);
  Result no_uid = Tool({"user", "name", "61999"});
  EXPECT_EQ(no_uid.status, 3);
  EXPECT_EQ(no_uid.out, "");
  EXPECT_EQ(no_uid.err, "velmoractl: no user with the id 61999\n");
  Result no_name = Tool({"user", "uid", "nobody_here"});
  EXPECT_EQ(no_name.status, 3);
  EXPECT_EQ(no_name.err, "velmoractl: unknown user 'nobody_here'\n");
}

// ---- Quota store ----

class VelmoractlQuota : public redis_test::RealRedisTest {};

TEST_F(VelmoractlQuota, LimitWarningAndAttrRoundTrip) {
  Result set = Tool({"quota", "limit", "set", "alice", "1073741824"});
  EXPECT_EQ(set.status, 0) << set.err;
  EXPECT_EQ(set.out, "");
  EXPECT_EQ(raw_.Get("userdb/alice/quota"), "1073741824");
  Result get = Tool({"quota", "limit", "get", "alice"});
  EXPECT_EQ(get.status, 0);
  EXPECT_EQ(get.out, "1073741824\n");
  Json::Value v = ParseJson(Tool({"--json", "quota", "limit", "get", "alice"}).out);
  EXPECT_EQ(v["user"].asString(), "alice");
  EXPECT_EQ(v["limit"].asString(), "1073741824");

  Result warn = Tool({"-v", "quota", "warning", "set", "alice", "90"});
  EXPECT_EQ(warn.status, 0);
  EXPECT_EQ(warn.out, "quota warning alice=90\n");
  EXPECT_EQ(raw_.Get("userdb/alice/quota_warning"), "90");
  EXPECT_EQ(Tool({"quota", "warning", "get", "alice"}).out, "90\n");

  EXPECT_EQ(Tool({"quota", "attr", "set", "alice", "lang", "fr"}).status, 0);
  EXPECT_EQ(raw_.Get("userdb/alice/lang"), "fr");
  EXPECT_EQ(Tool({"quota", "attr", "get", "alice", "lang"}).out, "fr\n");
  // An absent value prints as an empty line.
  Result absent = Tool({"quota", "attr", "get", "alice", "nothing"});
  EXPECT_EQ(absent.status, 0);
  EXPECT_EQ(absent.out, "\n");
}

TEST_F(VelmoractlQuota, UsageAndClearUsage) {
  ASSERT_TRUE(raw_.Put("alice/quota/storage", "100"));
  ASSERT_TRUE(raw_.Put("alice/quota/messages", "7"));
  ASSERT_TRUE(raw_.Put("bob/quota/storage", "200"));
  Result usage = Tool({"quota", "usage", "alice", "bob", "carol"});
  EXPECT_EQ(usage.status, 0);
  EXPECT_EQ(usage.out, "alice=100\nbob=200\ncarol=\n");
  Json::Value v = ParseJson(Tool({"quota", "usage", "alice", "--json"}).out);
  EXPECT_EQ(v["alice"].asString(), "100");

  EXPECT_EQ(Tool({"quota", "clear-usage", "alice"}).status, 0);
  EXPECT_EQ(raw_.Get("alice/quota/storage"), "<nil>");
  EXPECT_EQ(raw_.Get("alice/quota/messages"), "7");
  EXPECT_EQ(raw_.Get("bob/quota/storage"), "200");
  EXPECT_EQ(Tool({"quota", "clear-usage"}).status, 0);
  EXPECT_EQ(raw_.Get("bob/quota/storage"), "<nil>");
  EXPECT_EQ(raw_.Get("alice/quota/messages"), "<nil>");
}

TEST_F(VelmoractlQuota, VerboseFollowsJson) {
  Result r = Tool({"--json", "-v", "quota", "warning", "set", "alice", "90"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "{\"done\":\"quota warning alice=90\"}\n");
  Result attr = Tool({"quota", "attr", "set", "alice", "note", "two\nlines", "-v"});
  EXPECT_EQ(attr.status, 0);
  EXPECT_EQ(attr.out, "quota attr alice note='two\\nlines'\n");
  EXPECT_EQ(raw_.Get("userdb/alice/note"), "two\nlines");
}

TEST_F(VelmoractlQuota, NamesThatWouldAddressAnotherRecordExitTwo) {
  ASSERT_TRUE(raw_.Put("userdb/alice/quota", "5"));
  for (const auto& args :
       {std::vector<std::string>{"quota", "limit", "set", "alice/x", "1"},
        std::vector<std::string>{"quota", "limit", "get", ""},
        std::vector<std::string>{"quota", "attr", "set", "alice", "a/quota", "1"},
        std::vector<std::string>{"quota", "attr", "get", "al\nice", "lang"},
        std::vector<std::string>{"quota", "usage", "bob", "x/y"},
        std::vector<std::string>{"quota", "clear-usage", ""}}) {
    Result r = Tool(args);
    EXPECT_EQ(r.status, 2) << args[1];
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(r.err, OneErrorLine());
    EXPECT_THAT(r.err, HasSubstr("is empty or holds \"/\" or a control byte"));
  }
  EXPECT_EQ(raw_.Get("userdb/alice/quota"), "5");
}

TEST_F(VelmoractlQuota, AnUnreachableStoreExitsFour) {
  server_->Stop();
  for (const auto& args : {std::vector<std::string>{"quota", "usage", "alice"},
                           std::vector<std::string>{"quota", "limit", "set", "alice", "1"},
                           std::vector<std::string>{"quota", "clear-usage"}}) {
    Result r = Tool(args);
    EXPECT_EQ(r.status, 4) << args[1];
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "velmoractl: cannot connect to the quota store at 127.0.0.1:8506\n");
  }
}

// ---- Local query socket ----

TEST(VelmoractlQuery, PrintsTheAnswerAsSent) {
  ScratchDir scratch;
  const std::string path = scratch.path() + "/q.sock";
  std::string request;
  OneShotServer server(path, [&request](int fd) {
    request = ReadUntilQuiet(fd, 100);
    WriteAll(fd, "line one\nline two", 4096);
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  Result r = Tool({"query", path, "status all"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "line one\nline two");
  EXPECT_EQ(request, "status all");
}

TEST(VelmoractlQuery, JsonAndUnreachable) {
  ScratchDir scratch;
  const std::string path = scratch.path() + "/q.sock";
  {
    OneShotServer server(path, [](int fd) {
      ReadUntilQuiet(fd, 100);
      WriteAll(fd, "ok", 4096);
      close(fd);
    });
    ASSERT_TRUE(server.bound());
    Json::Value v = ParseJson(Tool({"--json", "query", path, "x"}).out);
    EXPECT_EQ(v["response"].asString(), "ok");
  }
  Result r = Tool({"query", path, "x"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.out, "");
  EXPECT_THAT(r.err, StartsWith("velmoractl: no answer from '" + path + "': "));
  EXPECT_THAT(r.err, OneErrorLine());
}

// Bytes that are not UTF-8 are written as \xHH in a JSON string, so that the
// line stays valid UTF-8; valid characters pass unchanged.
TEST(VelmoractlQuery, JsonIsValidUtf8) {
  ScratchDir scratch;
  const std::string path = scratch.path() + "/q.sock";
  OneShotServer server(path, [](int fd) {
    ReadUntilQuiet(fd, 100);
    WriteAll(fd,
             "\xff\xfe"
             "ok \xc3\xa9 \xc3 \xed\xa0\x80 \xf4\x90\x80\x80\x01",
             4096);
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  Result r = Tool({"--json", "query", path, "x"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "{\"response\":\"\\\\xff\\\\xfeok \xc3\xa9 \\\\xc3 \\\\xed\\\\xa0\\\\x80 "
            "\\\\xf4\\\\x90\\\\x80\\\\x80\\u0001\"}\n");
  EXPECT_EQ(ParseJson(r.out)["response"].asString(),
            "\\xff\\xfeok \xc3\xa9 \\xc3 \\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80\x01");
}

TEST(VelmoractlQuery, ASocketTheUserMayNotOpenExitsFive) {
  ScratchDir scratch;
  ASSERT_EQ(chmod(scratch.path().c_str(), 0755), 0);
  const std::string path = scratch.path() + "/q.sock";
  OneShotServer server(path, [](int fd) {
    ReadUntilQuiet(fd, 100);
    WriteAll(fd, "ok", 4096);
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  Result r = Tool({"query", path, "x"}, "vtuser1");
  EXPECT_EQ(r.status, 5);
  EXPECT_EQ(r.out, "");
  EXPECT_THAT(r.err, OneErrorLine());
  EXPECT_THAT(r.err, HasSubstr("Permission denied"));
}

TEST(VelmoractlQuery, AServerThatStallsTimesOut) {
  ScratchDir scratch;
  const std::string path = scratch.path() + "/q.sock";
  OneShotServer server(path, [](int fd) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    close(fd);
  });
  ASSERT_TRUE(server.bound());
  Result r = Tool({"query", path, "x", "--timeout", "1"});
  EXPECT_EQ(r.status, 4);
  EXPECT_THAT(r.err, OneErrorLine());
}

// ---- memcached ----

class VelmoractlMemcached : public ::testing::Test {
 protected:
  static constexpr char kSocket[] = "/run/velmora-test/mc.sock";
  static void SetUpTestSuite() {
    MakeDir("/run/velmora-test");
    tcp_ = MemcachedTcpServer(11411, {"-m", "16"}).release();
    unix_ = MemcachedUnixServer(kSocket, {"-a", "0666", "-m", "16"}).release();
  }
  static void TearDownTestSuite() {
    delete tcp_;
    delete unix_;
  }
  void SetUp() override {
    ASSERT_TRUE(tcp_->Start());
    ASSERT_TRUE(unix_->Start());
  }
  static ServerProcess* tcp_;
  static ServerProcess* unix_;
};
ServerProcess* VelmoractlMemcached::tcp_ = nullptr;
ServerProcess* VelmoractlMemcached::unix_ = nullptr;

TEST_F(VelmoractlMemcached, SetGetDeleteOverTcpAndUnixSocket) {
  for (const auto& where : {std::vector<std::string>{"--server", "127.0.0.1:11411"},
                            std::vector<std::string>{"--socket", kSocket}}) {
    auto cmd = [&where](std::vector<std::string> rest) {
      std::vector<std::string> args{"memcached"};
      args.insert(args.end(), where.begin(), where.end());
      args.insert(args.end(), rest.begin(), rest.end());
      return Tool(args);
    };
    Result set = cmd({"set", "greeting", "hello world", "--flags", "5"});
    EXPECT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(set.out, "");
    Result get = cmd({"get", "greeting"});
    EXPECT_EQ(get.status, 0);
    EXPECT_EQ(get.out, "hello world\n");
    Json::Value v = ParseJson(cmd({"get", "greeting", "--json"}).out);
    EXPECT_EQ(v["value"].asString(), "hello world");
    EXPECT_EQ(v["flags"].asUInt(), 5u);
    Result del = cmd({"-v", "delete", "greeting"});
    EXPECT_EQ(del.status, 0);
    EXPECT_EQ(del.out, "memcached delete greeting\n");
    Result gone = cmd({"get", "greeting"});
    EXPECT_EQ(gone.status, 3);
    EXPECT_EQ(gone.err, "velmoractl: no item 'greeting'\n");
    Result del_again = cmd({"delete", "greeting"});
    EXPECT_EQ(del_again.status, 3);
  }
}

TEST_F(VelmoractlMemcached, KeysTheProtocolCannotCarryExitTwo) {
  for (const std::string& key : {std::string("key with space"), std::string(""),
                                 std::string("tab\tkey"), std::string(251, 'k')}) {
    for (const char* cmd : {"get", "set", "delete"}) {
      std::vector<std::string> args{"memcached", "--server", "127.0.0.1:11411", cmd, key};
      if (std::string(cmd) == "set") args.push_back("v");
      Result r = Tool(args);
      EXPECT_EQ(r.status, 2) << cmd << " " << key.size();
      EXPECT_THAT(r.err, OneErrorLine());
      EXPECT_THAT(r.err, HasSubstr("a memcached key is 1 to 250 bytes without blanks or control "
                                   "bytes, not "));
    }
  }
  // 250 bytes is still a key.
  const std::string longest(250, 'k');
  EXPECT_EQ(Tool({"memcached", "--server", "127.0.0.1:11411", "set", longest, "v"}).status, 0);
  EXPECT_EQ(Tool({"memcached", "--server", "127.0.0.1:11411", "get", longest}).out, "v\n");
}

TEST_F(VelmoractlMemcached, ASocketTheUserMayNotOpenExitsFive) {
  ASSERT_EQ(chmod(kSocket, 0600), 0);
  Result r = Tool({"memcached", "--socket", kSocket, "get", "k"}, "vtuser1");
  EXPECT_EQ(r.status, 5);
  EXPECT_EQ(r.err, "velmoractl: memcached at '" + std::string(kSocket) + "': permission denied\n");
  ASSERT_EQ(chmod(kSocket, 0666), 0);
  Result allowed = Tool({"memcached", "--socket", kSocket, "get", "absent"}, "vtuser1");
  EXPECT_EQ(allowed.status, 3);
}

TEST_F(VelmoractlMemcached, AStoppedServerExitsFour) {
  tcp_->Stop();
  Result r = Tool({"memcached", "--server", "127.0.0.1:11411", "get", "k"});
  EXPECT_EQ(r.status, 4);
  EXPECT_THAT(r.err, StartsWith("velmoractl: memcached at '127.0.0.1:11411': "));
  EXPECT_THAT(r.err, OneErrorLine());
  unix_->Stop();
  Result u = Tool({"memcached", "--socket", kSocket, "set", "k", "v"});
  EXPECT_EQ(u.status, 4);
  EXPECT_THAT(u.err, OneErrorLine());
}

}  // namespace
}  // namespace test
}  // namespace velmora
