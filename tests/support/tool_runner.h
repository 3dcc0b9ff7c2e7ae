// Runs the installed velmoractl as a separate program (as root or as a test
// user) and reads what it printed, for the velmoractl test binaries.
#ifndef VELMORA_TESTS_SUPPORT_TOOL_RUNNER_H_
#define VELMORA_TESTS_SUPPORT_TOOL_RUNNER_H_

#include <chrono>
#include <string>
#include <vector>

#include <json/json.h>

#include "gmock/gmock.h"
#include "support/log_capture.h"
#include "support/settings_test_util.h"

namespace velmora {
namespace test {

// The names that the velmoractl tests share.
using namespace settings_test;  // NOLINT(build/namespaces)
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

struct Result {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
  bool timed_out = false;  // killed after the time limit
  double seconds = 0;      // how long the run took
};

// Runs the installed velmoractl with `args`, as root or as `user`, with the
// caller's environment. A run that takes longer than `limit` is killed and
// reported as timed out.
Result Tool(const std::vector<std::string>& args, const std::string& user = "",
            std::chrono::seconds limit = std::chrono::seconds(120));

// Parses one JSON text; a parse failure fails the test.
Json::Value ParseJson(const std::string& text);

// Waits until no velmoractl process (a detached restart child) is left.
bool NoVelmoractlLeft();

// An error is exactly one line on stderr, headed by the program's name.
MATCHER(OneErrorLine, "is one line starting with \"velmoractl: \"") {
  return arg.compare(0, 12, "velmoractl: ") == 0 && arg.find('\n') == arg.size() - 1;
}

// A log line of the library written from the velmoractl process:
// "<module>:<line>: velmoractl: <message>" at `priority`.
MATCHER_P3(ToolLine, priority, module, message,
           "is <" + std::to_string(priority) + "> " + std::string(module) +
               ":<line>: velmoractl: " + std::string(message)) {
  std::string text;
  return arg.priority == priority && MessageOf(arg.text, module, "velmoractl", &text) &&
         text == message;
}

}  // namespace test
}  // namespace velmora

#endif  // VELMORA_TESTS_SUPPORT_TOOL_RUNNER_H_
