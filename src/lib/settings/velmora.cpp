// The web client's feature switches and the POP3 fetch service: its global
// switch, its list of started users, the users' fetchmail control files and
// the per-user fetchmail daemons, each started or stopped in a forked child
// under the user's identity.
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <set>
#include <streambuf>
#include <string>
#include <vector>

#include <velmora/common.h>
#include <velmora/file.h>
#include <velmora/settings.h>

#include "lib/child_exit.h"
#include "lib/log.h"
#include "platform/orvo_platform.h"

namespace velmora {
namespace settings {
namespace {

constexpr char kLogModule[] = "src/lib/settings/velmora";

constexpr char kSettingsDir[] = "/var/packages/Velmora-Server/etc/velmora/";
constexpr char kClientConfPath[] = "/var/packages/Velmora-Server/etc/velmora/quillbox.conf";
constexpr char kCustomLogoPath[] = "/var/packages/Velmora-Server/etc/velmora/custom_logo.png";
constexpr char kBackendTool[] = "/var/packages/Velmora-Server/target/bin/orvo_mailserver_backend";
constexpr char kFetchmail[] = "/var/packages/Quillbox/target/bin/fetchmail";
constexpr char kSpoolDir[] = "/var/spool/mail/";
constexpr char kLockDir[] = "/var/lock/velmora_server/";
constexpr char kPackageAccount[] = "Velmora-Server";

constexpr char kControlFileName[] = "quillbox_pop3_fetch";
constexpr char kPidFileName[] = "quillbox_fetchmail.pid";
constexpr char kIdFileName[] = "quillbox_fetchmail.id";
constexpr char kSetDaemon[] = "set daemon";

// Flags handed to OLIBCExecl; their meaning belongs to the platform.
constexpr int kExeclFlags = 187;
// Further attempts, one second apart, to take an entry point's lock.
constexpr unsigned long kLockRetries = 60;
constexpr int kKeyTableSize = 1024;
constexpr mode_t kPackageFileMode = 0644;
// Minutes between polls when the switch file does not say.
constexpr uint32_t kDefaultPeriod = 5;
constexpr uint32_t kSecondsPerMinute = 60;
// Size of each read of a control file, and the size from which its new
// lines are handed to the temporary file.
constexpr size_t kReadBuffer = size_t{16} * 1024;
constexpr size_t kWriteChunk = size_t{16} * 1024;

std::string FormatUnsigned(uint32_t value) {
  char text[16];
  // NOLINTNEXTLINE(cert-err33-c): any 32-bit value fits
  std::snprintf(text, sizeof(text), "%u", value);
  return text;
}

// Runs a passwd lookup (a getpwnam_r or getpwuid_r call wrapped in
// `lookup`) with a buffer that grows until the entry fits, and hands the
// entry found to `use`. False when there is no entry, the lookup fails, or
// `use` returns false.
template <typename Lookup, typename Use>
bool WithPasswdEntry(Lookup lookup, Use use) {
  long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(hint > 0 ? static_cast<size_t>(hint) : 1024);
  for (;;) {
    struct passwd pw;
    struct passwd* found = nullptr;
    int rc = lookup(&pw, buf.data(), buf.size(), &found);
    if (rc == ERANGE && buf.size() < (1u << 20)) {
      buf.resize(buf.size() * 2);
      continue;
    }
    if (rc != 0 || found == nullptr) return false;
    return use(*found);
  }
}

// Looks up the package's system account; false when it does not exist.
bool LookUpPackageAccount(uid_t* uid, gid_t* gid) {
  return WithPasswdEntry(
      [](struct passwd* pw, char* buf, size_t size, struct passwd** found) {
        return getpwnam_r(kPackageAccount, pw, buf, size, found);
      },
      [uid, gid](const struct passwd& pw) {
        *uid = pw.pw_uid;
        *gid = pw.pw_gid;
        return true;
      });
}

// Gives the programs that this process runs from now on the HOME, USER and
// LOGNAME of `uid` from its passwd entry, as a login does: fetchmail looks
// for its files under $HOME, so a caller running as root with root's HOME
// must not send a user's fetchmail there. The rest of the environment stays
// as it is. Without a passwd entry the three are removed rather than left
// naming the caller. Meant for the forked child that has just taken the
// user's identity.
// NOLINTBEGIN(concurrency-mt-unsafe): the forked child has a single thread.
void TakeUserEnvironment(uid_t uid) {
  const bool set = WithPasswdEntry(
      [uid](struct passwd* pw, char* buf, size_t size, struct passwd** found) {
        return getpwuid_r(uid, pw, buf, size, found);
      },
      [](const struct passwd& pw) {
        const char* home = pw.pw_dir != nullptr ? pw.pw_dir : "";
        const char* name = pw.pw_name != nullptr ? pw.pw_name : "";
        return setenv("HOME", home, 1) == 0 && setenv("USER", name, 1) == 0 &&
               setenv("LOGNAME", name, 1) == 0;
      });
  if (!set) {
    unsetenv("HOME");
    unsetenv("USER");
    unsetenv("LOGNAME");
  }
}
// NOLINTEND(concurrency-mt-unsafe)

// Runs the back-end tool that hands a changed settings file to its
// consumers. True when it reported success.
bool Propagate(const std::string& path) {
  return OLIBCExecl(kBackendTool, kExeclFlags, "--syncFile", path.c_str(),
                    static_cast<char*>(nullptr)) >= 0;
}

// Reads one line without its "\n" into `line`; false at the end of the file
// (or on a read error) when nothing was read.
bool ReadLine(FILE* file, char** buf, size_t* cap, std::string* line) {
  ssize_t len = getline(buf, cap, file);
  if (len < 0) return false;
  size_t size = static_cast<size_t>(len);
  if (size > 0 && (*buf)[size - 1] == '\n') --size;
  line->assign(*buf, size);
  return true;
}

// An input stream buffer over a descriptor that the caller owns.
class DescriptorReadBuffer : public std::streambuf {
 public:
  // cppcheck-suppress uninitMemberVar ; read() fills buffer_ before any use
  explicit DescriptorReadBuffer(int fd) : fd_(fd) {}

 protected:
  int_type underflow() override {
    if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
    ssize_t got;
    do {
      got = read(fd_, buffer_, sizeof(buffer_));
    } while (got < 0 && errno == EINTR);
    if (got <= 0) return traits_type::eof();
    setg(buffer_, buffer_, buffer_ + got);
    return traits_type::to_int_type(*gptr());
  }

 private:
  int fd_;
  char buffer_[64 * 1024];
};

// Takes an entry point's lock: held, and the lock file handed to the
// package account.
bool LockHeld(sdk::ExclusiveFileLockGuard& guard) {
  if (guard.fd_ < 0) return false;
  return guard.Guardian(kPackageAccount);
}

}  // namespace

// ---- Client feature settings ----

record::VelmoraConfig GetVelmoraConfig() {
  record::VelmoraConfig config{};
  config.enable_chat = true;
  config.enable_calendar = true;
  config.enable_externalsource = true;
  if (!sdk::Exist(kClientConfPath)) return config;
  sdk::FileKeyValue file(kClientConfPath);
  if (!file.ReadKeyValues(kKeyTableSize, "=")) return config;
  // Opt-in switches need an explicit "yes"; the features that are on by
  // default stay on unless the file says exactly "no".
  auto yes = [&file](const char* key) { return file.Get(key) == "yes"; };
  auto not_no = [&file](const char* key) { return file.Get(key) != "no"; };
  config.disable_pgp = yes("disable_pgp");
  config.disable_shared_mailbox = yes("disable_shared_mailbox");
  config.disable_smtp_sender_name = yes("disable_smtp_sender_name");
  config.enable_sharing_link = yes("enable_sharing_link");
  config.is_custom_logo = yes("is_custom_logo");
  config.enable_chat = not_no("enable_chat");
  config.enable_calendar = not_no("enable_calendar");
  config.enable_externalsource = not_no("enable_externalsource");
  return config;
}

bool SetVelmoraConfig(const record::VelmoraConfig& config) {
  if (!sdk::Exist(kSettingsDir) && sdk::MkDir(kSettingsDir) < 0) {
    VELMORA_LOG("Create path(%s) fail", kSettingsDir);
    return false;
  }
  if (!sdk::Exist(kClientConfPath)) {
    // Creates the file empty. Without O_TRUNC a file that exists after all
    // (made meanwhile, or an existence check that failed) keeps its keys. A
    // failure here shows up as a failed read below.
    int fd = open(kClientConfPath, O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0) close(fd);
  }
  sdk::FileKeyValue file(kClientConfPath);
  if (!file.ReadKeyValues(kKeyTableSize, "=")) return false;
  const struct {
    const char* key;
    bool value;
  } pairs[] = {
      {"disable_pgp", config.disable_pgp},
      {"disable_shared_mailbox", config.disable_shared_mailbox},
      {"disable_smtp_sender_name", config.disable_smtp_sender_name},
      {"enable_sharing_link", config.enable_sharing_link},
      {"is_custom_logo", config.is_custom_logo},
      {"enable_chat", config.enable_chat},
      {"enable_calendar", config.enable_calendar},
      {"enable_externalsource", config.enable_externalsource},
  };
  for (const auto& pair : pairs) {
    if (!file.Update(pair.key, pair.value ? "yes" : "no")) {
      VELMORA_LOG("Update key value fail");
      return false;
    }
  }
  if (!file.Write()) return false;
  return Propagate(kClientConfPath);
}

long GetCustomLogoVersion() {
  struct stat st;
  if (stat(kCustomLogoPath, &st) != 0) return 0;
  return static_cast<long>(st.st_mtime);
}

// ---- POP3 fetch configuration ----

Pop3Control::Pop3Control(const std::string& name)
    : pop3_config_path(kSettingsDir + name + "_pop3.config"),
      uid_list_path(kSpoolDir + name + "/db/" + name + "_pop3_uid.config"),
      lock_path(kLockDir + name + "_pop3.lock"),
      spool_root(kSpoolDir + name) {
  if (sdk::Exist(kSettingsDir)) return;
  uid_t account_uid;
  gid_t account_gid;
  if (!LookUpPackageAccount(&account_uid, &account_gid)) {
    VELMORA_LOG("Get Velmora-Server pwd fail");
    return;
  }
  const uid_t euid = geteuid();
  if (euid != 0 && euid != account_uid) {
    VELMORA_LOG_AT(VELMORA_LOG_DEBUG, "User has no privilege %u", static_cast<unsigned>(euid));
    return;
  }
  if (sdk::MkDir(kSettingsDir) < 0) {
    VELMORA_LOG("Create path(%s) fail", kSettingsDir);
    return;
  }
  if (chown(kSettingsDir, account_uid, account_gid) != 0) {
    const int err = errno;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc's strerror is thread-safe since 2.32
    VELMORA_LOG("Chown path(%s) fail: %s", kSettingsDir, std::strerror(err));
  }
}

record::GlobalPOP3Config Pop3Control::GetPOP3Config() const {
  record::GlobalPOP3Config config{false, kDefaultPeriod};
  if (!sdk::Exist(pop3_config_path)) return config;
  FILE* file = std::fopen(pop3_config_path.c_str(), "re");
  if (file == nullptr) {
    VELMORA_LOG("fail open Global pop3.config file");
    config.period = 0;
    return config;
  }
  char* buf = nullptr;
  size_t cap = 0;
  ScopeGuard release([file, &buf] {
    std::free(buf);
    std::fclose(file);  // NOLINT(cert-err33-c): read-only stream, nothing to lose
  });
  std::string enabled;
  std::string period;
  if (ReadLine(file, &buf, &cap, &enabled)) ReadLine(file, &buf, &cap, &period);
  config.enabled = enabled == "true";
  if (!period.empty()) {
    config.period = static_cast<uint32_t>(std::strtoul(period.c_str(), nullptr, 10));
  }
  return config;
}

bool Pop3Control::SetPOP3Config(const record::GlobalPOP3Config& config) const {
  sdk::TempFile temp(pop3_config_path);
  uid_t account_uid;
  gid_t account_gid;
  if (!temp.valid_ || !LookUpPackageAccount(&account_uid, &account_gid) ||
      temp.Chown(account_uid, account_gid) < 0 || temp.Chmod(kPackageFileMode) < 0) {
    VELMORA_LOG("initialize temp file failed");
    return false;
  }
  temp.WriteLine(config.enabled ? "true" : "false");
  temp.WriteLine(FormatUnsigned(config.period));
  if (temp.MoveTo(pop3_config_path) < 0) return false;
  return Propagate(pop3_config_path);
}

std::set<uint32_t> Pop3Control::GetPOP3UidSet() const {
  std::set<uint32_t> uids;
  if (!sdk::Exist(uid_list_path)) return uids;
  int fd = open(uid_list_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    VELMORA_LOG("fail open Global pop3_uid.config file");
    return uids;
  }
  ScopeGuard close_fd([fd] { close(fd); });
  // Formatted extraction: white space between numbers, and the read ends at
  // the first token that is not an unsigned number fitting 32 bits.
  DescriptorReadBuffer buffer(fd);
  std::istream in(&buffer);
  std::vector<uint32_t> read;
  struct stat st;
  // About one uid per six bytes ("61001\n"), within reason.
  if (fstat(fd, &st) == 0 && st.st_size > 0) {
    read.reserve(static_cast<size_t>(std::min<off_t>(st.st_size / 6 + 16, off_t{1} << 20)));
  }
  uint32_t uid;
  while (in >> uid) read.push_back(uid);
  // A set built from a sorted range costs one step per element, against a
  // tree search and a scattered node for every element read in file order.
  std::sort(read.begin(), read.end());
  uids.insert(read.begin(), read.end());
  return uids;
}

std::string Pop3Control::UserFetchMailPath(uint32_t uid) const {
  char tail[48];
  // NOLINTNEXTLINE(cert-err33-c): the longest result, 25 bytes, fits
  std::snprintf(tail, sizeof(tail), "/%04u/%u/.ORVOQB/", uid % 10000u, uid);
  return spool_root + tail;
}

bool Pop3Control::ModifyFetchmailrc(uint32_t uid, uint32_t interval) const {
  const std::string path = UserFetchMailPath(uid) + kControlFileName;
  // A user without a control file has nothing to change.
  if (!sdk::Exist(path)) return true;
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    VELMORA_LOG("Stat file error");
    return false;
  }
  sdk::TempFile temp(path);
  if (!temp.valid_ || temp.Chown(st.st_uid, st.st_gid) < 0 || temp.Chmod(st.st_mode & 07777) < 0) {
    VELMORA_LOG("initialize temp file failed");
    return false;
  }
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    VELMORA_LOG("fail open quillbox pop3 fetch file");
    return false;
  }
  ScopeGuard close_fd([fd] { close(fd); });
  const std::string daemon_line = std::string(kSetDaemon) + " " + FormatUnsigned(interval);
  const size_t prefix_size = sizeof(kSetDaemon) - 1;
  // Lines are cut at "\n" only (a "\r" or a NUL stays as it was), joined
  // with "\n" and handed over in chunks of a fixed size; WriteLine adds the
  // newline after the last line of each chunk, so every line, the last one
  // too, ends in "\n" in the new file. Buffers stay small whatever the size
  // of the file.
  std::string chunk;
  chunk.reserve(kWriteChunk + daemon_line.size() + 1);
  bool pending = false;
  auto put_line = [&](const char* begin, size_t size) {
    if (pending) chunk.push_back('\n');
    if (size >= prefix_size && std::memcmp(begin, kSetDaemon, prefix_size) == 0) {
      chunk.append(daemon_line);
    } else {
      chunk.append(begin, size);
    }
    pending = true;
    if (chunk.size() >= kWriteChunk) {
      temp.WriteLine(chunk);
      chunk.clear();
      pending = false;
    }
  };
  std::string partial;  // the start of a line that continues in the next read
  char buffer[kReadBuffer];
  for (;;) {
    ssize_t got = read(fd, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      // Opened but not readable to its end (a directory, an I/O error): the
      // file is not replaced by what was read of it.
      VELMORA_LOG("fail open quillbox pop3 fetch file");
      return false;
    }
    if (got == 0) break;
    const char* pos = buffer;
    const char* end = buffer + got;
    while (pos < end) {
      const char* newline = static_cast<const char*>(std::memchr(pos, '\n', end - pos));
      if (newline == nullptr) {
        partial.append(pos, end - pos);
        break;
      }
      if (partial.empty()) {
        put_line(pos, newline - pos);
      } else {
        partial.append(pos, newline - pos);
        put_line(partial.data(), partial.size());
        partial.clear();
      }
      pos = newline + 1;
    }
  }
  if (!partial.empty()) put_line(partial.data(), partial.size());
  if (pending) temp.WriteLine(chunk);
  return temp.MoveTo(path) >= 0;
}

// ---- POP3 fetch daemon control ----

bool Pop3Control::Start(uint32_t uid, uint32_t interval) const {
  if (!sdk::Exist(kFetchmail)) {
    VELMORA_LOG("%s not exists", kFetchmail);
    return true;
  }
  if (!ModifyFetchmailrc(uid, interval)) {
    VELMORA_LOG("Update %d fetch mail rc period fail", static_cast<int>(uid));
    return false;
  }
  const std::string dir = UserFetchMailPath(uid);
  const std::string control_file = dir + kControlFileName;
  const std::string pid_file = dir + kPidFileName;
  const std::string id_file = dir + kIdFileName;
  struct stat st;
  if (stat(control_file.c_str(), &st) != 0) {
    VELMORA_LOG("Stat file error");
    return false;
  }
  if (setgid(st.st_gid) < 0 || setuid(uid) < 0) {
    VELMORA_LOG("Change uid to %d and gid to %d fail", static_cast<int>(uid),
                static_cast<int>(st.st_gid));
    return false;
  }
  TakeUserEnvironment(uid);
  return OLIBCExecl(kFetchmail, kExeclFlags, "-f", control_file.c_str(), "--pidfile",
                    pid_file.c_str(), "--idfile", id_file.c_str(),
                    static_cast<char*>(nullptr)) >= 0;
}

bool Pop3Control::Stop(uint32_t uid) const {
  if (!sdk::Exist(kFetchmail)) {
    VELMORA_LOG("%s not exists", kFetchmail);
    return true;
  }
  const std::string dir = UserFetchMailPath(uid);
  const std::string pid_file = dir + kPidFileName;
  const std::string id_file = dir + kIdFileName;
  if (setuid(uid) < 0) {
    VELMORA_LOG("Change uid to %d fail", static_cast<int>(uid));
    return false;
  }
  TakeUserEnvironment(uid);
  return OLIBCExecl(kFetchmail, kExeclFlags, "--quit", "--pidfile", pid_file.c_str(), "--idfile",
                    id_file.c_str(), static_cast<char*>(nullptr)) >= 0;
}

bool Pop3Control::DownPrivilegeFork(uint32_t uid, Action action, uint32_t interval) const {
  const pid_t pid = fork();
  if (pid < 0) {
    VELMORA_LOG("Fork child to change user to run POP3Daemon error");
    return false;
  }
  if (pid == 0) {
    // The child's result is only logged; it always exits 0 without running
    // the parent's clean-up.
    try {
      switch (action) {
        case ACTION_START:
          if (!Start(uid, interval)) {
            VELMORA_LOG("Start POP3Daemon for user(%d) error", static_cast<int>(uid));
          }
          break;
        case ACTION_STOP:
          if (!Stop(uid)) {
            VELMORA_LOG("Stop POP3Daemon for user(%d) error", static_cast<int>(uid));
          }
          break;
        default:
          VELMORA_LOG_AT(VELMORA_LOG_WARNING, "Can not recognize action: %d",
                         static_cast<int>(action));
          break;
      }
    } catch (...) {
    }
    ChildExit(0);
  }
  int status = 0;
  pid_t reaped;
  do {
    reaped = waitpid(pid, &status, 0);
  } while (reaped < 0 && errno == EINTR);
  if (reaped == -1) {
    VELMORA_LOG("Wait child fail");
    return false;
  }
  return true;
}

bool Pop3Control::TrackStart(const std::vector<uint32_t>& uids, std::set<uint32_t>& tracked,
                             uint32_t interval) const {
  // A list made here belongs to the package account like the one that
  // TrackStop writes, so that either side can append to or replace it later.
  bool created = true;
  int fd = open(uid_list_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_CLOEXEC,
                kPackageFileMode);
  if (fd < 0 && errno == EEXIST) {
    created = false;
    fd = open(uid_list_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kPackageFileMode);
  }
  if (fd < 0) {
    VELMORA_LOG("fail open pop3_uid.config file");
    return false;
  }
  ScopeGuard close_fd([&fd] {
    if (fd >= 0) close(fd);
  });
  if (created) {
    uid_t account_uid;
    gid_t account_gid;
    if (LookUpPackageAccount(&account_uid, &account_gid) &&
        fchown(fd, account_uid, account_gid) == 0) {
      fchmod(fd, kPackageFileMode);
    }
  }

  bool ok = true;
  bool appended = false;
  for (uint32_t uid : uids) {
    if (!DownPrivilegeFork(uid, ACTION_START, interval)) {
      VELMORA_LOG("Start %d fetch mail daemon fail", static_cast<int>(uid));
      ok = false;
      continue;
    }
    if (!tracked.insert(uid).second) continue;
    const std::string line = FormatUnsigned(uid) + "\n";
    const char* data = line.data();
    size_t left = line.size();
    while (left > 0) {
      ssize_t put = write(fd, data, left);
      if (put < 0 && errno == EINTR) continue;
      if (put <= 0) {
        ok = false;
        break;
      }
      data += put;
      left -= static_cast<size_t>(put);
    }
    appended = true;
  }
  const int fd_to_close = fd;
  fd = -1;
  if (close(fd_to_close) != 0) ok = false;
  if (appended && !Propagate(uid_list_path)) ok = false;
  return ok;
}

bool Pop3Control::TrackStop(const std::vector<uint32_t>& uids, std::set<uint32_t>& tracked) const {
  sdk::TempFile temp(uid_list_path);
  uid_t account_uid;
  gid_t account_gid;
  if (!temp.valid_ || !LookUpPackageAccount(&account_uid, &account_gid) ||
      temp.Chown(account_uid, account_gid) < 0 || temp.Chmod(kPackageFileMode) < 0) {
    VELMORA_LOG("initialize temp file failed");
    return false;
  }
  for (uint32_t uid : uids) {
    if (DownPrivilegeFork(uid, ACTION_STOP, 0)) {
      tracked.erase(uid);
    } else {
      VELMORA_LOG("Stop %d fetchmail daemon fail", static_cast<int>(uid));
    }
  }
  // One "%u" line per uid, ascending, handed over in one piece.
  if (!tracked.empty()) {
    std::string text;
    for (uint32_t uid : tracked) {
      if (!text.empty()) text.push_back('\n');
      text.append(FormatUnsigned(uid));
    }
    temp.WriteLine(text);
  }
  if (temp.MoveTo(uid_list_path) < 0) return false;
  return Propagate(uid_list_path);
}

bool Pop3Control::ForceStart(const std::vector<uint32_t>& uids) const {
  sdk::ExclusiveFileLockGuard guard(lock_path, kLockRetries);
  if (!LockHeld(guard)) return false;
  const record::GlobalPOP3Config config = GetPOP3Config();
  if (!config.enabled) return true;
  std::set<uint32_t> tracked = GetPOP3UidSet();
  return TrackStart(uids, tracked, config.period * kSecondsPerMinute);
}

bool Pop3Control::ForceStop(const std::vector<uint32_t>& uids) const {
  sdk::ExclusiveFileLockGuard guard(lock_path, kLockRetries);
  if (!LockHeld(guard)) return false;
  std::set<uint32_t> tracked = GetPOP3UidSet();
  return TrackStop(uids, tracked);
}

bool Pop3Control::UidListStart() const {
  sdk::ExclusiveFileLockGuard guard(lock_path, kLockRetries);
  if (!LockHeld(guard)) return false;
  const record::GlobalPOP3Config config = GetPOP3Config();
  if (!config.enabled) return true;
  for (uint32_t uid : GetPOP3UidSet()) {
    if (!DownPrivilegeFork(uid, ACTION_START, config.period * kSecondsPerMinute)) {
      VELMORA_LOG("Start fetch daemon (%u) fail", uid);
    }
  }
  return true;
}

bool Pop3Control::UidListStop() const {
  sdk::ExclusiveFileLockGuard guard(lock_path, kLockRetries);
  if (!LockHeld(guard)) return false;
  for (uint32_t uid : GetPOP3UidSet()) {
    if (!DownPrivilegeFork(uid, ACTION_STOP, 0)) {
      VELMORA_LOG_AT(VELMORA_LOG_DEBUG, "Stop fetch daemon (%u) fail", uid);
    }
  }
  return true;
}

bool Pop3Control::SetThenRestart(const record::GlobalPOP3Config& config) const {
  sdk::ExclusiveFileLockGuard guard(lock_path, kLockRetries);
  if (!LockHeld(guard)) return false;
  const record::GlobalPOP3Config old = GetPOP3Config();
  if (old.enabled == config.enabled && old.period == config.period) return true;
  if (!SetPOP3Config(config)) {
    VELMORA_LOG("Refresh pop3 global config fail");
    return false;
  }
  const int pid = OLIBCProcForkChildNoWait();
  if (pid == -1) {
    VELMORA_LOG("Failed to fork");
    return false;
  }
  if (pid != 0) return true;
  // The detached child runs beside the parent, which releases the lock as it
  // returns, so the restarts run unlocked. It ends without running any of the
  // parent's clean-up.
  try {
    for (uint32_t uid : GetPOP3UidSet()) {
      if (old.enabled && !DownPrivilegeFork(uid, ACTION_STOP, 0)) {
        VELMORA_LOG_AT(VELMORA_LOG_DEBUG, "Stop %u pop3 fetch daemon fail", uid);
      }
      if (config.enabled &&
          !DownPrivilegeFork(uid, ACTION_START, config.period * kSecondsPerMinute)) {
        VELMORA_LOG("Refresh POP3Daemon(%d) error", static_cast<int>(uid));
      }
    }
  } catch (...) {
  }
  ChildExit(0);
}

}  // namespace settings
}  // namespace velmora
