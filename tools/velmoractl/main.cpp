// velmoractl: the library's operations for shell scripts, package hooks and
// support staff. Every command is a thin layer over the public API of
// libvelmora; this file holds the top-level parser and the shared helpers.
#include <errno.h>

#include <cstdio>
#include <iostream>
#include <limits>
#include <memory>
#include <string>

#include "cli.h"

namespace velmoractl {

int Fail(Context& ctx, int status, const std::string& message) {
  std::cerr << "velmoractl: " << message << std::endl;
  ctx.status = status;
  return status;
}

int StatusForErrno(int err, int fallback) {
  if (err == EACCES || err == EPERM) return kDenied;
  return fallback;
}

int StatusForFileErrno(int err, int fallback) {
  if (err == ENOENT || err == ENOTDIR) return kNotFound;
  return StatusForErrno(err, fallback);
}

void PrintJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  std::cout << Json::writeString(builder, value) << '\n';
}

void Verbose(const Context& ctx, const std::string& text) {
  if (ctx.verbose) std::cout << text << '\n';
}

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
    "2 bad command line; 3 unknown key, service, user, item or file; 4 a server could not "
    "be reached or did not answer; 5 permission denied; 6 the lock was still held when "
    "lock --timeout ran out. `lock` otherwise exits with the command's status (126 cannot run it, "
    "127 not found, 128+N killed by signal N).";

// The deepest subcommand that the parser reached.
const CLI::App* Deepest(const CLI::App* app) {
  for (const CLI::App* sub : app->get_subcommands()) return Deepest(sub);
  return app;
}

// Its command path, for the hint after an error.
std::string ParsedPath(const CLI::App* app) {
  std::string path = app->get_name();
  for (const CLI::App* sub : app->get_subcommands()) return path + " " + ParsedPath(sub);
  return path;
}

// CLI11 messages may span lines; velmoractl reports every error on one line.
std::string OneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

}  // namespace
}  // namespace velmoractl

int main(int argc, char** argv) {
  using namespace velmoractl;
  Context ctx;
  CLI::App app{
      "Command-line access to libvelmora: key routing, settings, the POP3 fetch "
      "service, the quota store, key=value files, locks, query sockets and memcached.",
      "velmoractl"};
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
    std::string message = OneLine(e.what());
    const CLI::App* deepest = Deepest(&app);
    const std::vector<std::string> extra = app.remaining(true);
    if (deepest->get_require_subcommand_min() > 0 && deepest->get_subcommands().empty() &&
        !extra.empty()) {
      message = "unknown command '" + extra.front() + "'";
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
