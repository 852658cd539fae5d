// The daemon's own log and the instrument's event log.

#ifndef OVARD_PLATFORM_LOG_H
#define OVARD_PLATFORM_LOG_H

#include <cstdint>

#include "platform/Time.h"

/// Levels of write_zor_log: those of syslog.
inline constexpr int kLogError = 3;
inline constexpr int kLogInfo = 6;
inline constexpr int kLogDebug = 7;

/// Handle of the daemon's log. Freely copyable; zero means never opened. `ident` must outlive
/// every use of the handle and of its copies; callers pass literals.
struct zor_log {
    const char* ident = nullptr;
    std::int32_t options = 0;
    std::int32_t facility = 0;
    std::int32_t opened = 0;
};

/// Opens the log: `ident`, `options` (syslog's option bits: 1 process id, 2 console as fallback)
/// and `facility` (syslog's code, 144 is local2). Returns 0, or -1 when `handle` or `ident` is
/// null.
int open_zor_log(zor_log* handle, const char* ident, int options, int facility);

/// Writes one line at a syslog `level`. One trailing line feed of `text` is dropped, the log ends
/// lines itself. `reserved` is 0. Returns 0; -1 on a handle never opened, which is harmless.
/// Any thread; not in a signal handler, not between fork and exec.
int write_zor_log(const zor_log& handle, int level, const char* text, int reserved);

/// Closes the log and clears the handle. Returns 0; -1 on a handle never opened.
int close_zor_log(zor_log* handle);

/// The instrument's event log.
inline constexpr char kEventLogPath[] = "/var/log/meter_events.log";

/// Appends "YYYY-MM-DD HH:MM:SS.mmm TAG: TEXT\n" (UTC, `time`) to kEventLogPath with a single
/// write; mode 0644 whatever the umask; at 1 MiB the file is renamed to meter_events.log.1. Follows
/// no link. 0, or -1 when nothing was written, which is never fatal. Any thread; async-signal-safe.
int write_system_log(const char* tag, const zortime8b& time, const char* text);

#endif // OVARD_PLATFORM_LOG_H
