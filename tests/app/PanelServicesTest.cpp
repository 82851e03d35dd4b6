#include "app/PanelServices.h"

#include <gtest/gtest.h>

using namespace torva::app;
using torva::mail::postfix::formatModule;

namespace {

struct Case {
    const char* name;
    torva::mail::postfix::MasterCfModule service;
    const char* text;
};

void PrintTo(const Case& tested, std::ostream* out) {
    *out << tested.name;
}

class PanelServicesTest : public testing::TestWithParam<Case> {};

TEST_P(PanelServicesTest, Text) {
    EXPECT_EQ(formatModule(GetParam().service), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Services, PanelServicesTest,
    testing::Values(Case{"VirtualDelivery", virtualDelivery("/var/qmail/mailnames"),
                         "torva_virtual unix - n n - - pipe flags=DORhu user=popuser:popuser "
                         "argv=/usr/lib/torva-9.0/postfix-local -f ${sender} -d ${recipient} -p "
                         "/var/qmail/mailnames"},
                    Case{"Mailman", mailmanTransport(),
                         "mailman unix - n n - - pipe flags=R user=mailman:mailman "
                         "argv=/usr/lib/torva-9.0/postfix-mailman ${nexthop} ${user} ${recipient}"},
                    Case{"Smtp", smtpServer(),
                         "smtp inet n - - - - smtpd -o smtpd_proxy_filter=127.0.0.1:10025"},
                    Case{"BeforeQueue", beforeQueueFilter(),
                         "127.0.0.1:10025 inet n n n - - spawn user=mhandlers-user "
                         "argv=/usr/lib/torva-9.0/postfix-queue 127.0.0.1 10027 before-queue"},
                    Case{"CleanReinjection", cleanReinjection(),
                         "127.0.0.1:10026 inet n - - - - smtpd  -o smtpd_client_restrictions=  -o "
                         "smtpd_helo_restrictions=  -o smtpd_sender_restrictions=  -o "
                         "smtpd_recipient_restrictions=permit_mynetworks,reject  -o "
                         "smtpd_data_restrictions=  -o "
                         "receive_override_options=no_unknown_recipient_checks"},
                    Case{"BeforeRemote", beforeRemoteFilter(),
                         "127.0.0.1:10027 inet n n n - - spawn user=mhandlers-user "
                         "argv=/usr/lib/torva-9.0/postfix-queue 127.0.0.1 10026 before-remote"},
                    Case{"Pickup", pickupService(),
                         "pickup fifo n - - 60 1 pickup -o content_filter=smtp:127.0.0.1:10027"},
                    Case{"SaslDaemon", saslDaemon(),
                         "torva_saslauthd unix y y y - 1 torva_saslauthd status=5 listen=6 "
                         "dbpath=/torva/passwd.db"},
                    Case{"TlsManager", tlsManager(), "tlsmgr unix - - n 1000? 1 tlsmgr"}),
    [](const auto& tested) { return std::string(tested.param.name); });

} // namespace
