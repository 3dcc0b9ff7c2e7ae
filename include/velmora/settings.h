/// @file
/// Settings of the mail server's web client and of its POP3 fetch service:
/// the client's feature switches (one key=value file), the fetch service's
/// global switch and period, the list of users whose fetchmail daemons were
/// started, each user's fetchmail control file, and the start, stop and
/// restart of those per-user daemons under the user's own identity.
///
/// Threads and processes: nothing here keeps state in memory between calls;
/// the files are the record. No function takes a thread lock, so two threads
/// must not change the same files at once. Between processes the Pop3Control
/// entry points (ForceStart, ForceStop, UidListStart, UidListStop,
/// SetThenRestart) take turns on an exclusive flock(2) lock on lock_path; the
/// other members expect the caller to hold that lock when they write.
/// Every start or stop of a user's daemon runs in a forked child that changes
/// its identity and is waited for before the call returns, so the caller's
/// own identity never changes; SetThenRestart leaves one detached child
/// behind that restarts the daemons after it has returned (nobody has to reap
/// it). The caller must therefore be able to fork: call these from a process
/// whose other threads hold no locks that the child would need. Every
/// descriptor opened here is close-on-exec. Failures are reported by result
/// and logged through syslog(3) at LOG_LOCAL1|LOG_ERR unless a function says
/// otherwise; nothing is thrown except on memory exhaustion.
#ifndef VELMORA_SETTINGS_H_
#define VELMORA_SETTINGS_H_

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <velmora/export.h>

namespace velmora {
/// The web client's feature switches and the POP3 fetch service.
namespace settings {
/// The records read from and written to the settings files.
namespace record {

/// The POP3 fetch service's global switch.
struct GlobalPOP3Config {
  bool enabled;     ///< the service is on
  uint32_t period;  ///< polling period in minutes (daemon interval = period * 60 s)
};

/// The web client's feature switches, in the order of the exported record.
struct VelmoraConfig {
  bool disable_pgp;               ///< key "disable_pgp", default false
  bool disable_smtp_sender_name;  ///< key "disable_smtp_sender_name", default false
  bool enable_sharing_link;       ///< key "enable_sharing_link", default false
  bool is_custom_logo;            ///< key "is_custom_logo", default false
  bool enable_chat;               ///< key "enable_chat", default true
  bool enable_calendar;           ///< key "enable_calendar", default true
  bool enable_externalsource;     ///< key "enable_externalsource", default true
  bool disable_shared_mailbox;    ///< key "disable_shared_mailbox", default false
};

}  // namespace record

/// Returns the switches stored in
/// "/var/packages/Velmora-Server/etc/velmora/quillbox.conf"; the defaults (all
/// false except enable_chat, enable_calendar and enable_externalsource) when
/// the file is missing or unreadable. Never fails, never logs.
VELMORA_EXPORT record::VelmoraConfig GetVelmoraConfig();

/// Stores all eight switches as "yes"/"no" (creating the directory and the
/// file when missing, keeping any other keys) and runs the back-end tool with
/// "--syncFile" on the file. True on success; false when the directory cannot
/// be made, the file cannot be read or written (nothing changed), or the tool
/// fails (the file is already written).
[[nodiscard]] VELMORA_EXPORT bool SetVelmoraConfig(const record::VelmoraConfig& config);

/// Returns the modification time, in seconds since the epoch, of
/// "/var/packages/Velmora-Server/etc/velmora/custom_logo.png"; 0 when it cannot
/// be examined. Never logs.
VELMORA_EXPORT long GetCustomLogoVersion();

/// The POP3 fetch service of one instance `name`: its file paths, the readers
/// and writers of its files and the control of the per-user fetchmail
/// daemons. Cheap to copy; every member reads the files afresh.
class VELMORA_EXPORT Pop3Control {
 public:
  /// What DownPrivilegeFork does for a user.
  enum Action {
    ACTION_START = 0,  ///< start the user's daemon
    ACTION_STOP = 1,   ///< stop it
  };

  /// Builds the four paths and, when "/var/packages/Velmora-Server/etc/velmora/"
  /// is missing and the caller is root or the "Velmora-Server" account, creates
  /// it owned by that account. Never fails; problems are logged (an
  /// unprivileged caller at LOG_LOCAL1|LOG_DEBUG) and the directory is left as
  /// it was.
  explicit Pop3Control(const std::string& name);

  /// Returns the global switch: {false, 5} when the file is missing, {false, 0}
  /// when it cannot be opened (logged). Line 1 "true" turns the service on; an
  /// empty or missing line 2 gives period 5, otherwise its leading decimal
  /// number truncated to 32 bits.
  record::GlobalPOP3Config GetPOP3Config() const;

  /// Replaces the switch file with the two lines "true"/"false" and the period
  /// (owner "Velmora-Server", mode 0644) and propagates it. True on success;
  /// false when the file could not be put in place (unchanged; logged, except
  /// when the new file's lines could not be written, e.g. on a full disk) or
  /// the propagation failed (the new file stays).
  [[nodiscard]] bool SetPOP3Config(const record::GlobalPOP3Config& config) const;

  /// Returns the uids of the uid list, ascending, duplicates collapsed; the
  /// read stops at the first token that is not a number that fits 32 bits.
  /// Empty when the file is missing or cannot be opened (logged).
  std::set<uint32_t> GetPOP3UidSet() const;

  /// Returns the user's fetch directory, ending in "/":
  /// spool_root + "/" + (uid % 10000, four digits) + "/" + uid + "/.ORVOQB/".
  std::string UserFetchMailPath(uint32_t uid) const;

  /// Rewrites every line of the user's fetchmail control file that begins
  /// with "set daemon" as `"set daemon <interval>"`, keeping the other lines
  /// and the file's owner, group and mode. True on success and when there is
  /// no control file; false (logged) with the file unchanged on failure.
  [[nodiscard]] bool ModifyFetchmailrc(uint32_t uid, uint32_t interval) const;

  /// Child side of a start: sets the interval (seconds) in the control file,
  /// drops to the file's group and then to `uid`, and runs fetchmail on the
  /// user's files. Changes the identity of the calling process, deliberately:
  /// it is the child side of DownPrivilegeFork, which must become the user to
  /// run fetchmail; call it only there. True when fetchmail succeeded or is
  /// not installed; false on failure (logged).
  [[nodiscard]] bool Start(uint32_t uid, uint32_t interval) const;

  /// Child side of a stop: drops to `uid` (the group is kept) and runs
  /// fetchmail --quit on the user's pid file. Changes the caller's identity
  /// deliberately, like Start (call it only in DownPrivilegeFork's child); same
  /// results as Start.
  [[nodiscard]] bool Stop(uint32_t uid) const;

  /// Forks a child that runs Start(uid, interval) or Stop(uid) and always
  /// exits 0, and waits for it. True when the child was created and reaped,
  /// whatever it did (its failures are only logged); false when the fork or
  /// the wait failed (logged). An unknown action is logged at
  /// LOG_LOCAL1|LOG_WARNING in the child.
  [[nodiscard]] bool DownPrivilegeFork(uint32_t uid, Action action, uint32_t interval) const;

  /// Starts the daemon of every uid of `uids` in order with `interval`
  /// seconds; each started uid not yet in `tracked` is added to it and
  /// appended to the uid list, which is then propagated once if it grew. The
  /// caller holds the lock. True when every start and the propagation
  /// succeeded; false otherwise (a failed user does not stop the others).
  [[nodiscard]] bool TrackStart(const std::vector<uint32_t>& uids, std::set<uint32_t>& tracked,
                                uint32_t interval) const;

  /// Stops the daemon of every uid of `uids` in order, removes each stopped
  /// uid from `tracked`, replaces the uid list with what is left (ascending,
  /// owner "Velmora-Server", mode 0644) and propagates it. The caller holds
  /// the lock. True when the list was replaced and propagated, even if some
  /// stops failed; false otherwise (the list unchanged if it was not
  /// replaced).
  [[nodiscard]] bool TrackStop(const std::vector<uint32_t>& uids,
                               std::set<uint32_t>& tracked) const;

  /// Under the lock: when the service is on, starts the daemons of `uids`
  /// with the stored period and adds them to the uid list (TrackStart); when
  /// it is off, does nothing and returns true. False when the lock cannot be
  /// taken or handed to "Velmora-Server", or as TrackStart.
  [[nodiscard]] bool ForceStart(const std::vector<uint32_t>& uids) const;

  /// Under the lock, whatever the switch says: stops the daemons of `uids`
  /// and removes them from the uid list (TrackStop). False when the lock
  /// cannot be taken, or as TrackStop.
  [[nodiscard]] bool ForceStop(const std::vector<uint32_t>& uids) const;

  /// Under the lock, when the service is on: starts the daemon of every uid
  /// of the uid list with the stored period (failures only logged). The list
  /// is not changed. False only when the lock cannot be taken.
  [[nodiscard]] bool UidListStart() const;

  /// Under the lock: stops the daemon of every uid of the uid list (failures
  /// logged at LOG_LOCAL1|LOG_DEBUG) and keeps the list, so UidListStart can
  /// bring them back. False only when the lock cannot be taken.
  [[nodiscard]] bool UidListStop() const;

  /// Under the lock: when `config` differs from the stored switch, stores it
  /// (SetPOP3Config) and forks a detached child that, after this call has
  /// returned and without the lock, stops every listed daemon if the service
  /// was on and starts it again if it is on now. True when nothing changed or
  /// the child was forked; false when the lock, the store or the fork failed
  /// (logged).
  [[nodiscard]] bool SetThenRestart(const record::GlobalPOP3Config& config) const;

  /// "/var/packages/Velmora-Server/etc/velmora/" + name + "_pop3.config"
  std::string pop3_config_path;
  /// "/var/spool/mail/" + name + "/db/" + name + "_pop3_uid.config"
  std::string uid_list_path;
  /// "/var/lock/velmora_server/" + name + "_pop3.lock"
  std::string lock_path;
  /// "/var/spool/mail/" + name
  std::string spool_root;
};

}  // namespace settings
}  // namespace velmora

#endif  // VELMORA_SETTINGS_H_
