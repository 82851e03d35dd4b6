// What the tests of the lock directory share: the directory at its fixed path, made anew for
// each test, and what they ask of it.
#pragma once

#include "torva/util/FileLock.h"
#include "torva/util/TempDirectory.h"

#include <cstdlib>
#include <exception>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

namespace torva::test {

inline const char directory[] = "/var/lock/files";
inline const char name[] = "/etc/postfix/main.cf";
inline const std::string lockFile = "/var/lock/files/_etc_postfix_main.cf";
inline const std::string victim = "/var/tmp/victim";
inline const uid_t stranger = 4711;

inline mode_t modeOf(const std::string& path) {
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

/// 0: there is no such file.
inline ino_t inodeOf(const std::string& path) {
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

/// Takes and releases the lock: what is thrown says; empty when nothing is.
inline std::string thrownFor(LockMode mode) {
    try {
        const FileLock lock(name, mode);
    } catch (const std::exception& error) {
        return error.what();
    }
    return "";
}

class LockDirectoryFixture : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("TORVA_SANDBOX"), nullptr) << "outside scripts/sandbox";
        ASSERT_EQ(std::system("mkdir -p /var/lock/. && rm -rf /var/lock/files /var/tmp/victim"), 0);
        ::umask(022);
        writeFile(victim, "text");
    }

    void makeDirectory(mode_t mode) {
        ASSERT_EQ(::mkdir(directory, 0700), 0);
        ASSERT_EQ(::chmod(directory, mode), 0);
    }
};

} // namespace torva::test
