// features, pop3, user: the web client's feature switches, the POP3 fetch
// service of one instance, and user id/name conversion.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <pwd.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <velmora/common.h>
#include <velmora/file.h>
#include <velmora/settings.h>
#include <velmora/user.h>

#include "cli.h"

namespace velmoractl {
namespace {

using velmora::settings::Pop3Control;
using velmora::settings::record::GlobalPOP3Config;
using velmora::settings::record::VelmoraConfig;

// The client settings file and its directory, as settings.h names them.
constexpr char kSettingsDir[] = "/var/packages/Velmora-Server/etc/velmora/";
constexpr char kClientConf[] = "/var/packages/Velmora-Server/etc/velmora/quillbox.conf";
// The table size and separator with which the library reads that file.
constexpr int kKeyTableSize = 1024;
// The account that the library hands the lock and the service's files to.
constexpr char kPackageAccount[] = "Velmora-Server";

// The switches by their key in the client settings file, in record order.
struct Switch {
  const char* name;
  bool VelmoraConfig::*field;
};
constexpr Switch kSwitches[] = {
    {"disable_pgp", &VelmoraConfig::disable_pgp},
    {"disable_smtp_sender_name", &VelmoraConfig::disable_smtp_sender_name},
    {"enable_sharing_link", &VelmoraConfig::enable_sharing_link},
    {"is_custom_logo", &VelmoraConfig::is_custom_logo},
    {"enable_chat", &VelmoraConfig::enable_chat},
    {"enable_calendar", &VelmoraConfig::enable_calendar},
    {"enable_externalsource", &VelmoraConfig::enable_externalsource},
    {"disable_shared_mailbox", &VelmoraConfig::disable_shared_mailbox},
};

const char* YesNo(bool on) { return on ? "yes" : "no"; }

// NOLINTNEXTLINE(concurrency-mt-unsafe): velmoractl runs one thread
std::string Reason(int err) { return std::string(": ") + std::strerror(err); }

// "path/to/file" -> "path/to/" (the directory with its slash).
std::string DirOf(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

// ---- Files the library reads or writes ----

// The library takes a settings file that it cannot read for a missing one
// (the defaults). This tells them apart first: true when `path` is missing
// or a regular file that the caller may open for reading; otherwise fails
// with 5 (permission) or 1 (not a file, other errors).
bool CheckReadable(Context& ctx, const std::string& path, const std::string& what) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) {
    const int err = errno;
    if (err == ENOENT || err == ENOTDIR) return true;
    Fail(ctx, StatusForErrno(err, kFailed), "cannot read " + what + ": " + path + Reason(err));
    return false;
  }
  struct stat st;
  const bool regular = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  close(fd);
  if (!regular) {
    Fail(ctx, kFailed, "cannot read " + what + ": " + path + " is not a regular file");
    return false;
  }
  return true;
}

// True when the caller may create and rename files in the directory `dir`;
// otherwise false with errno set (access(2) with the real ids, which are the
// effective ones: the tool is not set-id).
bool CanWriteIn(const std::string& dir) { return access(dir.c_str(), W_OK | X_OK) == 0; }

// True when `gid` is the caller's effective or a supplementary group.
bool InGroup(gid_t gid) {
  if (gid == getegid()) return true;
  const int count = getgroups(0, nullptr);
  if (count <= 0) return false;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  const int got = getgroups(count, groups.data());
  return got > 0 && std::find(groups.begin(), groups.begin() + got, gid) != groups.begin() + got;
}

// The uid of the package account; false when it has none.
bool PackageAccount(uid_t& uid) {
  long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(hint > 0 ? static_cast<size_t>(hint) : 1024);
  for (;;) {
    struct passwd pw;
    struct passwd* found = nullptr;
    const int rc = getpwnam_r(kPackageAccount, &pw, buf.data(), buf.size(), &found);
    if (rc == ERANGE && buf.size() < (1u << 20)) {
      buf.resize(buf.size() * 2);
      continue;
    }
    if (rc != 0 || found == nullptr) return false;
    uid = found->pw_uid;
    return true;
  }
}

// ---- Client feature switches ----

void FeaturesGet(Context& ctx) {
  if (!CheckReadable(ctx, kClientConf, "the client switches")) return;
  const VelmoraConfig config = velmora::settings::GetVelmoraConfig();
  const long logo = velmora::settings::GetCustomLogoVersion();
  if (ctx.json) {
    Json::Value out(Json::objectValue);
    for (const Switch& s : kSwitches) out[s.name] = config.*s.field;
    out["custom_logo_version"] = static_cast<Json::Int64>(logo);
    PrintJson(out);
    return;
  }
  for (const Switch& s : kSwitches) std::cout << s.name << '=' << YesNo(config.*s.field) << '\n';
  std::cout << "custom_logo_version=" << logo << '\n';
}

// Why a caller other than root could not store the client switches; ""
// when nothing is in the way. SetVelmoraConfig creates the missing
// directories, reads the file, writes a new file beside it with the old
// one's owner and group and renames it over the old one.
std::string StoreObstacle() {
  std::string dir = kSettingsDir;
  struct stat st;
  if (stat(kSettingsDir, &st) != 0) {
    // MkDir creates every missing level below the deepest existing one.
    while (dir.size() > 1 && stat(dir.c_str(), &st) != 0) {
      dir = DirOf(dir.substr(0, dir.size() - 1));
    }
  }
  if (!CanWriteIn(dir)) return "no write access to " + dir;
  // Reading it was checked before.
  if (stat(kClientConf, &st) != 0) return "";
  // Only root may give the new file another owner or a foreign group.
  if (st.st_uid != geteuid() || !InGroup(st.st_gid)) {
    return std::string(kClientConf) + " belongs to another user or group";
  }
  return "";
}

// The identity of a file, to tell whether it was replaced.
struct FileId {
  bool exists = false;
  dev_t dev = 0;
  ino_t ino = 0;
};

FileId IdOf(const std::string& path) {
  FileId id;
  struct stat st;
  if (stat(path.c_str(), &st) == 0) {
    id.exists = true;
    id.dev = st.st_dev;
    id.ino = st.st_ino;
  }
  return id;
}

// After a failed SetVelmoraConfig: true when the file was replaced (the
// library writes a new file and renames it) and now holds every switch as
// asked, that is when only the propagation failed.
bool SwitchesStored(const VelmoraConfig& config, const FileId& before) {
  const FileId now = IdOf(kClientConf);
  if (!now.exists || (before.exists && now.dev == before.dev && now.ino == before.ino)) {
    return false;
  }
  velmora::sdk::FileKeyValue file(kClientConf);
  if (!file.ReadKeyValues(kKeyTableSize, "=")) return false;
  for (const Switch& s : kSwitches) {
    if (!file.Contains(s.name) || file.Get(s.name) != YesNo(config.*s.field)) return false;
  }
  return true;
}

void FeaturesSet(Context& ctx, const std::vector<std::string>& changes) {
  std::vector<std::pair<const Switch*, bool>> parsed;
  for (const std::string& change : changes) {
    const size_t eq = change.find('=');
    const std::string name = change.substr(0, eq);
    const std::string value = eq == std::string::npos ? "" : change.substr(eq + 1);
    const Switch* found = nullptr;
    for (const Switch& s : kSwitches) {
      if (name == s.name) found = &s;
    }
    if (found == nullptr) {
      Fail(ctx, kUsage, "unknown switch " + Quote(name) + " (see 'velmoractl features get')");
      return;
    }
    if (value != "yes" && value != "no") {
      Fail(ctx, kUsage, "switch " + Quote(name) + " takes yes or no, not " + Quote(value));
      return;
    }
    parsed.emplace_back(found, value == "yes");
  }
  if (!CheckReadable(ctx, kClientConf, "the client switches")) return;
  if (geteuid() != 0) {
    const std::string obstacle = StoreObstacle();
    if (!obstacle.empty()) {
      Fail(ctx, kDenied, "cannot store the client switches: " + obstacle);
      return;
    }
  }
  VelmoraConfig asked = velmora::settings::GetVelmoraConfig();
  for (const auto& change : parsed) asked.*change.first->field = change.second;
  const FileId before = IdOf(kClientConf);
  if (!velmora::settings::SetVelmoraConfig(asked)) {
    if (SwitchesStored(asked, before)) {
      Fail(ctx, kFailed,
           "the client switches were stored, but propagating the change failed (see the system "
           "log)");
    } else {
      Fail(ctx, kFailed, "cannot store the client switches (see the system log)");
    }
    return;
  }
  for (const std::string& change : changes) Verbose(ctx, "set " + change);
}

// ---- POP3 instances ----

constexpr size_t kMaxInstanceName = 64;

// 1 to 64 ASCII letters, digits, '_' and '-', not starting with '-': the
// name goes into the service's paths (settings, spool, lock).
bool ValidInstanceName(const std::string& name) {
  if (name.empty() || name.size() > kMaxInstanceName || name[0] == '-') return false;
  for (char c : name) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '_' || c == '-';
    if (!ok) return false;
  }
  return true;
}

CLI::Validator InstanceName() {
  return CLI::Validator(
      // cppcheck-suppress constParameter ; CLI11 hands validators a std::string&
      [](std::string& text) -> std::string {
        if (ValidInstanceName(text)) return std::string();
        return "expects 1 to 64 letters, digits, '_' or '-', not starting with '-'; not " +
               Quote(text);
      },
      "", "InstanceName");
}

// An instance is known when its settings file or its spool directory
// spool_root/db (which holds its uid list) exists. Fails with 3 for an
// unknown one, 5 when that cannot be examined.
bool CheckKnown(Context& ctx, const std::string& name, const Pop3Control& control) {
  const std::string db = control.spool_root + "/db";
  for (const std::string& path : {control.pop3_config_path, db}) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0) {
      if (path != db || S_ISDIR(st.st_mode)) return true;
      continue;
    }
    const int err = errno;
    if (err != ENOENT && err != ENOTDIR) {
      Fail(ctx, StatusForErrno(err, kFailed), "cannot examine " + path + Reason(err));
      return false;
    }
  }
  Fail(ctx, kNotFound, "unknown POP3 instance " + Quote(name));
  return false;
}

// The service switch as GetPOP3Config reads it, after making sure that an
// existing file can be read: the library takes an unreadable one for "off,
// period 0".
bool ReadSwitch(Context& ctx, const std::string& name, const Pop3Control& control,
                GlobalPOP3Config& config) {
  if (!CheckReadable(ctx, control.pop3_config_path,
                     "the settings of the POP3 service " + Quote(name))) {
    return false;
  }
  config = control.GetPOP3Config();
  return true;
}

// Before an entry point that takes the instance's lock (ForceStart,
// ForceStop, UidListStart, UidListStop, SetThenRestart): the library tries
// a lock file that it cannot open again and again for about a minute, a log
// line each time, and fails when the lock cannot be handed to the package
// account. Those causes are reported at once instead. `command` heads the
// messages.
bool CheckLock(Context& ctx, const std::string& command, const std::string& name,
               const Pop3Control& control) {
  const std::string dir = DirOf(control.lock_path);
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) {
    const int err = errno;
    if (err == ENOENT) {
      Fail(ctx, kFailed, command + ": the lock directory " + dir + " does not exist");
    } else {
      Fail(ctx, StatusForErrno(err, kFailed),
           command + ": cannot examine the lock directory " + dir + Reason(err));
    }
    return false;
  }
  if (!S_ISDIR(st.st_mode)) {
    Fail(ctx, kFailed, command + ": the lock directory " + dir + " is not a directory");
    return false;
  }
  // The open that the library makes, without its O_CREAT, for a lock file
  // that exists; for a missing one, whether it may be created.
  const int fd = open(control.lock_path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd >= 0) {
    close(fd);
  } else if (errno != ENOENT) {
    const int err = errno;
    Fail(ctx, StatusForErrno(err, kFailed),
         command + ": cannot open the lock file " + control.lock_path + Reason(err));
    return false;
  } else if (!CanWriteIn(dir)) {
    const int err = errno;
    Fail(ctx, StatusForErrno(err, kFailed),
         command + ": cannot create the lock file " + control.lock_path + Reason(err));
    return false;
  }
  // The lock is then handed to the package account: root or that account.
  uid_t account = 0;
  if (!PackageAccount(account)) {
    Fail(ctx, kFailed, command + ": the account " + kPackageAccount + " does not exist");
    return false;
  }
  const uid_t self = geteuid();
  if (self != 0 && self != account) {
    Fail(ctx, kDenied,
         command + ": only root and " + kPackageAccount + " may control the POP3 service " +
             Quote(name));
    return false;
  }
  return true;
}

// For a caller other than root: that it may write where `command` writes.
// `path` is a file that is appended to when it exists (or else created in
// its directory) when `append`, else one that is replaced through a new
// file in its directory.
bool CheckWritable(Context& ctx, const std::string& command, const std::string& path, bool append) {
  if (geteuid() == 0) return true;
  std::string target = DirOf(path);
  bool ok = false;
  if (append && access(path.c_str(), F_OK) == 0) {
    target = path;
    ok = access(path.c_str(), W_OK) == 0;
  } else {
    ok = CanWriteIn(target);
  }
  if (ok) return true;
  const int err = errno;
  Fail(ctx, StatusForErrno(err, kFailed), command + ": cannot write " + target + Reason(err));
  return false;
}

// ---- Users ----

// A user given by uid or by name, with an account. With `listed_in`, a
// uid of its uid list may lack one (a user removed since its daemon was
// started, who can still be stopped and unlisted).
bool ResolveUser(Context& ctx, const std::string& text, const Pop3Control* listed_in,
                 uint32_t& uid) {
  uint64_t value = 0;
  if (ParseUnsigned(text, UINT32_MAX, value)) {
    uid = static_cast<uint32_t>(value);
    if (!velmora::user::ConvertToUsername(uid).empty()) return true;
    if (listed_in != nullptr && listed_in->GetPOP3UidSet().count(uid) != 0) return true;
    Fail(ctx, kNotFound, "no user with the id " + std::to_string(uid));
    return false;
  }
  uid = velmora::user::ConvertFromUsername(text);
  if (uid == UINT32_MAX) {
    Fail(ctx, kNotFound, "unknown user " + Quote(text));
    return false;
  }
  return true;
}

// ---- Daemon control ----

// Forks made by this process. The library forks a child for each daemon
// that it starts or stops, and SetThenRestart its restart child once the
// new switch is stored and propagated; no fork during such a call means
// that none of that was tried. The programs that it runs are spawned.
std::atomic<unsigned long> g_forks{0};

void CountFork() { g_forks.fetch_add(1, std::memory_order_relaxed); }

// Registers the counter once; false when that failed.
bool CountingForks() {
  static const bool ready = pthread_atfork(CountFork, nullptr, nullptr) == 0;
  return ready;
}

// What one daemon control call did.
struct DaemonRun {
  bool ok = false;
  unsigned long forks = 0;
  std::set<uint32_t> failed;  // uids whose start or stop the library logged as failed
  bool fork_failed = false;   // some of them because the fork or the wait failed
};

// A duplicate of `fd` numbered above the standard descriptors, close-on-exec;
// closes `fd`. -1 on failure.
int AboveStdio(int fd) {
  if (fd < 0 || fd > STDERR_FILENO) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  close(fd);
  return moved;
}

// The daemon children report their result only through the system log. To
// read those lines, the call runs with LOG_PERROR, which makes syslog(3)
// also write each line to descriptor 2; that descriptor points into a
// private in-memory file meanwhile, and the forked children inherit both.
// The system log receives the same lines as always. Returns the library's
// lines (the text after "<tag>: "), and passes whatever else landed there
// (the programs' own messages) on to stderr. False when the copy cannot
// be set up; `call` has not run then.
bool RunWithLogCopy(const std::function<void()>& call, std::vector<std::string>& lines, int& err) {
  const int mem = AboveStdio(memfd_create("velmoractl-log", MFD_CLOEXEC));
  if (mem < 0) {
    err = errno;
    return false;
  }
  // The children get a write-only descriptor of their own, so that a
  // daemon cannot read what others wrote before it.
  int writer =
      open(("/proc/self/fd/" + std::to_string(mem)).c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (writer < 0) writer = fcntl(mem, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  writer = AboveStdio(writer);
  if (writer < 0) {
    err = errno;
    close(mem);
    return false;
  }
  // A closed stderr (EBADF) is closed again afterwards.
  const int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (saved < 0 && errno != EBADF) {
    err = errno;
    close(writer);
    close(mem);
    return false;
  }
  std::cerr.flush();
  dup2(writer, STDERR_FILENO);
  close(writer);
  openlog(nullptr, LOG_PERROR, LOG_USER);
  {
    const velmora::ScopeGuard restore([saved] {
      openlog(nullptr, 0, LOG_USER);
      if (saved >= 0) {
        dup2(saved, STDERR_FILENO);
        close(saved);
      } else {
        close(STDERR_FILENO);
      }
    });
    call();
  }

  std::string text;
  char buf[8192];
  for (off_t pos = 0;;) {
    const ssize_t n = pread(mem, buf, sizeof(buf), pos);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
    pos += n;
  }
  close(mem);

  const std::string head = std::string(program_invocation_short_name) + ": src/lib/";
  const size_t tag = std::strlen(program_invocation_short_name) + 2;
  std::string other;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    end = end == std::string::npos ? text.size() : end + 1;
    const std::string line = text.substr(start, end - start);
    if (line.compare(0, head.size(), head) == 0) {
      lines.push_back(line.substr(tag, line.size() - tag - (line.back() == '\n' ? 1 : 0)));
    } else {
      other += line;
    }
    start = end;
  }
  if (!other.empty()) std::cerr << other << std::flush;
  return true;
}

// The uid in `message` when it is `before`, a decimal number (the library
// prints some uids as signed ints) and `after`.
bool UidBetween(const std::string& message, const std::string& before, const std::string& after,
                uint32_t& uid) {
  if (message.size() <= before.size() + after.size() ||
      message.compare(0, before.size(), before) != 0 ||
      message.compare(message.size() - after.size(), after.size(), after) != 0) {
    return false;
  }
  std::string number = message.substr(before.size(), message.size() - before.size() - after.size());
  const bool negative = number[0] == '-';
  if (negative) number.erase(0, 1);
  uint64_t value = 0;
  if (!ParseUnsigned(number, negative ? 0x80000000u : UINT32_MAX, value)) return false;
  uid = static_cast<uint32_t>(negative ? (0x100000000u - value) : value);
  return true;
}

// Files the uids that the library's lines name as failed. A daemon child
// logs "<Start|Stop> POP3Daemon for user(UID) error" when its start or stop
// failed; the parent logs a line of its own when the fork or the wait
// failed.
void CollectFailures(const std::vector<std::string>& lines, bool start, DaemonRun& run) {
  const std::string head = "src/lib/settings/velmora:";
  const std::string self = ": " + velmora::sdk::GetProcessName() + ": ";
  const std::string verb = start ? "Start" : "Stop";
  for (const std::string& line : lines) {
    if (line.compare(0, head.size(), head) != 0) continue;
    size_t pos = head.size();
    while (pos < line.size() && line[pos] >= '0' && line[pos] <= '9') ++pos;
    if (pos == head.size() || line.compare(pos, self.size(), self) != 0) continue;
    const std::string message = line.substr(pos + self.size());
    uint32_t uid = 0;
    if (UidBetween(message, verb + " POP3Daemon for user(", ") error", uid)) {
      run.failed.insert(uid);
    } else if ((start && UidBetween(message, "Start ", " fetch mail daemon fail", uid)) ||
               (!start && UidBetween(message, "Stop ", " fetchmail daemon fail", uid)) ||
               UidBetween(message, verb + " fetch daemon (", ") fail", uid)) {
      run.failed.insert(uid);
      run.fork_failed = true;
    }
  }
}

// Runs a daemon control call of the library and learns what it did.
bool RunDaemons(Context& ctx, const std::string& command, bool start,
                const std::function<bool()>& call, DaemonRun& run) {
  if (!CountingForks()) {
    Fail(ctx, kFailed, command + ": cannot count the daemon children");
    return false;
  }
  std::vector<std::string> lines;
  int err = 0;
  const unsigned long forks = g_forks.load();
  if (!RunWithLogCopy([&] { run.ok = call(); }, lines, err)) {
    Fail(ctx, kFailed, command + ": cannot read the results of the daemon children" + Reason(err));
    return false;
  }
  run.forks = g_forks.load() - forks;
  CollectFailures(lines, start, run);
  return true;
}

std::string UidList(const std::vector<uint32_t>& uids) {
  std::string text;
  for (uint32_t uid : uids) text += (text.empty() ? "" : " ") + std::to_string(uid);
  return text;
}

// "the daemon of 61001" or "the daemons of 61001 61003".
std::string DaemonsOf(const std::set<uint32_t>& uids) {
  return std::string(uids.size() == 1 ? "the daemon of " : "the daemons of ") +
         UidList(std::vector<uint32_t>(uids.begin(), uids.end()));
}

void Pop3Status(Context& ctx, const std::string& name) {
  const Pop3Control control(name);
  if (!CheckKnown(ctx, name, control)) return;
  GlobalPOP3Config config{};
  if (!ReadSwitch(ctx, name, control, config)) return;
  if (ctx.json) {
    Json::Value out(Json::objectValue);
    out["enabled"] = config.enabled;
    out["period"] = config.period;
    PrintJson(out);
    return;
  }
  std::cout << "enabled=" << YesNo(config.enabled) << '\n' << "period=" << config.period << '\n';
}

void Pop3Set(Context& ctx, const std::string& name, const std::string& enabled, bool has_enabled,
             uint32_t period, bool has_period) {
  const std::string command = "pop3 " + name + " set";
  const Pop3Control control(name);
  if (!CheckLock(ctx, command, name, control)) return;
  GlobalPOP3Config config{};
  if (!ReadSwitch(ctx, name, control, config)) return;
  if (!CheckWritable(ctx, command, control.pop3_config_path, false)) return;
  if (!CountingForks()) {
    Fail(ctx, kFailed, command + ": cannot count the restart child");
    return;
  }
  if (has_enabled) config.enabled = enabled == "yes";
  if (has_period) config.period = period;
  const std::string wanted =
      "enabled=" + std::string(YesNo(config.enabled)) + " period=" + std::to_string(config.period);
  const FileId before = IdOf(control.pop3_config_path);
  const unsigned long forks = g_forks.load();
  const bool ok = control.SetThenRestart(config);
  // The restart child is forked only after the new switch was stored and
  // propagated; the file is stored as a new one renamed into place.
  const bool forked = g_forks.load() != forks;
  if (ok) {
    Verbose(ctx, "pop3 " + name + ": " + wanted + (forked ? "" : " (unchanged)"));
    return;
  }
  const FileId now = IdOf(control.pop3_config_path);
  const GlobalPOP3Config stored = control.GetPOP3Config();
  if (now.exists && (!before.exists || now.dev != before.dev || now.ino != before.ino) &&
      stored.enabled == config.enabled && stored.period == config.period) {
    Fail(ctx, kFailed,
         command + ": stored " + wanted +
             (forked ? ", but the listed daemons could not be restarted"
                     : ", but propagating the change failed and no daemon was restarted") +
             " (see the system log)");
    return;
  }
  Fail(ctx, kFailed, "cannot change the POP3 service " + Quote(name) + " (see the system log)");
}

// What each daemon command runs and says.
enum class DaemonCommand { kStart, kStop, kStartAll, kStopAll };

// "pop3 vt start: the POP3 service 'vt' is off: ..." for a start that found
// the service off: ForceStart and UidListStart then neither start a daemon
// nor change the uid list.
void ServiceOff(Context& ctx, const std::string& command, const std::string& name,
                const std::vector<uint32_t>& uids) {
  Fail(ctx, kServiceOff,
       command + ": the POP3 service " + Quote(name) + " is off: no daemon was started" +
           (uids.empty() ? ""
                         : " and " + UidList(uids) + (uids.size() == 1 ? " was" : " were") +
                               " not added to the uid list"));
}

void Pop3Daemons(Context& ctx, const std::string& name, DaemonCommand what,
                 const std::string& what_name, const std::vector<std::string>& users) {
  const std::string command = "pop3 " + name + " " + what_name;
  const bool start = what == DaemonCommand::kStart || what == DaemonCommand::kStartAll;
  const bool all = what == DaemonCommand::kStartAll || what == DaemonCommand::kStopAll;
  const Pop3Control control(name);
  if (!CheckKnown(ctx, name, control)) return;

  // Every user first, before anything is locked, started or written.
  std::vector<uint32_t> uids;
  for (const std::string& user : users) {
    uint32_t uid = 0;
    if (!ResolveUser(ctx, user, what == DaemonCommand::kStop ? &control : nullptr, uid)) return;
    if (std::find(uids.begin(), uids.end(), uid) == uids.end()) uids.push_back(uid);
  }

  if (!CheckLock(ctx, command, name, control)) return;
  if (start) {
    GlobalPOP3Config config{};
    if (!ReadSwitch(ctx, name, control, config)) return;
    if (!config.enabled) {
      ServiceOff(ctx, command, name, uids);
      return;
    }
  }
  // ForceStart appends to the uid list, ForceStop replaces it.
  if (!all && !CheckWritable(ctx, command, control.uid_list_path, start)) return;

  DaemonRun run;
  const bool ran = RunDaemons(
      ctx, command, start,
      [&]() -> bool {
        switch (what) {
          case DaemonCommand::kStart:
            return control.ForceStart(uids);
          case DaemonCommand::kStop:
            return control.ForceStop(uids);
          case DaemonCommand::kStartAll:
            return control.UidListStart();
          case DaemonCommand::kStopAll:
            break;
        }
        return control.UidListStop();
      },
      run);
  if (!ran) return;

  if (run.forks == 0) {
    // No daemon was started or stopped.
    if (!run.ok) {
      Fail(ctx, kFailed, command + " failed (see the system log)");
    } else if (what == DaemonCommand::kStart ||
               (what == DaemonCommand::kStartAll && !control.GetPOP3Config().enabled)) {
      // A start: the service was switched off between the check above and
      // the lock. A start of all: it is off now.
      ServiceOff(ctx, command, name, uids);
    } else {
      Verbose(ctx, "pop3 " + name + ": no user is listed");
    }
    return;
  }

  const std::string done = start ? "started" : "stopped";
  if (!all) {
    std::vector<uint32_t> good;
    for (uint32_t uid : uids) {
      if (run.failed.count(uid) == 0) good.push_back(uid);
    }
    if (!good.empty()) Verbose(ctx, "pop3 " + name + ": " + done + " " + UidList(good));
  } else if (run.failed.empty()) {
    Verbose(ctx, "pop3 " + name + ": " + done + " the daemon of every listed user");
  } else {
    Verbose(ctx, "pop3 " + name + ": " + done + " the daemons of the other listed users");
  }

  std::string problem;
  if (!run.failed.empty()) {
    problem = DaemonsOf(run.failed) + (start ? " did not start" : " did not stop");
  }
  // Once the children were forked, ForceStart fails by itself only when a
  // fork failed or the uid list could not be appended to or propagated;
  // ForceStop when the list could not be replaced or propagated.
  if (!run.ok && !run.fork_failed) {
    problem += std::string(problem.empty() ? "" : ", and ") +
               "updating or propagating the uid list failed";
  }
  if (!problem.empty()) Fail(ctx, kFailed, command + ": " + problem + " (see the system log)");
}

// ---- pop3 NAME list ----

constexpr char kListFooter[] =
    "Output: one line per listed uid (ascending, no header), tab-separated columns:\n"
    "  UID  USER  PID  STATE  INTERVAL\n"
    "USER      the uid's account name; \"-\" when the uid has no account\n"
    "PID       the pid on the first line of the user's quillbox_fetchmail.pid;\n"
    "          \"-\" when there is none\n"
    "STATE     running  the pid file names a live process that is not a zombie\n"
    "                   (whether that process is fetchmail is not checked)\n"
    "          stopped  there is no pid file\n"
    "          stale    the pid file's first line is not a pid (PID \"-\"),\n"
    "                   or that process has ended\n"
    "          unknown  the pid file cannot be read: permission denied (caller\n"
    "                   neither root nor the user), not a regular file, I/O error\n"
    "INTERVAL  the seconds on the last line of the user's quillbox_pop3_fetch that\n"
    "          begins with \"set daemon\"; \"-\" when that file is missing or cannot\n"
    "          be read, has no such line, or that line has no number\n"
    "--json prints one line: an array of objects with the keys uid, user, pid,\n"
    "state and interval; user is \"\" for a uid without an account and null stands\n"
    "for the other \"-\". A missing or unreadable uid list lists nobody (status 0);\n"
    "a fetch file that cannot be read shows as above and does not fail the\n"
    "listing. Reads only: takes no lock, starts or stops no daemon and changes\n"
    "none of the service's files.";

// What the listing says about a user's fetch daemon, from its pid file.
enum class DaemonState {
  kRunning,  // the pid file names a live process that is not a zombie
  kStopped,  // there is no pid file
  kStale,    // the pid file holds no pid, or its process has ended
  kUnknown,  // the pid file cannot be read (permission, not a file, I/O)
};

const char* StateName(DaemonState state) {
  switch (state) {
    case DaemonState::kRunning:
      return "running";
    case DaemonState::kStopped:
      return "stopped";
    case DaemonState::kStale:
      return "stale";
    case DaemonState::kUnknown:
      break;
  }
  return "unknown";
}

// One row of the listing.
struct DaemonRow {
  uint32_t uid = 0;
  std::string user;  // "" when the uid has no account
  DaemonState state = DaemonState::kUnknown;
  bool has_pid = false;
  pid_t pid = 0;
  bool has_interval = false;
  uint32_t interval = 0;  // seconds
};

// The fetch files belong to the user, who may have put anything in their
// place. Opens `path` for reading only if it is a regular file, so that a
// FIFO or a device can neither block the listing nor be opened as root.
// Returns the descriptor, or -1 with errno set (EINVAL: not a regular file).
int OpenRegularFile(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return -1;
  if (!S_ISREG(st.st_mode)) {
    errno = EINVAL;
    return -1;
  }
  // O_NONBLOCK and the second check cover a swap between stat and open.
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return -1;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    errno = EINVAL;
    return -1;
  }
  return fd;
}

// Reads a descriptor line by line. Keeps at most kMaxLine bytes of a line
// (what the listing looks for sits at the start of a line) and skips the
// rest of a longer one.
class LineReader {
 public:
  // cppcheck-suppress uninitMemberVar ; Fill() reads into buffer_ before any use
  explicit LineReader(int fd) : fd_(fd) {}

  // The next line without its "\n"; false at the end of the file or after
  // a read error (see failed()).
  bool Next(std::string& line) {
    line.clear();
    bool any = false;
    for (;;) {
      if (pos_ == len_ && !Fill()) return any;
      any = true;
      const char* start = buffer_ + pos_;
      const char* end = static_cast<const char*>(std::memchr(start, '\n', len_ - pos_));
      const size_t take = static_cast<size_t>((end != nullptr ? end : buffer_ + len_) - start);
      if (line.size() < kMaxLine) line.append(start, std::min(take, kMaxLine - line.size()));
      pos_ += take;
      if (end != nullptr) {
        ++pos_;
        return true;
      }
    }
  }

  bool failed() const { return failed_; }

 private:
  static constexpr size_t kMaxLine = 4096;

  bool Fill() {
    for (;;) {
      const ssize_t n = read(fd_, buffer_, sizeof(buffer_));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) failed_ = true;
      if (n <= 0) return false;
      pos_ = 0;
      len_ = static_cast<size_t>(n);
      return true;
    }
  }

  int fd_;
  char buffer_[16384];
  size_t pos_ = 0;
  size_t len_ = 0;
  bool failed_ = false;
};

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// A pid as fetchmail writes it on the first line of its pid file: a
// decimal number from 1 to 2^31 - 1, blanks around it allowed.
bool ParsePid(const std::string& line, pid_t& pid) {
  size_t begin = 0;
  size_t end = line.size();
  while (begin < end && IsBlank(line[begin])) ++begin;
  while (end > begin && IsBlank(line[end - 1])) --end;
  uint64_t value = 0;
  if (!ParseUnsigned(line.substr(begin, end - begin), INT32_MAX, value) || value == 0) {
    return false;
  }
  pid = static_cast<pid_t>(value);
  return true;
}

// True while `pid` is a process that has not ended. /proc/PID/stat gives
// the state, so that a zombie (ended, not yet reaped) counts as ended. When
// /proc does not show the process (hidepid, /proc not mounted) kill(pid, 0)
// decides; EPERM means that the process exists.
bool ProcessAlive(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/stat";
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    char text[1024];
    ssize_t n;
    do {
      n = read(fd, text, sizeof(text));
    } while (n < 0 && errno == EINTR);
    close(fd);
    // "PID (COMM) STATE ...", and COMM may itself hold ") ".
    const std::string stat(text, n > 0 ? static_cast<size_t>(n) : 0);
    const size_t paren = stat.rfind(')');
    if (paren != std::string::npos && paren + 2 < stat.size()) {
      const char state = stat[paren + 2];
      return state != 'Z' && state != 'X' && state != 'x';
    }
  }
  return kill(pid, 0) == 0 || errno == EPERM;
}

// Fills in state and pid from the pid file. Only its first line counts: a
// daemon also writes its interval on a second line.
void ReadPidFile(const std::string& path, DaemonRow& row) {
  const int fd = OpenRegularFile(path);
  if (fd < 0) {
    row.state = errno == ENOENT || errno == ENOTDIR ? DaemonState::kStopped : DaemonState::kUnknown;
    return;
  }
  LineReader reader(fd);
  std::string first;
  reader.Next(first);
  const bool failed = reader.failed();
  close(fd);
  if (failed) {
    row.state = DaemonState::kUnknown;
    return;
  }
  pid_t pid = 0;
  if (!ParsePid(first, pid)) {
    row.state = DaemonState::kStale;
    return;
  }
  row.has_pid = true;
  row.pid = pid;
  row.state = ProcessAlive(pid) ? DaemonState::kRunning : DaemonState::kStale;
}

// The control file lines that set the daemon interval begin with this.
constexpr char kSetDaemon[] = "set daemon";
constexpr size_t kSetDaemonLength = sizeof(kSetDaemon) - 1;

// The interval of a "set daemon" line: blanks, then a decimal number that
// fits 32 bits, then the end of the line, a blank or fetchmail's comment
// and noise characters. False for anything else ("set daemon", "set
// daemon 5m").
bool ParseDaemonInterval(const std::string& line, uint32_t& interval) {
  size_t pos = kSetDaemonLength;
  if (pos == line.size() || !IsBlank(line[pos])) return false;
  while (pos < line.size() && IsBlank(line[pos])) ++pos;
  size_t end = pos;
  while (end < line.size() && line[end] >= '0' && line[end] <= '9') ++end;
  if (end < line.size() && !IsBlank(line[end]) && std::strchr("#;,:", line[end]) == nullptr) {
    return false;
  }
  uint64_t value = 0;
  if (!ParseUnsigned(line.substr(pos, end - pos), UINT32_MAX, value)) return false;
  interval = static_cast<uint32_t>(value);
  return true;
}

// Fills in the interval from the last line of the control file that begins
// with "set daemon" (the one fetchmail obeys). Left absent when the file is
// missing or cannot be read, has no such line, or that line has no number.
void ReadControlFile(const std::string& path, DaemonRow& row) {
  const int fd = OpenRegularFile(path);
  if (fd < 0) return;
  LineReader reader(fd);
  std::string line;
  bool found = false;
  bool has_interval = false;
  uint32_t interval = 0;
  while (reader.Next(line)) {
    if (line.compare(0, kSetDaemonLength, kSetDaemon) != 0) continue;
    found = true;
    has_interval = ParseDaemonInterval(line, interval);
  }
  const bool failed = reader.failed();
  close(fd);
  if (failed || !found || !has_interval) return;
  row.has_interval = true;
  row.interval = interval;
}

// Reads only: no lock, no daemon control, no file of the service written
// (the Pop3Control constructor may still create the settings directory, as
// for every pop3 command). Files that the caller may not read show as state
// "unknown" and no interval; the listing itself still succeeds. A missing
// or unreadable uid list lists nobody (the library logs the unreadable one);
// an unknown instance fails with 3.
void Pop3List(Context& ctx, const std::string& name) {
  const Pop3Control control(name);
  if (!CheckKnown(ctx, name, control)) return;
  std::vector<DaemonRow> rows;
  for (uint32_t uid : control.GetPOP3UidSet()) {
    DaemonRow row;
    row.uid = uid;
    row.user = velmora::user::ConvertToUsername(uid);
    const std::string dir = control.UserFetchMailPath(uid);
    ReadPidFile(dir + "quillbox_fetchmail.pid", row);
    ReadControlFile(dir + "quillbox_pop3_fetch", row);
    rows.push_back(row);
  }
  if (ctx.json) {
    Json::Value out(Json::arrayValue);
    for (const DaemonRow& row : rows) {
      Json::Value item(Json::objectValue);
      item["uid"] = static_cast<Json::UInt>(row.uid);
      item["user"] = row.user;
      item["pid"] = row.has_pid ? Json::Value(static_cast<Json::Int>(row.pid)) : Json::Value();
      item["state"] = StateName(row.state);
      item["interval"] =
          row.has_interval ? Json::Value(static_cast<Json::UInt>(row.interval)) : Json::Value();
      out.append(item);
    }
    PrintJson(out);
    return;
  }
  for (const DaemonRow& row : rows) {
    std::cout << row.uid << '\t' << (row.user.empty() ? "-" : row.user) << '\t'
              << (row.has_pid ? std::to_string(row.pid) : "-") << '\t' << StateName(row.state)
              << '\t' << (row.has_interval ? std::to_string(row.interval) : "-") << '\n';
  }
}

void UserName(Context& ctx, const std::string& text) {
  uint64_t uid = 0;
  if (!ParseUnsigned(text, UINT32_MAX, uid)) {
    Fail(ctx, kUsage, Quote(text) + " is not a user id");
    return;
  }
  const std::string name = velmora::user::ConvertToUsername(static_cast<uint32_t>(uid));
  if (name.empty()) {
    // The number as parsed: digits only, so nothing to escape.
    Fail(ctx, kNotFound, "no user with the id " + std::to_string(uid));
    return;
  }
  if (ctx.json) {
    Json::Value out(Json::objectValue);
    out["uid"] = static_cast<Json::UInt>(uid);
    out["name"] = name;
    PrintJson(out);
  } else {
    std::cout << name << '\n';
  }
}

void UserUid(Context& ctx, const std::string& name) {
  const uint32_t uid = velmora::user::ConvertFromUsername(name);
  if (uid == UINT32_MAX) {
    Fail(ctx, kNotFound, "unknown user " + Quote(name));
    return;
  }
  if (ctx.json) {
    Json::Value out(Json::objectValue);
    out["name"] = name;
    out["uid"] = uid;
    PrintJson(out);
  } else {
    std::cout << uid << '\n';
  }
}

// The exit statuses of a command that takes the instance's lock, each
// argument the end of one status's text; an empty `unknown` or `off` leaves
// out status 3 or 7.
std::string LockedStatuses(const std::string& done, const std::string& failed,
                           const std::string& unknown, const std::string& denied,
                           const std::string& off) {
  return "0 " + done + "; 1 the lock directory /var/lock/velmora_server/ is missing, " + failed +
         " (see the system log); 2 bad command line or instance name; " +
         (unknown.empty() ? "" : "3 " + unknown + "; ") +
         "5 permission denied: the caller may not open or create the lock file, is neither root "
         "nor Velmora-Server" +
         denied + (off.empty() ? "." : "; 7 " + off + ".");
}

}  // namespace

void AddSettingsCommands(CLI::App& app, Context& ctx) {
  // features [get] | features set NAME=yes|no...
  constexpr char kShowStatuses[] =
      "0 shown; a missing settings file shows the defaults (the library's: enable_chat, "
      "enable_calendar and enable_externalsource yes, the others no); 1 the settings file cannot "
      "be read (not a regular file, I/O error); 2 bad command line; 5 permission denied: the "
      "settings file exists but the caller may not read it.";
  CLI::App* features =
      app.add_subcommand("features", "Show (default) or change the web client's feature switches");
  features->require_subcommand(0, 1);
  SetStatuses(features, kShowStatuses);
  CLI::App* features_get =
      features->add_subcommand("get", "Print the eight switches and the custom logo version");
  SetStatuses(features_get, kShowStatuses);
  features_get->callback([&ctx] { FeaturesGet(ctx); });
  auto changes = std::make_shared<std::vector<std::string>>();
  CLI::App* features_set = features->add_subcommand(
      "set", "Change switches (read, change, write back) and propagate the file");
  features_set->add_option("NAME=VALUE", *changes, "A switch and yes or no, e.g. enable_chat=no")
      ->required();
  SetStatuses(features_set,
              "0 stored and propagated; 1 not stored, or stored but propagating the change "
              "failed (the message says which; see the system log); 2 bad command line: an "
              "unknown switch or a value other than yes or no; 5 permission denied: the caller "
              "may not read the settings file or replace it (write access to its directory and, "
              "unless root, owning the file).");
  features_set->callback([&ctx, changes] { FeaturesSet(ctx, *changes); });
  // Subcommand callbacks run before their parent's: without one, show.
  features->callback([&ctx, features] {
    if (features->get_subcommands().empty()) FeaturesGet(ctx);
  });

  // pop3 NAME status|set|start|stop|start-all|stop-all|list
  auto name = std::make_shared<std::string>();
  CLI::App* pop3 =
      app.add_subcommand("pop3", "The POP3 fetch service of one instance and its user daemons");
  pop3->add_option("NAME", *name,
                   "Instance name (e.g. quillbox): 1 to 64 letters, digits, '_' or '-', not "
                   "starting with '-'")
      ->required()
      ->check(InstanceName());
  pop3->require_subcommand(1);

  CLI::App* status = pop3->add_subcommand("status", "Print the service switch and its period");
  SetStatuses(status,
              "0 shown; 2 bad command line or instance name; 3 unknown POP3 instance; 5 "
              "permission denied: the settings file exists but the caller may not read it, or "
              "the files below cannot be examined. An instance is known when its settings file "
              "/var/packages/Velmora-Server/etc/velmora/NAME_pop3.config or its spool directory "
              "/var/spool/mail/NAME/db (which holds its uid list) exists. A known instance "
              "without a settings file was never configured and shows the defaults, "
              "enabled=no period=5 (status 0).");
  status->callback([&ctx, name] { Pop3Status(ctx, *name); });

  auto enabled = std::make_shared<std::string>();
  auto period = std::make_shared<uint32_t>(0);
  CLI::App* set = pop3->add_subcommand(
      "set", "Change the switch or the period and restart the listed daemons as needed");
  CLI::Option* enabled_opt = set->add_option("--enabled", *enabled, "Turn the service on or off")
                                 ->check(CLI::IsMember({"yes", "no"}))
                                 ->type_name("yes|no");
  // period * 60 must fit the daemon interval's 32 bits.
  CLI::Option* period_opt =
      AddNumber(set, "--period", *period, 1, 71582788, "Polling period in minutes (1 to 71582788)")
          ->type_name("MIN");
  set->require_option(1, 0);
  SetStatuses(set,
              LockedStatuses("stored, or already so (-v says \"unchanged\"); after a change the "
                             "listed daemons are restarted in the background; a missing "
                             "settings file is created",
                             "the settings could not be stored, or were stored but propagating "
                             "them or forking the restart failed (the message says which)",
                             "",
                             ", may not read the settings file, or (as Velmora-Server) may "
                             "not write in the settings directory",
                             ""));
  set->callback([&ctx, name, enabled, period, enabled_opt, period_opt] {
    Pop3Set(ctx, *name, *enabled, enabled_opt->count() > 0, *period, period_opt->count() > 0);
  });

  struct Daemons {
    DaemonCommand what;
    const char* name;
    const char* help;
    std::string statuses;
  };
  const std::string list_writer =
      ", or (as Velmora-Server) may not write the uid list or its directory";
  const std::string reads_switch = ", may not read the settings file";
  const Daemons daemons[] = {
      {DaemonCommand::kStart, "start",
       "Start the daemons of these users (if the service is on) and list them",
       LockedStatuses("every daemon started and is listed (-v names them)",
                      "the daemons named did not start (they are listed all the same), or the "
                      "uid list could not be updated or propagated",
                      "unknown POP3 instance, or a user without an account (nothing is done)",
                      reads_switch + list_writer,
                      "the service is off: no daemon was started and the users were not added "
                      "to the uid list")},
      {DaemonCommand::kStop, "stop",
       "Stop the daemons of these users and remove them from the list",
       LockedStatuses("every daemon stopped and its user left the uid list",
                      "the daemons named did not stop, or the uid list could not be replaced or "
                      "propagated",
                      "unknown POP3 instance, or a user without an account who is not on the uid "
                      "list (a listed uid whose account is gone can still be stopped)",
                      list_writer, "")},
      {DaemonCommand::kStartAll, "start-all",
       "Start the daemon of every listed user (if the service is on)",
       LockedStatuses("the daemon of every listed user started, or nobody is listed; the list "
                      "is kept",
                      "the daemons named did not start", "unknown POP3 instance",
                      ", or may not read the settings file",
                      "the service is off: no daemon was started")},
      {DaemonCommand::kStopAll, "stop-all",
       "Stop the daemon of every listed user; the list is kept",
       LockedStatuses("the daemon of every listed user stopped, or nobody is listed",
                      "the daemons named did not stop", "unknown POP3 instance", "", "")},
  };
  for (const Daemons& d : daemons) {
    auto users = std::make_shared<std::vector<std::string>>();
    CLI::App* sub = pop3->add_subcommand(d.name, d.help);
    if (d.what == DaemonCommand::kStart || d.what == DaemonCommand::kStop) {
      sub->add_option("USER", *users, "User id or name")->required();
    }
    SetStatuses(sub, d.statuses);
    const DaemonCommand what = d.what;
    const std::string what_name = d.name;
    sub->callback(
        [&ctx, name, what, what_name, users] { Pop3Daemons(ctx, *name, what, what_name, *users); });
  }

  CLI::App* list = pop3->add_subcommand(
      "list", "Print each listed user's daemon: uid, user, pid, state and interval");
  list->footer(std::string(kListFooter) +
               "\nExit status: 0 listed; 2 bad command line or instance name; 3 unknown POP3 "
               "instance (see 'pop3 NAME status --help'); 5 permission denied: the instance's "
               "files cannot be examined.");
  list->callback([&ctx, name] { Pop3List(ctx, *name); });

  // user name UID | user uid NAME
  CLI::App* user = app.add_subcommand("user", "Convert a user id to its name and back");
  user->require_subcommand(1);
  auto uid_text = std::make_shared<std::string>();
  CLI::App* user_name = user->add_subcommand("name", "Print the name of the user with this id");
  user_name->add_option("UID", *uid_text, "User id")->required();
  SetStatuses(user_name, "0 printed; 2 bad command line: not a user id; 3 no user with this id.");
  user_name->callback([&ctx, uid_text] { UserName(ctx, *uid_text); });
  auto user_text = std::make_shared<std::string>();
  CLI::App* user_uid = user->add_subcommand("uid", "Print the id of the user with this name");
  user_uid->add_option("NAME", *user_text, "User name")->required();
  SetStatuses(user_uid, "0 printed; 2 bad command line; 3 no user with this name.");
  user_uid->callback([&ctx, user_text] { UserUid(ctx, *user_text); });
}

}  // namespace velmoractl
