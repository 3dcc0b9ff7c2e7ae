#include <map>
#include <string>
#include <utility>
#include <vector>

#include <velmora/config.h>

namespace velmora {
namespace config {

namespace {

// Directory of the services' control scripts.
const char kDaemonDir[] = "/var/packages/Velmora-Server/target/scripts/daemon/";

// One row of the service registry: the service, its role and the file name of
// its control script in kDaemonDir. A null role or script means the service
// has no entry in that map; "" is a stored empty role.
struct ServiceRow {
  const char* serv;
  const char* role;
  const char* script;
};

const ServiceRow kServiceRows[] = {
    {"mailserver_service_balancer", "balancer", nullptr},
    {"mailserver_service_bdamserver", "mailer", "bdamserver.sh"},
    {"mailserver_service_clamav", "mailer", "clamav.sh"},
    // The only service of the empty role.
    {"mailserver_service_cluster_members", "", nullptr},
    {"mailserver_service_director", "balancer", "director.sh"},
    {"mailserver_service_dovecot", "mailer", "dovecot.sh"},
    {"mailserver_service_greylist", "mailer", "greylist.sh"},
    {"mailserver_service_haproxy", "balancer", "haproxy.sh"},
    {"mailserver_service_jieba", "mailer", "jieba.sh"},
    {"mailserver_service_mimedefang", "mailer", "mimedefang.sh"},
    // Driven by the same script as mimedefang itself.
    {"mailserver_service_mimedefang_multiplexor", "mailer", "mimedefang.sh"},
    {"mailserver_service_opendkim_sign", "mailer", "opendkim_sign.sh"},
    {"mailserver_service_opendkim_verify", "mailer", "opendkim_verify.sh"},
    {"mailserver_service_opendmarc", "mailer", "opendmarc.sh"},
    {"mailserver_service_orvo_mailloggerd", "mailer", nullptr},
    {"mailserver_service_orvo_mailserver_notifierd", "mailer", nullptr},
    {"mailserver_service_orvo_mailserverd", "mailer", nullptr},
    {"mailserver_service_orvoav_mcafee", "mailer", "orvoav_mcafee.sh"},
    {"mailserver_service_postfix", "mailer", "postfix.sh"},
    // A script but no role.
    {"mailserver_service_quota_clone", nullptr, "quota_clone.sh"},
    {"mailserver_service_rspamd", "mailer", "rspamd.sh"},
    {"mailserver_service_rspamd_redis", "mailer", "rspamd_redis.sh"},
    {"mailserver_service_saslauthd", "mailer", nullptr},
    {"mailserver_service_storage_backend", "storager", nullptr},
    {"velmora_client_imapproxy", "mailer", nullptr},
    {"velmora_client_orvoaddressbookd", "mailer", nullptr},
    {"velmora_client_orvoquillboxd", "mailer", nullptr},
};

// Plain setting key to the services it switches, in the order they are
// handled; unused slots are null. Plain arrays keep every table constant-
// initialised, so instance() also works when called from a static
// initialiser elsewhere.
struct KeyServsRow {
  const char* key;
  const char* servs[3];
};

const KeyServsRow kKeyServsRows[] = {
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

// Key or key family ("...-") to its tree, grouped by tree.
struct KeyTreeRow {
  const char* key;
  const char* tree;
};

const KeyTreeRow kKeyTreeRows[] = {
    {"mailserver_id-", "mapping_table"},

    {"velmora_server_cluster_status", "cluster_status"},

    {"mailer", "role"},
    {"storager", "role"},
    {"balancer", "role"},

    {"enable_balancer_address", "balancer_info"},
    {"balancer_address", "balancer_info"},
    {"balancer_netmask", "balancer_info"},

    {"balancer_master_node", "balancer_master"},

    {"cluster_peers", "cluster"},
    {"consul_peers", "cluster"},
    {"support_file_push", "cluster"},

    {"peer_info_hostname-", "silent_config"},
    {"mailer_weight_list", "silent_config"},
    {"peer_info_mac-", "silent_config"},
    {"peer_info_serial_num-", "silent_config"},

    {"general_storage_volume-", "general_config"},
    {"node_ip_list-", "general_config"},
    {"node_bind_if-", "general_config"},

    {"storage_static_mapping-", "storage_mapping"},
    {"storage_runtime_mapping-", "storage_mapping"},

    {"version_cluster-", "version"},
    {"version_dovecot-", "version"},
    {"version_kvn_major-", "version"},
    {"version_mcafee-", "version"},
    {"version_bitdefender-", "version"},

    {"sync_file-", "custom_file"},

    {"file_upload_hook-", "kv_file_upload"},

    {"health_check_trigger", "health_check"},

    {"resource_info-", "resource_info"},

    {"resource_triggered_time", "resource_triggered_time"},

    {"serv_status-", "service_change"},

    {"threat_overview_pref", "security_dashboard"},
    {"inbound_statistic_pref", "security_dashboard"},
    {"outbound_statistic_pref", "security_dashboard"},

    // smtp also holds the relay, postscreen and greylisting keys.
    {"smtp_enabled", "smtp"},
    {"account_type", "smtp"},
    {"acc_domain_name", "smtp"},
    {"win_domain_short_name", "smtp"},
    {"smtp_auth_enabled", "smtp"},
    {"smtp_ignore_lan_auth", "smtp"},
    {"smtp_security_auth", "smtp"},
    {"smtp_hostname", "smtp"},
    {"smtpd_banner", "smtp"},
    {"smtp_main_domain", "smtp"},
    {"smtp_port", "smtp"},
    {"disable_auto_forward", "smtp"},
    {"smtp_ssl_enabled", "smtp"},
    {"smtps_port", "smtp"},
    {"restrict_sender", "smtp"},
    {"smtp_skip_restrict_sender", "smtp"},
    {"smtp_tls_enabled", "smtp"},
    {"smtp_tls_port", "smtp"},
    {"message_limit", "smtp"},
    {"canonical_domain", "smtp"},
    {"max_recipients_per_mail", "smtp"},
    {"max_hops_traveled_per_mail", "smtp"},
    {"max_parallel_connection_per_ip_enabled", "smtp"},
    {"max_parallel_connection_per_ip", "smtp"},
    {"max_mails_per_min_per_ip_enabled", "smtp"},
    {"max_mails_per_min_per_ip", "smtp"},
    {"max_connection_per_min_per_ip_enabled", "smtp"},
    {"max_connection_per_min_per_ip", "smtp"},
    {"max_junk_command_per_smtp_session_enabled", "smtp"},
    {"max_junk_command_per_smtp_session", "smtp"},
    {"reject_unknown_recipient_count_exceed", "smtp"},
    {"smtpd_unknown_recipient_count_limit", "smtp"},
    {"smtpd_send_local_only", "smtp"},
    {"cleanup_user_attachment_restrict", "smtp"},
    {"smtpd_user_send_flow_restrict", "smtp"},
    {"smtpd_user_send_quota_restrict", "smtp"},
    {"smtpd_domain_send_flow_restrict", "smtp"},
    {"smtpd_domain_send_quota_restrict", "smtp"},
    {"smtp_relay_enabled", "smtp"},
    {"smtp_relay_server", "smtp"},
    {"smtp_relay_server_port", "smtp"},
    {"smtp_relay_secure_conn", "smtp"},
    {"smtp_relay_auth_enabled", "smtp"},
    {"smtp_relay_account", "smtp"},
    {"smtp_relay_password", "smtp"},
    {"smtp_relay_client_host_type", "smtp"},
    {"smtp_relay_client_single", "smtp"},
    {"smtp_relay_client_sender", "smtp"},
    {"smtp_relay_client_recipient", "smtp"},
    {"smtp_relay_host_network", "smtp"},
    {"smtp_relay_host_domain", "smtp"},
    {"user_policy_disable_auto_forward", "smtp"},
    {"postscreen_enable", "smtp"},
    {"postscreen_dnsbl_server", "smtp"},
    {"postscreen_dnsbl_threshold", "smtp"},
    {"greylist_enable", "smtp"},
    {"greylist_period", "smtp"},
    {"greylist_rule_list", "smtp"},
    {"greylist_default_action", "smtp"},

    {"mailserver_domain_db", "mailserver_domain"},

    {"mailserver_db", "mailserverdb"},

    {"virtual_multiple_domain", "virtual_domain"},
    {"additional_domain-", "virtual_domain"},
    {"enable_postmaster", "virtual_domain"},
    {"catch_all-", "virtual_domain"},
    {"enable_catch_all-", "virtual_domain"},
    {"attachment_limit-", "virtual_domain"},
    {"enable_attachment-", "virtual_domain"},
    {"daily_quota_limit-", "virtual_domain"},
    {"enable_daily_quota-", "virtual_domain"},
    {"outbound_flow_limit-", "virtual_domain"},
    {"enable_outbound_flow-", "virtual_domain"},
    {"mail_size_limit-", "virtual_domain"},
    {"enable_auto_forward-", "virtual_domain"},
    {"smtp_changed_uids", "virtual_domain"},

    {"sync_disclaimer_content_file-", "multi_domain_disclaimer_content"},

    // spam also holds the DKIM, SPF, DMARC, content-scan and anti-virus
    // policy keys; "spam_report_machanism" is the key's real spelling.
    {"enable_dkim_sign-", "spam"},
    {"dkim_selector-", "spam"},
    {"spam_greylist_enable", "spam"},
    {"reject_sasl_sender_rate_exceed", "spam"},
    {"smtpd_sasl_sender_rate_limit", "spam"},
    {"reject_sender_flow_exceed", "spam"},
    {"smtpd_sasl_sender_flow_limit", "spam"},
    {"reject_sender_attachment_exceed", "spam"},
    {"cleanup_sender_attachment_limit", "spam"},
    {"reject_unauth_pipelining", "spam"},
    {"reject_unknown_client_hostname", "spam"},
    {"reject_non_fqdn_helo_hostname", "spam"},
    {"reject_unknown_helo_hostname", "spam"},
    {"reject_non_fqdn_sender", "spam"},
    {"reject_unknown_sender_domain", "spam"},
    {"spam_enable", "spam"},
    {"spam_engine", "spam"},
    {"spam_required_score", "spam"},
    {"spam_enable_rewrite", "spam"},
    {"spam_rewrite_subject", "spam"},
    {"spam_report_machanism", "spam"},
    {"spam_auto_learn", "spam"},
    {"spam_auto_whitelist", "spam"},
    {"spam_learn_threshold_spam", "spam"},
    {"spam_learn_threshold_non_spam", "spam"},
    {"spam_rule_auto_update", "spam"},
    {"spam_rule_update_hour", "spam"},
    {"spam_rule_update_minute", "spam"},
    {"spam_rule_last_update_time", "spam"},
    {"spam_keywords", "spam"},
    {"sync_spam_db", "spam"},
    {"spam_clean_enable", "spam"},
    {"spam_clean_interval", "spam"},
    {"bitdefender_ui_enable", "spam"},
    {"bitdefender_spam_types", "spam"},
    {"spam_report_enable", "spam"},
    {"spam_report_account", "spam"},
    {"ham_report_account", "spam"},
    {"report_autolearn_enable", "spam"},
    {"report_autolearn_hour", "spam"},
    {"report_autolearn_minute", "spam"},
    {"report_learn_clear_history", "spam"},
    {"mimedefang_enable", "spam"},
    {"mimedefang_disclaimers", "spam"},
    {"mimedefang_disclaimers-", "spam"},
    {"anti_virus_enable", "spam"},
    {"anti_virus_engine", "spam"},
    {"anti_virus_old_engine", "spam"},
    {"anti_virus_enable_google_safebrowsing", "spam"},
    {"anti_virus_enable_extra_signature", "spam"},
    {"anti_virus_enable_rewrite", "spam"},
    {"anti_virus_rewrite_subject", "spam"},
    {"anti_virus_action", "spam"},
    {"anti_virus_notify_recipient", "spam"},
    {"anti_virus_delete_admin_addr", "spam"},
    {"anti_virus_delete_subject", "spam"},
    {"anti_virus_delete_template", "spam"},
    {"anti_virus_quarantine_admin_addr", "spam"},
    {"anti_virus_quarantine_subject", "spam"},
    {"anti_virus_quarantine_template", "spam"},
    {"enable_spf_check", "spam"},
    {"reject_spf_soft_fail", "spam"},
    {"enable_dkim", "spam"},
    {"dkim_key_min_length", "spam"},
    {"enable_dkim_sign", "spam"},
    {"dkim_selector", "spam"},
    {"enable_dmarc", "spam"},
    {"enable_dangerous_content_scan", "spam"},
    {"reject_partial_message", "spam"},
    {"reject_external_message_bodies", "spam"},
    {"find_phishing_fraud", "spam"},
    {"convert_html_to_text", "spam"},
    {"allow_iframe_tags", "spam"},
    {"allow_form_tags", "spam"},
    {"allow_script_tags", "spam"},
    {"allow_webbugs", "spam"},
    {"allow_object_codebase_tags", "spam"},

    {"dkim_public_key-", "multi_domain_dkim_key"},
    {"dkim_private_key-", "multi_domain_dkim_key"},

    {"domain_setting_db", "multi_domain_setting_db"},

    {"mailserver_alias_db", "aliasdb"},

    {"always_bcc", "bcc"},

    {"bcc_db", "bccdb"},
    {"bkp_always_bcc-", "bccdb"},

    {"mailserver_global_access_db", "blackwhitelist_db"},
    {"mailserver_dkim_sign_whitelist_db", "blackwhitelist_db"},

    {"pop3_enabled", "imap_pop3"},
    {"pop3s_enabled", "imap_pop3"},
    {"imap_enabled", "imap_pop3"},
    {"imaps_enabled", "imap_pop3"},
    {"imap_pop3_security_auth", "imap_pop3"},
    {"enable_dovecot_auth_deny", "imap_pop3"},
    {"enable_dovecot_auth_local", "imap_pop3"},
    {"fts_enabled", "imap_pop3"},
    {"fts_allowed_user", "imap_pop3"},
    {"fts_allowed_group", "imap_pop3"},
    {"fts_forbidden_user", "imap_pop3"},
    {"fts_forbidden_group", "imap_pop3"},
    {"fts_member_limit", "imap_pop3"},
    {"fts_member_default_allowed", "imap_pop3"},
    {"jieba_enabled", "imap_pop3"},
    {"fts_enable_list-", "imap_pop3"},
    {"dsync_ssl_enable", "imap_pop3"},
    {"time_dsync_period", "imap_pop3"},
    {"max_userip_conn", "imap_pop3"},
    {"max_redirects", "imap_pop3"},
    {"mailbox_enable_system_quota", "imap_pop3"},
    {"mailbox_system_quota", "imap_pop3"},
    {"mailbox_system_quota_warning", "imap_pop3"},

    {"mailserver_dailyquota_db", "dailyquota_db"},

    {"mailserver_rule_status-", "rule"},

    {"mailserver_rule_file-", "ruledb"},

    {"mailserver_filter_db", "filter_db"},

    {"mailserver_account_db", "account_db"},

    {"report_learn_cmd_file-", "report_learn_cmd"},

    {"report_learn_history_file-", "report_learn_history"},

    // Only the signature-update schedule; the anti-virus policy is in spam.
    {"anti_virus_auto_update", "antivirus"},
    {"anti_virus_db_update_hour", "antivirus"},
    {"anti_virus_db_update_minute", "antivirus"},
    {"anti_virus_db_update_frequency", "antivirus"},
    {"anti_virus_last_update_time", "antivirus"},

    {"orvoav_mcafee_sync_status", "orvoav_mcafee"},
    {"orvoav_mcafee_status-", "orvoav_mcafee"},
    {"orvoav_mcafee_sync_status_finish-", "orvoav_mcafee"},

    {"mailserver_dkim_public_key", "dkim_key"},
    {"mailserver_dkim_private_key", "dkim_key"},

    {"mailserver_attachment_filter_db", "attachment_filter_db"},

    {"mcp_enable", "mcp"},
    {"mcp_threshold", "mcp"},
    {"mcp_enable_store", "mcp"},
    {"mcp_enable_deliver", "mcp"},
    {"mcp_enable_delete", "mcp"},
    {"mcp_enable_bounce", "mcp"},
    {"mcp_enable_forward", "mcp"},
    {"mcp_forward_to", "mcp"},
    {"mcp_enable_header", "mcp"},
    {"mcp_add_header_name", "mcp"},
    {"mcp_add_header_value", "mcp"},
    {"mcp_bounce_admin_addr", "mcp"},
    {"mcp_bounce_subject", "mcp"},
    {"mcp_bounce_content", "mcp"},

    {"mcp_rules-", "mcp_rules_tree"},
    {"mcp_rules", "mcp_rules_tree"},

    {"log_last_count_time", "log"},
    {"archive_last_archive_time", "log"},
    {"archive_destination", "log"},
    {"archive_enable_schedule", "log"},
    {"archive_weekday", "log"},
    {"archive_hour", "log"},
    {"archive_minute", "log"},
    {"forward_to_other_node", "log"},
    {"forward_to_other_machine", "log"},
    {"forward_server", "log"},
    {"forward_port", "log"},
    {"forward_protocol", "log"},
    {"forward_format", "log"},
    {"forward_enable_ssl", "log"},
    {"rotate_enable_period", "log"},
    {"rotate_period", "log"},
    {"rotate_size", "log"},

    {"syslog_ca.crt", "syslog_ng_ca"},

    {"report_rcpt_1", "reporter"},
    {"report_rcpt_2", "reporter"},
    {"report_sender_name", "reporter"},
    {"report_sender_mail", "reporter"},
    {"report_smtp_server", "reporter"},
    {"report_smtp_port", "reporter"},
    {"report_enable_report", "reporter"},
    {"report_time_hour", "reporter"},
    {"report_time_min", "reporter"},

    {"personal-", "personal"},

    {"personal_policy_db", "personal_policy"},

    {"smtp_local_enable_list-", "user_policy_setting"},
    {"smtp_auto_forward_disable_list-", "user_policy_setting"},
    {"attachment_size_list-", "user_policy_setting"},
    {"daily_quota_list-", "user_policy_setting"},
    {"daily_flow_limit_list-", "user_policy_setting"},
    {"imap_enable_list-", "user_policy_setting"},
    {"pop3_enable_list-", "user_policy_setting"},
    {"imap_local_enable_list-", "user_policy_setting"},
    {"pop3_local_enable_list-", "user_policy_setting"},

    {"delegation_db", "delegation"},

    {"autotest_wait_callback", "autotest"},
};

// Splits `key` after its first "-": the family part (or the whole key when
// there is no "-") is the name to look up.
std::string::size_type FamilyLength(const std::string& key) {
  const std::string::size_type dash = key.find('-');
  return dash == std::string::npos ? key.size() : dash + 1;
}

}  // namespace

KeyTreeStore* KeyTreeStore::instance_ = nullptr;

KeyTreeStore::KeyTreeStore() {
  for (const ServiceRow& row : kServiceRows) {
    if (row.role != nullptr) servRole_[row.serv] = row.role;
    if (row.script != nullptr) servScript_[row.serv] = std::string(kDaemonDir) + row.script;
  }
  for (const KeyServsRow& row : kKeyServsRows) {
    std::vector<std::string> servs;
    for (const char* serv : row.servs) {
      if (serv != nullptr) servs.emplace_back(serv);
    }
    keyServs_[row.key] = std::move(servs);
  }
  for (const KeyTreeRow& row : kKeyTreeRows) keyTree_[row.key] = row.tree;
}

KeyTreeStore* KeyTreeStore::instance() {
  // Unsynchronised on purpose: callers create the instance before they start
  // threads. If the constructor throws, `new` frees the storage and
  // instance_ stays unset.
  if (instance_ == nullptr) instance_ = new KeyTreeStore();
  return instance_;
}

std::string KeyTreeStore::keyComplete(const std::string& key) const {
  const std::string::size_type len = FamilyLength(key);
  const auto it = len == key.size() ? keyTree_.find(key) : keyTree_.find(key.substr(0, len));
  if (it == keyTree_.end()) return key;
  // The family part and the instance part together are the key itself.
  std::string full;
  full.reserve(it->second.size() + 1 + key.size());
  full.append(it->second).append(1, '/').append(key);
  return full;
}

std::string KeyTreeStore::treeGet(const std::string& key) const {
  const std::string::size_type len = FamilyLength(key);
  const auto it = len == key.size() ? keyTree_.find(key) : keyTree_.find(key.substr(0, len));
  return it == keyTree_.end() ? std::string() : it->second;
}

std::vector<std::string> KeyTreeStore::getKeyServ(const std::string& key) const {
  const auto it = keyServs_.find(key);
  return it == keyServs_.end() ? std::vector<std::string>() : it->second;
}

std::string KeyTreeStore::getServScript(const std::string& serv) const {
  const auto it = servScript_.find(serv);
  return it == servScript_.end() ? std::string() : it->second;
}

std::string KeyTreeStore::roleGet(const std::string& serv) const {
  const auto it = servRole_.find(serv);
  return it == servRole_.end() ? std::string() : it->second;
}

void KeyTreeStore::roleKeyToServ(const std::string& role, std::vector<std::string>& list) const {
  for (const auto& entry : servRole_) {
    if (entry.second == role) list.push_back(entry.first);
  }
}

}  // namespace config
}  // namespace velmora
