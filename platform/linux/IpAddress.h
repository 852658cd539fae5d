// Which of a machine's addresses is shown.

#ifndef OVARD_PLATFORM_LINUX_IP_ADDRESS_H
#define OVARD_PLATFORM_LINUX_IP_ADDRESS_H

#include <ifaddrs.h>
#include <sys/socket.h>

namespace platform {

/// The first address of that family that `interface` has in the list that begins with `entry`; of
/// IPv6 addresses a global one before a link-local one. Views the list; null when there is none.
const sockaddr* chooseAddress(const ifaddrs* entry, const char* interface, int family);

} // namespace platform

#endif // OVARD_PLATFORM_LINUX_IP_ADDRESS_H
