// Calendar arithmetic of our own: gmtime may not be called in a signal handler and refuses times
// that a 64-bit clock can hold.

#ifndef OVARD_PLATFORM_LINUX_CIVIL_TIME_H
#define OVARD_PLATFORM_LINUX_CIVIL_TIME_H

#include <cstdint>

#include "platform/linux/FixedText.h"

namespace platform {

/// Long enough for dateTimeText of every 64-bit second, with its NUL.
using DateTimeText = FixedText<32>;

/// "YYYY-MM-DD HH:MM:SS" in UTC, for `seconds` since the epoch. Years beyond 9999 have more digits,
/// years before 0 a minus sign. Async-signal-safe.
DateTimeText dateTimeText(std::int64_t seconds);

/// Quotient and remainder of a division that rounds down; the remainder is never negative.
struct FloorDivision {
    std::int64_t quotient;
    std::int64_t remainder;
};

/// Divides `number` by `divisor`, which is positive.
FloorDivision divideRoundingDown(std::int64_t number, std::int64_t divisor);

} // namespace platform

#endif // OVARD_PLATFORM_LINUX_CIVIL_TIME_H
