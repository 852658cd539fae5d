// The monotonic clock in nanoseconds, for deadlines.

#ifndef OVARD_PLATFORM_LINUX_CLOCK_H
#define OVARD_PLATFORM_LINUX_CLOCK_H

#include <cstdint>
#include <ctime>

namespace platform {

inline constexpr std::int64_t kNanosecondsPerMillisecond = 1000000;
inline constexpr std::int64_t kNanosecondsPerSecond = 1000000000;

/// Nanoseconds of CLOCK_MONOTONIC. Async-signal-safe.
inline std::int64_t monotonicNanoseconds() {
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

/// The monotonic time `milliseconds` from now; now for a span that is negative.
inline std::int64_t deadlineAfter(int milliseconds) {
    return monotonicNanoseconds() +
           (milliseconds > 0 ? milliseconds * kNanosecondsPerMillisecond : 0);
}

/// `nanoseconds`, not negative, as a timespec.
inline timespec toTimespec(std::int64_t nanoseconds) {
    timespec time = {};
    time.tv_sec = static_cast<std::time_t>(nanoseconds / kNanosecondsPerSecond);
    time.tv_nsec = static_cast<decltype(time.tv_nsec)>(nanoseconds % kNanosecondsPerSecond);
    return time;
}

} // namespace platform

#endif // OVARD_PLATFORM_LINUX_CLOCK_H
