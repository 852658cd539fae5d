// Command lines that ask for something to be shown.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/ovardctl/CommandLine.h"
#include "tests/unit/client/CommandLineSupport.h"

namespace {

using namespace client_test;
using namespace ovardctl;

struct ViewCase {
    const char* command;
    Verdict verdict;
};

class CommandLineView : public testing::TestWithParam<ViewCase> {};

TEST_P(CommandLineView, UnderstandsItsOptions) {
    const char* const command = GetParam().command;
    const CommandLine bare = parse({command});
    EXPECT_EQ(bare.verdict, GetParam().verdict) << bare.text;
    EXPECT_EQ(bare.view.name, "");
    EXPECT_FALSE(bare.view.json);
    EXPECT_EQ(bare.view.watchSec, 0);
    EXPECT_EQ(bare.socketPath, "/tmp/appmon_sock");

    const CommandLine full = parse({command, "--json", "--watch", "5", "--socket", "/s"});
    EXPECT_EQ(full.verdict, GetParam().verdict) << full.text;
    EXPECT_TRUE(full.view.json);
    EXPECT_EQ(full.view.watchSec, 5);
    EXPECT_EQ(full.socketPath, "/s");
}

TEST_P(CommandLineView, WatchesEveryTwoSecondsUnlessToldOtherwise) {
    const char* const command = GetParam().command;
    EXPECT_EQ(parse({command, "--watch"}).view.watchSec, 2);
    EXPECT_EQ(parse({command, "--watch", "--json"}).view.watchSec, 2);
    EXPECT_TRUE(parse({command, "--watch", "--json"}).view.json);
    EXPECT_EQ(parse({command, "--watch=1"}).view.watchSec, 1);
    EXPECT_EQ(parse({command, "--watch", "3600"}).view.watchSec, 3600);
    for (const char* text : {"0", "-1", "3601", "1.5", "x", "true"}) {
        expectUsageError(parse({command, "--watch", text}), "--watch");
    }
    EXPECT_EQ(parse({command, "--json=false"}).verdict, Verdict::UsageError);
    EXPECT_EQ(parse({command, "--no-wait"}).verdict, Verdict::UsageError);
}

INSTANTIATE_TEST_SUITE_P(Views, CommandLineView,
                         testing::Values(ViewCase{"status", Verdict::ShowStatus},
                                         ViewCase{"system", Verdict::ShowSystem}));

TEST(CommandLine, StatusTakesOneName) {
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"status", "app"},
          std::vector<std::string>{"status", "app", "--watch", "3"},
          std::vector<std::string>{"status", "--watch", "3", "app"}}) {
        const CommandLine commandLine = parse(words);
        EXPECT_EQ(commandLine.verdict, Verdict::ShowStatus) << commandLine.text;
        EXPECT_EQ(commandLine.view.name, "app");
    }
    EXPECT_EQ(parse({"status", "stop"}).view.name, "stop");
    expectUsageError(parse({"status", "app", "other"}), "other");
    expectUsageError(parse({"status", ""}), "NAME");
    expectUsageError(parse({"system", "app"}), "app");
}

TEST(CommandLine, UnderstandsWhatToShowOfTheEventLog) {
    const CommandLine bare = parse({"events"});
    ASSERT_EQ(bare.verdict, Verdict::ShowEvents) << bare.text;
    EXPECT_EQ(bare.events.path, "/var/log/meter_events.log");
    EXPECT_EQ(bare.events.lines, 20);
    EXPECT_FALSE(bare.events.follow);
    EXPECT_FALSE(bare.events.json);

    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"events", "-n", "5", "-f", "--file", "/l", "--json"},
          std::vector<std::string>{"events", "--lines=5", "--follow", "--file=/l", "--json"},
          std::vector<std::string>{"events", "-fn5", "--file", "/l", "--json"}}) {
        const CommandLine full = parse(words);
        ASSERT_EQ(full.verdict, Verdict::ShowEvents) << full.text;
        EXPECT_EQ(full.events.path, "/l");
        EXPECT_EQ(full.events.lines, 5);
        EXPECT_TRUE(full.events.follow);
        EXPECT_TRUE(full.events.json);
    }
    EXPECT_EQ(parse({"events", "-n", "0"}).events.lines, 0);
    EXPECT_EQ(parse({"events", "-n", "1000000"}).events.lines, 1000000);
    for (const char* text : {"-1", "1000001", "x", ""}) {
        expectUsageError(parse({"events", "-n", text}), "-n");
    }
    expectUsageError(parse({"events", "--file", ""}), "--file");
    expectUsageError(parse({"events", "app"}), "app");
}

} // namespace
