// A disk that is really full.
#include "torva/util/TmpFile.h"

#include "torva/util/AutocleanOFStream.h"
#include "torva/util/SystemError.h"
#include "torva/util/TempDirectory.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/mount.h>

using torva::SystemError;
using torva::TmpFile;
using torva::test::readFile;
using torva::test::TempDirectory;
using torva::test::writeFile;

namespace {

class FullDiskSandboxTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("TORVA_SANDBOX"), nullptr) << "outside scripts/sandbox";
        if (::mount("none", directory.path().c_str(), "tmpfs", 0, "size=64k") != 0) {
            GTEST_SKIP() << "no tmpfs can be mounted here";
        }
    }
    void TearDown() override { ::umount2(directory.path().c_str(), MNT_DETACH); }

    const TempDirectory directory;
};

} // namespace

TEST_F(FullDiskSandboxTest, TheTargetKeepsItsContentAndNoTemporaryFileStays) {
    const std::string target = directory / "master.cf";
    writeFile(target, "old\n");
    for (const std::size_t size : {std::size_t{70000}, std::size_t{1} << 20}) {
        try {
            TmpFile file(target + ".");
            file << std::string(size, 'x');
            file.commit();
            ADD_FAILURE();
        } catch (const SystemError& error) {
            EXPECT_STREQ(error.what(), "write: No space left on device");
        }
        EXPECT_EQ(readFile(target), "old\n");
        EXPECT_EQ(directory.names(), std::set<std::string>{"master.cf"});
    }
}

TEST_F(FullDiskSandboxTest, AScratchStreamTellsByItsStateAndIsRemoved) {
    {
        torva::AutocleanOFStream stream(directory / "scratch");
        stream << std::string(70000, 'x');
        stream.close();
        EXPECT_TRUE(stream.fail());
    }
    EXPECT_TRUE(directory.names().empty());
}
