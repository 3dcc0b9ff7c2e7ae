// features, pop3, user: the web client's feature switches, the POP3 fetch
// service of one instance, and user id/name conversion.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <velmora/settings.h>
#include <velmora/user.h>

#include "cli.h"

namespace velmoractl {
namespace {

using velmora::settings::Pop3Control;
using velmora::settings::record::GlobalPOP3Config;
using velmora::settings::record::VelmoraConfig;

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

void FeaturesGet(const Context& ctx) {
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

void FeaturesSet(Context& ctx, const std::vector<std::string>& changes) {
  VelmoraConfig config = velmora::settings::GetVelmoraConfig();
  for (const std::string& change : changes) {
    const size_t eq = change.find('=');
    const std::string name = change.substr(0, eq);
    const std::string value = eq == std::string::npos ? "" : change.substr(eq + 1);
    const Switch* found = nullptr;
    for (const Switch& s : kSwitches) {
      if (name == s.name) found = &s;
    }
    if (found == nullptr) {
      Fail(ctx, kUsage, "unknown switch '" + name + "' (see 'velmoractl features get')");
      return;
    }
    if (value != "yes" && value != "no") {
      Fail(ctx, kUsage, "switch '" + name + "' takes yes or no, not '" + value + "'");
      return;
    }
    config.*found->field = value == "yes";
  }
  errno = 0;
  if (!velmora::settings::SetVelmoraConfig(config)) {
    Fail(ctx, StatusForErrno(errno, kFailed),
         "cannot store the client switches (see the system log)");
    return;
  }
  for (const std::string& change : changes) Verbose(ctx, "set " + change);
}

// A user given by uid or by name.
bool ResolveUid(Context& ctx, const std::string& text, uint32_t& uid) {
  uint64_t value = 0;
  if (ParseUnsigned(text, UINT32_MAX, value)) {
    uid = static_cast<uint32_t>(value);
    return true;
  }
  uid = velmora::user::ConvertFromUsername(text);
  if (uid == UINT32_MAX) {
    Fail(ctx, kNotFound, "unknown user '" + text + "'");
    return false;
  }
  return true;
}

bool ResolveUids(Context& ctx, const std::vector<std::string>& users, std::vector<uint32_t>& uids) {
  for (const std::string& user : users) {
    uint32_t uid = 0;
    if (!ResolveUid(ctx, user, uid)) return false;
    uids.push_back(uid);
  }
  return true;
}

void Pop3Status(const Context& ctx, const std::string& name) {
  const GlobalPOP3Config config = Pop3Control(name).GetPOP3Config();
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
  const Pop3Control control(name);
  GlobalPOP3Config config = control.GetPOP3Config();
  if (has_enabled) config.enabled = enabled == "yes";
  if (has_period) config.period = period;
  errno = 0;
  if (!control.SetThenRestart(config)) {
    Fail(ctx, StatusForErrno(errno, kFailed),
         "cannot change the POP3 service '" + name + "' (see the system log)");
    return;
  }
  Verbose(ctx, "pop3 " + name + ": enabled=" + YesNo(config.enabled) +
                   " period=" + std::to_string(config.period));
}

void Pop3Daemons(Context& ctx, const std::string& name, const std::string& what,
                 const std::vector<std::string>& users) {
  const Pop3Control control(name);
  std::vector<uint32_t> uids;
  if (!ResolveUids(ctx, users, uids)) return;
  bool ok = false;
  errno = 0;
  if (what == "start") {
    ok = control.ForceStart(uids);
  } else if (what == "stop") {
    ok = control.ForceStop(uids);
  } else if (what == "start-all") {
    ok = control.UidListStart();
  } else {
    ok = control.UidListStop();
  }
  if (!ok) {
    Fail(ctx, StatusForErrno(errno, kFailed),
         "pop3 " + name + " " + what + " failed (see the system log)");
    return;
  }
  std::string done = "pop3 " + name + ": " + what;
  for (uint32_t uid : uids) done += " " + std::to_string(uid);
  Verbose(ctx, done);
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
// or unreadable uid list lists nobody (the library logs the unreadable one).
void Pop3List(const Context& ctx, const std::string& name) {
  const Pop3Control control(name);
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
    Fail(ctx, kUsage, "'" + text + "' is not a user id");
    return;
  }
  const std::string name = velmora::user::ConvertToUsername(static_cast<uint32_t>(uid));
  if (name.empty()) {
    Fail(ctx, kNotFound, "no user with the id " + text);
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
    Fail(ctx, kNotFound, "unknown user '" + name + "'");
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

}  // namespace

void AddSettingsCommands(CLI::App& app, Context& ctx) {
  // features [get] | features set NAME=yes|no...
  CLI::App* features =
      app.add_subcommand("features", "Show (default) or change the web client's feature switches");
  features->require_subcommand(0, 1);
  CLI::App* features_get =
      features->add_subcommand("get", "Print the eight switches and the custom logo version");
  features_get->callback([&ctx] { FeaturesGet(ctx); });
  auto changes = std::make_shared<std::vector<std::string>>();
  CLI::App* features_set = features->add_subcommand(
      "set", "Change switches (read, change, write back) and propagate the file");
  features_set->add_option("NAME=VALUE", *changes, "A switch and yes or no, e.g. enable_chat=no")
      ->required();
  features_set->callback([&ctx, changes] { FeaturesSet(ctx, *changes); });
  // Subcommand callbacks run before their parent's: without one, show.
  features->callback([&ctx, features] {
    if (features->get_subcommands().empty()) FeaturesGet(ctx);
  });

  // pop3 NAME status|set|start|stop|start-all|stop-all|list
  auto name = std::make_shared<std::string>();
  CLI::App* pop3 =
      app.add_subcommand("pop3", "The POP3 fetch service of one instance and its user daemons");
  pop3->add_option("NAME", *name, "Instance name (e.g. quillbox)")->required();
  pop3->require_subcommand(1);

  CLI::App* status = pop3->add_subcommand("status", "Print the service switch and its period");
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
  set->callback([&ctx, name, enabled, period, enabled_opt, period_opt] {
    Pop3Set(ctx, *name, *enabled, enabled_opt->count() > 0, *period, period_opt->count() > 0);
  });

  struct Daemons {
    const char* what;
    const char* help;
    bool takes_users;
  };
  static const Daemons kDaemons[] = {
      {"start", "Start the daemons of these users (if the service is on) and list them", true},
      {"stop", "Stop the daemons of these users and remove them from the list", true},
      {"start-all", "Start the daemon of every listed user (if the service is on)", false},
      {"stop-all", "Stop the daemon of every listed user; the list is kept", false},
  };
  for (const Daemons& d : kDaemons) {
    auto users = std::make_shared<std::vector<std::string>>();
    CLI::App* sub = pop3->add_subcommand(d.what, d.help);
    if (d.takes_users) sub->add_option("USER", *users, "User id or name")->required();
    const std::string what = d.what;
    sub->callback([&ctx, name, what, users] { Pop3Daemons(ctx, *name, what, *users); });
  }

  CLI::App* list = pop3->add_subcommand(
      "list", "Print each listed user's daemon: uid, user, pid, state and interval");
  list->footer(kListFooter);
  list->callback([&ctx, name] { Pop3List(ctx, *name); });

  // user name UID | user uid NAME
  CLI::App* user = app.add_subcommand("user", "Convert a user id to its name and back");
  user->require_subcommand(1);
  auto uid_text = std::make_shared<std::string>();
  CLI::App* user_name = user->add_subcommand("name", "Print the name of the user with this id");
  user_name->add_option("UID", *uid_text, "User id")->required();
  user_name->callback([&ctx, uid_text] { UserName(ctx, *uid_text); });
  auto user_text = std::make_shared<std::string>();
  CLI::App* user_uid = user->add_subcommand("uid", "Print the id of the user with this name");
  user_uid->add_option("NAME", *user_text, "User name")->required();
  user_uid->callback([&ctx, user_text] { UserUid(ctx, *user_text); });
}

}  // namespace velmoractl
