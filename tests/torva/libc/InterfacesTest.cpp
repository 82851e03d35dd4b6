#include "torva/libc/interfaces.h"

#include "torva/libc/Child.h"
#include "torva/libc/SyscallFault.h"
#include "torva/libc/log.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <gmock/gmock.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <vector>

using torva::test::failSyscall;
using torva::test::inChild;
using torva::test::noFilters;
using torva::test::openDescriptors;

namespace {

std::string addressText(const sockaddr* address) {
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text,
                sizeof(text));
    return text;
}

/// The hardware address according to netlink; empty for an alias.
std::string hardwareText(const ifaddrs* all, const std::string& name) {
    for (const ifaddrs* one = all; one != nullptr; one = one->ifa_next) {
        if (one->ifa_addr == nullptr || one->ifa_addr->sa_family != AF_PACKET ||
            name != one->ifa_name) {
            continue;
        }
        const auto* link = reinterpret_cast<const sockaddr_ll*>(one->ifa_addr);
        const unsigned char* byte = link->sll_addr;
        char text[18] = "";
        std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", byte[0], byte[1],
                      byte[2], byte[3], byte[4], byte[5]);
        return text;
    }
    return "";
}

/// The same list from another source: netlink. (Sysfs may be that of another network.)
std::vector<std::string> expectedRecords() {
    std::vector<std::string> records;
    ifaddrs* all = nullptr;
    ::getifaddrs(&all);
    for (const ifaddrs* one = all; one != nullptr; one = one->ifa_next) {
        if (one->ifa_addr == nullptr || one->ifa_addr->sa_family != AF_INET ||
            addressText(one->ifa_addr).rfind("127.", 0) == 0) {
            continue;
        }
        const std::string name = one->ifa_name;
        records.push_back(name + " " + addressText(one->ifa_addr) + " " +
                          addressText(one->ifa_netmask) + " " + hardwareText(all, name));
    }
    ::freeifaddrs(all);
    return records;
}

std::vector<std::string> listedRecords() {
    std::vector<std::string> records;
    int count = -1;
    ifaceinfo* list = list_interfaces(&count);
    for (int i = 0; list != nullptr && list[i].name[0] != '\0'; ++i) {
        std::ostringstream record;
        record << list[i].name << ' ' << list[i].address_text << ' ' << list[i].netmask_text << ' '
               << list[i].hardware_text;
        records.push_back(record.str());
        EXPECT_EQ(list[i].address, ::inet_addr(list[i].address_text));
    }
    EXPECT_EQ(count, static_cast<int>(records.size()));
    free_interfaces(list);
    return records;
}

void reportOut(int priority, const char* format, ...) {
    std::fprintf(stderr, "%d: ", priority);
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
}

} // namespace

TEST(InterfacesTest, RecordsAreThisHostsAddressesOutsideTheLoopbackNetwork) {
    EXPECT_THAT(listedRecords(), testing::UnorderedElementsAreArray(expectedRecords()));
}

TEST(InterfacesTest, TheCountIsOptionalAndNoDescriptorIsLeft) {
    const auto before = openDescriptors();
    ifaceinfo* list = list_interfaces(nullptr);
    EXPECT_NE(list, nullptr);
    free_interfaces(list);
    free_interfaces(nullptr);
    EXPECT_EQ(openDescriptors(), before);
}

TEST(InterfacesTest, WithoutASocketThereIsAReportAndNoList) {
    const auto outcome = inChild([] {
        torva_log = reportOut;
        const rlimit three = {3, 3};
        ::setrlimit(RLIMIT_NOFILE, &three);
        int count = 7;
        return list_interfaces(&count) == nullptr && count == 0 ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "3: Can't create socket: Too many open files\n");
}

TEST(InterfacesTest, LackOfMemoryForTheQueryIsReported) {
    if (TORVA_TEST_ASAN != 0) {
        GTEST_SKIP() << "the sanitizer's allocator does not keep to RLIMIT_AS";
    }
    const auto outcome = inChild([] {
        torva_log = reportOut;
        torva::test::exhaustMemory();
        int count = 7;
        return list_interfaces(&count) == nullptr && count == 0 ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "3: unable to query SIOCGIFCONF: Cannot allocate memory\n");
}

TEST(InterfacesTest, TheSocketIsNeverAStandardStream) {
    for (const std::uint32_t number : {0U, 1U, 2U}) {
        SCOPED_TRACE(number);
        const auto outcome = inChild([number] {
            // Nothing fails until that descriptor is used.
            if (!failSyscall(SYS_ioctl, EBADF, 0, number)) {
                return static_cast<int>(noFilters);
            }
            for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
                ::close(fd);
            }
            ifaceinfo* list = list_interfaces(nullptr);
            const bool listed = list != nullptr;
            free_interfaces(list);
            const std::set<int> open = openDescriptors();
            return listed && (open.empty() || *open.begin() > STDERR_FILENO) ? 0 : 1;
        });
        if (outcome.exited == noFilters) {
            GTEST_SKIP() << "the kernel allows no system call filters";
        }
        EXPECT_EQ(outcome.exited, 0);
    }
}

TEST(InterfacesTest, TheSocketIsCloseOnExecFromBirth) {
    const auto outcome = inChild([] {
        // Of exactly this type: without the flag.
        if (!failSyscall(SYS_socket, EINVAL, 1, SOCK_STREAM)) {
            return static_cast<int>(noFilters);
        }
        ifaceinfo* list = list_interfaces(nullptr);
        const bool listed = list != nullptr;
        free_interfaces(list);
        return listed ? 0 : 1;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0);
}

TEST(InterfacesTest, AFailedQueryIsReportedAndLeavesNoDescriptor) {
    const auto outcome = inChild([] {
        if (!failSyscall(SYS_ioctl, ENOBUFS, 1, SIOCGIFCONF)) {
            return static_cast<int>(noFilters);
        }
        torva_log = reportOut;
        const auto before = openDescriptors();
        int count = 7;
        const bool failed = list_interfaces(&count) == nullptr && count == 0;
        return failed && openDescriptors() == before ? 0 : 1;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "3: unable to query SIOCGIFCONF: No buffer space available\n");
}
