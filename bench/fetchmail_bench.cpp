// The per-user fetch daemons started and stopped with the real fetchmail,
// beside a plain twin that does the same starts and stops.
//
//   FetchmailStart/lib/200   one UidListStart over 200 listed users: for each
//                            a forked child rewrites the user's control file,
//                            takes the user's identity and runs fetchmail,
//                            which forks its daemon and returns.
//   FetchmailStart/raw/200   200 times fork + setgid + setuid + exec of
//                            fetchmail with the same arguments and the user's
//                            HOME, USER and LOGNAME + wait.
//   FetchmailStop/lib/200    one UidListStop over the same 200 users.
//   FetchmailStop/raw/200    200 times fork + setuid + exec of fetchmail
//                            --quit with the same arguments + wait.
//
// Each daemon polls once when it starts: in the plain names a loopback port
// where nothing listens, in the "...Polling" names a real POP3 server
// (dovecot on loopback, an empty mailbox per user), whose sessions then
// share the CPU with the timed loop. Between iterations, untimed, the
// daemons are started or stopped the plain way so that each timed run meets
// the same state, and each run's result is checked (200 daemons of the
// right users, or none). Runs only inside scripts/hermetic-run (it adds the
// benchmark's accounts), e.g.
//   scripts/hermetic-run -- taskset -c 0 build/bench/velmora_fetchmail_bench
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>

#include <benchmark/benchmark.h>

#include <velmora/settings.h>

#include "support/pop3_world.h"

namespace {

using velmora::test::LocalUser;

constexpr char kInstance[] = "vb";
constexpr char kSettingsDir[] = "/var/packages/Velmora-Server/etc/velmora";
constexpr char kSwitchFile[] = "/var/packages/Velmora-Server/etc/velmora/vb_pop3.config";
constexpr char kUidList[] = "/var/spool/mail/vb/db/vb_pop3_uid.config";
constexpr char kFetchmailDir[] = "/var/packages/Quillbox/target/bin";
constexpr char kFetchmail[] = "/var/packages/Quillbox/target/bin/fetchmail";
constexpr char kRealFetchmail[] = "/usr/bin/fetchmail";
constexpr char kLockDir[] = "/var/lock/velmora_server";
constexpr char kServerRoot[] = "/var/tmp/velmora-bench-pop3";
constexpr char kDeliveryRoot[] = "/var/tmp/velmora-bench-delivered";
constexpr uid_t kAccount = 61000;  // Velmora-Server in the runner
constexpr int kPort = 11120;
// A loopback port where nothing listens: a daemon's first poll ends at once.
constexpr int kClosedPort = 11121;
constexpr int kUsers = 200;

std::string ReadText(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// Pids of the running (not ended) fetchmail processes.
std::vector<pid_t> RunningFetchmails() {
  std::vector<pid_t> pids;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return pids;
  while (dirent* e = readdir(proc)) {
    if (!std::isdigit(static_cast<unsigned char>(e->d_name[0]))) continue;
    const std::string base = std::string("/proc/") + e->d_name;
    if (ReadText(base + "/comm") != "fetchmail\n") continue;
    const std::string stat = ReadText(base + "/stat");
    const size_t paren = stat.rfind(')');
    if (paren == std::string::npos || paren + 2 >= stat.size() || stat[paren + 2] == 'Z') continue;
    pids.push_back(static_cast<pid_t>(std::atol(e->d_name)));
  }
  closedir(proc);
  return pids;
}

bool WaitFor(size_t daemons) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (RunningFetchmails().size() != daemons) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

struct Fixture {
  bool ready = false;
  std::string error;
  std::unique_ptr<velmora::test::Pop3Server> server;
  std::vector<LocalUser> users;
  // Per user: the fetch directory's three files and the child's environment.
  std::vector<std::string> rc, pid, id, mailbox, deliver;
  std::vector<std::vector<std::string>> env;
  int port = 0;  // where the control files send the daemons
};

// Points every control file at `port` (untimed). True on success.
bool PollAt(Fixture& f, int port) {
  if (f.port == port) return true;
  for (size_t i = 0; i < f.users.size(); ++i) {
    const std::string text = velmora::test::ControlFileText(
        300, port, f.mailbox[i], velmora::test::Pop3Server::PasswordOf(f.mailbox[i]), f.deliver[i]);
    if (!velmora::test::WriteOwned(f.rc[i], text, f.users[i].uid, f.users[i].gid, 0700)) {
      return false;
    }
  }
  f.port = port;
  return true;
}

Fixture& World() {
  static Fixture* world = [] {
    auto* f = new Fixture;
    velmora::settings::Pop3Control control(kInstance);
    auto fail = [f](const std::string& what) {
      f->error = what;
      return f;
    };
    f->users = velmora::test::NumberedUsers("vtbench", 63001, kUsers);
    if (!velmora::test::AddLocalUsers(f->users)) return fail("cannot add the accounts");
    f->server = std::make_unique<velmora::test::Pop3Server>(kServerRoot, kPort);
    if (!f->server->Start()) return fail("dovecot did not start");
    using velmora::test::MakeOwnedDirs;
    if (!MakeOwnedDirs(kSettingsDir, kAccount, kAccount, 0755) ||
        !MakeOwnedDirs(kLockDir, kAccount, kAccount, 0755) ||
        !MakeOwnedDirs(std::string("/var/spool/mail/") + kInstance + "/db", kAccount, kAccount,
                       0755) ||
        !MakeOwnedDirs(kFetchmailDir, 0, 0, 0755) ||
        (symlink(kRealFetchmail, kFetchmail) != 0 && errno != EEXIST)) {
      return fail("cannot lay out the package's directories");
    }
    std::string list;
    for (const LocalUser& user : f->users) {
      const std::string dir = control.UserFetchMailPath(user.uid);
      const std::string deliver = std::string(kDeliveryRoot) + "/" + user.name;
      const std::string mailbox = "remote-" + user.name;
      const std::string user_dir = dir.substr(0, dir.size() - sizeof(".ORVOQB/"));
      if (!MakeOwnedDirs(user_dir, user.uid, user.gid, 0700) ||
          !MakeOwnedDirs(dir.substr(0, dir.size() - 1), user.uid, user.gid, 0700) ||
          !f->server->AddMailbox(mailbox) || !velmora::test::MakeDeliveryDir(deliver, user) ||
          !velmora::test::WriteOwned(
              dir + "quillbox_pop3_fetch",
              velmora::test::ControlFileText(
                  300, kPort, mailbox, velmora::test::Pop3Server::PasswordOf(mailbox), deliver),
              user.uid, user.gid, 0700)) {
        return fail("cannot prepare " + user.name);
      }
      f->rc.push_back(dir + "quillbox_pop3_fetch");
      f->pid.push_back(dir + "quillbox_fetchmail.pid");
      f->id.push_back(dir + "quillbox_fetchmail.id");
      f->mailbox.push_back(mailbox);
      f->deliver.push_back(deliver);
      f->env.push_back(
          {"HOME=" + user.home, "USER=" + user.name, "LOGNAME=" + user.name, "PATH=/usr/bin:/bin"});
      list += std::to_string(user.uid) + "\n";
    }
    if (!velmora::test::WriteOwned(kUidList, list, kAccount, kAccount, 0644) ||
        !velmora::test::WriteOwned(kSwitchFile, "true\n5\n", kAccount, kAccount, 0644)) {
      return fail("cannot write the uid list or the switch");
    }
    f->port = kPort;
    f->ready = true;
    return f;
  }();
  return *world;
}

// Runs fetchmail for user `i` the plain way: fork, identity, exec, wait.
// `start` runs the daemon, otherwise --quit.
bool RawRun(Fixture& f, size_t i, bool start) {
  const LocalUser& user = f.users[i];
  std::vector<char*> envp;
  for (std::string& entry : f.env[i]) envp.push_back(entry.data());
  envp.push_back(nullptr);
  const pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    if (start) {
      if (setgid(user.gid) != 0 || setuid(user.uid) != 0) _exit(126);
      execle(kFetchmail, kFetchmail, "-f", f.rc[i].c_str(), "--pidfile", f.pid[i].c_str(),
             "--idfile", f.id[i].c_str(), static_cast<char*>(nullptr), envp.data());
    } else {
      if (setuid(user.uid) != 0) _exit(126);
      execle(kFetchmail, kFetchmail, "--quit", "--pidfile", f.pid[i].c_str(), "--idfile",
             f.id[i].c_str(), static_cast<char*>(nullptr), envp.data());
    }
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return false;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) < 126;
}

// Untimed: every daemon stopped (SIGTERM, which fetchmail answers by
// removing its pid file and ending).
bool StopAllQuickly() {
  for (pid_t pid : RunningFetchmails()) kill(pid, SIGTERM);
  return WaitFor(0);
}

// Untimed: every user's daemon running.
bool StartAllPlainly(Fixture& f) {
  if (!StopAllQuickly()) return false;
  for (size_t i = 0; i < f.users.size(); ++i) {
    if (!RawRun(f, i, true)) return false;
  }
  return WaitFor(f.users.size());
}

void Prepare(benchmark::State& state, Fixture& f, bool running) {
  state.PauseTiming();
  if (!(running ? StartAllPlainly(f) : StopAllQuickly())) {
    state.SkipWithError("cannot bring the daemons to the starting state");
  }
  state.ResumeTiming();
}

void Check(benchmark::State& state, Fixture& f, bool running) {
  state.PauseTiming();
  if (!WaitFor(running ? f.users.size() : 0)) {
    state.SkipWithError(running ? "not every daemon runs" : "a daemon is still running");
  }
  state.ResumeTiming();
}

// One timed round per iteration: from all daemons stopped, UidListStart or
// the plain starts (`start`); from all running, UidListStop or the plain
// stops.
void FetchmailRound(benchmark::State& state, bool start, bool lib, int port) {
  Fixture& f = World();
  if (!f.ready) {
    state.SkipWithError(f.error.c_str());
    return;
  }
  if (!StopAllQuickly() || !PollAt(f, port)) {
    state.SkipWithError("cannot point the control files at the port");
    return;
  }
  velmora::settings::Pop3Control control(kInstance);
  for (auto _ : state) {
    Prepare(state, f, !start);
    bool ok = true;
    if (lib) {
      ok = start ? control.UidListStart() : control.UidListStop();
    } else {
      for (size_t i = 0; i < f.users.size(); ++i) ok = RawRun(f, i, start) && ok;
    }
    if (!ok) state.SkipWithError(start ? "a start failed" : "a stop failed");
    Check(state, f, start);
  }
  state.SetItemsProcessed(state.iterations() * kUsers);
  StopAllQuickly();
}

void FetchmailStart(benchmark::State& state, bool lib, int port) {
  FetchmailRound(state, true, lib, port);
}

void FetchmailStop(benchmark::State& state, bool lib, int port) {
  FetchmailRound(state, false, lib, port);
}

void Register(const char* name, void (*fn)(benchmark::State&, bool, int), bool lib, int port) {
  benchmark::RegisterBenchmark(name, fn, lib, port)
      ->Iterations(1)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
}

// Quiet: the daemons' first polls find a closed port, so the timed loop
// meets no other work. Polling: each new daemon logs in to dovecot at once,
// and those sessions share the CPU with the loop that starts the next ones.
const bool kRegistered = [] {
  Register("FetchmailStart/lib/200", FetchmailStart, true, kClosedPort);
  Register("FetchmailStart/raw/200", FetchmailStart, false, kClosedPort);
  Register("FetchmailStop/lib/200", FetchmailStop, true, kClosedPort);
  Register("FetchmailStop/raw/200", FetchmailStop, false, kClosedPort);
  Register("FetchmailStartPolling/lib/200", FetchmailStart, true, kPort);
  Register("FetchmailStartPolling/raw/200", FetchmailStart, false, kPort);
  Register("FetchmailStopPolling/lib/200", FetchmailStop, true, kPort);
  Register("FetchmailStopPolling/raw/200", FetchmailStop, false, kPort);
  return true;
}();

}  // namespace

BENCHMARK_MAIN();
