// The table of TCP connections of /proc/net/tcp and /proc/net/tcp6.

#ifndef OVARD_PLATFORM_LINUX_TCP_TABLE_H
#define OVARD_PLATFORM_LINUX_TCP_TABLE_H

#include <netinet/in.h>

#include <string_view>

namespace platform {

/// True when `line` of a table of `family` (AF_INET or AF_INET6) is an established connection on
/// local port 22. The peer then goes to `*peer`, which may be null and is otherwise left alone.
bool isEstablishedOnPort22(std::string_view line, int family, sockaddr_in6* peer);

/// True when the table in the file `path` holds such a line; the first one counts.
bool tableHasEstablishedOnPort22(const char* path, int family, sockaddr_in6* peer);

} // namespace platform

#endif // OVARD_PLATFORM_LINUX_TCP_TABLE_H
