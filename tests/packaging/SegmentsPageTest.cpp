// ovard-segments(5) against the headers: every field of every record that is published.

#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "records/codes.h"
#include "records/segments.h"

namespace {

struct Field {
    std::string name;
    std::size_t offset;
    std::size_t size;
    std::string type;
};

bool operator==(const Field& a, const Field& b) {
    return a.name == b.name && a.offset == b.offset && a.size == b.size && a.type == b.type;
}

std::ostream& operator<<(std::ostream& out, const Field& field) {
    return out << field.offset << " " << field.size << " " << field.type << " " << field.name;
}

struct Record {
    std::size_t size = 0;
    std::vector<Field> fields;
};

using Records = std::map<std::string, Record>;

// --- what the headers say
// --------------------------------------------------------------------------

/// The page's word for a type; records are called by the name that is handed in.
template <typename T> std::string typeName(const std::string& record) {
    using Element = std::remove_all_extents_t<T>;
    if constexpr (std::is_class_v<Element>) {
        return record;
    } else if constexpr (std::is_same_v<Element, char>) {
        return "text";
    } else if constexpr (std::is_floating_point_v<Element>) {
        return "float";
    } else {
        return std::is_signed_v<Element> ? "int" : "uint";
    }
}

/// A field, which is reserved where its name says so. Times are arrays of bytes.
Field field(const std::string& name, std::size_t offset, std::size_t size, std::string type) {
    if (name.find("reserved") != std::string::npos) {
        type = "none";
    } else if (type == "uint" && size == 8) {
        type = "time";
    }
    return {name, offset, size, type};
}

#define FIELD_OF(record, name, type)                                                               \
    field(#name, offsetof(record, name), sizeof(record::name),                                     \
          typeName<decltype(record::name)>(type))
#define FIELD(record, name) FIELD_OF(record, name, "")

Record systemSegment() {
    using R = system_segment;
    return {sizeof(R),
            {FIELD_OF(R, meter, "meterinfo_struct"), FIELD_OF(R, sysinfo, "systeminfo_struct"),
             FIELD(R, reserved0), FIELD_OF(R, dhcp_eth0, "DHCP_INFO_STRUCT"),
             FIELD_OF(R, dhcp_eth1, "DHCP_INFO_STRUCT"),
             FIELD_OF(R, dhcpv6_eth0, "DHCPV6_INFO_STRUCT"),
             FIELD_OF(R, dhcpv6_eth1, "DHCPV6_INFO_STRUCT"), FIELD(R, reserved1)}};
}

Record meterInfo() {
    using R = meterinfo_struct;
    return {sizeof(R),
            {FIELD(R, kernel_release), FIELD(R, kernel_version), FIELD(R, ipv4_eth0),
             FIELD(R, ipv4_eth1), FIELD(R, ipv6_eth0), FIELD(R, ipv6_eth1)}};
}

Record systemInfo() {
    using R = systeminfo_struct;
    return {sizeof(R),
            {FIELD(R, reserved0),
             FIELD(R, runtime_uptime),
             FIELD(R, runtime_idletime),
             FIELD(R, boot_time),
             FIELD(R, context_switches),
             FIELD(R, interrupts),
             FIELD(R, loadavg_1min),
             FIELD(R, loadavg_5min),
             FIELD(R, loadavg_15min),
             FIELD(R, reserved1),
             FIELD(R, cpuload_user),
             FIELD(R, cpuload_sys),
             FIELD(R, cpuload_nice),
             FIELD(R, cpuload_idle),
             FIELD(R, cpuload_iowait),
             FIELD(R, cpuload_irq),
             FIELD(R, cpuload_softirq),
             FIELD(R, reserved2),
             FIELD(R, memload_total),
             FIELD(R, memload_used),
             FIELD(R, memload_free),
             FIELD(R, memload_buffers),
             FIELD(R, memload_cached),
             FIELD(R, memload_active),
             FIELD(R, memload_inactive),
             FIELD(R, memload_shared),
             FIELD_OF(R, netstatus_eth0, "netstatus_struct"),
             FIELD_OF(R, netstatus_eth1, "netstatus_struct")}};
}

Record netStatus() {
    using R = netstatus_struct;
    return {sizeof(R),
            {FIELD(R, rx_byte), FIELD(R, rx_packet), FIELD(R, rx_totalerror),
             FIELD(R, rx_droperror), FIELD(R, rx_frameerror), FIELD(R, rx_fifoerror),
             FIELD(R, rx_reserved), FIELD(R, rx_datarate), FIELD(R, tx_byte), FIELD(R, tx_packet),
             FIELD(R, tx_totalerror), FIELD(R, tx_droperror), FIELD(R, tx_reserved),
             FIELD(R, tx_fifoerror), FIELD(R, tx_collision), FIELD(R, tx_datarate)}};
}

Record ipv4Lease() {
    using R = DHCP_INFO_STRUCT;
    return {sizeof(R),
            {FIELD(R, client_status), FIELD(R, renew_lease_time), FIELD(R, server_addr),
             FIELD(R, client_addr), FIELD(R, subnet_mask), FIELD(R, router_addr),
             FIELD(R, dns_server_addr), FIELD(R, smtp_server_addr), FIELD(R, sntp_server_addr)}};
}

Record ipv6Lease() {
    using R = DHCPV6_INFO_STRUCT;
    return {sizeof(R),
            {FIELD(R, client_status), FIELD(R, renew_lease_time), FIELD(R, client_addr)}};
}

Record applicationSegment() {
    using R = application_segment;
    return {sizeof(R),
            {FIELD_OF(R, header, "application_header"),
             FIELD_OF(R, applications, "application_record")}};
}

Record applicationHeader() {
    using R = application_header;
    return {sizeof(R),
            {FIELD(R, count), FIELD(R, maximum), FIELD(R, file_version), FIELD(R, file_date),
             FIELD(R, reserved0), FIELD(R, iec61850_health), FIELD(R, sys_health),
             FIELD(R, reserved1)}};
}

Record applicationRecord() {
    using R = application_record;
    return {sizeof(R),
            {FIELD(R, name), FIELD(R, version), FIELD(R, start_time), FIELD(R, pid),
             FIELD(R, status), FIELD(R, nice), FIELD(R, restart_type),
             FIELD(R, last_runtime_life_limit), FIELD(R, port_type), FIELD(R, port_num),
             FIELD(R, uptime)}};
}

Records recordsOfHeaders() {
    return {{"system_segment", systemSegment()},
            {"meterinfo_struct", meterInfo()},
            {"systeminfo_struct", systemInfo()},
            {"netstatus_struct", netStatus()},
            {"DHCP_INFO_STRUCT", ipv4Lease()},
            {"DHCPV6_INFO_STRUCT", ipv6Lease()},
            {"application_segment", applicationSegment()},
            {"application_header", applicationHeader()},
            {"application_record", applicationRecord()}};
}

// --- what the page says
// ----------------------------------------------------------------------------

std::string page() {
    std::ifstream file(SEGMENTS_PAGE);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

/// A row ".It OFFSET Ta SIZE Ta TYPE Ta Va NAME Ta ..."; heads of tables are none.
bool readRow(const std::string& line, Field& row) {
    std::istringstream words(line);
    std::string it;
    std::string ta;
    std::string va;
    return words >> it >> row.offset >> ta >> row.size >> ta >> row.type >> ta >> va >> row.name &&
           it == ".It" && ta == "Ta" && va == "Va";
}

/// Each subsection is a record: its size begins the first line, its fields are the rows.
Records recordsOfPage() {
    const std::string kHeading = ".Ss ";
    Records records;
    Record* current = nullptr;
    std::istringstream lines(page());
    for (std::string line; std::getline(lines, line);) {
        Field row = {};
        if (line.rfind(kHeading, 0) == 0) {
            current = &records[line.substr(kHeading.size())];
            std::getline(lines, line);
            current->size = std::stoul(line);
        } else if (current != nullptr && readRow(line, row)) {
            current->fields.push_back(row);
        }
    }
    return records;
}

TEST(SegmentsPageTest, HasARecordForEachOfTheHeadersAndNoOther) {
    const Records page = recordsOfPage();
    const Records headers = recordsOfHeaders();
    EXPECT_EQ(page.size(), headers.size());
    for (const auto& [name, record] : headers) {
        EXPECT_EQ(page.count(name), 1U) << name;
    }
}

TEST(SegmentsPageTest, EveryFieldHasItsOffsetSizeAndType) {
    const Records page = recordsOfPage();
    for (const auto& [name, record] : recordsOfHeaders()) {
        ASSERT_EQ(page.count(name), 1U) << name;
        EXPECT_EQ(page.at(name).size, record.size) << name;
        EXPECT_EQ(page.at(name).fields, record.fields) << name;
    }
}

TEST(SegmentsPageTest, TheFieldsOfTheHeadersLeaveNoGap) {
    for (const auto& [name, record] : recordsOfHeaders()) {
        std::size_t end = 0;
        for (const Field& field : record.fields) {
            EXPECT_EQ(field.offset, end) << name << ": " << field.name;
            end = field.offset + field.size;
        }
        EXPECT_EQ(end, record.size) << name;
    }
}

TEST(SegmentsPageTest, NamesTheSegments) {
    const std::string text = page();
    EXPECT_NE(text.find(std::string(".It Pa ") + kSystemSegmentName + " Ta 4096 bytes"),
              std::string::npos);
    EXPECT_NE(text.find(std::string(".It Pa ") + kApplicationSegmentName + " Ta 16384 bytes"),
              std::string::npos);
}

TEST(SegmentsPageTest, QuotesThePublishedTexts) {
    const std::string text = page();
    for (int status = APP_STATUS_STARTING0; status <= APP_STATUS_STOPPED; ++status) {
        EXPECT_NE(text.find(std::string(".Dq ") + OVARD_APP_STATUS_STR[status]), std::string::npos);
    }
    for (const char* port : PORT_TYPE_STR) {
        EXPECT_NE(text.find(std::string(".Dq ") + port), std::string::npos) << port;
    }
}

} // namespace
