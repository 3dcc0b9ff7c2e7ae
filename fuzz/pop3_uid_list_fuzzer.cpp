// Fuzzes Pop3Control::GetPOP3UidSet, the reader of the list of users whose
// fetch daemons were started, on a uid list of arbitrary bytes.
//
// Property: the set equals the one of a plain reading of the list as
// formatted extraction of unsigned 32-bit numbers does it: white space
// (" \t\n\v\f\r") is skipped, a number is an optional sign and decimal
// digits ("-n" wraps modulo 2^32, as for any unsigned extraction) and ends
// at the first other byte, and the read stops at the first token that does
// not start a number or does not fit 32 bits. Duplicates collapse.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include <velmora/settings.h>

#include "fuzz_util.h"

namespace velmora {
namespace fuzz {
namespace {

bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

std::set<uint32_t> ReadUids(const std::string& text) {
  std::set<uint32_t> uids;
  size_t pos = 0;
  for (;;) {
    while (pos < text.size() && IsSpace(text[pos])) ++pos;
    if (pos == text.size()) break;
    bool negative = false;
    if (text[pos] == '-' || text[pos] == '+') {
      negative = text[pos] == '-';
      ++pos;
    }
    if (pos == text.size() || !IsDigit(text[pos])) break;
    uint64_t value = 0;
    bool fits = true;
    for (; pos < text.size() && IsDigit(text[pos]); ++pos) {
      value = value * 10 + static_cast<uint64_t>(text[pos] - '0');
      if (value > UINT32_MAX) {
        fits = false;
        value = UINT32_MAX;  // stays put; the digits are still consumed
      }
    }
    if (!fits) break;
    const uint32_t uid = static_cast<uint32_t>(value);
    uids.insert(negative ? static_cast<uint32_t>(0u - uid) : uid);
  }
  return uids;
}

std::string Describe(const std::set<uint32_t>& uids) {
  std::string out = "{";
  size_t shown = 0;
  for (uint32_t uid : uids) {
    if (shown++ == 12) {
      out.append(" ...");
      break;
    }
    out.append(" ").append(std::to_string(uid));
  }
  return out + " } (" + std::to_string(uids.size()) + " uids)";
}

settings::Pop3Control* Control() {
  static settings::Pop3Control* control = [] {
    auto* made = new settings::Pop3Control("fuzz");
    made->uid_list_path = Scratch() + "/fuzz_pop3_uid.config";
    // No list yet: an empty set.
    VELMORA_FUZZ_CHECK(made->GetPOP3UidSet().empty(), "a missing uid list gave uids");
    return made;
  }();
  return control;
}

}  // namespace
}  // namespace fuzz
}  // namespace velmora

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace velmora;
  using namespace velmora::fuzz;
  const settings::Pop3Control& control = *Control();
  const std::string text(reinterpret_cast<const char*>(data), size);
  VELMORA_FUZZ_CHECK(test::WriteFile(control.uid_list_path, text), "cannot write the uid list");
  const std::set<uint32_t> got = control.GetPOP3UidSet();
  const std::set<uint32_t> want = ReadUids(text);
  VELMORA_FUZZ_CHECK(got == want, "uid list " + Quoted(text) + " gave " + Describe(got) +
                                      ", expected " + Describe(want));
  return 0;
}
