// Operations while another process has the database locked.
#include "torva/maildb/AuthDatabase.h"
#include "torva/maildb/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <sqlite3.h>
#include <thread>
#include <unistd.h>

using namespace torva::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class AuthLocks : public AuthDatabase {};

TEST_F(AuthLocks, EveryOperationWaitsForALockHeldElsewhere) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "d.example", 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "u@d.example", "p", 0, 0));
    mail_auth_user user;
    mail_auth_user* users = nullptr;
    const struct {
        const char* name;
        std::function<int()> operation;
    } cases[] = {
        {"add domain", [] { return mail_auth_add_domain(postfix_type, "new.example", 0); }},
        {"find domain",
         [] { return mail_auth_find_domain(postfix_type, "d.example", nullptr, nullptr); }},
        {"set user", [] { return mail_auth_set_user(postfix_type, "v@d.example", "p", 0, 0); }},
        {"lookup",
         [&] {
             const int result = mail_auth_lookup(postfix_type, "u@d.example", &user);
             mail_auth_free_user(&user);
             return result;
         }},
        {"list",
         [&] {
             const int result = mail_auth_list(postfix_type, &users, nullptr);
             mail_auth_free_list(users);
             return result;
         }},
        {"delete user", [] { return mail_auth_delete_user(postfix_type, "v@d.example"); }},
    };
    for (const auto& test : cases) {
        const LockHolder holder(auth_path, "BEGIN EXCLUSIVE", 200);
        EXPECT_EQ(0, test.operation()) << test.name;
        EXPECT_TRUE(holder.released()) << test.name;
    }
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(AuthLocks, AChangeWaitsForReadersAndOtherWriters) {
    for (const char* lock : {"BEGIN; SELECT * FROM domains", "BEGIN IMMEDIATE"}) {
        const LockHolder holder(auth_path, lock, 200);
        EXPECT_EQ(0, mail_auth_add_domain(postfix_type, lock, 0)) << lock;
        EXPECT_TRUE(holder.released()) << lock;
    }
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(AuthLocks, AnInterruptedSleepEndsTheAttempts) {
    const struct {
        const char* lock;
        const char* message;
    } cases[] = {
        {"BEGIN EXCLUSIVE", "Unable to prepare SQL statement for query 'INSERT INTO domains (name, "
                            "status) VALUES(?, ?)': database is locked"},
        {"BEGIN IMMEDIATE",
         "Unable to execute the mail authorization registration query: database is locked"},
        {"BEGIN; SELECT * FROM domains",
         "Unable to execute the mail authorization registration query: database is locked"},
    };
    for (const auto& test : cases) {
        const LockHolder holder(auth_path, test.lock, -1);
        const Interruptions interruptions;
        EXPECT_EQ(-1, mail_auth_add_domain(postfix_type, "example.com", 0)) << test.lock;
        EXPECT_THAT(log.take(), ElementsAre(LogLine(3, test.message))) << test.lock;
    }
    EXPECT_THAT(rows("SELECT name FROM domains"), IsEmpty());
}

/// A foreign statement, which prevents the handle from being closed.
class Straggler {
public:
    void attach(sqlite3* handle) {
        if (statement_ == nullptr) {
            sqlite3_prepare_v2(handle, "SELECT 1", -1, &statement_, nullptr);
        }
    }
    void let_go() { sqlite3_finalize(statement_); }

private:
    sqlite3_stmt* statement_ = nullptr;
};

TEST_F(AuthLocks, ClosingWaitsForWhoeverUsesTheHandle) {
    const std::size_t before = descriptor_count();
    Straggler straggler;
    std::thread other;
    const OpenHook hook([&](sqlite3* handle) {
        straggler.attach(handle);
        other = std::thread([&] {
            usleep(50000);
            straggler.let_go();
        });
    });
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
    EXPECT_EQ(before, descriptor_count());
    other.join();
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(AuthLocks, AnInterruptedSleepEndsTheAttemptsToClose) {
    const std::size_t before = descriptor_count();
    Straggler straggler;
    {
        const OpenHook hook([&](sqlite3* handle) { straggler.attach(handle); });
        const Interruptions interruptions;
        EXPECT_EQ(-1, mail_auth_add_domain(postfix_type, "example.com", 0));
    }
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine(3, std::string("Unable to close database ") + auth_path +
                                           ": unable to close due to unfinalized statements or "
                                           "unfinished backups")));
    straggler.let_go();
    EXPECT_EQ(before, descriptor_count()) << "the handle went with its last user";
}

} // namespace
