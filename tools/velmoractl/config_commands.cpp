// route, services, script, get: the configuration key routing table and the
// reader of one setting.
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include <velmora/common.h>
#include <velmora/config.h>

#include "cli.h"

namespace velmoractl {
namespace {

using velmora::config::KeyTreeStore;

void Route(Context& ctx, const std::vector<std::string>& keys) {
  const KeyTreeStore* store = KeyTreeStore::instance();
  Json::Value out(Json::arrayValue);
  for (const std::string& key : keys) {
    const std::string tree = store->treeGet(key);
    if (tree.empty()) {
      Fail(ctx, kNotFound, "unknown key " + Quote(key));
      continue;
    }
    const std::string address = store->keyComplete(key);
    if (ctx.json) {
      Json::Value row(Json::objectValue);
      row["key"] = key;
      row["address"] = address;
      row["tree"] = tree;
      out.append(row);
    } else {
      std::cout << key << " address=" << address << " tree=" << tree << '\n';
    }
  }
  if (ctx.json) PrintJson(out);
}

void PrintList(const Context& ctx, const std::vector<std::string>& items) {
  if (ctx.json) {
    Json::Value out(Json::arrayValue);
    for (const std::string& item : items) out.append(item);
    PrintJson(out);
    return;
  }
  for (const std::string& item : items) std::cout << item << '\n';
}

void Services(Context& ctx, bool by_role, const std::string& role, const std::string& key) {
  const KeyTreeStore* store = KeyTreeStore::instance();
  std::vector<std::string> services;
  if (by_role) {
    store->roleKeyToServ(role, services);
    if (services.empty()) {
      Fail(ctx, kNotFound, "no service has the role " + Quote(role));
      return;
    }
  } else {
    services = store->getKeyServ(key);
    if (services.empty()) {
      Fail(ctx, kNotFound, "no service is switched by the key " + Quote(key));
      return;
    }
  }
  PrintList(ctx, services);
}

void Script(Context& ctx, const std::string& service) {
  const std::string script = KeyTreeStore::instance()->getServScript(service);
  if (script.empty()) {
    Fail(ctx, kNotFound, "no control script for the service " + Quote(service));
    return;
  }
  if (ctx.json) {
    Json::Value out(Json::objectValue);
    out["service"] = service;
    out["script"] = script;
    PrintJson(out);
  } else {
    std::cout << script << '\n';
  }
}

// Where the setting reader keeps the trees when the configuration service
// does not answer: one JSON file per tree, named after the tree with "-",
// "/" and "." turned into "_".
constexpr char kTreeDir[] = "/var/packages/Velmora-Server/etc/mailconf.d/";

// The tree of a setting name: the routing table's tree of a key, or the part
// before "/" of a tree/key address. Empty for a name the table does not know
// (a key it has no row for, an address whose tree is no tree of the table).
std::string TreeOf(const std::string& name) {
  const KeyTreeStore* store = KeyTreeStore::instance();
  const size_t slash = name.find('/');
  if (slash == std::string::npos) return store->treeGet(name);
  std::string tree = name.substr(0, slash);
  if (slash + 1 == name.size()) return std::string();
  for (const auto& row : store->keyTree()) {
    if (row.second == tree) return tree;
  }
  return std::string();
}

std::string TreeFile(const std::string& tree) {
  return kTreeDir +
         velmora::Replace(velmora::Replace(velmora::Replace(tree, "-", "_"), "/", "_"), ".", "_");
}

void Get(Context& ctx, const std::vector<std::string>& names) {
  Json::Value out(Json::objectValue);
  for (const std::string& name : names) {
    const std::string tree = TreeOf(name);
    if (tree.empty()) {
      Fail(ctx, kNotFound, "unknown setting " + Quote(name));
      continue;
    }
    // A setting that has never been stored reads as empty.
    std::string value;
    if (velmora::config::action::Get(name, value) != 0) {
      // The reader gives no reason; the tree file tells a refusal apart.
      const std::string file = TreeFile(tree);
      if (access(file.c_str(), R_OK) != 0 && (errno == EACCES || errno == EPERM)) {
        Fail(ctx, kDenied,
             "cannot read the setting " + Quote(name) + ": " + file + ": permission denied");
      } else {
        Fail(ctx, kFailed, "cannot read the setting " + Quote(name) + " (see the system log)");
      }
      continue;
    }
    if (ctx.json) {
      out[name] = value;
    } else {
      std::cout << name << '=' << value << '\n';
    }
  }
  if (ctx.json) PrintJson(out);
}

}  // namespace

void AddConfigCommands(CLI::App& app, Context& ctx) {
  auto keys = std::make_shared<std::vector<std::string>>();
  CLI::App* route = app.add_subcommand(
      "route", "Print the completed address (tree/key) and the tree of each setting key");
  route->add_option("KEY", *keys, "Setting key, or a family key with its instance part")
      ->required();
  route->callback([&ctx, keys] { Route(ctx, *keys); });
  SetStatuses(route,
              "0 every key is known; 3 a key is unknown (the others are printed); 2 bad "
              "command line.");

  auto role = std::make_shared<std::string>();
  auto key = std::make_shared<std::string>();
  CLI::App* services = app.add_subcommand(
      "services", "List the services of a cluster role, or the services a key switches");
  CLI::Option* role_opt =
      services->add_option("--role", *role, "Cluster role (e.g. balancer)")->type_name("ROLE");
  CLI::Option* key_opt =
      services->add_option("--key", *key, "Setting key that switches services")->type_name("KEY");
  role_opt->excludes(key_opt);
  services->require_option(1);
  services->callback(
      [&ctx, role, key, role_opt] { Services(ctx, role_opt->count() > 0, *role, *key); });
  SetStatuses(services,
              "0 printed; 3 no service has the role or is switched by the key; 2 bad "
              "command line.");

  auto service = std::make_shared<std::string>();
  CLI::App* script = app.add_subcommand("script", "Print the control script of a service");
  script->add_option("SERVICE", *service, "Service name")->required();
  script->callback([&ctx, service] { Script(ctx, *service); });
  SetStatuses(script, "0 printed; 3 unknown service; 2 bad command line.");

  auto names = std::make_shared<std::vector<std::string>>();
  CLI::App* get = app.add_subcommand(
      "get", "Read settings from the configuration service, else from their tree files");
  get->add_option("NAME", *names, "Setting key, family key with instance, or tree/key address")
      ->required();
  get->callback([&ctx, names] { Get(ctx, *names); });
  SetStatuses(get,
              "0 every setting was read (one never stored reads as empty); 3 a name is no key of "
              "the routing table, or an address's tree is no tree of it (the others are "
              "printed); 5 the tree file may not be read; 1 the tree file cannot be read or "
              "parsed; 2 bad command line. Reading from the tree file because the configuration "
              "service did not answer logs the service's failure (two lines per name) even "
              "when the value is then read.");
}

}  // namespace velmoractl
