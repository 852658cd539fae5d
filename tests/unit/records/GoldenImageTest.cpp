#include "tests/unit/records/GoldenImage.h"

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;
using recordstest::ByteOrder;
using recordstest::goldenImage;

constexpr const char* kAllKinds = R"(
       0 number    2  01 02                       # two
       2 number    4  03 04 05 06                 # four
       6 number    8  07 08 09 0A 0B 0C 0D 0E     # eight

      14 text      4  "ab"                        # with zeros behind it
      18 text      3  "c" 23 0A                   # filled
      21 bytes     3  0F 10 11                    # single bytes
      24 bytes     8  5A*7 5B                     # repeated
)";

TEST(GoldenImageTest, NumbersOfABigEndianMachineStandAsTheyAreWritten) {
    EXPECT_EQ(goldenImage(kAllKinds, ByteOrder::Big),
              "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E"
              "ab\0\0c#\n\x0F\x10\x11ZZZZZZZ["s);
}

TEST(GoldenImageTest, NumbersAloneAreTheOtherWayRoundOnALittleEndianMachine) {
    EXPECT_EQ(goldenImage(kAllKinds, ByteOrder::Little),
              "\x02\x01\x06\x05\x04\x03\x0E\x0D\x0C\x0B\x0A\x09\x08\x07"
              "ab\0\0c#\n\x0F\x10\x11ZZZZZZZ["s);
}

TEST(GoldenImageTest, TheMachinesOwnOrderIsTheUsualOne) {
    EXPECT_EQ(goldenImage(kAllKinds), goldenImage(kAllKinds, recordstest::kMachineOrder));
}

TEST(GoldenImageTest, WhatIsNotGaplessOrCompleteIsRefused) {
    for (const char* line : {
             "1 number 2 01 02",    // a gap
             "0 number 4 01 02",    // a byte is missing
             "0 number 2 01 02 03", // one is too many
             "0 bytes 2 01",        // only texts are filled up
             "0 text 2 \"abc\"",    // longer than its field
             "0 words 2 01 02",     // no such kind
             "0 bytes 1 1",         // half a byte
             "0 bytes 1 012",       // one and a half
             "0 bytes 2 01+2",      // no repetition
             "0 bytes 1 zz",        // no digits
             "number 2 01 02",      // no offset
         }) {
        EXPECT_THROW(goldenImage(line), std::invalid_argument) << line;
    }
    EXPECT_THROW(goldenImage("0 bytes 2 01 02\n1 bytes 1 03"), std::invalid_argument);
}

} // namespace
