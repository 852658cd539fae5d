// The addresses of the loopback interface, which every machine has.

#include <sys/socket.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Network.h"

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
