// Fixture of the tests that create a mail-authentication database.
#pragma once

#include "torva/maildb/AuthDatabase.h"
#include "torva/maildb/Files.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <pwd.h>
#include <string>
#include <sys/stat.h>

namespace torva::test {

constexpr const char* qmail_directory = "/var/lib/torva/mail/auth";
constexpr const char* qmail_path = "/var/lib/torva/mail/auth/passwd.db";

/// Owner, group and mode of a file: "postfix:0 0770".
inline std::string ownership(const std::string& path) {
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

/// Neither type has a database or its directory.
class CreateAuthDatabase : public testing::Test {
protected:
    CreateAuthDatabase() {
        std::filesystem::remove_all(auth_directory_path);
        std::filesystem::remove_all("/var/lib/torva");
    }
    ~CreateAuthDatabase() override {
        umask(022);
        std::filesystem::remove_all(auth_directory_path);
    }
    CapturedLog log;
};

} // namespace torva::test
