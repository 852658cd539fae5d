#include "status/TextScanner.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;
using status::startsWith;
using status::toDouble;
using status::toInt32;
using status::toInt64;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> linesOf(std::string_view text) {
    status::Lines lines(text);
    std::vector<std::string> all;
    std::string_view line;
    while (lines.next(line)) {
        all.emplace_back(line);
    }
    return all;
}

std::vector<std::string> wordsOf(std::string_view line) {
    status::Words words(line);
    std::vector<std::string> all;
    std::string_view word;
    while (words.next(word)) {
        all.emplace_back(word);
    }
    return all;
}

// --- lines ---------------------------------------------------------------------------------------

TEST(LinesTest, LineFeedsAreRemoved) {
    EXPECT_THAT(linesOf("one\ntwo\n"), ElementsAre("one", "two"));
}

TEST(LinesTest, TheLastLineNeedsNoLineFeed) {
    EXPECT_THAT(linesOf("one\ntwo"), ElementsAre("one", "two"));
}

TEST(LinesTest, LeadingWhiteSpaceIsSkipped) {
    EXPECT_THAT(linesOf(" \t\v\f\rone\n   two\n"), ElementsAre("one", "two"));
}

TEST(LinesTest, WhiteSpaceInsideAndBehindStays) {
    EXPECT_THAT(linesOf("  a  b \t\n"), ElementsAre("a  b \t"));
}

TEST(LinesTest, EmptyAndBlankLinesAreSkipped) {
    EXPECT_THAT(linesOf("\n\none\n \t \n\r\n\ntwo\n\n"), ElementsAre("one", "two"));
}

TEST(LinesTest, NoTextHasNoLines) {
    EXPECT_THAT(linesOf(""), IsEmpty());
    EXPECT_THAT(linesOf(std::string_view()), IsEmpty());
    EXPECT_THAT(linesOf("\n"), IsEmpty());
    EXPECT_THAT(linesOf(" \n\t"), IsEmpty());
}

TEST(LinesTest, TheEndIsFinal) {
    status::Lines lines("one");
    std::string_view line;
    EXPECT_TRUE(lines.next(line));
    EXPECT_FALSE(lines.next(line));
    EXPECT_FALSE(lines.next(line));
}

TEST(LinesTest, BytesOfAllKindsAreTaken) {
    std::string binary;
    for (int value = 0; value < 256; ++value) {
        binary += static_cast<char>(value);
    }
    // Two lines: up to the line feed, and behind the white space that follows it.
    const std::vector<std::string> lines = linesOf(binary);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0], binary.substr(0, 10));
    EXPECT_EQ(lines[1], binary.substr(14));
}

TEST(LinesTest, OneLineOfAMegabyteIsOneLine) {
    const std::string line(1048576, 'x');
    EXPECT_THAT(linesOf(line + "\ny\n"), ElementsAre(line, "y"));
}

// --- words ---------------------------------------------------------------------------------------

TEST(WordsTest, RunsOfWhiteSpaceSeparate) {
    EXPECT_THAT(wordsOf("cpu  1 \t 2\v3\f4\r5"), ElementsAre("cpu", "1", "2", "3", "4", "5"));
}

TEST(WordsTest, WhiteSpaceAtTheEndsMakesNoWords) {
    EXPECT_THAT(wordsOf("  one two  "), ElementsAre("one", "two"));
}

TEST(WordsTest, NoLineHasNoWords) {
    EXPECT_THAT(wordsOf(""), IsEmpty());
    EXPECT_THAT(wordsOf(std::string_view()), IsEmpty());
    EXPECT_THAT(wordsOf(" \t "), IsEmpty());
}

TEST(WordsTest, HighBytesAndNulsAreNoWhiteSpace) {
    EXPECT_THAT(wordsOf("a\xA0"
                        "b \x85 c\0d"s),
                ElementsAre("a\xA0"
                            "b",
                            "\x85", "c\0d"s));
}

TEST(SkipBlanksTest, TakesOnlyWhatLeads) {
    EXPECT_EQ(status::skipBlanks(" \t\n\v\f\ra b "), "a b ");
    EXPECT_EQ(status::skipBlanks(""), "");
    EXPECT_EQ(status::skipBlanks("   "), "");
}

TEST(StartsWithTest, ComparesThePrefixOnly) {
    EXPECT_TRUE(startsWith("cpu0", "cpu"));
    EXPECT_TRUE(startsWith("cpu", "cpu"));
    EXPECT_TRUE(startsWith("cpu", ""));
    EXPECT_FALSE(startsWith("cp", "cpu"));
    EXPECT_FALSE(startsWith("", "cpu"));
    EXPECT_FALSE(startsWith("xcpu", "cpu"));
}

// --- numbers -------------------------------------------------------------------------------------

TEST(ToInt64Test, ReadsTheNumberAtTheBeginning) {
    EXPECT_EQ(toInt64("0"), 0);
    EXPECT_EQ(toInt64("42"), 42);
    EXPECT_EQ(toInt64("0042"), 42);
    EXPECT_EQ(toInt64("42kB"), 42);
    EXPECT_EQ(toInt64("42 43"), 42);
    EXPECT_EQ(toInt64("42.9"), 42);
    EXPECT_EQ(toInt64("4294967296"), 4294967296);
}

TEST(ToInt64Test, WhiteSpaceAndOneSignMayLead) {
    EXPECT_EQ(toInt64(" \t17"), 17);
    EXPECT_EQ(toInt64("-17"), -17);
    EXPECT_EQ(toInt64("+17"), 17);
    EXPECT_EQ(toInt64("  -17"), -17);
    EXPECT_EQ(toInt64("+-17"), 0);
    EXPECT_EQ(toInt64("-+17"), 0);
    EXPECT_EQ(toInt64("--17"), 0);
    EXPECT_EQ(toInt64("++17"), 0);
    EXPECT_EQ(toInt64("- 17"), 0);
}

TEST(ToInt64Test, WhatIsNoNumberIsZero) {
    EXPECT_EQ(toInt64(""), 0);
    EXPECT_EQ(toInt64(std::string_view()), 0);
    EXPECT_EQ(toInt64("-"), 0);
    EXPECT_EQ(toInt64("+"), 0);
    EXPECT_EQ(toInt64("kB 17"), 0);
    EXPECT_EQ(toInt64("\xFF\xFE"), 0);
    EXPECT_EQ(toInt64("0x1F"), 0);
}

TEST(ToInt64Test, SticksAtItsLimits) {
    EXPECT_EQ(toInt64("9223372036854775807"), INT64_MAX);
    EXPECT_EQ(toInt64("9223372036854775808"), INT64_MAX);
    EXPECT_EQ(toInt64("+99999999999999999999999"), INT64_MAX);
    EXPECT_EQ(toInt64("-9223372036854775808"), INT64_MIN);
    EXPECT_EQ(toInt64("-9223372036854775809"), INT64_MIN);
    EXPECT_EQ(toInt64(std::string(100000, '9')), INT64_MAX);
}

TEST(ToInt64Test, StopsAtTheEndOfTheView) {
    const std::string_view text = "123456";
    EXPECT_EQ(toInt64(text.substr(0, 3)), 123);
}

TEST(ToInt32Test, IsReadWideAndNarrowed) {
    EXPECT_EQ(toInt32("2147483647"), 2147483647);
    EXPECT_EQ(toInt32("2147483648"), INT32_MIN);
    EXPECT_EQ(toInt32("4294967295"), -1);
    EXPECT_EQ(toInt32("4294967301"), 5);
    EXPECT_EQ(toInt32("-2147483648"), INT32_MIN);
    EXPECT_EQ(toInt32("-5"), -5);
    EXPECT_EQ(toInt32("x"), 0);
}

TEST(ToDoubleTest, ReadsTheNumberAtTheBeginning) {
    EXPECT_EQ(toDouble("0.25"), 0.25);
    EXPECT_EQ(toDouble("  -1.5x"), -1.5);
    EXPECT_EQ(toDouble("1e3"), 1000.0);
    EXPECT_EQ(toDouble("360000.25 9"), 360000.25);
    EXPECT_EQ(toDouble(".5"), 0.5);
    EXPECT_EQ(toDouble("7"), 7.0);
}

TEST(ToDoubleTest, WhatIsNoNumberIsZero) {
    EXPECT_EQ(toDouble(""), 0.0);
    EXPECT_EQ(toDouble("load"), 0.0);
    EXPECT_EQ(toDouble("\0\0\0"s), 0.0);
}

TEST(ToDoubleTest, AViewOfNothingIsZero) {
    EXPECT_EQ(toDouble(std::string_view()), 0.0);
}

TEST(ToDoubleTest, StopsAtTheEndOfTheView) {
    const std::string_view text = "1.2345";
    EXPECT_EQ(toDouble(text.substr(0, 3)), 1.2);
}

TEST(ToDoubleTest, TextsWithoutAnEndAreTaken) {
    EXPECT_GT(toDouble(std::string(100000, '9')), 1e60);
    EXPECT_EQ(toDouble("0." + std::string(100000, '0')), 0.0);
    EXPECT_EQ(toDouble("0.5" + std::string(100000, '0')), 0.5);
}

} // namespace
