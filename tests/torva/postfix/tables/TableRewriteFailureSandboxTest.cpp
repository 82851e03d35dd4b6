// "As before" after a rewrite that failed: content, owner, mode, times, links; and what a
// good one keeps.
#include "CallHooks.h"
#include "TablesFixture.h"
#include "support/FakeTool.h"
#include "torva/postfix/tables/CreateTable.h"
#include "torva/postfix/tables/Postmap.h"
#include "torva/postfix/tables/TableRewrite.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <utility>

using namespace torva::mail::postfix;
using namespace torva::test;
using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;

namespace {

/// Everything that must be as before; the change time and the current access time are
/// not settable.
struct Seen {
    explicit Seen(const std::string& path) : status(statusOf(path)), content(contentOf(path)) {}

    struct stat status;
    std::string content;
};

void expectSame(const Seen& now, const Seen& before) {
    EXPECT_TRUE(now.content == before.content);
    EXPECT_EQ(now.status.st_mode, before.status.st_mode);
    EXPECT_EQ(now.status.st_uid, before.status.st_uid);
    EXPECT_EQ(now.status.st_gid, before.status.st_gid);
    EXPECT_EQ(now.status.st_nlink, before.status.st_nlink);
    EXPECT_EQ(now.status.st_mtim.tv_sec, before.status.st_mtim.tv_sec);
    EXPECT_EQ(now.status.st_mtim.tv_nsec, before.status.st_mtim.tv_nsec);
}

/// The first bytes of a file, or those from an offset.
std::string headOf(const std::string& path, off_t offset = 0) {
    std::string head(20000, '\0');
    std::ifstream stream(path);
    stream.seekg(offset);
    stream.read(head.data(), static_cast<std::streamsize>(head.size()));
    return head;
}

void makeOld(const std::string& path, time_t age) {
    const timespec times[2] = {{age, 1}, {age, 2}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

class TableRewriteFailureTest : public TablesTest {
protected:
    void SetUp() override {
        TablesTest::SetUp();
        createTable(table, {{"user@d.net", "a@e.net"}, {"user@e.net", "a@d.net, b@e.net"}});
        ASSERT_EQ(::chown(source.c_str(), 0, 65534), 0);
        ASSERT_EQ(::chmod(source.c_str(), 0640), 0);
        ASSERT_EQ(::chown(index_.c_str(), 0, 65534), 0);
        ASSERT_EQ(::chmod(index_.c_str(), 0604), 0);
        makeOld(source, 1000000000);
        makeOld(index_, 1000000007);
    }

    static void removeDomain() { removeDomainFromTable(table, "d.net", false); }

    /// The removal fails, and everything is as before, even the files themselves: the index
    /// until a copy takes its place for the rebuild.
    template <class Error>
    std::string expectAllAsBefore(bool indexReplaced) {
        const Seen sourceBefore(source);
        const Seen indexBefore(index_);
        const std::string message = messageOf<Error>(&removeDomain);
        EXPECT_NE(message, "no error");
        const Seen sourceNow(source);
        const Seen indexNow(index_);
        expectSame(sourceNow, sourceBefore);
        expectSame(indexNow, indexBefore);
        EXPECT_EQ(sourceNow.status.st_ino, sourceBefore.status.st_ino);
        EXPECT_EQ(indexNow.status.st_ino != indexBefore.status.st_ino, indexReplaced);
        EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
        return message;
    }

    const std::string failingRebuild_ =
        "case $1 in -s) exec \"$REAL\" \"$@\";; esac\n: > " + index_ + "\nexit 1";
};

TEST_F(TableRewriteFailureTest, FailedListingTouchesNothing) {
    const FakeTool fake(postmap, "exit 1");
    expectAllAsBefore<PostfixConfigurationError>(false);
}

TEST_F(TableRewriteFailureTest, FailedRebuildBringsBothBack) {
    const FakeTool fake(postmap, failingRebuild_);
    expectAllAsBefore<PostfixConfigurationError>(true);
}

TEST_F(TableRewriteFailureTest, RebuildThatFailsBeforeItTouchesTheIndexLeavesIt) {
    const FakeTool fake(postmap, "case $1 in -s) exec \"$REAL\" \"$@\";; esac\nexit 1");
    expectAllAsBefore<PostfixConfigurationError>(true);
}

TEST_F(TableRewriteFailureTest, RebuildThatCannotBeStartedLeavesTheIndex) {
    const FakeTool fake(postmap, "rm /usr/sbin/postmap; exec \"$REAL\" \"$@\"");
    expectAllAsBefore<torva::SystemError>(true);
}

TEST_F(TableRewriteFailureTest, EveryCallThatFailsBeforeTheRebuildLeavesAllAlone) {
    for (const std::string call : {"fchown", "fchmod", "rename"}) {
        for (int nth = 1; nth <= (call == "rename" ? 1 : 2); ++nth) {
            SCOPED_TRACE(call + std::to_string(nth));
            int left = nth;
            const CallHook hook([&](const std::string& called, const std::string&) {
                return called == call && --left == 0 ? EIO : 0;
            });
            const std::string message = expectAllAsBefore<torva::SystemError>(false);
            const std::string name = call == "rename" ? call : call.substr(1);
            EXPECT_EQ(message, name + ": Input/output error");
            EXPECT_LE(left, 0);
        }
    }
}

TEST_F(TableRewriteFailureTest, FailedRebuildLeavesNoHalfMadeIndex) {
    const FakeTool fake(postmap, "case $1 in -s) exec \"$REAL\" \"$@\";; esac\ntouch " + directory +
                                     "/__db.virtual.db; exit 1");
    expectAllAsBefore<PostfixConfigurationError>(true);
}

TEST_F(TableRewriteFailureTest, OtherNamesOfTheSourceAreItsOwnAgain) {
    const std::string other = "/var/spool/postfix/other";
    ASSERT_EQ(::link(source.c_str(), other.c_str()), 0);
    const FakeTool fake(postmap, failingRebuild_);
    expectAllAsBefore<PostfixConfigurationError>(true);
    EXPECT_EQ(statusOf(other).st_ino, statusOf(source).st_ino);
    ::unlink(other.c_str());
}

TEST_F(TableRewriteFailureTest, SourceThatCannotHaveASecondNameComesBackAsACopy) {
    for (const int error : {EPERM, EMLINK}) {
        SCOPED_TRACE(error);
        const CallHook hook([error](const std::string& called, const std::string&) {
            return called == "link" ? error : 0;
        });
        const FakeTool fake(postmap, failingRebuild_);
        const Seen before(source);
        EXPECT_THROW(removeDomain(), PostfixConfigurationError);
        const Seen now(source);
        expectSame(now, before);
        EXPECT_NE(now.status.st_ino, before.status.st_ino);
        EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
    }
}

TEST_F(TableRewriteFailureTest, SourceThatCannotHaveASecondNameIsRewrittenAsAnyOther) {
    const CallHook hook(
        [](const std::string& called, const std::string&) { return called == "link" ? EPERM : 0; });
    removeDomain();
    EXPECT_EQ(contentOf(source), "user@e.net\tb@e.net\n");
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
}

TEST_F(TableRewriteFailureTest, LinkThatIsSwappedInBeforeTheSourceIsKeptEndsTheRewrite) {
    const std::string victim = "/var/spool/postfix/victim";
    writeFile(victim, "secret\n");
    const Seen before(victim);
    const CallHook hook([&](const std::string& called, const std::string&) {
        if (called == "link") {
            ::unlink(source.c_str());
            EXPECT_EQ(::symlink(victim.c_str(), source.c_str()), 0);
        }
        return 0;
    });
    EXPECT_EQ(messageOf<torva::SystemError>(&removeDomain),
              "open: Too many levels of symbolic links");
    expectSame(Seen(victim), before);
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
    ::unlink(victim.c_str());
}

TEST_F(TableRewriteFailureTest, SignalWhileTheSourceIsCopiedCostsNothingOfIt) {
    bool copying = false;
    const CallHook hook([&copying](const std::string& called, const std::string&) {
        copying = copying || called == "link";
        if (called == "read" && std::exchange(copying, false)) {
            return EINTR;
        }
        return called == "link" ? EPERM : 0;
    });
    const FakeTool fake(postmap, failingRebuild_);
    const Seen before(source);
    EXPECT_THROW(removeDomain(), PostfixConfigurationError);
    EXPECT_FALSE(copying);
    expectSame(Seen(source), before);
}

TEST_F(TableRewriteFailureTest, FifoThatIsSwappedInBeforeTheSourceIsCopiedIsNotWaitedFor) {
    const CallHook hook([&](const std::string& called, const std::string&) {
        if (called != "link") {
            return 0;
        }
        ::unlink(source.c_str());
        EXPECT_EQ(::mkfifo(source.c_str(), 0600), 0);
        return EPERM;
    });
    EXPECT_EQ(messageOf<torva::SystemError>(&removeDomain), "open: Invalid argument");
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
}

TEST_F(TableRewriteFailureTest, HolesOfAnIndexTakeNoRoomInItsCopy) {
    // Less than a test may write when mutations are tried on it (prove/mutations).
    constexpr off_t size = off_t{1} << 29;
    ASSERT_EQ(::truncate(index_.c_str(), size), 0);
    const std::string text = "between the holes";
    std::fstream(index_).seekp(size / 2) << text;
    const std::string head = headOf(index_);
    const FakeTool fake(postmap, failingRebuild_);
    EXPECT_THROW(removeDomain(), PostfixConfigurationError);
    EXPECT_EQ(statusOf(index_).st_size, size);
    EXPECT_LT(statusOf(index_).st_blocks, 1000);
    EXPECT_EQ(headOf(index_), head);
    EXPECT_EQ(headOf(index_, size / 2).substr(0, text.size()), text);
}

TEST_F(TableRewriteFailureTest, EmptySourceComesBackEmpty) {
    createTable(table, {});
    makeOld(source, 1000000000);
    const FakeTool fake(postmap, failingRebuild_);
    expectAllAsBefore<PostfixConfigurationError>(true);
}

TEST_F(TableRewriteFailureTest, AccessTimesComeBackToo) {
    const FakeTool fake(postmap, failingRebuild_);
    for (const int linkError : {0, EPERM}) {
        makeOld(source, 1000000000);
        const CallHook hook([linkError](const std::string& called, const std::string&) {
            return called == "link" ? linkError : 0;
        });
        EXPECT_THROW(removeDomain(), PostfixConfigurationError);
        EXPECT_EQ(statusOf(source).st_atim.tv_sec, 1000000000);
    }
    // Our own read of the index was the last access.
    EXPECT_GE(statusOf(index_).st_atim.tv_sec, 1000000007);
}

TEST_F(TableRewriteFailureTest, LinkOfTheAdministratorStaysOneWhetherItFailsOrNot) {
    const std::string elsewhere = "/var/spool/postfix/elsewhere";
    ASSERT_EQ(::rename(source.c_str(), elsewhere.c_str()), 0);
    ASSERT_EQ(::symlink("../elsewhere", source.c_str()), 0);
    const Seen before(elsewhere);
    {
        const FakeTool fake(postmap, failingRebuild_);
        EXPECT_THROW(removeDomain(), PostfixConfigurationError);
        expectSame(Seen(elsewhere), before);
    }
    EXPECT_TRUE(S_ISLNK(statusOf(source).st_mode));
    removeDomain();
    EXPECT_TRUE(S_ISLNK(statusOf(source).st_mode));
    EXPECT_EQ(contentOf(elsewhere), "user@e.net\tb@e.net\n");
    EXPECT_EQ(statusOf(elsewhere).st_mode & 07777, 0640U);
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
    ::unlink(elsewhere.c_str());
}

TEST_F(TableRewriteFailureTest, LinkThatGoesBeforeItIsFollowedEndsTheRewrite) {
    const std::string elsewhere = "/var/spool/postfix/elsewhere";
    ASSERT_EQ(::rename(source.c_str(), elsewhere.c_str()), 0);
    ASSERT_EQ(::symlink("../elsewhere", source.c_str()), 0);
    const Seen before(elsewhere);
    const CallHook hook([](const std::string& called, const std::string& path) {
        if (called == "readlink") {
            ::unlink(path.c_str());
        }
        return 0;
    });
    EXPECT_EQ(messageOf<torva::SystemError>(&removeDomain), "stat: No such file or directory");
    expectSame(Seen(elsewhere), before);
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual.db"));
    ::unlink(elsewhere.c_str());
}

TEST_F(TableRewriteFailureTest, LinkOfTheAdministratorToTheIndexStaysOne) {
    const std::string elsewhere = "/var/spool/postfix/elsewhere.db";
    ASSERT_EQ(::rename(index_.c_str(), elsewhere.c_str()), 0);
    ASSERT_EQ(::symlink("../elsewhere.db", index_.c_str()), 0);
    const Seen before(elsewhere);
    {
        const FakeTool fake(postmap, failingRebuild_);
        EXPECT_THROW(removeDomain(), PostfixConfigurationError);
        expectSame(Seen(elsewhere), before);
    }
    for (const auto& change : std::vector<std::function<void()>>{
             &removeDomain,
             [] {
                 putRecords(table, {{"k", "v"}});
             },
             [] { rebuildTable(table); },
             [] {
                 createTable(table, {{"k", "v"}});
             },
             [] { deleteKeys(table, {"k"}); }, [] { dumpTable(table); }}) {
        change();
        EXPECT_TRUE(S_ISLNK(statusOf(index_).st_mode));
    }
    ::unlink(elsewhere.c_str());
}

// ---- a good rewrite

TEST_F(TableRewriteFailureTest, GoodRewriteKeepsModeAndOwnerOfTheSource) {
    ASSERT_EQ(::chown(source.c_str(), 65534, 0), 0);
    ASSERT_EQ(::chown(index_.c_str(), 65534, 65534), 0); // postmap runs as the source's owner
    removeDomain();
    EXPECT_EQ(statusOf(source).st_mode & 07777, 0640U);
    EXPECT_EQ(statusOf(source).st_uid, 65534U);
    EXPECT_EQ(statusOf(source).st_gid, 0U);
    EXPECT_EQ(contentOf(source), "user@e.net\tb@e.net\n");
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
}

TEST_F(TableRewriteFailureTest, GoodRewriteKeepsPermissionsOnlyAndNoSetUserId) {
    ASSERT_EQ(::chmod(source.c_str(), 06640), 0);
    removeDomain();
    EXPECT_EQ(statusOf(source).st_mode & 07777, 0640U);
}

TEST_F(TableRewriteFailureTest, EmptySourceMayBeRewritten) {
    createTable(table, {});
    removeDomain();
    EXPECT_EQ(contentOf(source), "");
    EXPECT_THAT(dumpTable(table), testing::IsEmpty());
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
}

TEST_F(TableRewriteFailureTest, QuotedKeyIsStillFoundAfterwards) {
    writeFile(source, "\"john doe\"@example.org x@e.net\nuser@d.net y\n");
    rebuildTable(table);
    removeDomain();
    EXPECT_EQ(contentOf(source), "\"john doe\"@example.org\tx@e.net\n");
    // Also one of the domain itself.
    writeFile(source, "\"john doe\"@d.net x@e.net\n");
    rebuildTable(table);
    removeDomain();
    EXPECT_EQ(contentOf(source), "\"john doe\"@d.net\tx@e.net\n");
    writeFile(source, "\"john doe\"@example.org x@e.net\n");
    rebuildTable(table);
    const std::string answer = directory + "/answer";
    const std::string ask = "/usr/sbin/postmap -q '\"john doe\"@example.org' " + std::string(table);
    ASSERT_EQ(std::system((ask + " > " + answer).c_str()), 0);
    EXPECT_EQ(contentOf(answer), "x@e.net\n");
}

} // namespace
