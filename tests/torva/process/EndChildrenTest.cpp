#include "torva/process/EndChildren.h"

#include "ProcessFixture.h"
#include "torva/process/Launch.h"
#include "torva/process/ProcessSetCatcher.h"
#include "torva/process/SignalGuards.h"

#include <csignal>
#include <ctime>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::process {
namespace {

using namespace testing;
using std::chrono::milliseconds;

class EndChildrenTest : public ProcessTest {};

// Starts a script that reports when it is ready, and adds it to the set.
LaunchResult startScript(ProcessSet& children, const std::string& script) {
    LaunchRequest request;
    request.program = "/bin/sh";
    request.arguments = {"sh", "-c", script};
    request.input.kind = ChildStream::Kind::newPipe;
    request.output.kind = ChildStream::Kind::newPipe;
    LaunchResult child = launch(request);
    children.add(child.pid);
    char ready = 0;
    EXPECT_EQ(1, ::read(child.output.get(), &ready, 1));
    return child;
}

TEST_F(EndChildrenTest, ChildThatEndsByItselfIsLeftToDoSo) {
    ProcessSet children(1);
    const SigchldBlock sigchld;
    LaunchResult child =
        startScript(children, "trap 'exit 1' TERM; echo; cat >/dev/null; sleep 0.1; exit 7");
    child.input.release();
    endChildren(children, milliseconds(10000));
    EXPECT_EQ(0u, children.running());
    EXPECT_EQ(7, WEXITSTATUS(children.status(child.pid)));
}

TEST_F(EndChildrenTest, ChildThatDoesNotIsTerminated) {
    ProcessSet children(1);
    const SigchldBlock sigchld;
    const LaunchResult child = startScript(children, "echo; exec sleep 1000");
    endChildren(children, milliseconds(20));
    EXPECT_EQ(SIGTERM, WTERMSIG(children.status(child.pid)));
}

TEST_F(EndChildrenTest, ChildThatIgnoresSigtermIsKilled) {
    ProcessSet children(1);
    const SigchldBlock sigchld;
    const LaunchResult child = startScript(children, "trap '' TERM; echo; exec sleep 1000");
    endChildren(children, milliseconds(20));
    EXPECT_EQ(SIGKILL, WTERMSIG(children.status(child.pid)));
}

TEST_F(EndChildrenTest, WaitingTakesNoProcessorTime) {
    ProcessSet children(1);
    const SigchldBlock sigchld;
    const LaunchResult child = startScript(children, "trap '' TERM; echo; exec sleep 1000");
    const std::clock_t before = std::clock();
    endChildren(children, milliseconds(400));
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 5);
    EXPECT_EQ(SIGKILL, WTERMSIG(children.status(child.pid)));
}

TEST_F(EndChildrenTest, StoppedChildIsKilled) {
    ProcessSet children(1);
    const SigchldBlock sigchld;
    const LaunchResult child = startScript(children, "echo; kill -STOP $$; exec sleep 1000");
    endChildren(children, milliseconds(20));
    EXPECT_EQ(SIGKILL, WTERMSIG(children.status(child.pid)));
}

TEST_F(EndChildrenTest, EveryChildOfTheSetEnds) {
    ProcessSet children(3);
    const SigchldBlock sigchld;
    std::vector<LaunchResult> started;
    started.push_back(startScript(children, "echo; exit 7"));
    started.push_back(startScript(children, "echo; exec sleep 1000"));
    started.push_back(startScript(children, "trap '' TERM; echo; exec sleep 1000"));
    endChildren(children, milliseconds(100));
    EXPECT_EQ(7, WEXITSTATUS(children.status(started[0].pid)));
    EXPECT_EQ(SIGTERM, WTERMSIG(children.status(started[1].pid)));
    EXPECT_EQ(SIGKILL, WTERMSIG(children.status(started[2].pid)));
}

TEST_F(EndChildrenTest, ChildReapedElsewhereIsNotWaitedForForEver) {
    ProcessSet children(1);
    const SigchldBlock sigchld;
    const LaunchResult child = startScript(children, "echo; exit 7");
    waitForExit(child.pid);
    endChildren(children, milliseconds(10000));
    EXPECT_EQ(0u, children.running());
    EXPECT_EQ(0, children.status(child.pid));
}

TEST_F(EndChildrenTest, ChildrenOutsideTheSetAreLeftAlone) {
    ProcessSet children(1);
    const SigchldBlock sigchld;
    ProcessSet others(1);
    const LaunchResult other = startScript(others, "echo; exit 9");
    siginfo_t info = {};
    ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(other.pid), &info, WEXITED | WNOWAIT));
    startScript(children, "echo; exit 7");
    endChildren(children, milliseconds(10000));
    EXPECT_EQ(9, WEXITSTATUS(waitForExit(other.pid)));
}

} // namespace
} // namespace torva::process
