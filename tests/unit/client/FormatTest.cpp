#include "client/ovardctl/Format.h"

#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

#include "client/ovardctl/PrintableText.h"

namespace {

using namespace ovardctl;

constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();

TEST(Format, ShowsTheTwoLargestUnitsOfASpan) {
    EXPECT_EQ(formatDuration(0), "0s");
    EXPECT_EQ(formatDuration(59), "59s");
    EXPECT_EQ(formatDuration(60), "1m 00s");
    EXPECT_EQ(formatDuration(3599), "59m 59s");
    EXPECT_EQ(formatDuration(3600), "1h 00m");
    EXPECT_EQ(formatDuration(86399), "23h 59m");
    EXPECT_EQ(formatDuration(86400), "1d 00h");
    EXPECT_EQ(formatDuration(4294967295), "49710d 06h");
}

TEST(Format, ShowsCountsWithinEightColumns) {
    EXPECT_EQ(formatCount(0), "0");
    EXPECT_EQ(formatCount(-7), "-7");
    EXPECT_EQ(formatCount(999999), "999999");
    EXPECT_EQ(formatCount(1000000), "1.0M");
    EXPECT_EQ(formatCount(-1250000), "-1.2M");
    EXPECT_EQ(formatCount(2147483647), "2.1G");
    EXPECT_EQ(formatCount(999999999), "1000.0M");
    EXPECT_EQ(formatCount(kMost), "9.2E");
    EXPECT_EQ(formatCount(kLeast), "-9.2E");
}

TEST(Format, ShowsBytesInPowersOf1024) {
    EXPECT_EQ(formatBytes(1023), "1023");
    EXPECT_EQ(formatBytes(1024), "1.0K");
    EXPECT_EQ(formatBytes(std::int64_t{1536} * 1024), "1.5M");
    EXPECT_EQ(formatBytes(std::int64_t{2147483647} * 1024), "2.0T");
    EXPECT_EQ(formatBytes(kMost), "8.0E");
    EXPECT_EQ(formatBytes(kLeast), "-8.0E");
}

TEST(Format, ShowsNoNumberThatCannotBe) {
    EXPECT_EQ(formatValue(12.34F, 1), "12.3");
    EXPECT_EQ(formatValue(-0.5F, 2), "-0.50");
    EXPECT_EQ(formatValue(999999.0F, 1), "999999.0");
    EXPECT_EQ(formatValue(1e6F, 1), "?");
    EXPECT_EQ(formatValue(-3e38F, 1), "?");
    EXPECT_EQ(formatValue(std::numeric_limits<float>::quiet_NaN(), 1), "?");
    EXPECT_EQ(formatValue(std::numeric_limits<float>::infinity(), 1), "?");
}

TEST(Format, ShowsTimesInUtc) {
    EXPECT_EQ(formatTime(1700000000999), "2023-11-14 22:13:20 UTC");
    EXPECT_EQ(formatTime(1), "1970-01-01 00:00:00 UTC");
    EXPECT_EQ(formatTime(0), "");
    EXPECT_EQ(formatTime(-1), "");
    EXPECT_EQ(formatTime(253402300800000), "");
    EXPECT_EQ(formatTime(kMost), "");
    if (sizeof(std::time_t) > 4) {
        EXPECT_EQ(formatTime(253402300799999), "9999-12-31 23:59:59 UTC");
    }
}

TEST(Format, TakesInstrumentTimesFromBigEndianBytes) {
    EXPECT_EQ(toMilliseconds({0, 0, 1, 0x8b, 0xcf, 0xe5, 0x68, 0x00}), 1700000000000);
    EXPECT_EQ(toMilliseconds({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe}), -2);
}

TEST(PrintableText, ShowsWhatATerminalWouldActUponAsHexadecimals) {
    EXPECT_EQ(printable(" ~azAZ\\"), " ~azAZ\\");
    EXPECT_EQ(printable("\x1b[2J\a\r\n\t\x7f"), "\\x1b[2J\\x07\\x0d\\x0a\\x09\\x7f");
    EXPECT_EQ(printable("\xc3\xa4\x9b"), "\\xc3\\xa4\\x9b");
    EXPECT_EQ(printable("a\nb\r", "\n"), "a\nb\\x0d");
    EXPECT_EQ(printable(std::string_view("a\0b", 3)), "a\\x00b");
}

} // namespace
