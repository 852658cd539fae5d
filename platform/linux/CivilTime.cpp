#include "platform/linux/CivilTime.h"

namespace platform {
namespace {

constexpr std::int64_t kSecondsPerDay = 86400;

struct CivilDate {
    std::int64_t year;
    std::int64_t month;
    std::int64_t day;
};

/// Gregorian date of a day counted from 1970-01-01. Reckons in years that begin on 1 March, so that
/// the leap day is the last of its year, and in eras of 400 years, which all have the same length.
CivilDate civilDate(std::int64_t daysSinceEpoch) {
    constexpr std::int64_t kDaysFromYearZeroToEpoch = 719468;
    constexpr std::int64_t kDaysPerEra = 146097;
    const auto [era, dayOfEra] =
        divideRoundingDown(daysSinceEpoch + kDaysFromYearZeroToEpoch, kDaysPerEra);
    const std::int64_t yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / (kDaysPerEra - 1)) / 365;
    const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
    const std::int64_t day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
    const std::int64_t month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    const std::int64_t year = era * 400 + yearOfEra + (month <= 2 ? 1 : 0);
    return {year, month, day};
}

void addTwoDigits(DateTimeText& text, std::int64_t number) {
    text.addPadded(static_cast<std::uint64_t>(number), 2);
}

} // namespace

FloorDivision divideRoundingDown(std::int64_t number, std::int64_t divisor) {
    const std::int64_t quotient = number / divisor;
    const std::int64_t remainder = number % divisor;
    if (remainder < 0) {
        return {quotient - 1, remainder + divisor};
    }
    return {quotient, remainder};
}

DateTimeText dateTimeText(std::int64_t seconds) {
    const auto [days, secondOfDay] = divideRoundingDown(seconds, kSecondsPerDay);
    const CivilDate date = civilDate(days);
    DateTimeText text;
    if (date.year < 0) {
        text.add("-");
    }
    text.addPadded(static_cast<std::uint64_t>(date.year < 0 ? -date.year : date.year), 4);
    text.add("-");
    addTwoDigits(text, date.month);
    text.add("-");
    addTwoDigits(text, date.day);
    text.add(" ");
    addTwoDigits(text, secondOfDay / 3600);
    text.add(":");
    addTwoDigits(text, secondOfDay / 60 % 60);
    text.add(":");
    addTwoDigits(text, secondOfDay % 60);
    return text;
}

} // namespace platform
