#include "app/HostName.h"

#include <gtest/gtest.h>

using torva::app::derivedDomain;

namespace {

TEST(DerivedDomainTest, IsWhatFollowsTheFirstDot) {
    EXPECT_EQ(derivedDomain("host.example.net"), "example.net");
    EXPECT_EQ(derivedDomain("localhost.localdomain"), "localdomain");
}

TEST(DerivedDomainTest, NameWithoutADotHasNone) {
    EXPECT_EQ(derivedDomain("host"), "");
}

TEST(DerivedDomainTest, NothingAfterTheDotIsNone) {
    EXPECT_EQ(derivedDomain("host."), "");
}

} // namespace
