#include "platform/Network.h"

#include <arpa/inet.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>

#include "platform/UniqueFd.h"
#include "platform/linux/TcpTable.h"

namespace platform {
namespace {

constexpr std::uint32_t kRemoteShellPort = 22;
constexpr std::uint32_t kStateEstablished = 1;
constexpr std::size_t kWordDigits = 8; ///< hexadecimal digits of a 32-bit word of an address
constexpr std::size_t kMaxAddressWords = 4;

/// One end of a connection. The words are as they stand in memory, that is in network order.
struct Endpoint {
    std::uint32_t words[kMaxAddressWords];
    std::uint32_t port;
};

std::string_view takeField(std::string_view& rest) {
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    const std::string_view field = rest.substr(0, rest.find(' '));
    rest.remove_prefix(field.size());
    return field;
}

bool parseHex(std::string_view text, std::uint32_t& number) {
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number, 16);
    return error == std::errc() && stop == end;
}

/// Parses "ADDRESS:PORT" with an address of `wordCount` words.
bool parseEndpoint(std::string_view text, std::size_t wordCount, Endpoint& endpoint) {
    const std::size_t colon = wordCount * kWordDigits;
    if (text.size() <= colon || text[colon] != ':') {
        return false;
    }
    for (std::size_t index = 0; index < wordCount; ++index) {
        if (!parseHex(text.substr(index * kWordDigits, kWordDigits), endpoint.words[index])) {
            return false;
        }
    }
    return parseHex(text.substr(colon + 1), endpoint.port);
}

void fillPeer(sockaddr_in6* peer, int family, const Endpoint& remote) {
    std::memset(peer, 0, sizeof *peer);
    const in_port_t port = htons(static_cast<std::uint16_t>(remote.port));
    if (family == AF_INET6) {
        peer->sin6_family = AF_INET6;
        peer->sin6_port = port;
        std::memcpy(&peer->sin6_addr, remote.words, sizeof peer->sin6_addr);
        return;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = port;
    address.sin_addr.s_addr = remote.words[0];
    std::memcpy(peer, &address, sizeof address);
}

} // namespace

bool isEstablishedOnPort22(std::string_view line, int family, sockaddr_in6* peer) {
    const std::size_t wordCount = family == AF_INET6 ? kMaxAddressWords : 1;
    takeField(line); // the number of the entry; the heading has no address in the next field
    Endpoint local = {};
    Endpoint remote = {};
    std::uint32_t state = 0;
    if (!parseEndpoint(takeField(line), wordCount, local) ||
        !parseEndpoint(takeField(line), wordCount, remote) || !parseHex(takeField(line), state)) {
        return false;
    }
    if (local.port != kRemoteShellPort || state != kStateEstablished) {
        return false;
    }
    if (peer != nullptr) {
        fillPeer(peer, family, remote);
    }
    return true;
}

bool tableHasEstablishedOnPort22(const char* path, int family, sockaddr_in6* peer) {
    const UniqueFd table(::open(path, O_RDONLY | O_CLOEXEC));
    char buffer[4096];
    std::size_t used = 0;
    while (table.valid()) {
        const ssize_t count = ::read(table.get(), buffer + used, sizeof buffer - used);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        used += static_cast<std::size_t>(count);
        std::string_view rest(buffer, used);
        for (std::size_t end = rest.find('\n'); end != std::string_view::npos;
             end = rest.find('\n')) {
            if (isEstablishedOnPort22(rest.substr(0, end), family, peer)) {
                return true;
            }
            rest.remove_prefix(end + 1);
        }
        // A line that fills the whole buffer is none of the table's.
        used = rest.size() < sizeof buffer ? rest.size() : 0;
        std::memmove(buffer, rest.data(), used);
    }
    return false;
}

} // namespace platform

bool isEstablishedTCPconnectionOnPort22(sockaddr_in6* peer) {
    return platform::tableHasEstablishedOnPort22("/proc/net/tcp", AF_INET, peer) ||
           platform::tableHasEstablishedOnPort22("/proc/net/tcp6", AF_INET6, peer);
}

const void* get_in_addr(const sockaddr* address) {
    if (address->sa_family == AF_INET) {
        return &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
    }
    return &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
}
