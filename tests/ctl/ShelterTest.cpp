#include "ctl/host/Shelter.h"

#include "torva/postfix/mastercf/MasterCfDiagnosis.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

namespace torva::ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string good = "cleanup unix n - y - 0 cleanup\n";
const std::string odd = "[::1]:25 inet n - y - - smtpd\n# between\n  -o a=b # c\n\n";

std::string roundTrip(const std::string& text) {
    const Sheltered sheltered = shelter(text);
    std::vector<std::string> replaced;
    return unshelter(sheltered.text, sheltered, replaced);
}

TEST(ShelterTest, TextThatTheGrammarTakesStaysAsItIs) {
    const Sheltered sheltered = shelter(good + "# c\n" + good);
    EXPECT_THAT(sheltered.keys, IsEmpty());
    EXPECT_EQ(sheltered.text, good + "# c\n" + good);
}

TEST(ShelterTest, GrammarTakesTheShelteredText) {
    const Sheltered sheltered = shelter(good + odd + good + "a pass - - y - - smtpd");
    EXPECT_THAT(sheltered.keys, ElementsAre("[::1]:25/inet", "a/pass"));
    EXPECT_EQ(sheltered.refusal, "");
    EXPECT_FALSE(mail::postfix::diagnoseMasterCf(sheltered.text));
    EXPECT_THAT(sheltered.text, HasSubstr("\n# between\n"));
}

TEST(ShelterTest, EveryByteComesBack) {
    for (const std::string& text :
         {odd, good + odd, odd + good, odd + odd, good + "A unix - - - - - b",
          std::string("a unix - - - - - \xc3\xa9\r\n"),
          odd + "#sheltered by torva-postfixctl: x\n"}) {
        EXPECT_EQ(roundTrip(text), text);
    }
}

std::string manyServices(int number) {
    std::string text;
    for (int index = 0; index < number; ++index) {
        text += "svc" + std::to_string(index) + " unix - - y - - smtp\n  -o a=b\n";
    }
    return text;
}

TEST(ShelterTest, SecondEntryThatWasThereBeforeTheRunIsNotTakenForAnAddedOne) {
    const std::string text = "127.0.0.1:10026 inet n - n - 5 smtpd\n"
                             "127.0.0.1:10026 inet n - n - 7 smtpd # mine\n";
    EXPECT_EQ(roundTrip(text), text);
}

TEST(ShelterTest, UpTo250ServicesAreAllInvolved) {
    EXPECT_FALSE(uninvolvedServices(manyServices(250), ""));
    EXPECT_TRUE(uninvolvedServices(manyServices(251), ""));
}

TEST(ShelterTest, OfManyServicesOnlyThoseOfTheRunAndOfASettingAreInvolved) {
    const std::string involved = "smtp inet n - y - - smtpd\n"
                                 "relay unix - - y - - smtp\n"
                                 "one unix - - y - - smtp\n  -o x=a,$mine\n"
                                 "two unix - - y - - smtp -o x=${mine}\n"
                                 "three unix - - y - - smtp -o x=$(mine)\n";
    const std::string alone = "relays unix - - y - - smtp -o x=$service_name\n";
    const std::string text = involved + manyServices(251) + odd + alone;
    const Sheltered sheltered =
        shelter(text, uninvolvedServices(text, "mine=x\nrelay_time_limit\t= 1,\n svc1_x = y\n"));
    std::string remaining;
    const MasterCfText forTheRun(sheltered.text);
    for (const MasterCfTextEntry& entry : forTheRun.entries()) {
        remaining += forTheRun.textOf(entry);
    }
    EXPECT_EQ(remaining, involved);
    EXPECT_THAT(sheltered.keys, ElementsAre("[::1]:25/inet"));
    std::vector<std::string> replaced;
    EXPECT_EQ(unshelter(sheltered.text, sheltered, replaced), text);
}

TEST(ShelterTest, ServicesThatAreMeantAreCommentsWithoutAMark) {
    const auto isCleanup = [](const MasterCfTextEntry& entry, const std::string& text) {
        return entry.name() == "cleanup" && text == good;
    };
    EXPECT_EQ(withoutServices(odd + good + odd, isCleanup), odd + "#" + good + odd);
}

TEST(ShelterTest, LineThatIsGoneIsTold) {
    Sheltered sheltered = shelter(good + odd);
    std::vector<std::string> replaced;
    EXPECT_THROW(unshelter(good, sheltered, replaced), std::runtime_error);
    EXPECT_THROW(unshelter(sheltered.text + sheltered.text, sheltered, replaced),
                 std::runtime_error);
}

TEST(ShelterTest, EntryThatTheRunReplacesStaysAComment) {
    const std::string old = "smtp inet n - y - - smtpd # mine\n";
    const std::string fresh = "smtp inet n - - - - smtpd -o x=y\n";
    const Sheltered sheltered = shelter(old + good);
    std::vector<std::string> replaced;
    EXPECT_EQ(unshelter(sheltered.text + fresh, sheltered, replaced), "#" + old + good + fresh);
    EXPECT_THAT(replaced, ElementsAre("smtp/inet"));
}

TEST(ShelterTest, EntryThatTheRunOnlyAddsGivesWayToTheOldOne) {
    const std::string old = "tlsmgr unix - - y 1000? 1 tlsmgr # mine\n";
    const Sheltered sheltered = shelter(old + good);
    std::vector<std::string> replaced;
    EXPECT_EQ(unshelter(sheltered.text + "tlsmgr unix - - n 1000? 1 tlsmgr\n", sheltered, replaced),
              old + good);
    EXPECT_THAT(replaced, IsEmpty());
}

TEST(ShelterTest, ContinuationOfNothingIsShelteredToo) {
    EXPECT_EQ(roundTrip("  -o a=b\n" + good), "  -o a=b\n" + good);
}

} // namespace
} // namespace torva::ctl
