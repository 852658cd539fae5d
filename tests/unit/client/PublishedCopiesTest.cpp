#include "client/PublishedCopies.h"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Text.h"

namespace {

using namespace ovard_client;
using platform::copyToField;

/// Fills a text field to its last byte.
template <std::size_t Size> void fillField(char (&field)[Size], char letter) {
    std::memset(field, letter, Size);
}

application_segment makeApplications(std::int32_t count) {
    application_segment segment = {};
    segment.header.count = count;
    segment.header.maximum = 127;
    for (std::size_t index = 0; index < 127; ++index) {
        copyToField(segment.applications[index].name, "app" + std::to_string(index));
    }
    return segment;
}

/// The names that are copied, with room for `capacity`.
std::vector<std::string> copiedNames(const application_segment& segment, std::size_t capacity) {
    constexpr std::int32_t kUnused = -7;
    ovard_application unused = {};
    unused.pid = kUnused;
    std::vector<ovard_application> applications(128, unused);
    copyApplications(segment, applications.data(), capacity);
    std::vector<std::string> names;
    for (const ovard_application& application : applications) {
        if (application.pid != kUnused) {
            names.emplace_back(application.name);
        }
    }
    return names;
}

TEST(PublishedCopies, CopiesAnApplication) {
    application_segment segment = makeApplications(1);
    application_record& record = segment.applications[0];
    copyToField(record.name, "meter");
    copyToField(record.version, "1.2");
    const std::uint8_t start[8] = {0, 0, 1, 0x8b, 0xcf, 0xe5, 0x68, 0x00};
    std::memcpy(record.start_time, start, sizeof start);
    record.pid = 321;
    copyToField(record.status, "started");
    record.nice = -5;
    record.restart_type = 1;
    record.last_runtime_life_limit = 600;
    copyToField(record.port_type, "Eth");
    record.port_num = 502;
    record.uptime = 4000000000U;
    ovard_application copy = {};
    copyApplications(segment, &copy, 1);
    EXPECT_STREQ(copy.name, "meter");
    EXPECT_STREQ(copy.version, "1.2");
    EXPECT_EQ(copy.start_time_ms, 1700000000000);
    EXPECT_EQ(copy.pid, 321);
    EXPECT_STREQ(copy.status, "started");
    EXPECT_EQ(copy.priority, -5);
    EXPECT_EQ(copy.restart_type, 1);
    EXPECT_EQ(copy.life_limit_sec, 600);
    EXPECT_STREQ(copy.port_type, "Eth");
    EXPECT_EQ(copy.port_number, 502);
    EXPECT_EQ(copy.uptime_sec, 4000000000U);
}

TEST(PublishedCopies, TextsWithoutNulGetOneAndLoseNothing) {
    application_segment segment = makeApplications(1);
    application_record& record = segment.applications[0];
    fillField(record.name, 'n');
    fillField(record.version, 'v');
    fillField(record.status, 's');
    fillField(record.port_type, 'p');
    ovard_application copy;
    std::memset(&copy, 0x5a, sizeof copy);
    copyApplications(segment, &copy, 1);
    EXPECT_EQ(std::string(copy.name, sizeof copy.name), std::string(32, 'n') + '\0');
    EXPECT_EQ(std::string(copy.version, sizeof copy.version), std::string(32, 'v') + '\0');
    EXPECT_EQ(std::string(copy.status, sizeof copy.status), std::string(16, 's') + '\0');
    EXPECT_EQ(std::string(copy.port_type, sizeof copy.port_type), std::string(16, 'p') + '\0');
}

TEST(PublishedCopies, CopiesAsManyApplicationsAsThereAreAndFit) {
    EXPECT_EQ(copiedNames(makeApplications(0), 128).size(), 0U);
    EXPECT_EQ(copiedNames(makeApplications(2), 128), (std::vector<std::string>{"app0", "app1"}));
    EXPECT_EQ(copiedNames(makeApplications(2), 1), std::vector<std::string>{"app0"});
    EXPECT_EQ(copiedNames(makeApplications(2), 0).size(), 0U);
    EXPECT_EQ(copiedNames(makeApplications(127), 128).size(), 127U);
}

TEST(PublishedCopies, BelievesNoCountBeyondTheRecords) {
    for (const std::int32_t count : {128, 200, 2147483647}) {
        EXPECT_EQ(copiedNames(makeApplications(count), 128).size(), 127U) << count;
        EXPECT_EQ(copyOf(makeApplications(count).header).published, 127) << count;
        EXPECT_EQ(copyOf(makeApplications(count).header).registered, count);
    }
    EXPECT_EQ(copiedNames(makeApplications(-1), 128).size(), 0U);
    EXPECT_EQ(copyOf(makeApplications(-1).header).published, 0);
}

TEST(PublishedCopies, CopiesTheHeader) {
    application_header header = {};
    header.count = 3;
    header.maximum = 127;
    copyToField(header.file_version, "0005.0001.221005.170006");
    fillField(header.file_date, 'd');
    header.iec61850_health = 0x80000001U;
    header.sys_health = 0x4000;
    const ovard_overview copy = copyOf(header);
    EXPECT_EQ(copy.registered, 3);
    EXPECT_EQ(copy.published, 3);
    EXPECT_STREQ(copy.monitor_version, "0005.0001.221005.170006");
    EXPECT_EQ(copy.monitor_date, std::string(32, 'd'));
    EXPECT_EQ(copy.iec61850_health, 0x80000001U);
    EXPECT_EQ(copy.sys_health, 0x4000);
}

TEST(PublishedCopies, SegmentsOfAMonitorThatHasJustStartedHoldNoCycle) {
    application_segment applications = {};
    EXPECT_FALSE(holdsCycle(applications));
    applications.header.maximum = 127;
    EXPECT_TRUE(holdsCycle(applications));
    system_segment system = {};
    EXPECT_FALSE(holdsCycle(system));
    copyToField(system.meter.kernel_release, "Linux");
    EXPECT_TRUE(holdsCycle(system));
}

TEST(PublishedCopies, CopiesTheMachine) {
    system_segment segment = {};
    copyToField(segment.meter.kernel_release, "Linux");
    fillField(segment.meter.kernel_version, 'k');
    systeminfo_struct& info = segment.sysinfo;
    info.runtime_uptime = 1.5F;
    info.runtime_idletime = 180.25F;
    const std::uint8_t boot[8] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe};
    std::memcpy(info.boot_time, boot, sizeof boot);
    info.context_switches = 5000000000;
    info.interrupts = 6000000000;
    info.loadavg_1min = 0.1F;
    info.loadavg_5min = 0.5F;
    info.loadavg_15min = 0.15F;
    const ovard_machine copy = copyOf(segment);
    EXPECT_STREQ(copy.kernel_release, "Linux");
    EXPECT_EQ(copy.kernel_version, std::string(32, 'k'));
    EXPECT_EQ(copy.boot_time_ms, -2);
    EXPECT_EQ(copy.context_switches, 5000000000);
    EXPECT_EQ(copy.interrupts, 6000000000);
    EXPECT_EQ(copy.uptime_hours, 1.5F);
    EXPECT_EQ(copy.idle_percent, 180.25F);
    EXPECT_EQ(copy.load_1min, 0.1F);
    EXPECT_EQ(copy.load_5min, 0.5F);
    EXPECT_EQ(copy.load_15min, 0.15F);
}

TEST(PublishedCopies, CopiesProcessorAndMemory) {
    system_segment segment = {};
    systeminfo_struct& info = segment.sysinfo;
    float* const loads[] = {&info.cpuload_user,   &info.cpuload_sys,    &info.cpuload_nice,
                            &info.cpuload_idle,   &info.cpuload_iowait, &info.cpuload_irq,
                            &info.cpuload_softirq};
    float load = 1;
    for (float* const field : loads) {
        *field = load++;
    }
    std::int32_t* const sizes[] = {
        &info.memload_total,  &info.memload_used,   &info.memload_free,     &info.memload_buffers,
        &info.memload_cached, &info.memload_active, &info.memload_inactive, &info.memload_shared};
    std::int32_t size = 1;
    for (std::int32_t* const field : sizes) {
        *field = size++;
    }
    const ovard_machine copy = copyOf(segment);
    EXPECT_EQ(
        (std::vector<float>{copy.cpu_user_percent, copy.cpu_sys_percent, copy.cpu_nice_percent,
                            copy.cpu_idle_percent, copy.cpu_iowait_percent, copy.cpu_irq_percent,
                            copy.cpu_softirq_percent}),
        (std::vector<float>{1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ((std::vector<std::int32_t>{copy.memory_total_kb, copy.memory_used_kb,
                                         copy.memory_free_kb, copy.memory_buffers_kb,
                                         copy.memory_cached_kb, copy.memory_active_kb,
                                         copy.memory_inactive_kb, copy.memory_shared_kb}),
              (std::vector<std::int32_t>{1, 2, 3, 4, 5, 6, 7, 8}));
}

/// Gives the counters of an interface the numbers from `first` on.
void numberTraffic(netstatus_struct& record, int first) {
    record.rx_byte = first;
    record.rx_packet = first + 1;
    record.rx_totalerror = first + 2;
    record.rx_droperror = first + 3;
    record.rx_frameerror = first + 4;
    record.rx_fifoerror = first + 5;
    record.rx_datarate = static_cast<float>(first + 6);
    record.tx_byte = first + 7;
    record.tx_packet = first + 8;
    record.tx_totalerror = first + 9;
    record.tx_droperror = first + 10;
    record.tx_fifoerror = first + 11;
    record.tx_collision = first + 12;
    record.tx_datarate = static_cast<float>(first + 13);
}

std::vector<double> trafficOf(const ovard_interface& copy) {
    return {static_cast<double>(copy.rx_bytes),        static_cast<double>(copy.rx_packets),
            static_cast<double>(copy.rx_errors),       static_cast<double>(copy.rx_drops),
            static_cast<double>(copy.rx_frame_errors), static_cast<double>(copy.rx_fifo_errors),
            static_cast<double>(copy.rx_rate_kb),      static_cast<double>(copy.tx_bytes),
            static_cast<double>(copy.tx_packets),      static_cast<double>(copy.tx_errors),
            static_cast<double>(copy.tx_drops),        static_cast<double>(copy.tx_fifo_errors),
            static_cast<double>(copy.tx_collisions),   static_cast<double>(copy.tx_rate_kb)};
}

std::vector<double> numbersFrom(int first) {
    std::vector<double> numbers;
    for (int number = first; number < first + 14; ++number) {
        numbers.push_back(number);
    }
    return numbers;
}

TEST(PublishedCopies, CopiesTheTrafficOfBothInterfaces) {
    system_segment segment = {};
    numberTraffic(segment.sysinfo.netstatus_eth0, 100);
    numberTraffic(segment.sysinfo.netstatus_eth1, 200);
    const ovard_machine copy = copyOf(segment);
    EXPECT_EQ(trafficOf(copy.eth0), numbersFrom(100));
    EXPECT_EQ(trafficOf(copy.eth1), numbersFrom(200));
}

/// Gives the texts of a lease letters from `first` on, to their last byte.
void letterLeases(DHCP_INFO_STRUCT& lease, DHCPV6_INFO_STRUCT& lease6, char first) {
    char letter = first;
    fillField(lease.client_status, letter++);
    fillField(lease.renew_lease_time, letter++);
    fillField(lease.server_addr, letter++);
    fillField(lease.client_addr, letter++);
    fillField(lease.subnet_mask, letter++);
    fillField(lease.router_addr, letter++);
    fillField(lease.dns_server_addr, letter++);
    fillField(lease.smtp_server_addr, letter++);
    fillField(lease.sntp_server_addr, letter++);
    fillField(lease6.client_status, letter++);
    fillField(lease6.renew_lease_time, letter++);
    fillField(lease6.client_addr, letter++);
}

std::vector<std::string> leasesOf(const ovard_interface& copy) {
    return {copy.dhcp_status,      copy.dhcp_renewal,  copy.dhcp_server,     copy.dhcp_address,
            copy.dhcp_netmask,     copy.dhcp_router,   copy.dhcp_dns_server, copy.dhcp_smtp_server,
            copy.dhcp_sntp_server, copy.dhcpv6_status, copy.dhcpv6_renewal,  copy.dhcpv6_address};
}

std::vector<std::string> lettersFrom(char first) {
    std::vector<std::string> texts;
    char letter = first;
    for (const int size : {36, 20, 20, 20, 20, 20, 20, 20, 20, 36, 20, 68}) {
        texts.emplace_back(static_cast<std::size_t>(size), letter++);
    }
    return texts;
}

TEST(PublishedCopies, CopiesTheAddressesAndLeasesOfBothInterfaces) {
    system_segment segment = {};
    copyToField(segment.meter.ipv4_eth0, "192.0.2.1");
    copyToField(segment.meter.ipv4_eth1, "198.51.100.1");
    fillField(segment.meter.ipv6_eth0, '0');
    fillField(segment.meter.ipv6_eth1, '1');
    letterLeases(segment.dhcp_eth0, segment.dhcpv6_eth0, 'A');
    letterLeases(segment.dhcp_eth1, segment.dhcpv6_eth1, 'a');
    const ovard_machine copy = copyOf(segment);
    EXPECT_STREQ(copy.eth0.ipv4, "192.0.2.1");
    EXPECT_STREQ(copy.eth1.ipv4, "198.51.100.1");
    EXPECT_EQ(copy.eth0.ipv6, std::string(64, '0'));
    EXPECT_EQ(copy.eth1.ipv6, std::string(64, '1'));
    EXPECT_EQ(leasesOf(copy.eth0), lettersFrom('A'));
    EXPECT_EQ(leasesOf(copy.eth1), lettersFrom('a'));
}

} // namespace
