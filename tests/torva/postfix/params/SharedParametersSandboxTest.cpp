// What PostfixParameters remembers, and what it does not change in main.cf.
#include "support/FakeTool.h"
#include "torva/postfix/params/PostfixParameters.h"
#include "torva/util/PostfixError.h"

#include <gmock/gmock.h>

#include <ctime>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace torva::mail::postfix;
using testing::ElementsAre;
using torva::test::FakeTool;

namespace {

const char sharedPostconf[] = "/usr/sbin/postconf";
const char mainCf[] = "/etc/postfix/main.cf";

/// Works as an exit status for the child that this runs in.
int firstCallFailsAndSecondSucceeds() {
    {
        const FakeTool broken(sharedPostconf, "exit 1");
        try {
            PostfixParameters::instance();
            return 1;
        } catch (const PostfixConfigurationError&) {
        }
    }
    const FakeTool fake(sharedPostconf, "echo /etc/postfix");
    const PostfixParameters& made = PostfixParameters::instance();
    const bool shared = &made == &PostfixParameters::instance();
    return shared && made.path() == mainCf && fake.calls().size() == 1 ? 0 : 2;
}

} // namespace

TEST(SharedParametersTest, AFailingFirstCallIsTriedAgainByTheNextAndThenThePathIsKnown) {
    // A new process, so that no other test has created the instance.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(::_exit(firstCallFailsAndSecondSucceeds()), testing::ExitedWithCode(0), "");
}

TEST(SharedParametersTest, ThePathIsThatOfTheMomentWhenTheObjectWasMade) {
    std::optional<FakeTool> fake(std::in_place, sharedPostconf, "echo /first");
    PostfixParameters parameters;
    fake.reset();
    fake.emplace(sharedPostconf, "echo /second");
    EXPECT_EQ(parameters.path(), "/first/main.cf");
    EXPECT_EQ(parameters.mainCfPath(), "/second/main.cf");
    EXPECT_THAT(fake->calls(), ElementsAre("[-h][config_directory]"));
}

TEST(SharedParametersTest, AValueIsAskedForEachTime) {
    const FakeTool fake(sharedPostconf, "echo /etc/postfix");
    PostfixParameters parameters;
    parameters.getParameter("relayhost");
    parameters.getParameter("relayhost");
    EXPECT_THAT(fake.calls(),
                ElementsAre("[-h][config_directory]", "[-h][relayhost]", "[-h][relayhost]"));
}

TEST(SharedParametersTest, AChangeLeavesTheAccessTimeAloneAndAFailedOneBothTimes) {
    const timespec times[2] = {{1000000000, 0}, {1000000001, 0}};
    struct stat status = {};
    const FakeTool fake(sharedPostconf,
                        "case $2 in config_directory) echo /etc/postfix;; b=*) exit 1; esac");
    PostfixParameters parameters;
    ASSERT_EQ(::utimensat(AT_FDCWD, mainCf, times, 0), 0);

    EXPECT_THROW(parameters.setParameter("b", "c"), PostfixConfigurationError);
    ASSERT_EQ(::stat(mainCf, &status), 0);
    EXPECT_EQ(status.st_mtim.tv_sec, 1000000001);

    const std::time_t begin = std::time(nullptr);
    parameters.setParameter("a", "b");
    ASSERT_EQ(::stat(mainCf, &status), 0);
    EXPECT_EQ(status.st_atim.tv_sec, 1000000000);
    // Five seconds back from some moment since then.
    EXPECT_GE(status.st_mtim.tv_sec, begin - 6);
    EXPECT_LE(status.st_mtim.tv_sec, std::time(nullptr) - 5);
}

TEST(SharedParametersTest, OnlyAListThatChangesIsWritten) {
    const FakeTool fake(sharedPostconf,
                        "case $2 in config_directory) echo /etc/postfix;; *) echo a, b c, d; esac");
    PostfixParameters parameters;
    fake.forget();
    parameters.removeFromListParameter("x", "absent");
    parameters.addRestriction("x", "b", "c");
    parameters.addToListParameter("x", "d");
    EXPECT_THAT(fake.calls(), ElementsAre("[-h][x]", "[-h][x]", "[-h][x]"));
    fake.forget();
    parameters.removeFromListParameter("x", "d");
    parameters.addRestriction("x", "c", "d");
    parameters.addToListParameter("x", "e");
    EXPECT_THAT(fake.calls(),
                ElementsAre("[-h][x]", "[-e][x=a, b, c]", "[-h][x]", "[-e][x=a, b c, d, c d]",
                            "[-h][x]", "[-e][x=a, b c, d, e]"));
}
