#include "client/ovardctl/Format.h"

#include <cmath>
#include <cstddef>
#include <cstdio>
#include <ctime>

namespace ovardctl {
namespace {

constexpr std::uint64_t kMinuteSec = 60;
constexpr std::uint64_t kHourSec = 60 * kMinuteSec;
constexpr std::uint64_t kDaySec = 24 * kHourSec;

constexpr float kImplausible = 1e6F;

/// First millisecond of the year 10000.
constexpr std::int64_t kEndOfTimeMs = 253402300800000;

/// "<whole>U <part>u", the part with two digits.
std::string twoUnits(std::uint64_t whole, char wholeUnit, std::uint64_t part, char partUnit) {
    const std::string digits = std::to_string(part);
    return std::to_string(whole) + wholeUnit + ' ' + (part < 10 ? "0" : "") + digits + partUnit;
}

std::string formatDecimal(double value, int decimals) {
    char text[64];
    (void)std::snprintf(text, sizeof text, "%.*f", decimals, value); // the callers limit the value
    return text;
}

/// In full below `limit`, else in the largest power of `base` that leaves a whole part.
std::string formatScaled(std::int64_t value, double base, double limit) {
    auto scaled = static_cast<double>(value);
    if (std::fabs(scaled) < limit) {
        return std::to_string(value);
    }
    const char* const units = base < 1024 ? "kMGTPE" : "KMGTPE";
    std::size_t unit = 0;
    scaled /= base;
    for (; std::fabs(scaled) >= base && units[unit + 1] != '\0'; ++unit) {
        scaled /= base;
    }
    return formatDecimal(scaled, 1) + units[unit];
}

} // namespace

std::string formatDuration(std::uint64_t seconds) {
    if (seconds < kMinuteSec) {
        return std::to_string(seconds) + 's';
    }
    if (seconds < kHourSec) {
        return twoUnits(seconds / kMinuteSec, 'm', seconds % kMinuteSec, 's');
    }
    if (seconds < kDaySec) {
        return twoUnits(seconds / kHourSec, 'h', seconds % kHourSec / kMinuteSec, 'm');
    }
    return twoUnits(seconds / kDaySec, 'd', seconds % kDaySec / kHourSec, 'h');
}

std::string formatCount(std::int64_t count) {
    return formatScaled(count, 1000, 1e6);
}

std::string formatBytes(std::int64_t bytes) {
    return formatScaled(bytes, 1024, 1024);
}

std::string formatValue(float value, int decimals) {
    if (!std::isfinite(value) || std::fabs(value) >= kImplausible) {
        return "?";
    }
    return formatDecimal(static_cast<double>(value), decimals);
}

std::string formatTime(std::int64_t milliseconds) {
    if (milliseconds <= 0 || milliseconds >= kEndOfTimeMs) {
        return {};
    }
    const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
    std::tm parts = {};
    char text[32];
    // A time_t of 32 bits ends in 2038.
    if (seconds != milliseconds / 1000 || ::gmtime_r(&seconds, &parts) == nullptr) {
        return {};
    }
    return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts)};
}

} // namespace ovardctl
