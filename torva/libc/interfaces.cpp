#include "torva/libc/interfaces.h"

#include "torva/libc/descriptor.h"
#include "torva/libc/log.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const int interfacePriority = 3;

in_addr addressOf(const ifreq& request) {
    sockaddr_in address;
    std::memcpy(&address, &request.ifr_addr, sizeof(address));
    return address.sin_addr;
}

bool isLoopback(in_addr address) {
    return ntohl(address.s_addr) >> 24 == 127;
}

using Entries = std::unique_ptr<ifreq, decltype(&std::free)>;

/// Asks the kernel for all addresses.
///
/// \param size  set to the length in bytes that the kernel reported
/// \return null after a failure, with errno
Entries queryEntries(int socket_fd, int* size) {
    Entries entries(nullptr, &std::free);
    size_t capacity = 64;
    for (;;) {
        entries.reset(); // first, or both would be needed at the same time
        entries.reset(static_cast<ifreq*>(std::malloc(capacity)));
        if (entries == nullptr) {
            return entries;
        }
        ifconf query = {};
        query.ifc_len = static_cast<int>(capacity);
        query.ifc_req = entries.get();
        if (::ioctl(socket_fd, SIOCGIFCONF, &query) == -1) {
            const int saved_errno = errno;
            entries.reset();
            errno = saved_errno;
            return entries;
        }
        // The kernel copies only whole entries and does not say that there are more: there
        // may be, unless one more would have fitted.
        if (static_cast<size_t>(query.ifc_len) + sizeof(ifreq) <= capacity) {
            *size = query.ifc_len;
            return entries;
        }
        capacity *= 2;
    }
}

void fillHardware(int socket_fd, const ifreq& entry, ifaceinfo* record) {
    std::strcpy(record->hardware_text, "00:00:00:00:00:00");
    ifreq request = entry;
    if (::ioctl(socket_fd, SIOCGIFHWADDR, &request) == -1) {
        torva_log(interfacePriority, "Can't get Mac-addr with SIOCGIFHWADDR\n");
        return;
    }
    unsigned char bytes[6];
    std::memcpy(bytes, request.ifr_hwaddr.sa_data, sizeof(bytes));
    std::snprintf(record->hardware_text, sizeof(record->hardware_text),
                  "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2], bytes[3], bytes[4],
                  bytes[5]);
}

void fillNetmask(int socket_fd, const ifreq& entry, ifaceinfo* record) {
    // The address in the entry distinguishes several addresses of one name.
    ifreq request = entry;
    if (::ioctl(socket_fd, SIOCGIFNETMASK, &request) == -1) {
        std::strcpy(record->netmask_text, "255.255.255.255");
        return;
    }
    const in_addr netmask = addressOf(request);
    ::inet_ntop(AF_INET, &netmask, record->netmask_text, sizeof(record->netmask_text));
}

/// The records for the entries, and one empty record.
///
/// \param count  null, or set to the number of records
ifaceinfo* makeRecords(int socket_fd, const ifreq* entries, int entry_count, int* count) {
    auto* records = static_cast<ifaceinfo*>(
        std::calloc(static_cast<size_t>(entry_count) + 1, sizeof(ifaceinfo)));
    if (records == nullptr) {
        torva_log(interfacePriority, "Can't allocate ifaceinfo buffer from %d elements\n",
                  entry_count);
        return nullptr;
    }
    ifaceinfo* next = records;
    for (const ifreq* entry = entries; entry != entries + entry_count; ++entry) {
        const in_addr address = addressOf(*entry);
        if (isLoopback(address)) {
            continue;
        }
        std::snprintf(next->name, sizeof(next->name), "%.*s", IFNAMSIZ, entry->ifr_name);
        next->address = address.s_addr;
        ::inet_ntop(AF_INET, &address, next->address_text, sizeof(next->address_text));
        if (std::strchr(next->name, ':') == nullptr) {
            fillHardware(socket_fd, *entry, next);
        }
        fillNetmask(socket_fd, *entry, next);
        ++next;
    }
    if (count != nullptr) {
        *count = static_cast<int>(next - records);
    }
    return records;
}

} // namespace

extern "C" {

struct ifaceinfo* list_interfaces(int* count) {
    if (count != nullptr) {
        *count = 0;
    }
    // Above 2 even if one of these is closed: a report would be written to the socket.
    const int socket_fd = fd_above_standard(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket_fd == -1) {
        torva_log(interfacePriority, "Can't create socket: %s\n", std::strerror(errno));
        return nullptr;
    }
    ifaceinfo* records = nullptr;
    int size = 0;
    if (const Entries entries = queryEntries(socket_fd, &size)) {
        records =
            makeRecords(socket_fd, entries.get(), size / static_cast<int>(sizeof(ifreq)), count);
    } else {
        torva_log(interfacePriority, "unable to query SIOCGIFCONF: %s\n", std::strerror(errno));
    }
    ::close(socket_fd);
    return records;
}

void free_interfaces(struct ifaceinfo* interfaces) {
    std::free(interfaces);
}

} // extern "C"
