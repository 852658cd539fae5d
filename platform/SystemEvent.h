// The monitor's lines in the instrument's event log.

#ifndef OVARD_PLATFORM_SYSTEM_EVENT_H
#define OVARD_PLATFORM_SYSTEM_EVENT_H

#include <atomic>

#include "platform/ErrorOf.h"
#include "platform/Log.h"
#include "platform/Time.h"

namespace platform {

/// Errno of the last event's writing, 0 when it worked. Any thread and signal handler.
inline std::atomic<int> g_eventLogError{0};

/// Writes `text` to the event log with the monitor's tag and the current time. A log that cannot be
/// written is never fatal; the main loop tells of it. Changes errno. Async-signal-safe.
inline void logSystemEvent(const char* text) {
    zortime8b now;
    getZortime8BFromSystem(&now);
    g_eventLogError = errorOf([&] { return write_system_log("Ovard", now, text) == 0; });
}

} // namespace platform

#endif // OVARD_PLATFORM_SYSTEM_EVENT_H
