#include "torva/util/FilesystemError.h"

#include "torva/util/Demangle.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <typeinfo>

using boost::filesystem::filesystem_error;
using torva::DemangledName;
using torva::filesystemError;

namespace {

/// What arrives where the error is caught.
template <class Call>
filesystem_error thrown(Call call) {
    try {
        throw call();
    } catch (const filesystem_error& error) {
        EXPECT_STREQ(DemangledName(typeid(error).name()).get(),
                     "boost::filesystem::filesystem_error");
        return error;
    }
}

TEST(FilesystemErrorTest, OnePathIsInTheTextAndTheCodeIsTheSystems) {
    const auto error = thrown([] { return filesystemError("chmod", "/a b/c", EROFS); });
    EXPECT_STREQ(error.what(), "chmod: Read-only file system: \"/a b/c\"");
    EXPECT_EQ(error.code(), boost::system::error_code(EROFS, boost::system::system_category()));
    EXPECT_EQ(error.path1(), "/a b/c");
}

TEST(FilesystemErrorTest, TwoPathsAreInTheTextInTheirOrder) {
    const auto error = thrown([] { return filesystemError("rename", "/from", "/to", EXDEV); });
    EXPECT_STREQ(error.what(), "rename: Invalid cross-device link: \"/from\", \"/to\"");
    EXPECT_EQ(error.code(), boost::system::error_code(EXDEV, boost::system::system_category()));
    EXPECT_EQ(error.path1(), "/from");
    EXPECT_EQ(error.path2(), "/to");
}

TEST(FilesystemErrorTest, TheTextStaysWhenAskedForTwice) {
    const auto error = filesystemError("rename", "/from", "/to", EACCES);
    const std::string first = error.what();
    EXPECT_EQ(error.what(), first);
}

} // namespace
