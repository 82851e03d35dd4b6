#include "ctl/backup/Changes.h"

#include <gmock/gmock.h>

#include <sys/stat.h>

namespace torva::ctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

LeftState hostWith(const std::string& path, const std::string& checksum) {
    Entry file;
    file.mode = S_IFREG | 0644;
    file.checksum = checksum;
    LeftState state;
    state.entries[path] = file;
    return state;
}

/// Names of the changes to one file that somebody else than the run must have made.
std::vector<std::string> foreignChangesOf(const std::string& path) {
    Manifest backup;
    backup.configuration = "/nowhere/postfix";
    std::vector<std::string> names;
    for (const Change& change :
         foreignChanges(backup, hostWith(path, "before"), hostWith(path, "after"))) {
        names.push_back(change.name);
    }
    return names;
}

TEST(ChangesTest, IndexOfAnAliasDatabaseOfAnyTypeIsWrittenByTheRun) {
    for (const char* suffix : {".db", ".cdb", ".lmdb", ".dir"}) {
        EXPECT_THAT(foreignChangesOf(std::string("/nowhere/aliases") + suffix), IsEmpty())
            << suffix;
    }
    EXPECT_THAT(foreignChangesOf("/nowhere/__db.aliases.db"), IsEmpty());
}

TEST(ChangesTest, SourceOfAnAliasDatabaseIsWrittenBySomebodyElse) {
    EXPECT_THAT(foreignChangesOf("/nowhere/aliases"), ElementsAre("/nowhere/aliases"));
}

TEST(ChangesTest, IndexOfAPanelTableIsNoChangeUnderAnyType) {
    for (const char* suffix : {".db", ".cdb", ".lmdb"}) {
        const std::string path = std::string("/var/spool/postfix/torva/virtual") + suffix;
        EXPECT_TRUE(changesBetween(hostWith(path, "a"), hostWith(path, "b")).empty()) << suffix;
    }
    const std::string other = "/var/spool/postfix/torva/other.db";
    EXPECT_EQ(changesBetween(hostWith(other, "a"), hostWith(other, "b")).size(), 1U);
}

} // namespace
} // namespace torva::ctl
