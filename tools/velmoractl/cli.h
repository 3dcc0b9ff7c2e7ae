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
  kServiceOff = 7,   // pop3 start, start-all: the service is off, no daemon was started
};

// What every command sees: the global flags, and the status the run ends
// with (the most recent failure wins).
struct Context {
  bool json = false;
  bool verbose = false;
  int status = kOk;
};

// Prints "velmoractl: <message>" on stderr as one line (control bytes
// escaped), records `status` and returns it.
int Fail(Context& ctx, int status, const std::string& message);

// Longest part of an argument that a message repeats.
constexpr size_t kQuoteLimit = 200;

// An argument as messages show it: between single quotes, with backslash,
// control bytes and DEL written as \\, \n, \r, \t or \xHH, and cut after
// kQuoteLimit bytes (at a character boundary) with "...(N bytes)" after the
// closing quote.
std::string Quote(const std::string& text);

// `text` with every byte that is not part of valid UTF-8 written as the four
// characters \xHH; valid UTF-8 is returned unchanged.
std::string ValidUtf8(const std::string& text);

// The status for a failed call whose errno is `err`: kDenied for EACCES and
// EPERM, `fallback` otherwise.
int StatusForErrno(int err, int fallback);

// The same for a call on a file the user named: also kNotFound for ENOENT
// and ENOTDIR.
int StatusForFileErrno(int err, int fallback);

// Writes `value` to stdout as one line of compact JSON; every string and
// member name goes through ValidUtf8 first, so the line is valid UTF-8.
void PrintJson(const Json::Value& value);

// When --verbose was given, reports what a write command did: `text` and a
// newline (control bytes escaped, so it stays one line), or with --json
// the line {"done":"<text>"}. Flushed at once.
void Verbose(const Context& ctx, const std::string& text);

// Parses an unsigned decimal number that fits `max`; false for anything else
// (signs, blanks, other characters, overflow).
bool ParseUnsigned(const std::string& text, uint64_t max, uint64_t& value);

// A validator for decimal numbers from `min` to `max` (digits only: no sign,
// blank, prefix or overflow); its message quotes the bad argument.
CLI::Validator Decimal(uint64_t min, uint64_t max);

// Adds an option or positional (`name` as CLI11 takes it) whose argument is
// a decimal number from `min` to `max`, stored into `value`.
template <typename T>
CLI::Option* AddNumber(CLI::App* cmd, const std::string& name, T& value, uint64_t min, uint64_t max,
                       const std::string& help) {
  return cmd
      ->add_option_function<std::string>(
          name,
          [&value](const std::string& text) {
            uint64_t number = 0;
            if (ParseUnsigned(text, UINT64_MAX, number)) value = static_cast<T>(number);
          },
          help)
      ->check(Decimal(min, max));
}

// Sets the help footer of `cmd` to "Exit status: " + `text`, the statuses
// that this command can end with.
void SetStatuses(CLI::App* cmd, const std::string& text);

// Registration of each command family on the top-level app.
void AddConfigCommands(CLI::App& app, Context& ctx);    // route, services, script, get
void AddSettingsCommands(CLI::App& app, Context& ctx);  // features, pop3, user
void AddStoreCommands(CLI::App& app, Context& ctx);     // quota, memcached
void AddFileCommands(CLI::App& app, Context& ctx);      // kv, lock, query
void AddCompleteCommands(CLI::App& app, Context& ctx);

}  // namespace velmoractl

#endif  // VELMORA_TOOLS_VELMORACTL_CLI_H_
