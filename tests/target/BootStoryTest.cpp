// The monitor as the boot daemon of a machine that was switched on a moment ago.

#include <arpa/inet.h>
#include <sys/socket.h>

#include <csignal>
#include <cstring>

#include "platform/UniqueFd.h"
#include "tests/system/Segments.h"
#include "tests/target/Figures.h"
#include "tests/target/MachineTest.h"
#include "tests/target/Reader.h"

namespace target {
namespace {

using systemtest::eventually;
using systemtest::publishedApp;

constexpr int kApplications = 20;
constexpr const char* kRequests = "/home/requests";

/// Two seconds for each request, and for the beginning.
constexpr int kReplayMs = (2 * kApplications + 10) * 1000;

constexpr const char* kLease = "lease {\n"
                               "  interface \"eth0\";\n"
                               "  fixed-address 10.0.2.15;\n"
                               "  option subnet-mask 255.255.255.0;\n"
                               "  option routers 10.0.2.2;\n"
                               "  option dhcp-lease-time 86400;\n"
                               "  option domain-name-servers 10.0.2.3;\n"
                               "  option dhcp-server-identifier 10.0.2.2;\n"
                               "  expire 4 2026/11/26 04:38:17;\n"
                               "}\n";

class BootStory : public MachineTest {
protected:
    void bootMonitor() {
        requests_ = makeManyRequests(kApplications);
        requests_[1].priority = 5;
        requests_[2].porttype = PORT_TYPE_ETH;
        requests_[2].portnum = 502;
        ASSERT_TRUE(writeRequests(kRequests, requests_));
        ASSERT_TRUE(systemtest::writeFile("/var/lib/dhcp/dhclient.eth0.leases", kLease));
        ASSERT_TRUE(monitor_.startInBackground({"-x", kRequests, "-w", "0", "-I", "1"}));
    }

    std::vector<reqcmd> requests_;
};

/// Sends a datagram of that size out of an interface.
void sendTo(const char* address, std::size_t size) {
    const platform::UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(9);
    ASSERT_EQ(::inet_pton(AF_INET, address, &to.sin_addr), 1);
    const std::string bytes(size, 'x');
    ASSERT_EQ(
        ::sendto(socket.get(), bytes.data(), size, 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
        static_cast<ssize_t>(size));
}

std::int64_t sentBytes(std::size_t offsetInSystemInfo) {
    return systemtest::numberAt<std::int64_t>(systemtest::systemSegment(), offsetInSystemInfo);
}

/// Offsets of tx_byte of both interfaces in the system segment.
constexpr std::size_t kSentByEth0 = 256 + 128 + 40;
constexpr std::size_t kSentByEth1 = 256 + 208 + 40;

void expectLease() {
    constexpr std::size_t kAt = 1504;
    const std::string bytes = systemtest::systemSegment();
    EXPECT_EQ(systemtest::textAt(bytes, kAt, 36), "4 2026/11/26 04:38:17");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 36, 20), "86400");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 56, 20), "10.0.2.2");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 76, 20), "10.0.2.15");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 96, 20), "255.255.255.0");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 116, 20), "10.0.2.2");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 136, 20), "10.0.2.3");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 196, 36), "Disabled") << "eth1 has no lease";
}

TEST_F(BootStory, TwentyApplicationsFromTheRequestFile) {
    ASSERT_LT(uptimeSec(), 30) << "this machine was not switched on just now";
    ASSERT_NO_FATAL_FAILURE(bootMonitor());
    ASSERT_TRUE(
        eventually([] { return systemtest::publishedCount() == kApplications; }, kReplayMs));
    ASSERT_LT(uptimeSec(), kRestSec - 20) << "this machine is too slow";

    // Nothing is supervised yet.
    const pid_t first = publishedApp("app_7").pid;
    ASSERT_TRUE(systemtest::killAndWait(first));
    waitForUptime(kRestSec - 2);
    EXPECT_EQ(publishedApp("app_7").pid, first);
    EXPECT_TRUE(systemtest::processesNamed("app_7").empty());

    // Now it is.
    ASSERT_TRUE(eventually([&] { return publishedApp("app_7").pid != first; }, 30000));
    ASSERT_TRUE(areStarted(kApplications, 60000));
    EXPECT_EQ(systemtest::processesNamed("app_7"), std::vector<pid_t>{publishedApp("app_7").pid});

    const std::int64_t before0 = sentBytes(kSentByEth0);
    const std::int64_t before1 = sentBytes(kSentByEth1);
    ASSERT_NO_FATAL_FAILURE(sendTo("10.0.2.2", 1000));
    ASSERT_NO_FATAL_FAILURE(sendTo("10.0.3.2", 1200));
    EXPECT_TRUE(eventually([&] { return sentBytes(kSentByEth0) >= before0 + 1000; }));
    EXPECT_TRUE(eventually([&] { return sentBytes(kSentByEth1) >= before1 + 1200; }));
    expectLease();
    expectMachineAgrees();
    // The replaced one keeps its place.
    expectApplicationsAgree(requests_);
    EXPECT_EQ(monitor_.terminate().text(), "ended");
}

} // namespace
} // namespace target
