// Enumeration of the host's IPv4 interfaces, see netdevice(7). The list is used in
// torva/postfix/params/LocalNetworks.h.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// One interface address. The array ends with a record whose name is empty.
struct ifaceinfo {
    char name[32];          ///< as the kernel reports it; an alias contains a ":"
    uint32_t address;       ///< IPv4 address, network byte order
    char address_text[40];  ///< the address as a dotted quad
    char netmask_text[40];  ///< dotted quad; "255.255.255.255" when unknown
    char hardware_text[32]; ///< "xx:xx:xx:xx:xx:xx", zeros when unknown; empty for an alias
};

/// Lists the interface addresses outside 127.0.0.0/8, in the kernel's order.
///
/// \param count  null, or receives the number of records (0 after a failure)
/// \return array owned by the caller, to be freed by free_interfaces(); null after a
///         failure, which is reported through torva_log at level 3
/// No descriptor is left open, and 0, 1 and 2 are not used even where they are closed.
struct ifaceinfo* list_interfaces(int* count);

/// Frees an array of list_interfaces(); null is allowed.
void free_interfaces(struct ifaceinfo* interfaces);

#ifdef __cplusplus
} // extern "C"
#endif
