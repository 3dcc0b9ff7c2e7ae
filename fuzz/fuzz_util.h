// Helpers shared by the fuzz targets: a property check that stops the run
// with a readable message, a scratch directory for the files a target feeds
// to the library, and the reading rules of the key=value file form.
#ifndef VELMORA_FUZZ_FUZZ_UTIL_H_
#define VELMORA_FUZZ_FUZZ_UTIL_H_

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "support/test_util.h"

// Stops the fuzzer (abort, so libFuzzer keeps the input) when `cond` is
// false, printing the condition and `detail`, an expression that yields a
// std::string and is only evaluated on failure.
#define VELMORA_FUZZ_CHECK(cond, detail)                                                    \
  do {                                                                                      \
    if (!(cond)) {                                                                          \
      std::fprintf(stderr, "%s:%d: property failed: %s\n  %s\n", __FILE__, __LINE__, #cond, \
                   std::string(detail).c_str());                                            \
      std::abort();                                                                         \
    }                                                                                       \
  } while (0)

namespace velmora {
namespace fuzz {

// `data` with non-printable bytes as \xNN, cut to about `limit` bytes, in
// double quotes: for failure messages.
inline std::string Quoted(const std::string& data, size_t limit = 160) {
  std::string out = "\"";
  for (size_t i = 0; i < data.size() && i < limit; ++i) {
    const unsigned char c = static_cast<unsigned char>(data[i]);
    if (c == '\\' || c == '"') {
      out.push_back('\\');
      out.push_back(static_cast<char>(c));
    } else if (c >= 0x20 && c < 0x7f) {
      out.push_back(static_cast<char>(c));
    } else {
      char hex[8];
      std::snprintf(hex, sizeof(hex), "\\x%02x", c);
      out.append(hex);
    }
  }
  out.push_back('"');
  if (data.size() > limit) out.append("... (" + std::to_string(data.size()) + " bytes)");
  return out;
}

// The process's scratch directory, made on first use below $VELMORA_SCRATCH
// (a tmpfs inside scripts/hermetic-run) or /var/tmp, and removed at exit.
inline const std::string& Scratch() {
  static test::ScratchDir dir;
  if (dir.path().empty()) {
    std::fprintf(stderr, "fuzz: cannot make a scratch directory\n");
    std::abort();
  }
  return dir.path();
}

// True inside scripts/hermetic-run.
inline bool Hermetic() {
  const char* marker = std::getenv("VELMORA_HERMETIC");
  return marker != nullptr && std::string(marker) == "1";
}

// For targets that write fixed system paths: refuses to run on the host.
inline void RequireHermetic(const char* target) {
  if (Hermetic()) return;
  std::fprintf(stderr,
               "%s writes below /var/packages; run it inside the private namespaces of "
               "scripts/hermetic-run:\n  scripts/hermetic-run -- %s [libFuzzer options]\n",
               target, target);
  std::exit(2);
}

// The text up to its first NUL: what a C string made from `s` holds.
inline std::string UpToNul(const std::string& s) { return s.substr(0, s.find('\0')); }

// An ordered string table with set-value semantics: an existing key keeps
// its place and takes the new value, a new key goes to the end.
class OrderedTable {
 public:
  void Set(const std::string& key, const std::string& value) {
    auto it = index_.find(key);
    if (it != index_.end()) {
      entries_[it->second].second = value;
      return;
    }
    index_.emplace(key, entries_.size());
    entries_.emplace_back(key, value);
  }
  const std::string* Find(const std::string& key) const {
    auto it = index_.find(key);
    return it == index_.end() ? nullptr : &entries_[it->second].second;
  }
  const std::vector<std::pair<std::string, std::string>>& entries() const { return entries_; }

 private:
  std::vector<std::pair<std::string, std::string>> entries_;
  std::unordered_map<std::string, size_t> index_;
};

// What a value read back from a "key=value" line holds: one trailing "\r"
// dropped, then one pair of surrounding double quotes.
inline std::string ReadBackValue(std::string value) {
  if (!value.empty() && value.back() == '\r') value.pop_back();
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
    value = value.substr(1, value.size() - 2);
  }
  return value;
}

// The key=value reading rules, written out plainly: lines end at "\n" (the
// last one may lack it), one trailing "\r" is dropped, blank lines and lines
// starting with "#" are skipped, the line is split at the first `separator`
// (lines without one are skipped) and a value wrapped in one pair of double
// quotes loses them. Every pair is set into `table` in file order.
inline void ReadKeyValueText(const std::string& text, const std::string& separator,
                             OrderedTable* table) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line.front() == '#') continue;
    const size_t at = line.find(separator);
    if (at == std::string::npos) continue;
    std::string value = line.substr(at + separator.size());
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
      value = value.substr(1, value.size() - 2);
    }
    table->Set(line.substr(0, at), value);
  }
}

// The bytes of the key=value form of `table`: one "key=value\n" per pair, in
// table order, nothing quoted.
inline std::string KeyValueText(const OrderedTable& table) {
  std::string text;
  for (const auto& entry : table.entries()) {
    text.append(entry.first).append(1, '=').append(entry.second).append(1, '\n');
  }
  return text;
}

// True when a key written as "key=value" reads back as the same key: no
// NUL (the table is keyed by C strings), no line break, no "=", and not the
// "#" of a comment line.
inline bool WritableKey(const std::string& key) {
  return key.find_first_of(std::string("\0\n=", 3)) == std::string::npos &&
         (key.empty() || key.front() != '#');
}

// True when a value can be handed over as a C string on one line.
inline bool WritableValue(const std::string& value) {
  return value.find_first_of(std::string("\0\n", 2)) == std::string::npos;
}

}  // namespace fuzz
}  // namespace velmora

#endif  // VELMORA_FUZZ_FUZZ_UTIL_H_
