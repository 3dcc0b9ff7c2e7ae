// Fuzzes Pop3Control::ModifyFetchmailrc, the rewrite of a user's fetchmail
// control file, on a control file of arbitrary bytes (optionally repeated, so
// that small inputs also cross the rewrite's 16 KiB read and write pieces).
//
// Properties:
// - the rewrite succeeds and only "set daemon" lines change: the new file
//   has the same lines, cut at "\n", each line that begins with "set daemon"
//   becomes "set daemon <interval>" and every other line is kept byte for
//   byte; every line of the new file ends in "\n" (an empty file stays
//   empty);
// - the file keeps its mode, and no temporary file is left beside it;
// - a user without a control file is left alone and the call succeeds.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <velmora/file.h>
#include <velmora/settings.h>

#include "fuzz_util.h"

namespace velmora {
namespace fuzz {
namespace {

constexpr char kControlFile[] = "quillbox_pop3_fetch";
constexpr char kSetDaemon[] = "set daemon";
const uint32_t kUids[] = {7, 1026, 61001, 123456, 4294967295u};
const mode_t kModes[] = {0600, 0640, 0700, 0604};

// The lines of `text` cut at "\n"; a final "\n" ends the last line rather
// than starting an empty one.
std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

settings::Pop3Control* Control() {
  static settings::Pop3Control* control = [] {
    auto* made = new settings::Pop3Control("fuzz");
    made->spool_root = Scratch() + "/spool";
    for (uint32_t uid : kUids) {
      VELMORA_FUZZ_CHECK(sdk::MkDir(made->UserFetchMailPath(uid)) == 0,
                         "cannot make " + made->UserFetchMailPath(uid));
    }
    // A user without a control file: nothing to change, nothing made.
    VELMORA_FUZZ_CHECK(made->ModifyFetchmailrc(kUids[0], 60), "no control file: call failed");
    VELMORA_FUZZ_CHECK(test::ListDir(made->UserFetchMailPath(kUids[0])).empty(),
                       "no control file: something was made");
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
  FuzzedDataProvider in(data, size);
  const uint32_t uid = in.PickValueInArray(kUids);
  const mode_t mode = in.PickValueInArray(kModes);
  const uint32_t interval = in.ConsumeIntegral<uint32_t>();
  const size_t repeat = in.ConsumeBool() ? in.ConsumeIntegralInRange<size_t>(2, 24) : 1;
  const std::string piece = in.ConsumeRemainingBytesAsString();
  std::string text;
  for (size_t i = 0; i < repeat; ++i) text += piece;

  const std::string dir = control.UserFetchMailPath(uid);
  const std::string path = dir + kControlFile;
  VELMORA_FUZZ_CHECK(test::WriteFile(path, text, mode), "cannot write " + path);
  VELMORA_FUZZ_CHECK(control.ModifyFetchmailrc(uid, interval), "rewrite of " + Quoted(text));

  const std::string written = test::ReadFile(path);
  const std::vector<std::string> before = Lines(text);
  const std::vector<std::string> after = Lines(written);
  VELMORA_FUZZ_CHECK(written.empty() || written.back() == '\n',
                     "the last line lacks its newline: " + Quoted(written));
  VELMORA_FUZZ_CHECK(before.size() == after.size(), std::to_string(before.size()) +
                                                        " lines became " +
                                                        std::to_string(after.size()) + ": " +
                                                        Quoted(text) + " -> " + Quoted(written));
  const std::string daemon_line = std::string(kSetDaemon) + " " + std::to_string(interval);
  for (size_t i = 0; i < before.size(); ++i) {
    const bool is_daemon = before[i].compare(0, sizeof(kSetDaemon) - 1, kSetDaemon) == 0;
    const std::string& want = is_daemon ? daemon_line : before[i];
    VELMORA_FUZZ_CHECK(after[i] == want, "line " + std::to_string(i + 1) + " " + Quoted(before[i]) +
                                             " became " + Quoted(after[i]) + ", expected " +
                                             Quoted(want));
  }
  VELMORA_FUZZ_CHECK(test::Meta(path).mode == mode, "the rewrite changed the file's mode");
  VELMORA_FUZZ_CHECK(test::ListDir(dir) == std::vector<std::string>{kControlFile},
                     "the rewrite left other files beside the control file");
  return 0;
}
