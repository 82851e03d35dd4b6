#include "app/PanelServices.h"

#include <utility>

namespace torva::app {

using mail::postfix::MasterCfModule;
using mail::postfix::ModuleType;

namespace {

boost::logic::tribool column(char letter) {
    return letter == '-' ? boost::logic::tribool(boost::logic::indeterminate)
                         : boost::logic::tribool(letter == 'y');
}

/// \param columns  private, unpriv and chroot as master.cf writes them, one
///                 character each
MasterCfModule service(const char* name, ModuleType type, const char* columns,
                       std::vector<std::string> words) {
    MasterCfModule record;
    record.name = name;
    record.type = type;
    record.private_ = column(columns[0]);
    record.unpriv = column(columns[1]);
    record.chroot = column(columns[2]);
    record.words = std::move(words);
    return record;
}

MasterCfModule withProcessLimit(MasterCfModule record, int limit) {
    record.maxproc = limit;
    return record;
}

} // namespace

MasterCfModule virtualDelivery(const std::string& mailNames) {
    return service(
        "torva_virtual", ModuleType::unix, "-nn",
        {"pipe", "flags=DORhu", "user=popuser:popuser",
         "argv=/usr/lib/torva-9.0/postfix-local -f ${sender} -d ${recipient} -p " + mailNames});
}

MasterCfModule mailmanTransport() {
    return service("mailman", ModuleType::unix, "-nn",
                   {"pipe", "flags=R", "user=mailman:mailman",
                    "argv=/usr/lib/torva-9.0/postfix-mailman ${nexthop} ${user} ${recipient}"});
}

MasterCfModule smtpServer() {
    return service("smtp", ModuleType::inet, "n--",
                   {"smtpd", "-o smtpd_proxy_filter=127.0.0.1:10025"});
}

MasterCfModule beforeQueueFilter() {
    return service("127.0.0.1:10025", ModuleType::inet, "nnn",
                   {"spawn", "user=mhandlers-user",
                    "argv=/usr/lib/torva-9.0/postfix-queue 127.0.0.1 10027 before-queue"});
}

MasterCfModule cleanReinjection() {
    // The blank before each option is part of the word.
    return service("127.0.0.1:10026", ModuleType::inet, "n--",
                   {"smtpd", " -o smtpd_client_restrictions=", " -o smtpd_helo_restrictions=",
                    " -o smtpd_sender_restrictions=",
                    " -o smtpd_recipient_restrictions=permit_mynetworks,reject",
                    " -o smtpd_data_restrictions=",
                    " -o receive_override_options=no_unknown_recipient_checks"});
}

MasterCfModule beforeRemoteFilter() {
    return service("127.0.0.1:10027", ModuleType::inet, "nnn",
                   {"spawn", "user=mhandlers-user",
                    "argv=/usr/lib/torva-9.0/postfix-queue 127.0.0.1 10026 before-remote"});
}

MasterCfModule pickupService() {
    MasterCfModule record = service("pickup", ModuleType::fifo, "n--",
                                    {"pickup", "-o content_filter=smtp:127.0.0.1:10027"});
    record.wakeup = 60;
    return withProcessLimit(record, 1);
}

MasterCfModule saslDaemon() {
    return withProcessLimit(
        service("torva_saslauthd", ModuleType::unix, "yyy",
                {"torva_saslauthd", "status=5", "listen=6", "dbpath=/torva/passwd.db"}),
        1);
}

MasterCfModule tlsManager() {
    MasterCfModule record = service("tlsmgr", ModuleType::unix, "--n", {"tlsmgr"});
    record.wakeup = 1000;
    record.wakeupConditional = true;
    return withProcessLimit(record, 1);
}

} // namespace torva::app
