// What the monitor takes from the kernel's statistics texts (proc(5)).
//
// Each reader is a function of the text alone. It returns 0 when everything expected was found, a
// negative value when something was missing; what is missing leaves its fields as
// they were. All trace what they take at verbosity 5 or 6 and above.

#ifndef OVARD_STATUS_PROC_PARSERS_H
#define OVARD_STATUS_PROC_PARSERS_H

#include <cstdint>
#include <string_view>

#include "records/systeminfo.h"
#include "status/CpuTimes.h"

namespace status {

/// Text of /proc/uptime: hours since boot and idle time in percent, which is that of all processors
/// and may exceed 100.
int readUptime(std::string_view text, systeminfo_struct& info);

/// Text of /proc/loadavg.
int readLoadAverages(std::string_view text, systeminfo_struct& info);

/// Text of /proc/stat: CPU shares since the previous reading, interrupts, context switches, boot
/// time. `samples` must have been advanced. The shares stay as they are unless all ten figures were
/// found. Returns 0 or a mask, negative, of what was missing: bits 0 to 9 for the figures, 28 for
/// "intr", 29 for "ctxt", 30 for "btime".
int readStat(std::string_view text, CpuSamples& samples, systeminfo_struct& info);

/// Text of /proc/meminfo. Deliberate: used memory is total minus free, as they stand when the free
/// figure is met.
int readMemory(std::string_view text, systeminfo_struct& info);

/// Byte counters of one interface.
struct ByteCounters {
    std::int64_t rx = 0;
    std::int64_t tx = 0;
};

/// Counters of both interfaces at the last reading and at the end of the one before.
struct NetworkSamples {
    ByteCounters eth0;
    ByteCounters eth1;
    ByteCounters eth0Previous;
    ByteCounters eth1Previous;
};

/// Text of /proc/net/dev: counters and data rates of eth0 and eth1.
/// Deliberate: rates divide by 5 seconds, the usual period, not by the time that has passed; a
/// counter that wraps gives one negative rate; the first rates are those since boot.
int readNetwork(std::string_view text, NetworkSamples& samples, systeminfo_struct& info);

} // namespace status

#endif // OVARD_STATUS_PROC_PARSERS_H
