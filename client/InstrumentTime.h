// The instrument's time as it stands in published records.

#ifndef OVARD_CLIENT_INSTRUMENT_TIME_H
#define OVARD_CLIENT_INSTRUMENT_TIME_H

#include <cstdint>

namespace ovard_client {

/// An instrument time (signed, big-endian), in milliseconds since the epoch.
inline std::int64_t toMilliseconds(const std::uint8_t (&time)[8]) {
    std::uint64_t bits = 0;
    for (const std::uint8_t byte : time) {
        bits = bits << 8 | byte;
    }
    return static_cast<std::int64_t>(bits);
}

} // namespace ovard_client

#endif // OVARD_CLIENT_INSTRUMENT_TIME_H
