// The real DHCP client against a real server: what the client writes is what the monitor has to
// read. The server runs in a network namespace of its own, behind eth0.
//
// Both programs are unpacked by scripts/setup, not installed: a machine on which the tests are run
// must not become a server of its network.

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <regex>

#include "tests/system/Publication.h"

namespace systemtest {
namespace {

constexpr const char* kLeases = "/var/lib/dhcp/dhclient.eth0.leases";
constexpr const char* kLeases6 = "/var/lib/dhcp/dhclient6.eth0.leases";
constexpr int kLeaseTimeSec = 600;

/// Offsets in the system segment.
constexpr std::size_t kRecordAt = 1504;
constexpr std::size_t kRecord6At = 1896;

/// Where scripts/setup unpacks both programs; OVARD_DHCP_FOLDER in the environment names another.
std::string unpackedFolder() {
    const char* const folder = std::getenv("OVARD_DHCP_FOLDER");
    const std::string script = sandboxProgram();
    const std::string checkout = script.substr(0, script.rfind("/scripts/"));
    return folder != nullptr ? folder : checkout + "/build/dhcp";
}

/// Where a program is: unpacked, installed, or nowhere (empty).
std::string findProgram(const std::string& path) {
    for (const std::string& candidate : {unpackedFolder() + path, path}) {
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return "";
}

class Lease : public PublicationTest {
protected:
    void SetUp() override {
        client_ = findProgram("/sbin/dhclient");
        server_ = findProgram("/usr/sbin/dhcpd");
        if (client_.empty() || server_.empty()) {
            GTEST_SKIP() << "no dhclient and dhcpd here; scripts/setup fetches the packages "
                            "isc-dhcp-client and isc-dhcp-server where they can be had";
        }
        PublicationTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(separateNetworks());
        ASSERT_TRUE(makeDirectories(kScratchFolder));
    }

    void TearDown() override {
        if (!client_.empty() && !server_.empty()) {
            PublicationTest::TearDown();
            // A pair of interfaces like that of the sandbox.
            EXPECT_TRUE(runShell("ip link del eth0 2>/dev/null; "
                                 "ip link add eth0 type veth peer name eth1 && "
                                 "ip addr add 192.0.2.1/24 dev eth0 && "
                                 "ip addr add 198.51.100.1/24 dev eth1 && "
                                 "ip link set eth0 up && ip link set eth1 up"));
        }
    }

    /// Puts eth1, to which eth0 is connected, into a network namespace of its own.
    void separateNetworks() {
        ASSERT_TRUE(network_.start("/usr/bin/unshare", {"--net", "/bin/sleep", "600"}));
        const std::string ours = linkOf(::getpid(), "ns/net");
        ASSERT_TRUE(eventually([&] {
            return processFacts(network_.pid()).name == "sleep" &&
                   linkOf(network_.pid(), "ns/net") != ours;
        }));
        ASSERT_TRUE(runShell("ip link set eth1 netns " + std::to_string(network_.pid())));
        ASSERT_TRUE(runShell(inOtherNetwork("ip link set eth1 up")));
    }

    std::string inOtherNetwork(const std::string& command) const {
        return "nsenter --net=/proc/" + std::to_string(network_.pid()) + "/ns/net " + command;
    }

    /// A line of the shell that waits until an interface has an address that it may use: one that
    /// can no longer turn out to be another's.
    static std::string waitForLinkLocalAddressOf(const std::string& interface) {
        return "timeout 10 sh -c 'until ip -6 addr show dev " + interface +
               " scope link -tentative | grep -q inet6; do sleep 0.05; done'";
    }

    /// Starts the server in the other network and waits until it listens.
    void startServer(Program& program, const std::string& family, const std::string& config) {
        const std::string base = std::string(kScratchFolder) + "/server" + family;
        ASSERT_TRUE(writeFile(base + ".conf", config) && writeFile(base + ".leases", ""));
        ASSERT_TRUE(program.start("/usr/bin/nsenter",
                                  {"--net=/proc/" + std::to_string(network_.pid()) + "/ns/net",
                                   server_, family, "-f", "-d", "-cf", base + ".conf", "-lf",
                                   base + ".leases", "-pf", base + ".pid", "eth1"}));
        ASSERT_TRUE(eventually([&] {
            return program.errors().find("Server starting service.") != std::string::npos;
        })) << program.errors();
    }

    /// Starts a server for the network whose addresses begin like that, "192.0.2." for example.
    void startServerOf(const std::string& network, Program& program) {
        ASSERT_TRUE(runShell(inOtherNetwork("ip -4 addr flush dev eth1") + " && " +
                             inOtherNetwork("ip addr add " + network + "254/24 dev eth1")));
        const std::string config = "authoritative; ping-check false;\n"
                                   "default-lease-time 600; max-lease-time 600;\n"
                                   "option domain-name-servers 192.0.2.10;\n"
                                   "option ntp-servers 192.0.2.11;\n"
                                   "subnet NET.0 netmask 255.255.255.0 {\n"
                                   "  range NET.100 NET.100;\n"
                                   "  option routers NET.254, NET.253;\n"
                                   "}\n";
        startServer(program, "-4", std::regex_replace(config, std::regex("NET\\."), network));
    }

    /// Runs the client until it has a lease; it changes nothing but the lease file.
    void obtainLease(const std::string& family, const std::string& leaseFile) {
        const std::string config = std::string(kScratchFolder) + "/client.conf";
        const std::string pidFile = std::string(kScratchFolder) + "/client" + family + ".pid";
        ASSERT_TRUE(writeFile(config, "request subnet-mask, routers, domain-name-servers, "
                                      "ntp-servers;\n"));
        const ProgramResult result =
            runProgram(client_, {family, "-1", "-v", "-cf", config, "-sf", "/bin/true", "-lf",
                                 leaseFile, "-pf", pidFile, "eth0"});
        ASSERT_EQ(result.ending.text(), "status 0") << result.output << result.errors;
        // It stays in the background, to renew the lease.
        ASSERT_TRUE(eventually([&] { return !linesOf(readFile(pidFile)).empty(); }));
        ASSERT_TRUE(killAndWait(toPid(linesOf(readFile(pidFile))[0])));
        ASSERT_EQ(std::remove(pidFile.c_str()), 0);
    }

    static std::string published(std::size_t offset, std::size_t size) {
        return textAt(systemSegment(), offset, size);
    }

    static bool publishesAddress(const std::string& address) {
        return duringPasses([&] { return published(kRecordAt + 76, 20) == address; });
    }

    std::string client_;
    std::string server_;
    Program network_;
};

/// The segment holds all of the lease that the server of a network gave at that time.
void expectWholeLease(const std::string& segment, const std::string& network, std::time_t begin) {
    const std::string expiry = textAt(segment, kRecordAt, 36);
    ASSERT_GT(expiry.size(), 2U);
    std::tm fields = {};
    const char* const end = ::strptime(expiry.c_str() + 2, "%Y/%m/%d %H:%M:%S", &fields);
    ASSERT_TRUE(end != nullptr && *end == '\0') << expiry;
    EXPECT_EQ(expiry.substr(0, 2), std::to_string(fields.tm_wday) + " ") << expiry;
    EXPECT_NEAR(static_cast<double>(::timegm(&fields)), static_cast<double>(begin + kLeaseTimeSec),
                20);
    EXPECT_EQ(textAt(segment, kRecordAt + 36, 20), "600");
    EXPECT_EQ(textAt(segment, kRecordAt + 56, 20), network + "254");
    EXPECT_EQ(textAt(segment, kRecordAt + 76, 20), network + "100");
    EXPECT_EQ(textAt(segment, kRecordAt + 96, 20), "255.255.255.0");
    const std::string routers = network + "254," + network + "253";
    EXPECT_EQ(textAt(segment, kRecordAt + 116, 20), routers.substr(0, 19));
    EXPECT_EQ(textAt(segment, kRecordAt + 136, 20), "192.0.2.10");
    EXPECT_EQ(textAt(segment, kRecordAt + 156, 20), "");
    EXPECT_EQ(textAt(segment, kRecordAt + 176, 20), "192.0.2.11");
}

TEST_F(Lease, OfTheRealClient) {
    ASSERT_TRUE(startPublisher());
    EXPECT_EQ(published(kRecordAt, 36), "Disabled");
    Program server;
    ASSERT_NO_FATAL_FAILURE(startServerOf("192.0.2.", server));
    const std::time_t begin = std::time(nullptr);
    ASSERT_NO_FATAL_FAILURE(obtainLease("-4", kLeases));
    ASSERT_TRUE(publishesAddress("192.0.2.100")) << readFile(kLeases);
    expectWholeLease(systemSegment(), "192.0.2.", begin);
    EXPECT_EQ(published(1700, 36), "Disabled") << "eth1 has none";
    EXPECT_EQ(published(kRecord6At, 36), "Disabled") << "nor has IPv6";

    ASSERT_EQ(std::remove(kLeases), 0);
    EXPECT_TRUE(duringPasses([] { return published(kRecordAt, 36) == "Disabled"; }));
    EXPECT_EQ(systemSegment().substr(kRecordAt + 36, 160), std::string(160, '\0'));
}

TEST_F(Lease, OfANetworkThatTheMeterCameToLater) {
    ASSERT_TRUE(startPublisher());
    {
        Program server;
        ASSERT_NO_FATAL_FAILURE(startServerOf("192.0.2.", server));
        ASSERT_NO_FATAL_FAILURE(obtainLease("-4", kLeases));
        ASSERT_TRUE(publishesAddress("192.0.2.100")) << readFile(kLeases);
    }
    Program server;
    ASSERT_NO_FATAL_FAILURE(startServerOf("203.0.113.", server));
    const std::time_t begin = std::time(nullptr);
    ASSERT_NO_FATAL_FAILURE(obtainLease("-4", kLeases));
    ASSERT_EQ(countOf(readFile(kLeases), "lease {"), 2U) << readFile(kLeases);
    ASSERT_TRUE(publishesAddress("203.0.113.100")) << readFile(kLeases);
    expectWholeLease(systemSegment(), "203.0.113.", begin);
}

TEST_F(Lease, OfTheRealClientForIpv6) {
    if (!fileExists("/proc/net/if_inet6")) {
        GTEST_SKIP() << "this kernel has no IPv6";
    }
    ASSERT_TRUE(runShell(inOtherNetwork("ip -6 addr add 2001:db8:1::1/64 dev eth1 nodad")));
    ASSERT_TRUE(runShell(waitForLinkLocalAddressOf("eth0")));
    ASSERT_TRUE(runShell(inOtherNetwork(waitForLinkLocalAddressOf("eth1"))));
    ASSERT_TRUE(startPublisher());
    EXPECT_EQ(published(kRecord6At, 36), "Disabled");
    Program server;
    ASSERT_NO_FATAL_FAILURE(
        startServer(server, "-6",
                    "default-lease-time 600; preferred-lifetime 500;\n"
                    "option dhcp-renewal-time 150; option dhcp-rebinding-time 240;\n"
                    "subnet6 2001:db8:1::/64 { range6 2001:db8:1::100 2001:db8:1::100; }\n"));
    ASSERT_NO_FATAL_FAILURE(obtainLease("-6", kLeases6));
    ASSERT_TRUE(duringPasses([] { return published(kRecord6At + 56, 68) == "2001:db8:1::100"; }))
        << published(kRecord6At + 56, 68) << "\n"
        << readFile(kLeases6);
    EXPECT_EQ(published(kRecord6At, 36), "600");
    EXPECT_EQ(published(kRecord6At + 36, 20), "150");
    EXPECT_EQ(published(kRecordAt, 36), "Disabled") << "IPv4 has none";
    EXPECT_EQ(published(2020, 36), "Disabled") << "nor has eth1";
}

} // namespace
} // namespace systemtest
