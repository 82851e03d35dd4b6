#include "app/TablesPhase.h"

#include <boost/filesystem/exception.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <typeinfo>
#include <unistd.h>

using torva::app::ensureDirectory;

namespace {

class EnsureDirectoryTest : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/ensure-directory-XXXXXX";
        ASSERT_NE(::mkdtemp(name), nullptr);
        top_ = name;
    }
    void TearDown() override {
        ::unlink((top_ + "/file").c_str());
        ::unlink((top_ + "/link").c_str());
        for (const char* directory : {"/a/b/c", "/a/b", "/a", ""}) {
            ::rmdir((top_ + directory).c_str());
        }
    }

    std::string makeFile() const {
        std::ofstream(top_ + "/file").put('x');
        return top_ + "/file";
    }

    std::string top_;
};

bool isDirectory(const std::string& path) {
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// What is thrown: exactly that type, with the code, and the text that users see.
void expectError(const std::string& path, int code, const std::string& reason) {
    try {
        ensureDirectory(path);
        ADD_FAILURE() << "no error for " << path;
    } catch (const boost::filesystem::filesystem_error& error) {
        EXPECT_EQ(typeid(error), typeid(boost::filesystem::filesystem_error));
        EXPECT_EQ(error.code(), boost::system::error_code(code, boost::system::system_category()));
        EXPECT_EQ(error.path1(), path);
        EXPECT_EQ(error.what(),
                  "boost::filesystem::create_directories: " + reason + ": \"" + path + "\"");
    }
}

TEST_F(EnsureDirectoryTest, EveryMissingDirectoryOnTheWayIsMade) {
    ensureDirectory(top_ + "/a/b/c");
    EXPECT_TRUE(isDirectory(top_ + "/a/b/c"));
}

TEST_F(EnsureDirectoryTest, UmaskAloneDecidesTheModeOfAMadeDirectory) {
    for (const mode_t mask : {0U, 022U, 077U}) {
        const std::string directory = top_ + "/" + std::to_string(mask);
        const mode_t before = ::umask(mask);
        ensureDirectory(directory + "/below");
        ::umask(before);
        struct stat status = {};
        for (const std::string& path : {directory, directory + "/below"}) {
            ASSERT_EQ(::stat(path.c_str(), &status), 0);
            EXPECT_EQ(status.st_mode, S_IFDIR | (0777U & ~mask)) << path;
        }
    }
}

TEST_F(EnsureDirectoryTest, DirectoryThatIsThereIsNoErrorNorIsALinkToOne) {
    ensureDirectory(top_);
    ASSERT_EQ(::symlink("/", (top_ + "/link").c_str()), 0);
    ensureDirectory(top_ + "/link");
    EXPECT_TRUE(isDirectory(top_));
}

TEST_F(EnsureDirectoryTest, DirectoryThatIsThereKeepsItsMode) {
    ASSERT_EQ(::chmod(top_.c_str(), 0710), 0);
    ensureDirectory(top_);
    struct stat status = {};
    ASSERT_EQ(::stat(top_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFDIR | 0710U);
}

TEST_F(EnsureDirectoryTest, FileInItsPlaceIsAnErrorAndStays) {
    const std::string file = makeFile();
    expectError(file, EEXIST, "File exists");
    EXPECT_FALSE(isDirectory(file));
}

TEST_F(EnsureDirectoryTest, FileOnTheWayIsAnError) {
    expectError(makeFile() + "/below", ENOTDIR, "Not a directory");
}

TEST_F(EnsureDirectoryTest, LinkToNowhereInItsPlaceIsAnError) {
    ASSERT_EQ(::symlink("/does/not/exist", (top_ + "/link").c_str()), 0);
    expectError(top_ + "/link", EEXIST, "File exists");
    expectError(top_ + "/link/below", EEXIST, "File exists");
}

TEST_F(EnsureDirectoryTest, ReasonOfTheSystemIsTold) {
    expectError("/proc/torva", ENOENT, "No such file or directory");
}

} // namespace
