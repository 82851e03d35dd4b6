// Two processes at once, killed writers, hostile bytes and long lists.
#include "support/AllocationFaults.h"
#include "support/HeapCensus.h"
#include "torva/maildb/AuthDatabase.h"
#include "torva/maildb/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <random>
#include <set>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace torva::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::string numbered(const char* prefix, int number) {
    return prefix + std::to_string(number);
}

/// Runs the function in another process; its return value is the exit status.
pid_t start(const std::function<int()>& function) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(function());
    }
    return child;
}

int exit_status(pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class AuthLoad : public AuthDatabase {};

TEST_F(AuthLoad, AWriterAndAReaderShareTheFileWithoutLoss) {
    constexpr int changes = 2000;
    constexpr int lookups = 20000;
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "d.example", 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "steady@d.example", "p", 0, 0));
    const pid_t writer = start([] {
        for (int i = 0; i < changes; ++i) {
            const std::string address = numbered("u", i % 100) + "@d.example";
            const std::string password = numbered("p", i);
            if (mail_auth_set_user(postfix_type, address.c_str(), password.c_str(), i % 2, i) !=
                0) {
                return 1;
            }
        }
        return 0;
    });
    int failures = 0;
    for (int i = 0; i < lookups; ++i) {
        mail_auth_user user;
        if (mail_auth_lookup(postfix_type, "steady@d.example", &user) != 0 ||
            std::string("p") != user.password) {
            ++failures;
        }
        mail_auth_free_user(&user);
    }
    EXPECT_EQ(0, failures);
    EXPECT_EQ(0, exit_status(writer));
    EXPECT_THAT(log.take(), IsEmpty());

    std::set<std::string> expected{"steady|p|NULL|0"};
    for (int i = changes - 100; i < changes; ++i) {
        const std::string password = numbered("p", i);
        expected.insert(numbered("u", i % 100) + "|" + (i % 2 == 0 ? password : "NULL") + "|" +
                        (i % 2 == 0 ? "NULL" : password) + "|" + std::to_string(i));
    }
    const auto found = rows("SELECT name, userPassword, cmusaslsecretPLAIN, status FROM users");
    EXPECT_EQ(expected, std::set<std::string>(found.begin(), found.end()));
    EXPECT_EQ(expected.size(), found.size());
}

// Killed writers.

/// Changes the database for ever, and writes one byte for every change that was done.
[[noreturn]] void change_for_ever(int first, int acknowledgements) {
    for (int i = first;; ++i) {
        const std::string address = numbered("u", i) + "@d.example";
        if (mail_auth_set_user(postfix_type, address.c_str(), numbered("p", i).c_str(), 0, i) !=
                0 ||
            write(acknowledgements, ".", 1) != 1) {
            _exit(1);
        }
    }
}

/// Starts a writer, kills it some time after it has done some changes, and answers how
/// many it did.
int killed_writer(int first, int changes, unsigned microseconds) {
    int ends[2];
    EXPECT_EQ(0, pipe(ends));
    const pid_t writer = fork();
    if (writer == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(ends[0]);
        change_for_ever(first, ends[1]);
    }
    close(ends[1]);
    int done = 0;
    char byte = 0;
    while (done < changes && read(ends[0], &byte, 1) == 1) {
        ++done;
    }
    usleep(microseconds);
    kill(writer, SIGKILL);
    int status = 0;
    waitpid(writer, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the writer has failed by itself";
    while (read(ends[0], &byte, 1) == 1) {
        ++done;
    }
    close(ends[0]);
    return done;
}

TEST_F(AuthLoad, AWriterKilledAtAnyMomentLeavesEveryAcknowledgedChange) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "d.example", 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "steady@d.example", "p", 0, 0));
    std::mt19937 random(4711);
    std::uniform_int_distribution<int> changes(0, 5);
    std::uniform_int_distribution<unsigned> moment(0, 2000);
    int first = 0;
    for (int turn = 0; turn < 200; ++turn) {
        const int next = first + killed_writer(first, changes(random), moment(random));
        // The next one is a reader: it must handle the journal that was left.
        mail_auth_user user;
        ASSERT_EQ(0, mail_auth_lookup(postfix_type, "steady@d.example", &user)) << log.text();
        mail_auth_free_user(&user);
        SqliteFile file(auth_path);
        ASSERT_THAT(file.rows("PRAGMA integrity_check"), ElementsAre("ok")) << "turn " << turn;
        const std::string own = " FROM users WHERE name <> 'steady'";
        const int stored = std::stoi(file.rows("SELECT count(*)" + own)[0]);
        ASSERT_THAT(file.rows("SELECT count(*)" + own + " AND status < " + std::to_string(next) +
                              " AND name = 'u' || status AND userPassword = 'p' || status"),
                    ElementsAre(std::to_string(next)))
            << "every change that was acknowledged is there, turn " << turn;
        ASSERT_LE(stored, next + 1) << "and at most one that was not";
        first = stored; // goes on after these
    }
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(AuthLoad, AReaderRollsBackWhatAKilledWriterLeft) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "d.example", 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "steady@d.example", "p", 0, 0));
    const pid_t writer = start([] {
        SqliteFile file(auth_path);
        // The cache is too small for the change: half of it is in the file already.
        file.run("PRAGMA cache_size=1; BEGIN; DELETE FROM users; WITH RECURSIVE n(i) AS (SELECT 1 "
                 "UNION ALL SELECT i+1 FROM n WHERE i<5000) INSERT INTO domains (name) SELECT "
                 "'half' || i FROM n");
        kill(getpid(), SIGKILL);
        return 0;
    });
    EXPECT_EQ(-1, exit_status(writer));
    ASSERT_TRUE(std::filesystem::exists(std::string(auth_path) + "-journal"));
    mail_auth_user user;
    EXPECT_EQ(0, mail_auth_lookup(postfix_type, "steady@d.example", &user));
    mail_auth_free_user(&user);
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(std::string(auth_path) + "-journal"));
    EXPECT_THAT(rows("SELECT name FROM domains"), ElementsAre("d.example"));
}

// Hostile bytes.

TEST_F(AuthLoad, HostileBytesComeBackAsTheyWere) {
    std::string every_byte;
    for (int byte = 1; byte < 256; ++byte) {
        every_byte += static_cast<char>(byte);
    }
    std::string binary;
    std::mt19937 random(1);
    while (binary.size() < 65536) {
        binary += static_cast<char>(1 + random() % 255);
    }
    const std::vector<std::string> texts = {
        "'; DROP TABLE users; --",
        "\"quoted\" and \\escaped\\",
        "percent %s %n %d",
        "invalid \xc3\x28 \xff\xfe utf-8 \xed\xa0\x80",
        "line\nfeed\tand\rmore",
        every_byte,
        binary,
        std::string(65536, '\''),
    };
    for (const std::string& given : texts) {
        std::string name = given;
        for (char& c : name) {
            c = c == '@' ? '#' : c; // where the address is split
        }
        const std::string address = name + "@" + given;
        for (const int encrypted : {0, 1}) {
            EXPECT_EQ(0, mail_auth_add_domain(postfix_type, given.c_str(), 0));
            EXPECT_EQ(
                0, mail_auth_set_user(postfix_type, address.c_str(), given.c_str(), encrypted, 0));
            mail_auth_user user;
            ASSERT_EQ(0, mail_auth_read_user(postfix_type, address.c_str(), &user));
            EXPECT_TRUE(name == user.name);
            const char* password = encrypted != 0 ? user.encrypted_password : user.password;
            ASSERT_NE(nullptr, password);
            EXPECT_TRUE(given == password);
            mail_auth_free_user(&user);
            ASSERT_EQ(0, mail_auth_lookup(postfix_type, address.c_str(), &user));
            EXPECT_TRUE(address == user.name);
            mail_auth_free_user(&user);
            mail_auth_user* users = nullptr;
            ASSERT_EQ(0, mail_auth_list(postfix_type, &users, nullptr));
            EXPECT_TRUE(address == users[0].name);
            mail_auth_free_list(users);
            EXPECT_EQ(0,
                      mail_auth_rename_user(postfix_type, address.c_str(), (name + "2").c_str()));
            EXPECT_EQ(0, mail_auth_delete_user(postfix_type, (name + "2@" + given).c_str()));
            EXPECT_THAT(rows("SELECT count(*) FROM users"), ElementsAre("0"));
            EXPECT_EQ(0, mail_auth_delete_domain(postfix_type, given.c_str()));
        }
    }
    EXPECT_THAT(rows("SELECT count(*) FROM domains"), ElementsAre("0"));
    EXPECT_THAT(log.take(), IsEmpty());
}

// Long lists.

constexpr const char* many_users =
    "BEGIN; INSERT INTO domains (id, name) VALUES (1, 'd.example');"
    "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<200000) "
    "INSERT INTO users (dom_id, name, userPassword, status) SELECT 1, 'u' || i, 'p' || i, i FROM n;"
    "COMMIT";

TEST_F(AuthLoad, AListOf200000UsersComesOutWholeAndIsFreedWhole) {
    run(many_users);
    mail_auth_user* users = nullptr;
    size_t count = 0;
    ASSERT_EQ(0, mail_auth_list(postfix_type, &users, &count));
    ASSERT_EQ(200000U, count);
    long long sum = 0;
    for (size_t i = 0; i < count; ++i) {
        ASSERT_EQ(numbered("u", users[i].status) + "@d.example", users[i].name);
        ASSERT_EQ(numbered("p", users[i].status), users[i].password);
        sum += users[i].status;
    }
    EXPECT_EQ(200000LL * 200001 / 2, sum);
    EXPECT_EQ(nullptr, users[count].name);
    mail_auth_free_list(users);
}

TEST_F(AuthLoad, WhatIsReadAndFreedLeavesNothingAllocated) {
    if (!allocation_faults_work) {
        GTEST_SKIP() << "the sanitizer's allocator keeps no books of this kind";
    }
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "d.example", 0));
    const std::string password(500, 'p');
    const std::string none = "u@" + std::string(500, 'd');
    const std::string noAddress(500, 'n');
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "u@d.example", password.c_str(), 0, 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "e@d.example", password.c_str(), 1, 0));
    EXPECT_EQ(
        0, mail_auth_set_user(postfix_type, "w@d.example", nullptr, 0, 0)); // is left out of lists
    const auto everything = [&] {
        int read = 0;
        mail_auth_user user;
        for (const char* address :
             {"u@d.example", "e@d.example", none.c_str(), noAddress.c_str()}) {
            read += mail_auth_read_user(postfix_type, address, &user) == 0 ? 1 : 0;
            mail_auth_free_user(&user);
            read += mail_auth_lookup(postfix_type, address, &user) == 0 ? 1 : 0;
            mail_auth_free_user(&user);
        }
        EXPECT_EQ(4, read);
        mail_auth_user* users = nullptr;
        size_t count = 0;
        EXPECT_EQ(0, mail_auth_list(postfix_type, &users, &count));
        EXPECT_EQ(2U, count);
        mail_auth_free_list(users);
        log.take();
    };
    EXPECT_EQ(0, blocksLeftBy(everything));
}

TEST_F(AuthLoad, NoMemoryIsReportedAndGivesNothing) {
    if (!allocation_faults_work) {
        GTEST_SKIP() << no_allocation_faults;
    }
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "d.example", 0));
    const std::string password(77777, 'p');
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "u@d.example", password.c_str(), 0, 0));
    mail_auth_user user;
    mail_auth_user* users = nullptr;
    {
        const AllocationFaults faults(77778, 77778); // the copy of the password
        EXPECT_EQ(-1, mail_auth_read_user(postfix_type, "u@d.example", &user));
        EXPECT_EQ(ENOMEM, errno);
        EXPECT_EQ(nullptr, user.name);
        EXPECT_EQ(-1, mail_auth_lookup(postfix_type, "u@d.example", &user));
        EXPECT_EQ(nullptr, user.name);
        EXPECT_EQ(-1, mail_auth_list(postfix_type, &users, nullptr));
        EXPECT_EQ(nullptr, users);
    }
    {
        constexpr std::size_t grown_array = 4096 * sizeof(mail_auth_user);
        run("DELETE FROM domains");
        run(many_users);
        const AllocationFaults faults(grown_array, grown_array);
        EXPECT_EQ(-1, mail_auth_list(postfix_type, &users, nullptr));
    }
    const LogLine no_memory(2, "Memory allocation error");
    const LogLine no_list(3, "Unable to get users list from MTA password database");
    EXPECT_THAT(log.take(),
                ElementsAre(no_memory, no_memory, no_memory, no_list, no_memory, no_list));
}

} // namespace
