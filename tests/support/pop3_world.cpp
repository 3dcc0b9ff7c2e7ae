#include "support/pop3_world.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>
#include <utility>

namespace velmora::test {
namespace {

constexpr char kHomes[] = "/var/tmp/home";
constexpr char kAccountCopies[] = "/run/velmora-pop3-world";
constexpr char kDovecot[] = "/usr/sbin/dovecot";

// Looks for an entry named `name` or with the id `id` (third field) in an
// account table. 1 when an entry has both, 0 when none has either, -1 when
// the name or the id belongs to some other entry.
int FindEntry(const std::string& table, const std::string& name, uint32_t id) {
  std::istringstream in(table);
  std::string line;
  const std::string id_text = std::to_string(id);
  int found = 0;
  while (std::getline(in, line)) {
    std::vector<std::string> fields;
    std::istringstream split(line);
    for (std::string field; std::getline(split, field, ':');) fields.push_back(field);
    if (fields.size() < 3) continue;
    const bool same_name = fields[0] == name;
    const bool same_id = fields[2] == id_text;
    if (same_name && same_id) {
      found = 1;
    } else if (same_name || same_id) {
      return -1;
    }
  }
  return found;
}

// Binds a copy of /etc/`file` with `extra` appended over the original.
bool ExtendAccountFile(const std::string& file, const std::string& extra) {
  if (extra.empty()) return true;
  std::string text = ReadFile("/etc/" + file);
  if (!text.empty() && text.back() != '\n') text.push_back('\n');
  text += extra;
  mkdir(kAccountCopies, 0755);
  // A new copy each time: the one bound now stays in use until it is covered.
  static int generation = 0;
  const std::string copy =
      std::string(kAccountCopies) + "/" + file + "." + std::to_string(++generation);
  return BindCopyOver(copy, text, "/etc/" + file);
}

bool RemoveTree(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return errno == ENOENT;
  if (S_ISDIR(st.st_mode)) {
    for (const std::string& name : ListDir(path)) {
      if (!RemoveTree(path + "/" + name)) return false;
    }
    return rmdir(path.c_str()) == 0;
  }
  return unlink(path.c_str()) == 0;
}

}  // namespace

bool MakeOwnedDirs(const std::string& path, uid_t uid, gid_t gid, mode_t mode) {
  for (size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
    const std::string parent = path.substr(0, at);
    if (mkdir(parent.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST) return false;
  return chown(path.c_str(), uid, gid) == 0 && chmod(path.c_str(), mode) == 0;
}

std::vector<LocalUser> NumberedUsers(const std::string& prefix, uint32_t first_id, int count) {
  std::vector<LocalUser> users;
  for (int i = 0; i < count; ++i) {
    char number[16];
    std::snprintf(number, sizeof(number), "%02d", i + 1);
    const uint32_t id = first_id + static_cast<uint32_t>(i);
    users.push_back({prefix + number, id, id, std::string(kHomes) + "/" + prefix + number});
  }
  return users;
}

bool AddLocalUsers(const std::vector<LocalUser>& users) {
  const std::string passwd = ReadFile("/etc/passwd");
  const std::string group = ReadFile("/etc/group");
  std::string passwd_extra;
  std::string group_extra;
  for (const LocalUser& user : users) {
    const std::string uid = std::to_string(user.uid);
    const std::string gid = std::to_string(user.gid);
    const int in_passwd = FindEntry(passwd, user.name, user.uid);
    const int in_group = FindEntry(group, user.name, user.gid);
    // A name or an id that the machine uses otherwise is not borrowed.
    if (in_passwd < 0 || in_group < 0) return false;
    if (in_passwd == 0) {
      passwd_extra +=
          user.name + ":x:" + uid + ":" + gid + ":velmora fetch test:" + user.home + ":/bin/sh\n";
    }
    if (in_group == 0) group_extra += user.name + ":x:" + gid + ":\n";
    if (!MakeOwnedDirs(user.home, user.uid, user.gid, 0755)) return false;
  }
  return ExtendAccountFile("passwd", passwd_extra) && ExtendAccountFile("group", group_extra);
}

Pop3Server::Pop3Server(std::string root, int port)
    : root_(std::move(root)),
      port_(port),
      config_path_(root_ + "/dovecot.conf"),
      log_path_(root_ + "/dovecot.log") {}

Pop3Server::~Pop3Server() { Stop(); }

bool Pop3Server::Start() {
  if (!AddLocalUsers({{kMailAccount, kMailAccountId, kMailAccountId,
                       std::string(kHomes) + "/" + kMailAccount}})) {
    return false;
  }
  for (const char* dir : {"", "/base", "/state", "/mail"}) {
    if (!MakeOwnedDirs(root_ + dir, 0, 0, 0755)) return false;
  }
  if (chown((root_ + "/mail").c_str(), kMailAccountId, kMailAccountId) != 0) return false;
  const std::string port = std::to_string(port_);
  // Plain POP3 on loopback; a login's password is "pw-" and its name; one
  // maildir per mailbox; no TLS, no delay after a failed login, its own log.
  const std::string mail_id = std::to_string(kMailAccountId);
  const std::vector<std::string> lines = {
      "protocols = pop3",
      "listen = 127.0.0.1",
      "base_dir = " + root_ + "/base",
      "state_dir = " + root_ + "/state",
      "log_path = " + log_path_,
      "ssl = no",
      "disable_plaintext_auth = no",
      "auth_mechanisms = plain",
      "auth_failure_delay = 0",
      "auth_verbose = yes",
      "mail_location = maildir:" + root_ + "/mail/%u",
      "first_valid_uid = 1",
      "pop3_uidl_format = %08Xu%08Xv",
      "service pop3-login {",
      "  inet_listener pop3 {",
      "    address = 127.0.0.1",
      "    port = " + port,
      "  }",
      "}",
      "service anvil {",
      "  unix_listener anvil-auth-penalty {",
      "    mode = 0",
      "  }",
      "}",
      "passdb {",
      "  driver = static",
      "  args = password=pw-%u",
      "}",
      "userdb {",
      "  driver = static",
      "  args = uid=" + mail_id + " gid=" + mail_id + " home=" + root_ + "/mail/%u",
      "}",
  };
  std::string config;
  for (const std::string& line : lines) config += line + "\n";
  if (!WriteFile(config_path_, config, 0644)) return false;
  const int listen_port = port_;
  process_ = std::make_unique<ServerProcess>(
      std::vector<std::string>{kDovecot, "-F", "-c", config_path_},
      [listen_port] { return CanConnectTcp("127.0.0.1", listen_port); });
  return process_->Start();
}

void Pop3Server::Stop() {
  if (process_) process_->Stop();
}

pid_t Pop3Server::pid() const { return process_ && process_->running() ? process_->pid() : -1; }

std::string Pop3Server::MailDir(const std::string& mailbox) const {
  return root_ + "/mail/" + mailbox;
}

std::string Pop3Server::PasswordOf(const std::string& mailbox) { return "pw-" + mailbox; }

bool Pop3Server::AddMailbox(const std::string& mailbox) {
  for (const char* sub : {"", "/tmp", "/new", "/cur"}) {
    if (!MakeOwnedDirs(MailDir(mailbox) + sub, kMailAccountId, kMailAccountId, 0700)) return false;
  }
  return true;
}

bool Pop3Server::Clear() {
  for (const std::string& name : ListDir(root_ + "/mail")) {
    if (!RemoveTree(root_ + "/mail/" + name)) return false;
  }
  return true;
}

bool Pop3Server::Deposit(const std::string& mailbox, const std::string& message) {
  const std::string name = std::to_string(time(nullptr)) + ".M" + std::to_string(++deposited_) +
                           "P" + std::to_string(getpid()) + ".velmora-test";
  const std::string temp = MailDir(mailbox) + "/tmp/" + name;
  return WriteOwned(temp, message, kMailAccountId, kMailAccountId, 0600) &&
         rename(temp.c_str(), (MailDir(mailbox) + "/new/" + name).c_str()) == 0;
}

int Pop3Server::Waiting(const std::string& mailbox) const {
  return static_cast<int>(ListDir(MailDir(mailbox) + "/new").size() +
                          ListDir(MailDir(mailbox) + "/cur").size());
}

int Pop3Server::EndedSessions(const std::string& mailbox) const {
  // dovecot logs "pop3(<user>)<pid><session>: Info: Disconnected: ..." when
  // a session of the user ends, whether it logged out or not.
  std::istringstream log(ReadFile(log_path_));
  const std::string who = "pop3(" + mailbox + ")";
  int ended = 0;
  for (std::string line; std::getline(log, line);) {
    if (line.find(who) != std::string::npos && line.find(": Disconnected") != std::string::npos) {
      ++ended;
    }
  }
  return ended;
}

std::string ControlFileText(uint32_t interval, int port, const std::string& mailbox,
                            const std::string& password, const std::string& deliver_dir) {
  // fetchmail hands each message to the delivery agent through /bin/sh; the
  // agent writes it below tmp/ and renames it into new/, so that a reader
  // never sees half a message. Absolute paths: the daemon may run without
  // PATH.
  const std::string mda = "f=$(/usr/bin/mktemp " + deliver_dir + "/tmp/m.XXXXXX) && /bin/cat > $f" +
                          " && /bin/mv $f " + deliver_dir + "/new/";
  return "set daemon " + std::to_string(interval) +
         "\n"
         "set syslog\n"
         "poll 127.0.0.1 port " +
         std::to_string(port) + " proto pop3 user \"" + mailbox + "\" password \"" + password +
         "\" sslproto \"\" mda \"" + mda + "\"\n";
}

bool MakeDeliveryDir(const std::string& dir, const LocalUser& user) {
  return MakeOwnedDirs(dir, user.uid, user.gid, 0700) &&
         MakeOwnedDirs(dir + "/tmp", user.uid, user.gid, 0700) &&
         MakeOwnedDirs(dir + "/new", user.uid, user.gid, 0700);
}

std::vector<std::string> DeliveredMessages(const std::string& dir) {
  std::vector<std::string> messages;
  for (const std::string& name : ListDir(dir + "/new")) {
    messages.push_back(ReadFile(dir + "/new/" + name));
  }
  return messages;
}

}  // namespace velmora::test
