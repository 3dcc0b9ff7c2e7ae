// Checks that scripts/hermetic-run gives the tests what they rely on, and
// that what they do there stays inside its namespaces.

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/magic.h>
#include <net/if.h>
#include <netinet/in.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/log_capture.h"
#include "support/test_util.h"

namespace velmora::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

std::string UniqueSuffix() {
  std::random_device rd;
  return std::to_string(getpid()) + "-" + std::to_string(rd());
}

std::string UniqueText(const std::string& what) { return what + " " + UniqueSuffix(); }

struct MountEntry {
  dev_t dev;
  std::string mount_point;
  std::string optional_fields;  // e.g. "shared:1 master:2", empty when private
  std::string fstype;
  std::string source;
};

std::vector<MountEntry> ReadMountInfo() {
  std::vector<MountEntry> mounts;
  std::ifstream in("/proc/self/mountinfo");
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string id, parent, majmin, root, options, word;
    MountEntry entry;
    fields >> id >> parent >> majmin >> root >> entry.mount_point >> options;
    while (fields >> word && word != "-") {
      entry.optional_fields += entry.optional_fields.empty() ? word : " " + word;
    }
    fields >> entry.fstype >> entry.source;
    unsigned major = 0, minor = 0;
    std::sscanf(majmin.c_str(), "%u:%u", &major, &minor);
    entry.dev = makedev(major, minor);
    mounts.push_back(entry);
  }
  return mounts;
}

// The mount that `path` (already free of symlinks) lives on: the one with
// the longest matching mount point, the later one if stacked.
MountEntry MountOf(const std::string& path) {
  MountEntry best{};
  size_t best_len = 0;
  for (const MountEntry& m : ReadMountInfo()) {
    const std::string& mp = m.mount_point;
    bool covers = mp == "/" || path == mp || path.rfind(mp + "/", 0) == 0;
    if (covers && mp.size() >= best_len) {
      best = m;
      best_len = mp.size();
    }
  }
  return best;
}

std::string RealPath(const std::string& path) {
  char* resolved = realpath(path.c_str(), nullptr);
  if (resolved == nullptr) return "";
  std::string result(resolved);
  std::free(resolved);
  return result;
}

std::set<std::string> DirectoryEntries(const std::string& dir) {
  std::set<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name != "." && name != "..") names.insert(name);
    }
    closedir(d);
  }
  return names;
}

TEST(HermeticRunnerTest, ExportsItsEnvironment) {
  EXPECT_TRUE(InHermeticRunner());
  EXPECT_STREQ(std::getenv("VELMORA_HERMETIC"), "1");
  EXPECT_STREQ(std::getenv("VELMORA_SYSLOG_FILE"), "/run/velmora-test/syslog.log");
  EXPECT_STREQ(std::getenv("VELMORA_SCRATCH"), "/var/tmp/velmora-scratch");
}

TEST(HermeticRunnerTest, RunsInItsOwnPidNamespace) {
  // The runner is pid 1 here; on the host pid 1 is the init system.
  EXPECT_EQ(getppid(), 1);
  std::ifstream cmdline("/proc/1/cmdline");
  std::string args((std::istreambuf_iterator<char>(cmdline)), std::istreambuf_iterator<char>());
  EXPECT_THAT(args, HasSubstr("hermetic-run"));
}

TEST(HermeticRunnerTest, NoMountIsSharedWithTheHost) {
  // Mount events only cross namespaces through shared peer groups; with none
  // left, nothing mounted here (nor anything written to tmpfs mounted here)
  // can show up outside.
  std::vector<MountEntry> mounts = ReadMountInfo();
  ASSERT_FALSE(mounts.empty());
  for (const MountEntry& m : mounts) {
    EXPECT_THAT(m.optional_fields, Not(HasSubstr("shared:"))) << m.mount_point;
  }
}

class PrivatePathTest : public testing::TestWithParam<const char*> {};

TEST_P(PrivatePathTest, IsAWritableTmpfsOfTheRunner) {
  const std::string path = GetParam();
  struct statfs fs;
  ASSERT_EQ(statfs(path.c_str(), &fs), 0) << path << ": " << std::strerror(errno);
  EXPECT_EQ(fs.f_type, static_cast<decltype(fs.f_type)>(TMPFS_MAGIC)) << path;
  EXPECT_EQ(access(path.c_str(), W_OK), 0) << path;

  const std::string file = path + "/runner-probe-" + UniqueSuffix();
  {
    std::ofstream out(file);
    out << "written inside the runner\n";
    ASSERT_TRUE(out.good()) << file;
  }
  struct stat file_st, root_st;
  ASSERT_EQ(stat(file.c_str(), &file_st), 0) << file;
  ASSERT_EQ(stat("/", &root_st), 0);
  EXPECT_NE(file_st.st_dev, root_st.st_dev) << file << " landed on the root file system";

  // The file sits on a tmpfs that the runner mounted (its sources are named
  // velmora-*), in this namespace and not shared with any other.
  MountEntry mount = MountOf(RealPath(file));
  EXPECT_EQ(mount.dev, file_st.st_dev) << file << " is on " << mount.mount_point;
  EXPECT_EQ(mount.fstype, "tmpfs") << mount.mount_point;
  EXPECT_THAT(mount.source, StartsWith("velmora-")) << mount.mount_point;
  EXPECT_THAT(mount.optional_fields, Not(HasSubstr("shared:"))) << mount.mount_point;
  EXPECT_EQ(unlink(file.c_str()), 0);
}

INSTANTIATE_TEST_SUITE_P(RunnerPaths, PrivatePathTest,
                         testing::Values("/var/packages", "/var/spool/mail", "/var/lock",
                                         "/run/lock", "/var/run", "/run", "/tmp", "/var/tmp",
                                         "/var/lib", "/var/tmp/velmora-scratch", "/dev/shm"));

TEST(HermeticRunnerTest, VarHoldsOnlyWhatTheRunnerCreated) {
  EXPECT_THAT(DirectoryEntries("/var"),
              UnorderedElementsAre("lib", "lock", "packages", "run", "spool", "tmp"));
  EXPECT_EQ(RealPath("/var/lock"), "/run/lock");
  EXPECT_EQ(RealPath("/var/run"), "/run");
  EXPECT_TRUE(DirectoryEntries("/var/packages").empty());
  EXPECT_TRUE(DirectoryEntries("/var/spool/mail").empty());
  struct stat st;
  ASSERT_EQ(stat("/var/tmp", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 01777u);
  ASSERT_EQ(stat("/tmp", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 01777u);
  ASSERT_EQ(stat("/run/lock", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 01777u);
}

TEST(HermeticRunnerTest, ScratchDirectoryTakesTheTestsOwnMounts) {
  const char* scratch = std::getenv("VELMORA_SCRATCH");
  ASSERT_NE(scratch, nullptr);
  struct stat st;
  ASSERT_EQ(stat(scratch, &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0777u);

  const std::string dir = std::string(scratch) + "/mount-probe";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0) << std::strerror(errno);
  ASSERT_EQ(mount("velmora-probe", dir.c_str(), "tmpfs", 0, "size=1m"), 0) << std::strerror(errno);
  MountEntry m = MountOf(dir);
  EXPECT_EQ(m.mount_point, dir);
  EXPECT_EQ(m.source, "velmora-probe");
  EXPECT_THAT(m.optional_fields, Not(HasSubstr("shared:")));
  EXPECT_EQ(umount(dir.c_str()), 0) << std::strerror(errno);
  EXPECT_EQ(rmdir(dir.c_str()), 0);
}

TEST(HermeticRunnerTest, ServerAccountExists) {
  passwd* pw = getpwnam("Velmora-Server");
  ASSERT_NE(pw, nullptr);
  EXPECT_EQ(pw->pw_uid, 61000u);
  EXPECT_EQ(pw->pw_gid, 61000u);
  EXPECT_STREQ(pw->pw_dir, "/var/tmp/home/Velmora-Server");
  EXPECT_STREQ(pw->pw_shell, "/bin/sh");
  group* gr = getgrnam("Velmora-Server");
  ASSERT_NE(gr, nullptr);
  EXPECT_EQ(gr->gr_gid, 61000u);
  pw = getpwuid(61000);
  ASSERT_NE(pw, nullptr);
  EXPECT_STREQ(pw->pw_name, "Velmora-Server");
}

TEST(HermeticRunnerTest, TestUsersExistWithHomesAndGroups) {
  const std::vector<std::pair<std::string, unsigned>> users = {
      {"Velmora-Server", 61000}, {"vtuser1", 61001}, {"vtuser2", 61002}, {"vtuser3", 61003}};
  for (const auto& [name, id] : users) {
    SCOPED_TRACE(name);
    passwd* pw = getpwnam(name.c_str());
    ASSERT_NE(pw, nullptr);
    EXPECT_EQ(pw->pw_uid, id);
    EXPECT_EQ(pw->pw_gid, id);
    const std::string home = "/var/tmp/home/" + name;
    EXPECT_EQ(pw->pw_dir, home);
    struct stat st;
    ASSERT_EQ(stat(home.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_uid, id);
    EXPECT_EQ(st.st_gid, id);
    group* gr = getgrgid(id);
    ASSERT_NE(gr, nullptr);
    EXPECT_EQ(std::string(gr->gr_name), name);
    spwd* sp = getspnam(name.c_str());
    ASSERT_NE(sp, nullptr);
    EXPECT_STREQ(sp->sp_pwdp, "*");
  }
  // The host's own accounts are still there.
  passwd* root = getpwnam("root");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->pw_uid, 0u);
}

TEST(HermeticRunnerTest, SharedGroupHoldsTwoUsers) {
  group* gr = getgrnam("vtshared");
  ASSERT_NE(gr, nullptr);
  EXPECT_EQ(gr->gr_gid, 61100u);
  std::vector<std::string> members;
  for (char** m = gr->gr_mem; *m != nullptr; ++m) members.emplace_back(*m);
  EXPECT_THAT(members, UnorderedElementsAre("vtuser1", "vtuser2"));

  auto groups_of = [](const char* user, gid_t gid) {
    std::vector<gid_t> groups(64);
    int n = static_cast<int>(groups.size());
    if (getgrouplist(user, gid, groups.data(), &n) < 0) n = 0;
    groups.resize(static_cast<size_t>(n));
    return groups;
  };
  EXPECT_THAT(groups_of("vtuser1", 61001), Contains(61100u));
  EXPECT_THAT(groups_of("vtuser2", 61002), Contains(61100u));
  EXPECT_THAT(groups_of("vtuser3", 61003), Not(Contains(61100u)));
}

TEST(HermeticRunnerTest, OnlyLoopbackIsThereAndItIsUp) {
  std::vector<std::string> names;
  if (struct if_nameindex* ifs = if_nameindex()) {
    for (struct if_nameindex* i = ifs; i->if_index != 0; ++i) names.emplace_back(i->if_name);
    if_freenameindex(ifs);
  }
  EXPECT_THAT(names, ElementsAre("lo"));

  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(fd, 0);
  ifreq req{};
  std::strcpy(req.ifr_name, "lo");
  ASSERT_EQ(ioctl(fd, SIOCGIFFLAGS, &req), 0) << std::strerror(errno);
  EXPECT_TRUE(req.ifr_flags & IFF_UP);
  close(fd);
}

TEST(HermeticRunnerTest, LoopbackCarriesTcp) {
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(listener, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0)
      << std::strerror(errno);
  ASSERT_EQ(listen(listener, 1), 0);
  socklen_t len = sizeof addr;
  ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len), 0);
  EXPECT_NE(addr.sin_port, 0);

  int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(client, 0);
  ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0)
      << std::strerror(errno);
  int server = accept(listener, nullptr, nullptr);
  ASSERT_GE(server, 0);
  ASSERT_EQ(write(client, "ping", 4), 4);
  char buf[8] = {};
  ASSERT_EQ(read(server, buf, sizeof buf), 4);
  EXPECT_STREQ(buf, "ping");
  close(server);
  close(client);
  close(listener);
}

TEST(HermeticRunnerTest, DevHasTheUsualNodes) {
  struct statfs fs;
  ASSERT_EQ(statfs("/dev", &fs), 0);
  EXPECT_EQ(fs.f_type, static_cast<decltype(fs.f_type)>(TMPFS_MAGIC)) << "/dev is the host's";

  int null_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  ASSERT_GE(null_fd, 0) << std::strerror(errno);
  EXPECT_EQ(write(null_fd, "hello", 5), 5);
  char buf[16];
  EXPECT_EQ(read(null_fd, buf, sizeof buf), 0);
  close(null_fd);

  int zero_fd = open("/dev/zero", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(zero_fd, 0);
  std::memset(buf, 'x', sizeof buf);
  ASSERT_EQ(read(zero_fd, buf, sizeof buf), static_cast<ssize_t>(sizeof buf));
  EXPECT_TRUE(std::all_of(buf, buf + sizeof buf, [](char c) { return c == 0; }));
  close(zero_fd);

  int full_fd = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full_fd, 0);
  EXPECT_EQ(write(full_fd, "x", 1), -1);
  EXPECT_EQ(errno, ENOSPC);
  close(full_fd);

  int random_fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(random_fd, 0);
  EXPECT_EQ(read(random_fd, buf, sizeof buf), static_cast<ssize_t>(sizeof buf));
  close(random_fd);

  EXPECT_EQ(RealPath("/dev/fd"), "/proc/" + std::to_string(getpid()) + "/fd");
  struct stat st;
  ASSERT_EQ(stat("/dev/log", &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0666u);
}

TEST(HermeticRunnerTest, PseudoTerminalsWork) {
  int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(master, 0) << std::strerror(errno);
  ASSERT_EQ(grantpt(master), 0);
  ASSERT_EQ(unlockpt(master), 0);
  const char* name = ptsname(master);
  ASSERT_NE(name, nullptr);
  int slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(slave, 0) << name << ": " << std::strerror(errno);
  ASSERT_EQ(write(master, "abc\n", 4), 4);
  char buf[8] = {};
  EXPECT_EQ(read(slave, buf, sizeof buf), 4);
  EXPECT_STREQ(buf, "abc\n");
  close(slave);
  close(master);
}

TEST(HermeticRunnerTest, SharedMemoryWorks) {
  const std::string name = "/velmora-runner-" + std::to_string(getpid());
  int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_GE(fd, 0) << std::strerror(errno);
  EXPECT_EQ(ftruncate(fd, 4096), 0);
  struct stat st;
  EXPECT_EQ(stat(("/dev/shm" + name).c_str(), &st), 0);
  close(fd);
  EXPECT_EQ(shm_unlink(name.c_str()), 0);
}

TEST(LogCaptureTest, CapturesSyslogWithPriorityTagAndText) {
  LogCapture capture;
  const std::string text = UniqueText("runner syslog check");
  syslog(LOG_LOCAL1 | LOG_ERR, "%s", text.c_str());

  std::vector<LogRecord> records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].priority, 139);
  EXPECT_EQ(records[0].tag, program_invocation_short_name);
  EXPECT_EQ(records[0].text, text);
  EXPECT_THAT(records[0].raw, StartsWith("<139>"));
  EXPECT_THAT(records[0].raw, HasSubstr(text));
}

TEST(LogCaptureTest, SeesOnlyWhatWasLoggedSinceItStarted) {
  const std::string before = UniqueText("before capture");
  syslog(LOG_USER | LOG_INFO, "%s", before.c_str());
  LogCapture capture;
  const std::string first = UniqueText("first");
  syslog(LOG_USER | LOG_INFO, "%s", first.c_str());
  EXPECT_THAT(capture.Texts(), ElementsAre(first));

  // Reading does not consume.
  const std::string second = UniqueText("second");
  syslog(LOG_USER | LOG_INFO, "%s", second.c_str());
  EXPECT_THAT(capture.Texts(), ElementsAre(first, second));

  capture.Reset();
  EXPECT_THAT(capture.Texts(), ElementsAre());
  const std::string third = UniqueText("third");
  syslog(LOG_USER | LOG_INFO, "%s", third.c_str());
  EXPECT_THAT(capture.Texts(), ElementsAre(third));
}

TEST(LogCaptureTest, TwoCapturesDoNotSeeEachOthersMarkers) {
  LogCapture outer;
  const std::string a = UniqueText("a");
  syslog(LOG_USER | LOG_INFO, "%s", a.c_str());
  LogCapture inner;
  EXPECT_THAT(inner.Texts(), ElementsAre());
  const std::string b = UniqueText("b");
  syslog(LOG_USER | LOG_INFO, "%s", b.c_str());
  EXPECT_THAT(inner.Texts(), ElementsAre(b));
  EXPECT_THAT(outer.Texts(), ElementsAre(a, b));
}

TEST(LogCaptureTest, OpenlogIdentAndPid) {
  LogCapture capture;
  const std::string text = UniqueText("with ident");
  openlog("velmora-ident", LOG_PID, LOG_LOCAL1);
  syslog(LOG_NOTICE, "%s", text.c_str());
  closelog();
  openlog(nullptr, 0, LOG_USER);  // back to the defaults for later tests
  closelog();

  std::vector<LogRecord> records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].priority, LOG_LOCAL1 | LOG_NOTICE);
  EXPECT_EQ(records[0].tag, "velmora-ident");
  EXPECT_EQ(records[0].text, text);
  EXPECT_THAT(records[0].raw, HasSubstr("velmora-ident[" + std::to_string(getpid()) + "]: "));
}

TEST(LogCaptureTest, KeepsMultiLineAndLongMessagesWhole) {
  LogCapture capture;
  const std::string multi = UniqueText("line one") + "\nline two\n<no priority here>";
  const std::string text = UniqueText("long") + " " + std::string(20000, 'L');
  syslog(LOG_USER | LOG_WARNING, "%s", multi.c_str());
  syslog(LOG_USER | LOG_WARNING, "%s", text.c_str());
  EXPECT_THAT(capture.Texts(), ElementsAre(multi, text));
}

TEST(LogCaptureTest, CapturesAChildRunningAsATestUser) {
  LogCapture capture;
  const std::string text = UniqueText("from vtuser1");
  int status = RunInChild([&] {
    closelog();  // make the child connect to /dev/log itself, as vtuser1
    if (initgroups("vtuser1", 61001) != 0 || setgid(61001) != 0 || setuid(61001) != 0) return 10;
    if (getuid() != 61001 || geteuid() != 61001) return 11;
    syslog(LOG_LOCAL1 | LOG_ERR, "%s", text.c_str());
    closelog();
    return 0;
  });
  ASSERT_EQ(status, 0);
  std::vector<LogRecord> records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].priority, 139);
  EXPECT_EQ(records[0].tag, program_invocation_short_name);
  EXPECT_EQ(records[0].text, text);
}

TEST(LogCaptureTest, ConcurrentWritersAreNeitherLostNorInterleaved) {
  constexpr int kChildren = 4;
  constexpr int kMessages = 200;
  LogCapture capture;
  const std::string prefix = UniqueText("burst");
  std::vector<pid_t> children;
  for (int c = 0; c < kChildren; ++c) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      closelog();
      for (int i = 0; i < kMessages; ++i) {
        syslog(LOG_USER | LOG_DEBUG, "%s %d %d %s", prefix.c_str(), c, i,
               std::string(100 + i, static_cast<char>('a' + c)).c_str());
      }
      _exit(0);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }

  std::set<std::string> expected;
  for (int c = 0; c < kChildren; ++c) {
    for (int i = 0; i < kMessages; ++i) {
      expected.insert(prefix + " " + std::to_string(c) + " " + std::to_string(i) + " " +
                      std::string(100 + i, static_cast<char>('a' + c)));
    }
  }
  std::vector<std::string> texts = capture.Texts();
  EXPECT_EQ(texts.size(), expected.size());
  EXPECT_EQ(std::set<std::string>(texts.begin(), texts.end()), expected);
}

TEST(ParseSyslogDatagramTest, GlibcFormat) {
  LogRecord r = ParseSyslogDatagram("<139>Nov 22 22:30:01 prog[123]: hello: world");
  EXPECT_EQ(r.priority, 139);
  EXPECT_EQ(r.tag, "prog");
  EXPECT_EQ(r.text, "hello: world");
  EXPECT_EQ(r.raw, "<139>Nov 22 22:30:01 prog[123]: hello: world");

  r = ParseSyslogDatagram("<13>Nov  2 01:02:03 prog: x");
  EXPECT_EQ(r.priority, 13);
  EXPECT_EQ(r.tag, "prog");
  EXPECT_EQ(r.text, "x");
}

TEST(ParseSyslogDatagramTest, OtherShapes) {
  LogRecord r = ParseSyslogDatagram("<14>2024-05-01T10:00:00.123456+00:00 tag: msg");
  EXPECT_EQ(r.priority, 14);
  EXPECT_EQ(r.tag, "tag");
  EXPECT_EQ(r.text, "msg");

  r = ParseSyslogDatagram("<15>: no tag");
  EXPECT_EQ(r.priority, 15);
  EXPECT_EQ(r.tag, "");
  EXPECT_EQ(r.text, "no tag");

  r = ParseSyslogDatagram("<15>Nov 22 22:30:01 just some words");
  EXPECT_EQ(r.tag, "");
  EXPECT_EQ(r.text, "just some words");

  r = ParseSyslogDatagram(std::string("<13>Nov 22 22:30:01 p: m\0\0", 27));
  EXPECT_EQ(r.tag, "p");
  EXPECT_EQ(r.text, "m");

  r = ParseSyslogDatagram("prog[x1]: kept");
  EXPECT_EQ(r.priority, -1);
  EXPECT_EQ(r.text, "prog[x1]: kept");

  r = ParseSyslogDatagram("<9>Nov 22 22:30:01 prog[x1]: kept");
  EXPECT_EQ(r.tag, "prog[x1]");
  EXPECT_EQ(r.text, "kept");

  r = ParseSyslogDatagram("<1234>too many digits");
  EXPECT_EQ(r.priority, -1);
}

}  // namespace
}  // namespace velmora::test
