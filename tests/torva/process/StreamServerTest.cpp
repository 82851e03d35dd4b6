#include "torva/process/StreamServer.h"

#include "FailingSystemCall.h"
#include "ProcessFixture.h"
#include "torva/process/SignalGuards.h"

#include <cerrno>
#include <fcntl.h>
#include <numeric>
#include <sys/syscall.h>
#include <unistd.h>

namespace torva::process {
namespace {

using namespace testing;

class WriteSomeTest : public ProcessTest {};
class StreamServerTest : public ProcessTest {};
class StreamServerFailureTest : public FailingCallTest {};

// A non-blocking pipe of two pages with so many bytes left in the second one.
PipeEnds nearlyFullPipe(std::size_t left) {
    PipeEnds ends = openPipe("pipe");
    const int size = ::fcntl(ends.write.get(), F_SETPIPE_SZ, 8192);
    EXPECT_EQ(8192, size);
    ::fcntl(ends.write.get(), F_SETFL, O_NONBLOCK);
    ::fcntl(ends.read.get(), F_SETFL, O_NONBLOCK);
    const std::string page(4096, 'f');
    EXPECT_EQ(4096, ::write(ends.write.get(), page.data(), 4096));
    if (left < 4096) {
        EXPECT_EQ(static_cast<ssize_t>(4096 - left),
                  ::write(ends.write.get(), page.data(), 4096 - left));
    }
    return ends;
}

TEST_F(WriteSomeTest, WritesAllThatThePipeTakes) {
    PipeEnds ends = openPipe("pipe");
    EXPECT_EQ(5u, writeSome(ends.write.get(), "hello", 5));
    ends.write.release();
    EXPECT_EQ("hello", readAll(ends.read.get()));
}

TEST_F(WriteSomeTest, NearlyFullPipeTakesTheFirstHalvesThatFitAndErrnoIsKept) {
    const PipeEnds ends = nearlyFullPipe(1000);
    const std::string data(3200, 'd');
    errno = EXDEV;
    EXPECT_EQ(800u, writeSome(ends.write.get(), data.data(), data.size())); // 3200, 1600, 800
    EXPECT_EQ(EXDEV, errno);
}

TEST_F(WriteSomeTest, LastFreeByteIsStillTaken) {
    for (const std::size_t size : {1U, 2U, 3U, 100U}) {
        const PipeEnds ends = nearlyFullPipe(1);
        const std::string data(size, 'd');
        EXPECT_EQ(1u, writeSome(ends.write.get(), data.data(), size)) << size;
    }
}

TEST_F(WriteSomeTest, FullPipeIsAnErrorWhenNotEvenOneByteIsTaken) {
    const PipeEnds ends = nearlyFullPipe(0);
    const std::string data(3200, 'd');
    for (const std::size_t size : {std::size_t{1}, std::size_t{2}, data.size()}) {
        EXPECT_EQ(systemError("write", EAGAIN),
                  thrownBy([&] { writeSome(ends.write.get(), data.data(), size); }));
    }
}

TEST_F(WriteSomeTest, OtherFailuresAreThrownAtOnce) {
    SigpipeGuard sigpipe;
    PipeEnds ends = openPipe("pipe");
    EXPECT_EQ(systemError("write", EBADF),
              thrownBy([&] { writeSome(ends.read.get(), "hello", 5); }));
    ends.read.release();
    EXPECT_EQ(systemError("write", EPIPE),
              thrownBy([&] { writeSome(ends.write.get(), "hello", 5); }));
}

// One child that was never forked: its streams are held by the test, and its end is
// told by hand.
class PlayedChild {
public:
    explicit PlayedChild(const CommonFlags& flags) : children(1), catcher(children), served(1) {
        catcher.install();
        children.add(17);
        served[0].flags = &flags;
    }
    ~PlayedChild() { catcher.remove(); }

    // As the handler does it.
    void end() {
        children.recordEnd(17, 0);
        const int writeEnd = catcher.wakeFd() + 1;
        EXPECT_EQ(1, ::write(writeEnd, "t", 1));
    }

    void run() { StreamServer(served, children, catcher).run(); }

    ProcessSet children;
    ProcessSetCatcher catcher;
    std::vector<ServedChild> served;
};

TEST_F(StreamServerTest, ProducerIsAskedOncePerTurnAndOnlyWhenAllBeforeIsWritten) {
    CommonFlags flags;
    std::string seen;
    PlayedChild* played = nullptr;
    PipeEnds* toChild = nullptr;
    // More than the pipe holds, so that one piece takes several turns.
    const std::size_t pieceSize = 100000;
    std::size_t calls = 0;
    flags.input = [&](std::vector<char>& buffer) {
        EXPECT_TRUE(buffer.empty());
        EXPECT_EQ(calls, seen.size() / pieceSize) << "asked with input still pending";
        buffer.assign(pieceSize, static_cast<char>('a' + calls));
        ++calls;
        return calls < 3;
    };
    // The child's output: one byte whenever it is looked at, as a turn.
    PipeEnds ticks = openPipe("pipe");
    flags.output = [&](const std::vector<char>&) {
        std::string buffer(65536, '\0');
        const ssize_t count = ::read(toChild->read.get(), buffer.data(), buffer.size());
        if (count > 0) {
            seen.append(buffer, 0, static_cast<std::size_t>(count));
        }
        if (count == 0) {
            ticks.write.closeQuietly();
            played->end();
        } else {
            EXPECT_EQ(1, ::write(ticks.write.get(), ".", 1));
        }
    };
    PipeEnds input = openPipe("pipe");
    ::fcntl(input.read.get(), F_SETFL, O_NONBLOCK);
    PlayedChild child(flags);
    played = &child;
    toChild = &input;
    child.served[0].input = std::move(input.write);
    child.served[0].output = std::move(ticks.read);
    ASSERT_EQ(1, ::write(ticks.write.get(), ".", 1));
    child.run();
    EXPECT_EQ(3u, calls);
    EXPECT_EQ(std::string(pieceSize, 'a') + std::string(pieceSize, 'b') +
                  std::string(pieceSize, 'c'),
              seen);
    EXPECT_FALSE(child.served[0].inputRefused);
}

TEST_F(StreamServerTest, LeftOverInputIsClosedWhenNoChildIsLeftAndCountsAsRefused) {
    CommonFlags flags;
    std::size_t calls = 0;
    PlayedChild* played = nullptr;
    flags.input = [&](std::vector<char>& buffer) {
        buffer.assign(1000000, 'x'); // more than the pipe holds, and nobody reads
        if (++calls == 1) {
            played->end();
        }
        return true;
    };
    PipeEnds input = openPipe("pipe");
    PlayedChild child(flags);
    played = &child;
    child.served[0].input = std::move(input.write);
    child.run();
    EXPECT_EQ(1u, calls);
    EXPECT_FALSE(child.served[0].input);
    EXPECT_TRUE(child.served[0].inputRefused);
}

TEST_F(StreamServerTest, WaitingProducerWithNothingPendingIsNotRefused) {
    CommonFlags flags;
    std::size_t calls = 0;
    PlayedChild* played = nullptr;
    flags.input = [&](std::vector<char>&) {
        if (++calls == 1) {
            played->end();
        }
        return true;
    };
    PipeEnds input = openPipe("pipe");
    PlayedChild child(flags);
    played = &child;
    child.served[0].input = std::move(input.write);
    child.run();
    EXPECT_FALSE(child.served[0].input);
    EXPECT_FALSE(child.served[0].inputRefused);
}

TEST_F(StreamServerTest, StreamsAreServedToTheirEndAfterTheChildHasEnded) {
    CommonFlags flags;
    std::string seen;
    flags.output = into(seen);
    PipeEnds output = openPipe("pipe");
    PlayedChild child(flags);
    child.served[0].output = std::move(output.read);
    child.end();
    PipeEnds* const held = &output;
    flags.output = [&seen, held](const std::vector<char>& chunk) {
        seen.append(chunk.begin(), chunk.end());
        held->write.closeQuietly();
    };
    ASSERT_EQ(4, ::write(output.write.get(), "late", 4));
    child.run();
    EXPECT_EQ("late", seen);
}

TEST_F(StreamServerTest, NoneOfTheStreamsCanBlockTheServer) {
    // A blocking one would hold up the others wherever select(2) has promised too much.
    CommonFlags flags;
    PlayedChild* played = nullptr;
    flags.input = [&played](std::vector<char>&) {
        ServedChild& child = played->served[0];
        for (const Descriptor* stream : {&child.input, &child.output, &child.error}) {
            EXPECT_NE(0, ::fcntl(stream->get(), F_GETFL) & O_NONBLOCK);
        }
        played->end();
        return false;
    };
    PlayedChild child(flags);
    played = &child;
    PipeEnds input = openPipe("pipe");
    child.served[0].input = std::move(input.write);
    child.served[0].output = openPipe("pipe").read;
    child.served[0].error = openPipe("pipe").read;
    child.run();
}

TEST_F(StreamServerFailureTest, EachOperationIsNamed) {
    // Descriptor numbers: two of the catcher, then the stream's pipe.
    const auto run = [](bool input, const FailingCall& failing) {
        return inSubprocess([&](std::ostream&) {
            CommonFlags flags;
            flags.input = pieces({"text"});
            flags.output = [](const std::vector<char>&) {};
            PipeEnds ends = openPipe("pipe");
            PlayedChild child(flags);
            child.end(); // so that the destructor can remove the catcher
            FailingCall call = failing;
            if (call.argument == 0) {
                call.value = static_cast<std::uint32_t>(input ? ends.write.get() : ends.read.get());
            }
            if (input) {
                child.served[0].input = std::move(ends.write);
            } else {
                child.served[0].output = std::move(ends.read);
                ends.write.release();
            }
            failSystemCalls({call});
            child.run();
        });
    };
    EXPECT_EQ(systemError("fcntl", EINVAL), run(true, {SYS_fcntl, EINVAL, 0}));
    EXPECT_EQ(systemError("fcntl", EINVAL), run(false, {SYS_fcntl, EINVAL, 0}));
    EXPECT_EQ(systemError("write", EIO), run(true, {SYS_write, EIO, 0}));
    EXPECT_EQ(systemError("read", EIO), run(false, {SYS_read, EIO, 0}));
    EXPECT_EQ(systemError("pipe read-end close", EIO), run(false, {SYS_close, EIO, 0}));
    EXPECT_EQ(systemError("select", ENOMEM), run(false, {SYS_pselect6, ENOMEM}));
}

} // namespace
} // namespace torva::process
