#include "platform/Text.h"

#include <climits>
#include <cstring>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace {

using platform::copyToField;
using platform::fieldText;
using platform::formatText;
using platform::isAllDigits;

TEST(IsAllDigitsTest, EmptyTextCountsAsANumber) {
    EXPECT_TRUE(isAllDigits(""));
}

TEST(IsAllDigitsTest, EveryDigitCounts) {
    EXPECT_TRUE(isAllDigits("0123456789"));
    EXPECT_TRUE(isAllDigits("0"));
    EXPECT_TRUE(isAllDigits("00000000000000000000000000000000000000001"));
}

class NotAllDigitsTest : public testing::TestWithParam<const char*> {};

TEST_P(NotAllDigitsTest, IsNoNumber) {
    EXPECT_FALSE(isAllDigits(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Texts, NotAllDigitsTest,
                         testing::Values("self", "12a", "a12", "1 2", " 1", "1 ", "-1", "+1", "1.0",
                                         "0x1", "1/", "1:", "\xb2", "1\n"));

TEST(FieldTextTest, EndsAtTheNul) {
    const char field[8] = {'a', 'b', '\0', 'c', 'd', 'e', 'f', 'g'};
    EXPECT_EQ(fieldText(field), "ab");
}

TEST(FieldTextTest, FieldWithoutNulIsTakenWhole) {
    const char field[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(fieldText(field), "abcd");
}

TEST(FieldTextTest, EmptyFieldGivesAnEmptyText) {
    const char field[4] = {'\0', 'b', 'c', 'd'};
    EXPECT_EQ(fieldText(field), "");
}

TEST(FieldTextTest, ViewsTheField) {
    const char field[4] = "abc";
    EXPECT_EQ(fieldText(field).data(), static_cast<const char*>(field));
}

class CopyToFieldTest : public testing::Test {
protected:
    CopyToFieldTest() { std::memset(field_, 'x', sizeof field_); }

    std::string bytes() const { return {field_, sizeof field_}; }

    char field_[8];
};

TEST_F(CopyToFieldTest, RestOfTheFieldIsZero) {
    copyToField(field_, "abc");
    EXPECT_EQ(bytes(), std::string("abc\0\0\0\0\0", 8));
}

TEST_F(CopyToFieldTest, EmptyTextClearsTheField) {
    copyToField(field_, "");
    EXPECT_EQ(bytes(), std::string(8, '\0'));
}

// Its pointer is null: even a copy of no bytes from there is undefined.
TEST_F(CopyToFieldTest, ViewOfNothingClearsTheField) {
    copyToField(field_, std::string_view());
    EXPECT_EQ(bytes(), std::string(8, '\0'));
}

TEST_F(CopyToFieldTest, LongestTextThatFits) {
    copyToField(field_, "abcdefg");
    EXPECT_EQ(bytes(), std::string("abcdefg\0", 8));
}

TEST_F(CopyToFieldTest, TextOfTheFieldsSizeLosesItsLastCharacter) {
    copyToField(field_, "abcdefgh");
    EXPECT_EQ(bytes(), std::string("abcdefg\0", 8));
}

TEST_F(CopyToFieldTest, LongTextIsCut) {
    copyToField(field_, std::string(1000, 'a'));
    EXPECT_EQ(bytes(), std::string("aaaaaaa\0", 8));
}

TEST(CopyToSmallestFieldTest, HoldsTheNulOnly) {
    char field[1] = {'x'};
    copyToField(field, "abc");
    EXPECT_EQ(field[0], '\0');
}

TEST(FormatTextTest, FormatsAsPrintf) {
    EXPECT_EQ(formatText(100, "%s[pid=%d] is stopped", "io", -7), "io[pid=-7] is stopped");
}

TEST(FormatTextTest, EmptyResult) {
    EXPECT_EQ(formatText(100, "%s", ""), "");
}

TEST(FormatTextTest, LongestTextThatFits) {
    EXPECT_EQ(formatText(5, "%s", "abcd"), "abcd");
}

TEST(FormatTextTest, TextOfTheLimitsSizeLosesItsLastCharacter) {
    EXPECT_EQ(formatText(5, "%s", "abcde"), "abcd");
}

TEST(FormatTextTest, LogTextIsCutAfter2047Characters) {
    EXPECT_EQ(platform::kLogTextSize, 2048U);
    const std::string longText(3000, 'a');
    EXPECT_EQ(formatText(platform::kLogTextSize, "%s", longText.c_str()), std::string(2047, 'a'));
}

TEST(FormatTextTest, LimitOfOneLeavesNothing) {
    EXPECT_EQ(formatText(1, "%d", 5), "");
}

TEST(FormatTextTest, WhatCannotBeFormattedGivesAnEmptyText) {
    EXPECT_EQ(formatText(100, "text %ls", L"\u20ac"), ""); // not in the C locale's characters
}

} // namespace
