// The instrument's event log at a path of the caller's choice.

#ifndef OVARD_PLATFORM_LINUX_EVENT_LOG_H
#define OVARD_PLATFORM_LINUX_EVENT_LOG_H

#include "platform/Log.h"
#include "platform/Time.h"

namespace platform {

/// Size that the event log does not exceed, in bytes, but for lines that other processes append at
/// the very moment of its renaming, and for up to 64 KiB and a line while another process
/// holds its lock.
inline constexpr int kEventLogLimit = 1048576;

/// Longest tag and text of an event line, in characters; longer ones are cut.
inline constexpr int kLongestEventTag = 256;
inline constexpr int kLongestEventText = 2048;

/// write_system_log on the file `path`; the old file is `path` + ".1". Async-signal-safe.
int appendEvent(const char* path, const char* tag, const zortime8b& time, const char* text);

} // namespace platform

#endif // OVARD_PLATFORM_LINUX_EVENT_LOG_H
