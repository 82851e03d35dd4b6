#include "ctl/backup/Restore.h"

#include <gtest/gtest.h>

namespace torva::ctl {
namespace {

TEST(RestoreTest, NameThatPeopleGiveIsNotThatOfAScratchFile) {
    for (const char* letters : {"backup", "broken", "before", "221126", "BACKUP", "aB3dE",
                                "aB3dE67", "aB.dE6", "aB-dE6"}) {
        EXPECT_EQ(judgeScratchName(std::string("master.cf.") + letters, "master.cf"),
                  ScratchName::no)
            << letters;
    }
    EXPECT_EQ(judgeScratchName("main.cf.xyaB3dE6", "master.cf"), ScratchName::no);
    EXPECT_EQ(judgeScratchName("master.cf", "master.cf"), ScratchName::no);
}

TEST(RestoreTest, NameThatMkstempMakesIsThatOfAScratchFile) {
    for (const char* letters : {"aB3dE6", "00a0A0", "Zq1ZZz"}) {
        EXPECT_EQ(judgeScratchName(std::string("master.cf.") + letters, "master.cf"),
                  ScratchName::likely)
            << letters;
    }
}

TEST(RestoreTest, NameThatBothMayGiveIsPossible) {
    for (const char* letters : {"Backup", "jun221", "Nov221", "OLD123", "preTLS", "oldBak",
                                "newTLS", "TLSv13", "myCopy", "abcdeF"}) {
        EXPECT_EQ(judgeScratchName(std::string("master.cf.") + letters, "master.cf"),
                  ScratchName::possible)
            << letters;
    }
}

} // namespace
} // namespace torva::ctl
