// Interface enumeration in network namespaces of the tests' own.
#include "torva/libc/interfaces.h"

#include "torva/libc/Child.h"
#include "torva/libc/SyscallFault.h"
#include "torva/libc/log.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <vector>

using torva::test::failSyscall;
using torva::test::inChild;
using torva::test::noFilters;

namespace {

void reportOut(int priority, const char* format, ...) {
    std::fprintf(stderr, "%d: ", priority);
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
}

/// Prints the records that list_interfaces() gives in a new network namespace.
///
/// \param commands  arguments of ip(8) that set the namespace up, one command each
/// \param before    what else to do first; false: no filters here
torva::test::Outcome listedAfter(
    const std::vector<std::string>& commands,
    const std::function<bool()>& before = [] { return true; }) {
    return inChild([&] {
        if (::unshare(CLONE_NEWNET) != 0) {
            return 98;
        }
        for (const std::string& command : commands) {
            if (std::system(("ip " + command).c_str()) != 0) {
                return 97;
            }
        }
        if (!before()) {
            return static_cast<int>(noFilters);
        }
        torva_log = reportOut;
        int count = -1;
        ifaceinfo* list = list_interfaces(&count);
        if (list == nullptr) {
            return count == 0 ? 1 : 4;
        }
        for (int i = 0; i < count; ++i) {
            std::printf("%s %s %s %s\n", list[i].name, list[i].address_text, list[i].netmask_text,
                        list[i].hardware_text);
            if (list[i].address != ::inet_addr(list[i].address_text)) {
                return 2;
            }
        }
        const bool terminated = list[count].name[0] == '\0' && list[count].address == 0 &&
                                list[count].address_text[0] == '\0' &&
                                list[count].netmask_text[0] == '\0' &&
                                list[count].hardware_text[0] == '\0';
        free_interfaces(list);
        return terminated ? 0 : 3;
    });
}

/// Commands of ip(8) for an interface with so many addresses.
std::vector<std::string> manyAddresses(int count) {
    std::string batch;
    for (int i = 1; i <= count; ++i) {
        batch += "addr add 10.0.0." + std::to_string(i) + "/32 dev eth0\n";
    }
    return {"link add eth0 type veth peer name peer0", "link set eth0 address 02:00:00:00:0a:0b",
            "-batch /dev/stdin <<END\n" + batch + "END\n"};
}

const std::vector<std::string> oneInterface = {"link add eth0 type veth peer name peer0",
                                               "link set eth0 address 02:00:00:00:0a:0b",
                                               "link set eth0 up", "addr add 10.1.2.3/8 dev eth0"};

std::vector<std::string> with(std::vector<std::string> commands,
                              const std::vector<std::string>& more) {
    commands.insert(commands.end(), more.begin(), more.end());
    return commands;
}

} // namespace

TEST(InterfacesSandboxTest, AHostWithLoopbackAddressesOnlyHasNoRecords) {
    const auto outcome = listedAfter({"link set lo up", "addr add 127.5.6.7/8 dev lo label lo:1"});
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "");
}

TEST(InterfacesSandboxTest, AHostWithoutAnyAddressHasNoRecords) {
    const auto outcome = listedAfter({});
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "");
}

TEST(InterfacesSandboxTest, RecordsAreInTheKernelsOrder) {
    const auto outcome =
        listedAfter(with(oneInterface, {"link set lo up", "link add eth1 type veth peer name peer1",
                                        "link set eth1 address 02:00:00:00:0c:0d",
                                        "addr add 192.168.0.5/24 dev eth1"}));
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "eth0 10.1.2.3 255.0.0.0 02:00:00:00:0a:0b\n"
                           "eth1 192.168.0.5 255.255.255.0 02:00:00:00:0c:0d\n");
}

TEST(InterfacesSandboxTest, AnAliasHasNoHardwareText) {
    const auto outcome =
        listedAfter(with(oneInterface, {"addr add 10.9.9.9/16 dev eth0 label eth0:1"}));
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "eth0 10.1.2.3 255.0.0.0 02:00:00:00:0a:0b\n"
                           "eth0:1 10.9.9.9 255.255.0.0 \n");
    EXPECT_EQ(outcome.err, "");
}

TEST(InterfacesSandboxTest, SeveralAddressesOfOneNameHaveTheirOwnNetmasks) {
    const auto outcome = listedAfter(with(
        oneInterface, {"addr add 172.16.0.1/12 dev eth0", "addr add 198.51.100.7/32 dev eth0"}));
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "eth0 10.1.2.3 255.0.0.0 02:00:00:00:0a:0b\n"
                           "eth0 172.16.0.1 255.240.0.0 02:00:00:00:0a:0b\n"
                           "eth0 198.51.100.7 255.255.255.255 02:00:00:00:0a:0b\n");
}

TEST(InterfacesSandboxTest, ALoopbackAddressElsewhereIsLeftOutAndAnotherOnLoopbackIsNot) {
    const auto outcome =
        listedAfter(with(oneInterface, {"link set lo up", "addr add 203.0.113.9/32 dev lo",
                                        "addr add 127.0.0.9/32 dev eth0 label eth0:lo"}));
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "lo 203.0.113.9 255.255.255.255 00:00:00:00:00:00\n"
                           "eth0 10.1.2.3 255.0.0.0 02:00:00:00:0a:0b\n");
}

TEST(InterfacesSandboxTest, MoreInterfacesThanFitInTheFirstBufferAreAllListed) {
    // The buffer of 64 bytes holds one entry, and each doubling about twice as many:
    // every count about those borders, and many.
    for (const int count : {1, 2, 3, 4, 5, 6, 7, 12, 13, 25, 26, 250}) {
        SCOPED_TRACE(count);
        std::string wanted;
        for (int i = 1; i <= count; ++i) {
            wanted += "eth0 10.0.0." + std::to_string(i) + " 255.255.255.255 02:00:00:00:0a:0b\n";
        }
        const auto outcome = listedAfter(manyAddresses(count));
        EXPECT_EQ(outcome.exited, 0) << outcome.err;
        EXPECT_EQ(outcome.out, wanted);
    }
}

TEST(InterfacesSandboxTest, AnUnreadableHardwareAddressIsReportedAndZero) {
    const auto outcome =
        listedAfter(oneInterface, [] { return failSyscall(SYS_ioctl, EPERM, 1, SIOCGIFHWADDR); });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.out, "eth0 10.1.2.3 255.0.0.0 00:00:00:00:00:00\n");
    EXPECT_EQ(outcome.err, "3: Can't get Mac-addr with SIOCGIFHWADDR\n");
}

TEST(InterfacesSandboxTest, AnUnreadableNetmaskIsThatOfOneHost) {
    const auto outcome =
        listedAfter(oneInterface, [] { return failSyscall(SYS_ioctl, EPERM, 1, SIOCGIFNETMASK); });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.out, "eth0 10.1.2.3 255.255.255.255 02:00:00:00:0a:0b\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(InterfacesSandboxTest, LackOfMemoryForTheRecordsIsReportedWithTheirNumber) {
    if (TORVA_TEST_ASAN != 0) {
        GTEST_SKIP() << "the sanitizer's allocator does not keep to RLIMIT_AS";
    }
    const auto outcome = listedAfter(manyAddresses(250), [] {
        // What is left is enough for the kernel's 250 entries of 40 bytes, and not
        // for as many records.
        void* volatile left = std::malloc(32768); // or the compiler leaves both out
        torva::test::exhaustMemory();
        std::free(left);
        return true;
    });
    EXPECT_EQ(outcome.exited, 1);
    EXPECT_EQ(outcome.err, "3: Can't allocate ifaceinfo buffer from 250 elements\n");
}
