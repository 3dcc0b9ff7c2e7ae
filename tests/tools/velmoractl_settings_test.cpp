// velmoractl features and pop3 as installed, against the recording
// stand-ins of the back-end tool and of fetchmail: output, exit status,
// files and log lines.
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
#include "settings/settings_test_util.h"
#include "tools/tool_runner.h"

namespace velmora {
namespace test {
namespace {

using namespace settings_test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

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

}  // namespace
}  // namespace test
}  // namespace velmora
