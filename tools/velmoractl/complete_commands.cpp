// __complete: the word lists that the bash completion offers, read from the
// routing table of this very build so that they never go stale. Hidden from
// --help; meant for the completion script only.
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <velmora/config.h>

#include "cli.h"

namespace velmoractl {
namespace {

using velmora::config::KeyTreeStore;

// Fills `items` with the list named `what`, in byte-wise order; false for a
// name that is no list.
bool ListFor(const std::string& what, std::vector<std::string>& items) {
  const KeyTreeStore* store = KeyTreeStore::instance();
  if (what == "keys") {
    // Every row of the key table: plain keys and families (ending in "-"),
    // what route and get take.
    for (const auto& row : store->keyTree()) items.push_back(row.first);
  } else if (what == "services") {
    // The services with a control script: the only ones that `script`
    // answers (a service with just a role has no script to print).
    for (const auto& row : store->servScript()) items.push_back(row.first);
  } else if (what == "roles") {
    // The distinct roles of the registry, as `services --role` takes them;
    // the empty role is left out, a blank line cannot be completed.
    std::set<std::string> roles;
    for (const auto& row : store->servRole()) {
      if (!row.second.empty()) roles.insert(row.second);
    }
    items.assign(roles.begin(), roles.end());
  } else if (what == "switches") {
    // The plain keys that switch services, as `services --key` takes them.
    for (const auto& row : store->keyServs()) items.push_back(row.first);
  } else {
    return false;
  }
  return true;
}

void Complete(Context& ctx, const std::string& what) {
  std::vector<std::string> items;
  if (!ListFor(what, items)) {
    Fail(ctx, kUsage, "unknown list " + Quote(what) + " (keys, services, roles or switches)");
    return;
  }
  for (const std::string& item : items) std::cout << item << '\n';
}

}  // namespace

void AddCompleteCommands(CLI::App& app, Context& ctx) {
  auto what = std::make_shared<std::string>();
  CLI::App* complete =
      app.add_subcommand("__complete", "Print a word list for the bash completion");
  // An empty group keeps it out of every --help listing.
  complete->group("");
  complete->add_option("LIST", *what, "keys, services, roles or switches")->required();
  complete->callback([&ctx, what] { Complete(ctx, *what); });
}

}  // namespace velmoractl
