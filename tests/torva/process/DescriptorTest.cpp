#include "torva/process/Descriptor.h"

#include "ProcessFixture.h"

#include <cerrno>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdexcept>
#include <unistd.h>
#include <vector>

namespace {

int interruptedCloses = 0; // how many of the next calls are

} // namespace

// In place of the C library's, for the whole test program. As Linux does it: an interrupted
// call has closed the descriptor.
extern "C" int close(int fd) {
    using Close = int (*)(int);
    static const auto real = reinterpret_cast<Close>(::dlsym(RTLD_NEXT, "close"));
    const int result = real(fd);
    if (interruptedCloses > 0) {
        --interruptedCloses;
        errno = EINTR;
        return -1;
    }
    return result;
}

namespace torva::process {
namespace {

using namespace testing;

class DescriptorTest : public ProcessTest {};

int openSomething() {
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

TEST_F(DescriptorTest, NewHolderIsClosed) {
    const Descriptor descriptor;
    EXPECT_EQ(-1, descriptor.get());
    EXPECT_FALSE(descriptor);
}

TEST_F(DescriptorTest, ReleaseClosesAndHoldsNothing) {
    const int fd = openSomething();
    Descriptor descriptor(fd);
    EXPECT_TRUE(descriptor);
    descriptor.release();
    EXPECT_EQ(-1, descriptor.get());
    EXPECT_FALSE(isOpen(fd));
    EXPECT_NO_THROW(descriptor.release());
}

TEST_F(DescriptorTest, DestructorCloses) {
    int fd = -1;
    {
        const Descriptor descriptor(openSomething());
        fd = descriptor.get();
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(DescriptorTest, MovingHandsTheDescriptorOver) {
    Descriptor first(openSomething());
    const int fd = first.get();
    Descriptor second(std::move(first));
    EXPECT_EQ(fd, second.get());
    Descriptor third(openSomething());
    const int replaced = third.get();
    third = std::move(second);
    EXPECT_EQ(fd, third.get());
    EXPECT_FALSE(isOpen(replaced));
    EXPECT_TRUE(isOpen(fd));
}

TEST_F(DescriptorTest, CheckedReleaseReportsFailureAndHoldsNothing) {
    const int fd = openSomething();
    ::close(fd);
    Descriptor descriptor(fd);
    EXPECT_EQ(systemError("close", EBADF), thrownBy([&] { descriptor.release(); }));
    EXPECT_EQ(-1, descriptor.get());
}

TEST_F(DescriptorTest, CheckedReleaseNamesTheGivenOperation) {
    const int fd = openSomething();
    ::close(fd);
    Descriptor descriptor(fd);
    EXPECT_EQ(systemError("pipe read-end close", EBADF),
              thrownBy([&] { descriptor.release("pipe read-end close"); }));
}

TEST_F(DescriptorTest, InterruptedCloseIsNoFailureAndTheDescriptorIsClosed) {
    for (const int interruptions : {1, 2}) {
        const int fd = openSomething();
        Descriptor descriptor(fd);
        interruptedCloses = interruptions;
        EXPECT_EQ("nothing", thrownBy([&] { descriptor.release(); }));
        EXPECT_EQ(0, interruptedCloses);
        EXPECT_FALSE(isOpen(fd));
        EXPECT_EQ(-1, descriptor.get());
    }
}

TEST_F(DescriptorTest, InterruptedQuietCloseKeepsErrno) {
    Descriptor descriptor(openSomething());
    interruptedCloses = 1;
    errno = EXDEV;
    descriptor.closeQuietly();
    EXPECT_EQ(EXDEV, errno);
    EXPECT_EQ(0, interruptedCloses);
}

TEST_F(DescriptorTest, ReleaseDuringPropagationIsSilentAndKeepsErrno) {
    struct ReleasesInDestructor {
        explicit ReleasesInDestructor(int fd) : descriptor(fd) {}
        ~ReleasesInDestructor() {
            errno = EXDEV;
            descriptor.release();
            errnoAfter = errno;
        }
        Descriptor descriptor;
        static int& seen() {
            static int value = 0;
            return value;
        }
        int& errnoAfter = seen();
    };
    const int fd = openSomething();
    ::close(fd);
    EXPECT_EQ("runtime_error on its way", thrownBy([fd] {
                  const ReleasesInDestructor holder(fd);
                  throw std::runtime_error("on its way");
              }));
    EXPECT_EQ(EXDEV, ReleasesInDestructor::seen());
}

TEST_F(DescriptorTest, ContainerOfHoldersNeverThrowsOnDestruction) {
    const int fd = openSomething();
    ::close(fd);
    EXPECT_NO_THROW({
        std::vector<Descriptor> holders;
        holders.emplace_back(fd);
        errno = EXDEV;
    });
    EXPECT_EQ(EXDEV, errno);
}

TEST_F(DescriptorTest, NewPipeIsCloseOnExecAndConnected) {
    PipeEnds ends = openPipe("pipe");
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(ends.read.get(), F_GETFD));
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(ends.write.get(), F_GETFD));
    ASSERT_EQ(2, ::write(ends.write.get(), "ab", 2));
    ends.write.release();
    EXPECT_EQ("ab", readAll(ends.read.get()));
}

TEST_F(DescriptorTest, EverythingOpenedIsAboveTheStandardStreams) {
    EXPECT_EQ("above above above closed closed closed", inSubprocess([](std::ostream& out) {
                  for (const int fd : {0, 1, 2}) {
                      ::close(fd);
                  }
                  const PipeEnds ends = openPipe("pipe");
                  const Descriptor null = openNullDevice(O_RDONLY, "open");
                  out << (ends.read.get() > 2 ? "above" : "low") << " "
                      << (ends.write.get() > 2 ? "above" : "low") << " "
                      << (null.get() > 2 ? "above" : "low");
                  for (const int fd : {0, 1, 2}) {
                      out << (isOpen(fd) ? " open" : " closed");
                  }
              }));
}

TEST_F(DescriptorTest, PinnedKeepsAnOpenNumberAndGivesUpAClosedOne) {
    const Descriptor open(openSomething());
    EXPECT_EQ(open.get(), pinned(open.get()));
    EXPECT_EQ(-1, pinned(-1));
    const int closed = openSomething();
    ::close(closed);
    const int stays = pinned(closed);
    const Descriptor taker(openSomething());
    EXPECT_EQ(closed, taker.get());
    EXPECT_GE(stays, 0);
    EXPECT_FALSE(isOpen(stays));
}

} // namespace
} // namespace torva::process
