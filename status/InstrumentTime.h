// Instrument times inside published records.

#ifndef OVARD_STATUS_INSTRUMENT_TIME_H
#define OVARD_STATUS_INSTRUMENT_TIME_H

#include <cstdint>
#include <cstring>

#include "platform/Time.h"

namespace status {

/// Stores milliseconds since the epoch in a field of a record.
inline void storeTimeStamp(std::uint8_t (&field)[8], std::int64_t milliseconds) {
    zortime8b time;
    getZortime8BFromTimeStamp(&time, milliseconds);
    std::memcpy(field, time.bytes, sizeof field);
}

/// Milliseconds since the epoch from a field of a record.
inline std::int64_t loadTimeStamp(const std::uint8_t (&field)[8]) {
    zortime8b time;
    std::memcpy(time.bytes, field, sizeof field);
    return getTimeStampFromZortime8B(time);
}

} // namespace status

#endif // OVARD_STATUS_INSTRUMENT_TIME_H
