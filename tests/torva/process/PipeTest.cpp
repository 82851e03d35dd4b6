// Building, launching and the results of a pipe; how its flags are completed.
#include "torva/process/Pipe.h"

#include "ProcessFixture.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::process {
namespace {

using namespace testing;

class PipeTest : public ProcessTest {};
class PipeFlagsTest : public ProcessTest {};

TEST_F(PipeTest, PipeWithNoProcessIsRefusedAndStartsNothing) {
    Pipe pipe;
    EXPECT_EQ("logic_error No processes to launch were assigned so far",
              thrownBy([&] { pipe.launch(); }));
    EXPECT_FALSE(pipe.launched());
    EXPECT_EQ(0u, pipe.size());
    pipe.addProcess("/bin/sh", shell("exit 4"));
    pipe.launch();
    EXPECT_EQ(4, WEXITSTATUS(pipe.status(0))) << "the refusal was not the launch";
}

TEST_F(PipeTest, LaunchingTwiceIsRefused) {
    Pipe pipe;
    pipe.addProcess("/bin/sh", shell("exit 4"));
    pipe.launch();
    EXPECT_TRUE(pipe.launched());
    EXPECT_EQ("logic_error the pipe has been launched already", thrownBy([&] { pipe.launch(); }));
    EXPECT_EQ(4, WEXITSTATUS(pipe.status(0))) << "the results are kept";
}

TEST_F(PipeTest, AddingAProcessAfterLaunchIsRefused) {
    Pipe pipe;
    pipe.addProcess("/bin/sh", shell("exit 4"));
    pipe.launch();
    EXPECT_EQ("logic_error adding processes to the launched pipe is prohibited",
              thrownBy([&] { pipe.addProcess("/bin/sh", shell("exit 4")); }));
    EXPECT_EQ(1u, pipe.size());
}

TEST_F(PipeTest, AFailedLaunchIsALaunchToo) {
    Pipe pipe;
    pipe.addProcess("/does/not/exist", {"x"});
    EXPECT_EQ(relayedSystemError("execv", ENOENT), thrownBy([&] { pipe.launch(); }));
    EXPECT_TRUE(pipe.launched());
    EXPECT_EQ("logic_error the pipe has been launched already", thrownBy([&] { pipe.launch(); }));
}

TEST_F(PipeTest, ResultsArePidAndRawWaitStatus) {
    Pipe pipe;
    std::string output;
    pipe.output = into(output);
    pipe.addProcess("/bin/sh", shell("echo $$; exit 200"));
    EXPECT_EQ(-1, pipe.pid(0));
    EXPECT_EQ(0, pipe.status(0));
    EXPECT_THAT(thrownBy([&] { pipe.status(1); }), ::testing::StartsWith("out_of_range"));
    EXPECT_THAT(thrownBy([&] { pipe.pid(1); }), ::testing::StartsWith("out_of_range"));
    pipe.launch();
    EXPECT_EQ(std::to_string(pipe.pid(0)) + "\n", output);
    EXPECT_TRUE(WIFEXITED(pipe.status(0)));
    EXPECT_EQ(200, WEXITSTATUS(pipe.status(0)));
}

TEST_F(PipeTest, NonZeroExitAndDeathBySignalAreNoErrors) {
    EXPECT_EQ(3, runScript("exit 3").exited());
    EXPECT_EQ(SIGTERM, runScript("kill -TERM $$").signal());
    EXPECT_EQ(SIGKILL, runScript("kill -KILL $$").signal());
}

TEST_F(PipeTest, ChildWithoutAnyStreamOfOursIsWaitedFor) {
    Pipe pipe;
    pipe.addProcess("/bin/sh", shell("sleep 0.1; exit 6"));
    pipe.launch();
    EXPECT_EQ(6, WEXITSTATUS(pipe.status(0)));
}

TEST_F(PipeTest, SeveralProcessesRunAtOnceWithTheirOwnStreamsAndStatuses) {
    Pipe pipe;
    std::vector<std::string> outputs(3);
    // Each waits for its neighbour: one after the other they would never end.
    char directory[] = "/tmp/pipe-test-XXXXXX";
    ASSERT_NE(nullptr, ::mkdtemp(directory));
    pipe.workingDirectory = directory;
    for (std::size_t i = 0; i < 3; ++i) {
        CommonFlags flags;
        flags.output = into(outputs[i]);
        flags.input = pieces({"line " + std::to_string(i) + "\n"});
        const std::string own = std::to_string(i);
        std::string script = "own=" + own;
        script += "; other=" + std::to_string((i + 1) % 3);
        script += "; read l; : >$own; while [ ! -e $other ]; do sleep 0.01; done; "
                  "echo \"$l\"; exit $own";
        pipe.addProcess("/bin/sh", shell(script), flags);
    }
    pipe.launch();
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ("line " + std::to_string(i) + "\n", outputs[i]);
        EXPECT_EQ(static_cast<int>(i), WEXITSTATUS(pipe.status(i)));
        ::unlink((directory + ("/" + std::to_string(i))).c_str());
    }
    EXPECT_EQ(0, ::rmdir(directory));
}

TEST_F(PipeTest, LaunchOfANestedPipeIsRefusedAndTheOuterGoesOn) {
    Pipe outer;
    // The child ends when this is closed: its end between two censuses would be a difference.
    PipeEnds go = openPipe("pipe");
    outer.inputFd = go.read.get();
    std::string refusal;
    std::string output;
    outer.output = [&](const std::vector<char>& chunk) {
        Pipe inner;
        inner.addProcess("/bin/sh", shell("exit 1"));
        const std::string before = census();
        refusal = thrownBy([&] { inner.launch(); });
        EXPECT_EQ(before, census());
        output.append(chunk.begin(), chunk.end());
        go.write.closeQuietly();
    };
    outer.addProcess("/bin/sh", shell("echo on; read word; exit 5"));
    outer.launch();
    EXPECT_EQ("logic_error ProcessSetCatcher instance has been installed already", refusal);
    EXPECT_EQ("on\n", output);
    EXPECT_EQ(5, WEXITSTATUS(outer.status(0)));
}

// Runs a script in a pipe that the two functions set up.
std::string outputWith(const std::string& script,
                       const std::function<void(PipeFlags& common, CommonFlags& own)>& setUp,
                       const std::string& program = "/bin/sh") {
    std::string output;
    Pipe pipe;
    CommonFlags own;
    pipe.output = into(output);
    setUp(pipe, own);
    pipe.addProcess(program, shell(script), own);
    pipe.launch();
    return output;
}

TEST_F(PipeFlagsTest, WorkingDirectoryIsTheProcesssThePipesOrTheParents) {
    char parent[4096];
    ASSERT_NE(nullptr, ::getcwd(parent, sizeof(parent)));
    EXPECT_EQ(parent + std::string("\n"), outputWith("pwd -P", [](PipeFlags&, CommonFlags&) {}));
    EXPECT_EQ("/usr\n", outputWith("pwd -P", [](PipeFlags& common, CommonFlags&) {
                  common.workingDirectory = "/usr";
              }));
    EXPECT_EQ("/etc\n", outputWith("pwd -P", [](PipeFlags& common, CommonFlags& own) {
                  common.workingDirectory = "/usr";
                  own.workingDirectory = "/etc";
              }));
}

TEST_F(PipeFlagsTest, PipeWideEnvironmentReachesOnlyProcessesThatHaveOneOfTheirOwn) {
    ::setenv("WHOSE", "parent", 1);
    const std::vector<std::string> pipes = {"WHOSE=pipe"};
    const std::vector<std::string> process = {"WHOSE=process"};
    const std::string script = "echo $WHOSE";
    EXPECT_EQ("parent\n", outputWith(script, [&](PipeFlags& common, CommonFlags&) {
                  common.environment = &pipes;
              }));
    EXPECT_EQ("pipe\n", outputWith(script, [&](PipeFlags& common, CommonFlags& own) {
                  common.environment = &pipes;
                  own.environment = &process;
              }));
    EXPECT_EQ("process\n", outputWith(script, [&](PipeFlags&, CommonFlags& own) {
                  own.environment = &process;
              }));
    EXPECT_EQ("parent\n", outputWith(script, [](PipeFlags&, CommonFlags&) {}));
    ::unsetenv("WHOSE");
}

TEST_F(PipeFlagsTest, SearchPathOfTheProcessOrOfThePipeIsEnough) {
    const auto none = [](PipeFlags&, CommonFlags&) {};
    const auto pipes = [](PipeFlags& common, CommonFlags&) { common.searchPath = true; };
    const auto own = [](PipeFlags&, CommonFlags& flags) { flags.searchPath = true; };
    EXPECT_EQ("found\n", outputWith("echo found", pipes, "sh"));
    EXPECT_EQ("found\n", outputWith("echo found", own, "sh"));
    EXPECT_EQ(relayedSystemError("execv", ENOENT),
              thrownBy([&] { outputWith("echo found", none, "sh"); }));
}

TEST_F(PipeFlagsTest, CallbacksOfTheProcessWinOverThePipes) {
    std::string pipes;
    std::string own;
    std::string error;
    Pipe pipe;
    pipe.input = pieces({"pipe's"});
    pipe.output = into(pipes);
    pipe.error = into(error);
    CommonFlags flags;
    flags.input = pieces({"own"});
    flags.output = into(own);
    pipe.addProcess("/bin/sh", shell("cat; echo problem >&2"), flags);
    pipe.launch();
    EXPECT_EQ("", pipes);
    EXPECT_EQ("own", own);
    EXPECT_EQ("problem\n", error);
}

// A file in memory, and what is in it.
class TextFile {
public:
    explicit TextFile(const std::string& text) : fd(::memfd_create("text", MFD_CLOEXEC)) {
        EXPECT_EQ(static_cast<ssize_t>(text.size()), ::write(fd, text.data(), text.size()));
        ::lseek(fd, 0, SEEK_SET);
    }
    ~TextFile() { ::close(fd); }
    std::string text() const {
        ::lseek(fd, 0, SEEK_SET);
        return readAll(fd);
    }
    int fd;
};

TEST_F(PipeFlagsTest, DescriptorsAreHandedOverAndStayTheCallers) {
    const TextFile input("given\n");
    const TextFile output("");
    const TextFile error("");
    Pipe pipe;
    pipe.inputFd = input.fd;
    pipe.outputFd = output.fd;
    CommonFlags flags;
    flags.errorFd = error.fd;
    pipe.addProcess("/bin/sh", shell("cat; echo problem >&2"), flags);
    pipe.launch();
    EXPECT_EQ("given\n", output.text());
    EXPECT_EQ("problem\n", error.text());
    EXPECT_EQ("given\n", input.text());
}

TEST_F(PipeFlagsTest, DescriptorOfTheProcessWinsOverThePipes) {
    const TextFile pipes("");
    const TextFile own("");
    Pipe pipe;
    pipe.outputFd = pipes.fd;
    CommonFlags flags;
    flags.outputFd = own.fd;
    pipe.addProcess("/bin/sh", shell("echo out"), flags);
    pipe.launch();
    EXPECT_EQ("", pipes.text());
    EXPECT_EQ("out\n", own.text());
}

TEST_F(PipeFlagsTest, CallbackWinsOverADescriptorForOneStream) {
    const TextFile file("from the file\n");
    std::string output;
    Pipe pipe;
    pipe.inputFd = file.fd;
    pipe.outputFd = file.fd;
    pipe.output = into(output);
    CommonFlags flags;
    flags.input = pieces({"from the producer\n"});
    pipe.addProcess("/bin/sh", shell("cat"), flags);
    pipe.launch();
    EXPECT_EQ("from the producer\n", output);
    EXPECT_EQ("from the file\n", file.text());
}

TEST_F(PipeFlagsTest, OneDescriptorForTwoStreams) {
    const TextFile both("");
    Pipe pipe;
    pipe.outputFd = both.fd;
    pipe.errorFd = both.fd;
    pipe.addProcess("/bin/sh", shell("echo output; echo error >&2"));
    pipe.launch();
    EXPECT_EQ("output\nerror\n", both.text());
}

TEST_F(PipeFlagsTest, ClosedDescriptorFailsWhateverIsOpenedMeanwhile) {
    for (const int fd : nextDescriptors(8)) {
        std::string output;
        Pipe pipe;
        pipe.inputFd = fd;
        pipe.output = into(output);
        pipe.addProcess("/bin/sh", shell("cat"));
        EXPECT_EQ(relayedSystemError("stdin dup2", EBADF), thrownBy([&] { pipe.launch(); })) << fd;
    }
}

TEST_F(PipeFlagsTest, NegativeDescriptorOtherThanNotGivenIsInvalid) {
    Pipe pipe;
    pipe.errorFd = -2;
    pipe.addProcess("/bin/sh", shell("exit 0"));
    EXPECT_EQ("invalid_argument invalid FD for stderr", thrownBy([&] { pipe.launch(); }));
}

} // namespace
} // namespace torva::process
