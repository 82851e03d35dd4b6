#include "ctl/backup/Changes.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace torva::ctl {
namespace {

LeftState hostWith(const std::string& path, const std::string& checksum) {
    Entry file;
    file.mode = S_IFREG | 0644;
    file.checksum = checksum;
    LeftState state;
    state.entries[path] = file;
    return state;
}

TEST(ChangesTest, IndexOfAPanelTableIsNoChangeUnderAnyType) {
    for (const char* suffix : {".db", ".cdb", ".lmdb"}) {
        const std::string path = std::string("/var/spool/postfix/torva/virtual") + suffix;
        EXPECT_TRUE(changesBetween(hostWith(path, "a"), hostWith(path, "b")).empty()) << suffix;
    }
    const std::string other = "/var/spool/postfix/torva/other.db";
    EXPECT_EQ(changesBetween(hostWith(other, "a"), hostWith(other, "b")).size(), 1U);
}

} // namespace
} // namespace torva::ctl
