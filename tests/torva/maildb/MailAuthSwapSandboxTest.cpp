// Replacing the database or its journal at the last moment: after the
// check before opening, or between opening and the check of the descriptor.
#include "torva/maildb/AuthDatabase.h"
#include "torva/maildb/BoundedChild.h"
#include "torva/maildb/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace torva::test;
using testing::StartsWith;
namespace fs = std::filesystem;

namespace {

const std::string swap_path = auth_path;
const std::string swap_journal = swap_path + "-journal";
const std::string swap_victim = "/var/tmp/victim";

using Moment = std::function<void(const std::string& opened)>;
Moment before_open;
Moment after_open;

int hooked_open(const char* name, int flags, int mode) {
    if (before_open) {
        before_open(name);
    }
    const int fd = open(name, flags, static_cast<mode_t>(mode));
    if (after_open) {
        after_open(name);
    }
    return fd;
}

/// From the start of the program on, SQLite opens through the hooks; the code under test
/// comes in front of them when it is first used.
const bool hooked = [] {
    sqlite3_initialize();
    sqlite3_vfs* base = sqlite3_vfs_find("unix");
    return base->xSetSystemCall(base, "open", reinterpret_cast<sqlite3_syscall_ptr>(hooked_open)) ==
           SQLITE_OK;
}();

class LastMoment : public AuthDatabase {
protected:
    LastMoment() {
        EXPECT_TRUE(hooked);
        EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
        fs::remove(swap_victim);
        write_file(swap_victim, "");
        chmod(swap_victim.c_str(), 0640);
    }
    ~LastMoment() override {
        before_open = nullptr;
        after_open = nullptr;
        for (const std::string& file : {swap_path, swap_journal, swap_victim}) {
            fs::remove(file);
        }
    }
    static void expect_unharmed() {
        struct stat status {};
        ASSERT_EQ(0, lstat(swap_victim.c_str(), &status));
        EXPECT_EQ(0U, status.st_uid);
        EXPECT_EQ(0640U, status.st_mode & 07777U);
        EXPECT_EQ("", read_file(swap_victim));
    }
};

int find_domain() {
    return mail_auth_find_domain(postfix_type, "example.com", nullptr, nullptr);
}

int add_new_domain() {
    return mail_auth_add_domain(postfix_type, "new.example", 0);
}

TEST_F(LastMoment, AFifoBlocksNobody) {
    before_open = [](const std::string& opened) {
        if (opened == swap_path) {
            unlink(auth_path);
            mkfifo(auth_path, 0666);
        }
    };
    EXPECT_THAT(bounded(find_domain), StartsWith("-1\n3 Unable to open database(readonly) "));
}

TEST_F(LastMoment, ALinkIsNotFollowed) {
    fs::copy_file(swap_path, swap_path + ".kept");
    before_open = [](const std::string& opened) {
        if (opened == swap_path) {
            unlink(auth_path);
            fs::create_symlink(swap_path + ".kept", swap_path);
        }
    };
    EXPECT_THAT(bounded(find_domain), StartsWith("-1\n3 Unable to open database(readonly) "));
    fs::remove(swap_path + ".kept");
}

TEST_F(LastMoment, AFileThatIsLinkedAsTheJournalIsNotGivenAway) {
    before_open = [](const std::string& opened) {
        if (opened == swap_journal) {
            link(swap_victim.c_str(), swap_journal.c_str());
        }
    };
    EXPECT_THAT(bounded(add_new_domain), StartsWith("-1\n"));
    fs::remove(swap_journal);
    expect_unharmed();
}

TEST_F(LastMoment, AFileThatWasLinkedWhileItWasOpenedIsNotGivenAway) {
    before_open = [](const std::string& opened) {
        if (opened == swap_journal) {
            link(swap_victim.c_str(), swap_journal.c_str());
        }
    };
    after_open = [](const std::string& opened) {
        if (opened == swap_journal) {
            unlink(swap_journal.c_str());
        }
    };
    EXPECT_THAT(bounded(add_new_domain), StartsWith("-1\n"));
    expect_unharmed();
}

TEST_F(LastMoment, AJournalThatGoesWhileItIsOpenedIsNoObstacle) {
    write_file(swap_journal, "x");
    after_open = [](const std::string& opened) {
        if (opened == swap_journal) {
            unlink(swap_journal.c_str());
        }
    };
    EXPECT_EQ("0\n", bounded(find_domain));
}

} // namespace
