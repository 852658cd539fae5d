#include "platform/linux/FixedText.h"

#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace {

using platform::FixedText;

TEST(FixedText, StartsEmptyAndTerminated) {
    const FixedText<4> text;
    EXPECT_EQ(text.view(), "");
    EXPECT_STREQ(text.c_str(), "");
    EXPECT_FALSE(text.wasCut());
}

TEST(FixedText, JoinsWhatIsAdded) {
    FixedText<32> text;
    text.add("ab").add("").add("cd").addNumber(-7).addPadded(5, 3);
    EXPECT_EQ(text.view(), "abcd-7005");
    EXPECT_STREQ(text.c_str(), "abcd-7005");
    EXPECT_FALSE(text.wasCut());
}

TEST(FixedText, HoldsOneCharacterLessThanItsSize) {
    FixedText<4> text;
    text.add("abc");
    EXPECT_EQ(text.view(), "abc");
    EXPECT_FALSE(text.wasCut());
}

TEST(FixedText, CutsWhatDoesNotFitAndSaysSo) {
    FixedText<4> text;
    text.add("abcd");
    EXPECT_STREQ(text.c_str(), "abc");
    EXPECT_TRUE(text.wasCut());
    text.add("e").addNumber(1);
    EXPECT_STREQ(text.c_str(), "abc");
}

TEST(FixedText, RemembersACutAfterSomethingFitted) {
    FixedText<4> text;
    text.add("abcd").add("");
    EXPECT_TRUE(text.wasCut());
}

TEST(FixedText, PrintsTheExtremesOfSixtyFourBits) {
    FixedText<64> text;
    text.addNumber(std::numeric_limits<std::int64_t>::min()).add(" ");
    text.addNumber(std::numeric_limits<std::int64_t>::max()).add(" ");
    text.addPadded(std::numeric_limits<std::uint64_t>::max(), 3);
    EXPECT_EQ(text.view(), "-9223372036854775808 9223372036854775807 18446744073709551615");
}

TEST(FixedText, PadsOnlyWhatIsShorterThanTheWidth) {
    FixedText<64> text;
    text.addPadded(0, 2).add(" ").addPadded(7, 4).add(" ").addPadded(12345, 4).add(" ");
    text.addPadded(3, 0);
    EXPECT_EQ(text.view(), "00 0007 12345 3");
}

} // namespace
