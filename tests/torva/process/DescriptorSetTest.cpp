#include "torva/process/DescriptorSet.h"

#include "ProcessFixture.h"
#include "torva/process/Descriptor.h"

#include <cerrno>
#include <sys/select.h>
#include <unistd.h>

namespace torva::process {
namespace {

using namespace testing;

class DescriptorSetTest : public ProcessTest {};

TEST_F(DescriptorSetTest, HoldsWhatWasAddedUntilCleared) {
    DescriptorSet set;
    for (const int fd : {0, 31, 32, 63, 64, 1023, 1024, 16383}) {
        EXPECT_FALSE(set.contains(fd)) << fd;
        set.add(fd);
        EXPECT_TRUE(set.contains(fd)) << fd;
    }
    for (const int fd : {1, 30, 33, 65, 1022, 1025, 16382}) {
        EXPECT_FALSE(set.contains(fd)) << fd;
    }
    set.clear();
    EXPECT_FALSE(set.contains(1024));
}

TEST_F(DescriptorSetTest, DescriptorOutsideTheSetIsRefusedAsBadForSelect) {
    DescriptorSet set;
    for (const int fd : {-1, 16384, 20000}) {
        EXPECT_EQ(systemError("select", EBADF), thrownBy([&] { set.add(fd); })) << fd;
        EXPECT_FALSE(set.contains(fd)) << fd;
    }
}

TEST_F(DescriptorSetTest, SelectReadsAndWritesTheBitsOfTheDescriptors) {
    PipeEnds empty = openPipe("pipe");
    PipeEnds filled = openPipe("pipe");
    ASSERT_EQ(1, ::write(filled.write.get(), "x", 1));
    DescriptorSet readable;
    readable.add(empty.read.get());
    readable.add(filled.read.get());
    timeval atOnce = {};
    EXPECT_EQ(1, ::select(DescriptorSet::capacity, readable.raw(), nullptr, nullptr, &atOnce));
    EXPECT_FALSE(readable.contains(empty.read.get()));
    EXPECT_TRUE(readable.contains(filled.read.get()));
}

} // namespace
} // namespace torva::process
