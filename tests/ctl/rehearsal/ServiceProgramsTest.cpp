#include "ctl/rehearsal/ServicePrograms.h"

#include <gtest/gtest.h>

using namespace torva::ctl::rehearsal;

namespace {

const char* const services =
    "smtp       inet  n - - - - smtpd -o smtpd_proxy_filter=127.0.0.1:10025\n"
    "127.0.0.1:10025 inet n n n - - spawn user=m argv=/usr/lib/torva-9.0/postfix-queue 127.0.0.1\n"
    "127.0.0.1:10027 inet n n n - - spawn user=m argv=/usr/lib/torva-9.0/postfix-queue 127.0.0.1\n"
    "torva_saslauthd unix y y y - 1 torva_saslauthd status=5\n"
    "uucp       unix  - n n - - pipe flags=F user=uucp argv=/usr/bin/uux -r\n"
    "short line\n";

std::vector<std::string> missingWithout(const std::string& path) {
    std::vector<std::string> told;
    for (const MissingProgram& program :
         findMissingPrograms(parseServices(services), "/daemons",
                             [&path](const std::string& asked) { return asked != path; })) {
        std::string text = program.path + (program.panels ? " (panel):" : ":");
        for (const std::string& service : program.services) {
            text += " " + service;
        }
        told.push_back(text);
    }
    return told;
}

using Texts = std::vector<std::string>;

TEST(ServiceProgramsTest, NameCommandAndProgramAreRead) {
    const std::vector<ServiceEntry> entries = parseServices(services);
    ASSERT_EQ(entries.size(), 5U);
    EXPECT_EQ(entries[0].command, "smtpd");
    EXPECT_EQ(entries[0].program, "");
    EXPECT_EQ(entries[1].name, "127.0.0.1:10025");
    EXPECT_EQ(entries[1].program, "/usr/lib/torva-9.0/postfix-queue");
}

TEST(ServiceProgramsTest, DisabledServicesAreThoseThatTheSettingFits) {
    const std::vector<ServiceEntry> entries = parseServices(services);
    const Texts all = {"smtp", "127.0.0.1:10025", "127.0.0.1:10027"};
    EXPECT_EQ(findDisabled(entries, ""), Texts{});
    EXPECT_EQ(findDisabled(entries, "inet"), all);
    EXPECT_EQ(findDisabled(entries, "smtp/inet"), Texts{"smtp"});
    EXPECT_EQ(findDisabled(entries, "uucp.unix, SMTP.inet"), Texts{"smtp"});
    EXPECT_EQ(findDisabled(entries, "!smtp/inet inet"), (Texts{all[1], all[2]}));
    EXPECT_EQ(findDisabled(entries, "unix smtp"), Texts{});
}

TEST(ServiceProgramsTest, NothingIsMissingWhereAllIsThere) {
    EXPECT_EQ(missingWithout("/nothing"), Texts{});
}

TEST(ServiceProgramsTest, ProgramOfThePanelIsToldOnceWithItsServices) {
    EXPECT_EQ(missingWithout("/usr/lib/torva-9.0/postfix-queue"),
              Texts{"/usr/lib/torva-9.0/postfix-queue (panel): 127.0.0.1:10025 127.0.0.1:10027"});
}

TEST(ServiceProgramsTest, DaemonOfThePanelIsItsOwn) {
    EXPECT_EQ(missingWithout("/daemons/torva_saslauthd"),
              Texts{"/daemons/torva_saslauthd (panel): torva_saslauthd"});
}

TEST(ServiceProgramsTest, DaemonOfPostfixIsTold) {
    EXPECT_EQ(missingWithout("/daemons/smtpd"), Texts{"/daemons/smtpd: smtp"});
}

TEST(ServiceProgramsTest, ProgramsOfOthersAreLeftAlone) {
    EXPECT_EQ(missingWithout("/usr/bin/uux"), Texts{});
}

TEST(ServiceProgramsTest, DirectoryIsNoProgram) {
    EXPECT_TRUE(isProgram("/bin/sh"));
    EXPECT_FALSE(isProgram("/bin"));
    EXPECT_FALSE(isProgram("/bin/no-such-program"));
}

} // namespace
