// The published segments, byte for byte. Offsets are written out on purpose: readers know them.

#include "records/segments.h"

#include <algorithm>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "status/InstrumentTime.h"
#include "tests/unit/records/NativeImage.h"

namespace {

using namespace std::string_literals;
using recordstest::ByteOrder;
using recordstest::firstDifference;
using recordstest::NativeImage;

template <typename Segment> std::string bytesOf(const Segment& segment) {
    return {reinterpret_cast<const char*>(&segment), sizeof segment};
}

/// Fills a field to its last byte with its own letter; no NUL, so that its end shows too.
template <std::size_t Size> void fill(char (&field)[Size], char letter) {
    std::fill(field, field + Size, letter);
}

void expectSame(const std::string& actual, const NativeImage& expected) {
    EXPECT_EQ(actual.size(), expected.bytes().size());
    EXPECT_EQ(firstDifference(actual, expected.bytes()), expected.bytes().size())
        << "the images differ at this offset";
}

// --- the helper itself ---------------------------------------------------------------------------

TEST(NativeImageTest, LittleEndianNumbers) {
    NativeImage image(14, ByteOrder::Little);
    image.put16(0, 0x0102);
    image.put32(2, 0x03040506);
    image.put64(6, 0x0708090A0B0C0D0E);
    EXPECT_EQ(image.bytes(), "\x02\x01\x06\x05\x04\x03\x0E\x0D\x0C\x0B\x0A\x09\x08\x07");
}

TEST(NativeImageTest, BigEndianNumbers) {
    NativeImage image(14, ByteOrder::Big);
    image.put16(0, 0x0102);
    image.put32(2, 0x03040506);
    image.put64(6, 0x0708090A0B0C0D0E);
    EXPECT_EQ(image.bytes(), "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E");
}

TEST(NativeImageTest, FloatsAreTheirBits) {
    NativeImage big(4, ByteOrder::Big);
    big.putFloat(0, 1.5F);
    EXPECT_EQ(big.bytes(), "\x3F\xC0\0\0"s);
    NativeImage little(4, ByteOrder::Little);
    little.putFloat(0, 1.5F);
    EXPECT_EQ(little.bytes(), "\0\0\xC0\x3F"s);
}

TEST(NativeImageTest, TimesAreBigEndianInBoth) {
    for (const ByteOrder order : {ByteOrder::Little, ByteOrder::Big}) {
        NativeImage image(8, order);
        image.putTime(0, 0x0102030405060708);
        EXPECT_EQ(image.bytes(), "\x01\x02\x03\x04\x05\x06\x07\x08");
    }
}

// --- the system segment --------------------------------------------------------------------------

void fillInterface(netstatus_struct& status, std::int32_t base) {
    status.rx_byte = 0x1122334455660000 + base + 1;
    status.rx_packet = 0x1122334455660000 + base + 2;
    status.rx_totalerror = base + 3;
    status.rx_droperror = base + 4;
    status.rx_fifoerror = base + 5;
    status.rx_frameerror = base + 6;
    status.rx_datarate = static_cast<float>(base) + 7.5F;
    status.tx_byte = 0x1122334455660000 + base + 8;
    status.tx_packet = 0x1122334455660000 + base + 9;
    status.tx_totalerror = base + 10;
    status.tx_droperror = base + 11;
    status.tx_fifoerror = base + 12;
    status.tx_collision = base + 13;
    status.tx_datarate = static_cast<float>(base) + 14.5F;
}

void putInterface(NativeImage& image, std::size_t offset, std::uint32_t base) {
    image.put64(offset + 0, 0x1122334455660000 + base + 1);
    image.put64(offset + 8, 0x1122334455660000 + base + 2);
    image.put32(offset + 16, base + 3);
    image.put32(offset + 20, base + 4);
    image.put32(offset + 24, base + 6); // frame before FIFO
    image.put32(offset + 28, base + 5);
    image.putFloat(offset + 36, static_cast<float>(base) + 7.5F);
    image.put64(offset + 40, 0x1122334455660000 + base + 8);
    image.put64(offset + 48, 0x1122334455660000 + base + 9);
    image.put32(offset + 56, base + 10);
    image.put32(offset + 60, base + 11);
    image.put32(offset + 68, base + 12); // behind the reserved word
    image.put32(offset + 72, base + 13);
    image.putFloat(offset + 76, static_cast<float>(base) + 14.5F);
}

void fillStatistics(systeminfo_struct& info) {
    info.runtime_uptime = 1.25F;
    info.runtime_idletime = 2.25F;
    status::storeTimeStamp(info.boot_time, 0x0000018BCFE56801);
    info.context_switches = 0x0102030405060708;
    info.interrupts = 0x1112131415161718;
    info.loadavg_1min = 3.25F;
    info.loadavg_5min = 4.25F;
    info.loadavg_15min = 5.25F;
    info.cpuload_user = 6.25F;
    info.cpuload_sys = 7.25F;
    info.cpuload_nice = 8.25F;
    info.cpuload_idle = 9.25F;
    info.cpuload_iowait = 10.25F;
    info.cpuload_irq = 11.25F;
    info.cpuload_softirq = 12.25F;
    info.memload_total = 0x21222324;
    info.memload_used = 0x22232425;
    info.memload_free = 0x23242526;
    info.memload_buffers = 0x24252627;
    info.memload_cached = 0x25262728;
    info.memload_active = 0x26272829;
    info.memload_inactive = 0x2728292A;
    info.memload_shared = -2;
    fillInterface(info.netstatus_eth0, 0x4000);
    fillInterface(info.netstatus_eth1, 0x5000);
}

/// The statistics stand at offset 256.
void putStatistics(NativeImage& image) {
    image.putFloat(272, 1.25F);
    image.putFloat(276, 2.25F);
    image.putText(280, "\x00\x00\x01\x8B\xCF\xE5\x68\x01"s);
    image.put64(288, 0x0102030405060708);
    image.put64(296, 0x1112131415161718);
    image.putFloat(304, 3.25F);
    image.putFloat(308, 4.25F);
    image.putFloat(312, 5.25F);
    image.putFloat(320, 6.25F);   // user
    image.putFloat(324, 7.25F);   // sys
    image.putFloat(328, 8.25F);   // nice
    image.putFloat(332, 9.25F);   // idle
    image.putFloat(336, 10.25F);  // iowait
    image.putFloat(340, 11.25F);  // irq
    image.putFloat(344, 12.25F);  // softirq
    image.put32(352, 0x21222324); // total
    image.put32(356, 0x22232425); // used
    image.put32(360, 0x23242526); // free
    image.put32(364, 0x24252627); // buffers
    image.put32(368, 0x25262728); // cached
    image.put32(372, 0x26272829); // active
    image.put32(376, 0x2728292A); // inactive
    image.put32(380, 0xFFFFFFFE); // shared
    putInterface(image, 384, 0x4000);
    putInterface(image, 464, 0x5000);
}

void fillLease(DHCP_INFO_STRUCT& lease, char letter) {
    fill(lease.client_status, letter++);
    fill(lease.renew_lease_time, letter++);
    fill(lease.server_addr, letter++);
    fill(lease.client_addr, letter++);
    fill(lease.subnet_mask, letter++);
    fill(lease.router_addr, letter++);
    fill(lease.dns_server_addr, letter++);
    fill(lease.smtp_server_addr, letter++);
    fill(lease.sntp_server_addr, letter);
}

void putLease(NativeImage& image, std::size_t offset, char letter) {
    image.putText(offset, std::string(36, letter++));       // client status
    image.putText(offset + 36, std::string(20, letter++));  // renew lease time
    image.putText(offset + 56, std::string(20, letter++));  // server address
    image.putText(offset + 76, std::string(20, letter++));  // client address
    image.putText(offset + 96, std::string(20, letter++));  // subnet mask
    image.putText(offset + 116, std::string(20, letter++)); // router
    image.putText(offset + 136, std::string(20, letter++)); // DNS server
    image.putText(offset + 156, std::string(20, letter++)); // SMTP server
    image.putText(offset + 176, std::string(20, letter));   // SNTP server
}

void fillLease6(DHCPV6_INFO_STRUCT& lease, char letter) {
    fill(lease.client_status, letter++);
    fill(lease.renew_lease_time, letter++);
    fill(lease.client_addr, letter);
}

void putLease6(NativeImage& image, std::size_t offset, char letter) {
    image.putText(offset, std::string(36, letter++));      // client status
    image.putText(offset + 36, std::string(20, letter++)); // renew lease time
    image.putText(offset + 56, std::string(68, letter));   // client address
}

TEST(SegmentLayoutTest, SystemSegmentByteForByte) {
    system_segment segment = {};
    fill(segment.meter.kernel_release, 'a');
    fill(segment.meter.kernel_version, 'b');
    fill(segment.meter.ipv4_eth0, 'c');
    fill(segment.meter.ipv4_eth1, 'd');
    fill(segment.meter.ipv6_eth0, 'e');
    fill(segment.meter.ipv6_eth1, 'f');
    fillStatistics(segment.sysinfo);
    fillLease(segment.dhcp_eth0, 'A');
    fillLease(segment.dhcp_eth1, 'J');
    fillLease6(segment.dhcpv6_eth0, '0');
    fillLease6(segment.dhcpv6_eth1, '5');

    NativeImage expected(4096);
    expected.putText(0, std::string(32, 'a'));
    expected.putText(32, std::string(32, 'b'));
    expected.putText(64, std::string(32, 'c'));
    expected.putText(96, std::string(32, 'd'));
    expected.putText(128, std::string(64, 'e'));
    expected.putText(192, std::string(64, 'f'));
    putStatistics(expected);
    putLease(expected, 1504, 'A');
    putLease(expected, 1700, 'J');
    putLease6(expected, 1896, '0');
    putLease6(expected, 2020, '5');
    expectSame(bytesOf(segment), expected);
}

TEST(SegmentLayoutTest, SystemSegmentReservedRanges) {
    system_segment segment = {};
    std::fill(std::begin(segment.sysinfo.reserved0), std::end(segment.sysinfo.reserved0), '1');
    segment.sysinfo.reserved1 = 0x31323334;
    segment.sysinfo.reserved2 = 0x41424344;
    segment.sysinfo.netstatus_eth0.rx_reserved = 0x51525354;
    segment.sysinfo.netstatus_eth0.tx_reserved = 0x61626364;
    segment.sysinfo.netstatus_eth1.rx_reserved = 0x71727374;
    segment.sysinfo.netstatus_eth1.tx_reserved = 0x75767778;
    std::fill(std::begin(segment.reserved0), std::end(segment.reserved0), '2');
    std::fill(std::begin(segment.reserved1), std::end(segment.reserved1), '3');

    NativeImage expected(4096);
    expected.putText(256, std::string(16, '1'));
    expected.put32(316, 0x31323334);
    expected.put32(348, 0x41424344);
    expected.put32(416, 0x51525354);
    expected.put32(448, 0x61626364);
    expected.put32(496, 0x71727374);
    expected.put32(528, 0x75767778);
    expected.putText(544, std::string(960, '2'));
    expected.putText(2144, std::string(1952, '3'));
    expectSame(bytesOf(segment), expected);
}

// --- the application segment ---------------------------------------------------------------------

/// A letter of its own for each of three texts of neighbouring records.
char letterOf(std::uint32_t record, std::uint32_t text) {
    return static_cast<char>('0' + (4 * record + text) % 75);
}

void fillRecord(application_record& app, std::uint32_t record) {
    const auto base = static_cast<std::int32_t>(record << 16);
    fill(app.name, letterOf(record, 0));
    fill(app.version, letterOf(record, 1));
    status::storeTimeStamp(app.start_time, 0x0000018B00000000 + record);
    app.pid = base + 1;
    fill(app.status, letterOf(record, 2));
    app.nice = -base - 2;
    app.restart_type = base + 3;
    app.last_runtime_life_limit = base + 4;
    fill(app.port_type, letterOf(record, 3));
    app.port_num = base + 5;
    app.uptime = 0x80000000 + (record << 16) + 6;
}

void putRecord(NativeImage& image, std::uint32_t record) {
    const std::size_t offset = 128 * std::size_t{record};
    const std::uint32_t base = record << 16;
    image.putText(offset + 0, std::string(32, letterOf(record, 0)));
    image.putText(offset + 32, std::string(32, letterOf(record, 1)));
    image.putTime(offset + 64, 0x0000018B00000000 + record);
    image.put32(offset + 72, base + 1);
    image.putText(offset + 76, std::string(16, letterOf(record, 2)));
    image.put32(offset + 92, 0xFFFFFFFF - base - 1); // the negative of base + 2
    image.put32(offset + 96, base + 3);
    image.put32(offset + 100, base + 4);
    image.putText(offset + 104, std::string(16, letterOf(record, 3)));
    image.put32(offset + 120, base + 5);
    image.put32(offset + 124, 0x80000000 + base + 6);
}

TEST(SegmentLayoutTest, ApplicationSegmentByteForByte) {
    application_segment segment = {};
    segment.header.count = 0x01020304;
    segment.header.maximum = 127;
    fill(segment.header.file_version, 'v');
    fill(segment.header.file_date, 'd');
    segment.header.iec61850_health = 0xF1F2F3F4;
    segment.header.sys_health = 0xE1E2;
    for (std::uint32_t record = 1; record <= 127; ++record) {
        fillRecord(segment.applications[record - 1], record);
    }

    NativeImage expected(16384);
    expected.put32(0, 0x01020304);
    expected.put32(4, 127);
    expected.putText(8, std::string(32, 'v'));
    expected.putText(40, std::string(32, 'd'));
    expected.put32(112, 0xF1F2F3F4);
    expected.put16(116, 0xE1E2);
    for (std::uint32_t record = 1; record <= 127; ++record) {
        putRecord(expected, record);
    }
    expectSame(bytesOf(segment), expected);
}

TEST(SegmentLayoutTest, ApplicationSegmentReservedRanges) {
    application_segment segment = {};
    std::fill(std::begin(segment.header.reserved0), std::end(segment.header.reserved0), '1');
    std::fill(std::begin(segment.header.reserved1), std::end(segment.header.reserved1), '2');
    NativeImage expected(16384);
    expected.putText(72, std::string(40, '1'));
    expected.putText(118, std::string(10, '2'));
    expectSame(bytesOf(segment), expected);
}

TEST(SegmentLayoutTest, NamesAndLimit) {
    EXPECT_EQ(kSystemSegmentName, "/meter_usr7_data.shared"s);
    EXPECT_EQ(kApplicationSegmentName, "/meter_usr16_data.shared"s);
    EXPECT_EQ(kMostPublishedApplications, 127);
}

} // namespace
