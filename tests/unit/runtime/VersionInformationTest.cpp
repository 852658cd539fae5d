#include "runtime/VersionInformation.h"

#include <algorithm>
#include <cstring>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/fakes/FakePlatform.h"
#include "tests/unit/runtime/StartupSupport.h"

namespace {

using fakes::world;
using runtimetest::slotText;
using testing::MatchesRegex;

/// Patches one slot for the time of a test.
class PatchedSlot {
public:
    PatchedSlot(std::size_t slot, const std::string& text)
        : slot_(version_information_resource[slot]) {
        std::memcpy(saved_, slot_, kVersionSlotSize);
        std::memset(slot_, 0, kVersionSlotSize);
        std::memcpy(slot_, text.data(), std::min(text.size(), kVersionSlotSize));
    }
    ~PatchedSlot() { std::memcpy(slot_, saved_, kVersionSlotSize); }
    PatchedSlot(const PatchedSlot&) = delete;
    PatchedSlot& operator=(const PatchedSlot&) = delete;

private:
    char* slot_;
    char saved_[kVersionSlotSize];
};

// --- the record ----------------------------------------------------------------------------------

TEST(VersionInformationTest, RecordIsNineSlotsOfSixtyFourBytes) {
    EXPECT_EQ(sizeof version_information_resource, 576U);
    EXPECT_EQ(sizeof version_information_resource[0], 64U);
}

class VersionSlotTest : public testing::TestWithParam<std::size_t> {};

TEST_P(VersionSlotTest, HoldsTheLineOfItsKey) {
    const char* const keys[] = {
        "VER_VersionInformation", "VER_Company", "VER_Copyright", "VER_Product",
        "VER_ProductVersion",     "VER_File",    "VER_FileDate",  "VER_FileVersion",
        "VER_FileDescription"};
    EXPECT_THAT(slotText(GetParam()), MatchesRegex(std::string(keys[GetParam()]) + "=[^\n]+\n"));
}

TEST_P(VersionSlotTest, IsPaddedWithNulBytesToItsEnd) {
    const std::size_t length = slotText(GetParam()).size();
    ASSERT_LT(length, kVersionSlotSize);
    const char* const slot = version_information_resource[GetParam()];
    EXPECT_EQ(std::string(slot + length, kVersionSlotSize - length),
              std::string(kVersionSlotSize - length, '\0'));
}

INSTANTIATE_TEST_SUITE_P(Slots, VersionSlotTest, testing::Range<std::size_t>(0, 9));

TEST(VersionInformationTest, FixedValues) {
    EXPECT_EQ(slotText(0), "VER_VersionInformation=1.0\n");
    EXPECT_EQ(slotText(4), "VER_ProductVersion=1.0\n");
    EXPECT_EQ(slotText(5), "VER_File=ovard\n");
    EXPECT_EQ(slotText(8), "VER_FileDescription=Application Monitor\n");
}

TEST(VersionInformationTest, FileDateIsMonthDayYearTimeAndKind) {
    EXPECT_THAT(slotText(6),
                MatchesRegex("VER_FileDate=(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
                             "( [1-9]|[12][0-9]|3[01]) [0-9]{4} "
                             "[0-2][0-9]:[0-5][0-9]:[0-6][0-9] \\([A-Za-z]+\\)\n"));
}

TEST(VersionInformationTest, FileVersionIsMajorMinorAndTwoBuildFields) {
    EXPECT_THAT(slotText(7), MatchesRegex("VER_FileVersion=0005\\.0001\\."
                                          "[0-9]{2}(0[1-9]|1[0-2])(0[1-9]|[12][0-9]|3[01])\\."
                                          "[0-9]{6}\n"));
}

TEST(VersionInformationTest, DateAndVersionTellTheSameDay) {
    const std::string date = slotText(6).substr(std::strlen("VER_FileDate="));
    const std::string stamp = slotText(7).substr(std::strlen("VER_FileVersion=0000.0000."), 6);
    const std::string months = "JanFebMarAprMayJunJulAugSepOctNovDec";
    EXPECT_EQ(stamp.substr(0, 2), date.substr(9, 2));
    EXPECT_EQ(std::stoul(stamp.substr(2, 2)), months.find(date.substr(0, 3)) / 3 + 1);
    EXPECT_EQ(std::stoi(stamp.substr(4, 2)), std::stoi(date.substr(4, 2)));
}

// --- VI_VALUE_RemoveTerminator -------------------------------------------------------------------

class RemoveTerminatorTest : public testing::Test {
protected:
    std::string stripped(const std::string& value) {
        std::memset(out_, '#', sizeof out_);
        EXPECT_EQ(VI_VALUE_RemoveTerminator(value.c_str(), out_), out_);
        return out_;
    }

    char out_[80];
};

TEST_F(RemoveTerminatorTest, CutsTheLineFeedOff) {
    EXPECT_EQ(stripped("1.0\n"), "1.0");
}

TEST_F(RemoveTerminatorTest, AlwaysDropsOneCharacter) {
    EXPECT_EQ(stripped("1.0"), "1.");
    EXPECT_EQ(stripped("x"), "");
    EXPECT_EQ(stripped("\n"), "");
}

TEST_F(RemoveTerminatorTest, EmptyValueStaysEmpty) {
    EXPECT_EQ(stripped(""), "");
}

TEST_F(RemoveTerminatorTest, CutsOnlyTheLastOfTwoLineFeeds) {
    EXPECT_EQ(stripped("a\n\n"), "a\n");
}

TEST_F(RemoveTerminatorTest, SixtyFourCharactersLoseTheLastOne) {
    EXPECT_EQ(stripped(std::string(63, 'a') + "\n"), std::string(63, 'a'));
    EXPECT_EQ(stripped(std::string(64, 'a')), std::string(63, 'a'));
}

TEST_F(RemoveTerminatorTest, CopiesNoMoreThanSixtyFourCharacters) {
    EXPECT_EQ(stripped(std::string(200, 'a')), std::string(63, 'a'));
    EXPECT_EQ(std::string(out_ + 65, sizeof out_ - 65), std::string(sizeof out_ - 65, '#'));
}

TEST_F(RemoveTerminatorTest, ValueWithoutNulIsReadNoFurtherThanSixtyFourBytes) {
    char value[64];
    std::memset(value, 'v', sizeof value);
    VI_VALUE_RemoveTerminator(value, out_);
    EXPECT_EQ(std::string(out_), std::string(63, 'v'));
}

// --- copyVersionValue ----------------------------------------------------------------------------

TEST(VersionInformationTest, ValueIsTheTextAfterTheFirstEqualsSign) {
    const PatchedSlot patch(kSlotFileVersion, "VER_FileVersion=a=b\n");
    char out[36];
    copyVersionValue(kSlotFileVersion, out, sizeof out);
    EXPECT_STREQ(out, "a=b");
}

TEST(VersionInformationTest, ValueIsCutToItsRoom) {
    const PatchedSlot patch(kSlotFileVersion, "VER_FileVersion=" + std::string(40, 'v') + "\n");
    char out[36];
    copyVersionValue(kSlotFileVersion, out, sizeof out);
    EXPECT_EQ(std::string(out), std::string(35, 'v'));
}

TEST(VersionInformationTest, ValueThatFillsItsSlotLosesItsLastCharacter) {
    const std::string value = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKL";
    const PatchedSlot patch(kSlotFileVersion, "VER_FileVersion=" + value);
    ASSERT_EQ(slotText(kSlotFileVersion).size(), kVersionSlotSize);
    char out[64];
    copyVersionValue(kSlotFileVersion, out, sizeof out);
    EXPECT_EQ(std::string(out), value.substr(0, value.size() - 1));
}

TEST(VersionInformationTest, SlotWithoutEqualsSignHasAnEmptyValue) {
    const PatchedSlot patch(kSlotFileVersion, "VER_FileVersion\n");
    char out[36] = "old";
    copyVersionValue(kSlotFileVersion, out, sizeof out);
    EXPECT_STREQ(out, "");
}

// --- VI_print_FileVersion_FileDate ---------------------------------------------------------------

TEST(VersionInformationTest, PrintsVersionDateAndAnEmptyLine) {
    EXPECT_EQ(VI_print_FileVersion_FileDate(), 0);
    EXPECT_EQ(world().consoleText(), slotText(7) + slotText(6) + "\n");
    EXPECT_THAT(world().consoleText(),
                MatchesRegex("VER_FileVersion=[^\n]+\nVER_FileDate=[^\n]+\n\n"));
    EXPECT_EQ(world().errorText(), "");
}

TEST(VersionInformationTest, PrintsPatchedValues) {
    const PatchedSlot date(kSlotFileDate, "VER_FileDate=Oct  5 2022 18:54:05 (Release)\n");
    const PatchedSlot number(kSlotFileVersion, "VER_FileVersion=0005.0001.221005.170006\n");
    VI_print_FileVersion_FileDate();
    EXPECT_EQ(world().consoleText(), "VER_FileVersion=0005.0001.221005.170006\n"
                                     "VER_FileDate=Oct  5 2022 18:54:05 (Release)\n\n");
}

TEST(VersionInformationTest, PrintsAFullSlotNoFurtherThanItsEnd) {
    const std::string full = "VER_FileDate=" + std::string(64 - 13, 'd');
    const PatchedSlot date(kSlotFileDate, full);
    const PatchedSlot number(kSlotFileVersion, "VER_FileVersion=1\n");
    VI_print_FileVersion_FileDate();
    EXPECT_EQ(world().consoleText(), "VER_FileVersion=1\n" + full + "\n");
}

} // namespace
