#include "torva/postfix/mastercf/MasterCfModule.h"

#include <gtest/gtest.h>

#include <limits>

namespace torva::mail::postfix {
namespace {

using boost::logic::indeterminate;

MasterCfModule smtp() {
    MasterCfModule record;
    record.name = "smtp";
    record.private_ = false;
    record.chroot = false;
    record.words = {"smtpd", "-o", "smtpd_sasl_auth_enable=yes"};
    return record;
}

TEST(MasterCfModuleTest, BeginsWithTheDefaults) {
    const MasterCfModule record;
    EXPECT_EQ(record.name, "");
    EXPECT_EQ(record.type, ModuleType::inet);
    EXPECT_TRUE(indeterminate(record.private_));
    EXPECT_TRUE(indeterminate(record.unpriv));
    EXPECT_TRUE(indeterminate(record.chroot));
    EXPECT_EQ(record.wakeup, -1);
    EXPECT_FALSE(record.wakeupConditional);
    EXPECT_EQ(record.maxproc, -1);
    EXPECT_TRUE(record.words.empty());
}

TEST(MasterCfModuleTest, TypesHaveTheirValues) {
    EXPECT_EQ(static_cast<int>(ModuleType::inet), 0);
    EXPECT_EQ(static_cast<int>(ModuleType::unix), 1);
    EXPECT_EQ(static_cast<int>(ModuleType::fifo), 2);
}

TEST(FormatModuleTest, FieldsHaveOneSpaceBetweenThemAndNothingBehind) {
    EXPECT_EQ(formatModule(smtp()), "smtp inet n - n - - smtpd -o smtpd_sasl_auth_enable=yes");
}

TEST(FormatModuleTest, EveryTypeHasItsSpellingAndUnknownOnesAreFifo) {
    MasterCfModule record;
    record.name = "x";
    const char* const wanted[] = {"x inet - - - - -", "x unix - - - - -", "x fifo - - - - -",
                                  "x fifo - - - - -"};
    for (int value = 0; value < 4; ++value) {
        record.type = static_cast<ModuleType>(value);
        EXPECT_EQ(formatModule(record), wanted[value]);
    }
    record.type = static_cast<ModuleType>(-1);
    EXPECT_EQ(formatModule(record), "x fifo - - - - -");
}

TEST(FormatModuleTest, EveryFlagHasThreeStatesOfItsOwn) {
    MasterCfModule record;
    record.private_ = true;
    EXPECT_EQ(formatModule(record), " inet y - - - -");
    record.unpriv = false;
    EXPECT_EQ(formatModule(record), " inet y n - - -");
    record.chroot = true;
    EXPECT_EQ(formatModule(record), " inet y n y - -");
    record.private_ = indeterminate;
    EXPECT_EQ(formatModule(record), " inet - n y - -");
}

TEST(FormatModuleTest, NumbersAreDecimalAndMinusOneIsADash) {
    MasterCfModule record;
    record.wakeup = 0;
    record.maxproc = 0;
    EXPECT_EQ(formatModule(record), " inet - - - 0 0");
    record.wakeup = std::numeric_limits<std::int32_t>::max();
    record.maxproc = 1;
    EXPECT_EQ(formatModule(record), " inet - - - 2147483647 1");
    record.wakeup = -1;
    record.maxproc = std::numeric_limits<std::int32_t>::min();
    EXPECT_EQ(formatModule(record), " inet - - - - -2147483648");
}

TEST(FormatModuleTest, AConditionalWakeupCarriesAQuestionMark) {
    MasterCfModule record;
    record.wakeup = 1000;
    record.wakeupConditional = true;
    record.maxproc = 1;
    EXPECT_EQ(formatModule(record), " inet - - - 1000? 1");
}

TEST(FormatModuleTest, ADashCarriesNoQuestionMark) {
    MasterCfModule record;
    record.wakeupConditional = true;
    EXPECT_EQ(formatModule(record), " inet - - - - -");
}

TEST(FormatModuleTest, WordsAreWrittenWithTheBlanksWithinThem) {
    MasterCfModule record = smtp();
    record.words = {"smtpd", " -o smtpd_helo_restrictions=", ""};
    EXPECT_EQ(formatModule(record), "smtp inet n - n - - smtpd  -o smtpd_helo_restrictions= ");
}

} // namespace
} // namespace torva::mail::postfix
