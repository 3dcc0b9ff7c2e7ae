// Tests of the user identity conversion: uid to name and name to uid through
// the user database, the failure results and their log lines, and the
// longest name that the conversion can return.
#include <string>
#include <vector>

#include <velmora/user.h>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/settings_test_util.h"

namespace velmora {
namespace test {
namespace settings_test {
namespace {

auto UserErr(const std::string& message) { return LogAt(kErr, kUserModule, message); }

class UidConvertTest : public testing::Test {
 protected:
  // Passwd lines of two extra users whose names are 491 and 492 bytes long.
  static std::string LongName(size_t size) { return std::string(size, 'n'); }
  static std::string LongNamesPasswd() {
    return LongName(491) + ":x:62491:62491::/nonexistent:/bin/sh\n" + LongName(492) +
           ":x:62492:62492::/nonexistent:/bin/sh\n" +
           "allbits:x:4294967295:4294967295::/nonexistent:/bin/sh\n";
  }
};

TEST_F(UidConvertTest, KnownUidGivesItsName) {
  LogCapture capture;
  EXPECT_EQ(user::ConvertToUsername(kUser1), "vtuser1");
  EXPECT_EQ(user::ConvertToUsername(kAccount), "Velmora-Server");
  EXPECT_EQ(user::ConvertToUsername(0), "root");
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(UidConvertTest, KnownNameGivesItsUid) {
  LogCapture capture;
  EXPECT_EQ(user::ConvertFromUsername("vtuser2"), kUser2);
  EXPECT_EQ(user::ConvertFromUsername("Velmora-Server"), kAccount);
  EXPECT_EQ(user::ConvertFromUsername("root"), 0u);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(UidConvertTest, UnknownUidGivesEmptyNameAndOneLine) {
  LogCapture capture;
  EXPECT_EQ(user::ConvertToUsername(4000000), "");
  EXPECT_THAT(capture.Records(), ElementsAre(UserErr("Get user name by uid fail: 4000000")));
}

TEST_F(UidConvertTest, UnknownUidIsPrintedUnsigned) {
  LogCapture capture;
  EXPECT_EQ(user::ConvertToUsername(0xFFFFFFFFu), "");
  EXPECT_THAT(capture.Records(), ElementsAre(UserErr("Get user name by uid fail: 4294967295")));
}

TEST_F(UidConvertTest, UnknownNameGivesAllBitsSetAndOneLine) {
  LogCapture capture;
  EXPECT_EQ(user::ConvertFromUsername("nosuchuser"), 0xFFFFFFFFu);
  EXPECT_EQ(user::ConvertFromUsername(""), 0xFFFFFFFFu);
  EXPECT_THAT(capture.Records(), ElementsAre(UserErr("Get username fail: nosuchuser"),
                                             UserErr("Get username fail: ")));
}

TEST_F(UidConvertTest, NameOf491BytesIsTheLongestThatConverts) {
  LogCapture capture;
  // Each check is one bit of the child's exit status.
  int failed = InChildWithPrivateMounts([] {
    if (!ReplacePasswd("", LongNamesPasswd())) return 64;
    int bits = 0;
    if (user::ConvertToUsername(62491) != LongName(491)) bits |= 1;
    if (user::ConvertFromUsername(LongName(491)) != 62491u) bits |= 2;
    // The name is found, but its canonical form does not fit the buffer.
    if (user::ConvertToUsername(62492) != "") bits |= 4;
    if (user::ConvertFromUsername(LongName(492)) != 62492u) bits |= 8;
    return bits;
  });
  EXPECT_EQ(failed, 0);
  EXPECT_THAT(capture.Records(), ElementsAre(UserErr("Get user real name fail")));
}

TEST_F(UidConvertTest, UserWithAllBitsSetUidLooksLikeAFailureButLogsNothing) {
  LogCapture capture;
  int failed = InChildWithPrivateMounts([] {
    if (!ReplacePasswd("", LongNamesPasswd())) return 64;
    return user::ConvertFromUsername("allbits") == 0xFFFFFFFFu ? 0 : 1;
  });
  EXPECT_EQ(failed, 0);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

// A passwd entry larger than the lookup's first buffer (the size the C
// library suggests, 1 KiB here) is found with a larger one.
TEST_F(UidConvertTest, UserWhosePasswdEntryOutgrowsTheFirstBufferConverts) {
  LogCapture capture;
  int failed = InChildWithPrivateMounts([] {
    const std::string entry =
        "biggecos:x:62600:62600:" + std::string(5000, 'g') + ":/nonexistent:/bin/sh\n";
    if (!ReplacePasswd("", entry)) return 64;
    int bits = 0;
    if (user::ConvertToUsername(62600) != "biggecos") bits |= 1;
    if (user::ConvertFromUsername("biggecos") != 62600u) bits |= 2;
    return bits;
  });
  EXPECT_EQ(failed, 0);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

}  // namespace
}  // namespace settings_test
}  // namespace test
}  // namespace velmora
