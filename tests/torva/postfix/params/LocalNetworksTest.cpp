#include "torva/postfix/params/LocalNetworks.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <sys/resource.h>

using namespace torva::mail::postfix;

namespace {

ifaceinfo interfaceAt(const char* address) {
    ifaceinfo record = {};
    std::strcpy(record.name, "eth0");
    std::strcpy(record.address_text, address);
    return record;
}

TEST(HostNetworksTest, OnlyTheFirstInterfaceCounts) {
    const ifaceinfo interfaces[] = {interfaceAt("10.1.2.3"), interfaceAt("192.168.0.5"), {}};
    EXPECT_EQ(hostNetworks(interfaces), "127.0.0.0/8, 10.1.2.3/32");
}

TEST(HostNetworksTest, HostWithLoopbackAddressesOnlyGetsAnEmptyAddress) {
    const ifaceinfo interfaces[] = {{}};
    EXPECT_EQ(hostNetworks(interfaces), "127.0.0.0/8, /32");
}

TEST(HostNetworksTest, FailedEnumerationLeavesTheLoopbackNetworkAlone) {
    EXPECT_EQ(hostNetworks(nullptr), "127.0.0.0/8");
}

TEST(HostNetworksTest, AKernelThatCannotBeAskedLeavesTheLoopbackNetworkAlone) {
    rlimit usual = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit none = {0, usual.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::string networks = hostNetworks();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_EQ(networks, "127.0.0.0/8");
}

TEST(HostNetworksTest, TheKernelIsAsked) {
    const std::unique_ptr<ifaceinfo, decltype(&free_interfaces)> interfaces(
        list_interfaces(nullptr), &free_interfaces);
    EXPECT_EQ(hostNetworks(), hostNetworks(interfaces.get()));
}

struct Case {
    const char* name;
    const char* value;
    const char* defaults;
    const char* wanted;
};

void PrintTo(const Case& tested, std::ostream* out) {
    *out << tested.name;
}

class DefaultNetworksTest : public testing::TestWithParam<Case> {};

TEST_P(DefaultNetworksTest, AreReplaced) {
    EXPECT_EQ(replaceDefaultNetworks(GetParam().value, GetParam().defaults, "HOST"),
              GetParam().wanted);
}

INSTANTIATE_TEST_SUITE_P(
    Values, DefaultNetworksTest,
    testing::Values(
        Case{"ValueThatIsTheDefault", "127.0.0.0/8 10.0.0.0/8", "127.0.0.0/8 10.0.0.0/8", "HOST"},
        Case{"ShorterValueIsTakenForTheDefault", "10.9.0.0/16", "127.0.0.0/8 10.0.0.0/8", "HOST"},
        Case{"EmptyValueIsTakenForTheDefault", "", "127.0.0.0/8", "HOST"},
        Case{"TextBeforeTheDefaultIsDropped", "10.0.0.0/8, 127.0.0.0/8", "127.0.0.0/8", "HOST"},
        Case{"TextAfterTheDefaultFollowsWithoutASeparator", "127.0.0.0/8, 10.0.0.0/8",
             "127.0.0.0/8", "HOST, 10.0.0.0/8"},
        Case{"PrefixGoesAndSuffixStays", "a 127.0.0.0/8b", "127.0.0.0/8", "HOSTb"},
        Case{"FirstOccurrenceCounts", "D x D", "D", "HOST x D"},
        Case{"ValueWithoutTheDefaultIsItself", "10.0.0.0/8, 192.0.2.0/24", "127.0.0.0/8",
             "10.0.0.0/8, 192.0.2.0/24"},
        Case{"SameLengthButAnotherText", "10.0.0.0/8", "11.0.0.0/8", "10.0.0.0/8"},
        Case{"EmptyDefaultIsFoundAtTheStart", "10.0.0.0/8", "", "HOST10.0.0.0/8"}),
    [](const auto& tested) { return std::string(tested.param.name); });

} // namespace
