// The writer takes its lock below /var/lock, hence the sandbox.
#include "torva/postfix/mastercf/MasterCfWriter.h"

#include "SampleMasterCf.h"
#include "Sandboxed.h"
#include "SystemCallLog.h"
#include "torva/postfix/mastercf/MasterCfReader.h"
#include "torva/util/FileLock.h"
#include "torva/util/SystemError.h"

#include <boost/filesystem.hpp>
#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <typeinfo>
#include <unistd.h>

namespace torva::mail::postfix::testing {
namespace {

using boost::filesystem::filesystem_error;
using ::testing::ElementsAre;
using ::testing::StartsWith;

class MasterCfWriterSandboxTest : public SandboxedTest {
protected:
    void write(const std::vector<std::string>& texts) const { writeTo(path_, texts); }

    /// The old file is unchanged, byte for byte, and there is no other.
    void expectOldFileAlone() const {
        EXPECT_EQ(contentOfFile(path_), oldText);
        EXPECT_EQ(entriesOf(directory_.path()), 1U);
    }

    void fillOld() const { fill(path_, oldText); }

    mode_t modeOf(const std::string& path) const {
        struct stat status {};
        EXPECT_EQ(::stat(path.c_str(), &status), 0);
        return status.st_mode & 07777;
    }

    const std::string oldText = "# the old file\n";
};

TEST_F(MasterCfWriterSandboxTest, EmptyListWritesAnEmptyFile) {
    fillOld();
    write({});
    EXPECT_EQ(contentOfFile(path_), "");
}

TEST_F(MasterCfWriterSandboxTest, EmptyLastElementWritesAFileEndingInTwoNewlines) {
    write({"a", ""});
    EXPECT_EQ(contentOfFile(path_), "a\n\n");
}

TEST_F(MasterCfWriterSandboxTest, WritesEveryElementAsItIsAndOneLineFeedBehindIt) {
    write({"# c\r", "", "a\n  # b\n  -o c \t", std::string("#\0\xFF", 3)});
    EXPECT_EQ(contentOfFile(path_), std::string("# c\r\n\na\n  # b\n  -o c \t\n#\0\xFF\n", 27));
}

TEST_F(MasterCfWriterSandboxTest, UntouchedFileIsWrittenBackWithOneMoreLineFeed) {
    const std::string sample = sampleMasterCf;
    std::string crLf;
    for (const char c : sample) {
        crLf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    }
    const std::string texts[] = {sample, sample.substr(0, sample.size() - 1), crLf, "\n", "# c"};
    for (const std::string& text : texts) {
        fill(path_, text);
        MasterCfLines lines;
        MasterCfReader::read(path_, lines);
        MasterCfWriter::write(lines, path_);
        EXPECT_EQ(contentOfFile(path_), text + "\n");
    }
}

TEST_F(MasterCfWriterSandboxTest, WritesAFileThatWasNotThere) {
    write({"a"});
    EXPECT_EQ(contentOfFile(path_), "a\n");
    EXPECT_EQ(entriesOf(directory_.path()), 1U);
}

TEST_F(MasterCfWriterSandboxTest, NewFileHasMode0644WhateverTheOldOneAndTheUmaskSay) {
    for (const mode_t mode : {0600U, 0666U, 0U, 04755U}) {
        fillOld();
        ASSERT_EQ(::chmod(path_.c_str(), mode), 0);
        const mode_t umask = ::umask(mode == 0 ? 0 : 0077);
        write({"a"});
        ::umask(umask);
        EXPECT_EQ(modeOf(path_), 0644U);
    }
}

TEST_F(MasterCfWriterSandboxTest, NewFileBelongsToTheProcessWhoeverOwnedTheOldOne) {
    fillOld();
    ASSERT_EQ(::chown(path_.c_str(), 65534, 65534), 0);
    write({"a"});
    struct stat status {};
    ASSERT_EQ(::stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, ::geteuid());
    EXPECT_EQ(status.st_gid, ::getegid());
}

TEST_F(MasterCfWriterSandboxTest, ReplacesTheFileForWhomeverHasNotOpenedItYet) {
    fillOld();
    std::ifstream old(path_);
    write({"a"});
    std::string line;
    std::getline(old, line);
    EXPECT_EQ(line, "# the old file");
}

TEST_F(MasterCfWriterSandboxTest, SymbolicLinkIsReplacedItself) {
    fill(directory_ / "real", oldText);
    ASSERT_EQ(::symlink("real", path_.c_str()), 0);
    write({"a"});
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(path_)));
    EXPECT_EQ(contentOfFile(directory_ / "real"), oldText);
}

TEST_F(MasterCfWriterSandboxTest, RelativePathIsWrittenInTheWorkingDirectory) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(directory_.path());
    writeTo("master.cf", {"a"});
    std::filesystem::current_path(before);
    EXPECT_EQ(contentOfFile(path_), "a\n");
}

TEST_F(MasterCfWriterSandboxTest, StepsHaveTheirOrder) {
    const SystemCallLog log;
    write({"a"});
    std::string lockName = path_;
    std::replace(lockName.begin(), lockName.end(), '/', '_');
    EXPECT_THAT(log.calls(),
                ElementsAre("flock " + lockName, "fchmod master.cf.XXXXXX 0644", "fsync file",
                            "rename master.cf.XXXXXX master.cf", "fsync directory"));
    EXPECT_TRUE(std::filesystem::exists("/var/lock/files/" + lockName));
}

TEST_F(MasterCfWriterSandboxTest, StepsAreTheSameWithoutStandardStreams) {
    std::vector<std::string> usual;
    {
        const SystemCallLog log;
        write({"a"});
        usual = log.calls();
    }
    EXPECT_EQ(withoutStandardStreams([&] {
                  const SystemCallLog log;
                  write({"b"});
                  return log.calls() == usual ? 0 : 1;
              }),
              0);
    EXPECT_EQ(contentOfFile(path_), "b\n");
}

TEST_F(MasterCfWriterSandboxTest, AllIsWrittenAndTheLockHeldWhenTheRenameComes) {
    fillOld();
    SystemCallLog log;
    bool seen = false;
    log.before("rename", [&] {
        seen = true;
        EXPECT_EQ(contentOfFile(path_), oldText);
        for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
            if (entry.path() != path_) {
                EXPECT_EQ(contentOfFile(entry.path()), "a\nb\n");
                EXPECT_EQ(modeOf(entry.path()), 0644U);
            }
        }
        EXPECT_THROW(FileLock(path_, LockMode::fail), std::runtime_error);
    });
    write({"a", "b"});
    EXPECT_TRUE(seen);
    // And it is free again.
    EXPECT_NO_THROW(FileLock(path_, LockMode::fail));
}

TEST_F(MasterCfWriterSandboxTest, FailingRenameLeavesTheOldFileAndNamesBothPaths) {
    std::filesystem::create_directory(path_);
    fill(path_ + "/inside", "x");
    try {
        write({"a"});
        FAIL() << "a directory was replaced";
    } catch (const std::exception& error) {
        const int errnoAtCatch = errno;
        ASSERT_EQ(typeid(error), typeid(filesystem_error));
        const auto& failure = dynamic_cast<const filesystem_error&>(error);
        EXPECT_EQ(errnoAtCatch, EISDIR);
        EXPECT_EQ(failure.code().value(), EISDIR);
        EXPECT_EQ(failure.code().category(), boost::system::system_category());
        EXPECT_THAT(failure.path1().string(), StartsWith(path_ + "."));
        EXPECT_EQ(failure.path1().string().size(), path_.size() + 7);
        EXPECT_EQ(failure.path2().string(), path_);
        EXPECT_EQ(std::string(failure.what()), "rename: Is a directory: \"" +
                                                   failure.path1().string() + "\", \"" + path_ +
                                                   "\"");
    }
    EXPECT_EQ(contentOfFile(path_ + "/inside"), "x");
    EXPECT_EQ(entriesOf(directory_.path()), 1U);
    EXPECT_NO_THROW(FileLock(path_, LockMode::fail));
}

TEST_F(MasterCfWriterSandboxTest, FailingRenameOfTheSystemLeavesTheOldFile) {
    fillOld();
    SystemCallLog log;
    log.fail("rename", EIO);
    EXPECT_THAT(messageOf<filesystem_error>([&] { write({"a"}); }), StartsWith("rename: "));
    expectOldFileAlone();
}

TEST_F(MasterCfWriterSandboxTest, FailingChmodLeavesTheOldFileAndNamesTheTemporaryOne) {
    fillOld();
    SystemCallLog log;
    log.fail("fchmod", EPERM);
    try {
        write({"a"});
        FAIL() << "went on without its mode";
    } catch (const std::exception& error) {
        ASSERT_EQ(typeid(error), typeid(filesystem_error));
        const auto& failure = dynamic_cast<const filesystem_error&>(error);
        EXPECT_EQ(failure.code().value(), EPERM);
        EXPECT_THAT(failure.path1().string(), StartsWith(path_ + "."));
        EXPECT_TRUE(failure.path2().empty());
        EXPECT_EQ(std::string(failure.what()),
                  "chmod: Operation not permitted: \"" + failure.path1().string() + "\"");
    }
    expectOldFileAlone();
    EXPECT_THAT(log.calls(), ::testing::Not(::testing::Contains(StartsWith("rename"))));
}

TEST_F(MasterCfWriterSandboxTest, ModeGoesToTheFileThatWasWrittenWhateverHasItsNameNow) {
    fill(directory_ / "victim", "theirs");
    ASSERT_EQ(::chmod((directory_ / "victim").c_str(), 0600), 0);
    SystemCallLog log;
    log.before("fchmod", [&] {
        for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
            if (entry.path().filename() != "victim") {
                std::filesystem::remove(entry.path());
                std::filesystem::create_symlink("victim", entry.path());
            }
        }
    });
    write({"a"});
    EXPECT_EQ(modeOf(directory_ / "victim"), 0600U);
    EXPECT_EQ(contentOfFile(directory_ / "victim"), "theirs");
}

TEST_F(MasterCfWriterSandboxTest, FailingFsyncLeavesTheOldFile) {
    fillOld();
    SystemCallLog log;
    log.fail("fsync file", EIO);
    EXPECT_EQ(messageOf<SystemError>([&] { write({"a"}); }), "fsync: Input/output error");
    expectOldFileAlone();
}

TEST_F(MasterCfWriterSandboxTest, FailingFsyncOfTheDirectoryIsNoError) {
    fillOld();
    SystemCallLog log;
    log.fail("fsync directory", EIO);
    write({"a"});
    EXPECT_EQ(contentOfFile(path_), "a\n");
    EXPECT_EQ(entriesOf(directory_.path()), 1U);
}

TEST_F(MasterCfWriterSandboxTest, FullDiskLeavesTheOldFile) {
    const std::string disk = directory_ / "disk";
    std::filesystem::create_directory(disk);
    if (::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "no file system to fill up: mount: " << std::strerror(errno);
    }
    fill(disk + "/master.cf", oldText);
    // One element that does not fit, and many that do not fit together.
    const std::vector<std::string> many(3000, std::string(100, '#'));
    const std::string one(300000, '#');
    const std::string refusals[] = {
        messageOf<SystemError>([&] { writeTo(disk + "/master.cf", {one}); }),
        messageOf<SystemError>([&] { writeTo(disk + "/master.cf", many); }),
    };
    const std::string left = contentOfFile(disk + "/master.cf");
    const std::size_t entries = entriesOf(disk);
    ASSERT_EQ(::umount(disk.c_str()), 0);
    for (const std::string& refusal : refusals) {
        EXPECT_EQ(refusal, "write: No space left on device");
    }
    EXPECT_EQ(left, oldText);
    EXPECT_EQ(entries, 1U);
}

TEST_F(MasterCfWriterSandboxTest, FileSizeLimitLeavesTheOldFileAndEndsTheSteps) {
    fillOld();
    const SystemCallLog log;
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto action = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = before;
    limit.rlim_cur = 4096;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    const std::string refusal = messageOf<SystemError>([&] {
        write({std::string(5000, '#'), "b"});
    });
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    std::signal(SIGXFSZ, action);
    EXPECT_EQ(refusal, "write: File too large");
    expectOldFileAlone();
    EXPECT_THAT(log.calls(), ElementsAre(StartsWith("flock ")));
}

TEST_F(MasterCfWriterSandboxTest, MissingDirectoryHasNoPlaceForTheTemporaryFile) {
    const std::string path = directory_ / "missing/master.cf";
    EXPECT_EQ(messageOf<SystemError>([&] { writeTo(path, {"a"}); }),
              "mkstemp() failed: : No such file or directory");
    EXPECT_EQ(entriesOf(directory_.path()), 0U);
    EXPECT_NO_THROW(FileLock(path, LockMode::fail));
}

TEST_F(MasterCfWriterSandboxTest, LockThatCannotBeHadLeavesTheOldFile) {
    fillOld();
    fill("/var/lock/files", "not a directory");
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    const std::string refusal = messageOf<SystemError>([&] { write({"a"}); });
    const std::string report = ::testing::internal::GetCapturedStderr();
    ::testing::internal::GetCapturedStdout();
    std::filesystem::remove("/var/lock/files");
    EXPECT_EQ(refusal, "lock() failed: Not a directory");
    EXPECT_THAT(report, ::testing::HasSubstr("Unable to open file \"/var/lock/files/"));
    expectOldFileAlone();
}

TEST_F(MasterCfWriterSandboxTest, NoDescriptorStaysOpenHoweverItEnds) {
    fillOld();
    SystemCallLog log;
    const std::size_t before = entriesOf("/proc/self/fd");
    write({"a"});
    for (const char* call : {"rename", "fchmod", "fsync file", "flock"}) {
        log.fail(call, EIO);
        EXPECT_ANY_THROW(write({"b"})) << call;
    }
    EXPECT_ANY_THROW(writeTo(directory_ / "missing/master.cf", {"b"}));
    EXPECT_EQ(entriesOf("/proc/self/fd"), before);
    EXPECT_EQ(contentOfFile(path_), "a\n");
}

} // namespace
} // namespace torva::mail::postfix::testing
