// The shared instance, and how it finds master.cf: a script instead of
// postconf gives the directory.
#include "torva/postfix/mastercf/MasterCf.h"

#include "Sandboxed.h"
#include "support/FakeTool.h"
#include "torva/util/PostfixError.h"

#include <gmock/gmock.h>

namespace torva::mail::postfix::testing {
namespace {

using torva::test::FakeTool;

constexpr const char* postconf = "/usr/sbin/postconf";

class MasterCfInstanceSandboxTest : public SandboxedTest {};

TEST_F(MasterCfInstanceSandboxTest, PathIsTheAnswerOfPostfixAndMasterCf) {
    const FakeTool tool(postconf, "echo /somewhere/postfix");
    EXPECT_EQ(MasterCf::masterCfPath(), "/somewhere/postfix/master.cf");
    EXPECT_EQ(tool.calls().back(), "[-h][config_directory]");
}

TEST_F(MasterCfInstanceSandboxTest, AnswerIsUsedAsItComes) {
    const FakeTool tool(postconf, "echo /somewhere//");
    EXPECT_EQ(MasterCf::masterCfPath(), "/somewhere///master.cf");
}

// One test for its life: what is made once per process can be seen being made once.
TEST_F(MasterCfInstanceSandboxTest, InstanceIsMadeByTheFirstCallThatSucceedsAndAsksNeverAgain) {
    {
        const FakeTool tool(postconf, "echo /etc/postfix");
        // The instance of the parameters has its own call.
        EXPECT_EQ(MasterCf::masterCfPath(), "/etc/postfix/master.cf");
    }
    {
        const FakeTool tool(postconf, "echo");
        EXPECT_EQ(messageOf<PostfixConfigurationError>([] { MasterCf::instance(); }),
                  "unable to determine Postfix config_directory parameter");
    }
    {
        const FakeTool tool(postconf, "echo 'postconf: fatal: no way' >&2; exit 1");
        EXPECT_EQ(messageOf<PostfixConfigurationError>([] { MasterCf::instance(); }),
                  "postconf: fatal: no way\n");
    }
    const FakeTool tool(postconf, "echo '" + directory_.path() + "'");
    MasterCf& instance = MasterCf::instance();
    EXPECT_EQ(instance.path(), path_);
    EXPECT_EQ(messageOf<std::logic_error>([&] { instance.save(true); }),
              "modules configuration isn't loaded yet");
    EXPECT_EQ(&MasterCf::instance(), &instance);
    EXPECT_THAT(tool.calls(), ::testing::ElementsAre("[-h][config_directory]"));
}

} // namespace
} // namespace torva::mail::postfix::testing
