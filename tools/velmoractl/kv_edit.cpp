// kv set: the line of one key rewritten in the file's own bytes (comments,
// blank lines, order, line ends and quoting kept), written to a temporary
// file beside the target that takes its owner, group and mode, flushed and
// renamed over it.
#include "kv_edit.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include <velmora/file.h>

namespace velmoractl {
namespace {

// True when the reader would remove a pair of quotes around `raw`.
bool Wrapped(const std::string& raw) {
  return raw.size() >= 2 && raw.front() == '"' && raw.back() == '"';
}

// What a line break, carriage return or NUL in `text` is called in a
// message; "" when there is none.
std::string ControlProblem(const std::string& text) {
  if (text.find('\0') != std::string::npos) return "a NUL byte";
  if (text.find('\n') != std::string::npos) return "a line break";
  if (text.find('\r') != std::string::npos) return "a carriage return";
  return std::string();
}

// The line end that an appended line takes: "\r\n" when the file's last line
// end is one, "\n" otherwise.
std::string LineEnd(const std::string& text) {
  const size_t last = text.rfind('\n');
  return last != std::string::npos && last > 0 && text[last - 1] == '\r' ? "\r\n" : "\n";
}

// errno as a message tail: ": <reason>", or "" when it is 0.
// NOLINTNEXTLINE(concurrency-mt-unsafe): velmoractl runs one thread
std::string Reason(int err) { return err != 0 ? std::string(": ") + std::strerror(err) : ""; }

// A descriptor closed when it goes out of scope.
struct Fd {
  int fd = -1;
  ~Fd() {
    if (fd >= 0) close(fd);
  }
};

bool ReadAll(int fd, std::string& text) {
  char buf[65536];
  for (;;) {
    const ssize_t got = read(fd, buf, sizeof(buf));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) return true;
    text.append(buf, static_cast<size_t>(got));
  }
}

bool WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t put = write(fd, text.data() + done, text.size() - done);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return false;
    done += static_cast<size_t>(put);
  }
  return true;
}

// Writes `text` into the new temporary file at `temp` with the owner, group
// and permission bits of `target` (ownership first: chown clears set-id bits)
// and flushes it; 0, or the errno of the step that failed.
int FillTemporary(const std::string& temp, const struct stat& target, const std::string& text) {
  Fd out;
  out.fd = open(temp.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY);
  if (out.fd < 0) return errno;
  struct stat st;
  if (fstat(out.fd, &st) != 0) return errno;
  if ((st.st_uid != target.st_uid || st.st_gid != target.st_gid) &&
      fchown(out.fd, target.st_uid, target.st_gid) != 0) {
    return errno;
  }
  if (fchmod(out.fd, target.st_mode & 07777) != 0) return errno;
  if (!WriteAll(out.fd, text) || fsync(out.fd) != 0) return errno;
  const int fd = out.fd;
  out.fd = -1;
  return close(fd) != 0 ? errno : 0;
}

}  // namespace

std::string KeyProblem(const std::string& key) {
  if (key.empty()) return "the key cannot be empty";
  const std::string control = ControlProblem(key);
  if (!control.empty()) return "key " + Quote(key) + " cannot hold " + control;
  if (key.find('=') != std::string::npos) return "key " + Quote(key) + " cannot hold \"=\"";
  if (key.front() == '#') return "key " + Quote(key) + " cannot start with \"#\"";
  return std::string();
}

std::string ValueProblem(const std::string& value) {
  const std::string control = ControlProblem(value);
  if (!control.empty()) return "value " + Quote(value) + " cannot hold " + control;
  return std::string();
}

bool SetInText(std::string& text, const std::string& key, const std::string& value) {
  // Lines as the reader takes them: up to "\n", less one trailing "\r";
  // blank lines, comments and lines without "=" hold no key.
  size_t value_begin = std::string::npos;
  size_t value_end = 0;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    const size_t next = end == std::string::npos ? text.size() : end + 1;
    if (end == std::string::npos) end = text.size();
    if (end > start && text[end - 1] == '\r') --end;
    if (end > start && text[start] != '#') {
      const size_t at = std::string_view(text).substr(start, end - start).find('=');
      if (at == key.size() && text.compare(start, key.size(), key) == 0) {
        value_begin = start + at + 1;
        value_end = end;
      }
    }
    start = next;
  }
  if (value_begin != std::string::npos) {
    // The edited line keeps its quotes; a value the reader would unwrap gets
    // one more pair.
    const bool quoted = Wrapped(text.substr(value_begin, value_end - value_begin));
    const std::string raw = quoted || Wrapped(value) ? "\"" + value + "\"" : value;
    text.replace(value_begin, value_end - value_begin, raw);
    return false;
  }
  const std::string eol = LineEnd(text);
  // A last line without its "\n" is ended first; one ending in "\r" takes
  // only "\n", so that its value does not gain the "\r".
  if (!text.empty() && text.back() != '\n') text += text.back() == '\r' ? "\n" : eol;
  text += key + "=" + (Wrapped(value) ? "\"" + value + "\"" : value) + eol;
  return true;
}

void KvSet(Context& ctx, const std::string& path, const std::string& key,
           const std::string& value) {
  std::string problem = KeyProblem(key);
  if (problem.empty()) problem = ValueProblem(value);
  if (!problem.empty()) {
    Fail(ctx, kUsage, problem);
    return;
  }
  // A symbolic link stays; the file it leads to is the one replaced.
  char* resolved = realpath(path.c_str(), nullptr);
  if (resolved == nullptr) {
    const int err = errno;
    Fail(ctx, StatusForFileErrno(err, kFailed), "cannot read " + Quote(path) + Reason(err));
    return;
  }
  const std::string target(resolved);
  std::free(resolved);

  // O_NONBLOCK: a FIFO must not hang the open; it is refused below.
  Fd in;
  in.fd = open(target.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  struct stat st;
  if (in.fd < 0 || fstat(in.fd, &st) != 0) {
    const int err = errno;
    Fail(ctx, StatusForFileErrno(err, kFailed), "cannot read " + Quote(path) + Reason(err));
    return;
  }
  if (!S_ISREG(st.st_mode)) {
    Fail(ctx, kFailed, Quote(path) + " is not a regular file");
    return;
  }
  std::string text;
  if (!ReadAll(in.fd, text)) {
    const int err = errno;
    Fail(ctx, StatusForErrno(err, kFailed), "cannot read " + Quote(path) + Reason(err));
    return;
  }
  const bool added = SetInText(text, key, value);

  // The temporary name is removed when `temp` goes, unless it was renamed.
  velmora::sdk::TempFile temp(target);
  if (!temp.valid_) {
    // errno tells why only when a name was found and its open failed.
    const int err = temp.path().empty() ? 0 : errno;
    Fail(ctx, StatusForErrno(err, kFailed),
         "cannot create a temporary file beside " + Quote(path) + Reason(err));
    return;
  }
  const int err = FillTemporary(temp.path(), st, text);
  if (err != 0) {
    Fail(ctx, StatusForErrno(err, kFailed), "cannot write " + Quote(path) + Reason(err));
    return;
  }
  if (temp.MoveTo(target) != 0) {
    // The file was written and flushed through a descriptor of its own, so
    // what fails here is the rename, which leaves no errno but a log line.
    // (A caller refused the rename in a sticky directory, not owning the
    // file, was already refused the chown above.)
    Fail(ctx, kFailed, "cannot replace " + Quote(path) + " (see the system log)");
    return;
  }
  Verbose(ctx, (added ? "added " + key + " to " : "set " + key + " in ") + path);
}

}  // namespace velmoractl
