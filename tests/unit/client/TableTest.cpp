#include "client/ovardctl/Table.h"

#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace ovardctl;
using Alignment = Table::Alignment;

TEST(Table, AlignsColumnsAndLeavesNoBlanksBehind) {
    Table table({{"NAME"}, {"N", Alignment::Right}, {"WORD"}, {"X", Alignment::Right}});
    table.add({{"a"}, {"5"}, {"longer"}, {"1"}});
    table.add({{"second"}, {"123"}, {""}, {""}});
    table.add({{""}, {""}, {"w"}, {"22"}});
    EXPECT_EQ(table.text(false), "NAME      N  WORD     X\n"
                                 "a         5  longer   1\n"
                                 "second  123\n"
                                 "             w       22\n");
}

TEST(Table, ColoursTextsAndNotTheBlanksBetweenThem) {
    Table table({{"A"}, {"BB", Alignment::Right}});
    table.add({{"x", Tone::Good}, {"1", Tone::Bad}});
    EXPECT_EQ(table.text(true), "\x1b[1mA\x1b[0m  \x1b[1mBB\x1b[0m\n"
                                "\x1b[32mx\x1b[0m   \x1b[31m1\x1b[0m\n");
    EXPECT_EQ(table.text(false), "A  BB\nx   1\n");
}

TEST(Table, NarrowsTheWidestColumnsUntilALineFits) {
    Table table({{"A", Alignment::Left, true}, {"B"}, {"C", Alignment::Left, true}});
    table.add({{std::string(60, 'a')}, {std::string(20, 'b')}, {std::string(30, 'c')}});
    table.add({{"x"}, {"y"}, {"z"}});
    // 76 columns without the gaps; 20 are fixed.
    EXPECT_EQ(table.text(false), "A" + std::string(29, ' ') + "B" + std::string(21, ' ') + "C\n" +
                                     std::string(27, 'a') + "~  " + std::string(20, 'b') + "  " +
                                     std::string(27, 'c') + "~\n" + "x" + std::string(29, ' ') +
                                     "y" + std::string(21, ' ') + "z\n");
}

TEST(Table, NarrowsNoColumnBelowItsTitle) {
    Table table({{"TITLE", Alignment::Left, true}, {"B"}});
    table.add({{"abcdefgh"}, {std::string(90, 'b')}});
    EXPECT_EQ(table.text(false), "TITLE  B\nabcd~  " + std::string(90, 'b') + "\n");
}

TEST(Table, IsItsTitlesWithoutRows) {
    EXPECT_EQ(Table({{"A"}, {"B"}}).text(false), "A  B\n");
}

TEST(Fitted, MarksACutText) {
    EXPECT_EQ(fitted("abc", 3), "abc");
    EXPECT_EQ(fitted("abcd", 3), "ab~");
    EXPECT_EQ(fitted("abcd", 1), "~");
    EXPECT_EQ(fitted("", 1), "");
}

TEST(Painted, HasASequenceForEachToneButThePlainOne) {
    EXPECT_EQ(painted("x", Tone::Plain, true), "x");
    EXPECT_EQ(painted("x", Tone::Heading, true), "\x1b[1mx\x1b[0m");
    EXPECT_EQ(painted("x", Tone::Good, true), "\x1b[32mx\x1b[0m");
    EXPECT_EQ(painted("x", Tone::Pending, true), "\x1b[33mx\x1b[0m");
    EXPECT_EQ(painted("x", Tone::Bad, true), "\x1b[31mx\x1b[0m");
    EXPECT_EQ(painted("", Tone::Bad, true), "");
    EXPECT_EQ(painted("x", Tone::Bad, false), "x");
}

} // namespace
