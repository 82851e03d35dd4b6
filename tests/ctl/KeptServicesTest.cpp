#include "ctl/findings/HostFindings.h"

#include <gmock/gmock.h>

namespace torva::ctl {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

std::vector<Finding> foundIn(const std::string& masterCf) {
    Findings findings;
    findKeptServices(MasterCfText(masterCf), findings);
    return findings.all();
}

const char* const ownEntries =
    "127.0.0.1:10025 inet n n n - - spawn user=mhandlers-user\n"
    "  argv=/usr/lib/torva-9.0/postfix-queue 127.0.0.1 10027 before-queue\n"
    "127.0.0.1:10027 inet n n n - - spawn user=mhandlers-user "
    "argv=/usr/lib/torva-9.0/postfix-queue 127.0.0.1 10026 before-remote\n"
    "torva_saslauthd unix y y y - 1 torva_saslauthd status=5 listen=6 dbpath=/torva/passwd.db\n";

TEST(KeptServicesTest, EntriesOfARunAndOfOtherNamesAreNotTold) {
    EXPECT_THAT(foundIn(ownEntries), IsEmpty());
    EXPECT_THAT(foundIn("127.0.0.1:10024 inet n - n - - smtpd -o content_filter=\n"), IsEmpty());
    EXPECT_THAT(foundIn("smtp inet n - n - - postscreen\n"), IsEmpty()); // replaced
}

TEST(KeptServicesTest, TlsManagerMayHaveOptions) {
    EXPECT_THAT(foundIn("tlsmgr unix - - y 1000? 1 tlsmgr -v\n"), IsEmpty());
    const auto found = foundIn("tlsmgr unix - - y 1000? 1 /bin/true\n");
    ASSERT_THAT(found, SizeIs(1));
    EXPECT_EQ(found[0].advice, "postconf -MX tlsmgr/unix; then apply, which adds the panel's");
}

TEST(KeptServicesTest, EntryOfAFilterOnThePortOfThePanelGetsAPortThatIsFree) {
    const auto found =
        foundIn("127.0.0.1:10025 inet n - n - - smtpd -o content_filter=\n"
                "localhost:10125 inet n - n - - smtpd\n10126 inet n - n - - smtpd\n");
    ASSERT_THAT(found, SizeIs(1));
    EXPECT_EQ(found[0].level, Level::warning);
    EXPECT_THAT(found[0].text, HasSubstr("runs smtpd -o content_filter=: the run keeps it; all "
                                         "mail that comes by SMTP goes there"));
    EXPECT_THAT(found[0].advice,
                HasSubstr("postconf -F 127.0.0.1:10025/inet/service=127.0.0.1:10127; "));
}

TEST(KeptServicesTest, PortOfThePanelUnderAnotherNameIsTold) {
    const struct {
        const char* name;
        const char* text;
    } rows[] = {
        {"[127.0.0.1]:", "is 127.0.0.1:10025/inet for Postfix, which starts only one of them"},
        {"localhost:", "shares its port with 127.0.0.1:10025/inet: each gets a part of what comes"},
        {"", "shares its port with 127.0.0.1:10025/inet, which gets what comes to it"},
    };
    for (const auto& row : rows) {
        const std::string host = row.name;
        const auto found = foundIn(host + "10025 inet n - n - - smtpd\n");
        ASSERT_THAT(found, SizeIs(1)) << host;
        EXPECT_EQ(found[0].text, host + "10025/inet " + row.text);
        EXPECT_THAT(found[0].advice,
                    HasSubstr("postconf -F " + host + "10025/inet/service=" + host + "10125; "));
    }
    EXPECT_THAT(foundIn("192.0.2.1:10025 inet n - n - - smtpd\n"), IsEmpty());
    EXPECT_THAT(foundIn("localhost:10024 inet n - n - - smtpd\n"), IsEmpty());
}

} // namespace
} // namespace torva::ctl
