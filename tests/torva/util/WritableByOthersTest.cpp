#include "torva/util/WritableByOthers.h"

#include "torva/util/TempDirectory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using torva::directoryOf;
using torva::writableByOthers;
using torva::test::TempDirectory;

TEST(WritableByOthersTest, OwnDirectoryIsWhenItsModeSaysSo) {
    const TempDirectory directory;
    const struct {
        mode_t mode;
        bool writable;
    } cases[] = {
        {0700, false}, {0755, false}, {01755, false}, {0720, true},
        {0770, true},  {0702, true},  {01777, true},  {01770, true},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(::chmod(directory.path().c_str(), c.mode), 0);
        EXPECT_EQ(writableByOthers(directory.path()), c.writable) << std::oct << c.mode;
    }
}

TEST(WritableByOthersTest, DirectoryAboveCountsUnlessItIsSticky) {
    const TempDirectory above;
    const std::string directory = above / "directory";
    ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
    ASSERT_EQ(::chmod(above.path().c_str(), 0777), 0);
    EXPECT_TRUE(writableByOthers(directory));
    ASSERT_EQ(::chmod(above.path().c_str(), 01777), 0);
    EXPECT_FALSE(writableByOthers(directory));
    EXPECT_FALSE(writableByOthers(directory + "/"));
}

TEST(WritableByOthersTest, LinkIsJudgedByWhereItLeads) {
    const TempDirectory directory;
    ASSERT_EQ(::mkdir((directory / "real").c_str(), 0700), 0);
    ASSERT_EQ(::symlink("real", (directory / "link").c_str()), 0);
    EXPECT_FALSE(writableByOthers(directory / "link"));
    ASSERT_EQ(::chmod((directory / "real").c_str(), 0777), 0);
    EXPECT_TRUE(writableByOthers(directory / "link"));
}

TEST(WritableByOthersTest, DirectoryOfAnotherAccountIsUnlessThatIsRoot) {
    const TempDirectory directory;
    EXPECT_FALSE(writableByOthers("/"));
    if (::geteuid() != 0) {
        GTEST_SKIP() << "not root: no directory can be given away";
    }
    ASSERT_EQ(::chown(directory.path().c_str(), 65534, 0), 0);
    EXPECT_TRUE(writableByOthers(directory.path()));
}

TEST(WritableByOthersTest, WhatCannotBeLookedAtIs) {
    const TempDirectory directory;
    EXPECT_TRUE(writableByOthers(directory / "missing"));
}

TEST(WritableByOthersTest, DirectoryOfAPathIsWhatItsLastNameStandsIn) {
    EXPECT_EQ(directoryOf("/a/b"), "/a/");
    EXPECT_EQ(directoryOf("/a"), "/");
    EXPECT_EQ(directoryOf("a/b"), "a/");
    EXPECT_EQ(directoryOf("a"), ".");
}
