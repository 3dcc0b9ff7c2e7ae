// Capturing what the code under test sends to syslog.
//
// Inside scripts/hermetic-run, /dev/log is served by velmora_syslog_sink,
// which appends each datagram as one line to the file named by
// $VELMORA_SYSLOG_FILE. LogCapture reads that file back:
//
//   velmora::test::LogCapture capture;      // remembers where the log ends now
//   CodeThatLogs();
//   auto records = capture.Records();        // everything logged since then
//   EXPECT_THAT(capture.Texts(), testing::Contains("expected message"));
//
// Records() first sends a marker through /dev/log and waits for it to reach
// the file, so everything logged before the call (by this process or by any
// other that has returned from syslog()) is included. The constructor and
// Reset() sync the same way, so nothing logged before them shows up later.
// Sync problems (no sink, log not readable) are reported as test failures.
//
// The library's lines read "<module>:<line>: <process name>: <message>"; the
// matchers below check a record's priority and every part of that exactly,
// except the line number (one or more digits).
#ifndef VELMORA_TESTS_SUPPORT_LOG_CAPTURE_H_
#define VELMORA_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <errno.h>

#include <ostream>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace velmora::test {

struct LogRecord {
  int priority;      // facility * 8 + severity, e.g. LOG_LOCAL1 | LOG_ERR == 139
  std::string tag;   // program name or openlog() ident, without any "[pid]"
  std::string text;  // the message itself
  std::string raw;   // the datagram as received
};

// Splits one syslog datagram: "<PRI>Mmm dd hh:mm:ss TAG[PID]: MESSAGE" as
// glibc sends it. The timestamp may also be ISO 8601 or missing, "[PID]" is
// optional, and TAG is whatever precedes the first ": " (it may be empty).
// Without a ": " the record has no tag and all of it is text. Trailing NUL
// bytes are dropped. A datagram that does not start with "<PRI>" gets
// priority -1.
LogRecord ParseSyslogDatagram(std::string_view raw);

class LogCapture {
 public:
  // Starts capturing at the end of the log, after whatever was logged so far.
  LogCapture();

  // All records logged since construction (or the last Reset()), oldest
  // first, without the markers used to sync.
  std::vector<LogRecord> Records();

  // Just the texts of Records().
  std::vector<std::string> Texts();

  // Forgets everything logged so far; later calls only see newer records.
  void Reset();

  // The file the sink writes, from $VELMORA_SYSLOG_FILE.

  const std::string& log_file() const { return log_file_; }

 private:
  // Sends a marker to /dev/log and waits until the sink has written it, then
  // stores the log's content from start_ through the marker's line in
  // *content. On failure it reports a test failure, stores whatever the log
  // holds past start_ and returns false.
  bool Sync(std::string* content);

  std::string log_file_;
  long long start_ = 0;
};

// Prints a record as <PRI> "text" in failure messages.
void PrintTo(const LogRecord& record, std::ostream* os);

// When `text` reads "<module>:<digits>: <process>: <message>", stores the
// message and returns true; otherwise false.
bool MessageOf(const std::string& text, const std::string& module, const std::string& process,
               std::string* message);

// True when `text` is "<module>:<digits>: <this process>: <message>".
bool IsModuleLine(const std::string& text, const std::string& module, const std::string& message);

// Success when `records` are exactly `messages`, in order, each one line at
// `priority` from `module` written by this process; nothing else.
::testing::AssertionResult LoggedExactly(const std::vector<LogRecord>& records, int priority,
                                         const std::string& module,
                                         const std::vector<std::string>& messages);

// LoggedExactly for one priority and module, called as
// Logged(records, {"message", ...}).
struct ModuleLog {
  int priority;
  std::string module;
  ::testing::AssertionResult operator()(const std::vector<LogRecord>& records,
                                        const std::vector<std::string>& messages) const {
    return LoggedExactly(records, priority, module, messages);
  }
};

// A record at `priority` reading "<module>:<line>: <this process>: <message>".
MATCHER_P3(LogAt, priority, module, message,
           std::string(negation ? "isn't" : "is") + " <" + std::to_string(priority) + "> \"" +
               std::string(module) + ":<line>: " + program_invocation_short_name + ": " +
               std::string(message) + "\"") {
  return arg.priority == priority && IsModuleLine(arg.text, module, message);
}

// The same with the message matched whole by an ECMAScript regular expression.
MATCHER_P3(LogAtMatching, priority, module, pattern,
           std::string(negation ? "isn't" : "is") + " <" + std::to_string(priority) + "> \"" +
               std::string(module) + ":<line>: " + program_invocation_short_name + ": " +
               std::string(pattern) + "\"") {
  std::string text;
  return arg.priority == priority &&
         MessageOf(arg.text, module, program_invocation_short_name, &text) &&
         std::regex_match(text, std::regex(std::string(pattern)));
}

// True when running under scripts/hermetic-run: $VELMORA_HERMETIC is set and
// the runner's private /run/velmora-test exists.
bool InHermeticRunner();

}  // namespace velmora::test

#endif  // VELMORA_TESTS_SUPPORT_LOG_CAPTURE_H_
