#include "torva/postfix/mastercf/MasterCfLines.h"

#include "AllocationLimit.h"
#include "Support.h"

#include <gmock/gmock.h>

namespace torva::mail::postfix::testing {
namespace {

using ::testing::ElementsAre;

static_assert(!std::is_copy_constructible_v<MasterCfLines>);
static_assert(!std::is_copy_assignable_v<MasterCfLines>);

MasterCfModule service(const std::string& name, ModuleType type, std::int32_t maxproc = -1) {
    MasterCfModule record;
    record.name = name;
    record.type = type;
    record.maxproc = maxproc;
    return record;
}

const MasterCfLines::Key smtpInet("smtp", ModuleType::inet);
const MasterCfLines::Key smtpUnix("smtp", ModuleType::unix);

TEST(MasterCfLinesTest, ANewServiceBecomesTheLastLine) {
    MasterCfLines lines;
    lines.append("# comment");
    lines.set(service("smtp", ModuleType::inet), "smtp text");
    EXPECT_THAT(linesOf(lines), ElementsAre("# comment", "smtp text"));
    EXPECT_TRUE(lines.contains(smtpInet));
}

TEST(MasterCfLinesTest, AKnownServiceIsReplacedInItsPlace) {
    MasterCfLines lines;
    lines.set(service("smtp", ModuleType::inet, 1), "old");
    lines.append("");
    lines.set(service("smtp", ModuleType::inet, 2), "new");
    EXPECT_THAT(linesOf(lines), ElementsAre("new", ""));
    EXPECT_EQ(lines.text(smtpInet), "new");
    EXPECT_EQ(lines.record(smtpInet).maxproc, 2);
}

TEST(MasterCfLinesTest, TheTypeIsPartOfTheKey) {
    MasterCfLines lines;
    lines.set(service("smtp", ModuleType::inet, 1), "inet");
    lines.set(service("smtp", ModuleType::unix, 2), "unix");
    EXPECT_THAT(linesOf(lines), ElementsAre("inet", "unix"));
    EXPECT_EQ(lines.get(smtpInet).text, "inet");
    EXPECT_EQ(lines.get(smtpUnix).record.maxproc, 2);
    EXPECT_FALSE(lines.contains({"smtp", ModuleType::fifo}));
}

TEST(MasterCfLinesTest, RemovalTakesLineAndServiceAndAnswersWhetherThereWasOne) {
    MasterCfLines lines;
    lines.append("# first");
    lines.set(service("smtp", ModuleType::inet), "inet");
    lines.set(service("smtp", ModuleType::unix), "unix");
    lines.append("# last");
    EXPECT_TRUE(lines.remove(smtpInet));
    EXPECT_FALSE(lines.remove(smtpInet));
    EXPECT_FALSE(lines.contains(smtpInet));
    EXPECT_THAT(linesOf(lines), ElementsAre("# first", "unix", "# last"));
}

TEST(MasterCfLinesTest, ARemovedServiceComesBackAtTheEnd) {
    MasterCfLines lines;
    lines.set(service("smtp", ModuleType::inet), "inet");
    lines.append("# last");
    lines.remove(smtpInet);
    lines.set(service("smtp", ModuleType::inet), "again");
    EXPECT_THAT(linesOf(lines), ElementsAre("# last", "again"));
}

TEST(MasterCfLinesTest, CommentsAndEmptyLinesAreNoServices) {
    MasterCfLines lines;
    lines.append("smtp inet n - n - - smtpd");
    lines.append("");
    EXPECT_FALSE(lines.contains(smtpInet));
    EXPECT_FALSE(lines.contains({"", ModuleType::inet}));
}

TEST(MasterCfLinesTest, WhatIsNotThereCannotBeHad) {
    const MasterCfLines lines;
    EXPECT_THROW(lines.get(smtpInet), std::out_of_range);
    EXPECT_THROW(lines.record(smtpInet), std::out_of_range);
    EXPECT_THROW(lines.text(smtpInet), std::out_of_range);
}

TEST(MasterCfLinesTest, AServiceMayBeSetFromItsOwnRecordAndText) {
    MasterCfLines lines;
    lines.set(service("a-name-that-is-too-long-for-a-short-string", ModuleType::inet, 7), "text");
    const MasterCfLines::Key key("a-name-that-is-too-long-for-a-short-string", ModuleType::inet);
    lines.set(lines.record(key), lines.text(key));
    EXPECT_THAT(linesOf(lines), ElementsAre("text"));
    EXPECT_EQ(lines.record(key).maxproc, 7);
}

TEST(MasterCfLinesTest, MemoryThatRunsOutChangesNothing) {
    const std::string text(100, 't');
    MasterCfModule known = service(std::string(50, 'k'), ModuleType::inet, 1);
    known.words = {std::string(50, 'w'), std::string(50, 'x')};
    MasterCfModule fresh = known;
    fresh.name = std::string(50, 'n');
    MasterCfLines lines;
    lines.append("# first");
    lines.set(known, "known");
    known.maxproc = 2;

    EXPECT_GT(
        failEachAllocation([&] { lines.append(text); },
                           [&] { EXPECT_THAT(linesOf(lines), ElementsAre("# first", "known")); }),
        0);
    EXPECT_GT(failEachAllocation([&] { lines.set(fresh, text); },
                                 [&] {
                                     EXPECT_EQ(lines.lines().size(), 3U);
                                     EXPECT_FALSE(lines.contains(MasterCfLines::keyOf(fresh)));
                                 }),
              0);
    EXPECT_GT(failEachAllocation([&] { lines.set(known, text); },
                                 [&] {
                                     EXPECT_EQ(lines.text(MasterCfLines::keyOf(known)), "known");
                                     EXPECT_EQ(lines.record(MasterCfLines::keyOf(known)).maxproc,
                                               1);
                                 }),
              0);
    EXPECT_THAT(linesOf(lines), ElementsAre("# first", text, text, text));
}

} // namespace
} // namespace torva::mail::postfix::testing
