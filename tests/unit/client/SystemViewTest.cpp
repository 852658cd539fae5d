#include "client/ovardctl/SystemView.h"

#include <cstring>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "tests/unit/client/Views.h"

namespace {

using namespace client_test;
using namespace ovardctl;
using platform::copyToField;

/// Every published value differs from all others.
system_segment sampleSystem() {
    system_segment segment = {};
    copyToField(segment.meter.kernel_release, "2.6.32-meter");
    copyToField(segment.meter.kernel_version, "#7 PREEMPT Tue Nov 14");
    copyToField(segment.meter.ipv4_eth0, "192.0.2.1");
    copyToField(segment.meter.ipv4_eth1, "198.51.100.1");
    copyToField(segment.meter.ipv6_eth0, "2001:db8::1");
    systeminfo_struct& info = segment.sysinfo;
    info.runtime_uptime = 26.5F;
    info.runtime_idletime = 87.25F;
    const std::uint8_t bootTime[8] = {0, 0, 1, 0x8b, 0xcf, 0xe5, 0x68, 0x00};
    std::memcpy(info.boot_time, bootTime, sizeof bootTime);
    info.context_switches = 1234567;
    info.interrupts = 765432;
    info.loadavg_1min = 0.1F;
    info.loadavg_5min = 0.25F;
    info.loadavg_15min = 1.5F;
    info.cpuload_user = 11.5F;
    info.cpuload_sys = 12.5F;
    info.cpuload_nice = 1.25F;
    info.cpuload_idle = 70;
    info.cpuload_iowait = 2.5F;
    info.cpuload_irq = 0.75F;
    info.cpuload_softirq = 3;
    info.memload_total = 126976;
    info.memload_used = 100352;
    info.memload_free = 26624;
    info.memload_buffers = 1;
    info.memload_cached = 51200;
    info.memload_active = 40960;
    info.memload_inactive = 30720;
    info.memload_shared = 512;
    info.netstatus_eth0 = {1001, 1002, 1003, 1004, 1005, 1006, 0,    1.5F,
                           2001, 2002, 2003, 2004, 0,    2005, 2006, 2.5F};
    info.netstatus_eth1 = {3001, 3002, 3003, 3004, 3005, 3006, 0,    3.5F,
                           4001, 4002, 4003, 4004, 0,    4005, 4006, 4.5F};
    DHCP_INFO_STRUCT& lease = segment.dhcp_eth0;
    copyToField(lease.client_status, "2 2023/11/14 22:13:20");
    copyToField(lease.renew_lease_time, "600");
    copyToField(lease.server_addr, "192.0.2.2");
    copyToField(lease.client_addr, "192.0.2.3");
    copyToField(lease.subnet_mask, "255.255.255.0");
    copyToField(lease.router_addr, "192.0.2.4");
    copyToField(lease.dns_server_addr, "192.0.2.5");
    copyToField(lease.smtp_server_addr, "192.0.2.6");
    copyToField(lease.sntp_server_addr, "192.0.2.7");
    copyToField(segment.dhcp_eth1.client_status, "Disabled");
    copyToField(segment.dhcpv6_eth0.client_status, "Disabled");
    copyToField(segment.dhcpv6_eth1.client_status, "7200");
    copyToField(segment.dhcpv6_eth1.renew_lease_time, "3600");
    copyToField(segment.dhcpv6_eth1.client_addr, "2001:db8::2");
    return segment;
}

const char* const kSampleText =
    "Monitor:  running\n"
    "Data:     1.5s old\n"
    "\n"
    "Kernel:   2.6.32-meter\n"
    "          #7 PREEMPT Tue Nov 14\n"
    "Uptime:   1d 02h, 87.2% of it idle, booted 2023-11-14 22:13:20 UTC\n"
    "Load:     0.10 (1 min)  0.25 (5 min)  1.50 (15 min)\n"
    "Counts:   1.2M context switches, 765432 interrupts since boot\n"
    "\n"
    "CPU  USER   SYS  NICE  IDLE  IOWAIT  IRQ  SOFTIRQ\n"
    "%    11.5  12.5   1.2  70.0     2.5  0.8      3.0\n"
    "\n"
    "MEMORY   TOTAL   USED   FREE  BUFFERS  CACHED  ACTIVE  INACTIVE  SHARED\n"
    "bytes   124.0M  98.0M  26.0M     1.0K   50.0M   40.0M     30.0M  512.0K\n"
    "\n"
    "TRAFFIC  kB/s  BYTES  PACKETS  ERRORS  DROPS  FIFO  FRAME  COLLS\n"
    "eth0 rx   1.5   1001     1002    1003   1004  1006   1005      -\n"
    "eth0 tx   2.5   2.0K     2002    2003   2004  2005      -   2006\n"
    "eth1 rx   3.5   2.9K     3002    3003   3004  3006   3005      -\n"
    "eth1 tx   4.5   3.9K     4002    4003   4004  4005      -   4006\n"
    "\n"
    "ADDRESSES\n"
    "eth0       IPv4             192.0.2.1\n"
    "eth0       IPv6             2001:db8::1\n"
    "eth0       DHCP status      2 2023/11/14 22:13:20\n"
    "eth0       DHCP address     192.0.2.3\n"
    "eth0       DHCP mask        255.255.255.0\n"
    "eth0       DHCP lease time  600\n"
    "eth0       DHCP server      192.0.2.2\n"
    "eth0       DHCP router      192.0.2.4\n"
    "eth0       DHCP DNS         192.0.2.5\n"
    "eth0       DHCP SMTP        192.0.2.6\n"
    "eth0       DHCP SNTP        192.0.2.7\n"
    "eth0       DHCPv6 status    Disabled\n"
    "eth1       IPv4             198.51.100.1\n"
    "eth1       IPv6             -\n"
    "eth1       DHCP status      Disabled\n"
    "eth1       DHCPv6 status    7200\n"
    "eth1       DHCPv6 address   2001:db8::2\n"
    "eth1       DHCPv6 renewal   3600\n";

TEST(SystemView, ShowsTheMachineInTables) {
    const Report report = makeSystemReport(runningPublication(), sampleSystem(), kPlain);
    EXPECT_EQ(report.exitStatus, 0);
    EXPECT_EQ(report.error, "");
    EXPECT_EQ(report.output, kSampleText);
    expectFitsATerminal(report.output);
}

TEST(SystemView, ColoursTheMonitorAndTheTitlesOnly) {
    std::string output = makeSystemReport(runningPublication(), sampleSystem(), kColoured).output;
    EXPECT_EQ(output.rfind("Monitor:  \x1b[32mrunning\x1b[0m\n", 0), 0u);
    EXPECT_NE(output.find("\x1b[1mCPU\x1b[0m  \x1b[1mUSER\x1b[0m"), std::string::npos);
    for (const char* sequence : {"\x1b[32m", "\x1b[1m", "\x1b[0m"}) {
        for (std::size_t at = 0; (at = output.find(sequence)) != std::string::npos;) {
            output.erase(at, std::strlen(sequence));
        }
    }
    EXPECT_EQ(output, kSampleText);
}

TEST(SystemView, SaysThatTheDataAreStale) {
    const Report report = makeSystemReport(stalePublication(), sampleSystem(), kPlain);
    EXPECT_EQ(report.exitStatus, 3);
    EXPECT_EQ(report.output.rfind("Monitor:  not running\nData:     stale, 5m 06s old\n\n", 0), 0u);
    EXPECT_NE(report.error.find("no monitor listens"), std::string::npos);
}

TEST(SystemView, ShowsNothingOfASegmentThatAMonitorHasOnlyCleared) {
    const system_segment segment = {};
    const Report report = makeSystemReport(runningPublication(), segment, kPlain);
    EXPECT_EQ(report.exitStatus, 4);
    EXPECT_EQ(report.output, "Monitor:  running\nData:     none\n");
    EXPECT_EQ(makeSystemReport(runningPublication(), segment, kJsonLine).output,
              "{\"monitor\":\"running\",\"data\":\"none yet\",\"stale\":true}\n");
}

TEST(SystemView, GivesScriptsEverything) {
    const Report report = makeSystemReport(runningPublication(), sampleSystem(), kJsonLine);
    EXPECT_EQ(report.exitStatus, 0);
    EXPECT_EQ(
        report.output,
        "{\"monitor\":\"running\",\"data\":\"ok\",\"stale\":false,"
        "\"published_ms\":1700000000000,\"age_ms\":1500,"
        "\"kernel_release\":\"2.6.32-meter\",\"kernel_version\":\"#7 PREEMPT Tue Nov 14\","
        "\"boot_time_ms\":1700000000000,\"uptime_hours\":26.5,\"idle_percent\":87.25,"
        "\"load\":[0.1,0.25,1.5],\"context_switches\":1234567,\"interrupts\":765432,"
        "\"cpu_percent\":{\"user\":11.5,\"sys\":12.5,\"nice\":1.25,\"idle\":70.0,\"iowait\":2.5,"
        "\"irq\":0.75,\"softirq\":3.0},"
        "\"memory_kb\":{\"total\":126976,\"used\":100352,\"free\":26624,\"buffers\":1,"
        "\"cached\":51200,\"active\":40960,\"inactive\":30720,\"shared\":512},"
        "\"interfaces\":{\"eth0\":{\"ipv4\":\"192.0.2.1\",\"ipv6\":\"2001:db8::1\","
        "\"rx\":{\"kilobytes_per_s\":1.5,\"bytes\":1001,\"packets\":1002,\"errors\":1003,"
        "\"drops\":1004,\"fifo_errors\":1006,\"frame_errors\":1005},"
        "\"tx\":{\"kilobytes_per_s\":2.5,\"bytes\":2001,\"packets\":2002,\"errors\":2003,"
        "\"drops\":2004,\"fifo_errors\":2005,\"collisions\":2006},"
        "\"dhcp\":{\"status\":\"2 2023/11/14 22:13:20\",\"address\":\"192.0.2.3\","
        "\"mask\":\"255.255.255.0\",\"lease_time\":\"600\",\"server\":\"192.0.2.2\","
        "\"router\":\"192.0.2.4\",\"dns\":\"192.0.2.5\",\"smtp\":\"192.0.2.6\","
        "\"sntp\":\"192.0.2.7\"},"
        "\"dhcpv6\":{\"status\":\"Disabled\",\"address\":\"\",\"renewal\":\"\"}},"
        "\"eth1\":{\"ipv4\":\"198.51.100.1\",\"ipv6\":\"\","
        "\"rx\":{\"kilobytes_per_s\":3.5,\"bytes\":3001,\"packets\":3002,\"errors\":3003,"
        "\"drops\":3004,\"fifo_errors\":3006,\"frame_errors\":3005},"
        "\"tx\":{\"kilobytes_per_s\":4.5,\"bytes\":4001,\"packets\":4002,\"errors\":4003,"
        "\"drops\":4004,\"fifo_errors\":4005,\"collisions\":4006},"
        "\"dhcp\":{\"status\":\"Disabled\",\"address\":\"\",\"mask\":\"\",\"lease_time\":\"\","
        "\"server\":\"\",\"router\":\"\",\"dns\":\"\",\"smtp\":\"\",\"sntp\":\"\"},"
        "\"dhcpv6\":{\"status\":\"7200\",\"address\":\"2001:db8::2\",\"renewal\":\"3600\"}}}}\n");
}

TEST(SystemView, BoundsWhatOtherProgramsHaveWritten) {
    for (const int fill : {0x1b, 0x7f, 0xff, 0x80, 0x77, 0xc7, 0x49}) {
        system_segment segment;
        std::memset(static_cast<void*>(&segment), fill, sizeof segment);
        expectFitsATerminal(makeSystemReport(stalePublication(), segment, kPlain).output);
        for (const char character : makeSystemReport(stalePublication(), segment, kJson).output) {
            EXPECT_TRUE(character == '\n' || (character >= 0x20 && character < 0x7f));
        }
    }
}

TEST(SystemView, ShowsNoNumbersThatAreNone) {
    system_segment segment = sampleSystem();
    systeminfo_struct& info = segment.sysinfo;
    info.runtime_uptime = std::numeric_limits<float>::quiet_NaN();
    info.runtime_idletime = std::numeric_limits<float>::infinity();
    info.loadavg_1min = -std::numeric_limits<float>::infinity();
    info.cpuload_user = std::numeric_limits<float>::quiet_NaN();
    std::memset(info.boot_time, 0, sizeof info.boot_time);
    const std::string text = makeSystemReport(runningPublication(), segment, kPlain).output;
    EXPECT_NE(text.find("Uptime:   ? hours, ?% of it idle\n"), std::string::npos);
    EXPECT_NE(text.find("Load:     ? (1 min)"), std::string::npos);
    EXPECT_NE(text.find("\n%       ?  12.5"), std::string::npos);
    const std::string json = makeSystemReport(runningPublication(), segment, kJsonLine).output;
    for (const char* part : {"\"boot_time_ms\":null", "\"uptime_hours\":null",
                             "\"idle_percent\":null", "\"load\":[null,", "\"user\":null"}) {
        EXPECT_NE(json.find(part), std::string::npos) << part;
    }
}

TEST(SystemView, ShowsAnUptimeThatCannotBeAsItStands) {
    system_segment segment = sampleSystem();
    segment.sysinfo.runtime_uptime = -3.5F;
    const std::string text = makeSystemReport(runningPublication(), segment, kPlain).output;
    EXPECT_NE(text.find("Uptime:   -3.5 hours, "), std::string::npos);
}

} // namespace
