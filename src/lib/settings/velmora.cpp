// The web client's feature switches and the POP3 fetch service: its global
// switch, its list of started users, the users' fetchmail control files and
// the per-user fetchmail daemons, each started or stopped in a forked child
// under the user's identity.
//
// Map of this file:
// - client switches: GetVelmoraConfig, SetVelmoraConfig, GetCustomLogoVersion
//   (the key=value file quillbox.conf);
// - POP3 files: GetPOP3Config and SetPOP3Config (the global switch file),
//   GetPOP3UidSet, TrackStart and TrackStop (the list of started users),
//   ModifyFetchmailrc (a user's fetchmail control file);
// - daemon control: Start and Stop (in the child, as the user),
//   DownPrivilegeFork (the child and the wait for it), and the locked entry
//   points ForceStart, ForceStop, UidListStart, UidListStop, SetThenRestart.
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
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <velmora/common.h>
#include <velmora/file.h>
#include <velmora/settings.h>

#include "lib/child_exit.h"
#include "lib/log.h"
#include "lib/posix_io.h"
#include "lib/sdk/owned_temp_file.h"
#include "platform/orvo_platform.h"

namespace velmora {
namespace settings {
namespace {

constexpr char kLogModule[] = "src/lib/settings/velmora";

// The programs run, and the flags handed to OLIBCExecl with them (their
// meaning belongs to the platform).
constexpr int kExeclFlags = 187;
constexpr char kBackendTool[] = "/var/packages/Velmora-Server/target/bin/orvo_mailserver_backend";
constexpr char kFetchmail[] = "/var/packages/Quillbox/target/bin/fetchmail";

// The client switch file, read into a table of this size, and the logo.
constexpr char kSettingsDir[] = "/var/packages/Velmora-Server/etc/velmora/";
constexpr char kClientConfPath[] = "/var/packages/Velmora-Server/etc/velmora/quillbox.conf";
constexpr int kKeyTableSize = 1024;
constexpr char kCustomLogoPath[] = "/var/packages/Velmora-Server/etc/velmora/custom_logo.png";

// The package account, and the mode of the files handed to it.
constexpr char kPackageAccount[] = "Velmora-Server";
constexpr mode_t kPackageFileMode = 0644;

// The users' mail and the instance locks, with the further attempts, one
// second apart, to take an entry point's lock.
constexpr char kSpoolDir[] = "/var/spool/mail/";
constexpr char kLockDir[] = "/var/lock/velmora_server/";
constexpr unsigned long kLockRetries = 60;

// A user's fetchmail files, below UserFetchMailPath, and the line of the
// control file that sets the poll interval.
constexpr char kControlFileName[] = "quillbox_pop3_fetch";
constexpr char kPidFileName[] = "quillbox_fetchmail.pid";
constexpr char kIdFileName[] = "quillbox_fetchmail.id";
constexpr char kSetDaemon[] = "set daemon";

// Minutes between polls when the switch file does not say.
constexpr uint32_t kDefaultPeriod = 5;
constexpr uint32_t kSecondsPerMinute = 60;

std::string FormatUnsigned(uint32_t value) {
  char text[16];
  // NOLINTNEXTLINE(cert-err33-c): any 32-bit value fits
  std::snprintf(text, sizeof(text), "%u", value);
  return text;
}

// Looks up the package's system account; false when it does not exist.
bool LookUpPackageAccount(uid_t* uid, gid_t* gid) {
  return internal::WithPasswdEntryOf(kPackageAccount, [uid, gid](const struct passwd& pw) {
    *uid = pw.pw_uid;
    *gid = pw.pw_gid;
    return true;
  });
}

// Hands a temporary file just made to the package account with the package's
// file mode, before anything is written to it. False when the file was not
// made, the account does not exist or the hand-over fails.
bool PrepareForPackage(sdk::internal::OwnedTempFile& temp) {
  sdk::internal::FileOwner owner{0, 0, kPackageFileMode};
  return temp.valid() && LookUpPackageAccount(&owner.uid, &owner.gid) && temp.Prepare(owner);
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
  const bool set = internal::WithPasswdEntryOf(uid, [](const struct passwd& pw) {
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

// How far ReadFileText got.
enum class ReadResult { kNotOpened, kReadFailed, kWhole };

// Appends the bytes of the file at `path` to `text`. After a failed read
// `text` holds what came before it.
ReadResult ReadFileText(const std::string& path, std::string* text) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return ReadResult::kNotOpened;
  ScopeGuard close_fd([fd] { close(fd); });
  // One allocation of the file's size (and room for a final newline or a
  // longer "set daemon" line) instead of a string that doubles as it fills.
  constexpr size_t kSlack = 64;
  struct stat st;
  if (fstat(fd, &st) == 0 && st.st_size > 0) {
    text->reserve(text->size() + static_cast<size_t>(st.st_size) + kSlack);
  }
  return internal::ReadAll(fd, text) ? ReadResult::kWhole : ReadResult::kReadFailed;
}

// The line of `text` that starts at `*pos`, without its "\n"; `*pos` moves to
// the start of the next line. Lines are cut at "\n" only: a "\r" or a NUL
// stays in the line.
std::string NextLine(const std::string& text, size_t* pos) {
  const size_t newline = text.find('\n', *pos);
  const size_t end = newline == std::string::npos ? text.size() : newline;
  std::string line = text.substr(*pos, end - *pos);
  *pos = newline == std::string::npos ? text.size() : newline + 1;
  return line;
}

// Replaces, in place, every line of the fetchmail control file `text` that
// starts with "set daemon" by `daemon_line`, and ends the last line with
// "\n" if it has none. In place, so that a rewrite holds one copy of the
// file: the control files are rewritten at every daemon start.
void ReplaceDaemonLines(std::string* text, const std::string& daemon_line) {
  const size_t prefix_size = sizeof(kSetDaemon) - 1;
  for (size_t pos = 0; pos < text->size();) {
    size_t newline = text->find('\n', pos);
    if (newline == std::string::npos) {
      text->push_back('\n');
      newline = text->size() - 1;
    }
    if (newline - pos >= prefix_size && text->compare(pos, prefix_size, kSetDaemon) == 0) {
      text->replace(pos, newline - pos, daemon_line);
      newline = pos + daemon_line.size();
    }
    pos = newline + 1;
  }
}

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
  // The switch, then the period in minutes; a file that cannot be read to
  // its end gives what came before the failure.
  std::string text;
  if (ReadFileText(pop3_config_path, &text) == ReadResult::kNotOpened) {
    VELMORA_LOG("fail open Global pop3.config file");
    config.period = 0;
    return config;
  }
  size_t pos = 0;
  const std::string enabled = NextLine(text, &pos);
  const std::string period = NextLine(text, &pos);
  config.enabled = enabled == "true";
  if (!period.empty()) {
    config.period = static_cast<uint32_t>(std::strtoul(period.c_str(), nullptr, 10));
  }
  return config;
}

bool Pop3Control::SetPOP3Config(const record::GlobalPOP3Config& config) const {
  sdk::internal::OwnedTempFile temp(pop3_config_path);
  if (!PrepareForPackage(temp)) {
    VELMORA_LOG("initialize temp file failed");
    return false;
  }
  temp.Write(std::string(config.enabled ? "true" : "false") + "\n" + FormatUnsigned(config.period) +
             "\n");
  if (temp.Commit() < 0) return false;
  return Propagate(pop3_config_path);
}

std::set<uint32_t> Pop3Control::GetPOP3UidSet() const {
  std::set<uint32_t> uids;
  if (!sdk::Exist(uid_list_path)) return uids;
  // A list that cannot be read to its end gives the uids before the failure.
  std::string text;
  if (ReadFileText(uid_list_path, &text) == ReadResult::kNotOpened) {
    VELMORA_LOG("fail open Global pop3_uid.config file");
    return uids;
  }
  // Formatted extraction: white space between numbers, and the read ends at
  // the first token that is not an unsigned number fitting 32 bits.
  std::istringstream in(text);
  std::vector<uint32_t> read;
  // About one uid per six bytes ("61001\n"), within reason.
  read.reserve(std::min<size_t>(text.size() / 6 + 16, size_t{1} << 20));
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
  sdk::internal::FileOwner owner;
  if (!sdk::internal::OwnerOf(path, &owner)) {
    VELMORA_LOG("Stat file error");
    return false;
  }
  sdk::internal::OwnedTempFile temp(path);
  if (!temp.Prepare(owner)) {
    VELMORA_LOG("initialize temp file failed");
    return false;
  }
  // A file opened but not readable to its end (a directory, an I/O error) is
  // not replaced by what was read of it.
  std::string text;
  if (ReadFileText(path, &text) != ReadResult::kWhole) {
    VELMORA_LOG("fail open quillbox pop3 fetch file");
    return false;
  }
  ReplaceDaemonLines(&text, std::string(kSetDaemon) + " " + FormatUnsigned(interval));
  temp.Write(text);
  return temp.Commit() >= 0;
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
  if (internal::WaitForChild(pid, &status) == -1) {
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
    if (!internal::WriteAll(fd, line.data(), line.size())) ok = false;
    appended = true;
  }
  const int fd_to_close = fd;
  fd = -1;
  if (close(fd_to_close) != 0) ok = false;
  if (appended && !Propagate(uid_list_path)) ok = false;
  return ok;
}

bool Pop3Control::TrackStop(const std::vector<uint32_t>& uids, std::set<uint32_t>& tracked) const {
  sdk::internal::OwnedTempFile temp(uid_list_path);
  if (!PrepareForPackage(temp)) {
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
  std::string text;
  for (uint32_t uid : tracked) text.append(FormatUnsigned(uid)).push_back('\n');
  temp.Write(text);
  if (temp.Commit() < 0) return false;
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
