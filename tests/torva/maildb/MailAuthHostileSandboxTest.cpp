// The account that owns the database's directory replaces the database
// and its journal, while root works there.
#include "torva/maildb/AuthDatabase.h"
#include "torva/maildb/BoundedChild.h"
#include "torva/maildb/Files.h"
#include "torva/maildb/Meanwhile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

using namespace torva::test;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

const std::string path = auth_path;
const std::string journal = path + "-journal";
const std::string aside = "/var/tmp/aside.db"; // where the real database is meanwhile
const std::string victim = "/var/tmp/victim";

int look_up() {
    mail_auth_user user;
    const int result = mail_auth_lookup(postfix_type, "joe@example.com", &user);
    mail_auth_free_user(&user);
    return result;
}

int add_domain() {
    return mail_auth_add_domain(postfix_type, "new.example", 0);
}

/// Contents, owner, group, mode and number of links.
std::string state(const std::string& file) {
    struct stat status {};
    if (lstat(file.c_str(), &status) != 0) {
        return "missing";
    }
    return read_file(file) + "|" + std::to_string(status.st_uid) + ":" +
           std::to_string(status.st_gid) + " " + std::to_string(status.st_mode) + " " +
           std::to_string(status.st_nlink);
}

uid_t postfix_id() {
    return getpwnam("postfix")->pw_uid;
}

class HostileDirectory : public AuthDatabase {
protected:
    HostileDirectory() {
        EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
        EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@example.com", "p", 0, 0));
        write_file(victim, "somebody else's");
        chmod(victim.c_str(), 0640);
    }
    ~HostileDirectory() override {
        for (const std::string& file : {path, journal, victim, aside}) {
            fs::remove_all(file);
        }
    }
    static void put_aside() {
        fs::copy_file(path, aside);
        fs::remove(path);
    }

    /// Every operation reports that the database cannot be opened, and soon.
    static void expect_refusal(const std::string& what) {
        const std::string reason = auth_path + std::string(": unable to open database file\n");
        EXPECT_EQ("-1\n3 Unable to open database " + reason, bounded(add_domain)) << what;
        EXPECT_EQ("-1\n3 Unable to open database(readonly) " + reason, bounded(look_up)) << what;
    }
};

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

// The journal is replaced.

TEST_F(HostileDirectory, AFifoInThePlaceOfTheJournalBlocksNobody) {
    ASSERT_EQ(0, mkfifo(journal.c_str(), 0666));
    EXPECT_THAT(bounded(look_up), testing::StartsWith("-1\n"));
    EXPECT_THAT(bounded(add_domain), testing::StartsWith("-1\n"));
    fs::remove(journal);
    EXPECT_EQ("0\n", bounded(look_up)) << "the records are as they were";
}

TEST_F(HostileDirectory, ALinkInThePlaceOfTheJournalIsNotFollowed) {
    const std::string before = state(victim);
    fs::create_symlink(victim, journal);
    bounded(look_up);
    bounded(add_domain);
    EXPECT_EQ(before, state(victim));
    fs::remove(journal);
    fs::create_symlink("/var/tmp/not-there", journal);
    bounded(look_up);
    bounded(add_domain);
    EXPECT_EQ("missing", state("/var/tmp/not-there"));
}

TEST_F(HostileDirectory, AFileLinkedAsTheJournalIsNeitherWrittenNorGivenAway) {
    for (const std::string text : {"somebody else's", ""}) {
        write_file(victim, text);
        chmod(victim.c_str(), 0640);
        fs::create_hard_link(victim, journal);
        bounded(look_up);
        bounded(add_domain);
        fs::remove(journal);
        EXPECT_EQ(text + "|0:0 33184 1", state(victim));
    }
}

/// A number in the format of a journal.
std::string big_endian(std::uint32_t number) {
    std::string bytes;
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        bytes += static_cast<char>((number >> shift) & 0xffU);
    }
    return bytes;
}

/// The end of a journal that belongs to a transaction over several databases.
std::string super_journal_record(const std::string& name) {
    constexpr std::uint32_t locking_page = 0x40000000U / 4096U + 1;
    std::uint32_t sum = 0;
    for (const char c : name) {
        sum += static_cast<std::uint32_t>(static_cast<signed char>(c));
    }
    return big_endian(locking_page) + name + big_endian(static_cast<std::uint32_t>(name.size())) +
           big_endian(sum) + "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7";
}

/// A database and the journal of an unfinished transaction, which names a super-journal.
void leave_journal_that_names(const std::string& super_journal) {
    {
        SqliteFile file(path);
        file.run("PRAGMA cache_size=1; BEGIN; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL "
                 "SELECT i+1 FROM n WHERE i<5000) INSERT INTO domains (name) SELECT 'x' || i "
                 "FROM n");
        fs::copy_file(journal, journal + ".kept");
        fs::copy_file(path, path + ".kept");
    }
    fs::rename(path + ".kept", path);
    fs::rename(journal + ".kept", journal);
    write_file(journal, read_file(journal) + super_journal_record(super_journal));
}

TEST_F(HostileDirectory, AJournalThatNamesAnotherFileHasNothingDeleted) {
    const std::string before = state(victim);
    for (const auto& operation : {look_up, add_domain}) {
        leave_journal_that_names(victim);
        // Later versions of SQLite see that this cannot be a super-journal, and roll back.
        EXPECT_THAT(bounded(operation),
                    testing::AnyOf(testing::StartsWith("-1\n3 "), testing::StrEq("0\n")));
        EXPECT_EQ(before, state(victim));
        fs::remove(journal);
        EXPECT_EQ(0, mail_auth_create_db(postfix_type));
    }
}

TEST_F(HostileDirectory, AJournalThatNamesASuperJournalIsNotRolledBack) {
    const std::string super_journal = path + "-mj00000A900";
    write_file(super_journal, "somebody else's");
    const std::string before = state(super_journal);
    for (const auto& operation : {look_up, add_domain}) {
        leave_journal_that_names(super_journal);
        EXPECT_THAT(bounded(operation), testing::StartsWith("-1\n3 "));
        EXPECT_EQ(before, state(super_journal));
        fs::remove(journal);
        EXPECT_EQ(0, mail_auth_create_db(postfix_type));
    }
    fs::remove(super_journal);
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
