#include "platform/linux/CivilTime.h"

#include <ctime>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace {

using platform::dateTimeText;
using platform::divideRoundingDown;

std::string textOf(std::int64_t seconds) {
    return std::string(dateTimeText(seconds).view());
}

TEST(CivilTime, BeginsAtTheEpoch) {
    EXPECT_EQ(textOf(0), "1970-01-01 00:00:00");
    EXPECT_EQ(textOf(1), "1970-01-01 00:00:01");
    EXPECT_EQ(textOf(86399), "1970-01-01 23:59:59");
    EXPECT_EQ(textOf(86400), "1970-01-02 00:00:00");
}

TEST(CivilTime, KnowsTheTimesBeforeTheEpoch) {
    EXPECT_EQ(textOf(-1), "1969-12-31 23:59:59");
    EXPECT_EQ(textOf(-86400), "1969-12-31 00:00:00");
    EXPECT_EQ(textOf(-2208988800), "1900-01-01 00:00:00");
}

TEST(CivilTime, KnowsTheLeapYears) {
    EXPECT_EQ(textOf(951782400), "2000-02-29 00:00:00");
    EXPECT_EQ(textOf(951868800), "2000-03-01 00:00:00");
    EXPECT_EQ(textOf(1709164800), "2024-02-29 00:00:00");
    EXPECT_EQ(textOf(4107542399), "2100-02-28 23:59:59");
    EXPECT_EQ(textOf(4107542400), "2100-03-01 00:00:00");
}

TEST(CivilTime, PassesTheEndOfThirtyTwoBits) {
    EXPECT_EQ(textOf(2147483647), "2038-01-19 03:14:07");
    EXPECT_EQ(textOf(2147483648), "2038-01-19 03:14:08");
    EXPECT_EQ(textOf(253402300799), "9999-12-31 23:59:59");
    EXPECT_EQ(textOf(253402300800), "10000-01-01 00:00:00");
}

TEST(CivilTime, WritesYearsBeforeTheCommonEraWithASign) {
    EXPECT_EQ(textOf(-62167219200), "0000-01-01 00:00:00");
    EXPECT_EQ(textOf(-62167219201), "-0001-12-31 23:59:59");
}

TEST(CivilTime, FitsEverySixtyFourBitSecond) {
    EXPECT_EQ(textOf(std::numeric_limits<std::int64_t>::max()), "292277026596-12-04 15:30:07");
    EXPECT_EQ(textOf(std::numeric_limits<std::int64_t>::min()), "-292277022657-01-27 08:29:52");
    EXPECT_FALSE(dateTimeText(std::numeric_limits<std::int64_t>::min()).wasCut());
}

TEST(CivilTime, AgreesWithTheLibraryOnEveryDayOfSixCenturies) {
    constexpr std::int64_t kSecondsPerDay = 86400;
    for (std::int64_t day = -110000; day < 110000; ++day) {
        const auto seconds = static_cast<std::time_t>(day * kSecondsPerDay + day % 86400);
        std::tm parts = {};
        ASSERT_NE(::gmtime_r(&seconds, &parts), nullptr);
        char expected[32];
        (void)std::strftime(expected, sizeof expected, "%Y-%m-%d %H:%M:%S", &parts);
        ASSERT_EQ(dateTimeText(seconds).view(), expected) << seconds;
    }
}

TEST(CivilTime, DividesRoundingDown) {
    const auto expectDivision = [](std::int64_t number, std::int64_t quotient,
                                   std::int64_t remainder) {
        const auto result = divideRoundingDown(number, 1000);
        EXPECT_EQ(result.quotient, quotient) << number;
        EXPECT_EQ(result.remainder, remainder) << number;
    };
    expectDivision(0, 0, 0);
    expectDivision(999, 0, 999);
    expectDivision(1000, 1, 0);
    expectDivision(-1, -1, 999);
    expectDivision(-1000, -1, 0);
    expectDivision(-1001, -2, 999);
}

} // namespace
