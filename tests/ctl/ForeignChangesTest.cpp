#include "ctl/backup/ForeignChanges.h"

#include <gmock/gmock.h>

#include <sys/stat.h>

namespace torva::ctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string tables = "/var/spool/postfix/torva";

Entry fileWith(const std::string& contents) {
    Entry file;
    file.mode = S_IFREG | 0644;
    file.size = contents.size();
    file.checksum = contents;
    return file;
}

/// A host whose only alias database is "/nowhere/aliases", which does not exist.
Manifest backupOfHost() {
    Manifest backup;
    backup.configuration = "/nowhere/postfix";
    backup.paths = {tables, "/nowhere/postfix/main.cf", "/nowhere/postfix/master.cf",
                    "/nowhere/aliases"};
    for (const char* suffix : {".db", ".dir", ".pag", ".cdb", ".cdb.tmp", ".lmdb"}) {
        backup.paths.push_back(std::string("/nowhere/aliases") + suffix);
    }
    backup.paths.emplace_back("/nowhere/__db.aliases.db");
    return backup;
}

std::vector<std::string> namesOfForeign(const LeftState& before, const LeftState& now) {
    std::vector<std::string> names;
    for (const Change& change : foreignChanges(backupOfHost(), before, now)) {
        names.push_back(change.name);
    }
    return names;
}

/// Whether somebody else must have changed a file; a null pointer: it does not exist.
bool isForeign(const std::string& path, const char* before, const char* now) {
    LeftState then;
    LeftState later;
    then.entries[path] = before == nullptr ? Entry() : fileWith(before);
    later.entries[path] = now == nullptr ? Entry() : fileWith(now);
    return !namesOfForeign(then, later).empty();
}

TEST(ForeignChangesTest, FilesThatARunWritesAreKnownByTheirPaths) {
    for (const char* path :
         {"/nowhere/aliases.db", "/nowhere/aliases.cdb", "/nowhere/aliases.lmdb",
          "/nowhere/aliases.dir", "/nowhere/aliases.pag", "/nowhere/__db.aliases.db",
          "/nowhere/aliases.db.aB3dE6", "/nowhere/postfix/main.cf", "/nowhere/postfix/main.cf.tmp",
          "/nowhere/postfix/master.cf", "/nowhere/postfix/master.cf.torva-new",
          "/var/spool/postfix/torva/transport.db", "/var/spool/postfix/torva/__db.virtual.db",
          "/var/spool/postfix/torva/transport.aB3dE6", "/var/spool/postfix/torva/virtual.db.aB3dE6",
          "/var/spool/postfix/torva/master.cf.disabled",
          "/var/spool/postfix/torva/master.cf.disabled.aB3dE6"}) {
        EXPECT_FALSE(isForeign(path, nullptr, "new")) << path;
    }
    for (const char* path :
         {"/nowhere/aliases.db", "/nowhere/postfix/main.cf",
          "/var/spool/postfix/torva/transport.db", "/var/spool/postfix/torva/master.cf.disabled"}) {
        EXPECT_FALSE(isForeign(path, "old", "new")) << path;
    }
}

TEST(ForeignChangesTest, FilesWithNamesLikeThoseAreSomebodyElses) {
    for (const char* name :
         {"no_relay.re", "my_transport_notes", "customer_transport.cidr", "transport.backup",
          "virtual.221126", "other.db", "other.db.aB3dE6", "master.cf.disabled.backup"}) {
        EXPECT_TRUE(isForeign(tables + "/" + name, nullptr, "new")) << name;
        EXPECT_TRUE(isForeign(tables + "/" + name, "old", "new")) << name;
        EXPECT_TRUE(isForeign(tables + "/" + name, "old", nullptr)) << name;
    }
    EXPECT_TRUE(isForeign(tables + "/transport.aB3dE6", "old", "new")) << "not new";
    EXPECT_TRUE(isForeign("/nowhere/aliases", "old", "new"));
}

TEST(ForeignChangesTest, SourcesThatARunEmptiesOrCreatesAreItsOwn) {
    EXPECT_FALSE(isForeign(tables + "/transport", "old", ""));
    EXPECT_FALSE(isForeign(tables + "/transport", nullptr, ""));
    EXPECT_TRUE(isForeign(tables + "/transport", "old", "new"));
    EXPECT_TRUE(isForeign(tables + "/transport", "old", nullptr));
    EXPECT_FALSE(isForeign("/nowhere/aliases", nullptr, ""));
    EXPECT_TRUE(isForeign("/nowhere/aliases", nullptr, "new"));
    EXPECT_TRUE(isForeign("/nowhere/aliases", "old", ""));
}

TEST(ForeignChangesTest, DirectoryOfTheTablesIsCreatedAndNothingElse) {
    LeftState before;
    before.entries[tables] = Entry();
    LeftState now;
    now.entries[tables].mode = S_IFDIR | 0755;
    EXPECT_THAT(namesOfForeign(before, now), IsEmpty());
    before.entries[tables].mode = S_IFDIR | 0700;
    EXPECT_THAT(namesOfForeign(before, now), ElementsAre(tables));
}

TEST(ForeignChangesTest, IndexOfAnUnchangedSourceIsNoWork) {
    LeftState before;
    before.entries[tables + "/list"] = fileWith("aliases");
    LeftState now = before;
    now.entries[tables + "/list.db"] = fileWith("index");
    EXPECT_THAT(namesOfForeign(before, now), IsEmpty());
    now.entries[tables + "/list"] = fileWith("others");
    EXPECT_THAT(namesOfForeign(before, now), ElementsAre(tables + "/list", tables + "/list.db"));
}

TEST(ForeignChangesTest, RecordsThatARunDoesNotMakeAreSomebodyElses) {
    LeftState before;
    before.records["transport"] = {{"old.example", "smtp:[a]"}, {"changed.example", "smtp:[a]"}};
    before.records["virtual"] = {{"old@old.example", "a@b.example"}};
    LeftState now;
    now.records["virtual"] = {{"root@mail.example.net", "root@localhost.localdomain"},
                              {"me@mail.example.net", "me@customer.example"}};
    EXPECT_THAT(namesOfForeign(before, now), IsEmpty()) << "dropped, and made for the host";
    now.records["transport"] = {{"new.example", "smtp:[b]"}, {"changed.example", "smtp:[b]"}};
    now.records["virtual"]["a@new.example"] = "a@b.example";
    EXPECT_THAT(namesOfForeign(before, now),
                ElementsAre("virtual: a@new.example", "transport: changed.example",
                            "transport: new.example"));
}

TEST(ForeignChangesTest, LinesOfMainCfThatARunDoesNotWriteAreSomebodyElses) {
    LeftState before;
    before.mainCf = "# comment\nrelayhost = a\nmynetworks = 127.0.0.0/8,\n# inside\n  [::1]\n";
    LeftState now;
    now.mainCf = "# comment\nrelayhost = a\nmynetworks = 10.0.0.0/8\n# inside\n"
                 "virtual_transport=torva_virtual\n";
    EXPECT_THAT(namesOfForeign(before, now), IsEmpty());
    for (const char* more : {"# call Bob\n", "broken\n", "relayhost = b\n", "\n"}) {
        LeftState other = now;
        other.mainCf += more;
        EXPECT_THAT(namesOfForeign(before, other), ElementsAre("/nowhere/postfix/main.cf")) << more;
    }
    EXPECT_THAT(linesOfOthers("mynetworks=a\n  b\nmynetworks_style = host\n  c"),
                ElementsAre("mynetworks_style = host", "  c"));
}

TEST(ForeignChangesTest, CommentsInMasterCfThatWereNoServicesAreSomebodyElses) {
    const std::string before = "# old\npickup unix n - y 60 1 pickup\n  -o a=b\n";
    EXPECT_THAT(newComments(before, "#pickup unix n - y 60 1 pickup\n#sheltered:   -o a=b\n"),
                IsEmpty());
    EXPECT_THAT(newComments(before, before + "  # new\n\n"), ElementsAre("  # new"));
}

} // namespace
} // namespace torva::ctl
