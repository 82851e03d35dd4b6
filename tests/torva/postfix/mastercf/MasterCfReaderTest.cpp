#include "torva/postfix/mastercf/MasterCfReader.h"

#include "Support.h"
#include "SystemCallLog.h"
#include "torva/util/PostfixError.h"

#include <gmock/gmock.h>

#include <typeinfo>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace torva::mail::postfix::testing {
namespace {

using ::testing::ElementsAre;

class MasterCfReaderTest : public ::testing::Test {
protected:
    /// The error of reading; its class is checked, not just its base class.
    static std::string refusalOf(const std::string& path) {
        MasterCfLines lines;
        try {
            MasterCfReader::read(path, lines);
        } catch (const PostfixConfigurationError& error) {
            EXPECT_EQ(typeid(error), typeid(PostfixConfigurationError));
            return error.what();
        }
        return "read";
    }

    const TempDir directory_;
    const std::string path_ = directory_ / "master.cf";
};

TEST_F(MasterCfReaderTest, ReadsLinesAndServices) {
    fill(path_, "# c\nsmtp inet n - n - - smtpd\n");
    MasterCfLines lines;
    MasterCfReader::read(path_, lines);
    EXPECT_THAT(linesOf(lines), ElementsAre("# c", "smtp inet n - n - - smtpd", ""));
    EXPECT_TRUE(lines.contains({"smtp", ModuleType::inet}));
}

TEST_F(MasterCfReaderTest, ReadsAFileThatEndsWithAPage) {
    const std::string text(static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) * 2, '#');
    fill(path_, text);
    MasterCfLines lines;
    MasterCfReader::read(path_, lines);
    EXPECT_THAT(linesOf(lines), ElementsAre(text));
}

TEST_F(MasterCfReaderTest, FollowsASymbolicLink) {
    fill(directory_ / "real", "# c");
    ASSERT_EQ(::symlink("real", path_.c_str()), 0);
    EXPECT_EQ(refusalOf(path_), "read");
}

TEST_F(MasterCfReaderTest, MissingFileCannotBeOpened) {
    EXPECT_EQ(refusalOf(path_), "unable to open " + path_);
}

TEST_F(MasterCfReaderTest, EmptyFileCannotBeOpened) {
    fill(path_, "");
    EXPECT_EQ(refusalOf(path_), "unable to open " + path_);
}

TEST_F(MasterCfReaderTest, DirectoryCannotBeOpened) {
    EXPECT_EQ(refusalOf(directory_.path()), "unable to open " + directory_.path());
}

TEST_F(MasterCfReaderTest, FifoCannotBeOpenedAndDoesNotHang) {
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(refusalOf(path_), "unable to open " + path_);
}

TEST_F(MasterCfReaderTest, DeviceCannotBeOpened) {
    EXPECT_EQ(refusalOf("/dev/null"), "unable to open /dev/null");
    EXPECT_EQ(refusalOf("/dev/zero"), "unable to open /dev/zero");
}

TEST_F(MasterCfReaderTest, SocketCannotBeOpened) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path_.size(), sizeof(address.sun_path));
    path_.copy(address.sun_path, path_.size());
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ::close(fd);
    EXPECT_EQ(refusalOf(path_), "unable to open " + path_);
}

TEST_F(MasterCfReaderTest, UnreadableFileCannotBeOpened) {
    fill(path_, "# c");
    ASSERT_EQ(::chmod(path_.c_str(), 0), 0);
    ASSERT_EQ(::chmod(directory_.path().c_str(), 0755), 0);
    // Root reads every file: use another account meanwhile.
    const uid_t self = ::geteuid();
    if (self == 0) {
        ASSERT_EQ(::seteuid(65534), 0);
    }
    const std::string refusal = refusalOf(path_);
    ASSERT_EQ(::seteuid(self), 0);
    EXPECT_EQ(refusal, "unable to open " + path_);
}

TEST_F(MasterCfReaderTest, FileThatIsNotWhollyInItsSyntaxCannotBeParsed) {
    fill(path_, "# c\nSMTP inet n - n - - smtpd\n");
    EXPECT_EQ(refusalOf(path_), "unable to parse " + path_);
}

TEST_F(MasterCfReaderTest, WhatStoodBeforeTheFailureStaysInTheTarget) {
    fill(path_, "# c\nsmtp inet n - n - - smtpd # c\n");
    MasterCfLines lines;
    EXPECT_THROW(MasterCfReader::read(path_, lines), PostfixConfigurationError);
    EXPECT_THAT(linesOf(lines), ElementsAre("# c", "smtp inet n - n - - smtpd "));
}

TEST_F(MasterCfReaderTest, TheFileIsLeftAsItIs) {
    const std::string text = "smtp inet n - n - - smtpd";
    fill(path_, text);
    ASSERT_EQ(::chmod(path_.c_str(), 0400), 0);
    EXPECT_EQ(refusalOf(path_), "read");
    EXPECT_EQ(contentOfFile(path_), text);
    EXPECT_EQ(entriesOf(directory_.path()), 1U);
}

TEST_F(MasterCfReaderTest, NoDescriptorStaysOpenHoweverItEnds) {
    fill(path_, "# c");
    fill(directory_ / "broken", "X");
    fill(directory_ / "empty", "");
    ASSERT_EQ(::mkfifo((directory_ / "fifo").c_str(), 0600), 0);
    const std::size_t before = entriesOf("/proc/self/fd");
    refusalOf(path_);
    for (const char* name : {"broken", "empty", "fifo", "missing"}) {
        EXPECT_THAT(refusalOf(directory_ / name), ::testing::StartsWith("unable to ")) << name;
    }
    refusalOf(directory_.path());
    EXPECT_EQ(entriesOf("/proc/self/fd"), before);
}

TEST_F(MasterCfReaderTest, FileIsNeverOpenAsAStandardStream) {
    fill(path_, "# c");
    EXPECT_EQ(withoutStandardStreams([&] {
                  const SystemCallLog log;
                  const bool read = refusalOf(path_) == "read";
                  const bool compared = MasterCfReader::content(path_) == "# c";
                  return log.calls().empty() && read && compared ? 0 : 1;
              }),
              0);
}

TEST_F(MasterCfReaderTest, NoMappingStaysHoweverItEnds) {
    fill(path_, "# c");
    fill(directory_ / "broken", "X");
    refusalOf(path_);
    refusalOf(directory_ / "broken");
    EXPECT_THAT(contentOfFile("/proc/self/maps"),
                ::testing::Not(::testing::HasSubstr(directory_.path())));
}

} // namespace
} // namespace torva::mail::postfix::testing
