// The descriptors that a child inherits, and its streams.
#include "torva/process/Launch.h"

#include "ProcessFixture.h"

#include <fcntl.h>
#include <set>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::process {
namespace {

using namespace testing;
using Kind = ChildStream::Kind;

class LaunchDescriptorsTest : public ProcessTest {};

LaunchRequest script(const std::string& text) {
    LaunchRequest request;
    request.program = "/bin/sh";
    request.arguments = {"sh", "-c", text};
    return request;
}

// Output of a request whose standard output is a new pipe.
std::string outputOf(LaunchRequest request) {
    request.output = {Kind::newPipe, -1};
    const LaunchResult child = launch(request);
    std::string text = readAll(child.output.get());
    waitForExit(child.pid);
    return text;
}

// The numbers that "ls /proc/self/fd" shows: what is inherited, and its own.
std::set<int> listedDescriptors(const std::string& text) {
    std::set<int> numbers;
    std::istringstream in(text);
    for (int number = 0; in >> number;) {
        numbers.insert(number);
    }
    return numbers;
}

TEST_F(LaunchDescriptorsTest, ChildInheritsNothingOfWhatWasOpenedForIt) {
    std::set<int> wanted;
    for (int fd = 0; fd < 1024; ++fd) {
        if (fd < 3 || ::fcntl(fd, F_GETFD) == 0) {
            wanted.insert(fd);
        }
    }
    for (int own = 0;; ++own) {
        if (wanted.insert(own).second) {
            break; // the directory that the lister has open
        }
    }
    LaunchRequest request = script("exec ls /proc/self/fd");
    request.input = {Kind::newPipe, -1};
    request.error = {Kind::nullDevice, -1};
    EXPECT_EQ(wanted, listedDescriptors(outputOf(request)));
}

TEST_F(LaunchDescriptorsTest, CloseOtherDescriptorsClosesEverythingFromThreeUp) {
    LaunchRequest request = script("exec ls /proc/self/fd");
    std::vector<Descriptor> inherited; // on both sides of the control pipe
    for (const int lowest : {3, 50, 900}) {
        inherited.emplace_back(::fcntl(0, F_DUPFD, lowest));
    }
    EXPECT_GT(listedDescriptors(outputOf(request)).size(), 6u);
    request.closeOtherDescriptors = true;
    EXPECT_EQ((std::set<int>{0, 1, 2, 3}), listedDescriptors(outputOf(request)));
}

TEST_F(LaunchDescriptorsTest, CloseOtherDescriptorsKeepsTheControlPipe) {
    LaunchRequest request;
    request.program = "/does/not/exist";
    request.arguments = {"x"};
    request.closeOtherDescriptors = true;
    pid_t pid = -1;
    EXPECT_EQ(relayedSystemError("execv", ENOENT), thrownBy([&] { launch(request, &pid); }));
    waitForExit(pid);
}

// Where the child's streams lead when this process has its own streams on two
// pipes and gives them away; each line is "which pipe: text".
std::string givenAway(int outputFd, int errorFd) {
    return inSubprocess([&](std::ostream& out) {
        PipeEnds first = openPipe("pipe");
        PipeEnds second = openPipe("pipe");
        ::dup3(first.write.get(), 1, O_CLOEXEC);
        ::dup3(second.write.get(), 2, O_CLOEXEC);
        LaunchRequest request = script("echo output; echo error >&2");
        if (outputFd != -1) {
            request.output = {Kind::descriptor, outputFd};
        }
        if (errorFd != -1) {
            request.error = {Kind::descriptor, errorFd};
        }
        const LaunchResult child = launch(request);
        out << WEXITSTATUS(waitForExit(child.pid)) << " ";
        ::close(1);
        ::close(2);
        first.write.release();
        second.write.release();
        out << "first: " << readAll(first.read.get()) << "second: " << readAll(second.read.get());
    });
}

TEST_F(LaunchDescriptorsTest, StandardDescriptorsOfTheParentCanBeGivenInAnyOrder) {
    EXPECT_EQ("0 first: error\nsecond: output\n", givenAway(2, 1)) << "exchanged";
    EXPECT_EQ("0 first: output\nsecond: error\n", givenAway(1, 2)) << "in place, close-on-exec";
    EXPECT_EQ("0 first: output\nerror\nsecond: ", givenAway(1, 1)) << "one for both";
    EXPECT_EQ("0 first: second: output\nerror\n", givenAway(2, 2)) << "the other for both";
}

TEST_F(LaunchDescriptorsTest, StreamThatIsGivenAwayStaysWhereItIsInheritedToo) {
    EXPECT_EQ("out error", inSubprocess([](std::ostream& out) {
                  PipeEnds ends = openPipe("pipe");
                  ::dup2(ends.write.get(), 2);
                  LaunchRequest request = script("printf 'out '; printf error >&2");
                  request.output = {Kind::descriptor, 2};
                  const LaunchResult child = launch(request);
                  waitForExit(child.pid);
                  ::close(2);
                  ends.write.release();
                  out << readAll(ends.read.get());
              }));
}

TEST_F(LaunchDescriptorsTest, OneDescriptorServesSeveralStreamsAndIsClosedOnceInTheChild) {
    PipeEnds ends = openPipe("pipe");
    // Without close-on-exec: only the child's own closing takes it away.
    const Descriptor shared(::fcntl(ends.write.get(), F_DUPFD, 40));
    LaunchRequest request = script("echo output; echo error >&2; [ -e /proc/$$/fd/" +
                                   std::to_string(shared.get()) + " ] && echo open");
    request.output = {Kind::descriptor, shared.get()};
    request.error = {Kind::descriptor, shared.get()};
    const LaunchResult child = launch(request);
    waitForExit(child.pid);
    EXPECT_NE(-1, ::fcntl(shared.get(), F_GETFD)) << "it is the caller's";
    ends.write.release();
    ::close(shared.get());
    EXPECT_EQ("output\nerror\n", readAll(ends.read.get()));
    ::dup2(0, shared.get()); // for the holder to close
}

TEST_F(LaunchDescriptorsTest, EveryCombinationOfClosedStandardStreamsWorks) {
    for (int closed = 0; closed < 8; ++closed) {
        for (const Kind kind : {Kind::inherited, Kind::nullDevice, Kind::newPipe}) {
            const std::string shown = inSubprocess([&](std::ostream& out) {
                for (const int fd : {0, 1, 2}) {
                    if ((closed & (1 << fd)) != 0) {
                        ::close(fd);
                    }
                }
                // The status tells which of the three are open in the child.
                LaunchRequest request = script("s=0; n=1; for f in 0 1 2; do "
                                               "[ -e /proc/$$/fd/$f ] && s=$((s+n)); n=$((n*2)); "
                                               "done; exit $s");
                request.input = {kind, -1};
                request.output = {kind, -1};
                request.error = {kind, -1};
                const LaunchResult child = launch(request);
                out << WEXITSTATUS(waitForExit(child.pid));
                for (const int fd : {0, 1, 2}) {
                    out << (::fcntl(fd, F_GETFD) == -1 ? "c" : "o");
                }
            });
            const int open = kind == Kind::inherited ? 7 - closed : 7;
            std::string wanted = std::to_string(open);
            for (const int fd : {0, 1, 2}) {
                wanted += (closed & (1 << fd)) != 0 ? "c" : "o";
            }
            EXPECT_EQ(wanted, shown) << "closed " << closed;
        }
    }
}

} // namespace
} // namespace torva::process
