// Conversions of the instrument's 8-byte time and texts of times: arithmetic only, no clock.

#include <cstring>
#include <limits>

#include "platform/Time.h"
#include "platform/linux/CivilTime.h"

namespace {

constexpr std::int64_t kMillisecondsPerSecond = 1000;

/// Seconds to milliseconds; what does not fit becomes the nearest time that does.
std::int64_t toMilliseconds(std::int64_t seconds) {
    std::int64_t milliseconds = 0;
    if (!__builtin_mul_overflow(seconds, kMillisecondsPerSecond, &milliseconds)) {
        return milliseconds;
    }
    return seconds < 0 ? std::numeric_limits<std::int64_t>::min()
                       : std::numeric_limits<std::int64_t>::max();
}

} // namespace

void getZortime8BFromTimeT(zortime8b* time, std::time_t seconds) {
    getZortime8BFromTimeStamp(time, toMilliseconds(seconds));
}

void getZortime8BFromTimeStamp(zortime8b* time, std::int64_t milliseconds) {
    auto rest = static_cast<std::uint64_t>(milliseconds);
    for (std::size_t index = sizeof time->bytes; index > 0; --index) {
        time->bytes[index - 1] = static_cast<unsigned char>(rest & 0xFF);
        rest >>= 8;
    }
}

std::int64_t getTimeStampFromZortime8B(const zortime8b& time) {
    std::uint64_t milliseconds = 0;
    for (const unsigned char byte : time.bytes) {
        milliseconds = milliseconds << 8 | byte;
    }
    return static_cast<std::int64_t>(milliseconds);
}

void getDateStringFromTimeStruct(char* buffer, std::time_t t) {
    const platform::DateTimeText text = platform::dateTimeText(t);
    std::memcpy(buffer, text.c_str(), text.view().size() + 1);
}
