// What is left of a shield: after a good run of the tool, after a failing one, after a kill,
// and where there could be none.
#include "CallHooks.h"
#include "ShieldedIndexFixture.h"
#include "support/IndexHolder.h"
#include "torva/postfix/tables/ShieldedIndex.h"
#include "torva/util/FileLock.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/xattr.h>
#include <utility>

using namespace torva::mail::postfix;
using namespace torva::test;
using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;

namespace {

using ShieldedIndexEndTest = ShieldedIndexTest;

// ---- after the tool

TEST_F(ShieldedIndexEndTest, FailingToolLeavesContentModeOwnerAndTimes) {
    const FakeTool fake(postmap, "case $1 in -s) echo 'user@d.net 1';; *) exit 1;; esac");
    for (const Rebuilding& making : makings) {
        SCOPED_TRACE(making.name);
        removeAll();
        writeFile(source, "user@d.net 1\n");
        writeFile(index_, "what was in it");
        ASSERT_EQ(::chown(index_.c_str(), 0, 65534), 0);
        ASSERT_EQ(::chmod(index_.c_str(), 0604), 0);
        const timespec times[2] = {{1000000000, 1}, {1000000000, 2}};
        ASSERT_EQ(::utimensat(AT_FDCWD, index_.c_str(), times, 0), 0);
        EXPECT_ANY_THROW(making.run());
        EXPECT_EQ(contentOf(index_), "what was in it");
        EXPECT_EQ(statusOf(index_).st_mtim.tv_sec, 1000000000);
        EXPECT_EQ(statusOf(index_).st_mtim.tv_nsec, 2);
        expectModeAndOwner();
    }
}

TEST_F(ShieldedIndexEndTest, PlaceholderStaysNeitherAfterAFailureNorWhenTheToolDoesNotUseIt) {
    for (const std::string type : {"hash", "cdb"}) {
        for (const std::string end : {"exit 1", "exit 0"}) {
            SCOPED_TRACE(type + end);
            writeFile(source, "a 1\n");
            const FakeTool fake(postmap, end);
            try {
                rebuildTable(type + ":" + source);
            } catch (const PostfixConfigurationError&) { // NOLINT(bugprone-empty-catch)
            }
            EXPECT_EQ(fake.calls().size(), 1U);
            EXPECT_THAT(namesIn(directory), ElementsAre("virtual"));
        }
    }
}

TEST_F(ShieldedIndexEndTest, FileThatTheToolPutsInPlaceOfTheIndexKeepsItsOwnMode) {
    layOut();
    const FakeTool fake(postmap, "rm " + index_ + "; umask 0137; echo new > " + index_);
    rebuildTable(table);
    EXPECT_EQ(contentOf(index_), "new\n");
    EXPECT_EQ(statusOf(index_).st_mode, S_IFREG | 0640U);
}

TEST_F(ShieldedIndexEndTest, IndexThatAKillLeftClosedGetsTheModeOfANewOne) {
    for (const mode_t mode : {0644U, 0640U, 0600U}) {
        layOut();
        ASSERT_EQ(::chmod(source.c_str(), mode), 0);
        // The tool is killed, and so are we.
        EXPECT_EQ(inChild([] {
                      const FakeTool fake(postmap, "kill -KILL $PPID");
                      rebuildTable(table);
                      return 0;
                  }).exited,
                  -1);
        ::rename((std::string(postmap) + ".real").c_str(), postmap);
        EXPECT_EQ(statusOf(index_).st_mode, S_IFREG | 01600U);
        rebuildTable(table);
        EXPECT_EQ(statusOf(index_).st_mode, S_IFREG | mode);
    }
}

TEST_F(ShieldedIndexEndTest, PlaceholderThatAKillLeftIsRemoved) {
    layOut();
    writeFile(index_, "\n");
    ASSERT_EQ(::chmod(index_.c_str(), 01600), 0);
    rebuildTable(table);
    EXPECT_THAT(dumpTable(table), UnorderedElementsAre(Pair("user@d.net", "1"), Pair("new", "2")));
    EXPECT_EQ(statusOf(index_).st_mode, S_IFREG | 0644U);
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
}

TEST_F(ShieldedIndexEndTest, PlaceholderThatAKillLeftIsNoIndexToChange) {
    layOut();
    writeFile(index_, "\n");
    ASSERT_EQ(::chmod(index_.c_str(), 01600), 0);
    const ShieldedIndex index = shieldForChanges(table);
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual"));
}

TEST_F(ShieldedIndexEndTest, PlaceholderThatAKillLeftIsFollowedByOneOfOurs) {
    layOut();
    writeFile(index_, "\n");
    ASSERT_EQ(::chmod(index_.c_str(), 01600), 0);
    const std::string seen = "/var/spool/postfix/seen";
    const FakeTool fake(postmap, "stat -c %a " + index_ + " >" + seen);
    rebuildTable(table);
    EXPECT_EQ(contentOf(seen), "1600\n");
    ::unlink(seen.c_str());
}

/// Rebuilds the index. Right before the first call of that name, somebody puts a link to
/// another file in the place of the one whose name begins like that.
void expectSwapIsNoticed(const std::string& before, const std::string& beginning) {
    const std::string victim = "/var/spool/postfix/victim";
    writeFile(victim, "secret\n");
    const FakeTool fake(postmap, "exit 0");
    bool done = false;
    const CallHook hook([&](const std::string& called, const std::string&) {
        for (const std::string& name : namesIn(directory)) {
            if (called == before && !done && name.rfind(beginning, 0) == 0) {
                const std::string path = std::string(directory) + "/" + name;
                done = ::unlink(path.c_str()) == 0 && ::symlink(victim.c_str(), path.c_str()) == 0;
            }
        }
        return 0;
    });
    EXPECT_EQ(messageOf<torva::SystemError>([] { rebuildTable(table); }),
              "unable to replace " + index_ + ": File exists");
    EXPECT_TRUE(done);
    EXPECT_THAT(fake.calls(), testing::IsEmpty());
    EXPECT_EQ(contentOf(victim), "secret\n");
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
    ::unlink(victim.c_str());
}

TEST_F(ShieldedIndexEndTest, LinkThatIsSwappedInRightBeforeTheRenameNeverReachesTheTool) {
    layOut();
    expectSwapIsNoticed("rename", "virtual.db.");
}

TEST_F(ShieldedIndexEndTest, LinkThatIsSwappedInForThePlaceholderNeverReachesTheTool) {
    writeFile(source, "a 1\n");
    expectSwapIsNoticed("fchmod", "virtual.db");
}

TEST_F(ShieldedIndexEndTest, DirectoryInThePlaceOfTheIndexIsLeftToTheTool) {
    writeFile(source, "a 1\n");
    ASSERT_EQ(::mkdir(index_.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(index_.c_str(), 01777), 0);
    const FakeTool fake(postmap, "echo 'postmap: fatal: it is a directory' >&2; exit 1");
    EXPECT_EQ(messageOf<PostfixConfigurationError>([] { rebuildTable(table); }),
              "postmap: fatal: it is a directory\n");
    EXPECT_EQ(statusOf(index_).st_mode, S_IFDIR | 01777U);
    ASSERT_EQ(::rmdir(index_.c_str()), 0);
}

TEST_F(ShieldedIndexEndTest, ModeThatCannotBeGivenBackIsAnErrorAndComesWithTheNextOne) {
    layOut();
    for (const std::string call : {"chown", "chmod"}) {
        bool isRun = false;
        const CallHook hook([&](const std::string& called, const std::string&) {
            isRun = isRun || called == "rename"; // of the copy; then the tool
            return isRun && called == "f" + call ? EIO : 0;
        });
        EXPECT_EQ(messageOf<torva::SystemError>([] { rebuildTable(table); }),
                  call + ": " + std::strerror(EIO));
    }
    EXPECT_EQ(statusOf(index_).st_mode, S_IFREG | 01600U);
    rebuildTable(table);
    EXPECT_EQ(statusOf(index_).st_mode, S_IFREG | 0644U);
}

// ---- links

TEST_F(ShieldedIndexEndTest, IndexWithHardLinksOfTheAdministratorStaysOrIsNamedIfItIsLocked) {
    layOut();
    const std::string other = "/var/spool/postfix/other.db";
    ASSERT_EQ(::link(index_.c_str(), other.c_str()), 0);
    {
        const IndexHolder holder(index_);
        EXPECT_EQ(messageOf<PostfixDatabaseError>(makings[1].run),
                  index_ + " is locked by another process (fuser " + index_ + ")");
    }
    makings[1].run();
    EXPECT_EQ(statusOf(other).st_ino, statusOf(index_).st_ino);
    EXPECT_EQ(statusOf(other).st_nlink, 2U);
    expectModeAndOwner();
    ::unlink(other.c_str());
}

TEST_F(ShieldedIndexEndTest, LinkOfTheAdministratorIsFollowed) {
    layOut();
    const std::string elsewhere = "/var/spool/postfix/elsewhere.db";
    ASSERT_EQ(::rename(index_.c_str(), elsewhere.c_str()), 0);
    ASSERT_EQ(::symlink("../elsewhere.db", index_.c_str()), 0);
    EXPECT_TRUE(ends([&] {
        const IndexHolder holder(elsewhere);
        makings[1].run();
    }));
    EXPECT_TRUE(S_ISLNK(statusOf(index_).st_mode));
    EXPECT_EQ(statusOf(elsewhere).st_mode, S_IFREG | 0604U);
    EXPECT_THAT(dumpTable(table), ElementsAre(Pair("new", "2")));
    ::unlink(elsewhere.c_str());
}

TEST_F(ShieldedIndexEndTest, LinkOfTheAdministratorThatLeadsNowhereIsLeftToTheTool) {
    layOut();
    ::unlink(index_.c_str());
    ASSERT_EQ(::symlink("/no/such/directory/virtual.db", index_.c_str()), 0);
    const FakeTool fake(postmap, "echo 'postmap: fatal: nowhere' >&2; exit 1");
    EXPECT_EQ(messageOf<PostfixConfigurationError>([] { rebuildTable(table); }),
              "postmap: fatal: nowhere\n");
    EXPECT_TRUE(S_ISLNK(statusOf(index_).st_mode));
}

// ---- failures

TEST_F(ShieldedIndexEndTest, OnAFullDiskTheIndexStaysAndIsNamedIfItIsLocked) {
    layOut();
    if (::mount("tmpfs", directory.c_str(), "tmpfs", 0, "size=32k,mode=755") != 0) {
        GTEST_SKIP() << "no tmpfs here: " << std::strerror(errno);
    }
    writeFile(source, "a 1\n");
    writeFile(index_, std::string(20000, 'x'));
    ASSERT_EQ(::chmod(index_.c_str(), 0604), 0);
    const ino_t before = statusOf(index_).st_ino;
    const FakeTool fake(postmap, "exit 0");
    const auto descriptors = openDescriptors();
    {
        const IndexHolder holder(index_);
        EXPECT_EQ(messageOf<torva::SystemError>([] { rebuildTable(table); }),
                  "unable to replace " + index_ + ": " + std::strerror(ENOSPC));
        EXPECT_EQ(fake.calls().size(), 0U);
    }
    EXPECT_EQ(openDescriptors(), descriptors);
    rebuildTable(table);
    EXPECT_EQ(fake.calls().size(), 1U) << "left to the tool";
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(statusOf(index_).st_ino, before);
    EXPECT_EQ(statusOf(index_).st_mode, S_IFREG | 0604U);
    EXPECT_EQ(contentOf(index_), std::string(20000, 'x'));
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));

    ::unlink(index_.c_str());
    writeFile(directory + "/filling", std::string(28672, 'x'));
    rebuildTable(table);
    EXPECT_EQ(fake.calls().size(), 2U) << "left to the tool";
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_THAT(namesIn(directory), ElementsAre("filling", "virtual"));
    EXPECT_EQ(::umount(directory.c_str()), 0);
}

TEST_F(ShieldedIndexEndTest, CallThatFailsLeavesTheIndexAndNothingElse) {
    for (const std::string call : {"fchmod", "rename", "read"}) {
        SCOPED_TRACE(call);
        layOut();
        const ino_t before = statusOf(index_).st_ino;
        const FakeTool fake(postmap, "exit 0");
        bool fails = true; // once
        const CallHook hook([&](const std::string& called, const std::string&) {
            return called == call && std::exchange(fails, false) ? EIO : 0;
        });
        rebuildTable(table);
        EXPECT_FALSE(fails);
        EXPECT_EQ(fake.calls().size(), 1U) << "its lock is free: the tool may do without";
        {
            const IndexHolder holder(index_);
            fails = true;
            EXPECT_EQ(messageOf<torva::SystemError>([] { rebuildTable(table); }),
                      "unable to replace " + index_ + ": " + std::strerror(EIO));
        }
        EXPECT_EQ(fake.calls().size(), 1U);
        EXPECT_EQ(statusOf(index_).st_ino, before);
        expectModeAndOwner();
    }
}

TEST_F(ShieldedIndexEndTest, IndexOnWhichAFileIsMountedIsMadeAnewInPlace) {
    layOut();
    const std::string other = "/var/spool/postfix/other.db";
    writeFile(other, contentOf(index_));
    if (::mount(other.c_str(), index_.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "nothing can be mounted here: " << std::strerror(errno);
    }
    makings[1].run();
    EXPECT_THAT(dumpTable(table), ElementsAre(Pair("new", "2")));
    EXPECT_EQ(statusOf(other).st_ino, statusOf(index_).st_ino);
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
    EXPECT_EQ(::umount(index_.c_str()), 0);
    ::unlink(other.c_str());
}

TEST_F(ShieldedIndexEndTest, EvenAnEmptyFileThatTheToolMakesStays) {
    writeFile(source, "a 1\n");
    const FakeTool fake(postmap, ": > " + index_);
    rebuildTable(table);
    EXPECT_EQ(contentOf(index_), "");
    EXPECT_EQ(statusOf(index_).st_mode, S_IFREG | 0644U);
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
}

TEST_F(ShieldedIndexEndTest, ExtendedAttributesStay) {
    layOut();
    const std::string told = "of the administrator";
    ASSERT_EQ(::setxattr(index_.c_str(), "trusted.torva", told.data(), told.size(), 0), 0);
    makings[1].run();
    std::string value(100, '\0');
    const ssize_t size = ::getxattr(index_.c_str(), "trusted.torva", value.data(), value.size());
    ASSERT_GT(size, 0) << std::strerror(errno);
    EXPECT_EQ(value.substr(0, static_cast<std::size_t>(size)), told);
    expectModeAndOwner();
}

TEST_F(ShieldedIndexEndTest, PlaceholderThatCannotBeClosedToOthersIsRemoved) {
    writeFile(source, "a 1\n");
    const FakeTool fake(postmap, "exit 0");
    const CallHook hook(
        [](const std::string& called, const std::string&) { return called == "fchmod" ? EIO : 0; });
    EXPECT_EQ(messageOf<torva::SystemError>([] { rebuildTable(table); }),
              "unable to replace " + index_ + ": " + std::strerror(EIO));
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual"));
}

TEST_F(ShieldedIndexEndTest, IndexOfAnotherTypeIsLeftAlone) {
    writeFile(source, "a 1\n");
    writeFile(source + ".pag", "index");
    const ino_t before = statusOf(source + ".pag").st_ino;
    const FakeTool fake(postmap, "stat -c %a " + source + ".pag > " + told_);
    const mode_t mode = statusOf(source + ".pag").st_mode & 0777;
    rebuildTable("sdbm:" + source);
    EXPECT_EQ(std::stoul(told(), nullptr, 8), mode);
    EXPECT_EQ(statusOf(source + ".pag").st_ino, before);
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.pag"));
}

TEST_F(ShieldedIndexEndTest, ShieldForChangesDoesNotKeepTheLockOfTheTable) {
    layOut();
    const ShieldedIndex shield = shieldForChanges(table);
    EXPECT_NO_THROW(torva::FileLock(source, torva::LockMode::fail));
    EXPECT_EQ(statusOf(index_).st_mode, S_IFREG | 01600U);
}

TEST_F(ShieldedIndexEndTest, IndexThatStaysIsNotShieldedWhenThereIsNoneOrItIsEmpty) {
    writeFile(source, "a 1\n");
    { shieldForChanges(table); }
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual"));
    writeFile(index_, "");
    const ino_t before = statusOf(index_).st_ino;
    { shieldForChanges(table); }
    EXPECT_EQ(statusOf(index_).st_ino, before);
}

} // namespace
