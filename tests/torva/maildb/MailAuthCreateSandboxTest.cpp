#include "support/AllocationFaults.h"
#include "torva/maildb/CreateFixture.h"
#include "torva/maildb/mail_auth_create.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace torva::test;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

TEST_F(CreateAuthDatabase, ThePostfixTypeBelongsToPostfix) {
    EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    EXPECT_EQ("postfix:0 0770", ownership(auth_directory_path));
    EXPECT_EQ("postfix:0 0460", ownership(auth_path));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(CreateAuthDatabase, TheQmailTypeBelongsToRoot) {
    EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_QMAIL));
    EXPECT_EQ("root:0 0750", ownership(qmail_directory));
    EXPECT_EQ("root:0 0600", ownership(qmail_path));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(CreateAuthDatabase, OwnersAndModesOfAnExistingDirectoryAreSet) {
    fs::create_directories(auth_directory_path);
    chmod(auth_directory_path, 01711);
    EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    EXPECT_EQ("postfix:0 0770", ownership(auth_directory_path));
}

TEST_F(CreateAuthDatabase, MissingParentsAreMadeWhateverTheUmask) {
    for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}, mode_t{0777}}) {
        fs::remove_all("/var/lib/torva");
        umask(mask);
        EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_QMAIL));
        EXPECT_EQ(mask, umask(022)) << "the umask is as it was";
        EXPECT_EQ("root:0 0755", ownership("/var/lib/torva"));
        EXPECT_EQ("root:0 0755", ownership("/var/lib/torva/mail"));
        EXPECT_EQ("root:0 0600", ownership(qmail_path));
    }
}

TEST_F(CreateAuthDatabase, TheFileIsRootsAloneUntilItIsHandedOver) {
    for (const mode_t mask : {mode_t{0}, mode_t{0777}}) {
        umask(mask);
        std::string at_birth;
        {
            const OpenHook hook([&](sqlite3*) { at_birth = ownership(auth_path); });
            EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
        }
        EXPECT_EQ("root:0 0600", at_birth) << mask;
    }
}

TEST_F(CreateAuthDatabase, TheNewDatabaseHasTheSchema) {
    EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    SqliteFile file(auth_path);
    EXPECT_THAT(file.rows("SELECT type, name FROM sqlite_master WHERE name NOT LIKE 'sqlite%' "
                          "ORDER BY rowid"),
                ElementsAre("table|domains", "index|domains_name", "trigger|fkd_users_domains_id",
                            "table|users", "index|users_name", "index|users_dom_id",
                            "trigger|fki_users_domains_id", "trigger|fku_users_domains_id"));
    EXPECT_THAT(file.rows("PRAGMA integrity_check"), ElementsAre("ok"));
}

TEST_F(CreateAuthDatabase, CreatingTheDatabaseWhenOneExistsReplacesItWithAnEmptyOne) {
    EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    EXPECT_EQ(0, mail_auth_add_domain(MAIL_SERVER_POSTFIX, "example.com", 0));
    EXPECT_EQ(0, mail_auth_set_user(MAIL_SERVER_POSTFIX, "joe@example.com", "p", 0, 0));
    EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    EXPECT_THAT(SqliteFile(auth_path).rows("SELECT name FROM domains UNION SELECT name FROM users"),
                IsEmpty());
    EXPECT_EQ("postfix:0 0460", ownership(auth_path));
}

TEST_F(CreateAuthDatabase, WhatIsNoDatabaseIsReplaced) {
    fs::create_directories(auth_directory_path);
    write_file(auth_path, "no database at all");
    EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    EXPECT_EQ(0, mail_auth_add_domain(MAIL_SERVER_POSTFIX, "example.com", 0));
}

TEST_F(CreateAuthDatabase, TheJournalOfAKilledWriterDoesNotEnterTheNewDatabase) {
    EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    const std::string journal = std::string(auth_path) + "-journal";
    {
        SqliteFile file(auth_path);
        file.run("PRAGMA cache_size=1; BEGIN; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT "
                 "i+1 FROM n WHERE i<5000) INSERT INTO domains (name) SELECT 'old' || i FROM n");
        fs::copy_file(journal, journal + ".kept");
    }
    fs::rename(journal + ".kept", journal);
    ASSERT_GT(fs::file_size(journal), 512U);
    EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    EXPECT_FALSE(fs::exists(journal));
    SqliteFile file(auth_path);
    EXPECT_THAT(file.rows("SELECT name FROM domains"), IsEmpty());
    EXPECT_THAT(file.rows("PRAGMA integrity_check"), ElementsAre("ok"));
}

TEST_F(CreateAuthDatabase, NoFileButTheDatabaseAndNoDescriptorIsLeft) {
    const std::size_t before = descriptor_count();
    EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    EXPECT_EQ(1, std::distance(fs::directory_iterator(auth_directory_path), {}));
    EXPECT_EQ(before, descriptor_count());
}

// Failures.

TEST_F(CreateAuthDatabase, ADirectoryThatCannotBeMadeIsReported) {
    fs::create_directory("/var/lib/torva");
    write_file("/var/lib/torva/mail", "");
    EXPECT_EQ(-1, mail_auth_create_db(MAIL_SERVER_QMAIL));
    EXPECT_THAT(log.take(), ElementsAre(LogLine(2, "recursive mkdir(/var/lib/torva/mail/auth) "
                                                   "failed: Not a directory")));
}

TEST_F(CreateAuthDatabase, AnObstacleAtThePathIsReported) {
    fs::create_directories(std::string(auth_path) + "/in-the-way");
    EXPECT_EQ(-1, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    EXPECT_THAT(log.take(), ElementsAre(LogLine(2, std::string("Unable to remove database ") +
                                                       auth_path + ": Is a directory")));
}

/// A separate file system for the database's directory.
class Mounted {
public:
    explicit Mounted(const char* options) {
        fs::create_directories(auth_directory_path);
        EXPECT_EQ(0, mount("test", auth_directory_path, "tmpfs", 0, options));
    }
    ~Mounted() { umount2(auth_directory_path, MNT_DETACH); }
    Mounted(const Mounted&) = delete;
    Mounted& operator=(const Mounted&) = delete;
};

TEST_F(CreateAuthDatabase, AFileThatCannotBeMadeIsReported) {
    const Mounted without_room_for_files("nr_inodes=1");
    EXPECT_EQ(-1, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine(3, std::string("Unable to open database ") + auth_path +
                                           ": unable to open database file")));
}

TEST_F(CreateAuthDatabase, AFullDiskIsReported) {
    const Mounted tiny("size=16k");
    const std::size_t before = descriptor_count();
    EXPECT_EQ(-1, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    EXPECT_THAT(log.take(), ElementsAre(LogLine(3, "Unable to execute the database creation "
                                                   "query: database or disk is full")));
    EXPECT_EQ(before, descriptor_count());
}

TEST_F(CreateAuthDatabase, ALinkInPlaceOfTheDatabaseLeadsNowhere) {
    const std::string victim = "/var/tmp/victim";
    write_file(victim, "untouched");
    chmod(victim.c_str(), 0640);
    fs::create_directories(auth_directory_path);
    fs::create_symlink(victim, auth_path);
    EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(auth_path)));

    bool done = false;
    const OpenHook hook([&](sqlite3* /*handle*/) {
        // The moment at which the directory's owner would do it.
        if (!done) {
            done = true;
            fs::remove(auth_path);
            fs::create_symlink(victim, auth_path);
        }
    });
    EXPECT_EQ(-1, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    EXPECT_EQ("untouched", read_file(victim));
    EXPECT_EQ("root:0 0640", ownership(victim));
    fs::remove(victim);
}

TEST_F(CreateAuthDatabase, NoMemoryForThePathIsReported) {
    if (!allocation_faults_work) {
        GTEST_SKIP() << no_allocation_faults;
    }
    {
        const std::size_t size = std::string(auth_directory_path).size() + 1;
        const AllocationFaults faults(size, size);
        EXPECT_EQ(-1, mail_auth_create_db(MAIL_SERVER_POSTFIX));
        EXPECT_EQ(ENOMEM, errno);
    }
    EXPECT_THAT(log.take(), ElementsAre(LogLine(2, "Memory allocation error")));
}

TEST_F(CreateAuthDatabase, NoMemoryForTheHandleIsReported) {
    if (!allocation_faults_work) {
        GTEST_SKIP() << no_allocation_faults;
    }
    fs::create_directories(auth_directory_path);
    EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    log.take();
    {
        const AllocationFaults faults(1);
        EXPECT_EQ(-1, mail_auth_add_domain(MAIL_SERVER_POSTFIX, "example.com", 0));
    }
    EXPECT_THAT(log.take(), ElementsAre(LogLine(3, std::string("Unable to open database ") +
                                                       auth_path + ": general DB errror")));
}

// Locks: somebody else opens the new file before the script has run.

TEST_F(CreateAuthDatabase, TheScriptWaitsForALockAndStartsAfresh) {
    const struct {
        const char* name;
        const char* lock;
    } cases[] = {
        {"exclusive: the script's beginning is refused", "BEGIN EXCLUSIVE"},
        {"shared: the script's end is refused", "BEGIN; SELECT * FROM sqlite_master"},
        {"reserved: the script's first change is refused", "BEGIN IMMEDIATE"},
    };
    for (const auto& test : cases) {
        std::unique_ptr<LockHolder> holder;
        {
            const OpenHook hook([&](sqlite3* /*handle*/) {
                if (!holder) {
                    holder = std::make_unique<LockHolder>(auth_path, test.lock, 300);
                }
            });
            EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX)) << test.name;
        }
        EXPECT_TRUE(holder->released()) << test.name;
        EXPECT_THAT(log.take(), IsEmpty()) << test.name;
        EXPECT_EQ(0, mail_auth_add_domain(MAIL_SERVER_POSTFIX, "example.com", 0)) << test.name;
    }
}

TEST_F(CreateAuthDatabase, AnInterruptedSleepEndsTheAttempts) {
    for (const char* lock : {"BEGIN EXCLUSIVE", "BEGIN; SELECT * FROM sqlite_master"}) {
        std::unique_ptr<LockHolder> holder;
        {
            const OpenHook hook([&](sqlite3* /*handle*/) {
                if (!holder) {
                    holder = std::make_unique<LockHolder>(auth_path, lock, -1);
                }
            });
            const Interruptions interruptions;
            EXPECT_EQ(-1, mail_auth_create_db(MAIL_SERVER_POSTFIX)) << lock;
        }
        EXPECT_THAT(log.take(), ElementsAre(LogLine(3, "Unable to execute the database creation "
                                                       "query: database is locked")));
    }
}

} // namespace
