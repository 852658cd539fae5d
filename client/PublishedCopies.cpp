#include "client/PublishedCopies.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "client/InstrumentTime.h"

namespace ovard_client {
namespace {

static_assert(OVARD_MOST_APPLICATIONS == kMostPublishedApplications);

void copyTraffic(ovard_interface& copy, const netstatus_struct& record) {
    copy.rx_bytes = record.rx_byte;
    copy.rx_packets = record.rx_packet;
    copy.tx_bytes = record.tx_byte;
    copy.tx_packets = record.tx_packet;
    copy.rx_errors = record.rx_totalerror;
    copy.rx_drops = record.rx_droperror;
    copy.rx_frame_errors = record.rx_frameerror;
    copy.rx_fifo_errors = record.rx_fifoerror;
    copy.tx_errors = record.tx_totalerror;
    copy.tx_drops = record.tx_droperror;
    copy.tx_fifo_errors = record.tx_fifoerror;
    copy.tx_collisions = record.tx_collision;
    copy.rx_rate_kb = record.rx_datarate;
    copy.tx_rate_kb = record.tx_datarate;
}

void copyLease(ovard_interface& copy, const DHCP_INFO_STRUCT& record) {
    copyText(copy.dhcp_status, record.client_status);
    copyText(copy.dhcp_renewal, record.renew_lease_time);
    copyText(copy.dhcp_server, record.server_addr);
    copyText(copy.dhcp_address, record.client_addr);
    copyText(copy.dhcp_netmask, record.subnet_mask);
    copyText(copy.dhcp_router, record.router_addr);
    copyText(copy.dhcp_dns_server, record.dns_server_addr);
    copyText(copy.dhcp_smtp_server, record.smtp_server_addr);
    copyText(copy.dhcp_sntp_server, record.sntp_server_addr);
}

void copyLease(ovard_interface& copy, const DHCPV6_INFO_STRUCT& record) {
    copyText(copy.dhcpv6_status, record.client_status);
    copyText(copy.dhcpv6_renewal, record.renew_lease_time);
    copyText(copy.dhcpv6_address, record.client_addr);
}

void copyLoads(ovard_machine& copy, const systeminfo_struct& record) {
    copy.uptime_hours = record.runtime_uptime;
    copy.idle_percent = record.runtime_idletime;
    copy.load_1min = record.loadavg_1min;
    copy.load_5min = record.loadavg_5min;
    copy.load_15min = record.loadavg_15min;
    copy.cpu_user_percent = record.cpuload_user;
    copy.cpu_sys_percent = record.cpuload_sys;
    copy.cpu_nice_percent = record.cpuload_nice;
    copy.cpu_idle_percent = record.cpuload_idle;
    copy.cpu_iowait_percent = record.cpuload_iowait;
    copy.cpu_irq_percent = record.cpuload_irq;
    copy.cpu_softirq_percent = record.cpuload_softirq;
}

void copyMemory(ovard_machine& copy, const systeminfo_struct& record) {
    copy.memory_total_kb = record.memload_total;
    copy.memory_used_kb = record.memload_used;
    copy.memory_free_kb = record.memload_free;
    copy.memory_buffers_kb = record.memload_buffers;
    copy.memory_cached_kb = record.memload_cached;
    copy.memory_active_kb = record.memload_active;
    copy.memory_inactive_kb = record.memload_inactive;
    copy.memory_shared_kb = record.memload_shared;
}

/// The number of records that a segment with this header holds.
std::int32_t publishedCount(const application_header& header) {
    return std::clamp(header.count, std::int32_t{0}, kMostPublishedApplications);
}

ovard_application copyOf(const application_record& record) {
    ovard_application copy = {};
    copyText(copy.name, record.name);
    copyText(copy.version, record.version);
    copyText(copy.status, record.status);
    copyText(copy.port_type, record.port_type);
    copy.start_time_ms = toMilliseconds(record.start_time);
    copy.uptime_sec = record.uptime;
    copy.pid = record.pid;
    copy.priority = record.nice;
    copy.restart_type = record.restart_type;
    copy.life_limit_sec = record.last_runtime_life_limit;
    copy.port_number = record.port_num;
    return copy;
}

} // namespace

bool holdsCycle(const application_segment& segment) {
    return segment.header.maximum != 0;
}

bool holdsCycle(const system_segment& segment) {
    return segment.meter.kernel_release[0] != '\0';
}

void copyApplications(const application_segment& segment, ovard_application* applications,
                      std::size_t capacity) {
    const auto published = static_cast<std::size_t>(publishedCount(segment.header));
    const std::size_t count = std::min(published, capacity);
    for (std::size_t index = 0; index < count; ++index) {
        applications[index] = copyOf(segment.applications[index]);
    }
}

ovard_overview copyOf(const application_header& header) {
    ovard_overview copy = {};
    copy.registered = header.count;
    copy.published = publishedCount(header);
    copyText(copy.monitor_version, header.file_version);
    copyText(copy.monitor_date, header.file_date);
    copy.iec61850_health = header.iec61850_health;
    copy.sys_health = header.sys_health;
    return copy;
}

ovard_machine copyOf(const system_segment& segment) {
    ovard_machine copy = {};
    copyText(copy.kernel_release, segment.meter.kernel_release);
    copyText(copy.kernel_version, segment.meter.kernel_version);
    copy.boot_time_ms = toMilliseconds(segment.sysinfo.boot_time);
    copy.context_switches = segment.sysinfo.context_switches;
    copy.interrupts = segment.sysinfo.interrupts;
    copyLoads(copy, segment.sysinfo);
    copyMemory(copy, segment.sysinfo);
    copyText(copy.eth0.ipv4, segment.meter.ipv4_eth0);
    copyText(copy.eth1.ipv4, segment.meter.ipv4_eth1);
    copyText(copy.eth0.ipv6, segment.meter.ipv6_eth0);
    copyText(copy.eth1.ipv6, segment.meter.ipv6_eth1);
    copyTraffic(copy.eth0, segment.sysinfo.netstatus_eth0);
    copyTraffic(copy.eth1, segment.sysinfo.netstatus_eth1);
    copyLease(copy.eth0, segment.dhcp_eth0);
    copyLease(copy.eth1, segment.dhcp_eth1);
    copyLease(copy.eth0, segment.dhcpv6_eth0);
    copyLease(copy.eth1, segment.dhcpv6_eth1);
    return copy;
}

} // namespace ovard_client
