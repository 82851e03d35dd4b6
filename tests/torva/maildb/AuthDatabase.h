// Fixture of the tests of the mail-authentication database: a fresh database of the
// Postfix type, at its fixed path in the sandbox.
#pragma once

#include "torva/maildb/CapturedLog.h"
#include "torva/maildb/SqliteFile.h"
#include "torva/maildb/mail_auth.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace torva::test {

constexpr const char* auth_directory_path = "/var/spool/postfix/torva";
constexpr const char* auth_path = "/var/spool/postfix/torva/passwd.db";
constexpr int postfix_type = MAIL_SERVER_POSTFIX;

class AuthDatabase : public testing::Test {
protected:
    AuthDatabase() { EXPECT_EQ(0, mail_auth_create_db(postfix_type)); }

    static std::vector<std::string> rows(const std::string& query) {
        return SqliteFile(auth_path).rows(query);
    }
    static void run(const std::string& statements) { SqliteFile(auth_path).run(statements); }

    CapturedLog log;
};

/// Interrupts whatever sleeps, again and again, while it exists.
class Interruptions {
public:
    Interruptions();
    ~Interruptions();
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;
};

} // namespace torva::test
