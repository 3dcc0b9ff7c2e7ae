// Fuzzes the tree JSON file reader behind config::action::Get: a setting
// name is routed to its tree, and the tree's file under
// /var/packages/Velmora-Server/etc/mailconf.d/ holds arbitrary bytes. No
// configuration service listens, so every Get falls back to the file.
// Writes system paths: runs only inside scripts/hermetic-run.
//
// Properties, for a file that jsoncpp (default features, comments allowed)
// parses: Get returns 0 and the value is the string member named by the
// setting's full address, or "" when that member is missing or not a
// string, or the document is not an object. For a file it cannot parse, or
// a tree whose path is the directory itself: Get returns 1 and leaves the
// value untouched. For a tree without a file: 0, value untouched.
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <string>

#include <json/json.h>

#include <velmora/common.h>
#include <velmora/config.h>
#include <velmora/file.h>

#include "fuzz_util.h"

namespace velmora {
namespace fuzz {
namespace {

constexpr char kTreeDir[] = "/var/packages/Velmora-Server/etc/mailconf.d/";
constexpr char kQuerySocket[] = "/var/run/velmora_server/local_query.sock";
constexpr char kUntouched[] = "\x01untouched\x02";

// The file that holds the setting `name`: its tree (or, for a name that is
// no key of the table, the name up to its first "/") with "-", "/" and "."
// made "_", below the tree directory.
std::string TreeFile(const std::string& name) {
  std::string tree = config::KeyTreeStore::instance()->treeGet(name);
  if (tree.empty()) tree = name.substr(0, name.find('/'));
  return kTreeDir + Replace(Replace(Replace(tree, "-", "_"), "/", "_"), ".", "_");
}

// A setting name: a key of the table (a family key with an instance part),
// the same as a full "tree/key" address, or any text.
std::string PickName(FuzzedDataProvider& in) {
  const auto& table = config::KeyTreeStore::instance()->keyTree();
  const int kind = in.ConsumeIntegralInRange(0, 3);
  if (kind == 3) return in.ConsumeRandomLengthString(40);
  auto row = table.begin();
  std::advance(row, in.ConsumeIntegralInRange<size_t>(0, table.size() - 1));
  std::string key = row->first;
  if (!key.empty() && key.back() == '-') key += in.ConsumeRandomLengthString(16);
  if (kind == 2) return row->second + "/" + key;
  return key;
}

// The reference reading: jsoncpp's classic reader with every feature and
// comments collected, which is what the setting reader accepts and rejects.
bool Parse(const std::string& data, Json::Value* root) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  Json::Reader reader(Json::Features::all());
#pragma GCC diagnostic pop
  try {
    return reader.parse(data.data(), data.data() + data.size(), *root, true);
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace
}  // namespace fuzz
}  // namespace velmora

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** argv) {
  using namespace velmora;
  fuzz::RequireHermetic((*argv)[0]);
  struct stat st;
  VELMORA_FUZZ_CHECK(stat(fuzz::kQuerySocket, &st) != 0,
                     "a configuration service socket exists; the file reader would not be used");
  VELMORA_FUZZ_CHECK(sdk::MkDir(fuzz::kTreeDir) == 0, "cannot make the tree directory");
  config::KeyTreeStore::instance();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace velmora;
  using namespace velmora::fuzz;
  FuzzedDataProvider in(data, size);
  const std::string name = PickName(in);
  const bool no_file = in.ConsumeIntegralInRange(0, 15) == 0;
  const std::string document = in.ConsumeRemainingBytesAsString();

  // The system sees the path up to its first NUL.
  const std::string path = UpToNul(TreeFile(name));
  const bool is_directory = path == kTreeDir;
  if (!is_directory) {
    if (no_file) {
      unlink(path.c_str());
    } else {
      VELMORA_FUZZ_CHECK(test::WriteFile(path, document), "cannot write " + path);
    }
  }

  std::string value = kUntouched;
  const int rc = config::action::Get(name, value);
  const std::string what = "Get(" + Quoted(name) + ") from " + Quoted(path);

  if (is_directory) {
    VELMORA_FUZZ_CHECK(rc == 1 && value == kUntouched, what + ": the directory was read");
    return 0;
  }
  if (no_file) {
    VELMORA_FUZZ_CHECK(rc == 0 && value == kUntouched,
                       what + " without a file: rc " + std::to_string(rc) + ", " + Quoted(value));
    return 0;
  }
  Json::Value root;
  if (!Parse(document, &root)) {
    VELMORA_FUZZ_CHECK(rc == 1 && value == kUntouched, what + ": unparsable " + Quoted(document) +
                                                           " gave rc " + std::to_string(rc) + ", " +
                                                           Quoted(value));
  } else {
    const std::string address = config::KeyTreeStore::instance()->keyComplete(name);
    const Json::Value* member =
        root.isObject() ? root.find(address.data(), address.data() + address.size()) : nullptr;
    const std::string want =
        member != nullptr && member->isString() ? member->asString() : std::string();
    VELMORA_FUZZ_CHECK(rc == 0 && value == want, what + ": " + Quoted(document) + " gave rc " +
                                                     std::to_string(rc) + ", " + Quoted(value) +
                                                     ", expected " + Quoted(want) +
                                                     " for address " + Quoted(address));
  }
  return 0;
}
