// The choice among addresses, and the addresses of the loopback interface, which every machine has.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <deque>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Network.h"
#include "platform/linux/IpAddress.h"

namespace {

/// True when the loopback interface has the address ::1.
bool hasIpv6Loopback() {
    const std::string list = testsupport::readText("/proc/net/if_inet6");
    return list.find("00000000000000000000000000000001 ") != std::string::npos;
}

class IpAddressTest : public testing::Test {
protected:
    IpAddressTest() { std::memset(text_, 'x', sizeof text_); }

    int take(const char* interface, int family, int length = 64) {
        return getIpAddress(interface, family, text_, length, 0, 0);
    }

    char text_[64];
};

/// The addresses of a machine, in the form and the order in which the system lists them.
class AddressChoiceTest : public testing::Test {
protected:
    void add(const char* interface, const char* address) {
        sockaddr_storage& storage = addresses_.emplace_back();
        if (std::strchr(address, ':') != nullptr) {
            auto& ipv6 = reinterpret_cast<sockaddr_in6&>(storage);
            ipv6.sin6_family = AF_INET6;
            EXPECT_EQ(::inet_pton(AF_INET6, address, &ipv6.sin6_addr), 1) << address;
        } else {
            auto& ipv4 = reinterpret_cast<sockaddr_in&>(storage);
            ipv4.sin_family = AF_INET;
            EXPECT_EQ(::inet_pton(AF_INET, address, &ipv4.sin_addr), 1) << address;
        }
        addEntry(interface, reinterpret_cast<sockaddr*>(&storage));
    }

    void addPacketSocket(const char* interface) {
        sockaddr_storage& storage = addresses_.emplace_back();
        storage.ss_family = AF_PACKET;
        addEntry(interface, reinterpret_cast<sockaddr*>(&storage));
    }

    void addWithoutAddress(const char* interface) { addEntry(interface, nullptr); }

    /// The chosen address as a text; "none" when there is none.
    std::string choice(const char* interface, int family) const {
        const ifaddrs* const first = entries_.empty() ? nullptr : &entries_.front();
        const sockaddr* const address = platform::chooseAddress(first, interface, family);
        if (address == nullptr) {
            return "none";
        }
        char text[INET6_ADDRSTRLEN] = "";
        EXPECT_EQ(address->sa_family, family);
        EXPECT_NE(::inet_ntop(family, get_in_addr(address), text, sizeof text), nullptr);
        return text;
    }

private:
    void addEntry(const char* interface, sockaddr* address) {
        ifaddrs entry = {};
        entry.ifa_name = const_cast<char*>(interface); // not written
        entry.ifa_addr = address;
        entries_.push_back(entry);
        if (entries_.size() > 1) {
            entries_[entries_.size() - 2].ifa_next = &entries_.back();
        }
    }

    // Their elements stay where they are while others are added.
    std::deque<sockaddr_storage> addresses_;
    std::deque<ifaddrs> entries_;
};

TEST_F(AddressChoiceTest, EmptyListHasNone) {
    EXPECT_EQ(choice("eth0", AF_INET), "none");
    EXPECT_EQ(choice("eth0", AF_INET6), "none");
}

TEST_F(AddressChoiceTest, FirstIpv4AddressWins) {
    add("eth0", "192.0.2.1");
    add("eth0", "192.0.2.2");
    EXPECT_EQ(choice("eth0", AF_INET), "192.0.2.1");
}

// Only IPv6 has an order of preference.
TEST_F(AddressChoiceTest, FirstIpv4AddressWinsThoughItIsLinkLocal) {
    add("eth0", "169.254.1.1");
    add("eth0", "192.0.2.1");
    EXPECT_EQ(choice("eth0", AF_INET), "169.254.1.1");
}

TEST_F(AddressChoiceTest, FirstGlobalIpv6AddressWins) {
    add("eth0", "2001:db8::1");
    add("eth0", "2001:db8::2");
    EXPECT_EQ(choice("eth0", AF_INET6), "2001:db8::1");
}

TEST_F(AddressChoiceTest, GlobalIpv6AddressWinsOverLinkLocalOnesBeforeIt) {
    add("eth0", "fe80::1");
    add("eth0", "fe80::2");
    add("eth0", "2001:db8::1");
    add("eth0", "2001:db8::2");
    EXPECT_EQ(choice("eth0", AF_INET6), "2001:db8::1");
}

TEST_F(AddressChoiceTest, GlobalIpv6AddressWinsOverALinkLocalOneBehindIt) {
    add("eth0", "2001:db8::1");
    add("eth0", "fe80::1");
    EXPECT_EQ(choice("eth0", AF_INET6), "2001:db8::1");
}

TEST_F(AddressChoiceTest, WithoutAGlobalIpv6AddressTheFirstLinkLocalOneIsTaken) {
    add("eth0", "fe80::1");
    add("eth0", "febf::2"); // the end of the range fe80::/10
    EXPECT_EQ(choice("eth0", AF_INET6), "fe80::1");
}

TEST_F(AddressChoiceTest, LinkLocalRangeEndsBeforeFec0) {
    add("eth0", "febf:ffff::1");
    add("eth0", "fec0::1");
    EXPECT_EQ(choice("eth0", AF_INET6), "fec0::1");
}

TEST_F(AddressChoiceTest, OtherFamiliesAreIgnored) {
    addPacketSocket("eth0");
    add("eth0", "fe80::1");
    add("eth0", "192.0.2.1");
    add("eth0", "2001:db8::1");
    EXPECT_EQ(choice("eth0", AF_INET), "192.0.2.1");
    EXPECT_EQ(choice("eth0", AF_INET6), "2001:db8::1");
}

TEST_F(AddressChoiceTest, InterfaceWithAddressesOfAnotherFamilyOnlyHasNone) {
    addPacketSocket("eth0");
    add("eth0", "192.0.2.1");
    add("eth1", "2001:db8::1");
    EXPECT_EQ(choice("eth0", AF_INET6), "none");
    EXPECT_EQ(choice("eth1", AF_INET), "none");
}

TEST_F(AddressChoiceTest, OtherInterfacesAreIgnored) {
    add("eth1", "192.0.2.1");
    add("eth", "192.0.2.2");
    add("eth0:1", "192.0.2.3");
    add("eth1", "2001:db8::1");
    add("eth0", "fe80::1");
    add("eth0", "192.0.2.4");
    EXPECT_EQ(choice("eth0", AF_INET), "192.0.2.4");
    EXPECT_EQ(choice("eth0", AF_INET6), "fe80::1");
    EXPECT_EQ(choice("eth2", AF_INET), "none");
}

// Such entries are listed for interfaces without any address, tunnels for example.
TEST_F(AddressChoiceTest, EntriesWithoutAnAddressAreIgnored) {
    addWithoutAddress("eth0");
    EXPECT_EQ(choice("eth0", AF_INET), "none");
    EXPECT_EQ(choice("eth0", AF_UNSPEC), "none");
    add("eth0", "192.0.2.1");
    addWithoutAddress("eth0");
    EXPECT_EQ(choice("eth0", AF_INET), "192.0.2.1");
}

TEST_F(IpAddressTest, Ipv4OfTheLoopback) {
    EXPECT_EQ(take("lo", 2), 0);
    EXPECT_STREQ(text_, "127.0.0.1");
}

TEST_F(IpAddressTest, Ipv6OfTheLoopback) {
    if (hasIpv6Loopback()) {
        EXPECT_EQ(take("lo", 10), 0);
        EXPECT_STREQ(text_, "::1");
    } else {
        EXPECT_EQ(take("lo", 10), -1);
        EXPECT_STREQ(text_, "");
    }
}

TEST_F(IpAddressTest, AnInterfaceThatIsMissingHasAnEmptyAddress) {
    for (const char* interface : {"ovard_none0", "", "l", "lo0", "LO"}) {
        for (const int family : {2, 10}) {
            std::memset(text_, 'x', sizeof text_);
            EXPECT_EQ(take(interface, family), -1) << interface;
            EXPECT_STREQ(text_, "") << interface;
        }
    }
}

TEST_F(IpAddressTest, AnotherFamilyHasNoAddress) {
    EXPECT_EQ(take("lo", AF_UNIX), -1);
    EXPECT_STREQ(text_, "");
}

TEST_F(IpAddressTest, ATextThatDoesNotFitIsEmpty) {
    for (const int length : {1, 2, 9}) {
        std::memset(text_, 'x', sizeof text_);
        EXPECT_EQ(take("lo", 2, length), -1) << length;
        EXPECT_STREQ(text_, "") << length;
        EXPECT_EQ(std::string(text_ + length, 8), "xxxxxxxx") << length;
    }
}

TEST_F(IpAddressTest, ATextThatJustFitsIsTaken) {
    EXPECT_EQ(take("lo", 2, 10), 0);
    EXPECT_STREQ(text_, "127.0.0.1");
    EXPECT_EQ(text_[10], 'x');
}

TEST_F(IpAddressTest, NoRoomIsNotTouched) {
    EXPECT_EQ(take("lo", 2, 0), -1);
    EXPECT_EQ(take("lo", 2, -1), -1);
    EXPECT_EQ(text_[0], 'x');
}

} // namespace
