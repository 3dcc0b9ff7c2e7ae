// velmoractl: the library's operations for shell scripts, package hooks and
// support staff. Every command is a thin layer over the public API of
// libvelmora; this file holds the top-level parser and the shared helpers.
#include <errno.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "cli.h"

namespace velmoractl {

namespace {

char Hex(unsigned value) { return "0123456789abcdef"[value & 0xf]; }

// Appends `c` as messages write a control byte, DEL or backslash; other
// bytes as they are.
void AppendEscaped(std::string& out, unsigned char c, bool backslash) {
  switch (c) {
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    case '\\':
      out += backslash ? "\\\\" : "\\";
      return;
    default:
      break;
  }
  if (c < 0x20 || c == 0x7f) {
    out += "\\x";
    out += Hex(c >> 4);
    out += Hex(c);
    return;
  }
  out += static_cast<char>(c);
}

// Length of the valid UTF-8 sequence at `pos`, or 0 when the byte there does
// not start one (stray continuation, overlong form, surrogate, past U+10FFFF,
// cut short).
size_t Utf8Length(const std::string& text, size_t pos) {
  const auto byte = [&text](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char c = byte(pos);
  if (c < 0x80) return 1;
  size_t length = 0;
  unsigned low = 0x80;
  unsigned high = 0xbf;
  if (c >= 0xc2 && c <= 0xdf) {
    length = 2;
  } else if (c >= 0xe0 && c <= 0xef) {
    length = 3;
    if (c == 0xe0) low = 0xa0;
    if (c == 0xed) high = 0x9f;
  } else if (c >= 0xf0 && c <= 0xf4) {
    length = 4;
    if (c == 0xf0) low = 0x90;
    if (c == 0xf4) high = 0x8f;
  } else {
    return 0;
  }
  if (pos + length > text.size()) return 0;
  if (byte(pos + 1) < low || byte(pos + 1) > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (byte(pos + i) < 0x80 || byte(pos + i) > 0xbf) return 0;
  }
  return length;
}

// Escapes control bytes so that a message stays on one line.
std::string OneLine(const std::string& text) {
  std::string out;
  for (char c : text) AppendEscaped(out, static_cast<unsigned char>(c), false);
  return out;
}

}  // namespace

int Fail(Context& ctx, int status, const std::string& message) {
  std::cout.flush();
  std::cerr << "velmoractl: " << OneLine(message) << std::endl;
  ctx.status = status;
  return status;
}

std::string Quote(const std::string& text) {
  std::string out = "'";
  size_t pos = 0;
  while (pos < text.size() && pos < kQuoteLimit) {
    const size_t length = std::max<size_t>(Utf8Length(text, pos), 1);
    if (pos + length > kQuoteLimit) break;
    for (size_t i = 0; i < length; ++i) {
      AppendEscaped(out, static_cast<unsigned char>(text[pos + i]), true);
    }
    pos += length;
  }
  out += "'";
  if (pos < text.size()) out += "...(" + std::to_string(text.size()) + " bytes)";
  return out;
}

std::string ValidUtf8(const std::string& text) {
  std::string out;
  size_t pos = 0;
  while (pos < text.size()) {
    const size_t length = Utf8Length(text, pos);
    if (length == 0) {
      const auto c = static_cast<unsigned char>(text[pos]);
      out += "\\x";
      out += Hex(c >> 4);
      out += Hex(c);
      ++pos;
      continue;
    }
    out.append(text, pos, length);
    pos += length;
  }
  return out;
}

int StatusForErrno(int err, int fallback) {
  if (err == EACCES || err == EPERM) return kDenied;
  return fallback;
}

int StatusForFileErrno(int err, int fallback) {
  if (err == ENOENT || err == ENOTDIR) return kNotFound;
  return StatusForErrno(err, fallback);
}

namespace {

// `value` with ValidUtf8 applied to every string and member name.
// NOLINTNEXTLINE(misc-no-recursion): as deep as the printed JSON value
Json::Value Utf8Only(const Json::Value& value) {
  switch (value.type()) {
    case Json::stringValue:
      return Json::Value(ValidUtf8(value.asString()));
    case Json::arrayValue: {
      Json::Value out(Json::arrayValue);
      for (const Json::Value& item : value) out.append(Utf8Only(item));
      return out;
    }
    case Json::objectValue: {
      Json::Value out(Json::objectValue);
      for (auto it = value.begin(); it != value.end(); ++it) {
        out[ValidUtf8(it.name())] = Utf8Only(*it);
      }
      return out;
    }
    default:
      return value;
  }
}

}  // namespace

void PrintJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  std::cout << Json::writeString(builder, Utf8Only(value)) << '\n';
}

void Verbose(const Context& ctx, const std::string& text) {
  if (!ctx.verbose) return;
  if (ctx.json) {
    Json::Value out(Json::objectValue);
    out["done"] = text;
    PrintJson(out);
  } else {
    std::cout << OneLine(text) << '\n';
  }
  // A command that runs next (lock) writes to the same output.
  std::cout.flush();
}

CLI::Validator Decimal(uint64_t min, uint64_t max) {
  const std::string range = std::to_string(min) + " to " + std::to_string(max);
  return CLI::Validator(
      // cppcheck-suppress constParameter ; CLI11 hands validators a std::string&
      [min, max, range](std::string& text) -> std::string {
        uint64_t value = 0;
        if (ParseUnsigned(text, max, value) && value >= min) return std::string();
        return "expects a decimal number from " + range + ", not " + Quote(text);
      },
      "decimal " + range, "Decimal");
}

void SetStatuses(CLI::App* cmd, const std::string& text) { cmd->footer("Exit status: " + text); }

bool ParseUnsigned(const std::string& text, uint64_t max, uint64_t& value) {
  if (text.empty() || text.size() > 20) return false;
  uint64_t result = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (result > (max - digit) / 10) return false;
    result = result * 10 + digit;
  }
  value = result;
  return true;
}

namespace {

constexpr char kFooter[] =
    "Exit status: 0 done; 1 the operation failed (see the system log, facility local1); "
    "2 bad command line (anything judged before acting); 3 unknown key, setting, service, "
    "user, item, file or POP3 instance; 4 a server could not "
    "be reached or did not answer; 5 permission denied; 6 the lock was still held when "
    "lock --timeout ran out; 7 pop3 start or start-all found the service off and started no "
    "daemon. `lock` otherwise exits with the command's status (126 cannot run it, "
    "127 not found, 128+N killed by signal N).";

// The deepest subcommand that the parser reached.
// NOLINTNEXTLINE(misc-no-recursion): as deep as the command levels
const CLI::App* Deepest(const CLI::App* app) {
  for (const CLI::App* sub : app->get_subcommands()) return Deepest(sub);
  return app;
}

// The names of the positionals of `app`, each after a blank.
std::string PositionalNames(const CLI::App* app) {
  std::string names;
  for (const CLI::Option* opt :
       app->get_options([](const CLI::Option* o) { return o->get_positional(); })) {
    names += " " + opt->get_name();
  }
  return names;
}

// Its command path, for the hint after an error: the levels above the
// deepest show their positionals, as the usage lines do
// ("velmoractl pop3 NAME set").
// NOLINTNEXTLINE(misc-no-recursion): as deep as the command levels
std::string ParsedPath(const CLI::App* app) {
  std::string path = app->get_name();
  for (const CLI::App* sub : app->get_subcommands()) {
    return path + PositionalNames(app) + " " + ParsedPath(sub);
  }
  return path;
}

// Longest parser message repeated on stderr; CLI11 messages may echo a
// whole argument.
constexpr size_t kMessageLimit = 400;

// A parser message as one line of at most about kMessageLimit bytes: line
// breaks become blanks, other control bytes are escaped.
std::string ParserMessage(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  while (!text.empty() && text.back() == ' ') text.pop_back();
  if (text.size() > kMessageLimit) {
    size_t cut = kMessageLimit;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xc0) == 0x80) --cut;
    text.resize(cut);
    text += "...";
  }
  return OneLine(text);
}

// Usage lines name the positionals of every level above the command too,
// as in "velmoractl pop3 NAME status".
class UsageFormatter : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App* app, std::string) const override {
    std::vector<const CLI::App*> chain;
    for (const CLI::App* up = app->get_parent(); up != nullptr; up = up->get_parent()) {
      chain.insert(chain.begin(), up);
    }
    std::string name;
    for (const CLI::App* level : chain) {
      name += (name.empty() ? "" : " ") + level->get_name() + PositionalNames(level);
    }
    name += (name.empty() ? "" : " ") + app->get_name();
    return CLI::Formatter::make_usage(app, name);
  }
};

// The whole run: parse the command line, run the command, give its status.
int Run(int argc, char** argv) {
  Context ctx;
  CLI::App app{
      "Command-line access to libvelmora: key routing, settings, the POP3 fetch "
      "service, the quota store, key=value files, locks, query sockets and memcached.",
      "velmoractl"};
  app.formatter(std::make_shared<UsageFormatter>());
  app.require_subcommand(1);
  // Global flags are accepted before or after the subcommand.
  app.fallthrough();
  app.add_flag("--json", ctx.json, "Print the result of a read command as JSON");
  app.add_flag("-v,--verbose", ctx.verbose, "Report what a write command did");
  app.set_version_flag("--version", "velmoractl " VELMORA_VERSION, "Print the version and exit");

  AddConfigCommands(app, ctx);
  AddSettingsCommands(app, ctx);
  AddStoreCommands(app, ctx);
  AddFileCommands(app, ctx);
  AddCompleteCommands(app, ctx);
  // Set last so that only the top level shows it (subcommands copy it).
  app.footer(kFooter);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return kOk;
  } catch (const CLI::CallForAllHelp&) {
    std::cout << app.help("", CLI::AppFormatMode::All);
    return kOk;
  } catch (const CLI::CallForVersion& e) {
    std::cout << e.what() << '\n';
    return kOk;
  } catch (const CLI::ParseError& e) {
    // A subcommand's --help is thrown from that subcommand's parse.
    if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
      return app.exit(e);
    }
    // A word that is no subcommand reads better as such than as a missing one.
    std::string message = ParserMessage(e.what());
    const CLI::App* deepest = Deepest(&app);
    const std::vector<std::string> extra = app.remaining(true);
    if (deepest->get_require_subcommand_min() > 0 && deepest->get_subcommands().empty() &&
        !extra.empty()) {
      message = "unknown command " + Quote(extra.front());
    }
    std::cerr << "velmoractl: " << message << " (see '" << ParsedPath(&app) << " --help')"
              << std::endl;
    return kUsage;
  }
  std::cout.flush();
  if (!std::cout) {
    std::cerr << "velmoractl: cannot write the output" << std::endl;
    return kFailed;
  }
  return ctx.status;
}

}  // namespace
}  // namespace velmoractl

// Memory exhaustion is caught below; CLI11's construction errors (a parser
// built wrongly) are programming errors and may end the program.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
  try {
    return velmoractl::Run(argc, argv);
  } catch (const std::bad_alloc&) {
    // Memory ran out somewhere in the command: its one line, written
    // without allocating, and the generic failure instead of an abort.
    // NOLINTNEXTLINE(cert-err33-c): nothing is left to report a failed write to
    std::fputs("velmoractl: out of memory\n", stderr);
    return velmoractl::kFailed;
  }
}
