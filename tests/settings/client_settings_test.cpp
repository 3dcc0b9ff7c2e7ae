// Tests of the web client's feature switches: reading with defaults, the
// exact "yes"/"no" rules, writing (directory and file creation, unknown keys
// kept, propagation), every failure of a write, and the logo version.
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include <velmora/file.h>
#include <velmora/settings.h>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/settings_test_util.h"

// Allocation failure on demand: when the countdown is armed (>= 0), the
// allocation that finds it at 0 throws std::bad_alloc, once. Used only in
// forked children.
namespace {
std::atomic<long> g_fail_allocation_in{-1};
}  // namespace

void* operator new(std::size_t size) {
  long left = g_fail_allocation_in.load(std::memory_order_relaxed);
  if (left >= 0) {
    g_fail_allocation_in.store(left - 1, std::memory_order_relaxed);
    if (left == 0) throw std::bad_alloc();
  }
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return operator new(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return operator new(size, tag);
}
// These replacements pair with the malloc above; GCC's optimizer sees free()
// meet a pointer that came out of "operator new" and warns all the same.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace velmora {
namespace test {
namespace settings_test {
namespace {

constexpr char kAllKeysDefaultText[] =
    "disable_pgp=no\ndisable_shared_mailbox=no\ndisable_smtp_sender_name=no\n"
    "enable_sharing_link=no\nis_custom_logo=no\nenable_chat=yes\nenable_calendar=yes\n"
    "enable_externalsource=yes\n";

// The record as a string of 0/1 in record order, for readable failures.
std::string Bits(const VelmoraConfig& c) {
  std::string s;
  for (bool b :
       {c.disable_pgp, c.disable_smtp_sender_name, c.enable_sharing_link, c.is_custom_logo,
        c.enable_chat, c.enable_calendar, c.enable_externalsource, c.disable_shared_mailbox}) {
    s.push_back(b ? '1' : '0');
  }
  return s;
}

class ClientSettingsTest : public testing::Test {
 protected:
  void SetUp() override {
    ResetSystemTree();
    ASSERT_TRUE(InstallBackendStandIn());
  }
  void TearDown() override {
    g_fail_allocation_in = -1;
    EXPECT_TRUE(NoChildLeft());
  }

  static void WriteSettings(const std::string& text) {
    ASSERT_TRUE(MakeDir(kSettingsDir));
    ASSERT_TRUE(WriteFile(kClientConf, text, 0644));
  }
};

TEST_F(ClientSettingsTest, MissingFileGivesDefaults) {
  LogCapture capture;
  EXPECT_EQ(Bits(settings::GetVelmoraConfig()), "00001110");
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(ClientSettingsTest, AbsentKeysOfExistingFileReadLikeDefaults) {
  WriteSettings("");
  EXPECT_EQ(Bits(settings::GetVelmoraConfig()), "00001110");
  WriteSettings("unrelated=1\n");
  EXPECT_EQ(Bits(settings::GetVelmoraConfig()), "00001110");
}

TEST_F(ClientSettingsTest, OnlyChatSetToNoTurnsOnlyChatOff) {
  WriteSettings("enable_chat=no\n");
  LogCapture capture;
  VelmoraConfig c = settings::GetVelmoraConfig();
  EXPECT_FALSE(c.enable_chat);
  EXPECT_TRUE(c.enable_calendar);
  EXPECT_TRUE(c.enable_externalsource);
  EXPECT_EQ(Bits(c), "00000110");
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(ClientSettingsTest, EveryKeyIsReadIntoItsOwnField) {
  WriteSettings("disable_pgp=yes\n");
  EXPECT_EQ(Bits(settings::GetVelmoraConfig()), "10001110");
  WriteSettings("disable_smtp_sender_name=yes\n");
  EXPECT_EQ(Bits(settings::GetVelmoraConfig()), "01001110");
  WriteSettings("enable_sharing_link=yes\n");
  EXPECT_EQ(Bits(settings::GetVelmoraConfig()), "00101110");
  WriteSettings("is_custom_logo=yes\n");
  EXPECT_EQ(Bits(settings::GetVelmoraConfig()), "00011110");
  WriteSettings("enable_calendar=no\n");
  EXPECT_EQ(Bits(settings::GetVelmoraConfig()), "00001010");
  WriteSettings("enable_externalsource=no\n");
  EXPECT_EQ(Bits(settings::GetVelmoraConfig()), "00001100");
  WriteSettings("disable_shared_mailbox=yes\n");
  EXPECT_EQ(Bits(settings::GetVelmoraConfig()), "00001111");
}

TEST_F(ClientSettingsTest, OnlyExactLowercaseYesAndNoCount) {
  WriteSettings(
      "disable_pgp=Yes\ndisable_shared_mailbox=true\ndisable_smtp_sender_name=YES\n"
      "enable_sharing_link=1\nis_custom_logo= yes\nenable_chat=No\nenable_calendar=false\n"
      "enable_externalsource=0\n");
  EXPECT_EQ(Bits(settings::GetVelmoraConfig()), "00001110");
  // The platform reader drops one pair of double quotes around a value.
  WriteSettings("disable_pgp=\"yes\"\nenable_chat=\"no\"\n");
  EXPECT_EQ(Bits(settings::GetVelmoraConfig()), "10000110");
}

TEST_F(ClientSettingsTest, UnreadableFileGivesDefaultsWithoutLog) {
  ASSERT_TRUE(MakeDir(std::string(kClientConf)));  // a directory cannot be read as a file
  LogCapture capture;
  EXPECT_EQ(Bits(settings::GetVelmoraConfig()), "00001110");
  EXPECT_THAT(capture.Records(), IsEmpty());

  ASSERT_EQ(rmdir(kClientConf), 0);
  WriteSettings("disable_pgp=yes\nenable_chat=no\n");
  ASSERT_EQ(chmod(kClientConf, 0600), 0);
  EXPECT_EQ(
      RunAs("vtuser1", [] { return Bits(settings::GetVelmoraConfig()) == "00001110" ? 0 : 1; }), 0);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(ClientSettingsTest, SetCreatesDirectoryAndFileAndPropagatesOnce) {
  VelmoraConfig c{};
  c.disable_pgp = true;
  c.enable_calendar = true;
  c.disable_shared_mailbox = true;
  LogCapture capture;
  EXPECT_TRUE(settings::SetVelmoraConfig(c));
  EXPECT_EQ(ReadFile(kClientConf),
            "disable_pgp=yes\ndisable_shared_mailbox=yes\ndisable_smtp_sender_name=no\n"
            "enable_sharing_link=no\nis_custom_logo=no\nenable_chat=no\nenable_calendar=yes\n"
            "enable_externalsource=no\n");
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kClientConf)));
  EXPECT_THAT(ListDir(kSettingsDir), ElementsAre("quillbox.conf"));
  EXPECT_EQ(Bits(settings::GetVelmoraConfig()), Bits(c));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(ClientSettingsTest, SetKeepsOtherKeysAndTheFilesOwnerAndMode) {
  WriteSettings("theme=dark\nenable_chat=yes\n# note\nlanguage=\"de\"\n");
  ASSERT_EQ(chown(kClientConf, kAccount, kAccount), 0);
  ASSERT_EQ(chmod(kClientConf, 0640), 0);
  LogCapture capture;
  VelmoraConfig c = Defaults();
  c.enable_chat = false;
  c.is_custom_logo = true;
  EXPECT_TRUE(settings::SetVelmoraConfig(c));
  // Known keys keep their place, new ones follow in a fixed order; the
  // platform writer drops comments and the quotes around values.
  EXPECT_EQ(ReadFile(kClientConf),
            "theme=dark\nenable_chat=no\nlanguage=de\ndisable_pgp=no\n"
            "disable_shared_mailbox=no\ndisable_smtp_sender_name=no\nenable_sharing_link=no\n"
            "is_custom_logo=yes\nenable_calendar=yes\nenable_externalsource=yes\n");
  FileMeta meta = Meta(kClientConf);
  EXPECT_EQ(meta.uid, kAccount);
  EXPECT_EQ(meta.gid, kAccount);
  EXPECT_EQ(meta.mode, 0640u);
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kClientConf)));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(ClientSettingsTest, SetThenGetRoundTripsEveryField) {
  for (int mask = 0; mask < 256; mask += 37) {
    VelmoraConfig c{};
    bool* fields[] = {&c.disable_pgp,           &c.disable_smtp_sender_name,
                      &c.enable_sharing_link,   &c.is_custom_logo,
                      &c.enable_chat,           &c.enable_calendar,
                      &c.enable_externalsource, &c.disable_shared_mailbox};
    for (int i = 0; i < 8; ++i) *fields[i] = (mask >> i) & 1;
    ASSERT_TRUE(settings::SetVelmoraConfig(c));
    EXPECT_EQ(Bits(settings::GetVelmoraConfig()), Bits(c)) << mask;
  }
}

TEST_F(ClientSettingsTest, SetWithDirectoryThatCannotBeMadeLogsAndFails) {
  LogCapture capture;
  int rc = InChildWithPrivateMounts([] {
    // A read-only /var/packages that holds only the tool.
    if (!MountTmpfsAt(kPackages) || !InstallBackendStandIn() || !RemountReadOnlyAt(kPackages)) {
      return 64;
    }
    return settings::SetVelmoraConfig(Defaults()) ? 1 : 0;
  });
  EXPECT_EQ(rc, 0);
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogAt(kErr, kFilesystemModule,
                                "MkDir failed: /var/packages/Velmora-Server/etc/velmora/ "
                                "Read-only file system"),
                          Err("Create path(/var/packages/Velmora-Server/etc/velmora/) fail")));
  EXPECT_THAT(BackendCalls(), IsEmpty());
}

TEST_F(ClientSettingsTest, SetWhenFileCannotBeReadFailsWithoutLog) {
  ASSERT_TRUE(MakeDir(std::string(kClientConf)));
  LogCapture capture;
  EXPECT_FALSE(settings::SetVelmoraConfig(Defaults()));
  EXPECT_THAT(capture.Records(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_THAT(ListDir(kSettingsDir), ElementsAre("quillbox.conf"));

  // The same for a caller that may not read the file.
  ASSERT_EQ(rmdir(kClientConf), 0);
  WriteSettings("enable_chat=no\n");
  ASSERT_EQ(chmod(kClientConf, 0600), 0);
  ASSERT_EQ(chmod(kSettingsDir, 0777), 0);
  EXPECT_EQ(RunAs("vtuser1", [] { return settings::SetVelmoraConfig(Defaults()) ? 1 : 0; }), 0);
  EXPECT_EQ(ReadFile(kClientConf), "enable_chat=no\n");
  EXPECT_THAT(capture.Records(), IsEmpty());
  EXPECT_THAT(BackendCalls(), IsEmpty());
}

TEST_F(ClientSettingsTest, SetWhenUpdateFailsLogsAndLeavesFileUnchanged) {
  // Fails the n-th allocation of one call, for every n until a call goes
  // through untouched. Some n hit a key update and must give exactly the
  // update message; every n must leave the file either as it was or
  // completely written, with no temporary file beside it.
  const std::string before = "theme=dark\n";
  int update_failures = 0;
  for (long n = 0; n < 2000; ++n) {
    WriteSettings(before);
    WriteFile(kBackendCalls, "", 0666);
    LogCapture capture;
    // 0: failed with false, 1: succeeded, 2: threw std::bad_alloc; 3: the
    // call made fewer than n + 1 allocations and succeeded.
    int rc = InChild([n] {
      g_fail_allocation_in = n;
      try {
        bool ok = settings::SetVelmoraConfig(Defaults());
        const bool fired = g_fail_allocation_in < 0;
        g_fail_allocation_in = -1;
        if (!fired) return ok ? 3 : 4;
        return ok ? 1 : 0;
      } catch (const std::bad_alloc&) {
        g_fail_allocation_in = -1;
        return 2;
      }
    });
    ASSERT_TRUE(rc >= 0 && rc <= 3) << "allocation " << n << " ended the child: " << rc;
    auto records = capture.Records();
    const std::string after = ReadFile(kClientConf);
    EXPECT_THAT(ListDir(kSettingsDir), ElementsAre("quillbox.conf")) << n;
    if (rc == 1 || rc == 3) {
      EXPECT_EQ(after, before + kAllKeysDefaultText) << n;
      EXPECT_THAT(records, IsEmpty()) << n;
      if (rc == 3) break;  // no allocation was left to fail
      continue;
    }
    EXPECT_TRUE(after == before || after == before + kAllKeysDefaultText) << n << ": " << after;
    if (rc == 0 && records.size() == 1 &&
        IsModuleLine(records[0].text, kSettingsModule, "Update key value fail")) {
      EXPECT_EQ(records[0].priority, kErr);
      EXPECT_EQ(after, before);
      EXPECT_THAT(BackendCalls(), IsEmpty());
      ++update_failures;
    }
  }
  EXPECT_GE(update_failures, 1);
}

TEST_F(ClientSettingsTest, SetWhenWriteFailsLogsOnlyTheKeyValueFileLine) {
  LogCapture capture;
  int rc = InChildWithPrivateMounts([] {
    if (!MountTmpfsAt(kSettingsDir) || !WriteFile(kClientConf, "enable_chat=no\n") ||
        !RemountReadOnlyAt(kSettingsDir)) {
      return 64;
    }
    if (settings::SetVelmoraConfig(Defaults())) return 1;
    return ReadFile(kClientConf) == "enable_chat=no\n" ? 0 : 2;
  });
  EXPECT_EQ(rc, 0);
  EXPECT_THAT(capture.Records(),
              ElementsAre(LogAt(kErr, kKeyValueModule, "initialize temp file failed")));
  EXPECT_THAT(BackendCalls(), IsEmpty());
}

TEST_F(ClientSettingsTest, SetWhenPropagationFailsReturnsFalseWithFileWritten) {
  ASSERT_TRUE(WriteFile(kBackendFailFlag, ""));  // killed by SIGKILL
  LogCapture capture;
  EXPECT_FALSE(settings::SetVelmoraConfig(Defaults()));
  EXPECT_EQ(ReadFile(kClientConf), kAllKeysDefaultText);
  EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kClientConf)));
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(ClientSettingsTest, SetWhenPropagationCannotRunReturnsFalseWithFileWritten) {
  ASSERT_EQ(chmod(kBackend, 0644), 0);
  LogCapture capture;
  EXPECT_FALSE(settings::SetVelmoraConfig(Defaults()));
  EXPECT_EQ(ReadFile(kClientConf), kAllKeysDefaultText);
  ASSERT_EQ(unlink(kBackend), 0);
  EXPECT_FALSE(settings::SetVelmoraConfig(Defaults()));
  EXPECT_EQ(ReadFile(kClientConf), kAllKeysDefaultText);
  EXPECT_THAT(BackendCalls(), IsEmpty());
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(ClientSettingsTest, SetCountsAnyExitStatusOfThePropagationAsDone) {
  for (int status : {1, 6, 255}) {
    SCOPED_TRACE(status);
    ASSERT_TRUE(WriteFile(kBackendCalls, "", 0666));
    ASSERT_TRUE(SetStandInExitStatus(kBackendStatusFile, status));
    VelmoraConfig config = Defaults();
    config.disable_pgp = status == 6;
    LogCapture capture;
    EXPECT_TRUE(settings::SetVelmoraConfig(config));
    EXPECT_EQ(settings::GetVelmoraConfig().disable_pgp, status == 6);
    EXPECT_THAT(BackendCalls(), ElementsAre(SyncCall(kClientConf)));
    EXPECT_THAT(capture.Records(), IsEmpty());
  }
}

TEST_F(ClientSettingsTest, MissingLogoGivesVersionZero) {
  LogCapture capture;
  EXPECT_EQ(settings::GetCustomLogoVersion(), 0);
  ASSERT_TRUE(MakeDir(kSettingsDir));
  EXPECT_EQ(settings::GetCustomLogoVersion(), 0);
  ASSERT_EQ(symlink("/nonexistent.png", kLogo), 0);  // a dangling link cannot be examined
  EXPECT_EQ(settings::GetCustomLogoVersion(), 0);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(ClientSettingsTest, LogoVersionIsTheImagesModificationTime) {
  ASSERT_TRUE(MakeDir(kSettingsDir));
  ASSERT_TRUE(WriteFile(kLogo, "png-1"));
  timeval times[2] = {{1700000000, 0}, {1700000123, 999999}};
  ASSERT_EQ(utimes(kLogo, times), 0);
  EXPECT_EQ(settings::GetCustomLogoVersion(), 1700000123L);

  // Replacing the image changes the version.
  const std::string next = std::string(kSettingsDir) + "next.png";
  ASSERT_TRUE(WriteFile(next, "png-2"));
  timeval later[2] = {{1800000000, 0}, {1800000456, 0}};
  ASSERT_EQ(utimes(next.c_str(), later), 0);
  ASSERT_EQ(rename(next.c_str(), kLogo), 0);
  EXPECT_EQ(settings::GetCustomLogoVersion(), 1800000456L);

  // A link is followed to the image.
  const std::string image = std::string(kSettingsDir) + "real.png";
  ASSERT_TRUE(WriteFile(image, "png-3"));
  timeval linked[2] = {{1600000000, 0}, {1600000789, 0}};
  ASSERT_EQ(utimes(image.c_str(), linked), 0);
  ASSERT_EQ(unlink(kLogo), 0);
  ASSERT_EQ(symlink(image.c_str(), kLogo), 0);
  EXPECT_EQ(settings::GetCustomLogoVersion(), 1600000789L);
}

// A key-value file written as its object goes: an allocation failure inside
// that write ends in the destructor (nothing escapes it), and the file is
// either as it was or completely rewritten, with no temporary file beside it.
TEST_F(ClientSettingsTest, KeyValueFileWrittenOnDestructionSurvivesAnAllocationFailure) {
  const std::string dir = "/var/tmp/kv-on-destroy";
  const std::string path = dir + "/a.conf";
  ASSERT_TRUE(MakeDir(dir));
  int failures = 0;
  for (long n = 0; n < 2000; ++n) {
    ASSERT_TRUE(WriteFile(path, "a=1\n"));
    // 0: an allocation of the destruction failed; 1: none was left to fail.
    int rc = InChild([&path, n] {
      {
        sdk::FileKeyValue kv(path);
        if (!kv.ReadKeyValues(16, "=")) return 10;
        if (!kv.Update("a", "2")) return 11;
        kv.SetWriteOnDestroy(true);
        g_fail_allocation_in = n;
      }
      const bool fired = g_fail_allocation_in < 0;
      g_fail_allocation_in = -1;
      return fired ? 0 : 1;
    });
    ASSERT_TRUE(rc == 0 || rc == 1) << "allocation " << n << " ended the child: " << rc;
    const std::string after = ReadFile(path);
    EXPECT_TRUE(after == "a=1\n" || after == "a=2\n") << n << ": " << after;
    EXPECT_THAT(ListDir(dir), ElementsAre("a.conf")) << n;
    if (rc == 1) {
      EXPECT_EQ(after, "a=2\n");
      break;
    }
    ++failures;
  }
  EXPECT_GT(failures, 0);
}

// The forked child that starts a user's fetchmail ends with status 0 even
// when an allocation inside it fails: the caller sees a done start, and
// fetchmail either ran completely or not at all.
TEST_F(ClientSettingsTest, AStartWhoseChildMeetsAnAllocationFailureIsStillDone) {
  ASSERT_TRUE(InstallFetchmailStandIn());
  settings::Pop3Control control("vt");
  const std::string dir = control.UserFetchMailPath(kUser1);
  ASSERT_TRUE(MakeDir(dir, kUser1, kUser1, 0700));
  ASSERT_TRUE(WriteOwned(dir + "quillbox_pop3_fetch", "set daemon 300\n", kUser1, kUser1, 0600));
  int failures = 0;
  for (long n = 0; n < 2000; ++n) {
    ASSERT_TRUE(WriteFile(kFetchmailCalls, "", 0666));
    int rc = InChild([&control, n] {
      g_fail_allocation_in = n;
      const bool done = control.DownPrivilegeFork(kUser1, settings::Pop3Control::ACTION_START, 60);
      g_fail_allocation_in = -1;
      return done ? 0 : 1;
    });
    ASSERT_EQ(rc, 0) << "allocation " << n;
    const std::vector<Call> calls = FetchmailCalls();
    if (!calls.empty()) {
      EXPECT_THAT(calls, ElementsAre(StartCall(dir, kUser1, kUser1))) << n;
      break;
    }
    ++failures;
  }
  EXPECT_GT(failures, 0);
}

// A POP3 start that meets an allocation failure at any point, thrown out of
// it or not, leaves no descriptor open behind it (switch file, uid list,
// lock), and the uid list holds the uid completely or not at all.
TEST_F(ClientSettingsTest, AForceStartMeetingAnAllocationFailureLeaksNoDescriptor) {
  ASSERT_TRUE(InstallFetchmailStandIn());
  ASSERT_TRUE(MakeDir(kLockDir, kAccount, kAccount, 0755));
  ASSERT_TRUE(MakeDir(std::string(kSpool) + "/vt/db", kAccount, kAccount, 0755));
  ASSERT_TRUE(MakeDir(kSettingsDir, kAccount, kAccount, 0755));
  const std::string uid_list = std::string(kSpool) + "/vt/db/vt_pop3_uid.config";
  // A period line too long for a string's own buffer: reading it allocates.
  ASSERT_TRUE(WriteFile(std::string(kSettingsDir) + "/vt_pop3.config",
                        "true\n" + std::string(40, '0') + "5\n"));
  settings::Pop3Control control("vt");
  int thrown = 0;
  for (long n = 0; n < 5000; ++n) {
    ASSERT_TRUE(WriteOwned(uid_list, "", kAccount, kAccount, 0644));
    // 0: met the failure, 1: no allocation was left to fail and the start
    // succeeded, 2: threw, 3: failed without meeting the failure; 10 and up:
    // descriptors left open.
    int rc = InChild([&control, n] {
      const size_t before = ListDir("/proc/self/fd").size();
      int result = 0;
      g_fail_allocation_in = n;
      try {
        const bool ok = control.ForceStart({kUser1});
        result = g_fail_allocation_in < 0 ? 0 : (ok ? 1 : 3);
      } catch (const std::bad_alloc&) {
        result = 2;
      }
      g_fail_allocation_in = -1;
      const size_t after = ListDir("/proc/self/fd").size();
      return after == before ? result : 10 + static_cast<int>(after - before);
    });
    ASSERT_TRUE(rc >= 0 && rc <= 2) << "allocation " << n << ": " << rc;
    const std::string list = ReadFile(uid_list);
    EXPECT_TRUE(list.empty() || list == "61001\n") << n << ": " << list;
    if (rc == 2) ++thrown;
    if (rc == 1) {
      EXPECT_EQ(list, "61001\n");
      break;
    }
  }
  EXPECT_GT(thrown, 0);
}

}  // namespace
}  // namespace settings_test
}  // namespace test
}  // namespace velmora
