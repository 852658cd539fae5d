#include "tests/target/Network.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/UniqueFd.h"

namespace target {
namespace {

constexpr const char* kNetmask = "255.255.255.0";

ifreq requestFor(const char* interface) {
    ifreq request{};
    (void)std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", interface);
    return request;
}

bool setAddress(int socket, const char* interface, unsigned long what, const char* text) {
    ifreq request = requestFor(interface);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (::inet_pton(AF_INET, text, &address.sin_addr) != 1) {
        errno = EINVAL;
        return false;
    }
    std::memcpy(&request.ifr_addr, &address, sizeof address);
    return ::ioctl(socket, what, &request) == 0;
}

/// A message of the kernel's routing interface that grows at its end.
class RouteMessage {
public:
    explicit RouteMessage(std::uint16_t type) {
        nlmsghdr header{};
        header.nlmsg_type = type;
        header.nlmsg_flags = NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK;
        append(&header, sizeof header);
    }

    void append(const void* data, std::size_t size) {
        bytes_.append(static_cast<const char*>(data), size);
        bytes_.append(NLMSG_ALIGN(bytes_.size()) - bytes_.size(), '\0');
    }

    void addText(std::uint16_t type, const std::string& text) {
        const std::size_t at = begin(type);
        append(text.c_str(), text.size() + 1);
        end(at);
    }

    /// Opens an attribute that holds others, and closes it.
    std::size_t begin(std::uint16_t type) {
        const std::size_t at = bytes_.size();
        rtattr attribute{};
        attribute.rta_type = type;
        append(&attribute, sizeof attribute);
        return at;
    }
    void end(std::size_t at) {
        const auto length = static_cast<std::uint16_t>(bytes_.size() - at);
        bytes_.replace(at + offsetof(rtattr, rta_len), sizeof length,
                       reinterpret_cast<const char*>(&length), sizeof length);
    }

    /// The whole of it, with its length.
    std::string bytes() const {
        std::string whole = bytes_;
        const auto length = static_cast<std::uint32_t>(whole.size());
        whole.replace(0, sizeof length, reinterpret_cast<const char*>(&length), sizeof length);
        return whole;
    }

private:
    std::string bytes_;
};

/// Sends a message and waits for the kernel's verdict. False with errno.
bool ask(const RouteMessage& message) {
    const platform::UniqueFd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    const std::string bytes = message.bytes();
    if (!socket.valid() || ::send(socket.get(), bytes.data(), bytes.size(), 0) == -1) {
        return false;
    }
    struct {
        nlmsghdr header;
        nlmsgerr verdict;
    } reply{};
    if (::recv(socket.get(), &reply, sizeof reply, 0) == -1) {
        return false;
    }
    errno = -reply.verdict.error;
    return reply.verdict.error == 0;
}

} // namespace

bool bringUp(const char* interface, const char* address) {
    const platform::UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    // The mask comes second: a new address brings the mask of its class.
    if (!socket.valid() ||
        (address != nullptr && !(setAddress(socket.get(), interface, SIOCSIFADDR, address) &&
                                 setAddress(socket.get(), interface, SIOCSIFNETMASK, kNetmask)))) {
        return false;
    }
    ifreq request = requestFor(interface);
    if (::ioctl(socket.get(), SIOCGIFFLAGS, &request) == -1) {
        return false;
    }
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    return ::ioctl(socket.get(), SIOCSIFFLAGS, &request) == 0;
}

bool makeInterfacePair() {
    constexpr ifinfomsg kInterface{};
    RouteMessage message(RTM_NEWLINK);
    message.append(&kInterface, sizeof kInterface);
    message.addText(IFLA_IFNAME, "eth0");
    const std::size_t info = message.begin(IFLA_LINKINFO);
    message.addText(IFLA_INFO_KIND, "veth");
    const std::size_t data = message.begin(IFLA_INFO_DATA);
    const std::size_t peer = message.begin(VETH_INFO_PEER);
    message.append(&kInterface, sizeof kInterface);
    message.addText(IFLA_IFNAME, "eth1");
    message.end(peer);
    message.end(data);
    message.end(info);
    return ask(message);
}

} // namespace target
