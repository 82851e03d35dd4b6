#include "torva/maildb/AllocationFaults.h"
#include "torva/maildb/AuthDatabase.h"
#include "torva/maildb/Files.h"
#include "torva/maildb/mail_auth_create.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace torva::test;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

constexpr const char* qmail_directory = "/var/lib/torva/mail/auth";
constexpr const char* qmail_path = "/var/lib/torva/mail/auth/passwd.db";

/// Owner, group and mode of a file: "postfix:root 0770".
std::string ownership(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return "missing";
    }
    char text[100];
    const passwd* owner = getpwuid(status.st_uid);
    std::snprintf(text, sizeof text, "%s:%u %04o", owner == nullptr ? "?" : owner->pw_name,
                  status.st_gid, status.st_mode & 07777U);
    return text;
}

class CreateAuthDatabase : public testing::Test {
protected:
    CreateAuthDatabase() {
        fs::remove_all(auth_directory_path);
        fs::remove_all("/var/lib/torva");
    }
    ~CreateAuthDatabase() override {
        umask(022);
        fs::remove_all(auth_directory_path);
    }
    CapturedLog log;
};

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
    for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}}) {
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
    umask(0);
    std::string at_birth;
    {
        const OpenHook hook([&](sqlite3*) { at_birth = ownership(auth_path); });
        EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    }
    EXPECT_EQ("root:0 0600", at_birth);
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

/// A file system of its own under the database's directory.
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

TEST_F(CreateAuthDatabase, AMissingPostfixUserIsReported) {
    const std::string users = read_file("/etc/passwd");
    std::string others = users;
    const std::size_t at = others.find("postfix:");
    ASSERT_NE(std::string::npos, at);
    others.erase(at, others.find('\n', at) + 1 - at);
    write_file("/etc/passwd", others);
    EXPECT_EQ(-1, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    write_file("/etc/passwd", users);
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine(2, "Unable to get user id for \"postfix\": Success")));
    EXPECT_EQ("root:0 0600", ownership(auth_path)) << "nobody else may read it";
}

/// Creates the database in a process without the capability, and answers its messages.
std::vector<LogLine> create_without(int capability) {
    int ends[2];
    EXPECT_EQ(0, pipe(ends));
    const pid_t child = fork();
    if (child == 0) {
        const CapturedLog unused;
        CapturedLog log;
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[2]{};
        syscall(SYS_capget, &header, data);
        data[0].effective &= ~(1U << static_cast<unsigned>(capability));
        syscall(SYS_capset, &header, data);
        const int result = mail_auth_create_db(MAIL_SERVER_POSTFIX);
        for (const LogLine& line : log.take()) {
            const std::string text = static_cast<char>('0' + line.first) + line.second + "\n";
            (void)!write(ends[1], text.data(), text.size());
        }
        _exit(result == -1 ? 0 : 1);
    }
    close(ends[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t count = 0; (count = read(ends[0], buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    close(ends[0]);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    std::vector<LogLine> lines;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = text.find('\n', start);
        lines.emplace_back(text[start] - '0', text.substr(start + 1, end - start - 1));
        start = end + 1;
    }
    return lines;
}

TEST_F(CreateAuthDatabase, AnOwnerThatCannotBeSetIsReported) {
    const std::string id = std::to_string(getpwnam("postfix")->pw_uid);
    EXPECT_THAT(create_without(CAP_CHOWN),
                ElementsAre(LogLine(2, std::string("chown(\"") + auth_directory_path + "\", " + id +
                                           ", 0) failed: Operation not permitted")));
}

TEST_F(CreateAuthDatabase, AModeThatCannotBeSetIsReported) {
    EXPECT_THAT(create_without(CAP_FOWNER),
                ElementsAre(LogLine(2, std::string("chmod(\"") + auth_directory_path +
                                           "\", 0770) failed: Operation not permitted")));
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
