// Clocks, sleeping, and the instrument's 8-byte time.

#ifndef OVARD_PLATFORM_TIME_H
#define OVARD_PLATFORM_TIME_H

#include <cstdint>
#include <ctime>

/// The instrument's time: signed 64-bit milliseconds since the epoch, UTC, stored big-endian on
/// every machine.
struct zortime8b {
    unsigned char bytes[8];
};
static_assert(sizeof(zortime8b) == 8);

/// The current time. Async-signal-safe.
void getZortime8BFromSystem(zortime8b* time);

/// Seconds since the epoch to instrument time. Async-signal-safe.
void getZortime8BFromTimeT(zortime8b* time, std::time_t seconds);

/// Milliseconds since the epoch to instrument time. Async-signal-safe.
void getZortime8BFromTimeStamp(zortime8b* time, std::int64_t milliseconds);

/// Instrument time to milliseconds since the epoch; exact inverse of the above.
std::int64_t getTimeStampFromZortime8B(const zortime8b& time);

/// Writes "YYYY-MM-DD HH:MM:SS" of `t` in UTC into `buffer`, which holds at least 32 bytes (the
/// text has at most 31 characters, whatever `t` is).
void getDateStringFromTimeStruct(char* buffer, std::time_t t);

namespace platform {

/// Wall clock, whole seconds since the epoch.
std::time_t currentTime();

/// Seconds from `since` to `now`; negative when `now` is earlier. Both count by their low 32 bits,
/// in which start times are kept, so the span is right if it is shorter than 68 years.
inline std::int32_t secondsSince(std::uint32_t since, std::time_t now) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(now) - since);
}

/// Milliseconds of the monotonic clock; for measuring spans.
std::int64_t monotonicMilliseconds();

/// A time as console traces show it.
struct TimeText {
    char text[64] = "";
    const char* c_str() const { return text; }
};

/// Format of ctime, without its line feed.
inline constexpr const char* kCtimeFormat = "%a %b %e %H:%M:%S %Y";

/// Local time of `t`, in a format of strftime; empty where it has none.
TimeText localTimeText(std::time_t t, const char* format = kCtimeFormat);

/// Sleeps for the whole span; signals only interrupt it for as long as their handlers run.
/// Two exceptions: on the thread that called watchForTermination it ends early once such a signal
/// is pending, and on any other thread it is the place where a cancelled thread ends (cancellation
/// is enabled here even where the thread keeps it disabled). Never call it from a destructor.
void sleepMilliseconds(int milliseconds);

/// As sleepMilliseconds, but for its whole span on the watching thread too. For short ones only.
void sleepRegardless(int milliseconds);

/// Gives up the processor once (a sleep of zero seconds). Not a cancellation point.
void yieldProcessor();

} // namespace platform

#endif // OVARD_PLATFORM_TIME_H
