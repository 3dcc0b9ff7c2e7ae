// features, pop3, user: the web client's feature switches, the POP3 fetch
// service of one instance, and user id/name conversion.
#include <errno.h>

#include <cstdint>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <velmora/settings.h>
#include <velmora/user.h>

#include "cli.h"

namespace velmoractl {
namespace {

using velmora::settings::Pop3Control;
using velmora::settings::record::GlobalPOP3Config;
using velmora::settings::record::VelmoraConfig;

// The switches by their key in the client settings file, in record order.
struct Switch {
  const char* name;
  bool VelmoraConfig::*field;
};
constexpr Switch kSwitches[] = {
    {"disable_pgp", &VelmoraConfig::disable_pgp},
    {"disable_smtp_sender_name", &VelmoraConfig::disable_smtp_sender_name},
    {"enable_sharing_link", &VelmoraConfig::enable_sharing_link},
    {"is_custom_logo", &VelmoraConfig::is_custom_logo},
    {"enable_chat", &VelmoraConfig::enable_chat},
    {"enable_calendar", &VelmoraConfig::enable_calendar},
    {"enable_externalsource", &VelmoraConfig::enable_externalsource},
    {"disable_shared_mailbox", &VelmoraConfig::disable_shared_mailbox},
};

const char* YesNo(bool on) { return on ? "yes" : "no"; }

void FeaturesGet(const Context& ctx) {
  const VelmoraConfig config = velmora::settings::GetVelmoraConfig();
  const long logo = velmora::settings::GetCustomLogoVersion();
  if (ctx.json) {
    Json::Value out(Json::objectValue);
    for (const Switch& s : kSwitches) out[s.name] = config.*s.field;
    out["custom_logo_version"] = static_cast<Json::Int64>(logo);
    PrintJson(out);
    return;
  }
  for (const Switch& s : kSwitches) std::cout << s.name << '=' << YesNo(config.*s.field) << '\n';
  std::cout << "custom_logo_version=" << logo << '\n';
}

void FeaturesSet(Context& ctx, const std::vector<std::string>& changes) {
  VelmoraConfig config = velmora::settings::GetVelmoraConfig();
  for (const std::string& change : changes) {
    const size_t eq = change.find('=');
    const std::string name = change.substr(0, eq);
    const std::string value = eq == std::string::npos ? "" : change.substr(eq + 1);
    const Switch* found = nullptr;
    for (const Switch& s : kSwitches) {
      if (name == s.name) found = &s;
    }
    if (found == nullptr) {
      Fail(ctx, kUsage, "unknown switch '" + name + "' (see 'velmoractl features get')");
      return;
    }
    if (value != "yes" && value != "no") {
      Fail(ctx, kUsage, "switch '" + name + "' takes yes or no, not '" + value + "'");
      return;
    }
    config.*found->field = value == "yes";
  }
  errno = 0;
  if (!velmora::settings::SetVelmoraConfig(config)) {
    Fail(ctx, StatusForErrno(errno, kFailed),
         "cannot store the client switches (see the system log)");
    return;
  }
  for (const std::string& change : changes) Verbose(ctx, "set " + change);
}

// A user given by uid or by name.
bool ResolveUid(Context& ctx, const std::string& text, uint32_t& uid) {
  uint64_t value = 0;
  if (ParseUnsigned(text, UINT32_MAX, value)) {
    uid = static_cast<uint32_t>(value);
    return true;
  }
  uid = velmora::user::ConvertFromUsername(text);
  if (uid == UINT32_MAX) {
    Fail(ctx, kNotFound, "unknown user '" + text + "'");
    return false;
  }
  return true;
}

bool ResolveUids(Context& ctx, const std::vector<std::string>& users, std::vector<uint32_t>& uids) {
  for (const std::string& user : users) {
    uint32_t uid = 0;
    if (!ResolveUid(ctx, user, uid)) return false;
    uids.push_back(uid);
  }
  return true;
}

void Pop3Status(const Context& ctx, const std::string& name) {
  const GlobalPOP3Config config = Pop3Control(name).GetPOP3Config();
  if (ctx.json) {
    Json::Value out(Json::objectValue);
    out["enabled"] = config.enabled;
    out["period"] = config.period;
    PrintJson(out);
    return;
  }
  std::cout << "enabled=" << YesNo(config.enabled) << '\n' << "period=" << config.period << '\n';
}

void Pop3Set(Context& ctx, const std::string& name, const std::string& enabled, bool has_enabled,
             uint32_t period, bool has_period) {
  const Pop3Control control(name);
  GlobalPOP3Config config = control.GetPOP3Config();
  if (has_enabled) config.enabled = enabled == "yes";
  if (has_period) config.period = period;
  errno = 0;
  if (!control.SetThenRestart(config)) {
    Fail(ctx, StatusForErrno(errno, kFailed),
         "cannot change the POP3 service '" + name + "' (see the system log)");
    return;
  }
  Verbose(ctx, "pop3 " + name + ": enabled=" + YesNo(config.enabled) +
                   " period=" + std::to_string(config.period));
}

void Pop3Daemons(Context& ctx, const std::string& name, const std::string& what,
                 const std::vector<std::string>& users) {
  const Pop3Control control(name);
  std::vector<uint32_t> uids;
  if (!ResolveUids(ctx, users, uids)) return;
  bool ok = false;
  errno = 0;
  if (what == "start") {
    ok = control.ForceStart(uids);
  } else if (what == "stop") {
    ok = control.ForceStop(uids);
  } else if (what == "start-all") {
    ok = control.UidListStart();
  } else {
    ok = control.UidListStop();
  }
  if (!ok) {
    Fail(ctx, StatusForErrno(errno, kFailed),
         "pop3 " + name + " " + what + " failed (see the system log)");
    return;
  }
  std::string done = "pop3 " + name + ": " + what;
  for (uint32_t uid : uids) done += " " + std::to_string(uid);
  Verbose(ctx, done);
}

void Pop3List(const Context& ctx, const std::string& name) {
  const std::set<uint32_t> uids = Pop3Control(name).GetPOP3UidSet();
  if (ctx.json) {
    Json::Value out(Json::arrayValue);
    for (uint32_t uid : uids) out.append(uid);
    PrintJson(out);
    return;
  }
  for (uint32_t uid : uids) std::cout << uid << '\n';
}

void UserName(Context& ctx, const std::string& text) {
  uint64_t uid = 0;
  if (!ParseUnsigned(text, UINT32_MAX, uid)) {
    Fail(ctx, kUsage, "'" + text + "' is not a user id");
    return;
  }
  const std::string name = velmora::user::ConvertToUsername(static_cast<uint32_t>(uid));
  if (name.empty()) {
    Fail(ctx, kNotFound, "no user with the id " + text);
    return;
  }
  if (ctx.json) {
    Json::Value out(Json::objectValue);
    out["uid"] = static_cast<Json::UInt>(uid);
    out["name"] = name;
    PrintJson(out);
  } else {
    std::cout << name << '\n';
  }
}

void UserUid(Context& ctx, const std::string& name) {
  const uint32_t uid = velmora::user::ConvertFromUsername(name);
  if (uid == UINT32_MAX) {
    Fail(ctx, kNotFound, "unknown user '" + name + "'");
    return;
  }
  if (ctx.json) {
    Json::Value out(Json::objectValue);
    out["name"] = name;
    out["uid"] = uid;
    PrintJson(out);
  } else {
    std::cout << uid << '\n';
  }
}

}  // namespace

void AddSettingsCommands(CLI::App& app, Context& ctx) {
  // features [get] | features set NAME=yes|no...
  CLI::App* features =
      app.add_subcommand("features", "Show (default) or change the web client's feature switches");
  features->require_subcommand(0, 1);
  CLI::App* features_get =
      features->add_subcommand("get", "Print the eight switches and the custom logo version");
  features_get->callback([&ctx] { FeaturesGet(ctx); });
  auto changes = std::make_shared<std::vector<std::string>>();
  CLI::App* features_set = features->add_subcommand(
      "set", "Change switches (read, change, write back) and propagate the file");
  features_set->add_option("NAME=VALUE", *changes, "A switch and yes or no, e.g. enable_chat=no")
      ->required();
  features_set->callback([&ctx, changes] { FeaturesSet(ctx, *changes); });
  // Subcommand callbacks run before their parent's: without one, show.
  features->callback([&ctx, features] {
    if (features->get_subcommands().empty()) FeaturesGet(ctx);
  });

  // pop3 NAME status|set|start|stop|start-all|stop-all|list
  auto name = std::make_shared<std::string>();
  CLI::App* pop3 =
      app.add_subcommand("pop3", "The POP3 fetch service of one instance and its user daemons");
  pop3->add_option("NAME", *name, "Instance name (e.g. quillbox)")->required();
  pop3->require_subcommand(1);

  CLI::App* status = pop3->add_subcommand("status", "Print the service switch and its period");
  status->callback([&ctx, name] { Pop3Status(ctx, *name); });

  auto enabled = std::make_shared<std::string>();
  auto period = std::make_shared<uint32_t>(0);
  CLI::App* set = pop3->add_subcommand(
      "set", "Change the switch or the period and restart the listed daemons as needed");
  CLI::Option* enabled_opt = set->add_option("--enabled", *enabled, "Turn the service on or off")
                                 ->check(CLI::IsMember({"yes", "no"}))
                                 ->type_name("yes|no");
  // period * 60 must fit the daemon interval's 32 bits.
  CLI::Option* period_opt =
      set->add_option("--period", *period, "Polling period in minutes (1 to 71582788)")
          ->check(CLI::Range(1u, 71582788u))
          ->type_name("MIN");
  set->require_option(1, 0);
  set->callback([&ctx, name, enabled, period, enabled_opt, period_opt] {
    Pop3Set(ctx, *name, *enabled, enabled_opt->count() > 0, *period, period_opt->count() > 0);
  });

  struct Daemons {
    const char* what;
    const char* help;
    bool takes_users;
  };
  static const Daemons kDaemons[] = {
      {"start", "Start the daemons of these users (if the service is on) and list them", true},
      {"stop", "Stop the daemons of these users and remove them from the list", true},
      {"start-all", "Start the daemon of every listed user (if the service is on)", false},
      {"stop-all", "Stop the daemon of every listed user; the list is kept", false},
  };
  for (const Daemons& d : kDaemons) {
    auto users = std::make_shared<std::vector<std::string>>();
    CLI::App* sub = pop3->add_subcommand(d.what, d.help);
    if (d.takes_users) sub->add_option("USER", *users, "User id or name")->required();
    const std::string what = d.what;
    sub->callback([&ctx, name, what, users] { Pop3Daemons(ctx, *name, what, *users); });
  }

  CLI::App* list = pop3->add_subcommand("list", "Print the uids whose daemons were started");
  list->callback([&ctx, name] { Pop3List(ctx, *name); });

  // user name UID | user uid NAME
  CLI::App* user = app.add_subcommand("user", "Convert a user id to its name and back");
  user->require_subcommand(1);
  auto uid_text = std::make_shared<std::string>();
  CLI::App* user_name = user->add_subcommand("name", "Print the name of the user with this id");
  user_name->add_option("UID", *uid_text, "User id")->required();
  user_name->callback([&ctx, uid_text] { UserName(ctx, *uid_text); });
  auto user_text = std::make_shared<std::string>();
  CLI::App* user_uid = user->add_subcommand("uid", "Print the id of the user with this name");
  user_uid->add_option("NAME", *user_text, "User name")->required();
  user_uid->callback([&ctx, user_text] { UserUid(ctx, *user_text); });
}

}  // namespace velmoractl
