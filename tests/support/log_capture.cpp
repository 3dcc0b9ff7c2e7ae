#include "support/log_capture.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>

#include "gtest/gtest.h"

namespace velmora::test {
namespace {

constexpr char kDevLog[] = "/dev/log";
constexpr char kRunnerDir[] = "/run/velmora-test";
// local7.debug, so that a marker is easy to tell from anything real.
constexpr int kSyncPriority = 191;
constexpr char kSyncTag[] = "velmora-log-sync";
constexpr auto kSyncTimeout = std::chrono::seconds(5);

bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }
bool IsAlpha(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }

// "Mmm dd hh:mm:ss " (the day may be space padded), as glibc writes it.
bool StartsWithBsdTimestamp(std::string_view s) {
  if (s.size() < 16) return false;
  return IsAlpha(s[0]) && IsAlpha(s[1]) && IsAlpha(s[2]) && s[3] == ' ' &&
         (s[4] == ' ' || IsDigit(s[4])) && IsDigit(s[5]) && s[6] == ' ' && IsDigit(s[7]) &&
         IsDigit(s[8]) && s[9] == ':' && IsDigit(s[10]) && IsDigit(s[11]) && s[12] == ':' &&
         IsDigit(s[13]) && IsDigit(s[14]) && s[15] == ' ';
}

// "YYYY-MM-DDThh:mm:ss..." up to the next space.
bool StartsWithIsoTimestamp(std::string_view s) {
  return s.size() >= 11 && IsDigit(s[0]) && IsDigit(s[1]) && IsDigit(s[2]) && IsDigit(s[3]) &&
         s[4] == '-' && s[7] == '-' && s[10] == 'T' && s.find(' ') != std::string_view::npos;
}

// Length of a leading "<digits>" (1 to 3 digits), or 0 if there is none.
size_t PriorityPrefixLength(std::string_view s, size_t pos = 0) {
  if (pos >= s.size() || s[pos] != '<') return 0;
  size_t i = pos + 1;
  while (i < s.size() && i - pos <= 3 && IsDigit(s[i])) ++i;
  if (i == pos + 1 || i >= s.size() || s[i] != '>') return 0;
  return i + 1 - pos;
}

// Reads `path` from byte `offset` to its end.
bool ReadFrom(const std::string& path, long long offset, std::string* out) {
  out->clear();
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT;  // nothing logged yet
  char buf[16384];
  bool ok = true;
  for (;;) {
    ssize_t n = pread(fd, buf, sizeof buf, static_cast<off_t>(offset + out->size()));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ok = false;
    if (n <= 0) break;
    out->append(buf, static_cast<size_t>(n));
  }
  int saved_errno = errno;
  close(fd);
  errno = saved_errno;
  return ok;
}

long long FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : 0;
}

std::string NewNonce() {
  static std::atomic<unsigned> counter{0};
  std::random_device rd;
  char buf[64];
  std::snprintf(buf, sizeof buf, "%d-%u-%08x%08x", static_cast<int>(getpid()), counter++, rd(),
                rd());
  return buf;
}

bool SendToDevLog(const std::string& datagram, std::string* error) {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = std::string("socket: ") + std::strerror(errno);
    return false;
  }
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, kDevLog, sizeof kDevLog);
  ssize_t n;
  do {
    n = sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&addr),
               sizeof addr);
  } while (n < 0 && errno == EINTR);
  if (n < 0) *error = std::string("sendto ") + kDevLog + ": " + std::strerror(errno);
  close(fd);
  return n >= 0;
}

// The sink ends every datagram with '\n', but a message may contain newlines
// itself. A '\n' ends a record only where the next line starts with "<PRI>"
// (or at the end of the data).
std::vector<std::string_view> SplitRecords(std::string_view data) {
  std::vector<std::string_view> records;
  size_t start = 0;
  for (size_t i = 0; i < data.size(); ++i) {
    if (data[i] != '\n') continue;
    if (i + 1 == data.size() || PriorityPrefixLength(data, i + 1) > 0) {
      records.push_back(data.substr(start, i - start));
      start = i + 1;
    }
  }
  // An unterminated tail is a record the sink is still writing: leave it out.
  return records;
}

bool IsSyncMarker(const LogRecord& record) {
  return record.priority == kSyncPriority && record.tag == kSyncTag;
}

}  // namespace

LogRecord ParseSyslogDatagram(std::string_view raw) {
  LogRecord record{-1, "", "", std::string(raw)};
  std::string_view s = raw;
  while (!s.empty() && s.back() == '\0') s.remove_suffix(1);

  size_t pri_len = PriorityPrefixLength(s);
  if (pri_len == 0) {
    record.text = std::string(s);
    return record;
  }
  record.priority = std::atoi(std::string(s.substr(1, pri_len - 2)).c_str());
  s.remove_prefix(pri_len);

  if (StartsWithBsdTimestamp(s)) {
    s.remove_prefix(16);
  } else if (StartsWithIsoTimestamp(s)) {
    s.remove_prefix(s.find(' ') + 1);
  }

  size_t colon = s.find(": ");
  if (colon == std::string_view::npos) {
    record.text = std::string(s);
    return record;
  }
  std::string_view tag = s.substr(0, colon);
  // Drop a trailing "[pid]".
  if (!tag.empty() && tag.back() == ']') {
    size_t open = tag.rfind('[');
    if (open != std::string_view::npos && open + 2 < tag.size()) {
      bool digits = true;
      for (size_t i = open + 1; i + 1 < tag.size(); ++i) digits = digits && IsDigit(tag[i]);
      if (digits) tag = tag.substr(0, open);
    }
  }
  record.tag = std::string(tag);
  record.text = std::string(s.substr(colon + 2));
  return record;
}

LogCapture::LogCapture() {
  const char* file = std::getenv("VELMORA_SYSLOG_FILE");
  if (file != nullptr) log_file_ = file;
  Reset();
}

bool LogCapture::Sync(std::string* content) {
  content->clear();
  if (log_file_.empty()) {
    ADD_FAILURE() << "VELMORA_SYSLOG_FILE is not set: LogCapture needs scripts/hermetic-run "
                     "with --sink";
    return false;
  }
  const std::string marker =
      "<" + std::to_string(kSyncPriority) + ">" + kSyncTag + ": " + NewNonce();
  std::string error;
  if (!SendToDevLog(marker, &error)) {
    ADD_FAILURE() << "LogCapture cannot sync with the syslog sink: " << error;
    ReadFrom(log_file_, start_, content);
    return false;
  }
  const std::string line = marker + "\n";
  const auto deadline = std::chrono::steady_clock::now() + kSyncTimeout;
  auto pause = std::chrono::microseconds(200);
  for (;;) {
    if (!ReadFrom(log_file_, start_, content)) {
      ADD_FAILURE() << "LogCapture cannot read " << log_file_ << ": " << std::strerror(errno);
      return false;
    }
    size_t pos = content->find(line);
    if (pos != std::string::npos) {
      content->resize(pos + line.size());
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, std::chrono::microseconds(20000));
  }
  ADD_FAILURE() << "LogCapture: the sync marker did not reach " << log_file_ << " within "
                << kSyncTimeout.count() << " s; is the syslog sink running?";
  return false;
}

std::vector<LogRecord> LogCapture::Records() {
  std::string content;
  Sync(&content);
  std::vector<LogRecord> records;
  for (std::string_view raw : SplitRecords(content)) {
    LogRecord record = ParseSyslogDatagram(raw);
    if (!IsSyncMarker(record)) records.push_back(std::move(record));
  }
  return records;
}

std::vector<std::string> LogCapture::Texts() {
  std::vector<std::string> texts;
  for (LogRecord& record : Records()) texts.push_back(std::move(record.text));
  return texts;
}

void LogCapture::Reset() {
  std::string content;
  if (Sync(&content)) {
    start_ += static_cast<long long>(content.size());
  } else {
    start_ = FileSize(log_file_);
  }
}

void PrintTo(const LogRecord& record, std::ostream* os) {
  *os << "<" << record.priority << "> \"" << record.text << "\"";
}

bool MessageOf(const std::string& text, const std::string& module, const std::string& process,
               std::string* message) {
  const std::string head = module + ":";
  if (text.compare(0, head.size(), head) != 0) return false;
  size_t pos = head.size();
  while (pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos]))) ++pos;
  if (pos == head.size()) return false;
  const std::string middle = ": " + process + ": ";
  if (text.compare(pos, middle.size(), middle) != 0) return false;
  *message = text.substr(pos + middle.size());
  return true;
}

bool IsModuleLine(const std::string& text, const std::string& module, const std::string& message) {
  std::string found;
  return MessageOf(text, module, program_invocation_short_name, &found) && found == message;
}

::testing::AssertionResult LoggedExactly(const std::vector<LogRecord>& records, int priority,
                                         const std::string& module,
                                         const std::vector<std::string>& messages) {
  bool ok = records.size() == messages.size();
  for (size_t k = 0; ok && k < records.size(); ++k) {
    ok = records[k].priority == priority && IsModuleLine(records[k].text, module, messages[k]);
  }
  if (ok) return ::testing::AssertionSuccess();
  // At most 20 lines of each side: a runaway loop may have logged thousands.
  constexpr size_t kShown = 20;
  ::testing::AssertionResult failure = ::testing::AssertionFailure();
  failure << "expected " << messages.size() << " line(s):";
  for (size_t k = 0; k < messages.size() && k < kShown; ++k) {
    failure << "\n  <" << priority << "> " << module << ":<line>: " << program_invocation_short_name
            << ": " << messages[k];
  }
  failure << "\ngot " << records.size() << ":";
  for (size_t k = 0; k < records.size() && k < kShown; ++k) {
    failure << "\n  <" << records[k].priority << "> " << records[k].text;
  }
  return failure;
}

bool InHermeticRunner() {
  const char* flag = std::getenv("VELMORA_HERMETIC");
  if (flag == nullptr || *flag == '\0') return false;
  struct stat st;
  return stat(kRunnerDir, &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace velmora::test
