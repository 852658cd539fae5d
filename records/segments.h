// The two shared-memory segments in which the monitor publishes the machine and the applications.
//
// Integers and floats are in the byte order of the machine; texts end with a NUL inside their
// arrays. Readers take no lock: a copy may hold half of a cycle.
//
// Plain C++17; may be included by other programs as it stands.

#ifndef OVARD_RECORDS_SEGMENTS_H
#define OVARD_RECORDS_SEGMENTS_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "records/dhcpinfo.h"
#include "records/systeminfo.h"

/// Names of the segments, as shm_open takes them.
inline constexpr const char* kSystemSegmentName = "/meter_usr7_data.shared";
inline constexpr const char* kApplicationSegmentName = "/meter_usr16_data.shared";

/// Most applications that are published.
inline constexpr std::int32_t kMostPublishedApplications = 127;

/// Kernel and address texts: 256 bytes.
struct meterinfo_struct {
    char kernel_release[32]; ///< Deliberate: readers know it as the kernel's name
    char kernel_version[32];
    char ipv4_eth0[32];
    char ipv4_eth1[32];
    char ipv6_eth0[64];
    char ipv6_eth1[64];
};

/// The system segment: 4096 bytes.
struct system_segment {
    meterinfo_struct meter;
    systeminfo_struct sysinfo;
    std::uint8_t reserved0[960];
    DHCP_INFO_STRUCT dhcp_eth0;
    DHCP_INFO_STRUCT dhcp_eth1;
    DHCPV6_INFO_STRUCT dhcpv6_eth0;
    DHCPV6_INFO_STRUCT dhcpv6_eth1;
    std::uint8_t reserved1[1952];
};

/// Header of the application segment: 128 bytes.
struct application_header {
    std::int32_t count;    ///< applications in the registry; with more than 127 nothing is written
    std::int32_t maximum;  ///< 127
    char file_version[32]; ///< the monitor's own
    char file_date[32];    ///< the monitor's own
    std::uint8_t reserved0[40];
    std::uint32_t iec61850_health; ///< owned by another program, which sets it here
    std::uint16_t sys_health;
    std::uint8_t reserved1[10];
};

/// One published application: 128 bytes.
struct application_record {
    char name[32];
    char version[32];
    std::uint8_t start_time[8]; ///< instrument time
    std::int32_t pid;
    char status[16];   ///< display name of the status; kept from before for some statuses
    std::int32_t nice; ///< the application's priority
    std::int32_t restart_type;
    std::int32_t last_runtime_life_limit;
    char port_type[16]; ///< display name of the port type
    std::int32_t port_num;
    std::uint32_t uptime; ///< seconds
};

/// The application segment: 16384 bytes. Record i, counted from 1, is applications[i - 1].
struct application_segment {
    application_header header;
    application_record applications[kMostPublishedApplications];
};

static_assert(std::is_trivially_copyable_v<system_segment>);
static_assert(std::is_standard_layout_v<system_segment>);
static_assert(sizeof(meterinfo_struct) == 256);
static_assert(offsetof(meterinfo_struct, kernel_release) == 0);
static_assert(offsetof(meterinfo_struct, kernel_version) == 32);
static_assert(offsetof(meterinfo_struct, ipv4_eth0) == 64);
static_assert(offsetof(meterinfo_struct, ipv4_eth1) == 96);
static_assert(offsetof(meterinfo_struct, ipv6_eth0) == 128);
static_assert(offsetof(meterinfo_struct, ipv6_eth1) == 192);
static_assert(sizeof(system_segment) == 4096);
static_assert(offsetof(system_segment, meter) == 0);
static_assert(offsetof(system_segment, sysinfo) == 256);
static_assert(offsetof(system_segment, reserved0) == 544);
static_assert(offsetof(system_segment, dhcp_eth0) == 1504);
static_assert(offsetof(system_segment, dhcp_eth1) == 1700);
static_assert(offsetof(system_segment, dhcpv6_eth0) == 1896);
static_assert(offsetof(system_segment, dhcpv6_eth1) == 2020);
static_assert(offsetof(system_segment, reserved1) == 2144);

static_assert(std::is_trivially_copyable_v<application_segment>);
static_assert(std::is_standard_layout_v<application_segment>);
static_assert(sizeof(application_header) == 128);
static_assert(offsetof(application_header, count) == 0);
static_assert(offsetof(application_header, maximum) == 4);
static_assert(offsetof(application_header, file_version) == 8);
static_assert(offsetof(application_header, file_date) == 40);
static_assert(offsetof(application_header, reserved0) == 72);
static_assert(offsetof(application_header, iec61850_health) == 112);
static_assert(offsetof(application_header, sys_health) == 116);
static_assert(offsetof(application_header, reserved1) == 118);
static_assert(sizeof(application_record) == 128);
static_assert(offsetof(application_record, name) == 0);
static_assert(offsetof(application_record, version) == 32);
static_assert(offsetof(application_record, start_time) == 64);
static_assert(offsetof(application_record, pid) == 72);
static_assert(offsetof(application_record, status) == 76);
static_assert(offsetof(application_record, nice) == 92);
static_assert(offsetof(application_record, restart_type) == 96);
static_assert(offsetof(application_record, last_runtime_life_limit) == 100);
static_assert(offsetof(application_record, port_type) == 104);
static_assert(offsetof(application_record, port_num) == 120);
static_assert(offsetof(application_record, uptime) == 124);
static_assert(sizeof(application_segment) == 16384);
static_assert(offsetof(application_segment, applications) == 128);

#endif // OVARD_RECORDS_SEGMENTS_H
