// Shared pieces of velmoractl: the exit statuses, the run context that the
// command callbacks fill in, and the output helpers (plain text or JSON).
#ifndef VELMORA_TOOLS_VELMORACTL_CLI_H_
#define VELMORA_TOOLS_VELMORACTL_CLI_H_

#include <cstdint>
#include <string>

#include <json/json.h>
#include <CLI/CLI.hpp>

namespace velmoractl {

// Exit statuses; the --help footer and docs/velmoractl.md list the same.
enum Status {
  kOk = 0,           // done
  kFailed = 1,       // the operation failed (details in the system log)
  kUsage = 2,        // bad command line
  kNotFound = 3,     // unknown key, service, user, item or file
  kUnreachable = 4,  // a server could not be reached or did not answer
  kDenied = 5,       // permission denied
  kLockBusy = 6,     // the lock was still held by another process
};

// What every command sees: the global flags, and the status the run ends
// with (the most recent failure wins).
struct Context {
  bool json = false;
  bool verbose = false;
  int status = kOk;
};

// Prints "velmoractl: <message>" on stderr, records `status` and returns it.
int Fail(Context& ctx, int status, const std::string& message);

// The status for a failed call whose errno is `err`: kDenied for EACCES and
// EPERM, `fallback` otherwise.
int StatusForErrno(int err, int fallback);

// The same for a call on a file the user named: also kNotFound for ENOENT
// and ENOTDIR.
int StatusForFileErrno(int err, int fallback);

// Writes `value` to stdout as one line of compact JSON.
void PrintJson(const Json::Value& value);

// Writes `text` and a newline to stdout when --verbose was given.
void Verbose(const Context& ctx, const std::string& text);

// Parses an unsigned decimal number that fits `max`; false for anything else
// (signs, blanks, other characters, overflow).
bool ParseUnsigned(const std::string& text, uint64_t max, uint64_t& value);

// Registration of each command family on the top-level app.
void AddConfigCommands(CLI::App& app, Context& ctx);    // route, services, script, get
void AddSettingsCommands(CLI::App& app, Context& ctx);  // features, pop3, user
void AddStoreCommands(CLI::App& app, Context& ctx);     // quota, memcached
void AddFileCommands(CLI::App& app, Context& ctx);      // kv, lock, query

}  // namespace velmoractl

#endif  // VELMORA_TOOLS_VELMORACTL_CLI_H_
