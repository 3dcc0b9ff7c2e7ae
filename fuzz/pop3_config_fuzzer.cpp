// Fuzzes Pop3Control::GetPOP3Config, the reader of the POP3 fetch service's
// global switch file, on a switch file of arbitrary bytes.
//
// Properties:
// - enabled is true exactly when line 1 is "true"; the period is 5 when line
//   2 is empty or missing, otherwise the leading decimal number of line 2 (as
//   strtoul reads it: leading white space and a sign allowed, saturating at
//   the largest unsigned long, nothing at all giving 0; the text ends at a
//   NUL) truncated to 32 bits;
// - inside scripts/hermetic-run (where the package account exists), a
//   switch stored with SetPOP3Config reads back unchanged, whatever the
//   period, from a file of mode 0644. The back-end tool is absent there, so
//   SetPOP3Config reports the failed propagation and the new file stays.
#include <fuzzer/FuzzedDataProvider.h>
#include <pwd.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>

#include <velmora/settings.h>

#include "fuzz_util.h"

namespace velmora {
namespace fuzz {
namespace {

constexpr uint32_t kDefaultPeriod = 5;

bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// strtoul(text, nullptr, 10) written out, for the text up to its first NUL.
unsigned long LeadingNumber(const std::string& text) {
  size_t pos = 0;
  while (pos < text.size() && IsSpace(text[pos])) ++pos;
  bool negative = false;
  if (pos < text.size() && (text[pos] == '-' || text[pos] == '+')) {
    negative = text[pos] == '-';
    ++pos;
  }
  unsigned long value = 0;
  bool overflow = false;
  for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos) {
    const unsigned long digit = static_cast<unsigned long>(text[pos] - '0');
    if (value > (ULONG_MAX - digit) / 10) overflow = true;
    value = value * 10 + digit;
  }
  if (overflow) return ULONG_MAX;
  return negative ? 0ul - value : value;
}

settings::record::GlobalPOP3Config ReadSwitch(const std::string& text) {
  settings::record::GlobalPOP3Config config{false, kDefaultPeriod};
  if (text.empty()) return config;  // not even line 1
  const size_t end1 = text.find('\n');
  config.enabled = text.substr(0, end1) == "true";
  if (end1 == std::string::npos || end1 + 1 == text.size()) return config;
  const size_t end2 = text.find('\n', end1 + 1);
  const std::string line2 =
      text.substr(end1 + 1, end2 == std::string::npos ? std::string::npos : end2 - end1 - 1);
  if (!line2.empty()) config.period = static_cast<uint32_t>(LeadingNumber(UpToNul(line2)));
  return config;
}

std::string Describe(const settings::record::GlobalPOP3Config& config) {
  return std::string(config.enabled ? "{true, " : "{false, ") + std::to_string(config.period) + "}";
}

settings::Pop3Control* Control() {
  static settings::Pop3Control* control = [] {
    auto* made = new settings::Pop3Control("fuzz");
    made->pop3_config_path = Scratch() + "/fuzz_pop3.config";
    const settings::record::GlobalPOP3Config missing = made->GetPOP3Config();
    VELMORA_FUZZ_CHECK(!missing.enabled && missing.period == kDefaultPeriod,
                       "a missing switch file gave " + Describe(missing));
    return made;
  }();
  return control;
}

// Storing runs the package's back-end tool, so it is only tried inside the
// runner, where the tool is absent and the package account exists.
bool CanStore() {
  static const bool can = Hermetic() && getpwnam("Velmora-Server") != nullptr;
  return can;
}

}  // namespace
}  // namespace fuzz
}  // namespace velmora

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace velmora;
  using namespace velmora::fuzz;
  const settings::Pop3Control& control = *Control();
  FuzzedDataProvider in(data, size);
  const bool store_first = in.ConsumeBool();
  if (store_first && CanStore()) {
    settings::record::GlobalPOP3Config config;
    config.enabled = in.ConsumeBool();
    config.period = in.ConsumeIntegral<uint32_t>();
    // Only the propagation can fail here (the back-end tool is not there).
    const bool stored = control.SetPOP3Config(config);
    const settings::record::GlobalPOP3Config got = control.GetPOP3Config();
    VELMORA_FUZZ_CHECK(got.enabled == config.enabled && got.period == config.period,
                       "stored " + Describe(config) + " (result " + std::to_string(stored) +
                           "), read back " + Describe(got));
    VELMORA_FUZZ_CHECK(test::Meta(control.pop3_config_path).mode == 0644,
                       "the switch file is not mode 0644");
    return 0;
  }
  const std::string text = in.ConsumeRemainingBytesAsString();
  VELMORA_FUZZ_CHECK(test::WriteFile(control.pop3_config_path, text),
                     "cannot write the switch file");
  const settings::record::GlobalPOP3Config got = control.GetPOP3Config();
  const settings::record::GlobalPOP3Config want = ReadSwitch(text);
  VELMORA_FUZZ_CHECK(
      got.enabled == want.enabled && got.period == want.period,
      "switch file " + Quoted(text) + " gave " + Describe(got) + ", expected " + Describe(want));
  return 0;
}
