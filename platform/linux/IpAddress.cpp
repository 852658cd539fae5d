#include "platform/linux/IpAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <memory>

#include "platform/Network.h"

namespace {

using AddressList = std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)>;

AddressList readAddresses() {
    ifaddrs* first = nullptr;
    if (::getifaddrs(&first) != 0) {
        first = nullptr;
    }
    return AddressList(first, &::freeifaddrs);
}

bool isLinkLocal(const sockaddr* address) {
    return address->sa_family == AF_INET6 &&
           IN6_IS_ADDR_LINKLOCAL(&reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
}

} // namespace

namespace platform {

const sockaddr* chooseAddress(const ifaddrs* entry, const char* interface, int family) {
    const sockaddr* linkLocal = nullptr;
    for (; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != family ||
            std::strcmp(entry->ifa_name, interface) != 0) {
            continue;
        }
        if (!isLinkLocal(entry->ifa_addr)) {
            return entry->ifa_addr;
        }
        if (linkLocal == nullptr) {
            linkLocal = entry->ifa_addr;
        }
    }
    return linkLocal;
}

} // namespace platform

int getIpAddress(const char* interface, int family, char* text, int length, int /*reserved1*/,
                 int /*reserved2*/) {
    if (length <= 0) {
        return -1;
    }
    const AddressList addresses = readAddresses();
    const sockaddr* const address = platform::chooseAddress(addresses.get(), interface, family);
    if (address == nullptr || ::inet_ntop(family, get_in_addr(address), text,
                                          static_cast<socklen_t>(length)) == nullptr) {
        text[0] = '\0';
        return -1;
    }
    return 0;
}
