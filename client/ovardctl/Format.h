// Numbers and times as people read them. Each result has few characters, whatever the value.

#ifndef OVARD_CLIENT_OVARDCTL_FORMAT_H
#define OVARD_CLIENT_OVARDCTL_FORMAT_H

#include <cstdint>
#include <string>

#include "client/InstrumentTime.h"

namespace ovardctl {

/// A span of seconds by its two largest units: "42s", "5m 06s", "3h 05m", "12d 03h".
std::string formatDuration(std::uint64_t seconds);

/// A count: in full below a million, else with one decimal and k, M, G, T, P or E for the powers of
/// a thousand.
std::string formatCount(std::int64_t count);

/// A number of bytes: in full below 1024, else with one decimal and K, M, G, T, P or E for the
/// powers of 1024.
std::string formatBytes(std::int64_t bytes);

/// A measured value; "?" for what is no number, or one of a million and more.
std::string formatValue(float value, int decimals);

/// "YYYY-MM-DD HH:MM:SS UTC" of milliseconds since the epoch; empty outside the years 1970 to 9999,
/// and for 0.
std::string formatTime(std::int64_t milliseconds);

/// Times as they stand in records.
using ovard_client::toMilliseconds;

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_FORMAT_H
