#include "torva/postfix/tables/HalfMadeIndex.h"

#include "support/AllocationFaults.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>

#include <cstdlib>
#include <unistd.h>

using torva::mail::postfix::HalfMadeIndexGuard;
using torva::mail::postfix::removeHalfMadeIndex;
namespace fs = std::filesystem;

namespace {

class HalfMadeIndexTest : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/torva-XXXXXX";
        ASSERT_NE(::mkdtemp(name), nullptr);
        directory_ = name;
        for (const char* file : {"virtual", "virtual.db", "__db.virtual.db", "__db.virtual",
                                 "__db.virtual_domains.db", "db.virtual.db"}) {
            std::ofstream(directory_ / file) << "x";
        }
    }
    void TearDown() override { fs::remove_all(directory_); }

    std::set<std::string> names() const {
        std::set<std::string> found;
        for (const auto& entry : fs::directory_iterator(directory_)) {
            found.insert(entry.path().filename());
        }
        return found;
    }

    const std::set<std::string> kept_ = {"virtual", "virtual.db", "__db.virtual",
                                         "__db.virtual_domains.db", "db.virtual.db"};
    fs::path directory_;
};

TEST_F(HalfMadeIndexTest, GoesAndNoOtherFileGoesWithIt) {
    removeHalfMadeIndex(directory_ / "virtual");
    EXPECT_EQ(names(), kept_);
    removeHalfMadeIndex(directory_ / "virtual");
    EXPECT_EQ(names(), kept_);
}

TEST_F(HalfMadeIndexTest, OfAPathWithoutADirectoryIsInTheWorkingDirectory) {
    const fs::path before = fs::current_path();
    fs::current_path(directory_);
    removeHalfMadeIndex("virtual");
    fs::current_path(before);
    EXPECT_EQ(names(), kept_);
}

TEST_F(HalfMadeIndexTest, ErrnoStaysAsItWas) {
    const std::string source = directory_ / "nowhere" / "virtual";
    const torva::test::DisturbedErrno disturbed(EDOM);
    errno = ENOSPC;
    removeHalfMadeIndex(source);
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(HalfMadeIndexTest, GuardRemovesWhatWasThereAndWhatComesUnlessLetGo) {
    const fs::path half = directory_ / "__db.virtual.db";
    for (const bool letGo : {false, true}) {
        {
            HalfMadeIndexGuard guard(directory_ / "virtual");
            EXPECT_EQ(names(), kept_);
            std::ofstream(half) << "x";
            if (letGo) {
                guard.letGo();
            }
        }
        EXPECT_EQ(fs::exists(half), letGo);
    }
}

} // namespace
