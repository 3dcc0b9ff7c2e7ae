// Fuzzes the platform layer's key-file reader and writer (OLIBCFileGetKeys,
// OLIBCFileSetKeys) and its ordered string table.
//
// Properties:
// - the reader gives exactly the table of the reading rules, pair for pair
//   and in order, for any separator, also when it adds to a table that
//   already holds pairs; an empty separator is refused;
// - the writer writes exactly one "key=value\n" line per pair in table order;
// - with the separator "=", what the writer wrote reads back as the same
//   keys in the same order, each value as the reading rules return it.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_util.h"
#include "platform/orvo_platform.h"

namespace velmora {
namespace fuzz {
namespace {

// `table` holds exactly the pairs of `model`, in its order. Pairs are seen
// through C strings, so both sides are compared up to their first NUL.
void CheckTable(const OLIBC_SZHASH* table, const OrderedTable& model, const std::string& what) {
  const size_t count = OLIBCSzHashCount(table);
  VELMORA_FUZZ_CHECK(count == model.entries().size(), what + ": " + std::to_string(count) +
                                                          " pairs, expected " +
                                                          std::to_string(model.entries().size()));
  for (size_t i = 0; i < count; ++i) {
    const char* key = nullptr;
    const char* value = nullptr;
    VELMORA_FUZZ_CHECK(OLIBCSzHashGetAt(table, i, &key, &value) == 0,
                       what + ": no pair at " + std::to_string(i));
    const auto& want = model.entries()[i];
    VELMORA_FUZZ_CHECK(key == UpToNul(want.first) && value == UpToNul(want.second),
                       what + ": pair " + std::to_string(i) + " is " + Quoted(key) + "=" +
                           Quoted(value) + ", expected " + Quoted(want.first) + "=" +
                           Quoted(want.second));
    if (want.first.find('\0') == std::string::npos) {
      const char* found = OLIBCSzHashGetValue(table, want.first.c_str());
      VELMORA_FUZZ_CHECK(found != nullptr && found == UpToNul(want.second),
                         what + ": lookup of " + Quoted(want.first));
    }
  }
  VELMORA_FUZZ_CHECK(OLIBCSzHashGetAt(table, count, nullptr, nullptr) < 0,
                     what + ": a pair past the end");
}

std::string PickSeparator(FuzzedDataProvider& in) {
  switch (in.ConsumeIntegralInRange(0, 5)) {
    case 0:
      return ":";
    case 1:
      return " = ";
    case 2:
      return "==";
    case 3:
      return in.ConsumeRandomLengthString(4);
    default:
      return "=";
  }
}

}  // namespace
}  // namespace fuzz
}  // namespace velmora

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace velmora;
  using namespace velmora::fuzz;
  FuzzedDataProvider in(data, size);
  const std::string separator = UpToNul(PickSeparator(in));
  const bool preset = in.ConsumeBool();
  const std::string preset_key = UpToNul(in.ConsumeRandomLengthString(16));
  const std::string preset_value = UpToNul(in.ConsumeRandomLengthString(16));
  const std::string text = in.ConsumeRemainingBytesAsString();

  const std::string path = Scratch() + "/keys";
  const std::string copy = Scratch() + "/keys.written";
  VELMORA_FUZZ_CHECK(test::WriteFile(path, text), "cannot write " + path);

  OLIBC_SZHASH* table = nullptr;
  OrderedTable model;
  if (preset) {
    VELMORA_FUZZ_CHECK(OLIBCSzHashSetValue(&table, preset_key.c_str(), preset_value.c_str()) == 0 &&
                           table != nullptr,
                       "set-value on a new table");
    model.Set(preset_key, preset_value);
  }
  const int rc = OLIBCFileGetKeys(path.c_str(), 0, &table, separator.c_str());
  if (separator.empty()) {
    VELMORA_FUZZ_CHECK(rc < 0, "an empty separator was accepted");
    OLIBCSzHashFree(table);
    return 0;
  }
  VELMORA_FUZZ_CHECK(rc == 0 && table != nullptr, "reading " + Quoted(text));
  ReadKeyValueText(text, separator, &model);
  CheckTable(table, model, "read with separator " + Quoted(separator));

  VELMORA_FUZZ_CHECK(OLIBCFileSetKeys(copy.c_str(), table, 0, 0) == 0, "writing the table");
  const std::string written = test::ReadFile(copy);
  // The writer sees the stored strings whole, NUL bytes included.
  const std::string expected = KeyValueText(model);
  VELMORA_FUZZ_CHECK(written == expected,
                     "written " + Quoted(written) + ", expected " + Quoted(expected));

  if (separator == "=") {
    OrderedTable read_back;
    for (const auto& entry : model.entries()) {
      read_back.Set(entry.first, ReadBackValue(entry.second));
    }
    // Pairs read from a file always fit on a line of their own; a preset
    // pair may not (a key with "=" or a line break comes back otherwise).
    if (!preset || (WritableKey(preset_key) && WritableValue(preset_value))) {
      OLIBC_SZHASH* again = nullptr;
      VELMORA_FUZZ_CHECK(OLIBCFileGetKeys(copy.c_str(), 0, &again, "=") == 0,
                         "reading the written file");
      CheckTable(again, read_back, "written and read back");
      OLIBCSzHashFree(again);
    }
  }

  VELMORA_FUZZ_CHECK(OLIBCHashRemoveAll(table) == 0 && OLIBCSzHashCount(table) == 0,
                     "emptying the table");
  OLIBCSzHashFree(table);
  return 0;
}
