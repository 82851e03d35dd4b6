// Readers that find the journal of a killed writer.
#include "torva/maildb/AuthDatabase.h"
#include "torva/maildb/BoundedChild.h"
#include "torva/maildb/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <grp.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace torva::test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

const std::string auth_journal = std::string(auth_path) + "-journal";

/// A writer that dies half-way: everything is deleted from the file, and still in the journal.
void leave_a_journal() {
    const pid_t writer = fork();
    if (writer == 0) {
        sqlite3_reset_auto_extension();
        SqliteFile file(auth_path);
        file.run("PRAGMA cache_size=1; BEGIN; DELETE FROM domains; WITH RECURSIVE n(i) AS (SELECT "
                 "1 UNION ALL SELECT i+1 FROM n WHERE i<5000) INSERT INTO domains (name) SELECT "
                 "'half' || i FROM n");
        kill(getpid(), SIGKILL);
    }
    int status = 0;
    waitpid(writer, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_TRUE(std::filesystem::exists(auth_journal));
}

/// Leaves a journal when the query begins to run: it has been prepared then.
class JournalAtFirstStep {
public:
    explicit JournalAtFirstStep(std::string query)
        : query_(std::move(query)), hook_([this](sqlite3* handle) {
              sqlite3_trace_v2(handle, SQLITE_TRACE_STMT, at_statement, this);
          }) {}
    bool met() const { return met_; }

private:
    static int at_statement(unsigned /*kind*/, void* self, void* statement, void* /*text*/) {
        auto* own = static_cast<JournalAtFirstStep*>(self);
        const char* text = sqlite3_sql(static_cast<sqlite3_stmt*>(statement));
        if (!own->met_ && text != nullptr && begins_with(text, own->query_)) {
            own->met_ = true;
            leave_a_journal();
        }
        return 0;
    }
    static bool begins_with(const std::string& text, const std::string& start) {
        return text.compare(0, start.size(), start) == 0;
    }

    std::string query_;
    bool met_ = false;
    OpenHook hook_;
};

class AuthRescue : public AuthDatabase {
protected:
    AuthRescue() {
        EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "other.example", 0));
        EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 4));
        EXPECT_EQ(0, mail_auth_set_user(postfix_type, "ann@example.com", "q", 1, 3));
        EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@example.com", "p", 0, 2));
    }
};

/// The result of a query: "joe@example.com p 2".
std::string shown(const mail_auth_user& user) {
    const char* password = user.password == nullptr ? user.encrypted_password : user.password;
    return std::string(user.name) + " " + password + " " + std::to_string(user.status) + "\n";
}

struct Query {
    const char* begins;
    std::function<std::string()> run;
    std::string answer;
};

std::vector<Query> queries() {
    return {
        {"SELECT id, status FROM domains",
         [] {
             long long id = 0;
             int status = 0;
             const int result = mail_auth_find_domain(postfix_type, "example.com", &id, &status);
             return std::to_string(result) + " " + std::to_string(id) + " " +
                    std::to_string(status);
         },
         "0 2 4"},
        {"SELECT name, userPassword",
         [] {
             mail_auth_user user;
             const int result = mail_auth_read_user(postfix_type, "joe@example.com", &user);
             std::string text = result == 0 ? shown(user) : "failed";
             mail_auth_free_user(&user);
             return text;
         },
         "joe p 2\n"},
        {"SELECT u.userPassword",
         [] {
             mail_auth_user user;
             const int result = mail_auth_lookup(postfix_type, "joe@example.com", &user);
             std::string text = result == 0 ? shown(user) : "failed";
             mail_auth_free_user(&user);
             return text;
         },
         "joe@example.com p 2\n"},
        {"SELECT u.name ||",
         [] {
             mail_auth_user* users = nullptr;
             size_t count = 0;
             std::string text = mail_auth_list(postfix_type, &users, &count) == 0 ? "" : "failed";
             for (size_t i = 0; i < count; ++i) {
                 text += shown(users[i]);
             }
             mail_auth_free_list(users);
             return text;
         },
         "ann@example.com q 3\njoe@example.com p 2\n"},
    };
}

TEST_F(AuthRescue, AJournalThatIsThereWhenAQueryIsPreparedIsRolledBack) {
    for (const Query& query : queries()) {
        leave_a_journal();
        EXPECT_EQ(query.answer, query.run()) << query.begins;
        EXPECT_FALSE(std::filesystem::exists(auth_journal)) << query.begins;
        EXPECT_THAT(log.take(), IsEmpty()) << query.begins;
    }
}

TEST_F(AuthRescue, AJournalThatIsLeftBetweenPreparingAndRunningIsRolledBack) {
    for (const Query& query : queries()) {
        const JournalAtFirstStep moment(query.begins);
        EXPECT_EQ(query.answer, query.run()) << query.begins;
        EXPECT_TRUE(moment.met()) << query.begins;
        EXPECT_FALSE(std::filesystem::exists(auth_journal)) << query.begins;
        EXPECT_THAT(log.take(), IsEmpty()) << query.begins;
    }
}

TEST_F(AuthRescue, ARescuedQueryLeavesNoHandle) {
    const std::size_t before = descriptor_count();
    for (const Query& query : queries()) {
        leave_a_journal();
        query.run();
        EXPECT_EQ(before, descriptor_count()) << query.begins;
        {
            const JournalAtFirstStep moment(query.begins);
            query.run();
        }
        EXPECT_EQ(before, descriptor_count()) << query.begins;
    }
}

/// Looks up in a process of the mail server's account.
std::string looked_up_by_postfix() {
    return bounded([] {
        const passwd* account = getpwnam("postfix");
        if (setgroups(0, nullptr) != 0 || setgid(account->pw_gid) != 0 ||
            setuid(account->pw_uid) != 0) {
            return 99;
        }
        mail_auth_user user;
        const int result = mail_auth_lookup(postfix_type, "joe@example.com", &user);
        mail_auth_free_user(&user);
        return result;
    });
}

TEST_F(AuthRescue, TheMailServersAccountReadsAgainOnceSomebodyElseHas) {
    EXPECT_EQ("0\n", looked_up_by_postfix());
    leave_a_journal();
    EXPECT_THAT(looked_up_by_postfix(), StartsWith("-1\n3 Unable to prepare SQL statement"));
    EXPECT_THAT(looked_up_by_postfix(), HasSubstr("attempt to write a readonly database"));
    EXPECT_TRUE(std::filesystem::exists(auth_journal));
    EXPECT_EQ(0, mail_auth_find_domain(postfix_type, "example.com", nullptr, nullptr));
    EXPECT_EQ("0\n", looked_up_by_postfix());
}

} // namespace
