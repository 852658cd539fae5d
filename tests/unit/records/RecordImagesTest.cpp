// Every record, filled through its fields, against the image that was written by hand. What is no
// field is caught too: the bytes of a record are none of the expected ones before it is filled.

#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "records/appinfo.h"
#include "records/dhcpinfo.h"
#include "records/reqcmd.h"
#include "records/response_struct.h"
#include "records/segments.h"
#include "records/systeminfo.h"
#include "status/InstrumentTime.h"
#include "tests/unit/records/GoldenImage.h"
#include "tests/unit/records/golden/RecordImages.h"

namespace {

using platform::copyToField;
using recordstest::firstDifference;
using recordstest::goldenImage;

/// A record of which nothing has been written yet.
template <typename Record> Record unwritten() {
    Record record;
    std::memset(&record, 0xEE, sizeof record);
    return record;
}

/// Fills a field with the letter, but for the NUL at its end.
template <std::size_t Size> void fillButNul(char (&field)[Size], char letter) {
    copyToField(field, std::string(Size - 1, letter));
}

template <typename Record> void expectImage(const Record& record, const char* golden) {
    const std::string expected = goldenImage(golden);
    const std::string actual(reinterpret_cast<const char*>(&record), sizeof record);
    EXPECT_EQ(actual.size(), expected.size());
    EXPECT_EQ(firstDifference(actual, expected), expected.size())
        << "the images differ at this offset";
}

TEST(RecordImagesTest, Request) {
    auto request = unwritten<reqcmd>();
    copyToField(request.name, "data_server");
    copyToField(request.version, "2.5");
    copyToField(request.cmd, "/home/kelvo/root/data_server -p 5");
    copyToField(request.pidfile, "/tmp/pid/home/kelvo/root/data_server.pid");
    request.porttype = 2;
    request.portnum = 502;
    request.action = 5;
    request.priority = -7;
    request.delay = 100000;
    request.keepalive = 0xA1;
    request.nowait = 0xA2;
    request.heartbeat = 0xA3;
    request.reserved = 0xA4;
    request.restart_type = 1;
    request.last_runtime_life_limit = 86400;
    expectImage(request, golden::kRequest);
}

TEST(RecordImagesTest, Reply) {
    auto reply = unwritten<response_struct>();
    reply.code = -20;
    reply.completed = 1;
    copyToField(reply.message, "data_server: not found\n");
    expectImage(reply, golden::kReply);
}

TEST(RecordImagesTest, Application) {
    auto app = unwritten<appinfo>();
    app.pid = 1234;
    copyToField(app.name, "data_server");
    copyToField(app.version, "2.5");
    copyToField(app.cmd, "/home/kelvo/root/data_server -p 5");
    copyToField(app.pidfile, "/tmp/pid/home/kelvo/root/data_server.pid");
    app.status = 4;
    app.start_time = 1700000000;
    app.uptime = 200000;
    app.port_type = 2;
    app.port_num = 502;
    app.priority = -7;
    app.check_flag = 0xA1;
    app.keepalive = 0xA2;
    app.heartbeat = 0xA3;
    app.reserved = 0xA4;
    app.restart_type = 1;
    app.last_runtime_life_limit = 86400;
    expectImage(app, golden::kApplication);
}

TEST(RecordImagesTest, Lease) {
    auto lease = unwritten<DHCP_INFO_STRUCT>();
    fillButNul(lease.client_status, 'a');
    fillButNul(lease.renew_lease_time, 'b');
    fillButNul(lease.server_addr, 'c');
    fillButNul(lease.client_addr, 'd');
    fillButNul(lease.subnet_mask, 'e');
    fillButNul(lease.router_addr, 'f');
    fillButNul(lease.dns_server_addr, 'g');
    fillButNul(lease.smtp_server_addr, 'h');
    fillButNul(lease.sntp_server_addr, 'i');
    expectImage(lease, golden::kLease);
}

TEST(RecordImagesTest, Lease6) {
    auto lease = unwritten<DHCPV6_INFO_STRUCT>();
    fillButNul(lease.client_status, 'a');
    fillButNul(lease.renew_lease_time, 'b');
    fillButNul(lease.client_addr, 'c');
    expectImage(lease, golden::kLease6);
}

void fillMachine(systeminfo_struct& info) {
    std::memset(info.reserved0, 0x5A, sizeof info.reserved0);
    info.runtime_uptime = 1.25F;
    info.runtime_idletime = 2.25F;
    status::storeTimeStamp(info.boot_time, 1699990000000);
    info.context_switches = 40926266145;
    info.interrupts = 4886718345;
    info.loadavg_1min = 3.25F;
    info.loadavg_5min = 4.25F;
    info.loadavg_15min = 5.25F;
    info.reserved1 = 0x5A5B5C5D;
    info.cpuload_user = 6.25F;
    info.cpuload_sys = 7.25F;
    info.cpuload_nice = 8.25F;
    info.cpuload_idle = 9.25F;
    info.cpuload_iowait = 10.25F;
    info.cpuload_irq = 11.25F;
    info.cpuload_softirq = 12.25F;
    info.reserved2 = 0x6A6B6C6D;
    info.memload_total = 203307;
    info.memload_used = 153933;
    info.memload_free = 49374;
    info.memload_buffers = 4660;
    info.memload_cached = 22136;
    info.memload_active = 39612;
    info.memload_inactive = 57072;
    info.memload_shared = -2;
}

void fillFirstInterface(netstatus_struct& eth0) {
    eth0.rx_byte = 5368709120;
    eth0.rx_packet = 4294967311;
    eth0.rx_totalerror = 65539;
    eth0.rx_droperror = 65540;
    eth0.rx_fifoerror = 65541;
    eth0.rx_frameerror = 65542;
    eth0.rx_reserved = 0x7A7B7C7D;
    eth0.rx_datarate = 100.5F;
    eth0.tx_byte = 10240;
    eth0.tx_packet = -5000;
    eth0.tx_totalerror = 65547;
    eth0.tx_droperror = 65548;
    eth0.tx_reserved = 0x8A8B8C8D;
    eth0.tx_fifoerror = 65549;
    eth0.tx_collision = 65550;
    eth0.tx_datarate = -200.5F;
}

void fillSecondInterface(netstatus_struct& eth1) {
    eth1.rx_byte = 5120;
    eth1.rx_packet = 1000;
    eth1.rx_totalerror = 131075;
    eth1.rx_droperror = 131076;
    eth1.rx_fifoerror = 131077;
    eth1.rx_frameerror = 131078;
    eth1.rx_reserved = 0x9A9B9C9D;
    eth1.rx_datarate = 300.5F;
    eth1.tx_byte = 2560;
    eth1.tx_packet = 1234;
    eth1.tx_totalerror = 131083;
    eth1.tx_droperror = 131084;
    eth1.tx_reserved = 0xAAABACAD;
    eth1.tx_fifoerror = 131085;
    eth1.tx_collision = 131086;
    eth1.tx_datarate = -400.5F;
}

TEST(RecordImagesTest, Statistics) {
    auto info = unwritten<systeminfo_struct>();
    fillMachine(info);
    fillFirstInterface(info.netstatus_eth0);
    fillSecondInterface(info.netstatus_eth1);
    expectImage(info, golden::kStatistics);
}

TEST(RecordImagesTest, Meter) {
    auto meter = unwritten<meterinfo_struct>();
    fillButNul(meter.kernel_release, 'a');
    fillButNul(meter.kernel_version, 'b');
    fillButNul(meter.ipv4_eth0, 'c');
    fillButNul(meter.ipv4_eth1, 'd');
    fillButNul(meter.ipv6_eth0, 'e');
    fillButNul(meter.ipv6_eth1, 'f');
    expectImage(meter, golden::kMeter);
}

TEST(RecordImagesTest, HeaderOfTheApplications) {
    auto header = unwritten<application_header>();
    header.count = 131;
    header.maximum = 127;
    fillButNul(header.file_version, 'a');
    fillButNul(header.file_date, 'b');
    std::memset(header.reserved0, 0x5A, sizeof header.reserved0);
    header.iec61850_health = 0xF1F2F3F4;
    header.sys_health = 0xE1E2;
    std::memset(header.reserved1, 0x5B, sizeof header.reserved1);
    expectImage(header, golden::kHeader);
}

TEST(RecordImagesTest, PublishedApplication) {
    auto app = unwritten<application_record>();
    fillButNul(app.name, 'a');
    fillButNul(app.version, 'b');
    status::storeTimeStamp(app.start_time, 1699999000000);
    app.pid = 1234;
    fillButNul(app.status, 'c');
    app.nice = -7;
    app.restart_type = 1;
    app.last_runtime_life_limit = 86400;
    fillButNul(app.port_type, 'd');
    app.port_num = 502;
    app.uptime = 4026731840;
    expectImage(app, golden::kPublishedApplication);
}

} // namespace
