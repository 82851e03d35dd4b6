#include "ctl/rehearsal/FindingWire.h"

#include <gtest/gtest.h>

using namespace torva::ctl::rehearsal;
using torva::ctl::Finding;
using torva::ctl::Level;

namespace {

TEST(FindingWireTest, FindingsArriveAsTheyWereSent) {
    const Received received = decode(encodeStep("one") + encode({Level::ok, "a", "b", ""}) +
                                     encodeStep("two") + encode({Level::warning, "c", "d\n", "e"}));
    EXPECT_EQ(received.step, "two");
    ASSERT_EQ(received.findings.size(), 2U);
    EXPECT_EQ(received.findings[0].level, Level::ok);
    EXPECT_EQ(received.findings[0].advice, "");
    EXPECT_EQ(received.findings[1].level, Level::warning);
    EXPECT_EQ(received.findings[1].subject, "c");
    EXPECT_EQ(received.findings[1].text, "d\n");
    EXPECT_EQ(received.findings[1].advice, "e");
}

TEST(FindingWireTest, EveryLevelTravels) {
    for (const Level level : {Level::ok, Level::warning, Level::stop, Level::done, Level::failed}) {
        EXPECT_EQ(decode(encode({level, "a", "b", "c"})).findings.at(0).level, level);
    }
}

TEST(FindingWireTest, RecordThatIsCutOffIsLeftOut) {
    const std::string record = encode({Level::ok, "a", "b", "c"});
    for (std::size_t size = 0; size < record.size(); ++size) {
        EXPECT_TRUE(decode(record.substr(0, size)).findings.empty()) << size;
    }
    EXPECT_EQ(decode(record + record.substr(0, 5)).findings.size(), 1U);
}

TEST(FindingWireTest, NullByteInATextDoesNotShiftTheNext) {
    const Received received = decode(encode({Level::ok, "a", std::string("x\0y", 3), "c"}));
    EXPECT_EQ(received.findings.at(0).text, "x y");
    EXPECT_EQ(received.findings.at(0).advice, "c");
}

} // namespace
