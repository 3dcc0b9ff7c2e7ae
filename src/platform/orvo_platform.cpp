// Portable implementation of the platform layer on POSIX and the C++ standard
// library. See orvo_platform.h for the contract of each operation.
#include "platform/orvo_platform.h"
#include "lib/child_exit.h"
#include "lib/posix_io.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <deque>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

extern char** environ;

// Pairs live in a deque, which never moves its elements on push_back, so the
// index can key on views of the stored keys; iteration follows insertion.
struct OLIBC_SZHASH {
  std::deque<std::pair<std::string, std::string>> entries;
  std::unordered_map<std::string_view, size_t> index;
};

namespace {

int SetValue(OLIBC_SZHASH* table, std::string_view key, std::string_view value) {
  auto it = table->index.find(key);
  if (it != table->index.end()) {
    table->entries[it->second].second.assign(value.data(), value.size());
    return 0;
  }
  table->entries.emplace_back(std::string(key), std::string(value));
  table->index.emplace(table->entries.back().first, table->entries.size() - 1);
  return 0;
}

struct FileCloser {
  void operator()(FILE* f) const {
    // NOLINTNEXTLINE(cert-err33-c): streams read only, nothing to lose
    if (f != nullptr) fclose(f);
  }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// Copies a passwd entry into a newly allocated record.
ORVOUSER* NewUser(const struct passwd* pw) {
  ORVOUSER* user = static_cast<ORVOUSER*>(calloc(1, sizeof(ORVOUSER)));
  if (user == nullptr) return nullptr;
  user->szName = strdup(pw->pw_name);
  user->szHome = strdup(pw->pw_dir != nullptr ? pw->pw_dir : "");
  user->szShell = strdup(pw->pw_shell != nullptr ? pw->pw_shell : "");
  user->uid = pw->pw_uid;
  user->gid = pw->pw_gid;
  if (user->szName == nullptr || user->szHome == nullptr || user->szShell == nullptr) {
    ORVOUserFree(user);
    return nullptr;
  }
  return user;
}

// The record of the passwd entry of `key` (a name or a uid) in *user.
template <typename Key>
int LookUpUser(Key key, ORVOUSER** user) {
  if (user == nullptr) return -1;
  *user = nullptr;
  const bool found = velmora::internal::WithPasswdEntryOf(key, [user](const struct passwd& pw) {
    *user = NewUser(&pw);
    return *user != nullptr;
  });
  return found ? 0 : -1;
}

}  // namespace

extern "C" {

OLIBC_SZHASH* OLIBCSzHashAlloc(int size) {
  OLIBC_SZHASH* table = new (std::nothrow) OLIBC_SZHASH;
  if (table == nullptr) return nullptr;
  try {
    if (size > 0) table->index.reserve(static_cast<size_t>(size));
  } catch (...) {
    delete table;
    return nullptr;
  }
  return table;
}

void OLIBCSzHashFree(OLIBC_SZHASH* table) { delete table; }

int OLIBCHashRemoveAll(OLIBC_SZHASH* table) {
  if (table == nullptr) return -1;
  table->index.clear();
  table->entries.clear();
  return 0;
}

const char* OLIBCSzHashGetValue(const OLIBC_SZHASH* table, const char* key) {
  if (table == nullptr || key == nullptr) return nullptr;
  auto it = table->index.find(key);
  return it == table->index.end() ? nullptr : table->entries[it->second].second.c_str();
}

int OLIBCSzHashSetValue(OLIBC_SZHASH** table, const char* key, const char* value) {
  if (table == nullptr || key == nullptr || value == nullptr) return -1;
  if (*table == nullptr && (*table = OLIBCSzHashAlloc(0)) == nullptr) return -1;
  try {
    return SetValue(*table, key, value);
  } catch (...) {
    return -1;
  }
}

size_t OLIBCSzHashCount(const OLIBC_SZHASH* table) {
  return table == nullptr ? 0 : table->entries.size();
}

int OLIBCSzHashGetAt(const OLIBC_SZHASH* table, size_t index, const char** key,
                     const char** value) {
  if (table == nullptr || index >= table->entries.size()) return -1;
  const auto& entry = table->entries[index];
  if (key != nullptr) *key = entry.first.c_str();
  if (value != nullptr) *value = entry.second.c_str();
  return 0;
}

int OLIBCFileGetKeys(const char* path, int flags, OLIBC_SZHASH** table, const char* separator) {
  if (path == nullptr || table == nullptr || separator == nullptr || *separator == '\0' ||
      flags != 0) {
    return -1;
  }
  FilePtr file(fopen(path, "re"));
  if (!file) return -1;
  if (*table == nullptr && (*table = OLIBCSzHashAlloc(0)) == nullptr) return -1;
  const std::string_view sep(separator);
  char* line = nullptr;
  size_t cap = 0;
  // cppcheck-suppress variableScope ; assigned in the loop condition
  ssize_t len;
  int rc = 0;
  try {
    while ((len = getline(&line, &cap, file.get())) >= 0) {
      std::string_view text(line, static_cast<size_t>(len));
      if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
      if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
      if (text.empty() || text.front() == '#') continue;
      size_t at = text.find(sep);
      if (at == std::string_view::npos) continue;
      std::string_view key = text.substr(0, at);
      std::string_view value = text.substr(at + sep.size());
      if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
      }
      SetValue(*table, key, value);
    }
    if (ferror(file.get())) rc = -1;
  } catch (...) {
    rc = -1;
  }
  free(line);
  return rc;
}

int OLIBCFileSetKeys(const char* path, const OLIBC_SZHASH* table, int flags, int mode) {
  if (path == nullptr || table == nullptr || flags != 0 || mode != 0) return -1;
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) return -1;
  bool ok = true;
  try {
    const std::string text = velmora::internal::KeyFileText(table);
    ok = velmora::internal::WriteAll(fd, text.data(), text.size());
  } catch (...) {
    ok = false;
  }
  if (close(fd) != 0) ok = false;
  return ok ? 0 : -1;
}

int OLIBCFileTouch(const char* path) {
  if (path == nullptr) return -1;
  int fd = open(path, O_WRONLY | O_CREAT | O_NOCTTY | O_NONBLOCK | O_CLOEXEC, 0644);
  if (fd < 0) {
    // A directory or an unwritable file that exists still gets new times.
    return utimensat(AT_FDCWD, path, nullptr, 0) == 0 ? 0 : -1;
  }
  int rc = futimens(fd, nullptr);
  if (close(fd) != 0) rc = -1;
  return rc == 0 ? 0 : -1;
}

int ORVOUserGet(const char* name, ORVOUSER** user) {
  if (name == nullptr) return -1;
  return LookUpUser(name, user);
}

int ORVOUserGetByUID(uint32_t uid, ORVOUSER** user) {
  return LookUpUser(static_cast<uid_t>(uid), user);
}

void ORVOUserFree(ORVOUSER* user) {
  if (user == nullptr) return;
  free(user->szName);
  free(user->szHome);
  free(user->szShell);
  free(user);
}

int OLIBUserRealNameGet(const char* name, char* buf, int size) {
  if (name == nullptr || buf == nullptr || size <= 0) return -1;
  ORVOUSER* user = nullptr;
  if (ORVOUserGet(name, &user) < 0) return -1;
  size_t len = strlen(user->szName);
  int rc = -1;
  if (len < static_cast<size_t>(size)) {
    memcpy(buf, user->szName, len + 1);
    rc = 0;
  }
  ORVOUserFree(user);
  return rc;
}

int OLIBCExecl(const char* path, int flags, ...) {
  (void)flags;
  if (path == nullptr) return -1;
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(path));
  va_list ap;
  va_start(ap, flags);
  for (;;) {
    char* arg = va_arg(ap, char*);
    argv.push_back(arg);
    if (arg == nullptr) break;
  }
  va_end(ap);

  pid_t pid;
  if (posix_spawn(&pid, path, nullptr, nullptr, argv.data(), environ) != 0) return -1;
  int status = 0;
  if (velmora::internal::WaitForChild(pid, &status) != pid) return -1;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return -2;
}

int OLIBCProcForkChildNoWait(void) {
  // Double fork: the middle process exits at once and is reaped here, so the
  // grandchild is adopted by init and leaves no zombie behind. The pipe
  // carries the grandchild's pid back.
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  pid_t middle = fork();
  if (middle < 0) {
    close(fds[0]);
    close(fds[1]);
    return -1;
  }
  if (middle == 0) {
    close(fds[0]);
    pid_t child = fork();
    if (child == 0) {
      close(fds[1]);
      return 0;
    }
    // Unchecked: a parent that gets no pid reports the failure itself.
    (void)velmora::internal::WriteAll(fds[1], &child, sizeof(child));
    velmora::ChildExit(child < 0 ? 1 : 0);
  }
  close(fds[1]);
  pid_t child = -1;
  const ssize_t got = velmora::internal::ReadSome(fds[0], &child, sizeof(child));
  close(fds[0]);
  int status = 0;
  velmora::internal::WaitForChild(middle, &status);
  if (got != static_cast<ssize_t>(sizeof(child)) || child <= 0) return -1;
  return static_cast<int>(child);
}

}  // extern "C"

std::string velmora::internal::KeyFileText(const OLIBC_SZHASH* table) {
  std::string text;
  if (table == nullptr) return text;
  // Sized first: one allocation instead of a string that doubles as it
  // fills (a large table's text is past malloc's mmap threshold).
  size_t size = 0;
  for (const auto& entry : table->entries) size += entry.first.size() + entry.second.size() + 2;
  text.reserve(size);
  for (const auto& entry : table->entries) {
    text.append(entry.first).append(1, '=').append(entry.second).append(1, '\n');
  }
  return text;
}
