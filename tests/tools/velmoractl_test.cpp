// velmoractl as installed (cmake --install into the build tree), run as a
// separate program inside the test runner against real servers (redis-server
// on the quota store's port, memcached, a local query socket) and the
// recording stand-ins of the back-end tool and of fetchmail. Each test checks
// the output, the exit status and the files.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <hiredis/hiredis.h>
#include <json/json.h>

#include <velmora/velmora.h>
#include "backend/redis_test_util.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "settings/settings_test_util.h"
#include "support/one_shot_server.h"
#include "support/server_process.h"

namespace velmora {
namespace test {
namespace {

using namespace settings_test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr char kTool[] = VELMORACTL_PATH;

struct Result {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

// Runs the installed velmoractl with `args`, as root or as `user`.
Result Tool(const std::vector<std::string>& args, const std::string& user = "") {
  int out_pipe[2], err_pipe[2];
  Result result;
  if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0) return result;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    if (!user.empty()) {
      if (setgroups(0, nullptr) != 0 || setgid(GidOf(user)) != 0 || setuid(UidOf(user)) != 0) {
        _exit(99);
      }
    }
    std::vector<char*> argv{const_cast<char*>(kTool)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(kTool, argv.data());
    _exit(98);
  }
  close(out_pipe[1]);
  close(err_pipe[1]);
  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open_pipes = 2;
  while (open_pipes > 0) {
    if (poll(fds, 2, -1) < 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buf[4096];
      ssize_t n = read(fds[i].fd, buf, sizeof(buf));
      if (n > 0) {
        sinks[i]->append(buf, static_cast<size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_pipes;
      }
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors))
      << errors << " in " << text;
  return value;
}

// An error is exactly one line on stderr, headed by the program's name.
MATCHER(OneErrorLine, "is one line starting with \"velmoractl: \"") {
  return arg.compare(0, 12, "velmoractl: ") == 0 && arg.find('\n') == arg.size() - 1;
}

// A log line of the library written from the velmoractl process:
// "<module>:<line>: velmoractl: <message>" at `priority`.
MATCHER_P3(ToolLine, priority, module, message,
           "is <" + std::to_string(priority) + "> " + std::string(module) +
               ":<line>: velmoractl: " + std::string(message)) {
  const std::string head = std::string(module) + ":";
  if (arg.priority != priority || arg.text.compare(0, head.size(), head) != 0) return false;
  size_t pos = head.size();
  while (pos < arg.text.size() && isdigit(static_cast<unsigned char>(arg.text[pos]))) ++pos;
  return pos > head.size() && arg.text.substr(pos) == ": velmoractl: " + std::string(message);
}

// Waits until no velmoractl process (a detached restart child) is left.
bool NoVelmoractlLeft() {
  for (int i = 0; i < 2000; ++i) {
    if (ProcessesNamed("velmoractl").empty()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

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

TEST(VelmoractlCli, VersionPrintsTheLibraryVersion) {
  Result r = Tool({"--version"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "velmoractl 1.0.0\n");
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
       "velmoractl: --period: Value 0 not in range 1 to 71582788 (see 'velmoractl pop3 set "
       "--help')\n"},
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

// ---- Client feature switches ----

class VelmoractlFeatures : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetSystemTree();
    ASSERT_TRUE(InstallBackendStandIn());
  }
};

TEST_F(VelmoractlFeatures, GetShowsTheDefaultsWithoutAFile) {
  for (const auto& args :
       {std::vector<std::string>{"features"}, std::vector<std::string>{"features", "get"}}) {
    Result r = Tool(args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out,
              "disable_pgp=no\ndisable_smtp_sender_name=no\nenable_sharing_link=no\n"
              "is_custom_logo=no\nenable_chat=yes\nenable_calendar=yes\n"
              "enable_externalsource=yes\ndisable_shared_mailbox=no\ncustom_logo_version=0\n");
  }
}

TEST_F(VelmoractlFeatures, SetChangesOnlyTheNamedSwitchesAndPropagates) {
  ASSERT_TRUE(MakeDir(kSettingsDir));
  ASSERT_TRUE(WriteFile(kClientConf, "other=\"kept\"\nenable_calendar=\"no\"\n"));
  Result r = Tool({"features", "set", "disable_pgp=yes", "enable_chat=no"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "");  // quiet without --verbose
  EXPECT_EQ(r.err, "");
  config::KeyTreeStore::instance();
  settings::record::VelmoraConfig now = settings::GetVelmoraConfig();
  EXPECT_TRUE(now.disable_pgp);
  EXPECT_FALSE(now.enable_chat);
  EXPECT_FALSE(now.enable_calendar);  // read, kept, written back
  EXPECT_TRUE(now.enable_externalsource);
  EXPECT_THAT(ReadFile(kClientConf), HasSubstr("other=kept\n"));
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kClientConf)));

  Result verbose = Tool({"-v", "features", "set", "enable_chat=yes"});
  EXPECT_EQ(verbose.status, 0);
  EXPECT_EQ(verbose.out, "set enable_chat=yes\n");

  Result json = Tool({"features", "--json"});
  Json::Value v = ParseJson(json.out);
  EXPECT_TRUE(v["disable_pgp"].asBool());
  EXPECT_TRUE(v["enable_chat"].asBool());
  EXPECT_FALSE(v["enable_calendar"].asBool());
  EXPECT_EQ(v["custom_logo_version"].asInt64(), 0);
}

TEST_F(VelmoractlFeatures, AFailedPropagationExitsOneWithTheFileWritten) {
  ASSERT_TRUE(WriteFile(kBackendFailFlag, ""));
  Result r = Tool({"features", "set", "disable_pgp=yes"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "velmoractl: cannot store the client switches (see the system log)\n");
  EXPECT_TRUE(settings::GetVelmoraConfig().disable_pgp);
}

TEST_F(VelmoractlFeatures, AnUnprivilegedUserIsDenied) {
  ASSERT_TRUE(MakeDir(kSettingsDir));
  ASSERT_TRUE(WriteFile(kClientConf, "disable_pgp=\"no\"\n", 0644));
  Result r = Tool({"features", "set", "disable_pgp=yes"}, "vtuser1");
  EXPECT_EQ(r.status, 5);
  EXPECT_THAT(r.err, OneErrorLine());
  EXPECT_EQ(ReadFile(kClientConf), "disable_pgp=\"no\"\n");
}

// ---- POP3 fetch service ----

class VelmoractlPop3 : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetSystemTree();
    ASSERT_TRUE(InstallBackendStandIn());
    ASSERT_TRUE(InstallFetchmailStandIn());
    ASSERT_TRUE(MakeDir(kLockDir, kAccount, kAccount, 0755));
    ASSERT_TRUE(MakeDir(std::string(kSpool) + "/vt/db", kAccount, kAccount, 0755));
    ASSERT_TRUE(MakeDir(kSettingsDir, kAccount, kAccount, 0755));
  }
  void TearDown() override { EXPECT_TRUE(NoVelmoractlLeft()); }

  void MakeUserFiles(uint32_t uid) {
    const std::string dir = control_.UserFetchMailPath(uid);
    ASSERT_TRUE(MakeDir(dir, uid, uid, 0700));
    ASSERT_TRUE(WriteOwned(dir + "quillbox_pop3_fetch", "set daemon 300\n", uid, uid, 0600));
  }

  settings::Pop3Control control_{"vt"};
};

TEST_F(VelmoractlPop3, StatusOfANewServiceIsOffWithPeriodFive) {
  Result r = Tool({"pop3", "vt", "status"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "enabled=no\nperiod=5\n");
  Json::Value v = ParseJson(Tool({"pop3", "vt", "status", "--json"}).out);
  EXPECT_FALSE(v["enabled"].asBool());
  EXPECT_EQ(v["period"].asUInt(), 5u);
}

TEST_F(VelmoractlPop3, SetStartListStop) {
  MakeUserFiles(kUser1);
  MakeUserFiles(kUser2);
  Result set = Tool({"pop3", "vt", "set", "--enabled", "yes", "--period", "10"});
  EXPECT_EQ(set.status, 0) << set.err;
  EXPECT_EQ(set.out, "");
  ASSERT_TRUE(NoVelmoractlLeft());
  EXPECT_EQ(ReadFile(control_.pop3_config_path), "true\n10\n");
  EXPECT_EQ(Tool({"pop3", "vt", "status"}).out, "enabled=yes\nperiod=10\n");

  // A user by uid and one by name.
  Result start = Tool({"-v", "pop3", "vt", "start", "61001", "vtuser2"});
  EXPECT_EQ(start.status, 0) << start.err;
  EXPECT_EQ(start.out, "pop3 vt: start 61001 61002\n");
  EXPECT_EQ(ReadFile(control_.uid_list_path), "61001\n61002\n");
  EXPECT_EQ(FetchmailCalls().size(), 2u);
  EXPECT_EQ(ReadFile(control_.UserFetchMailPath(kUser1) + "quillbox_pop3_fetch"),
            "set daemon 600\n");
  // The stand-in starts no daemon, so neither user has a pid file.
  EXPECT_EQ(Tool({"pop3", "vt", "list"}).out,
            "61001\tvtuser1\t-\tstopped\t600\n61002\tvtuser2\t-\tstopped\t600\n");

  Result stop = Tool({"pop3", "vt", "stop", "vtuser1"});
  EXPECT_EQ(stop.status, 0) << stop.err;
  EXPECT_EQ(stop.out, "");
  EXPECT_EQ(ReadFile(control_.uid_list_path), "61002\n");
  Json::Value list = ParseJson(Tool({"--json", "pop3", "vt", "list"}).out);
  ASSERT_TRUE(list.isArray());
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]["uid"].asUInt(), 61002u);

  // stop-all keeps the list, start-all starts the listed daemon again.
  EXPECT_EQ(Tool({"pop3", "vt", "stop-all"}).status, 0);
  EXPECT_EQ(ReadFile(control_.uid_list_path), "61002\n");
  EXPECT_EQ(Tool({"pop3", "vt", "start-all"}).status, 0);
  std::vector<Call> calls = FetchmailCalls();
  ASSERT_EQ(calls.size(), 5u);
  EXPECT_EQ(calls[3], StopCall(control_.UserFetchMailPath(kUser2), kUser2));
  EXPECT_EQ(calls[4], StartCall(control_.UserFetchMailPath(kUser2), kUser2, kUser2));
}

TEST_F(VelmoractlPop3, AnUnknownUserNameExitsThreeAndStartsNothing) {
  Result r = Tool({"pop3", "vt", "start", "61001", "nobody_here"});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.err, "velmoractl: unknown user 'nobody_here'\n");
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
}

TEST_F(VelmoractlPop3, AFailedStopExitsOne) {
  // Without its directory the uid list cannot be replaced.
  ASSERT_EQ(Shell(std::string("rm -rf ") + kSpool + "/vt/db"), 0);
  Result r = Tool({"pop3", "vt", "stop", "61001"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "velmoractl: pop3 vt stop failed (see the system log)\n");
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

class VelmoractlQuota : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    server_ = new ServerProcess(redis_test::RedisServerCommand(),
                                [] { return CanConnectTcp(redis_test::kHost, redis_test::kPort); });
  }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }
  void SetUp() override {
    ASSERT_TRUE(server_->Start());
    ASSERT_TRUE(raw_.Connect());
    ASSERT_TRUE(raw_.Reset());
  }
  static ServerProcess* server_;
  redis_test::RawRedis raw_;  // the test's own connection
};
ServerProcess* VelmoractlQuota::server_ = nullptr;

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

// ---- key=value files ----

class VelmoractlKv : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = scratch_.path();
    file_ = dir_ + "/app.conf";
  }
  ScratchDir scratch_;
  std::string dir_;
  std::string file_;
};

TEST_F(VelmoractlKv, GetAndSetKeepTheOtherKeysOwnerAndMode) {
  ASSERT_TRUE(WriteOwned(file_, "a=\"1\"\nempty=\"\"\nb=\"2\"\n", kUser1, kShared, 0640));
  Result get = Tool({"kv", "get", file_, "b"});
  EXPECT_EQ(get.status, 0);
  EXPECT_EQ(get.out, "2\n");
  Result empty = Tool({"kv", "get", file_, "empty"});
  EXPECT_EQ(empty.status, 0);
  EXPECT_EQ(empty.out, "\n");
  Json::Value v = ParseJson(Tool({"--json", "kv", "get", file_, "a"}).out);
  EXPECT_EQ(v["key"].asString(), "a");
  EXPECT_EQ(v["value"].asString(), "1");

  Result set = Tool({"kv", "set", file_, "b", "two words"});
  EXPECT_EQ(set.status, 0) << set.err;
  EXPECT_EQ(set.out, "");
  Result add = Tool({"-v", "kv", "set", file_, "c", "3"});
  EXPECT_EQ(add.out, "set c in " + file_ + "\n");
  EXPECT_EQ(Tool({"kv", "get", file_, "b"}).out, "two words\n");
  sdk::FileKeyValue check(file_);
  ASSERT_TRUE(check.ReadKeyValues(16, "="));
  EXPECT_EQ(check.Get("a"), "1");
  EXPECT_EQ(check.Get("c"), "3");
  FileMeta meta = Meta(file_);
  EXPECT_EQ(meta.uid, kUser1);
  EXPECT_EQ(meta.gid, kShared);
  EXPECT_EQ(meta.mode, 0640u);
  EXPECT_THAT(ListDir(dir_), ElementsAre("app.conf"));
}

TEST_F(VelmoractlKv, MissingKeyOrFileExitsThree) {
  ASSERT_TRUE(WriteFile(file_, "a=\"1\"\n"));
  Result key = Tool({"kv", "get", file_, "zzz"});
  EXPECT_EQ(key.status, 3);
  EXPECT_EQ(key.out, "");
  EXPECT_EQ(key.err, "velmoractl: no key 'zzz' in " + file_ + "\n");
  Result file = Tool({"kv", "get", dir_ + "/none.conf", "a"});
  EXPECT_EQ(file.status, 3);
  EXPECT_EQ(file.err,
            "velmoractl: cannot read " + dir_ + "/none.conf: No such file or directory\n");
  Result set = Tool({"kv", "set", dir_ + "/none.conf", "a", "1"});
  EXPECT_EQ(set.status, 3);
  EXPECT_FALSE(sdk::Exist(dir_ + "/none.conf"));
}

TEST_F(VelmoractlKv, PermissionDeniedExitsFiveAndChangesNothing) {
  ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
  ASSERT_TRUE(WriteFile(file_, "a=\"1\"\n", 0600));
  Result get = Tool({"kv", "get", file_, "a"}, "vtuser1");
  EXPECT_EQ(get.status, 5);
  EXPECT_EQ(get.err, "velmoractl: cannot read " + file_ + ": Permission denied\n");
  ASSERT_EQ(chmod(file_.c_str(), 0644), 0);
  Result set = Tool({"kv", "set", file_, "a", "2"}, "vtuser1");
  EXPECT_EQ(set.status, 5);
  EXPECT_THAT(set.err, OneErrorLine());
  EXPECT_EQ(ReadFile(file_), "a=\"1\"\n");
  EXPECT_THAT(ListDir(dir_), ElementsAre("app.conf"));
}

// ---- Locks ----

class VelmoractlLock : public ::testing::Test {
 protected:
  void SetUp() override { lock_ = scratch_.path() + "/job.lock"; }
  // True when another open file description can take the lock at once.
  bool Free() const {
    int fd = open(lock_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool free = flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    return free;
  }
  ScratchDir scratch_;
  std::string lock_;
};

TEST_F(VelmoractlLock, RunsTheCommandWhileHoldingTheLock) {
  // The command finds the lock taken (flock -n fails with 1) and reports it.
  const std::string probe = "flock -n " + lock_ + " true; echo $?";
  Result r = Tool({"lock", lock_, "--", "sh", "-c", probe});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "1\n");
  EXPECT_TRUE(Free());  // released afterwards
}

TEST_F(VelmoractlLock, ExitsWithTheCommandsStatus) {
  EXPECT_EQ(Tool({"lock", lock_, "--", "sh", "-c", "exit 7"}).status, 7);
  EXPECT_EQ(Tool({"lock", lock_, "--", "sh", "-c", "kill -TERM $$"}).status, 128 + SIGTERM);
  Result missing = Tool({"lock", lock_, "--", "/nonexistent/cmd"});
  EXPECT_EQ(missing.status, 127);
  EXPECT_EQ(missing.err, "velmoractl: cannot run '/nonexistent/cmd': No such file or directory\n");
  EXPECT_TRUE(Free());
}

TEST_F(VelmoractlLock, TimeoutWhileAnotherProcessHoldsTheLockExitsSix) {
  int fd = open(lock_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  const auto start = std::chrono::steady_clock::now();
  Result r = Tool({"lock", lock_, "--timeout", "1", "--", "touch", scratch_.path() + "/ran"});
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(r.status, 6);
  EXPECT_EQ(r.err, "velmoractl: the lock " + lock_ + " is still held after 1 s\n");
  EXPECT_FALSE(sdk::Exist(scratch_.path() + "/ran"));
  EXPECT_GE(waited, std::chrono::milliseconds(900));
  EXPECT_LT(waited, std::chrono::seconds(5));
  close(fd);
  // Once free, the same command runs.
  EXPECT_EQ(Tool({"lock", lock_, "--timeout", "1", "--", "touch", scratch_.path() + "/ran"}).status,
            0);
  EXPECT_TRUE(sdk::Exist(scratch_.path() + "/ran"));
}

TEST_F(VelmoractlLock, WaitsForAHolderThatLetsGo) {
  int fd = open(lock_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  std::thread release([fd] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    close(fd);
  });
  Result r = Tool({"lock", lock_, "--retries", "2", "--", "echo", "done"});
  release.join();
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "done\n");
}

TEST_F(VelmoractlLock, ALockFileThatCannotBeOpenedIsReported) {
  ASSERT_EQ(chmod(scratch_.path().c_str(), 0755), 0);
  Result denied = Tool({"lock", lock_, "--", "true"}, "vtuser1");
  EXPECT_EQ(denied.status, 5);
  EXPECT_EQ(denied.err, "velmoractl: cannot lock " + lock_ + ": Permission denied\n");
  Result missing = Tool({"lock", scratch_.path() + "/no/dir.lock", "--", "true"});
  EXPECT_EQ(missing.status, 3);
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
  EXPECT_THAT(r.err, StartsWith("velmoractl: no answer from " + path));
  EXPECT_THAT(r.err, OneErrorLine());
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
    tcp_ = new ServerProcess({MEMCACHED_SERVER_PATH, "-u", "root", "-l", "127.0.0.1", "-p", "11411",
                              "-U", "0", "-m", "16"},
                             [] { return CanConnectTcp("127.0.0.1", 11411); });
    unix_ = new ServerProcess(
        {MEMCACHED_SERVER_PATH, "-u", "root", "-s", kSocket, "-a", "0666", "-m", "16"},
        [] { return CanConnectUnix(kSocket); });
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

TEST_F(VelmoractlMemcached, AStoppedServerExitsFour) {
  tcp_->Stop();
  Result r = Tool({"memcached", "--server", "127.0.0.1:11411", "get", "k"});
  EXPECT_EQ(r.status, 4);
  EXPECT_THAT(r.err, StartsWith("velmoractl: memcached at 127.0.0.1:11411: "));
  EXPECT_THAT(r.err, OneErrorLine());
  unix_->Stop();
  Result u = Tool({"memcached", "--socket", kSocket, "set", "k", "v"});
  EXPECT_EQ(u.status, 4);
  EXPECT_THAT(u.err, OneErrorLine());
}

// ---- Shell completion ----

// The words bash would offer after `line` (the last word is being typed).
std::string Complete(const std::string& line) {
  const std::string script =
      std::string("source '") + VELMORACTL_COMPLETION + "'; COMP_LINE='" + line +
      "'; read -ra COMP_WORDS <<< \"$COMP_LINE\"; "
      "[[ $COMP_LINE == *' ' ]] && COMP_WORDS+=(''); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
      "_velmoractl; printf '%s\\n' \"${COMPREPLY[@]}\" | sort | tr '\\n' ' '";
  ScratchDir scratch;
  const std::string out = scratch.path() + "/out";
  Shell("bash -c \"$(cat <<'EOF'\n" + script + "\nEOF\n)\" > " + out + " 2>&1");
  return ReadFile(out);
}

TEST(VelmoractlCompletion, OffersSubcommandsAndOptionsAtEachLevel) {
  EXPECT_EQ(Complete("velmoractl "),
            "--help --json --verbose --version features get kv lock memcached pop3 query quota "
            "route script services user ");
  EXPECT_EQ(Complete("velmoractl qu"), "query quota ");
  EXPECT_EQ(Complete("velmoractl quota "), "attr clear-usage limit usage warning ");
  EXPECT_EQ(Complete("velmoractl quota limit "), "get set ");
  EXPECT_EQ(Complete("velmoractl pop3 vt "), "list set start start-all status stop stop-all ");
  EXPECT_EQ(Complete("velmoractl pop3 vt set --"),
            "--enabled --help --json --period --verbose --version ");
  EXPECT_EQ(Complete("velmoractl pop3 vt set --enabled "), "no yes ");
  EXPECT_EQ(Complete("velmoractl features set enable_c"), "enable_calendar= enable_chat= ");
  EXPECT_EQ(Complete("velmoractl features set enable_chat="), "enable_chat=no enable_chat=yes ");
  EXPECT_EQ(Complete("velmoractl user uid vtuser"), "vtuser1 vtuser2 vtuser3 ");
  EXPECT_EQ(Complete("velmoractl memcached "), "--server --socket delete get set ");
}

}  // namespace
}  // namespace test
}  // namespace velmora
