#include "client/ovardctl/EventLine.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace ovardctl;

using Lines = std::vector<std::string>;

/// The lines that come of pieces, `finish` at the end.
Lines linesOf(const std::vector<std::string>& pieces) {
    Lines lines;
    LineCutter cutter([&lines](std::string_view line) { lines.emplace_back(line); });
    for (const std::string& piece : pieces) {
        cutter.add(piece);
    }
    cutter.finish();
    return lines;
}

TEST(LineCutter, PutsLinesTogetherWhereverTheyAreCut) {
    const std::string text = "one\n\nthree 3\nlast";
    const Lines expected = {"one", "", "three 3", "last"};
    EXPECT_EQ(linesOf({text}), expected);
    for (std::size_t first = 0; first <= text.size(); ++first) {
        EXPECT_EQ(linesOf({text.substr(0, first), text.substr(first)}), expected) << first;
    }
    std::vector<std::string> bytes;
    for (const char byte : text) {
        bytes.emplace_back(1, byte);
    }
    EXPECT_EQ(linesOf(bytes), expected);
    EXPECT_EQ(linesOf({}), Lines());
    EXPECT_EQ(linesOf({"\n"}), Lines({""}));
}

TEST(LineCutter, KeepsAnUnfinishedLineBack) {
    Lines lines;
    LineCutter cutter([&lines](std::string_view line) { lines.emplace_back(line); });
    cutter.add("one\ntw");
    EXPECT_EQ(lines, Lines({"one"}));
    cutter.add("o\n");
    EXPECT_EQ(lines, Lines({"one", "two"}));
}

TEST(LineCutter, LooksAtABoundedPartOfALine) {
    const std::string longest(4096, 'x');
    EXPECT_EQ(linesOf({longest + "\nnext"}), Lines({longest, "next"}));
    EXPECT_EQ(linesOf({longest + "y\nnext"}), Lines({longest + '~', "next"}));
    EXPECT_EQ(linesOf({longest, "y", "y", "\nnext"}), Lines({longest + '~', "next"}));
    EXPECT_EQ(linesOf({std::string(100000, 'x')}), Lines({longest + '~'}));
}

constexpr const char* kEvent = "2026-11-21 20:51:19.123 Ovard: restart all";

TEST(EventText, ShowsALineAsItStands) {
    EXPECT_EQ(eventText(kEvent, false), std::string(kEvent) + '\n');
    EXPECT_EQ(eventText("", false), "\n");
}

TEST(EventText, ShowsOtherBytesEscaped) {
    EXPECT_EQ(eventText("a\x1b[2J\t\xc3\xa4\r", false), "a\\x1b[2J\\x09\\xc3\\xa4\\x0d\n");
}

TEST(EventText, GivesScriptsTimeTagAndText) {
    EXPECT_EQ(eventText(kEvent, true), "{\"time\":\"2026-11-21T20:51:19.123Z\",\"tag\":\"Ovard\","
                                       "\"text\":\"restart all\"}\n");
    // The tag ends at the first colon with a blank, the text may hold any number of them.
    EXPECT_EQ(eventText("2026-11-21 20:51:19.123 a b:c: d: e", true),
              "{\"time\":\"2026-11-21T20:51:19.123Z\",\"tag\":\"a b:c\",\"text\":\"d: e\"}\n");
    EXPECT_EQ(eventText("2026-11-21 20:51:19.123 : ", true),
              "{\"time\":\"2026-11-21T20:51:19.123Z\",\"tag\":\"\",\"text\":\"\"}\n");
}

TEST(EventText, GivesScriptsALineOfAnotherFormAsText) {
    for (const char* line :
         {"", "x", "2026-11-21 20:51:19.123", "2026-11-21 20:51:19.123 no tag",
          "2026-11-21T20:51:19.123 Ovard: x", "2026-11-21 20:51:19.12a Ovard: x",
          "2026-11-21 20:51:19,123 Ovard: x", " 2026-11-21 20:51:19.123 Ovard: x"}) {
        EXPECT_EQ(eventText(line, true),
                  std::string(R"({"time":null,"tag":null,"text":")") + line + "\"}\n");
    }
}

TEST(EventText, GivesScriptsAsciiOnly) {
    EXPECT_EQ(eventText("\x1b\"\\ \xff \xc3\xa4", true),
              "{\"time\":null,\"tag\":null,\"text\":\"\\u001b\\\"\\\\ \\ufffd \\u00e4\"}\n");
}

} // namespace
