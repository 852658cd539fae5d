// Packets that tests send over the internet protocol.

#ifndef OVARD_TESTS_SYSTEM_DATAGRAMS_H
#define OVARD_TESTS_SYSTEM_DATAGRAMS_H

#include <netinet/in.h>

#include <cstdint>
#include <string>

#include "platform/UniqueFd.h"

namespace systemtest {

/// Nobody answers what is sent there.
inline constexpr std::uint16_t kDiscardPort = 9;

/// The address that a text such as "192.0.2.1" stands for. Fails the test when it stands for none.
sockaddr_in internetAddress(const std::string& text, std::uint16_t port);

/// Sends these bytes as one packet. False with errno when they do not go out whole.
bool sendTo(const platform::UniqueFd& socket, const std::string& bytes, const sockaddr_in& address);

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_DATAGRAMS_H
