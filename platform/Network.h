// Network facts of this machine.

#ifndef OVARD_PLATFORM_NETWORK_H
#define OVARD_PLATFORM_NETWORK_H

#include <netinet/in.h>
#include <sys/socket.h>

/// True when an established TCP connection on local port 22 exists (IPv4 or IPv6); the peer's
/// address then goes to `*peer`, which may be null.
bool isEstablishedTCPconnectionOnPort22(sockaddr_in6* peer);

/// The first address of `interface` in `family` (AF_INET, AF_INET6; a global IPv6 address before a
/// link-local one) as text into the `length` bytes at `text`; an empty text when there is none.
/// Both reserved arguments are 0. Returns 0, or -1 without an address.
int getIpAddress(const char* interface, int family, char* text, int length, int reserved1,
                 int reserved2);

/// The IPv4 or IPv6 address bytes inside a socket address, by its family.
const void* get_in_addr(const sockaddr* address);

#endif // OVARD_PLATFORM_NETWORK_H
