// The monitor's lines in the instrument's event log.

#ifndef OVARD_PLATFORM_SYSTEM_EVENT_H
#define OVARD_PLATFORM_SYSTEM_EVENT_H

#include "platform/Log.h"
#include "platform/Time.h"

namespace platform {

/// Writes `text` to the event log with the monitor's tag and the current time. A log that cannot be
/// written is never fatal. Async-signal-safe.
inline void logSystemEvent(const char* text) {
    zortime8b now;
    getZortime8BFromSystem(&now);
    (void)write_system_log("Ovard", now, text);
}

} // namespace platform

#endif // OVARD_PLATFORM_SYSTEM_EVENT_H
