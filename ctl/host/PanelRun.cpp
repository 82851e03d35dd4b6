#include "ctl/host/PanelRun.h"

#include <algorithm>

namespace torva::ctl {

const char* const tablesDirectory = "/var/spool/postfix/torva";

const std::vector<PanelService>& panelServices() {
    static const std::vector<PanelService> services{
        {"torva_virtual/unix", "-", "pipe", true, ""},
        {"mailman/unix", "-", "pipe", true, ""},
        {"smtp/inet", "n", "smtpd", true, ""},
        {"127.0.0.1:10025/inet", "n", "spawn", false,
         "user=mhandlers-user argv=/usr/lib/torva-9.0/postfix-queue 127.0.0.1 10027 before-queue"},
        {"127.0.0.1:10026/inet", "n", "smtpd", false,
         "-o smtpd_client_restrictions= -o smtpd_helo_restrictions= -o smtpd_sender_restrictions= "
         "-o smtpd_recipient_restrictions=permit_mynetworks,reject -o smtpd_data_restrictions= "
         "-o receive_override_options=no_unknown_recipient_checks"},
        {"127.0.0.1:10027/inet", "n", "spawn", false,
         "user=mhandlers-user argv=/usr/lib/torva-9.0/postfix-queue 127.0.0.1 10026 before-remote"},
        {"pickup/fifo", "n", "pickup", true, ""},
        {"torva_saslauthd/unix", "y", "torva_saslauthd", false,
         "status=5 listen=6 dbpath=/torva/passwd.db"},
        {"tlsmgr/unix", "-", "tlsmgr", false, ""},
    };
    return services;
}

const PanelService* panelServiceOf(const std::string& key) {
    const auto& services = panelServices();
    const auto found = std::find_if(services.begin(), services.end(),
                                    [&](const PanelService& one) { return key == one.key; });
    return found == services.end() ? nullptr : &*found;
}

const std::vector<std::string>& panelParameters() {
    static const std::vector<std::string> names{"inet_interfaces",
                                                "myhostname",
                                                "mydomain",
                                                "mydestination",
                                                "virtual_mailbox_domains",
                                                "virtual_alias_maps",
                                                "virtual_alias_domains",
                                                "virtual_mailbox_maps",
                                                "virtual_mailbox_base",
                                                "virtual_uid_maps",
                                                "virtual_gid_maps",
                                                "virtual_transport",
                                                "torva_virtual_destination_recipient_limit",
                                                "alias_maps",
                                                "alias_database",
                                                "transport_maps",
                                                "smtpd_tls_cert_file",
                                                "smtpd_tls_key_file",
                                                "smtpd_tls_security_level",
                                                "smtpd_use_tls",
                                                "smtp_tls_security_level",
                                                "smtp_use_tls",
                                                "smtpd_timeout",
                                                "smtpd_proxy_timeout",
                                                "mynetworks",
                                                "smtpd_sender_restrictions",
                                                "smtpd_recipient_restrictions",
                                                "smtp_send_xforward_command",
                                                "smtpd_authorized_xforward_hosts",
                                                "smtpd_sasl_auth_enable"};
    return names;
}

const std::vector<std::string>& tableNames() {
    static const std::vector<std::string> names{
        "virtual_domains", "virtual", "vmailbox", "aliases", "poplock", "blacklists", "transport"};
    return names;
}

std::string tableOf(const std::string& name) {
    return std::string("hash:") + tablesDirectory + "/" + name;
}

} // namespace torva::ctl
