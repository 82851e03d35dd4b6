// What the sandboxed tests of this folder share: a directory of tables, emptied for each
// test, and questions about files.
#pragma once

#include "support/FakeTool.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::test {

inline const char* const postmap = "/usr/sbin/postmap";
inline const std::string directory = "/var/spool/postfix/torva";
inline const std::string source = directory + "/virtual";
inline const std::string index_ = source + ".db";
inline const std::string table = "hash:" + source;

/// The text of the exception; "no error" if there is none.
template <class Error>
std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const Error& error) {
        return error.what();
    }
    return "no error";
}

inline struct stat statusOf(const std::string& path) {
    struct stat status = {};
    if (::lstat(path.c_str(), &status) != 0) {
        throw std::runtime_error("no such file: " + path);
    }
    return status;
}

inline bool exists(const std::string& path) {
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0;
}

class TablesTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("TORVA_SANDBOX"), nullptr);
        ::mkdir(directory.c_str(), 0755);
        ASSERT_EQ(::chown(directory.c_str(), 0, 0), 0);
        removeAll();
    }
    void TearDown() override {
        ASSERT_EQ(::chown(directory.c_str(), 0, 0), 0);
        removeAll();
    }

    static void removeAll() {
        for (const std::string& name : namesIn(directory)) {
            ::unlink((directory + "/" + name).c_str());
        }
    }

    /// From now on another account may write the directory.
    static void giveDirectoryAway() { ASSERT_EQ(::chown(directory.c_str(), 65534, 65534), 0); }
};

} // namespace torva::test
