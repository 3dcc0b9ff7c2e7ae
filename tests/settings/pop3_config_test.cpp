// Tests of the POP3 fetch configuration: the paths of an instance, the
// settings directory made by the constructor, the global switch file, the
// uid list reader, the fetch directory and the rewrite of the "set daemon"
// lines of a user's fetchmail control file.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <velmora/settings.h>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/settings_test_util.h"

namespace velmora {
namespace test {
namespace settings_test {
namespace {

constexpr char kUser1Dir[] = "/var/spool/mail/vt/1001/61001/.ORVOQB/";

std::string Show(const GlobalPOP3Config& c) {
  return std::string(c.enabled ? "on/" : "off/") + std::to_string(c.period);
}

class Pop3ConfigTest : public testing::Test {
 protected:
  void SetUp() override {
    ResetSystemTree();
    ASSERT_TRUE(InstallBackendStandIn());
    ASSERT_TRUE(MakeDir(std::string(kSpool) + "/vt/db"));
  }
  void TearDown() override { EXPECT_TRUE(NoChildLeft()); }

  static void WriteSwitch(const std::string& text) {
    ASSERT_TRUE(MakeDir(kSettingsDir));
    ASSERT_TRUE(WriteFile(kSwitchFile, text, 0644));
  }
  static void WriteUidList(const std::string& text) { ASSERT_TRUE(WriteFile(kUidList, text)); }
  static void WriteControlFile(const std::string& text, uid_t uid = kUser1, gid_t gid = kShared,
                               mode_t mode = 0600) {
    ASSERT_TRUE(MakeDir(kUser1Dir, kUser1, kUser1, 0700));
    ASSERT_TRUE(WriteOwned(kUser1Rc, text, uid, gid, mode));
  }
};

TEST_F(Pop3ConfigTest, PathsAreBuiltFromTheName) {
  Pop3Control control("vt");
  EXPECT_EQ(control.pop3_config_path, kSwitchFile);
  EXPECT_EQ(control.uid_list_path, kUidList);
  EXPECT_EQ(control.lock_path, "/var/lock/velmora_server/vt_pop3.lock");
  EXPECT_EQ(control.spool_root, "/var/spool/mail/vt");
  Pop3Control other("x.y");
  EXPECT_EQ(other.pop3_config_path, "/var/packages/Velmora-Server/etc/velmora/x.y_pop3.config");
  EXPECT_EQ(other.uid_list_path, "/var/spool/mail/x.y/db/x.y_pop3_uid.config");
  EXPECT_EQ(other.lock_path, "/var/lock/velmora_server/x.y_pop3.lock");
  EXPECT_EQ(other.spool_root, "/var/spool/mail/x.y");
}

TEST_F(Pop3ConfigTest, ConstructorMakesSettingsDirectoryOwnedByTheAccount) {
  LogCapture capture;
  Pop3Control control("vt");
  ASSERT_TRUE(IsDirectoryPath(kSettingsDir));
  FileMeta meta = Meta(kSettingsDir);
  EXPECT_EQ(meta.uid, kAccount);
  EXPECT_EQ(meta.gid, kAccount);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3ConfigTest, ConstructorLeavesAnExistingDirectoryAlone) {
  ASSERT_TRUE(MakeDir(kSettingsDir, 0, 0, 0700));
  LogCapture capture;
  Pop3Control control("vt");
  FileMeta meta = Meta(kSettingsDir);
  EXPECT_EQ(meta.uid, 0u);
  EXPECT_EQ(meta.mode, 0700u);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3ConfigTest, ConstructorRunByTheAccountMakesTheDirectory) {
  ASSERT_TRUE(MakeDir(kEtcDir, kAccount, kAccount));
  LogCapture capture;
  EXPECT_EQ(RunAs("Velmora-Server",
                  [] {
                    Pop3Control control("vt");
                    return 0;
                  }),
            0);
  FileMeta meta = Meta(kSettingsDir);
  EXPECT_TRUE(IsDirectoryPath(kSettingsDir));
  EXPECT_EQ(meta.uid, kAccount);
  EXPECT_EQ(meta.gid, kAccount);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3ConfigTest, ConstructorRunByAnUnprivilegedUserLogsAtDebugAndMakesNothing) {
  ASSERT_TRUE(MakeDir(kEtcDir, 0, 0, 0777));
  LogCapture capture;
  EXPECT_EQ(RunAs("vtuser1",
                  [] {
                    Pop3Control control("vt");
                    return control.uid_list_path == kUidList ? 0 : 1;
                  }),
            0);
  EXPECT_FALSE(PathExists(kSettingsDir));
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogAt(kDebug, kSettingsModule, "User has no privilege 61001")));
}

TEST_F(Pop3ConfigTest, ConstructorWithoutTheAccountLogs) {
  LogCapture capture;
  EXPECT_EQ(InChildWithPrivateMounts([] {
              if (!ReplacePasswd("Velmora-Server", "")) return 64;
              Pop3Control control("vt");
              return PathExists(kSettingsDir) ? 1 : 0;
            }),
            0);
  EXPECT_THAT(capture.Records(), ElementsAre(Err("Get Velmora-Server pwd fail")));
}

TEST_F(Pop3ConfigTest, ConstructorWhenTheDirectoryCannotBeMadeLogs) {
  LogCapture capture;
  EXPECT_EQ(InChildWithPrivateMounts([] {
              if (!MountTmpfsAt(kPackages) || !RemountReadOnlyAt(kPackages)) return 64;
              Pop3Control control("vt");
              return 0;
            }),
            0);
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogAt(kErr, kFilesystemModule,
                                "MkDir failed: /var/packages/Velmora-Server/etc/velmora/ "
                                "Read-only file system"),
                          Err("Create path(/var/packages/Velmora-Server/etc/velmora/) fail")));
}

TEST_F(Pop3ConfigTest, ConstructorWhenChownFailsLogsTheReason) {
  // The account without its own group may make the directory but cannot
  // give it that group.
  ASSERT_TRUE(MakeDir(kEtcDir, kAccount, kAccount));
  LogCapture capture;
  EXPECT_EQ(InChild([] {
              if (setgroups(0, nullptr) != 0 || setgid(kUser1) != 0 || setuid(kAccount) != 0) {
                return 64;
              }
              Pop3Control control("vt");
              return 0;
            }),
            0);
  EXPECT_TRUE(IsDirectoryPath(kSettingsDir));
  EXPECT_THAT(capture.Records(),
              ElementsAre(Err("Chown path(/var/packages/Velmora-Server/etc/velmora/) fail: "
                              "Operation not permitted")));
}

TEST_F(Pop3ConfigTest, MissingSwitchFileMeansOffWithFiveMinutes) {
  Pop3Control control("vt");
  LogCapture capture;
  EXPECT_EQ(Show(control.GetPOP3Config()), "off/5");
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3ConfigTest, SwitchFileLinesAreReadStrictly) {
  Pop3Control control("vt");
  LogCapture capture;
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"true\n10\n", "on/10"},
      {"false\n10\n", "off/10"},
      {"true\n", "on/5"},          // only line 1
      {"true", "on/5"},            // and without its newline
      {"True\n10\n", "off/10"},    // capitalised
      {"true \n10\n", "off/10"},   // trailing blank
      {"", "off/5"},               // empty text
      {"\n\n", "off/5"},           // two empty lines
      {"true\n\n", "on/5"},        // empty line 2
      {"true\n12abc\n", "on/12"},  // digits, then anything
      {"true\nabc\n", "on/0"},     // no digits at all
      {"true\n 7\n", "on/7"},      // leading blanks are skipped by the number read
      {"true\n4294967295\n", "on/4294967295"},
      {"true\n4294967296\n", "on/0"},  // truncated to 32 bits
      {"true\n4294967297\n", "on/1"},
      {"true\n10", "on/10"},
      {"true\n10\nextra\nlines\n", "on/10"},
  };
  for (const auto& c : cases) {
    WriteSwitch(c.first);
    EXPECT_EQ(Show(control.GetPOP3Config()), c.second) << "file: \"" << c.first << "\"";
  }
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3ConfigTest, SwitchFileOfTenMegabytesIsReadByItsFirstTwoLines) {
  Pop3Control control("vt");
  WriteSwitch("true\n15\n" + std::string(10 * 1024 * 1024, 'x') + "\n");
  EXPECT_EQ(Show(control.GetPOP3Config()), "on/15");
  WriteSwitch(std::string(10 * 1024 * 1024, 't') + "\n15\n");
  EXPECT_EQ(Show(control.GetPOP3Config()), "off/15");
}

TEST_F(Pop3ConfigTest, UnreadableSwitchFileMeansOffWithZeroAndLogs) {
  Pop3Control control("vt");
  WriteSwitch("true\n10\n");
  ASSERT_EQ(chmod(kSwitchFile, 0600), 0);
  LogCapture capture;
  EXPECT_EQ(
      RunAs("vtuser1", [&control] { return Show(control.GetPOP3Config()) == "off/0" ? 0 : 1; }), 0);
  EXPECT_THAT(capture.Records(), ElementsAre(Err("fail open Global pop3.config file")));
}

TEST_F(Pop3ConfigTest, SetWritesTwoLinesOwnedByTheAccountAndPropagates) {
  Pop3Control control("vt");
  LogCapture capture;
  const mode_t old_umask = umask(077);
  EXPECT_TRUE(control.SetPOP3Config({true, 10}));
  umask(old_umask);
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n10\n");
  FileMeta meta = Meta(kSwitchFile);
  EXPECT_EQ(meta.uid, kAccount);
  EXPECT_EQ(meta.gid, kAccount);
  EXPECT_EQ(meta.mode, 0644u);
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kSwitchFile)));
  EXPECT_THAT(ListDir(kSettingsDir), ElementsAre("vt_pop3.config"));
  EXPECT_EQ(Show(control.GetPOP3Config()), "on/10");
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3ConfigTest, SetReplacesAFileOfAnotherOwner) {
  Pop3Control control("vt");
  WriteSwitch("true\n10\nold third line\n");
  ASSERT_EQ(chmod(kSwitchFile, 0600), 0);
  EXPECT_TRUE(control.SetPOP3Config({false, 4294967295u}));
  EXPECT_EQ(ReadFile(kSwitchFile), "false\n4294967295\n");
  FileMeta meta = Meta(kSwitchFile);
  EXPECT_EQ(meta.uid, kAccount);
  EXPECT_EQ(meta.mode, 0644u);
  EXPECT_EQ(Show(control.GetPOP3Config()), "off/4294967295");
  EXPECT_TRUE(control.SetPOP3Config({true, 0}));
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n0\n");
}

TEST_F(Pop3ConfigTest, SetWithoutTheSettingsDirectoryLogsAndFails) {
  Pop3Control control("vt");
  Shell(std::string("rm -rf ") + kSettingsDir);
  LogCapture capture;
  EXPECT_FALSE(control.SetPOP3Config({true, 10}));
  EXPECT_FALSE(PathExists(kSettingsDir));
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), ElementsAre(Err("initialize temp file failed")));
}

TEST_F(Pop3ConfigTest, SetWithoutTheAccountLogsAndLeavesTheFile) {
  Pop3Control control("vt");
  WriteSwitch("false\n3\n");
  LogCapture capture;
  EXPECT_EQ(InChildWithPrivateMounts([&control] {
              if (!ReplacePasswd("Velmora-Server", "")) return 64;
              return control.SetPOP3Config({true, 10}) ? 1 : 0;
            }),
            0);
  EXPECT_EQ(ReadFile(kSwitchFile), "false\n3\n");
  EXPECT_THAT(ListDir(kSettingsDir), ElementsAre("vt_pop3.config"));
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), ElementsAre(Err("initialize temp file failed")));
}

TEST_F(Pop3ConfigTest, SetWhenPropagationFailsKeepsTheNewFile) {
  Pop3Control control("vt");
  ASSERT_TRUE(WriteFile(kBackendFailFlag, ""));  // killed by SIGKILL
  LogCapture capture;
  EXPECT_FALSE(control.SetPOP3Config({true, 7}));
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n7\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kSwitchFile)));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3ConfigTest, SetWhenPropagationCannotRunKeepsTheNewFile) {
  Pop3Control control("vt");
  ASSERT_EQ(chmod(kBackend, 0644), 0);
  LogCapture capture;
  EXPECT_FALSE(control.SetPOP3Config({true, 8}));
  EXPECT_EQ(ReadFile(kSwitchFile), "true\n8\n");
  ASSERT_EQ(unlink(kBackend), 0);
  EXPECT_FALSE(control.SetPOP3Config({false, 9}));
  EXPECT_EQ(ReadFile(kSwitchFile), "false\n9\n");
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3ConfigTest, SetCountsAnyExitStatusOfThePropagationAsDone) {
  Pop3Control control("vt");
  for (int status : {1, 6, 255}) {
    SCOPED_TRACE(status);
    ASSERT_TRUE(WriteFile(kBackendCalls, "", 0666));
    ASSERT_TRUE(SetStandInExitStatus(kBackendStatusFile, status));
    LogCapture capture;
    EXPECT_TRUE(control.SetPOP3Config({status != 6, static_cast<uint32_t>(status)}));
    EXPECT_EQ(ReadFile(kSwitchFile),
              std::string(status != 6 ? "true" : "false") + "\n" + std::to_string(status) + "\n");
    EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kSwitchFile)));
    EXPECT_THAT(capture.Records(), IsEmpty());
  }
}

TEST_F(Pop3ConfigTest, UidListReadsNumbersUntilTheFirstBadToken) {
  Pop3Control control("vt");
  LogCapture capture;
  EXPECT_THAT(control.GetPOP3UidSet(), IsEmpty());  // no file
  const std::vector<std::pair<std::string, std::set<uint32_t>>> cases = {
      {"1001\n1002\n1001\n", {1001, 1002}},          // duplicates collapse
      {"1001 abc 1003\n", {1001}},                   // nothing after a bad token
      {"\n\n  1002\t\n\n1001\r\n\n", {1001, 1002}},  // blank lines and white space
      {"", {}},
      {"1001", {1001}},  // no trailing newline
      {"4294967295\n", {4294967295u}},
      // A number too large for 32 bits is a failed read: it and everything
      // after it are ignored.
      {"1001\n99999999999\n1003\n", {1001}},
      {"4294967296\n5\n", {}},
      {"1001\n1002abc\n1003\n", {1001, 1002}},  // the read stops inside the token
      {"garbage\n1001\n", {}},
      {"+7\n", {7}},
      // Stream extraction into an unsigned number takes a minus sign and
      // wraps the value.
      {"-1\n", {4294967295u}},
  };
  for (const auto& c : cases) {
    WriteUidList(c.first);
    EXPECT_EQ(control.GetPOP3UidSet(), c.second) << "file: \"" << c.first << "\"";
  }
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3ConfigTest, UnreadableUidListIsEmptyAndLogs) {
  Pop3Control control("vt");
  WriteUidList("1001\n");
  ASSERT_EQ(chmod(kUidList, 0600), 0);
  LogCapture capture;
  EXPECT_EQ(RunAs("vtuser1", [&control] { return control.GetPOP3UidSet().empty() ? 0 : 1; }), 0);
  EXPECT_THAT(capture.Records(), ElementsAre(Err("fail open Global pop3_uid.config file")));
}

TEST_F(Pop3ConfigTest, FetchPathZeroFillsOnlyTheFirstNumber) {
  Pop3Control n("n");
  EXPECT_EQ(n.UserFetchMailPath(7), "/var/spool/mail/n/0007/7/.ORVOQB/");
  EXPECT_EQ(n.UserFetchMailPath(0), "/var/spool/mail/n/0000/0/.ORVOQB/");
  Pop3Control x("x");
  EXPECT_EQ(x.UserFetchMailPath(1026), "/var/spool/mail/x/1026/1026/.ORVOQB/");
  EXPECT_EQ(x.UserFetchMailPath(123456), "/var/spool/mail/x/3456/123456/.ORVOQB/");
  EXPECT_EQ(x.UserFetchMailPath(10000), "/var/spool/mail/x/0000/10000/.ORVOQB/");
  EXPECT_EQ(x.UserFetchMailPath(4294967295u), "/var/spool/mail/x/7295/4294967295/.ORVOQB/");
}

TEST_F(Pop3ConfigTest, ModifyRewritesSetDaemonAndKeepsOwnerGroupAndMode) {
  Pop3Control control("vt");
  WriteControlFile("poll pop.example.com proto pop3 user \"u\" password \"p\"\nset daemon 300\n");
  const ino_t before = InodeOf(kUser1Rc);
  LogCapture capture;
  EXPECT_TRUE(control.ModifyFetchmailrc(kUser1, 600));
  EXPECT_EQ(ReadFile(kUser1Rc),
            "poll pop.example.com proto pop3 user \"u\" password \"p\"\nset daemon 600\n");
  FileMeta meta = Meta(kUser1Rc);
  EXPECT_EQ(meta.uid, kUser1);
  EXPECT_EQ(meta.gid, kShared);
  EXPECT_EQ(meta.mode, 0600u);
  EXPECT_NE(InodeOf(kUser1Rc), before);  // replaced, not edited in place
  EXPECT_THAT(ListDir(kUser1Dir), ElementsAre("quillbox_pop3_fetch"));
  EXPECT_THAT(BackendCalls(), IsEmpty());  // no propagation
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3ConfigTest, ModifyReplacesEveryLineThatBeginsWithSetDaemon) {
  Pop3Control control("vt");
  WriteControlFile(
      "set daemon 1\n"
      "  set daemon 2\n"
      "# set daemon 3\n"
      "set daemon\n"
      "set daemonize yes\n"
      "set daemon 300 # comment\n"
      "set  daemon 4\n"
      "Set daemon 5\n"
      "set daemon 6\r\n"
      "poll a\r\n"
      "\n"
      "set daemon 7\n",
      kUser2, kUser2, 0700);
  EXPECT_TRUE(control.ModifyFetchmailrc(kUser1, 42));
  EXPECT_EQ(ReadFile(kUser1Rc),
            "set daemon 42\n"
            "  set daemon 2\n"
            "# set daemon 3\n"
            "set daemon 42\n"
            "set daemon 42\n"
            "set daemon 42\n"
            "set  daemon 4\n"
            "Set daemon 5\n"
            "set daemon 42\n"
            "poll a\r\n"
            "\n"
            "set daemon 42\n");
  FileMeta meta = Meta(kUser1Rc);
  EXPECT_EQ(meta.uid, kUser2);
  EXPECT_EQ(meta.gid, kUser2);
  EXPECT_EQ(meta.mode, 0700u);
}

TEST_F(Pop3ConfigTest, ModifyWithoutSetDaemonLineStillRewritesTheFile) {
  Pop3Control control("vt");
  const std::string text = "poll a proto pop3\n  set daemon 5\n";
  WriteControlFile(text);
  const ino_t before = InodeOf(kUser1Rc);
  EXPECT_TRUE(control.ModifyFetchmailrc(kUser1, 600));
  EXPECT_EQ(ReadFile(kUser1Rc), text);
  EXPECT_NE(InodeOf(kUser1Rc), before);
  // An empty file stays empty.
  WriteControlFile("");
  EXPECT_TRUE(control.ModifyFetchmailrc(kUser1, 600));
  EXPECT_EQ(ReadFile(kUser1Rc), "");
}

TEST_F(Pop3ConfigTest, ModifyKeepsLinesShorterThanSetDaemon) {
  // Lines that are only the start of "set daemon", the last one without its
  // newline, stay as they were.
  Pop3Control control("vt");
  WriteControlFile("set\nset dae\nset daemo");
  EXPECT_TRUE(control.ModifyFetchmailrc(kUser1, 600));
  EXPECT_EQ(ReadFile(kUser1Rc), "set\nset dae\nset daemo\n");
}

TEST_F(Pop3ConfigTest, ModifyEndsALastLineWithoutNewline) {
  Pop3Control control("vt");
  WriteControlFile("poll a\nset daemon 5");
  EXPECT_TRUE(control.ModifyFetchmailrc(kUser1, 600));
  EXPECT_EQ(ReadFile(kUser1Rc), "poll a\nset daemon 600\n");
  WriteControlFile("poll a");
  EXPECT_TRUE(control.ModifyFetchmailrc(kUser1, 600));
  EXPECT_EQ(ReadFile(kUser1Rc), "poll a\n");
}

TEST_F(Pop3ConfigTest, ModifyOfATenMegabyteFileKeepsEveryOtherByte) {
  Pop3Control control("vt");
  std::string text;
  std::string expected;
  std::string binary_line = "poll x";
  binary_line.push_back('\0');
  binary_line += "\x01\xff tail";
  for (int i = 0; text.size() < 10 * 1024 * 1024; ++i) {
    std::string line = "poll host" + std::to_string(i) + " proto pop3 user \"u\" password \"" +
                       std::string(60, static_cast<char>('a' + i % 26)) + "\"";
    if (i % 5000 == 0) {
      text += "set daemon " + std::to_string(i) + "\n";
      expected += "set daemon 900\n";
    }
    if (i % 7777 == 0) line = binary_line;
    text += line + "\n";
    expected += line + "\n";
  }
  text += std::string(200000, 'L');  // one long last line without newline
  expected += std::string(200000, 'L') + "\n";
  WriteControlFile(text);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(control.ModifyFetchmailrc(kUser1, 900));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(ReadFile(kUser1Rc) == expected);
  EXPECT_LT(took, std::chrono::seconds(5));
  EXPECT_THAT(ListDir(kUser1Dir), ElementsAre("quillbox_pop3_fetch"));
}

TEST_F(Pop3ConfigTest, ModifyFindsLinesWhereverTheyFallInTheFile) {
  // A "set daemon" line, and a line that only looks like one further in,
  // placed at every offset around the usual I/O sizes of 4, 8, 16, 32 and
  // 64 KiB.
  Pop3Control control("vt");
  for (size_t boundary : {4096u, 8192u, 16384u, 32768u, 65536u}) {
    for (size_t offset = boundary - 12; offset <= boundary + 2; ++offset) {
      const std::string filler(offset - 1, 'f');
      const std::string text =
          filler + "\nset daemon 5\n" + filler + "\nxset daemon 5\nset daemon 6";
      WriteControlFile(text);
      ASSERT_TRUE(control.ModifyFetchmailrc(kUser1, 77));
      ASSERT_EQ(ReadFile(kUser1Rc),
                filler + "\nset daemon 77\n" + filler + "\nxset daemon 5\nset daemon 77\n")
          << "offset " << offset;
    }
  }
}

TEST_F(Pop3ConfigTest, ModifyWithoutControlFileChangesNothing) {
  Pop3Control control("vt");
  LogCapture capture;
  // Neither the fetch directory nor the file.
  EXPECT_TRUE(control.ModifyFetchmailrc(kUser1, 600));
  EXPECT_FALSE(PathExists("/var/spool/mail/vt/1001"));
  // The directory, but no file.
  ASSERT_TRUE(MakeDir(kUser1Dir));
  EXPECT_TRUE(control.ModifyFetchmailrc(kUser1, 600));
  EXPECT_THAT(ListDir(kUser1Dir), IsEmpty());
  // A link to nothing counts as no file.
  ASSERT_EQ(symlink("/nonexistent", kUser1Rc), 0);
  EXPECT_TRUE(control.ModifyFetchmailrc(kUser1, 600));
  EXPECT_THAT(ListDir(kUser1Dir), ElementsAre("quillbox_pop3_fetch"));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(Pop3ConfigTest, ModifyWhenNoTemporaryFileCanBeMadeLogsAndLeavesTheFile) {
  Pop3Control control("vt");
  ASSERT_TRUE(MakeDir(kUser1Dir));
  LogCapture capture;
  EXPECT_EQ(InChildWithPrivateMounts([&control] {
              if (!MountTmpfsAt(kUser1Dir) ||
                  !WriteOwned(kUser1Rc, "set daemon 1\n", kUser1, kUser1, 0600) ||
                  !RemountReadOnlyAt(kUser1Dir)) {
                return 64;
              }
              if (control.ModifyFetchmailrc(kUser1, 600)) return 1;
              return ReadFile(kUser1Rc) == "set daemon 1\n" ? 0 : 2;
            }),
            0);
  EXPECT_THAT(capture.Records(), ElementsAre(Err("initialize temp file failed")));
}

TEST_F(Pop3ConfigTest, ModifyWhenTheOwnerCannotBeKeptLogsAndLeavesNoTemporaryFile) {
  Pop3Control control("vt");
  // vtuser3 may write the directory but cannot give a file to vtuser1.
  WriteControlFile("set daemon 1\n");
  ASSERT_EQ(chmod(kUser1Dir, 0777), 0);
  LogCapture capture;
  EXPECT_EQ(RunAs("vtuser3", [&control] { return control.ModifyFetchmailrc(kUser1, 600) ? 1 : 0; }),
            0);
  EXPECT_EQ(ReadFile(kUser1Rc), "set daemon 1\n");
  EXPECT_THAT(ListDir(kUser1Dir), ElementsAre("quillbox_pop3_fetch"));
  EXPECT_THAT(capture.Records(), ElementsAre(Err("initialize temp file failed")));
}

TEST_F(Pop3ConfigTest, ModifyWhenTheFileCannotBeReadLogsAndLeavesNoTemporaryFile) {
  Pop3Control control("vt");
  // The owner may write but not read its file.
  WriteControlFile("set daemon 1\n", kUser1, kUser1, 0200);
  LogCapture capture;
  EXPECT_EQ(RunAs("vtuser1", [&control] { return control.ModifyFetchmailrc(kUser1, 600) ? 1 : 0; }),
            0);
  EXPECT_EQ(ReadFile(kUser1Rc), "set daemon 1\n");
  EXPECT_THAT(ListDir(kUser1Dir), ElementsAre("quillbox_pop3_fetch"));
  EXPECT_THAT(capture.Records(), ElementsAre(Err("fail open quillbox pop3 fetch file")));
}

TEST_F(Pop3ConfigTest, ModifyOfAControlFileThatIsADirectoryLogsAndLeavesItAsItWas) {
  Pop3Control control("vt");
  ASSERT_TRUE(MakeDir(kUser1Dir, kUser1, kUser1, 0700));
  ASSERT_TRUE(MakeDir(kUser1Rc, kUser1, kUser1, 0700));
  ASSERT_TRUE(WriteFile(kUser1Rc + std::string("/inside"), "x"));
  LogCapture capture;
  EXPECT_FALSE(control.ModifyFetchmailrc(kUser1, 600));
  EXPECT_TRUE(IsDirectoryPath(kUser1Rc));
  EXPECT_THAT(ListDir(kUser1Rc), ElementsAre("inside"));
  EXPECT_THAT(ListDir(kUser1Dir), ElementsAre("quillbox_pop3_fetch"));
  EXPECT_THAT(capture.Records(), ElementsAre(Err("fail open quillbox pop3 fetch file")));
}

}  // namespace
}  // namespace settings_test
}  // namespace test
}  // namespace velmora
