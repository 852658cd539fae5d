// Setting up network interfaces, as `ip` would.

#ifndef OVARD_TESTS_TARGET_NETWORK_H
#define OVARD_TESTS_TARGET_NETWORK_H

namespace target {

/// Gives an interface its address within a network of 24 bits and brings it up; a null address
/// leaves it without one. False with errno on failure.
bool bringUp(const char* interface, const char* address);

/// Makes the interfaces eth0 and eth1, each the other end of the other one. False with errno.
bool makeInterfacePair();

} // namespace target

#endif // OVARD_TESTS_TARGET_NETWORK_H
