#include "client/ovardctl/EscapedText.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using namespace ovardctl;
using namespace std::string_literals;

TEST(EscapedText, PrintableTextStandsAsItIs) {
    EXPECT_EQ(escaped("/bin/app -a  \"b\" ;#=[]~"), "/bin/app -a  \"b\" ;#=[]~");
}

TEST(EscapedText, OtherBytesAreNumbers) {
    EXPECT_EQ(escaped("a\0b\n\x7f\xff\tc"s), "a\\x00b\\x0a\\x7f\\xff\\x09c");
    EXPECT_EQ(escaped("a\\x41"), "a\\\\x41");
}

TEST(EscapedText, BlanksAtTheEndsAreNumbers) {
    EXPECT_EQ(escaped(" a b "), "\\x20a b\\x20");
    EXPECT_EQ(escaped("  "), "\\x20\\x20");
    EXPECT_EQ(escaped(" "), "\\x20");
}

TEST(EscapedText, EveryByteComesBack) {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    std::string back;
    EXPECT_EQ(unescape(escaped(bytes), back), "");
    EXPECT_EQ(back, bytes);
}

TEST(EscapedText, UpperCaseDigitsAndTabsAreTaken) {
    std::string bytes;
    EXPECT_EQ(unescape("\\xAb\t", bytes), "");
    EXPECT_EQ(bytes, "\xab\t");
}

TEST(EscapedText, OtherEscapesAreRefused) {
    for (const char* text :
         {"\\", "a\\", "\\n", "\\x", "\\x4", "\\x4g", "\\x-1", "\\x 1", "\\X41"}) {
        std::string bytes;
        EXPECT_NE(unescape(text, bytes).find("\\xNN"), std::string::npos) << text;
    }
}

TEST(EscapedText, BytesThatArePlainlyNotPrintableAreRefusedWithTheirEscape) {
    std::string bytes;
    EXPECT_NE(unescape("a\x01", bytes).find("\\x01"), std::string::npos);
    EXPECT_NE(unescape("\xc3\xa4", bytes).find("\\xc3"), std::string::npos);
}

} // namespace
