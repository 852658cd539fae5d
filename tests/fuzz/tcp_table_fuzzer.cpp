// The tables of TCP connections, /proc/net/tcp and tcp6: the input, behind its first byte, as the
// text of either. The byte, a figure, is how many lines of 100 bytes come before that, so that
// lines lie across the edges of what is read at a time.

#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "platform/Network.h"
#include "platform/linux/TcpTable.h"
#include "tests/fuzz/Input.h"
#include "tests/fuzz/PrivateFile.h"
#include "tests/fuzz/Require.h"

using fuzz::require;

namespace {

constexpr std::size_t kWordDigits = 8;
constexpr std::size_t kLongestLine = 4095;
constexpr std::size_t kMostLinesBefore = 100;

struct End {
    std::vector<std::uint32_t> address; ///< its words, as numbers of this machine
    std::uint32_t port = 0;
};

/// A number of at most 32 bits, and nothing else.
std::optional<std::uint32_t> numberOf(const std::string& text) {
    if (text.empty() || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return std::nullopt;
    }
    const std::string digits = text.substr(std::min(text.find_first_not_of('0'), text.size() - 1));
    if (digits.size() > kWordDigits) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(std::stoul(digits, nullptr, 16));
}

/// An address of so many words, a colon and a port.
std::optional<End> endOf(const std::string& text, std::size_t words) {
    End end;
    const std::size_t colon = words * kWordDigits;
    if (text.size() <= colon || text[colon] != ':') {
        return std::nullopt;
    }
    for (std::size_t begin = 0; begin < colon; begin += kWordDigits) {
        const auto word = numberOf(text.substr(begin, kWordDigits));
        if (!word) {
            return std::nullopt;
        }
        end.address.push_back(*word);
    }
    const auto port = numberOf(text.substr(colon + 1));
    end.port = port.value_or(0);
    return port ? std::optional(end) : std::nullopt;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

/// Who is connected to port 22, by a line of the table.
std::optional<End> peerIn(const std::string& line, std::size_t words) {
    std::vector<std::string> fields = split(line, ' ');
    fields.erase(std::remove(fields.begin(), fields.end(), ""), fields.end());
    if (fields.size() < 4) {
        return std::nullopt;
    }
    const auto local = endOf(fields[1], words);
    const auto remote = endOf(fields[2], words);
    const bool isEstablished = numberOf(fields[3]) == 1U;
    return local && local->port == 22 && isEstablished ? remote : std::nullopt;
}

/// The first one in a table; the last line counts only when it is whole.
std::optional<End> firstPeerIn(const std::string& table, std::size_t words) {
    for (const std::string& line : split(table.substr(0, table.rfind('\n') + 1), '\n')) {
        if (const auto peer = peerIn(line, words)) {
            return peer;
        }
    }
    return std::nullopt;
}

bool hasLongLine(const std::string& table) {
    const std::vector<std::string> lines = split(table, '\n');
    return std::any_of(lines.begin(), lines.end(),
                       [](const std::string& line) { return line.size() > kLongestLine; });
}

sockaddr_in6 untouchedPeer() {
    sockaddr_in6 peer;
    std::memset(&peer, 0x55, sizeof peer);
    return peer;
}

void examinePeer(const sockaddr_in6& peer, int family, const End& expected) {
    require(peer.sin6_family == family, "the family of the table");
    require(ntohs(peer.sin6_port) == (expected.port & UINT16_MAX), "the peer's port");
    const std::size_t size = expected.address.size() * sizeof(std::uint32_t);
    require(std::memcmp(get_in_addr(reinterpret_cast<const sockaddr*>(&peer)),
                        expected.address.data(), size) == 0,
            "the peer's address");
}

void search(const std::string& table, int family, std::size_t words) {
    const fuzz::PrivateFile file(table);
    sockaddr_in6 peer = untouchedPeer();
    const bool found = platform::tableHasEstablishedOnPort22(file.path().c_str(), family, &peer);
    require(found == platform::tableHasEstablishedOnPort22(file.path().c_str(), family, nullptr),
            "who takes no peer gets the same answer");
    const sockaddr_in6 untouched = untouchedPeer();
    require(found || std::memcmp(&peer, &untouched, sizeof peer) == 0,
            "without a connection there is no peer");
    if (hasLongLine(table)) {
        return; // what its pieces are taken for is open
    }
    const auto expected = firstPeerIn(table, words);
    require(found == expected.has_value(), "the connection is found that is there");
    if (expected) {
        examinePeer(peer, family, *expected);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    std::string table;
    for (std::size_t lines = input.amount() % kMostLinesBefore; lines > 0; --lines) {
        table += std::string(99, 'x') + '\n';
    }
    table += input.rest();
    search(table, AF_INET, 1);
    search(table, AF_INET6, 4);
    return 0;
}
