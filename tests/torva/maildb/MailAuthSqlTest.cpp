#include "torva/maildb/mail_auth_sql.h"

#include "torva/maildb/CapturedLog.h"
#include "torva/maildb/Files.h"
#include "torva/maildb/mail_auth_create.h"
#include "torva/maildb/mail_auth_records.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>
#include <string>
#include <vector>

using namespace torva::test;
using namespace torva::maildb;
using testing::ElementsAre;

namespace {

std::vector<long>* recorded = nullptr; ///< nanoseconds of the sleeps that were asked for
bool interrupted = false;

} // namespace

// Replaces the C library's, so that a test sees the requested time.
extern "C" int nanosleep(const timespec* request, timespec* /*remaining*/) {
    if (recorded != nullptr) {
        recorded->push_back(request->tv_sec * 1'000'000'000 + request->tv_nsec);
    }
    if (interrupted) {
        errno = EINTR;
        return -1;
    }
    return 0;
}

namespace {

TEST(RetryPause, GrowsBy10MicrosecondsFromNone) {
    std::vector<long> sleeps;
    recorded = &sleeps;
    RetryPause pause;
    EXPECT_TRUE(pause.wait());
    EXPECT_TRUE(sleeps.empty()) << "none before the first attempt";
    for (int turn = 0; turn < 4; ++turn) {
        EXPECT_TRUE(pause.wait());
    }
    for (int turn = 5; turn <= 150000; ++turn) {
        pause.wait();
    }
    recorded = nullptr;
    ASSERT_EQ(150000U, sleeps.size());
    sleeps[4] = sleeps.back();
    sleeps.resize(5);
    EXPECT_THAT(sleeps, ElementsAre(10'000, 20'000, 30'000, 40'000, 1'500'000'000));
}

TEST(RetryPause, AnInterruptedSleepFails) {
    RetryPause pause;
    interrupted = true;
    EXPECT_TRUE(pause.wait()) << "nothing to interrupt before the first attempt";
    EXPECT_FALSE(pause.wait());
    interrupted = false;
}

TEST(AuthSchema, IsTheScriptOf1161Bytes) {
    const std::string golden = TORVA_SOURCE_DIR "/tests/torva/maildb/auth_schema.sql";
    EXPECT_EQ(1161U, std::string(auth_schema).size());
    EXPECT_EQ(read_file(golden), auth_schema);
}

TEST(AuthDirectory, IsWhatStandsBeforeTheFile) {
    std::string directory;
    EXPECT_TRUE(auth_directory("/var/lib/torva/passwd.db", directory));
    EXPECT_EQ("/var/lib/torva", directory);
    EXPECT_TRUE(auth_directory("/a/b", directory));
    EXPECT_EQ("/a", directory);
}

TEST(AuthDirectory, MustBeAbsoluteAndNotTheRoot) {
    CapturedLog log;
    std::string directory;
    for (const std::string path : {"", "passwd.db", "lib/passwd.db", "/passwd.db", "/"}) {
        EXPECT_FALSE(auth_directory(path.c_str(), directory)) << path;
        EXPECT_THAT(log.take(),
                    ElementsAre(LogLine(2, "Invalid mail authentication DB path " + path)));
    }
}

TEST(Address, IsSplitAtTheFirstSign) {
    const struct {
        const char* text;
        const char* name;
        const char* domain;
    } cases[] = {
        {"joe@example.com", "joe", "example.com"},
        {"a@b", "a", "b"},
        {"joe@host@example.com", "joe", "host@example.com"},
        {"'; DROP TABLE users; --@d\"", "'; DROP TABLE users; --", "d\""},
    };
    for (const auto& test : cases) {
        Address address;
        EXPECT_TRUE(split_address(test.text, address));
        EXPECT_EQ(test.name, address.name);
        EXPECT_STREQ(test.domain, address.domain);
    }
}

TEST(Address, WithoutNameOrDomainIsInvalid) {
    CapturedLog log;
    for (const std::string text : {"", "joe", "@example.com", "joe@", "@"}) {
        Address address;
        EXPECT_FALSE(split_address(text.c_str(), address));
        EXPECT_THAT(log.take(), ElementsAre(LogLine(3, "Invalid mail address '" + text + "'")));
    }
}

} // namespace
