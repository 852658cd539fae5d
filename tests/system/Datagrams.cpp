#include "tests/system/Datagrams.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

namespace systemtest {

sockaddr_in internetAddress(const std::string& text, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    EXPECT_EQ(::inet_pton(AF_INET, text.c_str(), &address.sin_addr), 1) << text;
    return address;
}

bool sendTo(const platform::UniqueFd& socket, const std::string& bytes,
            const sockaddr_in& address) {
    return ::sendto(socket.get(), bytes.data(), bytes.size(), 0,
                    reinterpret_cast<const sockaddr*>(&address),
                    sizeof address) == static_cast<ssize_t>(bytes.size());
}

} // namespace systemtest
