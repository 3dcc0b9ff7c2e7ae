// kv, lock, query: key=value settings files, running a command under an
// exclusive lock file, and one request to a local query socket.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <velmora/file.h>
#include <velmora/socket.h>

#include "cli.h"
#include "kv_edit.h"

extern char** environ;

namespace velmoractl {
namespace {

// Initial size of the key table; it grows as the file needs.
constexpr int kTableSize = 1024;

// The library's calls below leave no errno behind; these repeat the step
// that failed to learn why. 0 when the repeat succeeds.

// Why `path` could not be read: the open or the first read, as the reader
// makes them.
int ReadCause(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return errno;
  char byte;
  const int err = read(fd, &byte, 1) < 0 ? errno : 0;
  close(fd);
  return err;
}

// Why the lock file `path` could not be locked: its open as FileLock makes
// it (creating the file, as the lock would have). 0 when it opens: the wait
// for the lock itself failed.
int LockCause(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0666);
  if (fd < 0) return errno;
  close(fd);
  return 0;
}

// Why the query socket `socket` gave no answer, as far as the path tells:
// missing, not reachable, not a socket (connect(2) refuses those), or not
// writable; 0 when a socket the caller may use is there and the exchange
// itself failed.
int QueryCause(const std::string& socket) {
  struct stat st;
  if (stat(socket.c_str(), &st) != 0) return errno;
  if (!S_ISSOCK(st.st_mode)) return ECONNREFUSED;
  return access(socket.c_str(), W_OK) != 0 ? errno : 0;
}

bool ReadFile(Context& ctx, velmora::sdk::FileKeyValue& file, const std::string& path) {
  if (file.ReadKeyValues(kTableSize, "=")) return true;
  const int err = ReadCause(path);
  Fail(ctx, StatusForFileErrno(err, kFailed),
       // NOLINTNEXTLINE(concurrency-mt-unsafe): velmoractl runs one thread
       "cannot read " + Quote(path) + (err != 0 ? std::string(": ") + std::strerror(err) : ""));
  return false;
}

void KvGet(Context& ctx, const std::string& path, const std::string& key) {
  velmora::sdk::FileKeyValue file(path);
  if (!ReadFile(ctx, file, path)) return;
  if (!file.Contains(key)) {
    Fail(ctx, kNotFound, "no key " + Quote(key) + " in " + Quote(path));
    return;
  }
  const std::string value = file.Get(key);
  if (ctx.json) {
    Json::Value out(Json::objectValue);
    out["key"] = key;
    out["value"] = value;
    PrintJson(out);
  } else {
    std::cout << value << '\n';
  }
}

// Runs `command` and waits for it. While it runs, an interrupt or quit from
// the terminal reaches the command (same process group) and not this
// process, so the lock is held until the command has ended; a terminate or
// hangup sent to this process is passed on to the command.
pid_t g_child = -1;

void PassOn(int sig) {
  if (g_child > 0) kill(g_child, sig);
}

int RunCommand(Context& ctx, const std::vector<std::string>& command) {
  std::vector<char*> argv;
  argv.reserve(command.size() + 1);
  for (const std::string& arg : command) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);

  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction pass {};
  pass.sa_handler = PassOn;
  struct sigaction old_int {
  }, old_quit{}, old_term{}, old_hup{};
  sigaction(SIGINT, &ignore, &old_int);
  sigaction(SIGQUIT, &ignore, &old_quit);
  sigaction(SIGTERM, &pass, &old_term);
  sigaction(SIGHUP, &pass, &old_hup);

  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGQUIT);
  sigaddset(&defaults, SIGTERM);
  sigaddset(&defaults, SIGHUP);
  sigaddset(&defaults, SIGALRM);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF);
  pid_t pid = -1;
  const int rc = posix_spawnp(&pid, argv[0], nullptr, &attr, argv.data(), environ);
  posix_spawnattr_destroy(&attr);

  int result = kOk;
  if (rc != 0) {
    result = Fail(ctx, rc == ENOENT ? 127 : 126,
                  // NOLINTNEXTLINE(concurrency-mt-unsafe): velmoractl runs one thread
                  "cannot run " + Quote(command[0]) + ": " + std::strerror(rc));
  } else {
    g_child = pid;
    int status = 0;
    pid_t waited;
    do {
      waited = waitpid(pid, &status, 0);
    } while (waited < 0 && errno == EINTR);
    g_child = -1;
    if (waited < 0) {
      result =
          // NOLINTNEXTLINE(concurrency-mt-unsafe): velmoractl runs one thread
          Fail(ctx, kFailed, std::string("cannot wait for the command: ") + std::strerror(errno));
    } else if (WIFEXITED(status)) {
      result = WEXITSTATUS(status);
    } else {
      result = 128 + WTERMSIG(status);
    }
  }
  sigaction(SIGINT, &old_int, nullptr);
  sigaction(SIGQUIT, &old_quit, nullptr);
  sigaction(SIGTERM, &old_term, nullptr);
  sigaction(SIGHUP, &old_hup, nullptr);
  ctx.status = result;
  return result;
}

volatile sig_atomic_t g_timed_out = 0;

void OnAlarm(int) { g_timed_out = 1; }

// How the lock is taken: FileLock waits for it; ExclusiveFileLockGuard
// (--retries) also tries again, one second apart, after an attempt that
// failed; --timeout interrupts the wait with an alarm.
struct LockOptions {
  bool retry = false;
  unsigned long retries = 0;
  unsigned timeout = 0;  // Seconds; 0 waits without limit.
};

void Lock(Context& ctx, const std::string& path, const LockOptions& options,
          const std::vector<std::string>& command) {
  struct sigaction alarm_action {};
  alarm_action.sa_handler = OnAlarm;  // No SA_RESTART: the wait returns EINTR.
  struct sigaction old_alarm {};
  if (options.timeout > 0) {
    sigaction(SIGALRM, &alarm_action, &old_alarm);
    alarm(options.timeout);
  }
  // The lock's descriptor is close-on-exec, so the command does not inherit
  // it: the lock is held by this process until the command has ended.
  std::unique_ptr<velmora::sdk::FileLock> lock;
  bool held = false;
  if (options.retry) {
    auto guard = std::make_unique<velmora::sdk::ExclusiveFileLockGuard>(path, options.retries);
    held = guard->fd_ >= 0;
    lock = std::move(guard);
  } else {
    lock = std::make_unique<velmora::sdk::FileLock>(path, true);
    held = lock->Lock();
  }
  if (options.timeout > 0) {
    alarm(0);
    sigaction(SIGALRM, &old_alarm, nullptr);
  }
  if (!held) {
    if (g_timed_out) {
      Fail(ctx, kLockBusy,
           "the lock " + Quote(path) + " is still held after " + std::to_string(options.timeout) +
               " s");
    } else {
      const int err = LockCause(path);
      Fail(ctx, StatusForFileErrno(err, kFailed),
           // NOLINTNEXTLINE(concurrency-mt-unsafe): velmoractl runs one thread
           "cannot lock " + Quote(path) + (err != 0 ? std::string(": ") + std::strerror(err) : ""));
    }
    return;
  }
  Verbose(ctx, "locked " + path);
  RunCommand(ctx, command);
}

void Query(Context& ctx, const std::string& socket, const std::string& request, int timeout) {
  std::string response;
  if (velmora::common::socket::QuerySockServer(socket, request, response, timeout) != 0) {
    const int err = QueryCause(socket);
    const int status = err == EACCES || err == EPERM ? kDenied : kUnreachable;
    Fail(ctx, status,
         "no answer from " + Quote(socket) +
             // NOLINTNEXTLINE(concurrency-mt-unsafe): velmoractl runs one thread
             (err != 0 ? std::string(": ") + std::strerror(err)
                       : std::string(": the exchange failed (see the system log)")));
    return;
  }
  if (ctx.json) {
    Json::Value out(Json::objectValue);
    out["response"] = response;
    PrintJson(out);
  } else {
    // The answer as the server sent it, byte for byte.
    std::cout << response;
  }
}

}  // namespace

void AddFileCommands(CLI::App& app, Context& ctx) {
  CLI::App* kv = app.add_subcommand("kv", "Read or change one key of a key=value settings file");
  kv->require_subcommand(1);
  auto get_file = std::make_shared<std::string>();
  auto get_key = std::make_shared<std::string>();
  CLI::App* kv_get = kv->add_subcommand(
      "get",
      "Print the value of KEY in FILE as the library reads it: split at the first '=', one "
      "pair of double quotes removed, the last line of a repeated key wins");
  kv_get->add_option("FILE", *get_file, "key=value file")->required();
  kv_get->add_option("KEY", *get_key, "Key")->required();
  SetStatuses(kv_get,
              "0 printed; 2 bad command line; 3 no such key or file; 5 permission denied; "
              "1 the file could not be read otherwise");
  kv_get->callback([&ctx, get_file, get_key] { KvGet(ctx, *get_file, *get_key); });
  auto set_file = std::make_shared<std::string>();
  auto set_key = std::make_shared<std::string>();
  auto set_value = std::make_shared<std::string>();
  CLI::App* kv_set = kv->add_subcommand(
      "set",
      "Set KEY to VALUE in the existing FILE: only the line of KEY changes (its last line, "
      "the one that is read), or KEY=VALUE is added at the end; the file is replaced "
      "atomically with its owner, group and mode, a link to it kept");
  kv_set->add_option("FILE", *set_file, "key=value file (must exist)")->required();
  kv_set
      ->add_option("KEY", *set_key,
                   "Key: not empty, without '=', a leading '#', a line break or a carriage "
                   "return")
      ->required();
  kv_set
      ->add_option("VALUE", *set_value,
                   "Value, read back exactly; without a line break or a carriage return")
      ->required();
  SetStatuses(kv_set,
              "0 done; 2 bad command line, or a key or value that the file cannot hold; "
              "3 no such file; 5 permission denied (reading the file, creating a file in its "
              "directory, or giving that file the owner of FILE); 1 any other failure. On "
              "failure FILE is left as it was.");
  kv_set->callback(
      [&ctx, set_file, set_key, set_value] { KvSet(ctx, *set_file, *set_key, *set_value); });

  auto lock_file = std::make_shared<std::string>();
  auto options = std::make_shared<LockOptions>();
  auto command = std::make_shared<std::vector<std::string>>();
  CLI::App* lock = app.add_subcommand(
      "lock", "Run COMMAND while holding the exclusive lock on FILE (waits for it by default)");
  lock->add_option("FILE", *lock_file, "Lock file (created when missing)")->required();
  CLI::Option* retries_opt =
      AddNumber(lock, "--retries", options->retries, 1, 86400,
                "After an attempt that failed (not a held lock), try N more times, one "
                "second apart (N >= 1)")
          ->type_name("N");
  CLI::Option* timeout_opt =
      AddNumber(lock, "--timeout", options->timeout, 1, 86400,
                "Give up (status 6) when the lock is still held after S seconds")
          ->type_name("S");
  retries_opt->excludes(timeout_opt);
  lock->add_option("COMMAND", *command, "Command and its arguments, after --")->required();
  SetStatuses(lock,
              "the command's own status once it ran (126 it cannot be run, 127 not found, "
              "128+N killed by signal N); before it runs: 2 bad command line; 3 the lock "
              "file's directory is missing; 5 permission denied; 6 the lock was still held "
              "when --timeout ran out; 1 the lock could not be taken otherwise.");
  lock->callback([&ctx, lock_file, options, retries_opt, command] {
    options->retry = retries_opt->count() > 0;
    Lock(ctx, *lock_file, *options, *command);
  });

  auto socket = std::make_shared<std::string>();
  auto request = std::make_shared<std::string>();
  auto timeout = std::make_shared<int>(10);
  CLI::App* query = app.add_subcommand(
      "query", "Send REQUEST to a local query socket and print the whole answer");
  query->add_option("SOCKET", *socket, "Unix socket path")->required();
  query->add_option("REQUEST", *request, "Request, sent as it is")->required();
  AddNumber(query, "--timeout", *timeout, 0, 86400,
            "Seconds for each send and receive (0: no limit; default 10)")
      ->type_name("S");
  query->callback([&ctx, socket, request, timeout] { Query(ctx, *socket, *request, *timeout); });
  SetStatuses(
      query,
      "0 the answer was printed (an empty one too); 4 no server answered on SOCKET (missing "
      "socket, refused connection, a send or receive that failed or timed out); 5 the socket "
      "may not be opened; 2 bad command line.");
}

}  // namespace velmoractl
