#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <velmora/velmora.h>

#include "support/log_capture.h"

namespace velmora {
namespace config {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using StringMap = std::map<std::string, std::string>;

// The routing table, tree by tree: each tree with the number of keys it holds
// and its keys. Written out here on its own so that a slip in the library's
// table shows up as a difference.
struct ExpectedTree {
  const char* tree;
  std::size_t count;
  std::vector<std::string> keys;
};

const std::vector<ExpectedTree>& ExpectedTrees() {
  static const std::vector<ExpectedTree> trees = {
      {"mapping_table", 1, {"mailserver_id-"}},
      {"cluster_status", 1, {"velmora_server_cluster_status"}},
      {"role", 3, {"mailer", "storager", "balancer"}},
      {"balancer_info", 3, {"enable_balancer_address", "balancer_address", "balancer_netmask"}},
      {"balancer_master", 1, {"balancer_master_node"}},
      {"cluster", 3, {"cluster_peers", "consul_peers", "support_file_push"}},
      {"silent_config",
       4,
       {"peer_info_hostname-", "mailer_weight_list", "peer_info_mac-", "peer_info_serial_num-"}},
      {"general_config", 3, {"general_storage_volume-", "node_ip_list-", "node_bind_if-"}},
      {"storage_mapping", 2, {"storage_static_mapping-", "storage_runtime_mapping-"}},
      {"version",
       5,
       {"version_cluster-", "version_dovecot-", "version_kvn_major-", "version_mcafee-",
        "version_bitdefender-"}},
      {"custom_file", 1, {"sync_file-"}},
      {"kv_file_upload", 1, {"file_upload_hook-"}},
      {"health_check", 1, {"health_check_trigger"}},
      {"resource_info", 1, {"resource_info-"}},
      {"resource_triggered_time", 1, {"resource_triggered_time"}},
      {"service_change", 1, {"serv_status-"}},
      {"security_dashboard",
       3,
       {"threat_overview_pref", "inbound_statistic_pref", "outbound_statistic_pref"}},
      {"smtp",
       59,
       {"smtp_enabled",
        "account_type",
        "acc_domain_name",
        "win_domain_short_name",
        "smtp_auth_enabled",
        "smtp_ignore_lan_auth",
        "smtp_security_auth",
        "smtp_hostname",
        "smtpd_banner",
        "smtp_main_domain",
        "smtp_port",
        "disable_auto_forward",
        "smtp_ssl_enabled",
        "smtps_port",
        "restrict_sender",
        "smtp_skip_restrict_sender",
        "smtp_tls_enabled",
        "smtp_tls_port",
        "message_limit",
        "canonical_domain",
        "max_recipients_per_mail",
        "max_hops_traveled_per_mail",
        "max_parallel_connection_per_ip_enabled",
        "max_parallel_connection_per_ip",
        "max_mails_per_min_per_ip_enabled",
        "max_mails_per_min_per_ip",
        "max_connection_per_min_per_ip_enabled",
        "max_connection_per_min_per_ip",
        "max_junk_command_per_smtp_session_enabled",
        "max_junk_command_per_smtp_session",
        "reject_unknown_recipient_count_exceed",
        "smtpd_unknown_recipient_count_limit",
        "smtpd_send_local_only",
        "cleanup_user_attachment_restrict",
        "smtpd_user_send_flow_restrict",
        "smtpd_user_send_quota_restrict",
        "smtpd_domain_send_flow_restrict",
        "smtpd_domain_send_quota_restrict",
        "smtp_relay_enabled",
        "smtp_relay_server",
        "smtp_relay_server_port",
        "smtp_relay_secure_conn",
        "smtp_relay_auth_enabled",
        "smtp_relay_account",
        "smtp_relay_password",
        "smtp_relay_client_host_type",
        "smtp_relay_client_single",
        "smtp_relay_client_sender",
        "smtp_relay_client_recipient",
        "smtp_relay_host_network",
        "smtp_relay_host_domain",
        "user_policy_disable_auto_forward",
        "postscreen_enable",
        "postscreen_dnsbl_server",
        "postscreen_dnsbl_threshold",
        "greylist_enable",
        "greylist_period",
        "greylist_rule_list",
        "greylist_default_action"}},
      {"mailserver_domain", 1, {"mailserver_domain_db"}},
      {"mailserverdb", 1, {"mailserver_db"}},
      {"virtual_domain",
       14,
       {"virtual_multiple_domain", "additional_domain-", "enable_postmaster", "catch_all-",
        "enable_catch_all-", "attachment_limit-", "enable_attachment-", "daily_quota_limit-",
        "enable_daily_quota-", "outbound_flow_limit-", "enable_outbound_flow-", "mail_size_limit-",
        "enable_auto_forward-", "smtp_changed_uids"}},
      {"multi_domain_disclaimer_content", 1, {"sync_disclaimer_content_file-"}},
      {"spam",
       77,
       {"enable_dkim_sign-",
        "dkim_selector-",
        "spam_greylist_enable",
        "reject_sasl_sender_rate_exceed",
        "smtpd_sasl_sender_rate_limit",
        "reject_sender_flow_exceed",
        "smtpd_sasl_sender_flow_limit",
        "reject_sender_attachment_exceed",
        "cleanup_sender_attachment_limit",
        "reject_unauth_pipelining",
        "reject_unknown_client_hostname",
        "reject_non_fqdn_helo_hostname",
        "reject_unknown_helo_hostname",
        "reject_non_fqdn_sender",
        "reject_unknown_sender_domain",
        "spam_enable",
        "spam_engine",
        "spam_required_score",
        "spam_enable_rewrite",
        "spam_rewrite_subject",
        "spam_report_machanism",
        "spam_auto_learn",
        "spam_auto_whitelist",
        "spam_learn_threshold_spam",
        "spam_learn_threshold_non_spam",
        "spam_rule_auto_update",
        "spam_rule_update_hour",
        "spam_rule_update_minute",
        "spam_rule_last_update_time",
        "spam_keywords",
        "sync_spam_db",
        "spam_clean_enable",
        "spam_clean_interval",
        "bitdefender_ui_enable",
        "bitdefender_spam_types",
        "spam_report_enable",
        "spam_report_account",
        "ham_report_account",
        "report_autolearn_enable",
        "report_autolearn_hour",
        "report_autolearn_minute",
        "report_learn_clear_history",
        "mimedefang_enable",
        "mimedefang_disclaimers",
        "mimedefang_disclaimers-",
        "anti_virus_enable",
        "anti_virus_engine",
        "anti_virus_old_engine",
        "anti_virus_enable_google_safebrowsing",
        "anti_virus_enable_extra_signature",
        "anti_virus_enable_rewrite",
        "anti_virus_rewrite_subject",
        "anti_virus_action",
        "anti_virus_notify_recipient",
        "anti_virus_delete_admin_addr",
        "anti_virus_delete_subject",
        "anti_virus_delete_template",
        "anti_virus_quarantine_admin_addr",
        "anti_virus_quarantine_subject",
        "anti_virus_quarantine_template",
        "enable_spf_check",
        "reject_spf_soft_fail",
        "enable_dkim",
        "dkim_key_min_length",
        "enable_dkim_sign",
        "dkim_selector",
        "enable_dmarc",
        "enable_dangerous_content_scan",
        "reject_partial_message",
        "reject_external_message_bodies",
        "find_phishing_fraud",
        "convert_html_to_text",
        "allow_iframe_tags",
        "allow_form_tags",
        "allow_script_tags",
        "allow_webbugs",
        "allow_object_codebase_tags"}},
      {"multi_domain_dkim_key", 2, {"dkim_public_key-", "dkim_private_key-"}},
      {"multi_domain_setting_db", 1, {"domain_setting_db"}},
      {"aliasdb", 1, {"mailserver_alias_db"}},
      {"bcc", 1, {"always_bcc"}},
      {"bccdb", 2, {"bcc_db", "bkp_always_bcc-"}},
      {"blackwhitelist_db",
       2,
       {"mailserver_global_access_db", "mailserver_dkim_sign_whitelist_db"}},
      {"imap_pop3",
       23,
       {"pop3_enabled",
        "pop3s_enabled",
        "imap_enabled",
        "imaps_enabled",
        "imap_pop3_security_auth",
        "enable_dovecot_auth_deny",
        "enable_dovecot_auth_local",
        "fts_enabled",
        "fts_allowed_user",
        "fts_allowed_group",
        "fts_forbidden_user",
        "fts_forbidden_group",
        "fts_member_limit",
        "fts_member_default_allowed",
        "jieba_enabled",
        "fts_enable_list-",
        "dsync_ssl_enable",
        "time_dsync_period",
        "max_userip_conn",
        "max_redirects",
        "mailbox_enable_system_quota",
        "mailbox_system_quota",
        "mailbox_system_quota_warning"}},
      {"dailyquota_db", 1, {"mailserver_dailyquota_db"}},
      {"rule", 1, {"mailserver_rule_status-"}},
      {"ruledb", 1, {"mailserver_rule_file-"}},
      {"filter_db", 1, {"mailserver_filter_db"}},
      {"account_db", 1, {"mailserver_account_db"}},
      {"report_learn_cmd", 1, {"report_learn_cmd_file-"}},
      {"report_learn_history", 1, {"report_learn_history_file-"}},
      {"antivirus",
       5,
       {"anti_virus_auto_update", "anti_virus_db_update_hour", "anti_virus_db_update_minute",
        "anti_virus_db_update_frequency", "anti_virus_last_update_time"}},
      {"orvoav_mcafee",
       3,
       {"orvoav_mcafee_sync_status", "orvoav_mcafee_status-", "orvoav_mcafee_sync_status_finish-"}},
      {"dkim_key", 2, {"mailserver_dkim_public_key", "mailserver_dkim_private_key"}},
      {"attachment_filter_db", 1, {"mailserver_attachment_filter_db"}},
      {"mcp",
       14,
       {"mcp_enable", "mcp_threshold", "mcp_enable_store", "mcp_enable_deliver",
        "mcp_enable_delete", "mcp_enable_bounce", "mcp_enable_forward", "mcp_forward_to",
        "mcp_enable_header", "mcp_add_header_name", "mcp_add_header_value", "mcp_bounce_admin_addr",
        "mcp_bounce_subject", "mcp_bounce_content"}},
      {"mcp_rules_tree", 2, {"mcp_rules-", "mcp_rules"}},
      {"log",
       17,
       {"log_last_count_time", "archive_last_archive_time", "archive_destination",
        "archive_enable_schedule", "archive_weekday", "archive_hour", "archive_minute",
        "forward_to_other_node", "forward_to_other_machine", "forward_server", "forward_port",
        "forward_protocol", "forward_format", "forward_enable_ssl", "rotate_enable_period",
        "rotate_period", "rotate_size"}},
      {"syslog_ng_ca", 1, {"syslog_ca.crt"}},
      {"reporter",
       9,
       {"report_rcpt_1", "report_rcpt_2", "report_sender_name", "report_sender_mail",
        "report_smtp_server", "report_smtp_port", "report_enable_report", "report_time_hour",
        "report_time_min"}},
      {"personal", 1, {"personal-"}},
      {"personal_policy", 1, {"personal_policy_db"}},
      {"user_policy_setting",
       9,
       {"smtp_local_enable_list-", "smtp_auto_forward_disable_list-", "attachment_size_list-",
        "daily_quota_list-", "daily_flow_limit_list-", "imap_enable_list-", "pop3_enable_list-",
        "imap_local_enable_list-", "pop3_local_enable_list-"}},
      {"delegation", 1, {"delegation_db"}},
      {"autotest", 1, {"autotest_wait_callback"}},
  };
  return trees;
}

// Key or family to tree, built from ExpectedTrees(). Fails the test if a key
// is listed twice.
StringMap ExpectedKeyTree() {
  StringMap map;
  for (const ExpectedTree& tree : ExpectedTrees()) {
    for (const std::string& key : tree.keys) {
      EXPECT_TRUE(map.emplace(key, tree.tree).second) << key << " listed twice";
    }
  }
  return map;
}

const StringMap kExpectedRoles = {
    {"mailserver_service_balancer", "balancer"},
    {"mailserver_service_bdamserver", "mailer"},
    {"mailserver_service_clamav", "mailer"},
    {"mailserver_service_cluster_members", ""},
    {"mailserver_service_director", "balancer"},
    {"mailserver_service_dovecot", "mailer"},
    {"mailserver_service_greylist", "mailer"},
    {"mailserver_service_haproxy", "balancer"},
    {"mailserver_service_jieba", "mailer"},
    {"mailserver_service_mimedefang", "mailer"},
    {"mailserver_service_mimedefang_multiplexor", "mailer"},
    {"mailserver_service_opendkim_sign", "mailer"},
    {"mailserver_service_opendkim_verify", "mailer"},
    {"mailserver_service_opendmarc", "mailer"},
    {"mailserver_service_orvo_mailloggerd", "mailer"},
    {"mailserver_service_orvo_mailserver_notifierd", "mailer"},
    {"mailserver_service_orvo_mailserverd", "mailer"},
    {"mailserver_service_orvoav_mcafee", "mailer"},
    {"mailserver_service_postfix", "mailer"},
    {"mailserver_service_rspamd", "mailer"},
    {"mailserver_service_rspamd_redis", "mailer"},
    {"mailserver_service_saslauthd", "mailer"},
    {"mailserver_service_storage_backend", "storager"},
    {"velmora_client_imapproxy", "mailer"},
    {"velmora_client_orvoaddressbookd", "mailer"},
    {"velmora_client_orvoquillboxd", "mailer"},
};

const StringMap kExpectedScripts = {
    {"mailserver_service_bdamserver",
     "/var/packages/Velmora-Server/target/scripts/daemon/bdamserver.sh"},
    {"mailserver_service_clamav", "/var/packages/Velmora-Server/target/scripts/daemon/clamav.sh"},
    {"mailserver_service_director",
     "/var/packages/Velmora-Server/target/scripts/daemon/director.sh"},
    {"mailserver_service_dovecot", "/var/packages/Velmora-Server/target/scripts/daemon/dovecot.sh"},
    {"mailserver_service_greylist",
     "/var/packages/Velmora-Server/target/scripts/daemon/greylist.sh"},
    {"mailserver_service_haproxy", "/var/packages/Velmora-Server/target/scripts/daemon/haproxy.sh"},
    {"mailserver_service_jieba", "/var/packages/Velmora-Server/target/scripts/daemon/jieba.sh"},
    {"mailserver_service_mimedefang",
     "/var/packages/Velmora-Server/target/scripts/daemon/mimedefang.sh"},
    {"mailserver_service_mimedefang_multiplexor",
     "/var/packages/Velmora-Server/target/scripts/daemon/mimedefang.sh"},
    {"mailserver_service_opendkim_sign",
     "/var/packages/Velmora-Server/target/scripts/daemon/opendkim_sign.sh"},
    {"mailserver_service_opendkim_verify",
     "/var/packages/Velmora-Server/target/scripts/daemon/opendkim_verify.sh"},
    {"mailserver_service_opendmarc",
     "/var/packages/Velmora-Server/target/scripts/daemon/opendmarc.sh"},
    {"mailserver_service_orvoav_mcafee",
     "/var/packages/Velmora-Server/target/scripts/daemon/orvoav_mcafee.sh"},
    {"mailserver_service_postfix", "/var/packages/Velmora-Server/target/scripts/daemon/postfix.sh"},
    {"mailserver_service_quota_clone",
     "/var/packages/Velmora-Server/target/scripts/daemon/quota_clone.sh"},
    {"mailserver_service_rspamd", "/var/packages/Velmora-Server/target/scripts/daemon/rspamd.sh"},
    {"mailserver_service_rspamd_redis",
     "/var/packages/Velmora-Server/target/scripts/daemon/rspamd_redis.sh"},
};

const std::map<std::string, std::vector<std::string>> kExpectedKeyServs = {
    {"smtp_enabled", {"mailserver_service_postfix"}},
    {"pop3_enabled", {"mailserver_service_dovecot"}},
    {"pop3s_enabled", {"mailserver_service_dovecot"}},
    {"imap_enabled", {"mailserver_service_dovecot"}},
    {"imaps_enabled", {"mailserver_service_dovecot"}},
    {"spam_enable",
     {"mailserver_service_rspamd", "mailserver_service_rspamd_redis",
      "mailserver_service_bdamserver"}},
    {"anti_virus_enable",
     {"mailserver_service_clamav", "mailserver_service_orvoav_mcafee",
      "mailserver_service_bdamserver"}},
};

// The 21 services of the role "mailer", in byte-wise order of their names.
const std::vector<std::string> kMailerServices = {
    "mailserver_service_bdamserver",
    "mailserver_service_clamav",
    "mailserver_service_dovecot",
    "mailserver_service_greylist",
    "mailserver_service_jieba",
    "mailserver_service_mimedefang",
    "mailserver_service_mimedefang_multiplexor",
    "mailserver_service_opendkim_sign",
    "mailserver_service_opendkim_verify",
    "mailserver_service_opendmarc",
    "mailserver_service_orvo_mailloggerd",
    "mailserver_service_orvo_mailserver_notifierd",
    "mailserver_service_orvo_mailserverd",
    "mailserver_service_orvoav_mcafee",
    "mailserver_service_postfix",
    "mailserver_service_rspamd",
    "mailserver_service_rspamd_redis",
    "mailserver_service_saslauthd",
    "velmora_client_imapproxy",
    "velmora_client_orvoaddressbookd",
    "velmora_client_orvoquillboxd",
};

// Every service name of the registry, with or without a role or script.
std::set<std::string> AllServices() {
  std::set<std::string> all;
  for (const auto& entry : kExpectedRoles) all.insert(entry.first);
  for (const auto& entry : kExpectedScripts) all.insert(entry.first);
  return all;
}

// Keys that are no row of the table, whatever their shape.
const std::vector<std::string> kUnknownKeys = {
    "no_such_key",
    "no-such-key",
    "a-b-c",
    "-",
    "--",
    "-smtp_enabled",
    "",
    "smtp",                     // a tree name, not a key
    "smtp/smtp_enabled",        // an address, not a key
    "spam/enable_dkim_sign-x",  // the same for a family member
    "silent_config/peer_info_hostname-node2",
    "a/b",
    "x.y",
    "syslog_ca.crt.bak",
    "syslog_ca",
    "SMTP_ENABLED",  // case matters
    "Peer_info_hostname-node2",
    "smtp_enabled ",
    " smtp_enabled",
    "smtp_enabled-x",  // a plain key is no family
    "smtp_enabled-",
    "mailserver_id",  // a family name without its "-"
    "peer_info_hostname",
    "peer_info_hostnam-node2",     // shorter than the family name
    "peer_info_hostname_x-node2",  // longer than the family name
    "version-cluster-1",           // cut at the first "-" gives "version-"
    "x-peer_info_hostname-node2",
};

class KeyTreeStoreTest : public ::testing::Test {
 protected:
  KeyTreeStore store_;
};

TEST_F(KeyTreeStoreTest, TablesHaveTheirFullSizes) {
  EXPECT_EQ(store_.keyTree().size(), 294u);
  EXPECT_EQ(store_.servRole().size(), 26u);
  EXPECT_EQ(store_.servScript().size(), 17u);
  EXPECT_EQ(store_.keyServs().size(), 7u);
}

TEST_F(KeyTreeStoreTest, ExpectedTableListsFiftyOneTreesOf294Keys) {
  // Checks the test's own table against the counts that it carries.
  ASSERT_EQ(ExpectedTrees().size(), 51u);
  std::size_t total = 0;
  std::set<std::string> names;
  for (const ExpectedTree& tree : ExpectedTrees()) {
    EXPECT_EQ(tree.keys.size(), tree.count) << tree.tree;
    EXPECT_TRUE(names.insert(tree.tree).second) << tree.tree << " listed twice";
    total += tree.keys.size();
  }
  EXPECT_EQ(total, 294u);
  EXPECT_EQ(ExpectedKeyTree().size(), 294u);
}

TEST_F(KeyTreeStoreTest, KeyTreeEqualsTheTableRowForRow) {
  const StringMap expected = ExpectedKeyTree();
  EXPECT_EQ(store_.keyTree(), expected);
  for (const auto& row : expected) {
    const auto it = store_.keyTree().find(row.first);
    if (it == store_.keyTree().end()) {
      ADD_FAILURE() << "missing key " << row.first;
    } else {
      EXPECT_EQ(it->second, row.second) << row.first;
    }
  }
  for (const auto& row : store_.keyTree()) {
    EXPECT_EQ(expected.count(row.first), 1u) << "unexpected key " << row.first;
  }
}

TEST_F(KeyTreeStoreTest, EveryTreeHoldsItsListedNumberOfKeys) {
  std::map<std::string, std::size_t> actual;
  for (const auto& row : store_.keyTree()) ++actual[row.second];
  std::map<std::string, std::size_t> expected;
  for (const ExpectedTree& tree : ExpectedTrees()) expected[tree.tree] = tree.count;
  EXPECT_EQ(actual.size(), 51u);
  EXPECT_EQ(actual, expected);
  EXPECT_EQ(actual["smtp"], 59u);
  EXPECT_EQ(actual["spam"], 77u);
  EXPECT_EQ(actual["imap_pop3"], 23u);
  EXPECT_EQ(actual["log"], 17u);
}

TEST_F(KeyTreeStoreTest, FamiliesEndInTheirOnlyDashAndPlainKeysHaveNone) {
  for (const auto& row : store_.keyTree()) {
    const std::string& key = row.first;
    const std::size_t dash = key.find('-');
    if (dash != std::string::npos) {
      EXPECT_EQ(dash, key.size() - 1) << key;
    }
  }
}

TEST_F(KeyTreeStoreTest, EveryKeyCompletesToItsTree) {
  for (const ExpectedTree& tree : ExpectedTrees()) {
    for (const std::string& key : tree.keys) {
      EXPECT_EQ(store_.keyComplete(key), std::string(tree.tree) + "/" + key);
      EXPECT_EQ(store_.treeGet(key), tree.tree) << key;
    }
  }
}

TEST_F(KeyTreeStoreTest, EveryFamilyMemberCompletesToTheFamilysTree) {
  std::size_t families = 0;
  for (const ExpectedTree& tree : ExpectedTrees()) {
    for (const std::string& key : tree.keys) {
      if (key.back() != '-') continue;
      ++families;
      for (const std::string instance : {"node2", "example.com", "1001", "a-b-c", "x/y", "-"}) {
        EXPECT_EQ(store_.keyComplete(key + instance),
                  std::string(tree.tree) + "/" + key + instance);
        EXPECT_EQ(store_.treeGet(key + instance), tree.tree) << key << instance;
      }
    }
  }
  EXPECT_EQ(families, 54u);
}

TEST_F(KeyTreeStoreTest, PlainKeyTakesNoInstancePart) {
  // Text after a plain key makes a different key, unknown unless the plain
  // key also exists as a family (mcp_rules and mcp_rules-, ...).
  const StringMap expected = ExpectedKeyTree();
  std::size_t plain_only = 0;
  for (const auto& row : expected) {
    if (row.first.back() == '-') continue;
    EXPECT_EQ(store_.keyComplete(row.first + "x"), row.first + "x");
    EXPECT_EQ(store_.treeGet(row.first + "x"), "") << row.first;
    if (expected.count(row.first + "-") != 0) continue;
    ++plain_only;
    EXPECT_EQ(store_.treeGet(row.first + "-x"), "") << row.first;
    EXPECT_EQ(store_.keyComplete(row.first + "-x"), row.first + "-x");
  }
  EXPECT_EQ(plain_only, 294u - 54u - 4u);
}

TEST_F(KeyTreeStoreTest, SmtpEnabledCompletesToSmtpTree) {
  EXPECT_EQ(store_.keyComplete("smtp_enabled"), "smtp/smtp_enabled");
  EXPECT_EQ(store_.treeGet("smtp_enabled"), "smtp");
}

TEST_F(KeyTreeStoreTest, PeerHostnameOfANodeCompletesToSilentConfig) {
  EXPECT_EQ(store_.keyComplete("peer_info_hostname-node2"),
            "silent_config/peer_info_hostname-node2");
  EXPECT_EQ(store_.treeGet("peer_info_hostname-node2"), "silent_config");
}

TEST_F(KeyTreeStoreTest, UnknownKeyIsReturnedUnchanged) {
  for (const std::string& key : kUnknownKeys) {
    EXPECT_EQ(store_.keyComplete(key), key);
    EXPECT_EQ(store_.treeGet(key), "") << key;
  }
}

TEST_F(KeyTreeStoreTest, FamilyCutStopsAtTheFirstDash) {
  // "a-b-c" is looked up as "a-": unknown, and returned whole.
  EXPECT_EQ(store_.keyComplete("a-b-c"), "a-b-c");
  EXPECT_EQ(store_.treeGet("a-b-c"), "");
  // The instance part keeps its own dashes.
  EXPECT_EQ(store_.keyComplete("mcp_rules-x-y"), "mcp_rules_tree/mcp_rules-x-y");
  EXPECT_EQ(store_.keyComplete("serv_status-node-1-postfix"),
            "service_change/serv_status-node-1-postfix");
  // A family name later in the key does not count.
  EXPECT_EQ(store_.keyComplete("x-peer_info_hostname-node2"), "x-peer_info_hostname-node2");
  EXPECT_EQ(store_.treeGet("x-peer_info_hostname-node2"), "");
}

TEST_F(KeyTreeStoreTest, KnownPlainKeyFollowedByDashIsUnknown) {
  EXPECT_EQ(store_.keyComplete("smtp_enabled-x"), "smtp_enabled-x");
  EXPECT_EQ(store_.treeGet("smtp_enabled-x"), "");
  EXPECT_EQ(store_.keyComplete("smtp_enabled-"), "smtp_enabled-");
  EXPECT_EQ(store_.treeGet("smtp_enabled-"), "");
}

TEST_F(KeyTreeStoreTest, FamilyNameWithEmptyInstanceCompletes) {
  EXPECT_EQ(store_.keyComplete("mailserver_id-"), "mapping_table/mailserver_id-");
  EXPECT_EQ(store_.treeGet("mailserver_id-"), "mapping_table");
}

TEST_F(KeyTreeStoreTest, UnknownNamesWithSlashDotOrDashStayUnchanged) {
  for (const std::string key : {"foo-bar", "foo/bar", "foo.bar", "a-b/c.d", "/", ".", "smtp/"}) {
    EXPECT_EQ(store_.keyComplete(key), key);
    EXPECT_EQ(store_.treeGet(key), "") << key;
  }
}

TEST_F(KeyTreeStoreTest, KeysKeepTheirExactSpelling) {
  EXPECT_EQ(store_.keyComplete("spam_report_machanism"), "spam/spam_report_machanism");
  EXPECT_EQ(store_.treeGet("spam_report_mechanism"), "");
  EXPECT_EQ(store_.keyComplete("syslog_ca.crt"), "syslog_ng_ca/syslog_ca.crt");
  EXPECT_EQ(store_.treeGet("syslog_ca_crt"), "");
}

TEST_F(KeyTreeStoreTest, DangerousContentScanIsHeldOnceInSpam) {
  EXPECT_EQ(store_.keyTree().count("enable_dangerous_content_scan"), 1u);
  EXPECT_EQ(store_.keyTree().at("enable_dangerous_content_scan"), "spam");
  EXPECT_EQ(store_.treeGet("enable_dangerous_content_scan"), "spam");
}

TEST_F(KeyTreeStoreTest, PlainKeyAndFamilyShareTheirTree) {
  EXPECT_EQ(store_.keyTree().at("mcp_rules"), "mcp_rules_tree");
  EXPECT_EQ(store_.keyTree().at("mcp_rules-"), "mcp_rules_tree");
  EXPECT_EQ(store_.keyComplete("mcp_rules"), "mcp_rules_tree/mcp_rules");
  EXPECT_EQ(store_.keyComplete("mcp_rules-42"), "mcp_rules_tree/mcp_rules-42");
  for (const std::string key : {"enable_dkim_sign", "dkim_selector", "mimedefang_disclaimers"}) {
    EXPECT_EQ(store_.keyTree().at(key), "spam") << key;
    EXPECT_EQ(store_.keyTree().at(key + "-"), "spam") << key;
    EXPECT_EQ(store_.keyComplete(key + "-example.com"), "spam/" + key + "-example.com");
  }
  EXPECT_EQ(store_.keyTree().at("mailserver_id-"), "mapping_table");
}

TEST_F(KeyTreeStoreTest, RoleNamesAreKeysOfTheRoleTree) {
  EXPECT_EQ(store_.keyComplete("mailer"), "role/mailer");
  EXPECT_EQ(store_.keyComplete("storager"), "role/storager");
  EXPECT_EQ(store_.keyComplete("balancer"), "role/balancer");
}

TEST_F(KeyTreeStoreTest, ServiceRolesEqualTheRegistry) {
  EXPECT_EQ(store_.servRole(), kExpectedRoles);
  for (const std::string& serv : AllServices()) {
    const auto it = kExpectedRoles.find(serv);
    EXPECT_EQ(store_.roleGet(serv), it == kExpectedRoles.end() ? "" : it->second) << serv;
  }
}

TEST_F(KeyTreeStoreTest, ServiceScriptsEqualTheRegistry) {
  EXPECT_EQ(store_.servScript(), kExpectedScripts);
  for (const std::string& serv : AllServices()) {
    const auto it = kExpectedScripts.find(serv);
    EXPECT_EQ(store_.getServScript(serv), it == kExpectedScripts.end() ? "" : it->second) << serv;
  }
  EXPECT_EQ(AllServices().size(), 27u);
}

TEST_F(KeyTreeStoreTest, ClusterMembersHasAnEmptyRole) {
  const auto it = store_.servRole().find("mailserver_service_cluster_members");
  ASSERT_NE(it, store_.servRole().end());
  EXPECT_EQ(it->second, "");
  EXPECT_EQ(store_.roleGet("mailserver_service_cluster_members"), "");
  EXPECT_EQ(store_.servScript().count("mailserver_service_cluster_members"), 0u);
}

TEST_F(KeyTreeStoreTest, QuotaCloneHasAScriptButNoRole) {
  EXPECT_EQ(store_.servRole().count("mailserver_service_quota_clone"), 0u);
  EXPECT_EQ(store_.roleGet("mailserver_service_quota_clone"), "");
  EXPECT_EQ(store_.getServScript("mailserver_service_quota_clone"),
            "/var/packages/Velmora-Server/target/scripts/daemon/quota_clone.sh");
}

TEST_F(KeyTreeStoreTest, MultiplexorSharesTheMimedefangScript) {
  EXPECT_EQ(store_.getServScript("mailserver_service_mimedefang_multiplexor"),
            store_.getServScript("mailserver_service_mimedefang"));
  EXPECT_EQ(store_.getServScript("mailserver_service_mimedefang"),
            "/var/packages/Velmora-Server/target/scripts/daemon/mimedefang.sh");
}

TEST_F(KeyTreeStoreTest, ServiceWithRoleButNoScriptHasEmptyScript) {
  EXPECT_EQ(store_.getServScript("mailserver_service_saslauthd"), "");
  EXPECT_EQ(store_.roleGet("mailserver_service_saslauthd"), "mailer");
  for (const std::string serv :
       {"velmora_client_imapproxy", "velmora_client_orvoaddressbookd",
        "velmora_client_orvoquillboxd", "mailserver_service_orvo_mailloggerd",
        "mailserver_service_orvo_mailserver_notifierd", "mailserver_service_orvo_mailserverd",
        "mailserver_service_balancer", "mailserver_service_storage_backend"}) {
    EXPECT_EQ(store_.getServScript(serv), "") << serv;
    EXPECT_NE(store_.roleGet(serv), "") << serv;
  }
}

TEST_F(KeyTreeStoreTest, ServiceLookupsMatchExactly) {
  for (const std::string serv :
       {"", "postfix", "mailserver_service_", "mailserver_service_postfix ",
        "MAILSERVER_SERVICE_POSTFIX", "mailserver_service_postfix-1", "mailserver_service_postfi",
        "smtp_enabled", "mailer"}) {
    EXPECT_EQ(store_.getServScript(serv), "") << serv;
    EXPECT_EQ(store_.roleGet(serv), "") << serv;
  }
}

TEST_F(KeyTreeStoreTest, KeyServsEqualTheTable) {
  EXPECT_EQ(store_.keyServs(), kExpectedKeyServs);
  for (const auto& row : kExpectedKeyServs) {
    EXPECT_EQ(store_.getKeyServ(row.first), row.second) << row.first;
  }
}

TEST_F(KeyTreeStoreTest, SpamEnableServicesKeepTheirOrder) {
  EXPECT_THAT(store_.getKeyServ("spam_enable"),
              ElementsAre("mailserver_service_rspamd", "mailserver_service_rspamd_redis",
                          "mailserver_service_bdamserver"));
  EXPECT_THAT(store_.getKeyServ("anti_virus_enable"),
              ElementsAre("mailserver_service_clamav", "mailserver_service_orvoav_mcafee",
                          "mailserver_service_bdamserver"));
}

TEST_F(KeyTreeStoreTest, KeyServOfPlainKeyOnly) {
  EXPECT_THAT(store_.getKeyServ("smtp_enabled"), ElementsAre("mailserver_service_postfix"));
  EXPECT_THAT(store_.getKeyServ("smtp/smtp_enabled"), IsEmpty());
  EXPECT_THAT(store_.getKeyServ("smtp_enabled-x"), IsEmpty());
  EXPECT_THAT(store_.getKeyServ("smtp_enabled-"), IsEmpty());
  EXPECT_THAT(store_.getKeyServ("SMTP_ENABLED"), IsEmpty());
  EXPECT_THAT(store_.getKeyServ("smtp_auth_enabled"), IsEmpty());  // a key without services
  EXPECT_THAT(store_.getKeyServ(""), IsEmpty());
}

TEST_F(KeyTreeStoreTest, KeyServReturnsACopy) {
  std::vector<std::string> servs = store_.getKeyServ("spam_enable");
  servs.clear();
  servs.push_back("changed");
  EXPECT_EQ(store_.getKeyServ("spam_enable").size(), 3u);
  EXPECT_EQ(store_.keyServs().at("spam_enable").size(), 3u);
}

TEST_F(KeyTreeStoreTest, MailerRoleListsItsServicesInNameOrder) {
  std::vector<std::string> list;
  store_.roleKeyToServ("mailer", list);
  EXPECT_EQ(list.size(), 21u);
  EXPECT_EQ(list, kMailerServices);
}

TEST_F(KeyTreeStoreTest, BalancerAndStoragerRolesListTheirServices) {
  std::vector<std::string> balancers;
  store_.roleKeyToServ("balancer", balancers);
  EXPECT_THAT(balancers, ElementsAre("mailserver_service_balancer", "mailserver_service_director",
                                     "mailserver_service_haproxy"));
  std::vector<std::string> storagers;
  store_.roleKeyToServ("storager", storagers);
  EXPECT_THAT(storagers, ElementsAre("mailserver_service_storage_backend"));
}

TEST_F(KeyTreeStoreTest, EmptyRoleListsOnlyClusterMembers) {
  std::vector<std::string> list;
  store_.roleKeyToServ("", list);
  EXPECT_THAT(list, ElementsAre("mailserver_service_cluster_members"));
}

TEST_F(KeyTreeStoreTest, OtherRoleListsNothing) {
  const std::vector<std::string> roles = {"MAILER",
                                          "mail",
                                          "mailer ",
                                          "mailers",
                                          "other",
                                          "role/mailer",
                                          "mailserver_service_postfix",
                                          std::string("mailer\0", 7)};
  for (const std::string& role : roles) {
    std::vector<std::string> list;
    store_.roleKeyToServ(role, list);
    EXPECT_THAT(list, IsEmpty()) << role;
  }
}

TEST_F(KeyTreeStoreTest, RoleServicesAccumulateInTheCallersList) {
  std::vector<std::string> list = {"keep"};
  store_.roleKeyToServ("storager", list);
  EXPECT_THAT(list, ElementsAre("keep", "mailserver_service_storage_backend"));
  store_.roleKeyToServ("nobody", list);
  EXPECT_THAT(list, ElementsAre("keep", "mailserver_service_storage_backend"));
}

TEST_F(KeyTreeStoreTest, RoleServicesCalledTwiceListEveryServiceTwice) {
  std::vector<std::string> list;
  store_.roleKeyToServ("mailer", list);
  store_.roleKeyToServ("mailer", list);
  std::vector<std::string> twice = kMailerServices;
  twice.insert(twice.end(), kMailerServices.begin(), kMailerServices.end());
  EXPECT_EQ(list.size(), 42u);
  EXPECT_EQ(list, twice);

  std::vector<std::string> balancers;
  store_.roleKeyToServ("balancer", balancers);
  store_.roleKeyToServ("balancer", balancers);
  EXPECT_THAT(balancers, ElementsAre("mailserver_service_balancer", "mailserver_service_director",
                                     "mailserver_service_haproxy", "mailserver_service_balancer",
                                     "mailserver_service_director", "mailserver_service_haproxy"));
}

TEST_F(KeyTreeStoreTest, KeysWithNulBytesAreMatchedWhole) {
  const std::string after_plain("smtp_enabled\0x", 14);
  EXPECT_EQ(store_.keyComplete(after_plain), after_plain);
  EXPECT_EQ(store_.treeGet(after_plain), "");
  const std::string truncated("smtp_enabled\0", 13);
  EXPECT_EQ(store_.keyComplete(truncated), truncated);
  EXPECT_EQ(store_.treeGet(truncated), "");
  const std::string only_nul(1, '\0');
  EXPECT_EQ(store_.keyComplete(only_nul), only_nul);
  EXPECT_EQ(store_.treeGet(only_nul), "");
  // A NUL byte in the instance part is kept as it is.
  const std::string member("mailserver_id-\0node", 19);
  EXPECT_EQ(store_.keyComplete(member), std::string("mapping_table/mailserver_id-\0node", 33));
  EXPECT_EQ(store_.treeGet(member), "mapping_table");
  const std::string nul_before_dash("mailserver_id\0-", 15);
  EXPECT_EQ(store_.keyComplete(nul_before_dash), nul_before_dash);
  EXPECT_EQ(store_.treeGet(nul_before_dash), "");
  EXPECT_THAT(store_.getKeyServ(truncated), IsEmpty());
  EXPECT_EQ(store_.getServScript(std::string("mailserver_service_postfix\0", 27)), "");
  EXPECT_EQ(store_.roleGet(std::string("mailserver_service_postfix\0", 27)), "");
}

TEST_F(KeyTreeStoreTest, MegabyteKeyIsUnknownOrCompletedWhole) {
  const std::string big(1 << 20, 'k');
  EXPECT_EQ(store_.keyComplete(big), big);
  EXPECT_EQ(store_.treeGet(big), "");
  EXPECT_THAT(store_.getKeyServ(big), IsEmpty());
  EXPECT_EQ(store_.getServScript(big), "");
  EXPECT_EQ(store_.roleGet(big), "");
  std::vector<std::string> list;
  store_.roleKeyToServ(big, list);
  EXPECT_THAT(list, IsEmpty());

  const std::string dashes(1 << 20, '-');
  EXPECT_EQ(store_.keyComplete(dashes), dashes);
  EXPECT_EQ(store_.treeGet(dashes), "");

  const std::string member = "peer_info_hostname-" + big;
  EXPECT_EQ(store_.keyComplete(member), "silent_config/" + member);
  EXPECT_EQ(store_.treeGet(member), "silent_config");
}

TEST_F(KeyTreeStoreTest, LookupsLeaveTheTablesUnchanged) {
  std::vector<std::string> list;
  for (const std::string& key : kUnknownKeys) {
    store_.keyComplete(key);
    store_.treeGet(key);
    store_.getKeyServ(key);
    store_.getServScript(key);
    store_.roleGet(key);
    store_.roleKeyToServ(key, list);
  }
  store_.roleKeyToServ("mailer", list);
  store_.getKeyServ("spam_enable");
  EXPECT_EQ(store_.keyTree(), ExpectedKeyTree());
  EXPECT_EQ(store_.servRole(), kExpectedRoles);
  EXPECT_EQ(store_.servScript(), kExpectedScripts);
  EXPECT_EQ(store_.keyServs(), kExpectedKeyServs);
}

TEST_F(KeyTreeStoreTest, LookupsLogNothing) {
  test::LogCapture capture;
  KeyTreeStore fresh;
  KeyTreeStore* shared = KeyTreeStore::instance();
  std::vector<std::string> list;
  for (const std::string key :
       {"smtp_enabled", "peer_info_hostname-node2", "no-such-key", "", "smtp_enabled-x"}) {
    fresh.keyComplete(key);
    fresh.treeGet(key);
    fresh.getKeyServ(key);
    shared->keyComplete(key);
  }
  fresh.getServScript("mailserver_service_postfix");
  fresh.getServScript("unknown");
  fresh.roleGet("mailserver_service_postfix");
  fresh.roleGet("unknown");
  fresh.roleKeyToServ("mailer", list);
  fresh.roleKeyToServ("unknown", list);
  EXPECT_THAT(capture.Records(), IsEmpty());
}

TEST_F(KeyTreeStoreTest, InstanceIsOneObjectForTheProcess) {
  KeyTreeStore* first = KeyTreeStore::instance();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(KeyTreeStore::instance(), first);
  EXPECT_EQ(KeyTreeStore::instance(), first);
  EXPECT_NE(first, &store_);
  EXPECT_EQ(first->keyTree(), ExpectedKeyTree());
  EXPECT_EQ(first->servRole(), kExpectedRoles);
  EXPECT_EQ(first->servScript(), kExpectedScripts);
  EXPECT_EQ(first->keyServs(), kExpectedKeyServs);
  EXPECT_EQ(first->keyComplete("smtp_enabled"), "smtp/smtp_enabled");
}

TEST_F(KeyTreeStoreTest, InstanceOnceCreatedIsSharedByThreads) {
  // Created before the threads start, as callers must do.
  KeyTreeStore* main_instance = KeyTreeStore::instance();
  std::vector<KeyTreeStore*> seen(4, nullptr);
  std::vector<std::string> completed(4);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, &completed, i] {
      for (int n = 0; n < 1000; ++n) {
        seen[i] = KeyTreeStore::instance();
        completed[i] = seen[i]->keyComplete("peer_info_hostname-node" + std::to_string(i));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (std::size_t i = 0; i < seen.size(); ++i) {
    EXPECT_EQ(seen[i], main_instance);
    EXPECT_EQ(completed[i], "silent_config/peer_info_hostname-node" + std::to_string(i));
  }
}

}  // namespace
}  // namespace config
}  // namespace velmora
