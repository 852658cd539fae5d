#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"

namespace {

using fakes::world;
using levels::kLevelError;
using testing::IsEmpty;

std::string word(int index) {
    return "w" + std::to_string(index);
}

std::vector<std::string> words(int count) {
    std::vector<std::string> all;
    for (int index = 0; index < count; ++index) {
        all.push_back(word(index));
    }
    return all;
}

std::string textOf(const std::vector<std::string>& parts) {
    std::string text;
    for (const std::string& part : parts) {
        text += text.empty() ? part : " " + part;
    }
    return text;
}

class CommandlineParserTest : public testing::Test {
protected:
    void SetUp() override {
        manager_.initCommunication(); // opens the log
        world().forgetRecords();
    }

    ~CommandlineParserTest() override { manager_.commandline_parser_cleanup(count_, argv_); }

    void parse(const std::string& text) {
        manager_.commandline_parser_cleanup(count_, argv_);
        count_ = manager_.commandline_parser(text.c_str(), argv_);
    }

    /// The words of the vector, which must end with a null pointer after `count_` of them.
    std::vector<std::string> parsed() const {
        std::vector<std::string> found;
        for (char** entry = argv_; *entry != nullptr; ++entry) {
            found.emplace_back(*entry);
        }
        return found;
    }

    void expectWords(const std::vector<std::string>& expected) {
        ASSERT_NE(argv_, nullptr);
        EXPECT_EQ(count_, static_cast<int>(expected.size()));
        EXPECT_EQ(parsed(), expected);
    }

    void expectNothingKept(const char* logText) {
        EXPECT_EQ(count_, 0);
        EXPECT_EQ(argv_, nullptr);
        EXPECT_EQ(world().liveBlocks(), 0U);
        EXPECT_EQ(world().foreignReleases, 0);
        ASSERT_EQ(world().log.size(), 1U);
        EXPECT_EQ(world().log[0].level, kLevelError);
        EXPECT_EQ(world().log[0].text, logText);
    }

    FixtureManager manager_;
    int count_ = 0;
    char** argv_ = nullptr;
};

class CommandlineParserCountTest : public CommandlineParserTest,
                                   public testing::WithParamInterface<int> {};

TEST_P(CommandlineParserCountTest, KeepsEveryWordUpToForty) {
    const int given = GetParam();
    parse(textOf(words(given)));
    expectWords(words(given < 40 ? given : 40));
    EXPECT_EQ(world().reallocs.calls, given < 20 ? 0 : 1);
    EXPECT_THAT(world().log, IsEmpty());

    manager_.commandline_parser_cleanup(count_, argv_);
    EXPECT_EQ(argv_, nullptr);
    EXPECT_EQ(world().liveBlocks(), 0U);
    EXPECT_EQ(world().foreignReleases, 0);
}

INSTANTIATE_TEST_SUITE_P(Words, CommandlineParserCountTest,
                         testing::Values(1, 19, 20, 21, 39, 40, 41, 1000));

TEST_F(CommandlineParserTest, SplitsOnBlankTabVerticalTabAndFormFeed) {
    parse("/bin/a  b\tc\vd\fe \t\v\f g");
    expectWords({"/bin/a", "b", "c", "d", "e", "g"});
}

TEST_F(CommandlineParserTest, LineFeedAndCarriageReturnBelongToWords) {
    parse("/bin/a\nb c\rd\n");
    expectWords({"/bin/a\nb", "c\rd\n"});
}

TEST_F(CommandlineParserTest, IgnoresLeadingAndTrailingDelimiters) {
    parse(" \t\v\f/bin/a b \t");
    expectWords({"/bin/a", "b"});
    manager_.commandline_parser_cleanup(count_, argv_);
    EXPECT_EQ(world().liveBlocks(), 0U);
    EXPECT_EQ(world().foreignReleases, 0);
}

TEST_F(CommandlineParserTest, EmptyTextGivesNoWordAndAVectorToCleanUp) {
    parse("");
    EXPECT_EQ(count_, 0);
    ASSERT_NE(argv_, nullptr);
    EXPECT_EQ(world().liveBlocks(), 2U);
    manager_.commandline_parser_cleanup(count_, argv_);
    EXPECT_EQ(argv_, nullptr);
    EXPECT_EQ(world().liveBlocks(), 0U);
}

TEST_F(CommandlineParserTest, OnlyDelimitersGiveNoWordAndAVectorToCleanUp) {
    parse(" \t\v\f ");
    EXPECT_EQ(count_, 0);
    ASSERT_NE(argv_, nullptr);
    EXPECT_EQ(world().liveBlocks(), 2U);
    manager_.commandline_parser_cleanup(count_, argv_);
    EXPECT_EQ(argv_, nullptr);
    EXPECT_EQ(world().liveBlocks(), 0U);
}

TEST_F(CommandlineParserTest, LeavesTheTextAlone) {
    char text[] = "a b";
    count_ = manager_.commandline_parser(text, argv_);
    EXPECT_STREQ(text, "a b");
}

TEST_F(CommandlineParserTest, FreshVectorEndsWithNullPointersThroughout) {
    parse("a b");
    for (int index = 2; index < 20; ++index) {
        EXPECT_EQ(argv_[index], nullptr) << index;
    }
}

TEST_F(CommandlineParserTest, GrownVectorEndsWithNullPointersThroughout) {
    parse(textOf(words(21)));
    for (int index = 21; index < 40; ++index) {
        EXPECT_EQ(argv_[index], nullptr) << index;
    }
}

class CommandlineParserRetryTest : public CommandlineParserTest,
                                   public testing::WithParamInterface<int> {
protected:
    /// One sleep of zero seconds after each failure.
    void expectRetries() {
        EXPECT_THAT(world().callsOf("yield"), testing::SizeIs(static_cast<unsigned>(GetParam())));
        EXPECT_THAT(world().log, IsEmpty());
    }
};

TEST_P(CommandlineParserRetryTest, VectorIsTriedAgain) {
    world().mallocs.failNext = GetParam();
    parse("a b");
    expectWords({"a", "b"});
    expectRetries();
}

TEST_P(CommandlineParserRetryTest, CopyIsTriedAgain) {
    world().strdups.failNext = GetParam();
    parse("a b");
    expectWords({"a", "b"});
    expectRetries();
}

TEST_P(CommandlineParserRetryTest, GrowingIsTriedAgain) {
    world().reallocs.failNext = GetParam();
    parse(textOf(words(25)));
    expectWords(words(25));
    expectRetries();
}

INSTANTIATE_TEST_SUITE_P(Failures, CommandlineParserRetryTest, testing::Values(1, 2));

TEST_F(CommandlineParserTest, ThirdFailureOfTheVectorIsLogged) {
    world().mallocs.failNext = 3;
    parse("a b");
    expectNothingKept("ovard(): commandline_parser malloc errpr!");
    EXPECT_EQ(world().mallocs.calls, 3);
    EXPECT_EQ(world().count("yield"), 2U);
}

TEST_F(CommandlineParserTest, ThirdFailureOfTheCopyIsLogged) {
    world().strdups.failNext = 3;
    parse("a b");
    expectNothingKept("ovard(): commandline_parser strdup errpr!");
    EXPECT_EQ(world().strdups.calls, 3);
    EXPECT_EQ(world().count("yield"), 2U);
}

TEST_F(CommandlineParserTest, ThirdFailureOfGrowingIsLogged) {
    world().reallocs.failNext = 3;
    parse(textOf(words(20)));
    expectNothingKept("ovard(): commandline_parser realloc errpr!");
    EXPECT_EQ(world().reallocs.calls, 3);
    EXPECT_EQ(world().count("yield"), 2U);
}

TEST_F(CommandlineParserTest, TracesEveryTokenAboveVerbositySeven) {
    verbose = 8;
    parse("/bin/a -x");
    EXPECT_EQ(world().consoleText(), "commandline_parser: [0] strok=/bin/a\n"
                                     "commandline_parser: [1] strok=-x\n"
                                     "commandline_parser: [2] strok=<NULL>\n");
}

TEST_F(CommandlineParserTest, TracesTheMissingTokenOfAnEmptyText) {
    verbose = 8;
    parse("");
    EXPECT_EQ(world().consoleText(), "commandline_parser: [0] strok=<NULL>\n");
}

TEST_F(CommandlineParserTest, IsSilentAtVerbositySeven) {
    verbose = 7;
    parse("/bin/a -x");
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(CommandlineParserTest, CleanUpOfNullDoesNothing) {
    char** none = nullptr;
    manager_.commandline_parser_cleanup(3, none);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(world().foreignReleases, 0);
}

} // namespace
