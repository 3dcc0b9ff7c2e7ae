// Fuzzes velmora::Replace and velmora::Join against plain reference
// implementations.
//
// Properties:
// - Replace with a non-empty `from` equals a left-to-right scan of `str`
//   that copies `to` for each match and skips the match, so text brought in
//   by `to` is never searched again; its length grows by exactly
//   (|to| - |from|) per match of that scan, so a `to` that contains `from`
//   adds no further replacements;
// - Replace with an empty `from` and a non-empty `to` puts `to` before every
//   byte and once at the end (an empty `to` as well would never return, so
//   that pair is not tried);
// - Join equals the fold "first item, then separator and item for each
//   further one", "" for no items.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <velmora/common.h>

#include "fuzz_util.h"

namespace velmora {
namespace fuzz {
namespace {

// Replacement by one scan over the original text; also counts the matches.
std::string ScanReplace(const std::string& str, const std::string& from, const std::string& to,
                        size_t* matches) {
  std::string out;
  *matches = 0;
  if (from.empty()) {
    for (char c : str) {
      out += to;
      out.push_back(c);
    }
    out += to;
    *matches = str.size() + 1;
    return out;
  }
  size_t i = 0;
  while (i < str.size()) {
    if (str.compare(i, from.size(), from) == 0) {
      out += to;
      i += from.size();
      ++*matches;
    } else {
      out.push_back(str[i]);
      ++i;
    }
  }
  return out;
}

std::string FoldJoin(const std::vector<std::string>& items, const std::string& sep) {
  std::string out;
  for (size_t i = 0; i < items.size(); ++i) {
    if (i != 0) out += sep;
    out += items[i];
  }
  return out;
}

}  // namespace
}  // namespace fuzz
}  // namespace velmora

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace velmora;
  using namespace velmora::fuzz;
  FuzzedDataProvider in(data, size);
  if (in.ConsumeBool()) {
    const std::string from = in.ConsumeRandomLengthString(8);
    const std::string to = in.ConsumeRandomLengthString(16);
    const std::string str = in.ConsumeRemainingBytesAsString();
    if (from.empty() && to.empty()) return 0;
    size_t matches = 0;
    const std::string want = ScanReplace(str, from, to, &matches);
    const std::string got = Replace(str, from, to);
    const std::string what =
        "Replace(" + Quoted(str) + ", " + Quoted(from) + ", " + Quoted(to) + ")";
    VELMORA_FUZZ_CHECK(got.size() == str.size() + matches * to.size() - matches * from.size(),
                       what + " has " + std::to_string(got.size()) + " bytes after " +
                           std::to_string(matches) + " matches");
    VELMORA_FUZZ_CHECK(got == want, what + " gave " + Quoted(got) + ", expected " + Quoted(want));
  } else {
    const std::string sep = in.ConsumeRandomLengthString(8);
    std::vector<std::string> items(in.ConsumeIntegralInRange<size_t>(0, 24));
    for (std::string& item : items) item = in.ConsumeRandomLengthString(32);
    const std::string got = Join(items, sep);
    const std::string want = FoldJoin(items, sep);
    VELMORA_FUZZ_CHECK(got == want, "Join of " + std::to_string(items.size()) + " items with " +
                                        Quoted(sep) + " gave " + Quoted(got) + ", expected " +
                                        Quoted(want));
  }
  return 0;
}
