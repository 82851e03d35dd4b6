// The account that owns the database's directory replaces the database, while root works there.
// Its journal: MailAuthJournalSandboxTest.cpp.
#include "torva/maildb/HostileFixture.h"
#include "torva/maildb/Meanwhile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

using namespace torva::test;
using namespace torva::test::hostile;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

// The database is replaced.

TEST_F(HostileDirectory, AFifoInThePlaceOfTheDatabaseBlocksNobody) {
    put_aside();
    ASSERT_EQ(0, mkfifo(auth_path, 0666));
    expect_refusal("fifo");
    EXPECT_TRUE(fs::is_fifo(path)) << "it is left as it is";
}

TEST_F(HostileDirectory, ADeviceOrASocketInThePlaceOfTheDatabaseIsNotOpened) {
    put_aside();
    ASSERT_EQ(0, mknod(auth_path, S_IFCHR | 0666, makedev(1, 3)));
    expect_refusal("device");
    fs::remove(path);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", auth_path);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
    expect_refusal("socket");
    close(listener);
}

TEST_F(HostileDirectory, ALinkInThePlaceOfTheDatabaseIsNotFollowed) {
    put_aside();
    const std::string before = state(aside);
    fs::create_symlink(aside, path);
    expect_refusal("link to a database");
    EXPECT_EQ(before, state(aside));
    fs::remove(path);
    fs::create_symlink("/var/tmp/not-there", path);
    expect_refusal("dangling link");
    EXPECT_EQ("missing", state("/var/tmp/not-there"));
}

TEST_F(HostileDirectory, ADatabaseWithASecondHardLinkIsRefused) {
    put_aside();
    fs::create_hard_link(aside, path);
    const std::string before = state(aside);
    expect_refusal("hard link");
    EXPECT_EQ(before, state(aside));
}

TEST_F(HostileDirectory, TheDirectoryItselfMayBeALink) {
    const std::string real = "/var/tmp/tables";
    fs::remove_all(real);
    fs::rename(auth_directory_path, real);
    fs::create_directory_symlink(real, auth_directory_path);
    EXPECT_EQ(0, look_up());
    EXPECT_EQ(0, add_domain());
    EXPECT_EQ(0, mail_auth_create_db(postfix_type));
    EXPECT_EQ(-1, look_up()) << "it is a new one";
    EXPECT_EQ(0, add_domain());
    fs::remove(auth_directory_path);
    fs::rename(real, auth_directory_path);
}

TEST_F(HostileDirectory, ADatabaseInWalModeIsRefusedWithoutMakingItsFiles) {
    {
        SqliteFile file(path);
        file.run("PRAGMA journal_mode=WAL");
    }
    EXPECT_EQ(-1, look_up());
    EXPECT_EQ(-1, add_domain());
    for (const auto& line : log.take()) {
        EXPECT_THAT(line.second,
                    AnyOf(HasSubstr("unable to open database file"), HasSubstr("No such domain")));
    }
    EXPECT_FALSE(fs::exists(path + "-wal"));
    EXPECT_FALSE(fs::exists(path + "-shm"));
}

TEST_F(HostileDirectory, AViewWithoutEndInThePlaceOfATableIsInterrupted) {
    run("DROP TABLE users; CREATE VIEW users AS "
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) "
        "SELECT 1 AS id, 1 AS dom_id, 'joe' AS name, 'p' AS userPassword, "
        "NULL AS cmusaslsecretPLAIN, 0 AS status FROM n WHERE i < 0");
    EXPECT_EQ("-1\n3 Unable to execute the user authentication query: interrupted\n",
              bounded(look_up));
}

TEST_F(HostileDirectory, AHostileSchemaReachesNothingButTheTables) {
    run("CREATE TRIGGER reach AFTER INSERT ON domains BEGIN SELECT reach_out(NEW.name); END");
    static bool reached = false;
    reached = false;
    const OpenHook hook([](sqlite3* handle) {
        sqlite3_create_function(
            handle, "reach_out", 1, SQLITE_UTF8, nullptr,
            [](sqlite3_context*, int, sqlite3_value**) { reached = true; }, nullptr, nullptr);
    });
    EXPECT_EQ(-1, add_domain());
    EXPECT_FALSE(reached);
    EXPECT_THAT(log.text(), HasSubstr("unsafe use of reach_out()"));
}

TEST_F(HostileDirectory, OtherDatabasesOfTheProcessAreOpenedAsBefore) {
    EXPECT_EQ(0, look_up());
    fs::copy_file(path, aside);
    fs::create_hard_link(aside, victim + ".link");
    fs::create_symlink(aside, victim + ".symlink");
    for (const char* name : {".link", ".symlink"}) {
        EXPECT_THAT(SqliteFile(victim + name).rows("SELECT name FROM domains"),
                    ElementsAre("example.com"));
        fs::remove(victim + name);
    }
}

TEST_F(HostileDirectory, WithoutTheOverriddenCallTheLookBeforeOpeningIsLeft) {
    put_aside();
    ASSERT_EQ(0, mkfifo(auth_path, 0666));
    EXPECT_THAT(bounded([] {
                    look_up();
                    sqlite3_vfs* base = sqlite3_vfs_find("unix");
                    base->xSetSystemCall(base, "open", nullptr);
                    return look_up();
                }),
                testing::StartsWith("-1\n"));
}

// Swapped all the time.

/// Looks up and changes many times; how often each succeeded does not matter.
int work() {
    for (int turn = 0; turn < 500; ++turn) {
        look_up();
        mail_auth_set_user(postfix_type, "joe@example.com", "p", 0, turn);
    }
    return 0;
}

TEST_F(HostileDirectory, AFifoThatComesAndGoesInThePlaceOfTheDatabaseBlocksNobody) {
    const std::string fifo = path + ".fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0666));
    {
        const Meanwhile swapper(
            [&] { renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, fifo.c_str(), RENAME_EXCHANGE); });
        EXPECT_THAT(bounded(work), testing::StartsWith("0\n"));
    }
    fs::remove(fifo);
}

TEST_F(HostileDirectory, AFifoThatComesAndGoesInThePlaceOfTheJournalBlocksNobody) {
    const Meanwhile swapper([] {
        mkfifo(journal.c_str(), 0666);
        unlink(journal.c_str());
    });
    EXPECT_THAT(bounded(work), testing::StartsWith("0\n"));
}

TEST_F(HostileDirectory, AFileThatIsLinkedAsTheJournalNowAndThenIsLeftAlone) {
    {
        const Meanwhile swapper([] {
            link(victim.c_str(), journal.c_str());
            unlink(journal.c_str());
        });
        EXPECT_THAT(bounded(work), testing::StartsWith("0\n"));
    }
    fs::remove(journal);
    EXPECT_EQ("somebody else's|0:0 33184 1", state(victim));
}

// Creating the database in a directory that already belongs to somebody else.

using Swap = std::function<void()>;

/// Creates the database, and changes the directory as soon as it has been opened.
int create_with(const Swap& swap) {
    bool done = false;
    const OpenHook hook([&](sqlite3* /*handle*/) {
        if (!done) {
            done = true;
            swap();
        }
    });
    return mail_auth_create_db(postfix_type);
}

TEST_F(HostileDirectory, WhatIsPutInThePlaceOfANewDatabaseIsNotGivenAway) {
    const std::string id = std::to_string(postfix_id());
    const std::string before = state(victim);
    const std::vector<std::pair<const char*, Swap>> swaps = {
        {"hard link",
         [] {
             fs::remove(path);
             fs::create_hard_link(victim, path);
         }},
        {"link",
         [] {
             fs::remove(path);
             fs::create_symlink(victim, path);
         }},
        {"fifo",
         [] {
             fs::remove(path);
             mkfifo(auth_path, 0666);
         }},
        {"another file",
         [] {
             fs::rename(path, aside);
             fs::copy_file(victim, path);
         }},
        {"a second link", [] { fs::create_hard_link(path, aside); }},
    };
    for (const auto& [name, swap] : swaps) {
        EXPECT_EQ(-1, create_with(swap)) << name;
        EXPECT_THAT(log.take(), ElementsAre(LogLine(2, "chown(\"" + path + "\", " + id +
                                                           ", 0) failed: Stale file handle")))
            << name;
        for (const std::string& file : {path, aside}) {
            struct stat status {};
            EXPECT_TRUE(lstat(file.c_str(), &status) != 0 || status.st_uid == 0) << name;
            fs::remove(file);
        }
        EXPECT_EQ(before, state(victim)) << name;
    }
}

TEST_F(HostileDirectory, WhatIsPutThereBeforeANewDatabaseIsReplacedNotFilled) {
    const std::string before = state(victim);
    const std::vector<Swap> plants = {
        [] { fs::create_symlink(victim, path); },
        [] { fs::create_hard_link(victim, path); },
        [] { mkfifo(auth_path, 0666); },
    };
    for (const Swap& plant : plants) {
        fs::remove(path);
        plant();
        EXPECT_EQ("0\n", bounded([] { return mail_auth_create_db(postfix_type); }));
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path)));
        EXPECT_EQ(before, state(victim));
    }
}

TEST_F(HostileDirectory, AFifoInThePlaceOfTheJournalDoesNotBlockCreating) {
    ASSERT_EQ(0, mkfifo(journal.c_str(), 0666));
    EXPECT_EQ("0\n", bounded([] { return mail_auth_create_db(postfix_type); }));
    EXPECT_FALSE(fs::exists(fs::symlink_status(journal)));
}

} // namespace
