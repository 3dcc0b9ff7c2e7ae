// Fuzzes the key routing lookups of config::KeyTreeStore with table keys,
// family keys with fuzzed instance parts, service names and arbitrary text.
//
// Properties:
// - instance() always returns the same store;
// - treeGet(k) is the tree of k's family (k up to and including its first
//   "-", or all of k) in keyTree(), "" when there is none; keyComplete(k) is
//   k when treeGet(k) is "", otherwise treeGet(k) + "/" + k;
// - getKeyServ(k) is keyServs()'s list for exactly k, or empty;
// - getServScript(s) is servScript()'s entry for exactly s, or "", and every
//   script lies in the services' script directory;
// - roleGet(s) is servRole()'s entry for exactly s, or "";
// - roleKeyToServ(r, list) keeps what list held and appends, in ascending
//   byte order, exactly the services whose role is r.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <velmora/config.h>

#include "fuzz_util.h"

namespace velmora {
namespace fuzz {
namespace {

constexpr char kScriptDir[] = "/var/packages/Velmora-Server/target/scripts/daemon/";

template <typename Map>
std::string PickKey(FuzzedDataProvider& in, const Map& map) {
  auto it = map.begin();
  std::advance(it, in.ConsumeIntegralInRange<size_t>(0, map.size() - 1));
  return it->first;
}

template <typename Map>
typename Map::mapped_type Lookup(const Map& map, const std::string& key) {
  auto it = map.find(key);
  return it == map.end() ? typename Map::mapped_type() : it->second;
}

// A text to look up: a key, a service or a role of the tables, possibly
// with a fuzzed tail or cut short, or any text.
std::string PickText(FuzzedDataProvider& in, const config::KeyTreeStore& store) {
  std::string text;
  switch (in.ConsumeIntegralInRange(0, 4)) {
    case 0:
      text = PickKey(in, store.keyTree());
      break;
    case 1:
      text = PickKey(in, store.servRole());
      break;
    case 2:
      text = PickKey(in, store.keyServs());
      break;
    case 3: {
      auto it = store.servRole().begin();
      std::advance(it, in.ConsumeIntegralInRange<size_t>(0, store.servRole().size() - 1));
      text = it->second;
      break;
    }
    default:
      return in.ConsumeRandomLengthString(48);
  }
  if (in.ConsumeBool()) {
    text += in.ConsumeRandomLengthString(16);
  } else if (in.ConsumeBool() && !text.empty()) {
    text.resize(in.ConsumeIntegralInRange<size_t>(0, text.size() - 1));
  }
  return text;
}

}  // namespace
}  // namespace fuzz
}  // namespace velmora

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace velmora;
  using namespace velmora::fuzz;
  config::KeyTreeStore* store = config::KeyTreeStore::instance();
  VELMORA_FUZZ_CHECK(store != nullptr && store == config::KeyTreeStore::instance(),
                     "instance() changed");
  FuzzedDataProvider in(data, size);
  const std::string text = PickText(in, *store);
  const std::string what = " of " + Quoted(text);

  const size_t dash = text.find('-');
  const std::string family = dash == std::string::npos ? text : text.substr(0, dash + 1);
  const std::string tree = Lookup(store->keyTree(), family);
  const std::string got_tree = store->treeGet(text);
  VELMORA_FUZZ_CHECK(got_tree == tree,
                     "treeGet" + what + " is " + Quoted(got_tree) + ", expected " + Quoted(tree));
  const std::string complete = store->keyComplete(text);
  const std::string want_complete = tree.empty() ? text : tree + "/" + text;
  VELMORA_FUZZ_CHECK(complete == want_complete, "keyComplete" + what + " is " + Quoted(complete) +
                                                    ", expected " + Quoted(want_complete));

  const std::vector<std::string> servs = store->getKeyServ(text);
  VELMORA_FUZZ_CHECK(servs == Lookup(store->keyServs(), text), "getKeyServ" + what);

  const std::string script = store->getServScript(text);
  VELMORA_FUZZ_CHECK(script == Lookup(store->servScript(), text), "getServScript" + what);
  VELMORA_FUZZ_CHECK(script.empty() || script.compare(0, sizeof(kScriptDir) - 1, kScriptDir) == 0,
                     "script " + Quoted(script) + " is outside the script directory");

  const std::string role = store->roleGet(text);
  VELMORA_FUZZ_CHECK(role == Lookup(store->servRole(), text), "roleGet" + what);

  std::vector<std::string> list = {"kept", text};
  store->roleKeyToServ(text, list);
  std::vector<std::string> want_list = {"kept", text};
  for (const auto& entry : store->servRole()) {
    if (entry.second == text) want_list.push_back(entry.first);
  }
  VELMORA_FUZZ_CHECK(list == want_list,
                     "roleKeyToServ" + what + " gave " + std::to_string(list.size() - 2) +
                         " services, expected " + std::to_string(want_list.size() - 2));
  return 0;
}
