// Both segments as the monitor publishes them, byte for byte: one machine, the first cycle.

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "records/codes.h"
#include "tests/unit/records/GoldenImage.h"
#include "tests/unit/records/golden/PublishedImages.h"
#include "tests/unit/status/PublishingFixture.h"

namespace publishing {
namespace {

using platform::copyToField;
using recordstest::firstDifference;
using recordstest::goldenImage;

class PublishedImagesTest : public PublishingTest {
protected:
    PublishedImagesTest() {
        copyToField(world().kernel.release, "2.6.32.8");
        copyToField(world().kernel.version, "#7 Tue Nov 14 2023");
        world().ipAddresses[{"eth0", AF_INET}] = "192.0.2.1";
        world().ipAddresses[{"eth0", AF_INET6}] = "2001:db8::1";
        world().ipAddresses[{"eth1", AF_INET6}] = "fe80::2:1";
        scriptStatistics();
        scriptLeases();
    }

    static void scriptStatistics();
    static void scriptLeases();

    static void expectImage(const char* segment, const char* golden) {
        const std::string expected = goldenImage(golden);
        EXPECT_EQ(bytesOf(segment).size(), expected.size());
        EXPECT_EQ(firstDifference(bytesOf(segment), expected), expected.size())
            << segment << " differs at this offset";
    }
};

void PublishedImagesTest::scriptStatistics() {
    auto& files = world().textFiles;
    files["/proc/uptime"] = "9000.00 4500.00\n";
    files["/proc/loadavg"] = "0.25 0.50 0.75 1/52 1234\n";
    files["/proc/stat"] = "cpu  10 5 20 40 3 2 4 16 0 0\n"
                          "cpu0 10 5 20 40 3 2 4 16 0 0\n"
                          "intr 4886718345 1 2\n"
                          "ctxt 40926266145\n"
                          "btime 1699990000\n";
    files["/proc/meminfo"] = "MemTotal: 203307 kB\nMemFree: 49374 kB\nBuffers: 4660 kB\n"
                             "Cached: 22136 kB\nActive: 39612 kB\nInactive: 57072 kB\n"
                             "Shmem: 258 kB\n";
    files["/proc/net/dev"] = "  eth0: 5368709120 4294967311 65539 65540 65541 65542 7 8"
                             " 10240 1000 65547 65548 65549 65550 15 16\n"
                             "  eth1: 5120 17 131075 131076 131077 131078 7 8"
                             " 2560 18 131083 131084 131085 131086 15 16\n";
}

void PublishedImagesTest::scriptLeases() {
    auto& files = world().textFiles;
    files["/var/lib/dhcp/dhclient.eth0.leases"] = R"(lease {
  interface "eth0";
  fixed-address 192.168.1.77;
  option subnet-mask 255.255.255.0;
  option routers 192.168.1.1;
  option dhcp-lease-time 86400;
  option domain-name-servers 192.168.1.2,192.168.1.3;
  option dhcp-server-identifier 192.168.1.4;
  option ntp-servers 192.168.1.5;
  option smtp-servers 192.168.1.6;
  expire 4 2023/11/16 16:11:12;
}
)";
    files["/var/lib/dhcp/dhclient.eth1.leases"] = "";
    files["/var/lib/dhcp/dhclient6.eth1.leases"] = R"(lease6 {
  interface "eth1";
  ia-na 29:d2:5c:4b {
    renew 3600;
    iaaddr 2001:db8:0:1::77 {
      max-life 7500;
    }
  }
}
)";
}

appinfo networkServer() {
    appinfo app = {};
    copyToField(app.name, "data_server");
    copyToField(app.version, "2.5");
    app.start_time = 1699999000;
    app.pid = 1234;
    app.status = APP_STATUS_RUNNING;
    app.priority = -7;
    app.restart_type = RESTART_TYPE_ALL;
    app.last_runtime_life_limit = 86400;
    app.port_type = PORT_TYPE_ETH;
    app.port_num = 502;
    app.uptime = 1000;
    return app;
}

appinfo serialGateway() {
    appinfo app = {};
    copyToField(app.name, "modbus_gateway_of_the_second_serial_port");
    copyToField(app.version, "1.0.4");
    app.start_time = 1;
    app.pid = 70000;
    app.status = APP_STATUS_STARTING0;
    app.priority = 19;
    app.port_type = PORT_TYPE_COM;
    app.port_num = 3;
    app.uptime = 200000;
    return app;
}

/// Nothing of it is as it should be.
appinfo oddApplication() {
    appinfo app = {};
    copyToField(app.name, "event_log");
    app.start_time = -5;
    app.status = APP_STATUS_DEAD;
    app.restart_type = 2;
    app.last_runtime_life_limit = -1;
    app.port_type = 7;
    app.port_num = -3;
    return app;
}

TEST_F(PublishedImagesTest, BothSegmentsByteForByte) {
    publish(std::vector<appinfo>{networkServer(), serialGateway(), oddApplication()});
    expectImage(kSystem, golden::kSystemSegment);
    expectImage(kApplications, golden::kApplicationSegment);
}

} // namespace
} // namespace publishing
