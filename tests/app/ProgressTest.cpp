#include "app/Progress.h"
#include "support/CapturedClog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

using torva::app::Progress;

namespace {

class ProgressTest : public testing::Test {
protected:
    torva::test::CapturedClog log_;
};

TEST_F(ProgressTest, FinishedStepReadsDone) {
    const Progress progress(true);
    progress.header("Header:");
    progress.step(" enabling", [&] { EXPECT_EQ(log_.str(), "Header:\n enabling..."); });
    EXPECT_EQ(log_.str(), "Header:\n enabling...done\n");
}

TEST_F(ProgressTest, FailingStepLeavesItsLineUnfinished) {
    EXPECT_THROW(Progress(true).step(" failing", [] { throw std::runtime_error("x"); }),
                 std::runtime_error);
    EXPECT_EQ(log_.str(), " failing...");
}

TEST_F(ProgressTest, StepWithoutTextIsSilent) {
    bool ran = false;
    Progress(true).step(nullptr, [&] { ran = true; });
    EXPECT_TRUE(ran);
    EXPECT_EQ(log_.str(), "");
}

TEST_F(ProgressTest, SwitchedOffItIsSilentAndTheStepsRun) {
    const Progress progress(false);
    bool ran = false;
    progress.header("Header:");
    progress.step(" step", [&] { ran = true; });
    EXPECT_TRUE(ran);
    EXPECT_EQ(log_.str(), "");
}

struct ProgressCase {
    const char* name;
    const char* value; ///< null: not set
    bool wanted;
};

void PrintTo(const ProgressCase& tested, std::ostream* out) {
    *out << tested.name;
}

class ProgressSwitchTest : public testing::TestWithParam<ProgressCase> {};

TEST_P(ProgressSwitchTest, FollowsTheEnvironment) {
    if (GetParam().value == nullptr) {
        ::unsetenv("TORVA_INSTALLER_DEBUG");
    } else {
        ::setenv("TORVA_INSTALLER_DEBUG", GetParam().value, 1);
    }
    EXPECT_EQ(Progress::wanted(), GetParam().wanted);
    ::unsetenv("TORVA_INSTALLER_DEBUG");
}

INSTANTIATE_TEST_SUITE_P(
    Values, ProgressSwitchTest,
    testing::Values(ProgressCase{"Unset", nullptr, false}, ProgressCase{"Zero", "0", false},
                    ProgressCase{"One", "1", true}, ProgressCase{"Empty", "", true},
                    ProgressCase{"TwoZeros", "00", true}, ProgressCase{"ZeroAndBlank", "0 ", true}),
    [](const auto& tested) { return std::string(tested.param.name); });

} // namespace
