// Creating tables.
#include "TablesFixture.h"
#include "support/FakeTool.h"
#include "torva/libc/Child.h"
#include "torva/libc/SyscallFault.h"
#include "torva/postfix/tables/CreateTable.h"
#include "torva/postfix/tables/Postmap.h"
#include "torva/util/FileLock.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mount.h>

using namespace torva::mail::postfix;
using namespace torva::test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace {

using CreateTableTest = TablesTest;

TEST_F(CreateTableTest, FailedCreationLeavesNoHalfMadeIndex) {
    const FakeTool fake(postmap, "touch /var/spool/postfix/torva/__db.virtual.db; exit 1");
    EXPECT_THROW(createTable(table, {}), PostfixDatabaseError);
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual"));
}

TEST_F(CreateTableTest, CreatedTableIsEmptyAndReadable) {
    ::umask(077);
    createTable(table, {});
    ::umask(022);
    EXPECT_THAT(dumpTable(table), IsEmpty());
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
    struct stat status = {};
    ASSERT_EQ(::stat(source.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
    EXPECT_EQ(status.st_size, 0);
}

TEST_F(CreateTableTest, CreatedTableHoldsTheGivenRecordsAndNothingElse) {
    writeFile(source, "old record\n");
    rebuildTable(table);
    createTable(table, {{"alpha", "one"}, {"beta", "two, three"}});
    EXPECT_EQ(contentOf(source), "alpha one\nbeta two, three\n");
    EXPECT_THAT(dumpTable(table),
                UnorderedElementsAre(Pair("alpha", "one"), Pair("beta", "two, three")));
}

TEST_F(CreateTableTest, CreatingAgainEmptiesTheTable) {
    createTable(table, {{"alpha", "one"}});
    createTable(table, {});
    EXPECT_EQ(contentOf(source), "");
    EXPECT_THAT(dumpTable(table), IsEmpty());
}

TEST_F(CreateTableTest, IndexThatAKilledCreationLeftHalfMadeDoesNotKeepItFromBeingMade) {
    writeFile(directory + "/__db.virtual.db", "");
    createTable(table, {{"alpha", "one"}});
    EXPECT_THAT(dumpTable(table), ElementsAre(Pair("alpha", "one")));
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
}

TEST_F(CreateTableTest, LockHeldElsewhereEndsTheCreationAndNeverEmptiesTheTable) {
    createTable(table, {{"alpha", "one"}});
    const torva::FileLock held(source, torva::LockMode::wait);
    EXPECT_EQ(messageOf<std::runtime_error>([] { createTable(table, {}); }),
              "lock(" + source + ") failed: file is already locked");
    EXPECT_EQ(contentOf(source), "alpha one\n");
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
}

TEST_F(CreateTableTest, MissingDirectoryEndsTheCreationWithThePath) {
    EXPECT_EQ(messageOf<PostfixDatabaseError>([] { createTable("hash:/var/nowhere/t", {}); }),
              std::string("unable to write /var/nowhere/t: ") + std::strerror(ENOENT));
}

TEST_F(CreateTableTest, FailedRenameLeavesTheScratchFileNowhere) {
    ASSERT_EQ(::mkdir(source.c_str(), 0755), 0);
    EXPECT_THAT(messageOf<PostfixDatabaseError>([] {
                    createTable(table, {{"a", "b"}});
                }),
                StartsWith("unable to write " + source + ": "));
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual"));
    ASSERT_EQ(::rmdir(source.c_str()), 0);
}

TEST_F(CreateTableTest, FailedPostmapLeavesTheScratchFileNowhere) {
    const FakeTool fake(postmap, "exit 1");
    EXPECT_THROW(createTable(table, {{"a", "b"}}), PostfixDatabaseError);
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual"));
}

TEST_F(CreateTableTest, PostmapThatCannotBeStartedLeavesTheNewSource) {
    const FakeTool fake(postmap, "");
    ASSERT_EQ(::unlink(postmap), 0);
    writeFile(source, "old record\n");
    EXPECT_THROW(createTable(table, {{"a", "b"}}), torva::SystemError);
    EXPECT_EQ(contentOf(source), "a b\n");
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual"));
}

TEST_F(CreateTableTest, FullDiskLeavesTheOldSourceWhole) {
    if (::mount("tmpfs", directory.c_str(), "tmpfs", 0, "size=16k") != 0) {
        GTEST_SKIP() << "no tmpfs here: " << std::strerror(errno);
    }
    writeFile(source, "old record\n");
    Records records;
    for (int i = 0; i < 2000; ++i) {
        records.emplace_back("key" + std::to_string(i), "a value that takes some room");
    }
    EXPECT_EQ(messageOf<PostfixDatabaseError>([&] { createTable(table, records); }),
              "unable to write " + source + ": " + std::strerror(ENOSPC));
    EXPECT_EQ(contentOf(source), "old record\n");
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual"));
    EXPECT_EQ(::umount(directory.c_str()), 0);
}

/// A creation in a child whose system call fails: reports the error, and changes nothing.
void expectOldSourceAfter(long failingCall, int error) {
    writeFile(source, "old record\n");
    const Outcome outcome = inChild([failingCall, error] {
        if (!failSyscall(failingCall, error)) {
            return static_cast<int>(noFilters);
        }
        std::printf("%s", messageOf<PostfixDatabaseError>([] {
                              createTable(table, {{"a", "b"}});
                          }).c_str());
        return 0;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.out, "unable to write " + source + ": " + std::strerror(error));
    EXPECT_EQ(contentOf(source), "old record\n");
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual"));
}

TEST_F(CreateTableTest, ErrorThatOnlyCloseReportsLeavesTheOldSource) {
    expectOldSourceAfter(SYS_close, ENOSPC);
}

TEST_F(CreateTableTest, ModeThatCannotBeSetLeavesTheOldSource) {
    expectOldSourceAfter(SYS_fchmod, EPERM);
}

TEST_F(CreateTableTest, WithClosedStandardStreamsNoneOfThemBecomesTheScratchFile) {
    const FakeTool fake(postmap, "");
    const Outcome outcome = inChild([] {
        ::close(0);
        ::close(1);
        ::close(2);
        createTable(table, {{"a", "b"}});
        return ::fcntl(0, F_GETFD) == -1 && ::fcntl(1, F_GETFD) == -1 ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(contentOf(source), "a b\n");
}

TEST_F(CreateTableTest, NoDescriptorStaysOpenHoweverItEnds) {
    const auto before = openDescriptors();
    createTable(table, {{"a", "b"}});
    {
        const FakeTool fake(postmap, "exit 1");
        EXPECT_THROW(createTable(table, {}), PostfixDatabaseError);
    }
    EXPECT_THROW(createTable("hash:/var/nowhere/t", {}), PostfixDatabaseError);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(CreateTableTest, LinkIsReplacedItselfAndWhatItLeadsToIsKept) {
    const std::string elsewhere = "/var/spool/postfix/elsewhere";
    writeFile(elsewhere, "old record\n");
    ASSERT_EQ(::symlink("../elsewhere", source.c_str()), 0);
    createTable(table, {{"a", "b"}});
    EXPECT_TRUE(S_ISREG(statusOf(source).st_mode));
    EXPECT_EQ(contentOf(source), "a b\n");
    EXPECT_EQ(contentOf(elsewhere), "old record\n");
    ::unlink(elsewhere.c_str());
}

} // namespace
