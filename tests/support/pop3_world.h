// A small mail world for the POP3 fetch service, made of real programs only:
// Debian's dovecot as the POP3 server on loopback with a private
// configuration (plain-text logins, one maildir per mailbox below a
// directory of the test), local accounts for the users whose fetchmail
// daemons the library runs, and fetchmail control files that deliver each
// fetched message as one file into a directory the test reads.
//
// Only valid inside scripts/hermetic-run: it binds copies of /etc/passwd and
// /etc/group over the runner's and writes below /var. No GoogleTest here, so
// that benchmarks can use it too.
#ifndef VELMORA_TESTS_SUPPORT_POP3_WORLD_H_
#define VELMORA_TESTS_SUPPORT_POP3_WORLD_H_

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/server_process.h"
#include "support/test_util.h"  // WriteOwned and the other file helpers

namespace velmora::test {

struct LocalUser {
  std::string name;
  uint32_t uid;
  uint32_t gid;
  std::string home;
};

// Accounts "<prefix>NN" (NN from 01, two digits at least) with uids and gids
// first_id, first_id + 1, ..., and homes below /var/tmp/home.
std::vector<LocalUser> NumberedUsers(const std::string& prefix, uint32_t first_id, int count);

// Adds `users`, each with a group of its own name and id and a home owned by
// it, to copies of /etc/passwd and /etc/group that are bound over the
// current ones. Accounts that exist already with the same name and id are
// kept as they are. False on failure, or when a name or id is taken by
// another account.
bool AddLocalUsers(const std::vector<LocalUser>& users);

// The account that owns the maildirs of the POP3 server.
constexpr char kMailAccount[] = "vtmail";
constexpr uint32_t kMailAccountId = 61900;

class Pop3Server {
 public:
  // The server's files live below `root` (created); it listens on
  // 127.0.0.1:`port`.
  Pop3Server(std::string root, int port);
  ~Pop3Server();

  Pop3Server(const Pop3Server&) = delete;
  Pop3Server& operator=(const Pop3Server&) = delete;

  // Writes the configuration, adds the mail account and starts dovecot in
  // the foreground; true when it accepts connections.
  bool Start();
  void Stop();
  int port() const { return port_; }
  // The server's process (dovecot's master), or -1 when it is stopped.
  pid_t pid() const;
  const std::string& log_path() const { return log_path_; }

  // The password of a mailbox: "pw-" and its name. The server derives it
  // from the login name, so a mailbox needs no account file that the
  // server might read late.
  static std::string PasswordOf(const std::string& mailbox);
  // Adds an empty mailbox.
  bool AddMailbox(const std::string& mailbox);
  // Removes every mailbox and its mail.
  bool Clear();
  // Puts one message into the mailbox's maildir, as a delivery agent would
  // (written below tmp/, then renamed into new/).
  bool Deposit(const std::string& mailbox, const std::string& message);
  // Messages still waiting in the mailbox (new/ and cur/).
  int Waiting(const std::string& mailbox) const;
  // POP3 sessions of the mailbox that have ended, from the server's log.
  int EndedSessions(const std::string& mailbox) const;

 private:
  std::string MailDir(const std::string& mailbox) const;

  std::string root_;
  int port_;
  std::string config_path_;
  std::string log_path_;
  std::unique_ptr<ServerProcess> process_;
  int deposited_ = 0;
};

// The text of a fetchmail control file: "set daemon <interval>", "set
// syslog", and one poll entry for the mailbox on 127.0.0.1:port without TLS
// whose delivery agent writes each message as a file into
// `deliver_dir`/new (by way of `deliver_dir`/tmp).
std::string ControlFileText(uint32_t interval, int port, const std::string& mailbox,
                            const std::string& password, const std::string& deliver_dir);

// Creates `dir`/tmp and `dir`/new owned by `user`, mode 0700.
bool MakeDeliveryDir(const std::string& dir, const LocalUser& user);

// The messages delivered into `dir`/new, in the order of their file names.
std::vector<std::string> DeliveredMessages(const std::string& dir);

// Creates the directories of `path` (mode 0755, root) up to its parent and
// the last directory itself with `uid`:`gid` and `mode`. True on success.
bool MakeOwnedDirs(const std::string& path, uid_t uid, gid_t gid, mode_t mode);

}  // namespace velmora::test

#endif  // VELMORA_TESTS_SUPPORT_POP3_WORLD_H_
