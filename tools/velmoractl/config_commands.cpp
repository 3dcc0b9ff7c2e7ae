// route, services, script, get: the configuration key routing table and the
// reader of one setting.
#include <iostream>
#include <string>
#include <vector>

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
      Fail(ctx, kNotFound, "unknown key '" + key + "'");
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
      Fail(ctx, kNotFound, "no service has the role '" + role + "'");
      return;
    }
  } else {
    services = store->getKeyServ(key);
    if (services.empty()) {
      Fail(ctx, kNotFound, "no service is switched by the key '" + key + "'");
      return;
    }
  }
  PrintList(ctx, services);
}

void Script(Context& ctx, const std::string& service) {
  const std::string script = KeyTreeStore::instance()->getServScript(service);
  if (script.empty()) {
    Fail(ctx, kNotFound, "no control script for the service '" + service + "'");
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

void Get(Context& ctx, const std::vector<std::string>& names) {
  Json::Value out(Json::objectValue);
  for (const std::string& name : names) {
    // A setting that has never been stored reads as empty.
    std::string value;
    if (velmora::config::action::Get(name, value) != 0) {
      Fail(ctx, kFailed, "cannot read the setting '" + name + "' (see the system log)");
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

  auto service = std::make_shared<std::string>();
  CLI::App* script = app.add_subcommand("script", "Print the control script of a service");
  script->add_option("SERVICE", *service, "Service name")->required();
  script->callback([&ctx, service] { Script(ctx, *service); });

  auto names = std::make_shared<std::vector<std::string>>();
  CLI::App* get = app.add_subcommand(
      "get", "Read settings from the configuration service, else from their tree files");
  get->add_option("NAME", *names, "Setting key, family key with instance, or tree/key address")
      ->required();
  get->callback([&ctx, names] { Get(ctx, *names); });
}

}  // namespace velmoractl
