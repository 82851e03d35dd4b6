#include "ctl/rehearsal/OutsideNetwork.h"

#include <gtest/gtest.h>

using torva::ctl::rehearsal::chooseAddresses;
using torva::ctl::rehearsal::LinkAddresses;

namespace {

using Texts = std::vector<std::string>;

TEST(OutsideNetworkTest, ClientIsOfADocumentationNetwork) {
    const LinkAddresses addresses = chooseAddresses(Texts{"10.0.0.1"}, "127.0.0.0/8");
    EXPECT_EQ(addresses.server, "203.0.113.1");
    EXPECT_EQ(addresses.client, "203.0.113.25");
}

TEST(OutsideNetworkTest, NetworkThatTheHostHasItselfIsAvoided) {
    EXPECT_EQ(chooseAddresses(Texts{"10.0.0.1", "203.0.113.7"}, "").client, "198.51.100.25");
}

TEST(OutsideNetworkTest, NetworkThatPostfixTrustsIsAvoided) {
    EXPECT_EQ(chooseAddresses(Texts{"198.51.100.3"}, "127.0.0.0/8, 203.0.113.0/24").client,
              "192.0.2.25");
}

TEST(OutsideNetworkTest, LongerNumberIsAnotherNetwork) {
    EXPECT_EQ(chooseAddresses(Texts{"203.0.11.3"}, "").client, "203.0.113.25");
}

} // namespace
