#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <velmora/config.h>

#include "support/log_capture.h"
#include "support/one_shot_server.h"
#include "support/test_util.h"

namespace velmora {
namespace {

using config::action::Get;
using test::LogCapture;
using test::OneShotServer;

constexpr char kSocket[] = "/var/run/velmora_server/local_query.sock";
constexpr char kTreeDir[] = "/var/packages/Velmora-Server/etc/mailconf.d/";

std::string Proc() { return program_invocation_short_name; }

std::regex Line(const std::string& message) {
  return std::regex("src/lib/config/action:[0-9]+: " + Proc() + ": " + message);
}

std::string Escaped(const std::string& text) {
  return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

class ActionGetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(std::system((std::string("rm -rf ") + kTreeDir + " && mkdir -p " + kTreeDir).c_str()),
              0);
  }

  static void WriteTree(const std::string& file, const std::string& json, mode_t mode = 0644) {
    ASSERT_TRUE(test::WriteFile(kTreeDir + file, json, mode));
  }

  // Expects exactly the given log lines (regexes), in order.
  static void ExpectLines(LogCapture& capture, const std::vector<std::regex>& lines) {
    auto records = capture.Records();
    ASSERT_EQ(records.size(), lines.size());
    for (size_t i = 0; i < lines.size(); ++i) {
      EXPECT_EQ(records[i].priority, 139);
      EXPECT_TRUE(std::regex_match(records[i].text, lines[i])) << records[i].text;
    }
  }

  // The socket client's own line, then the reader's: what a query of a
  // service that is not there leaves in the log.
  static std::vector<std::regex> ServiceDown(const std::string& address) {
    return {std::regex("src/lib/common/socket:[0-9]+: " + Proc() +
                       ": failed to connect No such file or directory"),
            Line("Failed get key " + Escaped(address))};
  }
  static std::vector<std::regex> ServiceDown(const std::string& address, std::regex then) {
    auto lines = ServiceDown(address);
    lines.push_back(std::move(then));
    return lines;
  }
};

TEST_F(ActionGetTest, ServiceAnswerIsTheValue) {
  std::string request;
  OneShotServer service(kSocket, [&](int fd) {
    request = test::ReadUntilQuiet(fd, 300);
    test::WriteAll(fd, " yes \n", 6);
    close(fd);
  });
  ASSERT_TRUE(service.bound());
  WriteTree("smtp", R"({"smtp/smtp_enabled": "from-file"})");
  LogCapture capture;
  std::string value = "preset";
  EXPECT_EQ(Get("smtp_enabled", value), 0);
  EXPECT_EQ(value, " yes \n");  // Unaltered: no trimming.
  EXPECT_EQ(request, "get_value smtp/smtp_enabled");
  ExpectLines(capture, {});
}

TEST_F(ActionGetTest, EmptyServiceAnswerIsAnEmptyValue) {
  OneShotServer service(kSocket, [&](int fd) {
    test::ReadUntilQuiet(fd, 200);
    close(fd);
  });
  ASSERT_TRUE(service.bound());
  std::string value = "preset";
  EXPECT_EQ(Get("smtp_enabled", value), 0);
  EXPECT_EQ(value, "");
}

TEST_F(ActionGetTest, FamilyKeyIsAskedByItsFullAddress) {
  std::string request;
  OneShotServer service(kSocket, [&](int fd) {
    request = test::ReadUntilQuiet(fd, 300);
    test::WriteAll(fd, "KEY", 3);
    close(fd);
  });
  ASSERT_TRUE(service.bound());
  std::string value;
  EXPECT_EQ(Get("dkim_public_key-example.com", value), 0);
  EXPECT_EQ(value, "KEY");
  EXPECT_EQ(request, "get_value multi_domain_dkim_key/dkim_public_key-example.com");
}

TEST_F(ActionGetTest, HugeBinaryAnswerArrivesWhole) {
  std::string answer(1 << 20, '\0');
  for (size_t i = 0; i < answer.size(); ++i) answer[i] = static_cast<char>(i * 131 % 256);
  OneShotServer service(kSocket, [&](int fd) {
    test::ReadUntilQuiet(fd, 200);
    test::WriteAll(fd, answer, 65536);
    close(fd);
  });
  ASSERT_TRUE(service.bound());
  std::string value;
  EXPECT_EQ(Get("smtp_enabled", value), 0);
  EXPECT_TRUE(value == answer);
}

TEST_F(ActionGetTest, ServiceDownAndNoTreeFileLeavesValue) {
  LogCapture capture;
  std::string value = "preset";
  EXPECT_EQ(Get("smtp_enabled", value), 0);
  EXPECT_EQ(value, "preset");
  ExpectLines(capture, ServiceDown("smtp/smtp_enabled"));
}

TEST_F(ActionGetTest, ServiceDownReadsStringMember) {
  WriteTree("smtp", R"({"smtp/smtp_enabled": "yes", "smtp/smtp_port": "25"})");
  LogCapture capture;
  std::string value;
  EXPECT_EQ(Get("smtp_enabled", value), 0);
  EXPECT_EQ(value, "yes");
  ExpectLines(capture, ServiceDown("smtp/smtp_enabled"));
}

TEST_F(ActionGetTest, FullAddressReadsTheSameMember) {
  WriteTree("smtp", R"({"smtp/smtp_enabled": "yes"})");
  LogCapture capture;
  std::string value;
  EXPECT_EQ(Get("smtp/smtp_enabled", value), 0);
  EXPECT_EQ(value, "yes");
  ExpectLines(capture, ServiceDown("smtp/smtp_enabled"));
}

TEST_F(ActionGetTest, MissingMemberGivesEmptyValue) {
  WriteTree("smtp", R"({"smtp/other": "x"})");
  std::string value = "preset";
  EXPECT_EQ(Get("smtp_enabled", value), 0);
  EXPECT_EQ(value, "");
}

TEST_F(ActionGetTest, MemberOfAnotherTypeGivesEmptyValue) {
  for (const char* json :
       {R"({"smtp/smtp_enabled": 1})", R"({"smtp/smtp_enabled": true})",
        R"({"smtp/smtp_enabled": {"a": "b"}})", R"({"smtp/smtp_enabled": ["yes"]})",
        R"({"smtp/smtp_enabled": null})", R"(["smtp/smtp_enabled"])", R"("smtp/smtp_enabled")"}) {
    WriteTree("smtp", json);
    LogCapture capture;
    std::string value = "preset";
    EXPECT_EQ(Get("smtp_enabled", value), 0) << json;
    EXPECT_EQ(value, "") << json;
    ExpectLines(capture, ServiceDown("smtp/smtp_enabled"));
  }
}

TEST_F(ActionGetTest, InvalidJsonFailsWithParseLine) {
  WriteTree("smtp", R"({"smtp/smtp_enabled": "yes")");
  LogCapture capture;
  std::string value = "preset";
  EXPECT_EQ(Get("smtp_enabled", value), 1);
  EXPECT_EQ(value, "preset");
  ExpectLines(capture, ServiceDown("smtp/smtp_enabled", Line("Failed to parse Json value of " +
                                                             Escaped(kTreeDir) + "smtp")));
}

TEST_F(ActionGetTest, CommentsAreAccepted) {
  WriteTree("smtp", "// written by hand\n{\"smtp/smtp_enabled\": \"yes\" /* on */}\n");
  std::string value;
  EXPECT_EQ(Get("smtp_enabled", value), 0);
  EXPECT_EQ(value, "yes");
}

TEST_F(ActionGetTest, CommentsOfBothKindsAnywhereAreAccepted) {
  for (const char* json : {
           "// written by hand\n{\"smtp/smtp_enabled\": \"yes\"}",
           "/* block */ {\"smtp/smtp_enabled\": \"yes\"}",
           "{\"smtp/other\": 1, // line\n \"smtp/smtp_enabled\": /* inline */ \"yes\"}",
           "{\"smtp/smtp_enabled\": \"yes\" /* before the brace */}\n// after the document\n",
           "{\"smtp/smtp_enabled\": \"yes\", \"smtp/list\": [1 /* one */, 2 // two\n]}",
           "/* a\n   block over lines */\n{\"smtp/smtp_enabled\": \"yes\"} /* unclosed at the end",
       }) {
    WriteTree("smtp", json);
    LogCapture capture;
    std::string value = "preset";
    EXPECT_EQ(Get("smtp_enabled", value), 0) << json;
    EXPECT_EQ(value, "yes") << json;
    ExpectLines(capture, ServiceDown("smtp/smtp_enabled"));
  }
}

TEST_F(ActionGetTest, AnyValueMayBeTheRootAndGivesAnEmptyValue) {
  for (const char* json : {R"("yes")", R"(["smtp/smtp_enabled", "yes"])", "42", "-3.5e2", "true",
                           "null", "[]", "{}", "// comment\n\"yes\""}) {
    WriteTree("smtp", json);
    LogCapture capture;
    std::string value = "preset";
    EXPECT_EQ(Get("smtp_enabled", value), 0) << json;
    EXPECT_EQ(value, "") << json;
    ExpectLines(capture, ServiceDown("smtp/smtp_enabled"));
  }
}

TEST_F(ActionGetTest, TrailingCommaFailsWithParseLine) {
  for (const char* json : {
           R"({"smtp/smtp_enabled": "yes",})",
           R"({"smtp/smtp_enabled": "yes", "smtp/list": [1, 2,]})",
           R"({"smtp/smtp_enabled": "yes", "smtp/other": {"a": 1,}})",
           "{\"smtp/smtp_enabled\": \"yes\" /* comment */, }",
           R"(["yes",])",
           R"([,])",
       }) {
    WriteTree("smtp", json);
    LogCapture capture;
    std::string value = "preset";
    EXPECT_EQ(Get("smtp_enabled", value), 1) << json;
    EXPECT_EQ(value, "preset") << json;
    ExpectLines(capture, ServiceDown("smtp/smtp_enabled", Line("Failed to parse Json value of " +
                                                               Escaped(kTreeDir) + "smtp")));
  }
}

TEST_F(ActionGetTest, ByteOrderMarkFailsWithParseLine) {
  WriteTree("smtp", "\xEF\xBB\xBF{\"smtp/smtp_enabled\": \"yes\"}");
  LogCapture capture;
  std::string value = "preset";
  EXPECT_EQ(Get("smtp_enabled", value), 1);
  EXPECT_EQ(value, "preset");
  ExpectLines(capture, ServiceDown("smtp/smtp_enabled", Line("Failed to parse Json value of " +
                                                             Escaped(kTreeDir) + "smtp")));
  // The same document without the mark is read.
  WriteTree("smtp", "{\"smtp/smtp_enabled\": \"yes\"}");
  EXPECT_EQ(Get("smtp_enabled", value), 0);
  EXPECT_EQ(value, "yes");
}

TEST_F(ActionGetTest, OtherTextsOutsideTheGrammarFailWithParseLine) {
  for (const char* json : {"", "  \n", "// only a comment\n", R"({"smtp/smtp_enabled": +1})",
                           R"({'smtp/smtp_enabled': 'yes'})", R"({"smtp/smtp_enabled": NaN})",
                           R"({"smtp/smtp_enabled": "yes" "smtp/other": "no"})"}) {
    WriteTree("smtp", json);
    LogCapture capture;
    std::string value = "preset";
    EXPECT_EQ(Get("smtp_enabled", value), 1) << json;
    EXPECT_EQ(value, "preset") << json;
    ExpectLines(capture, ServiceDown("smtp/smtp_enabled", Line("Failed to parse Json value of " +
                                                               Escaped(kTreeDir) + "smtp")));
  }
}

TEST_F(ActionGetTest, UnreadableFileFailsWithOpenLine) {
  WriteTree("smtp", R"({"smtp/smtp_enabled": "yes"})", 0600);
  ASSERT_EQ(chmod(kTreeDir, 0755), 0);
  LogCapture capture;
  // Root reads every file: drop to a test user for the denied open.
  int rc = test::RunAs("vtuser1", [] {
    std::string value = "preset";
    if (Get("smtp_enabled", value) != 1) return 1;
    return value == "preset" ? 0 : 2;
  });
  EXPECT_EQ(rc, 0);
  ExpectLines(capture, ServiceDown("smtp/smtp_enabled",
                                   Line("Failed to open json file " + Escaped(kTreeDir) +
                                        "smtp, error \\[Permission denied\\]")));
}

TEST_F(ActionGetTest, DirectoryInPlaceOfTreeFileFailsWithParseLine) {
  ASSERT_EQ(mkdir((std::string(kTreeDir) + "smtp").c_str(), 0755), 0);
  LogCapture capture;
  std::string value = "preset";
  EXPECT_EQ(Get("smtp_enabled", value), 1);
  EXPECT_EQ(value, "preset");
  ExpectLines(capture, ServiceDown("smtp/smtp_enabled", Line("Failed to parse Json value of " +
                                                             Escaped(kTreeDir) + "smtp")));
}

TEST_F(ActionGetTest, FamilyKeyReadsFamilyTreeFile) {
  WriteTree("multi_domain_dkim_key",
            R"({"multi_domain_dkim_key/dkim_public_key-example.com": "PUB",
                "multi_domain_dkim_key/dkim_public_key-": "family"})");
  LogCapture capture;
  std::string value;
  EXPECT_EQ(Get("dkim_public_key-example.com", value), 0);
  EXPECT_EQ(value, "PUB");
  ExpectLines(capture, ServiceDown("multi_domain_dkim_key/dkim_public_key-example.com"));
}

TEST_F(ActionGetTest, UnknownNamesMapToFilesWithUnderscores) {
  WriteTree("my_conf_x", R"({"my.conf-x": "dots-and-dashes"})");
  WriteTree("other_tree", R"({"other.tree/some-key": "slash"})");
  std::string value;
  EXPECT_EQ(Get("my.conf-x", value), 0);
  EXPECT_EQ(value, "dots-and-dashes");
  // Before the first "/" is the tree; the member is the whole name.
  EXPECT_EQ(Get("other.tree/some-key", value), 0);
  EXPECT_EQ(value, "slash");
}

TEST_F(ActionGetTest, UnknownNameWithoutFileLeavesValue) {
  LogCapture capture;
  std::string value = "preset";
  EXPECT_EQ(Get("no.such-name/at-all", value), 0);
  EXPECT_EQ(value, "preset");
  ExpectLines(capture, ServiceDown("no.such-name/at-all"));
}

TEST_F(ActionGetTest, DeeplyNestedJsonFailsWithParseLine) {
  std::string json = "{\"smtp/smtp_enabled\": ";
  json += std::string(10000, '[') + std::string(10000, ']') + "}";
  WriteTree("smtp", json);
  LogCapture capture;
  std::string value = "preset";
  EXPECT_EQ(Get("smtp_enabled", value), 1);
  EXPECT_EQ(value, "preset");
  ExpectLines(capture, ServiceDown("smtp/smtp_enabled", Line("Failed to parse Json value of " +
                                                             Escaped(kTreeDir) + "smtp")));
}

// The root object holding `yes` and arrays nested `depth` levels in all,
// the root counted.
std::string NestedTree(int depth) {
  return "{\"smtp/smtp_enabled\": \"yes\", \"smtp/deep\": " + std::string(depth - 1, '[') +
         std::string(depth - 1, ']') + "}";
}

TEST_F(ActionGetTest, NestingUpToTheReadersLimitIsRead) {
  for (int depth : {2, 50, 500, 1000}) {
    WriteTree("smtp", NestedTree(depth));
    LogCapture capture;
    std::string value = "preset";
    EXPECT_EQ(Get("smtp_enabled", value), 0) << depth;
    EXPECT_EQ(value, "yes") << depth;
    ExpectLines(capture, ServiceDown("smtp/smtp_enabled"));
  }
}

TEST_F(ActionGetTest, NestingPastTheReadersLimitFailsWithParseLine) {
  for (int depth : {1001, 1002, 2000}) {
    WriteTree("smtp", NestedTree(depth));
    LogCapture capture;
    std::string value = "preset";
    EXPECT_EQ(Get("smtp_enabled", value), 1) << depth;
    EXPECT_EQ(value, "preset") << depth;
    ExpectLines(capture, ServiceDown("smtp/smtp_enabled", Line("Failed to parse Json value of " +
                                                               Escaped(kTreeDir) + "smtp")));
  }
  // Objects count as arrays do.
  std::string objects = "{\"smtp/smtp_enabled\": \"yes\", \"smtp/deep\": ";
  for (int i = 0; i < 1000; ++i) objects += "{\"k\": ";
  objects += "1" + std::string(1001, '}');
  WriteTree("smtp", objects);
  std::string value = "preset";
  EXPECT_EQ(Get("smtp_enabled", value), 1);
  EXPECT_EQ(value, "preset");
}

TEST_F(ActionGetTest, FiftyMegabyteTreeFileIsRead) {
  std::string big(50 << 20, 'v');
  WriteTree("smtp", "{\"smtp/padding\": \"" + big + "\", \"smtp/smtp_enabled\": \"yes\"}");
  std::string value;
  EXPECT_EQ(Get("smtp_enabled", value), 0);
  EXPECT_EQ(value, "yes");
  EXPECT_EQ(Get("smtp/padding", value), 0);
  EXPECT_EQ(value.size(), big.size());
}

TEST_F(ActionGetTest, NamesWithNulBytesOrMegabyteOfTextDoNotBreak) {
  const std::string nul_name("smtp_enabled\0x", 14);
  WriteTree("smtp", R"({"smtp/smtp_enabled": "yes"})");
  std::string value = "preset";
  // Not a routed key (no row holds a NUL): its own name is its tree, and no
  // file of that name exists.
  EXPECT_EQ(Get(nul_name, value), 0);
  EXPECT_EQ(value, "preset");

  const std::string huge(1 << 20, 'k');
  value = "preset";
  EXPECT_EQ(Get(huge, value), 0);  // Unknown tree, no such file.
  EXPECT_EQ(value, "preset");
}

TEST_F(ActionGetTest, NulByteNameIsSentWholeToTheService) {
  std::string request;
  OneShotServer service(kSocket, [&](int fd) {
    request = test::ReadUntilQuiet(fd, 300);
    test::WriteAll(fd, "v", 1);
    close(fd);
  });
  ASSERT_TRUE(service.bound());
  std::string value;
  EXPECT_EQ(Get(std::string("smtp_enabled\0x", 14), value), 0);
  // Unknown to the routing table, so sent as it stands, NUL byte included.
  EXPECT_EQ(request, std::string("get_value smtp_enabled\0x", 24));
}

}  // namespace
}  // namespace velmora
