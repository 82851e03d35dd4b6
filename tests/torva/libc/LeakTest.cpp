// The plain functions free memory by hand: nothing must stay allocated.
#include "support/AllocationFaults.h"
#include "support/HeapCensus.h"
#include "torva/libc/Child.h"
#include "torva/libc/interfaces.h"
#include "torva/libc/log.h"
#include "torva/libc/panel_conf_parse.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

using torva::test::blocksLeftBy;
using torva::test::inChild;

namespace {

void silent(int /*priority*/, const char* /*format*/, ...) {}

class LeakTest : public testing::Test {
protected:
    void SetUp() override {
        if (TORVA_TEST_ASAN != 0) {
            GTEST_SKIP() << "the sanitizer's allocator keeps no books of this kind";
        }
    }
};

} // namespace

TEST_F(LeakTest, TheCensusCounts) {
    std::vector<std::unique_ptr<char[]>> kept;
    kept.reserve(1000);
    EXPECT_EQ(blocksLeftBy([&kept] { kept.push_back(std::make_unique<char[]>(100)); }), 1);
    EXPECT_EQ(blocksLeftBy([] { std::make_unique<char[]>(100); }), 0);
}

TEST_F(LeakTest, AConfigurationThatIsFreedLeavesNothing) {
    std::string text = "A first\n# comment\nmalformed+\nB second\nA third\n";
    for (int i = 0; i < 50; ++i) {
        text += "NAME" + std::to_string(i) + " a value of some length\n";
    }
    const auto usual = torva_log;
    torva_log = silent;
    EXPECT_EQ(blocksLeftBy([&text] {
                  std::FILE* stream = ::fmemopen(text.data(), text.size(), "r");
                  panel_conf_free(panel_conf_parse(stream));
                  std::fclose(stream);
              }),
              0);
    torva_log = usual;
}

TEST_F(LeakTest, ANameThatIsSetAgainLeavesNothingOfItsOldValue) {
    panel_conf_file* file = panel_conf_new();
    const std::string value(200, 'x');
    EXPECT_EQ(blocksLeftBy([&] { panel_conf_put(file, "A", 1, value.data(), value.size()); }), 0);
    panel_conf_free(file);
}

TEST_F(LeakTest, MemoryThatRunsOutLeavesNothingOfWhatWasTakenBefore) {
    const auto usual = torva_log;
    torva_log = silent;
    const std::string name(400, 'n');
    const std::string value(200, 'v');
    panel_conf_file* file = panel_conf_new();
    EXPECT_EQ(blocksLeftBy([&] {
                  const torva::test::AllocationFaults no_copy_of_the_name(401, 401);
                  panel_conf_put(file, name.data(), name.size(), value.data(), value.size());
              }),
              0);
    EXPECT_EQ(file->count, 0U);
    panel_conf_free(file);
    EXPECT_EQ(blocksLeftBy([] {
                  const std::size_t pairs = 20 * sizeof(panel_conf_pair);
                  const torva::test::AllocationFaults no_pairs(pairs, pairs);
                  panel_conf_free(panel_conf_new());
              }),
              0);
    std::string text = name + " " + value + "\n";
    EXPECT_EQ(blocksLeftBy([&] {
                  const torva::test::AllocationFaults no_copy_of_the_name(401, 401);
                  std::FILE* stream = ::fmemopen(text.data(), text.size(), "r");
                  EXPECT_EQ(panel_conf_parse(stream), nullptr);
                  std::fclose(stream);
              }),
              0);
    torva_log = usual;
}

TEST_F(LeakTest, MessagesLeaveNothing) {
    const auto outcome = inChild([] {
        const std::string text(500, 'x');
        const long logged = blocksLeftBy([&text] { torva_log(3, "%s", text.c_str()); });
        const long reported = blocksLeftBy([&text] { report_error(0, "%s", text.c_str()); });
        return (logged != 0 ? 1 : 0) + (reported != 0 ? 2 : 0);
    });
    EXPECT_EQ(outcome.exited, 0);
}

TEST_F(LeakTest, AListOfInterfacesThatIsFreedLeavesNothing) {
    EXPECT_EQ(blocksLeftBy([] { free_interfaces(list_interfaces(nullptr)); }), 0);
}
