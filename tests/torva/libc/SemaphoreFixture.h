// The surroundings of the panel's semaphores.
#pragma once

#include <cstdlib>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/stat.h>

namespace torva::test {

/// Where the semaphores are while the panel's configuration does not say otherwise.
inline const char semaphorePath[] = "/usr/local/kra/var/utilities.sem";

/// A host without semaphores and without a configuration of the panel.
class SemaphoreFixture : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("TORVA_SANDBOX"), nullptr) << "outside scripts/sandbox";
        ASSERT_EQ(std::system("rm -rf /usr/local/kra /etc/kra"), 0);
        ::umask(022);
    }
    void TearDown() override { ASSERT_EQ(std::system("rm -rf /usr/local/kra /etc/kra"), 0); }
};

/// Permission bits and kind of a file, in octal; "missing" for none.
inline std::string modeOf(const char* file) {
    struct stat status;
    if (::stat(file, &status) != 0) {
        return "missing";
    }
    std::ostringstream text;
    text << std::oct << status.st_mode;
    return text.str();
}

} // namespace torva::test
