// Statistics of the machine, as the monitor publishes them.
//
// Plain C++17; may be included by other programs as it stands.

#ifndef OVARD_RECORDS_SYSTEMINFO_H
#define OVARD_RECORDS_SYSTEMINFO_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

/// Counters and rates of one network interface, from /proc/net/dev.
/// Deliberate: the receiving side holds frame errors before FIFO errors, and its reserved word
/// stands elsewhere than that of the sending side.
struct netstatus_struct {
    std::int64_t rx_byte;
    std::int64_t rx_packet;
    std::int32_t rx_totalerror;
    std::int32_t rx_droperror;
    std::int32_t rx_frameerror;
    std::int32_t rx_fifoerror;
    std::uint32_t rx_reserved; ///< never written
    float rx_datarate;         ///< kilobytes per second
    std::int64_t tx_byte;
    std::int64_t tx_packet;
    std::int32_t tx_totalerror;
    std::int32_t tx_droperror;
    std::uint32_t tx_reserved; ///< never written
    std::int32_t tx_fifoerror;
    std::int32_t tx_collision;
    float tx_datarate; ///< kilobytes per second
};

/// Statistics of the machine: 288 bytes in the byte order of the machine.
struct systeminfo_struct {
    std::uint8_t reserved0[16];      ///< never written
    float runtime_uptime;            ///< hours since boot
    float runtime_idletime;          ///< idle time in percent of the uptime; above 100 possible
    std::uint8_t boot_time[8];       ///< instrument time
    std::int64_t context_switches;   ///< since boot
    std::int64_t interrupts;         ///< since boot
    float loadavg_1min;              ///< load average
    float loadavg_5min;              ///< load average
    float loadavg_15min;             ///< load average
    std::uint32_t reserved1;         ///< never written
    float cpuload_user;              ///< percent of the last interval
    float cpuload_sys;               ///< percent of the last interval
    float cpuload_nice;              ///< percent of the last interval
    float cpuload_idle;              ///< percent of the last interval
    float cpuload_iowait;            ///< percent of the last interval
    float cpuload_irq;               ///< percent of the last interval
    float cpuload_softirq;           ///< percent of the last interval
    std::uint32_t reserved2;         ///< never written
    std::int32_t memload_total;      ///< kB
    std::int32_t memload_used;       ///< kB, total minus free: buffers and cache count as used
    std::int32_t memload_free;       ///< kB
    std::int32_t memload_buffers;    ///< kB
    std::int32_t memload_cached;     ///< kB
    std::int32_t memload_active;     ///< kB
    std::int32_t memload_inactive;   ///< kB
    std::int32_t memload_shared;     ///< kB
    netstatus_struct netstatus_eth0; ///< interface eth0
    netstatus_struct netstatus_eth1; ///< interface eth1
};

static_assert(std::is_trivially_copyable_v<netstatus_struct>);
static_assert(std::is_standard_layout_v<netstatus_struct>);
static_assert(sizeof(float) == 4);
static_assert(sizeof(netstatus_struct) == 80);
static_assert(offsetof(netstatus_struct, rx_byte) == 0);
static_assert(offsetof(netstatus_struct, rx_packet) == 8);
static_assert(offsetof(netstatus_struct, rx_totalerror) == 16);
static_assert(offsetof(netstatus_struct, rx_droperror) == 20);
static_assert(offsetof(netstatus_struct, rx_frameerror) == 24);
static_assert(offsetof(netstatus_struct, rx_fifoerror) == 28);
static_assert(offsetof(netstatus_struct, rx_reserved) == 32);
static_assert(offsetof(netstatus_struct, rx_datarate) == 36);
static_assert(offsetof(netstatus_struct, tx_byte) == 40);
static_assert(offsetof(netstatus_struct, tx_packet) == 48);
static_assert(offsetof(netstatus_struct, tx_totalerror) == 56);
static_assert(offsetof(netstatus_struct, tx_droperror) == 60);
static_assert(offsetof(netstatus_struct, tx_reserved) == 64);
static_assert(offsetof(netstatus_struct, tx_fifoerror) == 68);
static_assert(offsetof(netstatus_struct, tx_collision) == 72);
static_assert(offsetof(netstatus_struct, tx_datarate) == 76);

static_assert(std::is_trivially_copyable_v<systeminfo_struct>);
static_assert(std::is_standard_layout_v<systeminfo_struct>);
static_assert(sizeof(systeminfo_struct) == 288);
static_assert(offsetof(systeminfo_struct, runtime_uptime) == 16);
static_assert(offsetof(systeminfo_struct, runtime_idletime) == 20);
static_assert(offsetof(systeminfo_struct, boot_time) == 24);
static_assert(offsetof(systeminfo_struct, context_switches) == 32);
static_assert(offsetof(systeminfo_struct, interrupts) == 40);
static_assert(offsetof(systeminfo_struct, loadavg_1min) == 48);
static_assert(offsetof(systeminfo_struct, loadavg_5min) == 52);
static_assert(offsetof(systeminfo_struct, loadavg_15min) == 56);
static_assert(offsetof(systeminfo_struct, reserved1) == 60);
static_assert(offsetof(systeminfo_struct, cpuload_user) == 64);
static_assert(offsetof(systeminfo_struct, cpuload_sys) == 68);
static_assert(offsetof(systeminfo_struct, cpuload_nice) == 72);
static_assert(offsetof(systeminfo_struct, cpuload_idle) == 76);
static_assert(offsetof(systeminfo_struct, cpuload_iowait) == 80);
static_assert(offsetof(systeminfo_struct, cpuload_irq) == 84);
static_assert(offsetof(systeminfo_struct, cpuload_softirq) == 88);
static_assert(offsetof(systeminfo_struct, reserved2) == 92);
static_assert(offsetof(systeminfo_struct, memload_total) == 96);
static_assert(offsetof(systeminfo_struct, memload_used) == 100);
static_assert(offsetof(systeminfo_struct, memload_free) == 104);
static_assert(offsetof(systeminfo_struct, memload_buffers) == 108);
static_assert(offsetof(systeminfo_struct, memload_cached) == 112);
static_assert(offsetof(systeminfo_struct, memload_active) == 116);
static_assert(offsetof(systeminfo_struct, memload_inactive) == 120);
static_assert(offsetof(systeminfo_struct, memload_shared) == 124);
static_assert(offsetof(systeminfo_struct, netstatus_eth0) == 128);
static_assert(offsetof(systeminfo_struct, netstatus_eth1) == 208);

#endif // OVARD_RECORDS_SYSTEMINFO_H
