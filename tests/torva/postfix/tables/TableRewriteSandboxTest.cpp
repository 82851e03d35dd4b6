// Rewriting real hash tables, and what is left when a step of it fails.
#include "support/FakeTool.h"
#include "torva/postfix/tables/CreateTable.h"
#include "torva/postfix/tables/Postmap.h"
#include "torva/postfix/tables/TableRewrite.h"
#include "torva/util/FileLock.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace torva::mail::postfix;
using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;
using torva::test::contentOf;
using torva::test::FakeTool;
using torva::test::namesIn;
using torva::test::writeFile;

namespace {

const char postmap[] = "/usr/sbin/postmap";
const char directory[] = "/var/spool/postfix/rewrite";
const char rewrittenTable[] = "hash:/var/spool/postfix/rewrite/t";
const std::string source = "/var/spool/postfix/rewrite/t";
const std::string index_ = source + ".db";

class TableRewriteTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("TORVA_SANDBOX"), nullptr);
        ::mkdir(directory, 0755);
        createTable(rewrittenTable, {{"user@d.net", "a@e.net"},
                                     {"user@e.net", "a@d.net, b@e.net"},
                                     {"gone@e.net", "a@d.net"},
                                     {"user@f.net", "c@f.net"}});
    }
    void TearDown() override {
        for (const std::string& name : namesIn(directory)) {
            ::unlink((std::string(directory) + "/" + name).c_str());
        }
    }

    /// Runs the removal, which must fail, and compares all files with before.
    template <class Error>
    void expectNothingChanged() {
        const std::string sourceBefore = contentOf(source);
        const std::string indexBefore = contentOf(index_);
        EXPECT_THROW(removeDomainFromTable(rewrittenTable, "d.net", false), Error);
        EXPECT_EQ(contentOf(source), sourceBefore);
        EXPECT_TRUE(contentOf(index_) == indexBefore);
        EXPECT_THAT(namesIn(directory), ElementsAre("t", "t.db"));
    }
};

TEST_F(TableRewriteTest, DomainLeavesKeysAndValues) {
    ASSERT_EQ(::chmod(source.c_str(), 0640), 0);
    removeDomainFromTable(rewrittenTable, "d.net", false);
    EXPECT_THAT(dumpTable(rewrittenTable),
                UnorderedElementsAre(Pair("user@e.net", "b@e.net"), Pair("user@f.net", "c@f.net")));
    EXPECT_THAT(namesIn(directory), ElementsAre("t", "t.db"));
    struct stat status = {};
    ASSERT_EQ(::stat(source.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
}

TEST_F(TableRewriteTest, RunsTheListingAndThePlainRebuild) {
    const FakeTool recording(postmap, torva::test::passThrough);
    removeDomainFromTable(rewrittenTable, "d.net", false);
    EXPECT_THAT(recording.calls(), ElementsAre(std::string("[-s][") + rewrittenTable + "]",
                                               std::string("[") + rewrittenTable + "]"));
}

TEST_F(TableRewriteTest, LastRecordMayGo) {
    createTable(rewrittenTable, {{"user@d.net", "x"}});
    removeDomainFromTable(rewrittenTable, "d.net", false);
    EXPECT_THAT(dumpTable(rewrittenTable), testing::IsEmpty());
    EXPECT_EQ(contentOf(source), "");
}

TEST_F(TableRewriteTest, FailedListingLeavesEverythingAsItWas) {
    const FakeTool fake(postmap, "echo 'user@f.net c@f.net'; exit 1");
    expectNothingChanged<PostfixConfigurationError>();
}

TEST_F(TableRewriteTest, FailedRebuildLeavesEverythingAsItWas) {
    // Like a postmap that dies half-way: the index is emptied, and stays empty.
    const FakeTool fake(postmap,
                        "case $1 in -s) exec \"$REAL\" \"$@\";; esac\n: > " + index_ + "\nexit 1");
    expectNothingChanged<PostfixConfigurationError>();
}

TEST_F(TableRewriteTest, FailedStartOfTheListingLeavesEverythingAsItWas) {
    const FakeTool fake(postmap, "");
    ASSERT_EQ(::unlink(postmap), 0);
    expectNothingChanged<torva::SystemError>();
}

TEST_F(TableRewriteTest, FullDiskLeavesEverythingAsItWas) {
    if (::mount("tmpfs", directory, "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "no tmpfs here: " << std::strerror(errno);
    }
    createTable(rewrittenTable, {{"user@d.net", "a@e.net"}, {"user@e.net", "b@e.net"}});
    writeFile(std::string(directory) + "/filler", std::string(44 * 1024, 'x'));
    const std::string sourceBefore = contentOf(source);
    const std::string indexBefore = contentOf(index_);
    EXPECT_THROW(removeDomainFromTable(rewrittenTable, "d.net", false), torva::SystemError);
    EXPECT_EQ(contentOf(source), sourceBefore);
    EXPECT_TRUE(contentOf(index_) == indexBefore);
    EXPECT_THAT(namesIn(directory), ElementsAre("filler", "t", "t.db"));
    EXPECT_EQ(::umount(directory), 0);
}

TEST_F(TableRewriteTest, ManyRecords) {
    Records records;
    for (int i = 0; i < 100000; ++i) {
        const std::string number = std::to_string(i);
        records.emplace_back("u" + number + (i % 2 == 0 ? "@d.net" : "@e.net"),
                             "a@d.net, box" + number + "@f.net");
    }
    createTable(rewrittenTable, records);
    removeDomainFromTable(rewrittenTable, "d.net", false);
    const Records left = dumpTable(rewrittenTable);
    EXPECT_EQ(left.size(), 50000U);
    for (const Record& record : left) {
        ASSERT_EQ(record.first.substr(record.first.find('@')), "@e.net");
        ASSERT_EQ(record.second,
                  "box" + record.first.substr(1, record.first.find('@') - 1) + "@f.net");
    }
}

} // namespace
