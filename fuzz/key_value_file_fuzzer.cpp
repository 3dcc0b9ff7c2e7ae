// Fuzzes sdk::FileKeyValue: a key=value file of arbitrary bytes is read,
// changed with a few pairs and written back.
//
// Properties:
// - every key of the file reads with the value that the reading rules give
//   (the last line of a key wins);
// - Write replaces the file with exactly one "key=value\n" line per pair, in
//   the order of first appearance, updated keys in place and new keys at the
//   end, keeps the file's mode and leaves no temporary file behind;
// - what was written reads back: an updated key gives its new value (as the
//   reading rules return it);
// - with write-on-destroy set, the destructor writes unsaved changes; without
//   it, they are dropped.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <velmora/file.h>

#include "fuzz_util.h"

namespace velmora {
namespace fuzz {
namespace {

constexpr int kTableSize = 1024;
constexpr mode_t kFileMode = 0640;

struct Pair {
  std::string key;
  std::string value;
};

// Every key of `table` that can be asked for by C string reads as the model
// says.
void CheckReadsAs(sdk::FileKeyValue& file, const OrderedTable& table, const char* when) {
  for (const auto& entry : table.entries()) {
    if (entry.first.find('\0') != std::string::npos) continue;
    // A key cut at a NUL would look up another entry; only whole keys count.
    const std::string got = file.Get(entry.first);
    const std::string want = UpToNul(entry.second);
    VELMORA_FUZZ_CHECK(got == want, std::string(when) + ": key " + Quoted(entry.first) + " reads " +
                                        Quoted(got) + ", expected " + Quoted(want));
  }
}

}  // namespace
}  // namespace fuzz
}  // namespace velmora

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace velmora;
  using namespace velmora::fuzz;
  FuzzedDataProvider in(data, size);
  const bool write_on_destroy = in.ConsumeBool();
  const size_t update_count = in.ConsumeIntegralInRange<size_t>(0, 6);
  std::vector<Pair> updates;
  for (size_t i = 0; i < update_count; ++i) {
    Pair pair;
    pair.key = in.ConsumeRandomLengthString(24);
    pair.value = in.ConsumeRandomLengthString(48);
    // Update takes C strings and the file form has one pair per line; keys
    // that could not come back as themselves are not the caller's to give.
    if (WritableKey(pair.key) && WritableValue(pair.value)) updates.push_back(pair);
  }
  const std::string text = in.ConsumeRemainingBytesAsString();

  const std::string path = Scratch() + "/settings.conf";
  VELMORA_FUZZ_CHECK(test::WriteFile(path, text, kFileMode), "cannot write " + path);

  OrderedTable model;
  ReadKeyValueText(text, "=", &model);
  {
    sdk::FileKeyValue file(path);
    VELMORA_FUZZ_CHECK(file.Get("").empty() && file.Get("k").empty(), "Get before a read");
    VELMORA_FUZZ_CHECK(file.ReadKeyValues(kTableSize, "="), "ReadKeyValues of " + Quoted(text));
    CheckReadsAs(file, model, "after reading");

    for (const Pair& pair : updates) {
      VELMORA_FUZZ_CHECK(file.Update(pair.key, pair.value), "Update of " + Quoted(pair.key));
      model.Set(pair.key, pair.value);
    }
    CheckReadsAs(file, model, "after updating");

    VELMORA_FUZZ_CHECK(file.Write(), "Write after reading " + Quoted(text));
    const std::string written = test::ReadFile(path);
    const std::string expected = KeyValueText(model);
    VELMORA_FUZZ_CHECK(written == expected,
                       "file after Write " + Quoted(written) + ", expected " + Quoted(expected));
    VELMORA_FUZZ_CHECK(test::Meta(path).mode == kFileMode, "Write changed the file's mode");
    VELMORA_FUZZ_CHECK(test::ListDir(Scratch()) == std::vector<std::string>{"settings.conf"},
                       "Write left other files beside the target");
  }

  // Read back: every pair of the table comes back, its value as the reading
  // rules return it.
  OrderedTable read_back;
  for (const auto& entry : model.entries()) {
    read_back.Set(entry.first, ReadBackValue(entry.second));
  }
  {
    sdk::FileKeyValue file(path);
    VELMORA_FUZZ_CHECK(file.ReadKeyValues(kTableSize, "="), "ReadKeyValues of the written file");
    CheckReadsAs(file, read_back, "after reading the written file");
  }

  // Unsaved changes: written by the destructor only with write-on-destroy.
  const std::string before = test::ReadFile(path);
  const std::string key = "fuzz_unsaved_key";
  const std::string value = std::to_string(size);
  {
    sdk::FileKeyValue file(path);
    file.SetWriteOnDestroy(write_on_destroy);
    VELMORA_FUZZ_CHECK(file.ReadKeyValues(kTableSize, "="), "ReadKeyValues before Update");
    VELMORA_FUZZ_CHECK(file.Update(key, value), "Update of the unsaved key");
  }
  const std::string after = test::ReadFile(path);
  if (write_on_destroy) {
    OrderedTable expected_table = read_back;
    expected_table.Set(key, value);
    VELMORA_FUZZ_CHECK(after == KeyValueText(expected_table),
                       "write-on-destroy left " + Quoted(after));
  } else {
    VELMORA_FUZZ_CHECK(after == before,
                       "unsaved changes reached the file without write-on-destroy");
  }
  VELMORA_FUZZ_CHECK(test::ListDir(Scratch()) == std::vector<std::string>{"settings.conf"},
                     "the destructor left other files beside the target");
  return 0;
}
