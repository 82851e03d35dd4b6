#include "torva/postfix/params/PostfixTool.h"

#include "torva/util/SystemError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <sys/wait.h>

using namespace torva::mail::postfix;

namespace {

ToolResult shell(const std::string& script) {
    return runTool({"/bin/sh", "-c", script});
}

} // namespace

TEST(ToolResultTest, OnlyAnExitWithStatusZeroIsASuccess) {
    EXPECT_TRUE(shell("exit 0").succeeded());
    EXPECT_FALSE(shell("exit 1").succeeded());
    EXPECT_FALSE(shell("exit 255").succeeded());
    EXPECT_FALSE(shell("kill -TERM $$").succeeded());
}

TEST(ToolResultTest, OnlyTheEndByASignalIsOne) {
    const ToolResult killed = shell("kill -TERM $$");
    EXPECT_TRUE(killed.signaled());
    EXPECT_EQ(WTERMSIG(killed.status), SIGTERM);
    EXPECT_FALSE(shell("exit 0").signaled());
    EXPECT_FALSE(shell("exit 143").signaled());
}

TEST(ToolResultTest, TheMessageIsStandardErrorAsItIsOrSaysThatThereIsNone) {
    EXPECT_EQ(shell("echo out; printf ' a\\n\\n' >&2").message(), " a\n\n");
    EXPECT_EQ(shell("echo out; exit 1").message(), "unknown error");
}

TEST(RunToolTest, StatusAndBothTextsAreThere) {
    const ToolResult result = shell("echo out; echo err >&2; exit 3");
    EXPECT_EQ(WEXITSTATUS(result.status), 3);
    EXPECT_FALSE(result.succeeded());
    EXPECT_FALSE(result.signaled());
    EXPECT_EQ(result.output, "out\n");
    EXPECT_EQ(result.message(), "err\n");
}

TEST(RunToolTest, EachArgumentArrivesAsItIs) {
    EXPECT_EQ(runTool({"/bin/sh", "-c", "printf '[%s]' \"$@\"", "sh", "a b", "", "$HOME;x"}).output,
              "[a b][][$HOME;x]");
}

TEST(RunToolTest, WithoutInputStandardInputEndsAtOnce) {
    EXPECT_EQ(shell("wc -c").output, "0\n");
}

TEST(RunToolTest, InputArrivesWhole) {
    int chunks = 0;
    const ToolResult result = runTool({"/bin/cat"}, [&chunks](std::vector<char>& chunk) {
        chunk.assign(3, static_cast<char>('a' + chunks));
        return ++chunks < 3;
    });
    EXPECT_EQ(result.output, "aaabbbccc");
}

TEST(RunToolTest, AConsumerTakesStandardOutputAndTheResultHasNone) {
    std::string taken;
    const ToolResult result = runTool(
        {"/bin/sh", "-c", "echo out; echo err >&2"}, torva::process::InputProducer(),
        [&taken](const std::vector<char>& chunk) { taken.append(chunk.begin(), chunk.end()); });
    EXPECT_EQ(taken, "out\n");
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.error, "err\n");
}

TEST(RunToolTest, AToolThatCannotBeStartedIsAnErrorOfTheSystem) {
    try {
        runTool({"/nowhere/tool"});
        FAIL() << "no exception";
    } catch (const torva::SystemError& error) {
        EXPECT_EQ(error.code(), ENOENT);
    }
}

TEST(RunToolTest, TheSearchPathIsNotAsked) {
    EXPECT_THROW(runTool({"sh", "-c", "exit 0"}), torva::SystemError);
}

TEST(RunToolTest, AToolThatExitsZeroWithoutItsInputIsAnErrorOfTheSystem) {
    const auto endless = [](std::vector<char>& chunk) {
        chunk.assign(4096, 'x');
        return true;
    };
    EXPECT_THROW(runTool({"/bin/sh", "-c", "exec <&-; exit 0"}, endless), torva::SystemError);
    EXPECT_EQ(WEXITSTATUS(runTool({"/bin/sh", "-c", "exec <&-; exit 3"}, endless).status), 3);
}

TEST(RunToolTest, BesideAnotherOneItIsRefused) {
    bool refused = false;
    runTool({"/bin/sh", "-c", "echo"}, torva::process::InputProducer(),
            [&refused](const std::vector<char>&) {
                try {
                    shell("exit 0");
                } catch (const std::logic_error&) {
                    refused = true;
                }
            });
    EXPECT_TRUE(refused);
}
