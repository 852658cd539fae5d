// Network facts of this machine.

#ifndef OVARD_PLATFORM_NETWORK_H
#define OVARD_PLATFORM_NETWORK_H

#include <netinet/in.h>
#include <sys/socket.h>

/// True when an established TCP connection on local port 22 exists (IPv4 or IPv6); the peer's
/// address then goes to `*peer`, which may be null.
bool isEstablishedTCPconnectionOnPort22(sockaddr_in6* peer);

/// The IPv4 or IPv6 address bytes inside a socket address, by its family.
const void* get_in_addr(const sockaddr* address);

#endif // OVARD_PLATFORM_NETWORK_H
