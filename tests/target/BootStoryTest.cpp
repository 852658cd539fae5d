// The monitor as the boot daemon of a machine that was switched on a moment ago.

#include "tests/system/Segments.h"
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
                               "  option dhcp-server-identifier 10.0.2.4;\n"
                               "  option smtp-servers 10.0.2.5;\n"
                               "  option ntp-servers 10.0.2.6;\n"
                               "  expire 4 2026/11/26 04:38:17;\n"
                               "}\n";

constexpr const char* kLease6 = "lease6 {\n"
                                "  interface \"eth1\";\n"
                                "  ia-na 54:00:12:35 {\n"
                                "    renew 43200;\n"
                                "    iaaddr 2001:db8::15 {\n"
                                "      preferred-life 86400;\n"
                                "      max-life 172800;\n"
                                "    }\n"
                                "  }\n"
                                "}\n";

class BootStory : public MachineTest {
protected:
    void bootMonitor() {
        requests_ = makeRequests();
        ASSERT_TRUE(writeRequests(kRequests, requests_));
        ASSERT_TRUE(systemtest::writeFile("/var/lib/dhcp/dhclient.eth0.leases", kLease));
        ASSERT_TRUE(systemtest::writeFile("/var/lib/dhcp/dhclient6.eth1.leases", kLease6));
        ASSERT_TRUE(monitor_.startInBackground({"-x", kRequests, "-w", "0", "-I", "1"}));
    }

    std::vector<reqcmd> requests_;

private:
    /// Each field of a request that is published differs from the usual somewhere.
    std::vector<reqcmd> makeRequests() {
        constexpr std::int32_t kNeitherSelfNorAll = 2;
        std::vector<reqcmd> requests = makeManyRequests(kApplications);
        requests[1].priority = 5;
        requests[2].porttype = PORT_TYPE_ETH;
        requests[2].portnum = 502;
        requests[3].porttype = PORT_TYPE_COM;
        requests[3].portnum = 3;
        requests[4].restart_type = kNeitherSelfNorAll;
        requests[5].last_runtime_life_limit = 600;
        return requests;
    }
};

void expectLease(const std::string& bytes) {
    constexpr std::size_t kAt = 1504;
    EXPECT_EQ(systemtest::textAt(bytes, kAt, 36), "4 2026/11/26 04:38:17");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 36, 20), "86400");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 56, 20), "10.0.2.4");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 76, 20), "10.0.2.15");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 96, 20), "255.255.255.0");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 116, 20), "10.0.2.2");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 136, 20), "10.0.2.3");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 156, 20), "10.0.2.5");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 176, 20), "10.0.2.6");
}

void expectLease6(const std::string& bytes) {
    constexpr std::size_t kAt = 2020;
    EXPECT_EQ(systemtest::textAt(bytes, kAt, 36), "172800");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 36, 20), "43200");
    EXPECT_EQ(systemtest::textAt(bytes, kAt + 56, 68), "2001:db8::15");
}

/// "Disabled", and nothing behind it.
void expectNoLease(const std::string& bytes, std::size_t at, std::size_t size) {
    const std::string word = "Disabled";
    EXPECT_EQ(bytes.substr(at, size), word + std::string(size - word.size(), '\0')) << at;
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

    expectMachineAgrees();
    const std::string bytes = systemtest::systemSegment();
    expectLease(bytes);
    expectNoLease(bytes, 1700, 196);
    expectNoLease(bytes, 1896, 124);
    expectLease6(bytes);
    // The replaced one keeps its place.
    expectApplicationsAgree(requests_, monitor_.pid());
    EXPECT_EQ(monitor_.terminate().text(), "ended");
}

} // namespace
} // namespace target
