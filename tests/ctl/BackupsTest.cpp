#include "ctl/backup/Backups.h"

#include <gtest/gtest.h>

namespace torva::ctl {
namespace {

constexpr std::time_t testTime = 1'800'000'000; ///< 20270115T080000Z

struct StampCase {
    std::vector<std::string> names;
    std::string stamp;
};

TEST(BackupsTest, NewStampIsLaterThanAllThatAreThere) {
    const StampCase cases[] = {
        {{}, "20270115T080000Z"},
        {{"20270115T075959Z"}, "20270115T080000Z"},
        {{"20270115T080000Z"}, "20270115T080001Z"},
        {{"20280115T080000Z", "20260115T080000Z"}, "20280115T080001Z"},
        {{"20280115T080059Z"}, "20280115T080100Z"},
        {{"20280115T085959Z"}, "20280115T090000Z"},
        {{"20280228T235959Z"}, "20280229T000000Z"},
        {{"20281231T235959Z"}, "20290101T000000Z"},
        // No stamps, no dates, and the last of all dates.
        {{"unfinished", ".partial", "2028"}, "20270115T080000Z"},
        {{"99999999T999999Z", "20280230T000000Z", "20280101T000060Z"}, "20270115T080000Z"},
        {{"99991231T235959Z"}, "20270115T080000Z"},
    };
    for (const StampCase& one : cases) {
        EXPECT_EQ(stampAfter(one.names, testTime), one.stamp);
    }
}

} // namespace
} // namespace torva::ctl
