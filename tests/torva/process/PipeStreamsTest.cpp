// The streams of running children: feeding, collecting, closing.
#include "torva/process/Pipe.h"

#include "ProcessFixture.h"

#include <cerrno>
#include <csignal>
#include <sys/wait.h>

namespace torva::process {
namespace {

using namespace testing;

class PipeInputTest : public ProcessTest {};
class PipeOutputTest : public ProcessTest {};

TEST_F(PipeInputTest, ProducerWithNothingToGiveClosesTheInputAtOnce) {
    std::size_t calls = 0;
    std::string output;
    Pipe pipe;
    pipe.input = [&calls](std::vector<char>& buffer) {
        EXPECT_TRUE(buffer.empty());
        ++calls;
        return false;
    };
    pipe.output = into(output);
    pipe.addProcess("/bin/sh", shell("cat; echo end of file"));
    pipe.launch();
    EXPECT_EQ("end of file\n", output);
    EXPECT_EQ(1u, calls);
}

TEST_F(PipeInputTest, DataOfTheLastCallIsWrittenBeforeTheClose) {
    EXPECT_EQ("one\ntwo\nthree", runScript("cat", {"one\n", "two\n", "three"}).output);
}

TEST_F(PipeInputTest, PieceLargerThanThePipeArrivesWhole) {
    std::string large(1000000, 'x');
    large += "end";
    EXPECT_EQ(large, runScript("cat", {large}).output);
}

TEST_F(PipeInputTest, SlowReaderGetsEverything) {
    const std::string large(200000, 'x');
    const Outcome outcome =
        runScript("sleep 0.1; head -c 1000 >/dev/null; sleep 0.1; wc -c", {large, large});
    EXPECT_EQ("399000\n", outcome.output);
}

TEST_F(PipeInputTest, ProducerMayWaitForWhatTheChildSays) {
    std::string output;
    std::size_t calls = 0;
    Pipe pipe;
    pipe.input = [&](std::vector<char>& buffer) {
        ++calls;
        if (output.find("ready") == std::string::npos) {
            return true;
        }
        buffer.assign({'g', 'o', '\n'});
        return false;
    };
    pipe.output = into(output);
    pipe.addProcess("/bin/sh", shell("sleep 0.1; echo ready; cat"));
    pipe.launch();
    EXPECT_EQ("ready\ngo\n", output);
    EXPECT_LT(calls, 10u) << "the waiting was busy";
}

TEST_F(PipeInputTest, ManyLinesAreFedOneRecordAtATime) {
    const std::size_t lines = 100000;
    std::size_t given = 0;
    std::size_t largest = 0;
    std::string output;
    Pipe pipe;
    pipe.input = [&](std::vector<char>& buffer) {
        EXPECT_TRUE(buffer.empty());
        const std::string line = "key" + std::to_string(given++) + " value\n";
        buffer.insert(buffer.end(), line.begin(), line.end());
        largest = std::max(largest, buffer.capacity());
        return given < lines;
    };
    pipe.output = into(output);
    pipe.addProcess("/bin/sh", shell("wc -l; echo done"));
    pipe.launch();
    EXPECT_EQ("100000\ndone\n", output);
    EXPECT_EQ(lines, given);
    EXPECT_LE(largest, 64u) << "the buffer grew beyond one record";
}

TEST_F(PipeInputTest, ChildThatFailsWithoutReadingReportsForItself) {
    const std::string large(1000000, 'x');
    const Outcome outcome = runScript("echo 'fatal: no table' >&2; exit 1", {large, large});
    EXPECT_EQ(1, outcome.exited());
    EXPECT_EQ("fatal: no table\n", outcome.error);
}

TEST_F(PipeInputTest, ChildKilledWithoutReadingReportsForItself) {
    const std::string large(1000000, 'x');
    EXPECT_EQ(SIGTERM, runScript("kill -TERM $$", {large}).signal());
}

TEST_F(PipeInputTest, ChildThatSucceedsWithoutReadingItsInputIsAWriteError) {
    const std::string large(1000000, 'x');
    std::string output;
    Pipe pipe;
    pipe.input = pieces({large});
    pipe.output = into(output);
    pipe.addProcess("/bin/sh", shell("exec <&-; sleep 0.1; echo all the same; exit 0"));
    EXPECT_EQ(systemError("write", EPIPE), thrownBy([&] { pipe.launch(); }));
    EXPECT_EQ("all the same\n", output) << "it is served to its end first";
    EXPECT_EQ(0, pipe.status(0));
    EXPECT_GT(pipe.pid(0), 0);
}

TEST_F(PipeInputTest, ProducerIsStoppedWhenTheChildStopsReading) {
    std::size_t calls = 0;
    Pipe pipe;
    pipe.input = [&calls](std::vector<char>& buffer) {
        ++calls;
        buffer.assign(65536, 'x');
        return true; // without end
    };
    pipe.addProcess("/bin/sh", shell("head -c 200000 >/dev/null; exit 3"));
    pipe.launch();
    EXPECT_EQ(3, WEXITSTATUS(pipe.status(0)));
    EXPECT_LT(calls, 20u);
}

TEST_F(PipeInputTest, GrandchildThatHoldsTheInputDoesNotHoldThePipe) {
    for (const int status : {0, 5}) {
        std::string output;
        Pipe pipe;
        pipe.input = pieces({std::string(1000000, 'x')});
        pipe.output = into(output);
        pipe.addProcess("/bin/sh", shell("exec 3<&0; sleep 1000 <&3 >/dev/null 2>&1 & echo $!; "
                                         "exit " +
                                         std::to_string(status)));
        const std::string thrown = thrownBy([&] { pipe.launch(); });
        EXPECT_EQ(status == 0 ? systemError("write", EPIPE) : "nothing", thrown);
        EXPECT_EQ(status, WEXITSTATUS(pipe.status(0)));
        const int grandchild = std::stoi(output);
        ASSERT_GT(grandchild, 1);
        EXPECT_EQ(0, ::kill(grandchild, SIGKILL)) << "it had ended: nothing was shown";
    }
}

TEST_F(PipeOutputTest, FloodOnBothStreamsWhileInputIsFedDoesNotDeadLock) {
    std::string input;
    while (input.size() < 1000000) {
        input += "line " + std::to_string(input.size()) + "\n";
    }
    const Outcome outcome = runScript("tee /dev/stderr", {input});
    EXPECT_EQ(0, outcome.exited());
    EXPECT_EQ(input, outcome.output);
    EXPECT_EQ(input, outcome.error);
}

TEST_F(PipeOutputTest, ChildThatFloodsBeforeItReadsDoesNotDeadLock) {
    const std::string input(500000, 'i');
    const Outcome outcome = runScript("head -c 300000 /dev/zero; head -c 300000 /dev/zero >&2; "
                                      "cat",
                                      {input});
    EXPECT_EQ(std::string(300000, '\0') + input, outcome.output);
    EXPECT_EQ(std::string(300000, '\0'), outcome.error);
}

TEST_F(PipeOutputTest, ChunksAreNeverEmpty) {
    std::size_t chunks = 0;
    Pipe pipe;
    pipe.output = [&chunks](const std::vector<char>& chunk) {
        EXPECT_FALSE(chunk.empty());
        ++chunks;
    };
    pipe.error = pipe.output;
    pipe.addProcess("/bin/sh", shell("echo one; sleep 0.05; echo two >&2"));
    pipe.launch();
    EXPECT_EQ(2u, chunks);
}

TEST_F(PipeOutputTest, ChildThatClosesItsOutputEarlyIsWaitedFor) {
    const Outcome outcome = runScript("echo first; exec >&- 2>&-; sleep 0.1; exit 8");
    EXPECT_EQ("first\n", outcome.output);
    EXPECT_EQ(8, outcome.exited());
}

TEST_F(PipeOutputTest, OutputOfAGrandchildIsServedAfterTheChildHasEnded) {
    const Outcome outcome = runScript("(sleep 0.2; echo late; echo later >&2) & exit 3");
    EXPECT_EQ(3, outcome.exited());
    EXPECT_EQ("late\n", outcome.output);
    EXPECT_EQ("later\n", outcome.error);
}

TEST_F(PipeOutputTest, StoppedAndContinuedChildHasNotEnded) {
    // The grandchild wakes it until it is gone, so that no wake-up comes too early.
    const Outcome outcome =
        runScript("(while kill -CONT $$; do sleep 0.05; done) >/dev/null 2>&1 & "
                  "kill -STOP $$; echo on; exit 4");
    EXPECT_EQ("on\n", outcome.output);
    EXPECT_EQ(4, outcome.exited());
}

TEST_F(PipeOutputTest, BytesOfAnyValueArriveAsTheyAre) {
    std::string all;
    for (int value = 0; value < 256; ++value) {
        all += static_cast<char>(value);
    }
    EXPECT_EQ(all, runScript("cat", {all}).output);
}

} // namespace
} // namespace torva::process
