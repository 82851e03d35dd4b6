// A directory of tables that another account may write: files planted there harm no
// file elsewhere, disclose nothing, and block nobody for ever.
#include "CallHooks.h"
#include "TablesFixture.h"
#include "support/FakeTool.h"
#include "torva/postfix/tables/CreateTable.h"
#include "torva/postfix/tables/Postmap.h"
#include "torva/postfix/tables/TableRewrite.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"

#include <gmock/gmock.h>

using namespace torva::mail::postfix;
using namespace torva::test;
using testing::ElementsAre;
using testing::Pair;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace {

const std::string plantedVictim = "/var/spool/postfix/victim";
const std::string victimText = "root:secret\n";
const std::string swapped = "somebody else has put another file in its place";

struct Operation {
    const char* name;
    std::function<void()> run;
};

const std::vector<Operation> operations = {
    {"create",
     [] {
         createTable(table, {{"a", "1"}});
     }},
    {"put",
     [] {
         putRecords(table, {{"a", "1"}});
     }},
    {"delete", [] { deleteKeys(table, {"a"}); }},
    {"dump", [] { dumpTable(table); }},
    {"rebuild", [] { rebuildTable(table); }},
    {"rewrite", [] { removeDomainFromTable(table, "d.net", false); }},
};

/// A table with two records, in a directory that is not ours, and a victim.
class PlantedFilesTest : public TablesTest {
protected:
    void SetUp() override {
        TablesTest::SetUp();
        layOut();
    }
    void TearDown() override {
        TablesTest::TearDown();
        ::unlink(plantedVictim.c_str());
    }

    void layOut() {
        TablesTest::SetUp();
        createTable(table, {{"old", "x@e.net"}, {"a", "y@e.net"}});
        writeFile(plantedVictim, victimText);
        ASSERT_EQ(::chmod(plantedVictim.c_str(), 0600), 0);
        before_ = statusOf(plantedVictim);
        giveDirectoryAway();
    }

    void expectVictimUnharmed() const {
        EXPECT_EQ(contentOf(plantedVictim), victimText);
        const struct stat now = statusOf(plantedVictim);
        EXPECT_EQ(now.st_ino, before_.st_ino);
        EXPECT_EQ(now.st_mode, before_.st_mode);
        EXPECT_EQ(now.st_uid, before_.st_uid);
        EXPECT_EQ(now.st_gid, before_.st_gid);
        EXPECT_EQ(now.st_mtim.tv_nsec, before_.st_mtim.tv_nsec);
    }

    /// Nobody but the victim's owner can read its text.
    void expectNothingGivenAway() const {
        for (const std::string& name : namesIn(directory)) {
            const std::string path = directory + "/" + name;
            const struct stat status = statusOf(path);
            if (S_ISREG(status.st_mode) && contentOf(path).find("secret") != std::string::npos) {
                EXPECT_EQ(status.st_mode & 0077, 0U) << path;
                EXPECT_EQ(status.st_uid, 0U) << path;
            }
        }
    }

    static void runAnyway(const Operation& operation) {
        try {
            operation.run();
        } catch (const PostfixError&) { // NOLINT(bugprone-empty-catch): postmap's refusal
        }
    }

    struct stat before_ = {};
};

TEST_F(PlantedFilesTest, LinkInThePlaceOfAnIndexIsRemovedAndNotFollowed) {
    for (const char* suffix : {".db", ".cdb", ".lmdb", ".dir", ".pag"}) {
        for (const Operation& operation : operations) {
            SCOPED_TRACE(operation.name + std::string(suffix));
            layOut();
            ::unlink((source + suffix).c_str());
            ASSERT_EQ(::symlink(plantedVictim.c_str(), (source + suffix).c_str()), 0);
            runAnyway(operation);
            expectVictimUnharmed();
            EXPECT_FALSE(exists(source + suffix) && S_ISLNK(statusOf(source + suffix).st_mode));
        }
    }
}

TEST_F(PlantedFilesTest, FifoInThePlaceOfAnIndexIsRemovedAndDoesNotHang) {
    for (const Operation& operation : operations) {
        for (const bool ours : {true, false}) {
            SCOPED_TRACE(operation.name);
            layOut();
            ASSERT_EQ(::chown(directory.c_str(), ours ? 0 : 65534, 0), 0);
            ::unlink(index_.c_str());
            ASSERT_EQ(::mkfifo(index_.c_str(), 0666), 0);
            runAnyway(operation);
            EXPECT_FALSE(exists(index_) && S_ISFIFO(statusOf(index_).st_mode));
        }
    }
}

TEST_F(PlantedFilesTest, SecondNameOfAnotherFileInThePlaceOfAnIndexIsNotWrittenTo) {
    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.name);
        layOut();
        ::unlink(index_.c_str());
        ASSERT_EQ(::link(plantedVictim.c_str(), index_.c_str()), 0);
        runAnyway(operation);
        expectVictimUnharmed();
        expectNothingGivenAway();
        // A listing, which fails, does not change it.
        const std::string name = operation.name;
        const bool listed = name == "dump" || name == "rewrite";
        EXPECT_EQ(statusOf(plantedVictim).st_nlink, listed ? 2U : 1U);
    }
}

TEST_F(PlantedFilesTest, IndexWithASecondNameKeepsItsRecords) {
    const std::string other = "/var/spool/postfix/other.db";
    ASSERT_EQ(::link(index_.c_str(), other.c_str()), 0);
    const std::string bytes = contentOf(other);
    EXPECT_THAT(dumpTable(table),
                UnorderedElementsAre(Pair("old", "x@e.net"), Pair("a", "y@e.net")));
    EXPECT_EQ(statusOf(other).st_nlink, 2U); // a listing leaves it alone
    ASSERT_EQ(::chmod(index_.c_str(), 0640), 0);
    ASSERT_EQ(::chown(index_.c_str(), 0, 65534), 0);
    putRecords(table, {{"new", "z"}});
    EXPECT_TRUE(contentOf(other) == bytes);
    EXPECT_EQ(statusOf(other).st_nlink, 1U);
    const std::string another = "/var/spool/postfix/another.db";
    ASSERT_EQ(::link(index_.c_str(), another.c_str()), 0);
    const std::string bytesBefore = contentOf(another);
    deleteKeys(table, {"a"});
    EXPECT_THAT(dumpTable(table), UnorderedElementsAre(Pair("old", "x@e.net"), Pair("new", "z")));
    EXPECT_TRUE(contentOf(another) == bytesBefore);
    EXPECT_EQ(statusOf(another).st_nlink, 1U);
    EXPECT_EQ(statusOf(index_).st_mode & 07777, 0640U);
    EXPECT_EQ(statusOf(index_).st_gid, 65534U);
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
    ::unlink(other.c_str());
    ::unlink(another.c_str());
}

TEST_F(PlantedFilesTest, CopyOfAnIndexThatIsSwappedRightBeforeTheRenameNeverReachesPostmap) {
    const std::string other = "/var/spool/postfix/other.db";
    ASSERT_EQ(::link(index_.c_str(), other.c_str()), 0);
    const FakeTool fake(postmap, "exit 0");
    const CallHook hook([](const std::string& called, const std::string& path) {
        if (called == "rename") {
            EXPECT_EQ(::unlink(path.c_str()), 0);
            EXPECT_EQ(::symlink(plantedVictim.c_str(), path.c_str()), 0);
        }
        return 0;
    });
    EXPECT_EQ(messageOf<torva::SystemError>([] {
                  putRecords(table, {{"new", "z"}});
              }),
              "rename: File exists");
    EXPECT_THAT(fake.calls(), testing::IsEmpty());
    expectVictimUnharmed();
    ::unlink(other.c_str());
}

TEST_F(PlantedFilesTest, IndexWithASecondNameIsNotWrittenToWhenItIsMadeAnew) {
    const std::string other = "/var/spool/postfix/other.db";
    for (const std::size_t each : {0U, 4U, 5U}) {
        SCOPED_TRACE(operations[each].name);
        layOut();
        ASSERT_EQ(::link(index_.c_str(), other.c_str()), 0);
        const std::string bytes = contentOf(other);
        const struct stat before = statusOf(other);
        operations[each].run();
        EXPECT_TRUE(contentOf(other) == bytes);
        EXPECT_EQ(statusOf(other).st_mtim.tv_nsec, before.st_mtim.tv_nsec);
        EXPECT_EQ(statusOf(other).st_nlink, 1U);
        ::unlink(other.c_str());
    }
}

TEST_F(PlantedFilesTest, LinkInThePlaceOfTheSourceIsReplacedItself) {
    for (const char* name : {"create", "rewrite"}) {
        SCOPED_TRACE(name);
        layOut();
        ::unlink(source.c_str());
        ASSERT_EQ(::symlink(plantedVictim.c_str(), source.c_str()), 0);
        operations[name[0] == 'c' ? 0 : 5].run();
        expectVictimUnharmed();
        const struct stat status = statusOf(source);
        EXPECT_TRUE(S_ISREG(status.st_mode));
        EXPECT_EQ(status.st_mode & 07777, 0644U);
        EXPECT_EQ(status.st_uid, 0U);
        EXPECT_EQ(contentOf(source).find("secret"), std::string::npos);
    }
}

TEST_F(PlantedFilesTest, FifoInThePlaceOfTheSourceIsReplacedAndDoesNotHang) {
    for (const std::size_t each : {0U, 5U}) {
        layOut();
        ::unlink(source.c_str());
        ASSERT_EQ(::mkfifo(source.c_str(), 0666), 0);
        operations[each].run();
        EXPECT_TRUE(S_ISREG(statusOf(source).st_mode)) << operations[each].name;
    }
}

TEST_F(PlantedFilesTest, SecondNameOfAnotherFileInThePlaceOfTheSourceIsNotWrittenTo) {
    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.name);
        layOut();
        ::unlink(source.c_str());
        ASSERT_EQ(::link(plantedVictim.c_str(), source.c_str()), 0);
        runAnyway(operation);
        expectVictimUnharmed();
        expectNothingGivenAway();
    }
}

TEST_F(PlantedFilesTest, RebuildReadsNoPlantedLinkAndNoFifo) {
    const std::string refusal =
        "unable to open " + source + ": it may have been planted by another account";
    const std::string indexBefore = contentOf(index_);
    ::unlink(source.c_str());
    ASSERT_EQ(::symlink(plantedVictim.c_str(), source.c_str()), 0);
    EXPECT_EQ(messageOf<PostfixConfigurationError>([] { rebuildTable(table); }), refusal);
    ::unlink(source.c_str());
    ASSERT_EQ(::mkfifo(source.c_str(), 0666), 0);
    EXPECT_EQ(messageOf<PostfixConfigurationError>([] { rebuildTable(table); }), refusal);
    ASSERT_EQ(::chown(directory.c_str(), 0, 0), 0);
    EXPECT_EQ(messageOf<PostfixConfigurationError>([] { rebuildTable(table); }), refusal);
    EXPECT_TRUE(contentOf(index_) == indexBefore);
    expectVictimUnharmed();
}

TEST_F(PlantedFilesTest, SourceWithASecondNameIsRebuiltFromACopyOfItsOwn) {
    const std::string other = "/var/spool/postfix/other";
    writeFile(source, "b 2\n");
    ASSERT_EQ(::link(source.c_str(), other.c_str()), 0);
    const struct stat status = statusOf(source);
    rebuildTable(table);
    EXPECT_THAT(dumpTable(table), ElementsAre(Pair("b", "2")));
    EXPECT_EQ(contentOf(source), "b 2\n");
    EXPECT_EQ(statusOf(other).st_nlink, 1U);
    EXPECT_EQ(statusOf(source).st_mtim.tv_nsec, status.st_mtim.tv_nsec);
    ::unlink(other.c_str());
}

// ---- swapped while we work

/// Replaces each temporary file by a link to the victim, once.
int swapScratchFiles() {
    for (const std::string& name : namesIn(directory)) {
        const std::string path = directory + "/" + name;
        if (name.find('.') != std::string::npos && name != "virtual.db") {
            ::unlink(path.c_str());
            static_cast<void>(::symlink(plantedVictim.c_str(), path.c_str()));
        }
    }
    return 0;
}

TEST_F(PlantedFilesTest, AsManyLinksAsTheKernelFollowsLeadToTheSource) {
    const std::string chain = "/etc/postfix/chain"; // where only root writes
    writeFile(chain + "0", "a 1\n");
    for (int link = 1; link <= 41; ++link) {
        const std::string target = chain + std::to_string(link - 1);
        ASSERT_EQ(::symlink(target.c_str(), (chain + std::to_string(link)).c_str()), 0);
    }
    rebuildTable("hash:" + chain + "40");
    EXPECT_THAT(dumpTable("hash:" + chain + "40"), ElementsAre(Pair("a", "1")));
    EXPECT_EQ(messageOf<torva::SystemError>([&] { rebuildTable("hash:" + chain + "41"); }),
              "stat: Too many levels of symbolic links");
}

TEST_F(PlantedFilesTest, SwappedScratchFileGetsNoModeNoOwnerAndNoPlace) {
    for (const std::string call : {"fchmod", "fchown", "rename"}) {
        for (const std::size_t each : {0U, 5U}) {
            SCOPED_TRACE(call + operations[each].name);
            layOut();
            ASSERT_EQ(::chown(source.c_str(), 65534, 65534), 0);
            const std::string indexBefore = contentOf(index_);
            const std::string sourceBefore = contentOf(source);
            bool done = false;
            bool renamed = false;
            const CallHook hook([&](const std::string& called, const std::string&) {
                renamed = renamed || called == "rename";
                return called == call && !std::exchange(done, true) ? swapScratchFiles() : 0;
            });
            if (call == "fchown" && each == 0) {
                continue; // a creation changes no owner
            }
            EXPECT_EQ(messageOf<PostfixDatabaseError>(operations[each].run),
                      "unable to write " + source + ": " + swapped);
            EXPECT_TRUE(done);
            expectVictimUnharmed();
            expectNothingGivenAway();
            if (call != "rename") {
                EXPECT_FALSE(renamed) << "not even for a moment";
                EXPECT_EQ(contentOf(source), sourceBefore);
            }
            EXPECT_TRUE(contentOf(index_) == indexBefore);
        }
    }
}

TEST_F(PlantedFilesTest, NoModeAndNoOwnerIsEverSetByName) {
    for (const Operation& operation : operations) {
        layOut();
        const CallHook hook([&](const std::string& call, const std::string& path) {
            EXPECT_TRUE(call != "chmod" && call != "chown") << call << " " << path;
            return 0;
        });
        runAnyway(operation);
    }
}

} // namespace
