// velmoractl features, pop3 and user as installed, against the recording
// stand-ins of the back-end tool and of fetchmail: output, exit status,
// files and log lines.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include <velmora/velmora.h>
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/settings_test_util.h"
#include "support/tool_runner.h"

namespace velmora {
namespace test {
namespace {

// A run of the tool and how long it took.
struct TimedResult {
  Result result;
  double seconds = 0;
};

TimedResult TimedTool(const std::vector<std::string>& args, const std::string& user = "") {
  const auto start = std::chrono::steady_clock::now();
  TimedResult timed;
  timed.result = Tool(args, user);
  timed.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return timed;
}

// Type, owner, mode, size and modification time of every entry below
// `roots`: what a write would change. File systems mounted below a root are
// left out: the runner binds a build tree that lives below /tmp there, and
// other tests write into it meanwhile.
std::map<std::string, std::string> Tree(const std::vector<std::string>& roots) {
  std::map<std::string, std::string> entries;
  dev_t root_dev = 0;
  std::function<void(const std::string&)> walk = [&](const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || st.st_dev != root_dev) return;
    entries[path] = std::to_string(st.st_mode) + " " + std::to_string(st.st_uid) + ":" +
                    std::to_string(st.st_gid) + " " + std::to_string(st.st_size) + " " +
                    std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
    if (S_ISDIR(st.st_mode)) {
      for (const std::string& name : ListDir(path)) walk(path + "/" + name);
    }
  };
  for (const std::string& root : roots) {
    struct stat st;
    if (lstat(root.c_str(), &st) != 0) continue;
    root_dev = st.st_dev;
    walk(root);
  }
  return entries;
}

// Runs the tool as root in a child with a mount namespace of its own, after
// `prepare` (which mounts what it needs) succeeded; the result is passed
// back through a file.
Result ToolWithPrivateMounts(const std::function<bool()>& prepare,
                             const std::vector<std::string>& args) {
  const std::string report = "/run/velmoractl-settings-report";
  unlink(report.c_str());
  const int rc = InChildWithPrivateMounts([&] {
    if (!prepare()) return 64;
    Result r = Tool(args);
    return WriteFile(report, std::to_string(r.status) + "\n" + r.err) ? 0 : 65;
  });
  Result r;
  EXPECT_EQ(rc, 0);
  const std::string text = ReadFile(report);
  const size_t newline = text.find('\n');
  if (rc != 0 || newline == std::string::npos) return r;
  r.status = std::stoi(text.substr(0, newline));
  r.err = text.substr(newline + 1);
  unlink(report.c_str());
  return r;
}

// ---- Client feature switches ----

class VelmoractlFeatures : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetSystemTree();
    ASSERT_TRUE(InstallBackendStandIn());
  }
};

constexpr char kDefaults[] =
    "disable_pgp=no\ndisable_smtp_sender_name=no\nenable_sharing_link=no\n"
    "is_custom_logo=no\nenable_chat=yes\nenable_calendar=yes\n"
    "enable_externalsource=yes\ndisable_shared_mailbox=no\ncustom_logo_version=0\n";

TEST_F(VelmoractlFeatures, GetShowsTheDefaultsWithoutAFile) {
  for (const auto& args :
       {std::vector<std::string>{"features"}, std::vector<std::string>{"features", "get"}}) {
    Result r = Tool(args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, kDefaults);
    EXPECT_EQ(r.err, "");
  }
  // A user who may read where the file would be gets the same.
  EXPECT_EQ(Tool({"features"}, "vtuser1").out, kDefaults);
}

TEST_F(VelmoractlFeatures, AnUnreadableFileIsDeniedRatherThanShownAsTheDefaults) {
  ASSERT_TRUE(MakeDir(kSettingsDir));
  ASSERT_TRUE(WriteFile(kClientConf, "disable_pgp=\"yes\"\n", 0600));
  const std::string error = std::string("velmoractl: cannot read the client switches: ") +
                            kClientConf + ": Permission denied\n";
  for (const auto& args :
       {std::vector<std::string>{"features"}, std::vector<std::string>{"features", "get"},
        std::vector<std::string>{"--json", "features"},
        std::vector<std::string>{"features", "set", "enable_chat=no"}}) {
    Result r = Tool(args, "vtuser1");
    EXPECT_EQ(r.status, 5) << args.back();
    EXPECT_EQ(r.out, "") << args.back();
    EXPECT_EQ(r.err, error) << args.back();
  }
  EXPECT_EQ(ReadFile(kClientConf), "disable_pgp=\"yes\"\n");
  EXPECT_THAT(BackendCalls(), IsEmpty());
  // Root reads it.
  EXPECT_THAT(Tool({"features"}).out, StartsWith("disable_pgp=yes\n"));
}

TEST_F(VelmoractlFeatures, SomethingElseInPlaceOfTheFileFails) {
  ASSERT_TRUE(MakeDir(kClientConf));
  Result r = Tool({"features"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, std::string("velmoractl: cannot read the client switches: ") + kClientConf +
                       " is not a regular file\n");
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

TEST_F(VelmoractlFeatures, BadSwitchesAreQuoted) {
  Result unknown = Tool({"features", "set", "bad\nname=yes"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_EQ(unknown.err,
            "velmoractl: unknown switch 'bad\\nname' (see 'velmoractl features get')\n");
  Result value = Tool({"features", "set", "enable_chat=o\tn"});
  EXPECT_EQ(value.status, 2);
  EXPECT_EQ(value.err, "velmoractl: switch 'enable_chat' takes yes or no, not 'o\\tn'\n");
  EXPECT_FALSE(PathExists(kClientConf));
}

TEST_F(VelmoractlFeatures, AFailedPropagationSaysThatTheSwitchesWereStored) {
  ASSERT_TRUE(WriteFile(kBackendFailFlag, ""));
  // Without a file, and then with one.
  Result created = Tool({"features", "set", "disable_pgp=yes"});
  EXPECT_EQ(created.status, 1);
  EXPECT_EQ(created.err,
            "velmoractl: the client switches were stored, but propagating the change failed (see "
            "the system log)\n");
  EXPECT_TRUE(settings::GetVelmoraConfig().disable_pgp);

  const std::string before = ReadFile(kClientConf);
  Result changed = Tool({"features", "set", "enable_chat=no"});
  EXPECT_EQ(changed.status, 1);
  EXPECT_EQ(changed.err, created.err);
  EXPECT_NE(ReadFile(kClientConf), before);
  EXPECT_FALSE(settings::GetVelmoraConfig().enable_chat);
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kClientConf), SyncCall(kClientConf)));
}

TEST_F(VelmoractlFeatures, AnUnprivilegedUserIsDenied) {
  ASSERT_TRUE(MakeDir(kSettingsDir));
  ASSERT_TRUE(WriteFile(kClientConf, "disable_pgp=\"no\"\n", 0644));
  LogCapture capture;
  Result r = Tool({"features", "set", "disable_pgp=yes"}, "vtuser1");
  EXPECT_EQ(r.status, 5);
  EXPECT_EQ(r.err,
            std::string("velmoractl: cannot store the client switches: no write access to ") +
                kSettingsDir + "\n");
  EXPECT_EQ(ReadFile(kClientConf), "disable_pgp=\"no\"\n");
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(VelmoractlFeatures, AFileOfAnotherUserIsNotStored) {
  // The directory is the user's, the file root's: the new file could not
  // be given root as its owner.
  ASSERT_TRUE(MakeDir(kSettingsDir, kUser1, kUser1, 0755));
  ASSERT_TRUE(WriteFile(kClientConf, "disable_pgp=\"no\"\n", 0644));
  Result r = Tool({"features", "set", "disable_pgp=yes"}, "vtuser1");
  EXPECT_EQ(r.status, 5);
  EXPECT_EQ(r.err, std::string("velmoractl: cannot store the client switches: ") + kClientConf +
                       " belongs to another user or group\n");
  EXPECT_EQ(ReadFile(kClientConf), "disable_pgp=\"no\"\n");
  EXPECT_THAT(BackendCalls(), IsEmpty());

  // Once it is the user's own, it is stored.
  ASSERT_EQ(chown(kClientConf, kUser1, kUser1), 0);
  Result own = Tool({"features", "set", "disable_pgp=yes"}, "vtuser1");
  EXPECT_EQ(own.status, 0) << own.err;
  EXPECT_TRUE(settings::GetVelmoraConfig().disable_pgp);
}

TEST_F(VelmoractlFeatures, AFileThatCannotBeReplacedIsNotStored) {
  // Root, but on a read-only file system.
  const std::string text = "disable_pgp=\"no\"\n";
  Result r = ToolWithPrivateMounts(
      [&] {
        return MountTmpfsAt(kSettingsDir) && WriteFile(kClientConf, text, 0644) &&
               RemountReadOnlyAt(kSettingsDir);
      },
      {"features", "set", "disable_pgp=yes"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "velmoractl: cannot store the client switches (see the system log)\n");
  EXPECT_THAT(BackendCalls(), IsEmpty());
}

TEST_F(VelmoractlFeatures, HelpListsTheExitStatuses) {
  for (const auto& args : {std::vector<std::string>{"features", "--help"},
                           std::vector<std::string>{"features", "get", "--help"},
                           std::vector<std::string>{"features", "set", "--help"}}) {
    Result r = Tool(args);
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(r.out, HasSubstr("Exit status: 0 ")) << args[1];
    EXPECT_THAT(r.out, HasSubstr(" 5 permission denied")) << args[1];
  }
  EXPECT_THAT(Tool({"features", "--help"}).out, HasSubstr("a missing settings file shows the"));
}

// ---- POP3 fetch service ----

class VelmoractlPop3 : public Pop3ServiceTest {
 protected:
  void TearDown() override { EXPECT_TRUE(NoVelmoractlLeft()); }

  void MakeUserFiles(uint32_t uid) {
    const std::string dir = control_.UserFetchMailPath(uid);
    ASSERT_TRUE(MakeDir(dir, uid, uid, 0700));
    ASSERT_TRUE(WriteOwned(dir + "quillbox_pop3_fetch", "set daemon 300\n", uid, uid, 0600));
  }

  void TurnOn() {
    ASSERT_TRUE(WriteOwned(control_.pop3_config_path, "true\n5\n", kAccount, kAccount, 0644));
  }

  settings::Pop3Control control_{"vt"};
};

TEST_F(VelmoractlPop3, AKnownInstanceWithoutSettingsShowsTheDefaults) {
  // Only the spool directory exists: never configured.
  ASSERT_FALSE(PathExists(control_.pop3_config_path));
  Result r = Tool({"pop3", "vt", "status"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "enabled=no\nperiod=5\n");
  Json::Value v = ParseJson(Tool({"pop3", "vt", "status", "--json"}).out);
  EXPECT_FALSE(v["enabled"].asBool());
  EXPECT_EQ(v["period"].asUInt(), 5u);
}

TEST_F(VelmoractlPop3, AnInstanceWithASettingsFileIsKnownWithoutItsSpool) {
  ASSERT_EQ(Shell(std::string("rm -rf ") + kSpool + "/vt"), 0);
  TurnOn();
  Result r = Tool({"pop3", "vt", "status"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "enabled=yes\nperiod=5\n");
}

TEST_F(VelmoractlPop3, AnUnknownInstanceIsNotFoundAndNothingIsDone) {
  const auto before = Tree({kPackages, kSpool, kLockDir, kRecordDir});
  for (const auto& args : {std::vector<std::string>{"pop3", "nope", "status"},
                           std::vector<std::string>{"pop3", "nope", "list"},
                           std::vector<std::string>{"--json", "pop3", "nope", "list"},
                           std::vector<std::string>{"pop3", "nope", "start", "61001"},
                           std::vector<std::string>{"pop3", "nope", "stop", "61001"},
                           std::vector<std::string>{"pop3", "nope", "start-all"},
                           std::vector<std::string>{"pop3", "nope", "stop-all"}}) {
    Result r = Tool(args);
    EXPECT_EQ(r.status, 3) << args[args.size() - 1];
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "velmoractl: unknown POP3 instance 'nope'\n");
  }
  EXPECT_EQ(Tree({kPackages, kSpool, kLockDir, kRecordDir}), before);
  // The spool directory alone makes it known.
  ASSERT_TRUE(MakeDir(std::string(kSpool) + "/nope/db", kAccount, kAccount, 0755));
  EXPECT_EQ(Tool({"pop3", "nope", "list"}).status, 0);
  EXPECT_EQ(Tool({"pop3", "nope", "status"}).out, "enabled=no\nperiod=5\n");
}

TEST_F(VelmoractlPop3, AnUnreadableSettingsFileIsDenied) {
  ASSERT_TRUE(WriteOwned(control_.pop3_config_path, "true\n10\n", kAccount, kAccount, 0600));
  Result r = Tool({"pop3", "vt", "status"}, "vtuser1");
  EXPECT_EQ(r.status, 5);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "velmoractl: cannot read the settings of the POP3 service 'vt': " +
                       control_.pop3_config_path + ": Permission denied\n");
  EXPECT_EQ(Tool({"pop3", "vt", "status"}, std::string("Velmora-Server")).out,
            "enabled=yes\nperiod=10\n");
}

TEST_F(VelmoractlPop3, BadInstanceNamesExitTwoAndCreateNothing) {
  const std::vector<std::string> names = {
      "../../../../tmp/evil", "",    "a/b", "-x", std::string(65, 'a'), "a b", "a.b",
      "\xc3\xa9t\xc3\xa9",    "vt\n"};
  const std::vector<std::vector<std::string>> commands = {{"set", "--enabled", "yes"},
                                                          {"start", "61001"},
                                                          {"stop", "61001"},
                                                          {"start-all"},
                                                          {"stop-all"},
                                                          {"status"},
                                                          {"list"}};
  TurnOn();
  const std::vector<std::string> roots = {"/var", "/tmp"};
  const auto before = Tree(roots);
  for (const std::string& name : names) {
    for (const auto& command : commands) {
      std::vector<std::string> args = {"pop3", name};
      args.insert(args.end(), command.begin(), command.end());
      Result r = Tool(args);
      EXPECT_EQ(r.status, 2) << Join(args, std::string(" "));
      EXPECT_EQ(r.out, "");
      EXPECT_THAT(r.err, OneErrorLine());
    }
  }
  EXPECT_EQ(Tree(roots), before);
  EXPECT_FALSE(PathExists("/tmp/evil_pop3.lock"));
  EXPECT_FALSE(PathExists("/tmp/evil_pop3.config"));
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());

  Result r = Tool({"pop3", "../../../../tmp/evil", "set", "--enabled", "yes"});
  EXPECT_EQ(r.err,
            "velmoractl: NAME: expects 1 to 64 letters, digits, '_' or '-', not starting with "
            "'-'; not '../../../../tmp/evil' (see 'velmoractl pop3 NAME set --help')\n");
  // 64 bytes is a name (of an unknown instance here).
  Result longest = Tool({"pop3", std::string(64, 'a') + "", "status"});
  EXPECT_EQ(longest.status, 3);
  EXPECT_EQ(Tool({"pop3", "A-b_9", "status"}).status, 3);
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
  Result same = Tool({"-v", "pop3", "vt", "set", "--period", "10"});
  EXPECT_EQ(same.status, 0);
  EXPECT_EQ(same.out, "pop3 vt: enabled=yes period=10 (unchanged)\n");

  // A user by uid and one by name.
  Result start = Tool({"-v", "pop3", "vt", "start", "61001", "vtuser2"});
  EXPECT_EQ(start.status, 0) << start.err;
  EXPECT_EQ(start.out, "pop3 vt: started 61001 61002\n");
  EXPECT_EQ(start.err, "");
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
  Result stop_all = Tool({"-v", "pop3", "vt", "stop-all"});
  EXPECT_EQ(stop_all.status, 0);
  EXPECT_EQ(stop_all.out, "pop3 vt: stopped the daemon of every listed user\n");
  EXPECT_EQ(ReadFile(control_.uid_list_path), "61002\n");
  Result start_all = Tool({"-v", "pop3", "vt", "start-all"});
  EXPECT_EQ(start_all.status, 0);
  EXPECT_EQ(start_all.out, "pop3 vt: started the daemon of every listed user\n");
  std::vector<Call> calls = FetchmailCalls();
  ASSERT_EQ(calls.size(), 5u);
  EXPECT_EQ(calls[3], StopCall(control_.UserFetchMailPath(kUser2), kUser2));
  EXPECT_EQ(calls[4], StartCall(control_.UserFetchMailPath(kUser2), kUser2, kUser2));
}

TEST_F(VelmoractlPop3, AnEmptyListHasNothingToStartOrStop) {
  TurnOn();
  for (const char* command : {"start-all", "stop-all"}) {
    Result r = Tool({"-v", "pop3", "vt", command});
    EXPECT_EQ(r.status, 0) << command;
    EXPECT_EQ(r.out, "pop3 vt: no user is listed\n");
  }
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
}

TEST_F(VelmoractlPop3, AnUnknownUserNameExitsThreeAndStartsNothing) {
  TurnOn();
  Result r = Tool({"pop3", "vt", "start", "61001", "nobody_here"});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.err, "velmoractl: unknown user 'nobody_here'\n");
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  Result odd = Tool({"pop3", "vt", "start", "no\tbody"});
  EXPECT_EQ(odd.status, 3);
  EXPECT_EQ(odd.err, "velmoractl: unknown user 'no\\tbody'\n");
}

TEST_F(VelmoractlPop3, AUidWithoutAnAccountExitsThreeBeforeAnythingRuns) {
  TurnOn();
  MakeUserFiles(kUser1);
  const auto before = Tree({kPackages, kSpool, kLockDir});
  Result r = Tool({"-v", "pop3", "vt", "start", "61001", "70000"});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "velmoractl: no user with the id 70000\n");
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_FALSE(PathExists(control_.lock_path));  // nothing was locked
  EXPECT_EQ(Tree({kPackages, kSpool, kLockDir}), before);
  EXPECT_EQ(Tool({"pop3", "vt", "stop", "70000"}).status, 3);
}

TEST_F(VelmoractlPop3, AListedUidWithoutAnAccountCanStillBeStopped) {
  ASSERT_TRUE(WriteOwned(control_.uid_list_path, "61001\n70000\n", kAccount, kAccount, 0644));
  Result r = Tool({"-v", "pop3", "vt", "stop", "70000"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "pop3 vt: stopped 70000\n");
  EXPECT_EQ(ReadFile(control_.uid_list_path), "61001\n");
  EXPECT_THAT(FetchmailCalls(), ElementsAre(StopCall(control_.UserFetchMailPath(70000), 70000)));
}

TEST_F(VelmoractlPop3, StartWithTheServiceOffExitsSevenAndSaysWhatWasDone) {
  MakeUserFiles(kUser1);
  MakeUserFiles(kUser2);
  Result r = Tool({"-v", "pop3", "vt", "start", "61001", "vtuser2"});
  EXPECT_EQ(r.status, 7);
  EXPECT_EQ(r.out, "");  // no claim of a start
  EXPECT_EQ(r.err,
            "velmoractl: pop3 vt start: the POP3 service 'vt' is off: no daemon was started and "
            "61001 61002 were not added to the uid list\n");
  Result one = Tool({"pop3", "vt", "start", "61001"});
  EXPECT_EQ(one.status, 7);
  EXPECT_THAT(one.err, HasSubstr(" and 61001 was not added to the uid list\n"));

  ASSERT_TRUE(WriteOwned(control_.uid_list_path, "61001\n", kAccount, kAccount, 0644));
  Result all = Tool({"-v", "pop3", "vt", "start-all"});
  EXPECT_EQ(all.status, 7);
  EXPECT_EQ(all.out, "");
  EXPECT_EQ(all.err,
            "velmoractl: pop3 vt start-all: the POP3 service 'vt' is off: no daemon was "
            "started\n");
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_EQ(ReadFile(control_.uid_list_path), "61001\n");
}

TEST_F(VelmoractlPop3, DaemonsThatDidNotStartAreNamed) {
  TurnOn();
  // Only 61002 has a control file: the others' starts fail in their child.
  MakeUserFiles(kUser2);
  LogCapture capture;
  Result r = Tool({"-v", "pop3", "vt", "start", "61001", "61002", "61003"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "pop3 vt: started 61002\n");
  EXPECT_EQ(r.err,
            "velmoractl: pop3 vt start: the daemons of 61001 61003 did not start (see the system "
            "log)\n");
  // The library lists them all the same, and logs as always.
  EXPECT_EQ(ReadFile(control_.uid_list_path), "61001\n61002\n61003\n");
  EXPECT_THAT(FetchmailCalls(),
              ElementsAre(StartCall(control_.UserFetchMailPath(kUser2), kUser2, kUser2)));
  EXPECT_THAT(
      capture.Records(),
      ElementsAre(ToolLine(kErr, kSettingsModule, "Stat file error"),
                  ToolLine(kErr, kSettingsModule, "Start POP3Daemon for user(61001) error"),
                  ToolLine(kErr, kSettingsModule, "Stat file error"),
                  ToolLine(kErr, kSettingsModule, "Start POP3Daemon for user(61003) error")));

  Result all = Tool({"-v", "pop3", "vt", "start-all"});
  EXPECT_EQ(all.status, 1);
  EXPECT_EQ(all.out, "pop3 vt: started the daemons of the other listed users\n");
  EXPECT_EQ(all.err,
            "velmoractl: pop3 vt start-all: the daemons of 61001 61003 did not start (see the "
            "system log)\n");
}

TEST_F(VelmoractlPop3, AFetchmailKilledByASignalDidNotStart) {
  TurnOn();
  MakeUserFiles(kUser1);
  ASSERT_TRUE(WriteFile(kFetchmailFailFlag, ""));
  Result r = Tool({"-v", "pop3", "vt", "start", "vtuser1"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err,
            "velmoractl: pop3 vt start: the daemon of 61001 did not start (see the system log)\n");
  EXPECT_EQ(FetchmailCalls().size(), 1u);

  Result stop = Tool({"pop3", "vt", "stop", "61001"});
  EXPECT_EQ(stop.status, 1);
  EXPECT_EQ(stop.err,
            "velmoractl: pop3 vt stop: the daemon of 61001 did not stop (see the system log)\n");

  // An exit status means that fetchmail ran: the library counts that as a
  // start.
  ASSERT_EQ(unlink(kFetchmailFailFlag), 0);
  ASSERT_TRUE(SetStandInExitStatus(kFetchmailStatusFile, 1));
  Result ran = Tool({"-v", "pop3", "vt", "start", "61001"});
  EXPECT_EQ(ran.status, 0) << ran.err;
  EXPECT_EQ(ran.out, "pop3 vt: started 61001\n");
}

TEST_F(VelmoractlPop3, FetchmailsOwnMessagesStillReachStderr) {
  TurnOn();
  MakeUserFiles(kUser1);
  ASSERT_TRUE(WriteScript(kFetchmail, "#!/bin/sh\necho \"fetchmail: note for $USER\" >&2\n"));
  Result r = Tool({"pop3", "vt", "start", "61001", "61002"});
  EXPECT_EQ(r.status, 1);
  // The library's own lines go to the system log only.
  EXPECT_EQ(r.err,
            "fetchmail: note for vtuser1\n"
            "velmoractl: pop3 vt start: the daemon of 61002 did not start (see the system log)\n");
}

TEST_F(VelmoractlPop3, AMissingLockDirectoryFailsAtOnceWithoutALogLine) {
  TurnOn();
  MakeUserFiles(kUser1);
  ASSERT_EQ(Shell(std::string("rm -rf ") + kLockDir), 0);
  const std::vector<std::vector<std::string>> commands = {
      {"set", "--period", "7"}, {"start", "61001"}, {"stop", "61001"}, {"start-all"}, {"stop-all"}};
  for (const auto& command : commands) {
    std::vector<std::string> args = {"pop3", "vt"};
    args.insert(args.end(), command.begin(), command.end());
    LogCapture capture;
    TimedResult t = TimedTool(args);
    EXPECT_EQ(t.result.status, 1) << command[0];
    EXPECT_LT(t.seconds, 2.0) << command[0];
    EXPECT_EQ(t.result.err, "velmoractl: pop3 vt " + command[0] +
                                ": the lock directory /var/lock/velmora_server/ does not exist\n");
    EXPECT_THAT(capture.Records(), IsEmpty()) << command[0];
  }
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_EQ(ReadFile(control_.pop3_config_path), "true\n5\n");
}

TEST_F(VelmoractlPop3, AnUnprivilegedUserIsDeniedAtOnce) {
  MakeUserFiles(kUser1);
  ASSERT_TRUE(WriteOwned(control_.uid_list_path, "61001\n", kAccount, kAccount, 0644));
  const std::vector<std::vector<std::string>> commands = {{"stop", "61001"},
                                                          {"start", "61001"},
                                                          {"set", "--enabled", "yes"},
                                                          {"stop-all"},
                                                          {"start-all"}};
  auto expect_denied = [&](const std::string& user, const std::string& reason) {
    for (const auto& command : commands) {
      std::vector<std::string> args = {"pop3", "vt"};
      args.insert(args.end(), command.begin(), command.end());
      LogCapture capture;
      TimedResult t = TimedTool(args, user);
      EXPECT_EQ(t.result.status, 5) << user << " " << command[0];
      EXPECT_LT(t.seconds, 2.0) << user << " " << command[0];
      EXPECT_EQ(t.result.err, "velmoractl: pop3 vt " + command[0] + ": " + reason + "\n");
      EXPECT_THAT(capture.Records(), IsEmpty());
    }
  };
  // No lock file yet, in a directory of the package account.
  expect_denied("vtuser1",
                "cannot create the lock file " + control_.lock_path + ": Permission denied");
  // The lock file as the library leaves it.
  ASSERT_TRUE(WriteOwned(control_.lock_path, "", kAccount, kAccount, 0644));
  expect_denied("vtuser1",
                "cannot open the lock file " + control_.lock_path + ": Permission denied");
  // A lock file of root's: even the package account would wait in vain.
  ASSERT_EQ(chown(control_.lock_path.c_str(), 0, 0), 0);
  expect_denied("Velmora-Server",
                "cannot open the lock file " + control_.lock_path + ": Permission denied");
  // A lock that anyone may open still has to be handed to the account.
  ASSERT_EQ(chmod(control_.lock_path.c_str(), 0666), 0);
  expect_denied("vtuser1", "only root and Velmora-Server may control the POP3 service 'vt'");
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_EQ(ReadFile(control_.uid_list_path), "61001\n");
}

TEST_F(VelmoractlPop3, ThePackageAccountNeedsToWriteWhatTheCommandWrites) {
  TurnOn();
  ASSERT_TRUE(MakeDir(std::string(kSpool) + "/vt/db", 0, 0, 0755));
  const std::string db = std::string(kSpool) + "/vt/db/";
  for (const char* command : {"start", "stop"}) {
    TimedResult t = TimedTool({"pop3", "vt", command, "61001"}, "Velmora-Server");
    EXPECT_EQ(t.result.status, 5) << command;
    EXPECT_EQ(t.result.err, std::string("velmoractl: pop3 vt ") + command + ": cannot write " + db +
                                ": Permission denied\n");
  }
  // A list that exists is appended to by a start.
  ASSERT_TRUE(WriteOwned(control_.uid_list_path, "", 0, 0, 0644));
  Result start = Tool({"pop3", "vt", "start", "61001"}, "Velmora-Server");
  EXPECT_EQ(start.status, 5);
  EXPECT_EQ(start.err, "velmoractl: pop3 vt start: cannot write " + control_.uid_list_path +
                           ": Permission denied\n");

  ASSERT_TRUE(MakeDir(kSettingsDir, 0, 0, 0755));
  Result set = Tool({"pop3", "vt", "set", "--period", "9"}, "Velmora-Server");
  EXPECT_EQ(set.status, 5);
  EXPECT_EQ(set.err, std::string("velmoractl: pop3 vt set: cannot write ") + kSettingsDir +
                         ": Permission denied\n");
  EXPECT_EQ(ReadFile(control_.pop3_config_path), "true\n5\n");
  EXPECT_THAT(FetchmailCalls(), IsEmpty());
}

TEST_F(VelmoractlPop3, AFailedStopExitsOne) {
  // The list is replaced but cannot be propagated.
  ASSERT_TRUE(WriteOwned(control_.uid_list_path, "61001\n61002\n", kAccount, kAccount, 0644));
  ASSERT_TRUE(WriteFile(kBackendFailFlag, ""));
  Result r = Tool({"pop3", "vt", "stop", "61001"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err,
            "velmoractl: pop3 vt stop: updating or propagating the uid list failed (see the "
            "system log)\n");
  EXPECT_EQ(ReadFile(control_.uid_list_path), "61002\n");
}

TEST_F(VelmoractlPop3, AStoreWhosePropagationFailedIsReported) {
  ASSERT_TRUE(WriteFile(kBackendFailFlag, ""));
  Result r = Tool({"-v", "pop3", "vt", "set", "--enabled", "yes"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err,
            "velmoractl: pop3 vt set: stored enabled=yes period=5, but propagating the change "
            "failed and no daemon was restarted (see the system log)\n");
  EXPECT_EQ(ReadFile(control_.pop3_config_path), "true\n5\n");
}

TEST_F(VelmoractlPop3, EveryCommandListsItsExitStatuses) {
  for (const char* command : {"status", "set", "start", "stop", "start-all", "stop-all", "list"}) {
    Result r = Tool({"pop3", "vt", command, "--help"});
    EXPECT_EQ(r.status, 0) << command;
    EXPECT_THAT(r.out, HasSubstr("Exit status: 0 ")) << command;
    EXPECT_THAT(r.out, HasSubstr(" 2 bad command line")) << command;
  }
  EXPECT_THAT(Tool({"pop3", "vt", "start", "--help"}).out, HasSubstr("; 7 the service is off"));
  EXPECT_THAT(Tool({"pop3", "vt", "status", "--help"}).out,
              HasSubstr("shows the defaults, enabled=no period=5"));
  // The listing keeps its description of the columns before the statuses.
  const std::string list = Tool({"pop3", "vt", "list", "--help"}).out;
  EXPECT_LT(list.find("UID  USER  PID  STATE  INTERVAL"), list.find("Exit status: 0 "));
}

// ---- Users ----

TEST(VelmoractlUser, MessagesQuoteTheArgument) {
  Result bad = Tool({"user", "name", "6100\n1"});
  EXPECT_EQ(bad.status, 2);
  EXPECT_EQ(bad.err, "velmoractl: '6100\\n1' is not a user id\n");
  Result unknown = Tool({"user", "uid", "no\x01one"});
  EXPECT_EQ(unknown.status, 3);
  EXPECT_EQ(unknown.err, "velmoractl: unknown user 'no\\x01one'\n");
  Result none = Tool({"user", "name", "0070000"});
  EXPECT_EQ(none.status, 3);
  EXPECT_EQ(none.err, "velmoractl: no user with the id 70000\n");
  for (const char* command : {"name", "uid"}) {
    EXPECT_THAT(Tool({"user", command, "--help"}).out, HasSubstr("Exit status: 0 printed; 2 "));
  }
}

}  // namespace
}  // namespace test
}  // namespace velmora
