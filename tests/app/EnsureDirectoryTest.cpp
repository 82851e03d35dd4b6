#include "app/TablesPhase.h"

#include "torva/util/TempDirectory.h"

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <string>
#include <sys/stat.h>

using torva::app::ensureDirectory;
using torva::test::TempDirectory;

namespace {

/// What the error says, "" for none.
std::string failure(const std::string& path) {
    try {
        ensureDirectory(path);
        return "";
    } catch (const boost::filesystem::filesystem_error& error) {
        EXPECT_EQ(error.path1(), path);
        return error.what();
    }
}

mode_t modeOf(const std::string& path) {
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

} // namespace

TEST(EnsureDirectoryTest, MakesWhateverIsMissingAboveIt) {
    const TempDirectory directory;
    ensureDirectory(directory / "a/b/c");
    EXPECT_TRUE(S_ISDIR(modeOf(directory / "a/b/c")));
}

TEST(EnsureDirectoryTest, ADirectoryThatIsThereStaysAsItIs) {
    const TempDirectory directory;
    ensureDirectory(directory / "a");
    ASSERT_EQ(::chmod((directory / "a").c_str(), 0710), 0);
    torva::test::writeFile(directory / "a/file", "x");
    ensureDirectory(directory / "a");
    EXPECT_EQ(modeOf(directory / "a"), S_IFDIR | 0710U);
    EXPECT_EQ(torva::test::readFile(directory / "a/file"), "x");
}

TEST(EnsureDirectoryTest, ALinkToADirectoryIsOne) {
    const TempDirectory directory;
    ensureDirectory(directory / "real");
    boost::filesystem::create_symlink("real", directory / "link");
    EXPECT_EQ(failure(directory / "link"), "");
}

TEST(EnsureDirectoryTest, WhatIsThereAndNoDirectoryIsAnErrorWithThePath) {
    const TempDirectory directory;
    torva::test::writeFile(directory / "file", "x");
    EXPECT_EQ(failure(directory / "file"),
              "boost::filesystem::create_directories: File exists: \"" + (directory / "file") +
                  "\"");
    EXPECT_EQ(torva::test::readFile(directory / "file"), "x");
}

TEST(EnsureDirectoryTest, WhatCannotBeMadeIsAnErrorWithThePath) {
    const TempDirectory directory;
    torva::test::writeFile(directory / "file", "x");
    EXPECT_EQ(failure(directory / "file/below"),
              "boost::filesystem::create_directories: Not a directory: \"" +
                  (directory / "file/below") + "\"");
}
