#include "client/CommandLine.h"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "records/codes.h"

namespace {

using namespace ovardctl;
using platform::fieldText;

CommandLine parse(std::vector<std::string> words, const char* meterRoot = nullptr) {
    words.insert(words.begin(), "ovardctl");
    std::vector<const char*> argv;
    for (const std::string& word : words) {
        argv.push_back(word.c_str());
    }
    argv.push_back(nullptr);
    return parseCommandLine(static_cast<int>(words.size()), argv.data(), meterRoot);
}

/// A start request with further arguments behind the required ones.
CommandLine parseStart(std::vector<std::string> more, const char* meterRoot = nullptr) {
    more.insert(more.begin(), {"start", "app", "--cmd", "/home/kelvo/root/app"});
    return parse(more, meterRoot);
}

void expectUsageError(const CommandLine& commandLine, const std::string& part) {
    EXPECT_EQ(commandLine.verdict, Verdict::UsageError);
    EXPECT_NE(commandLine.text.find(part), std::string::npos) << commandLine.text;
    ASSERT_FALSE(commandLine.text.empty());
    EXPECT_EQ(commandLine.text.back(), '\n');
}

TEST(CommandLine, StartFillsEveryFieldOfTheRequest) {
    const CommandLine commandLine =
        parse({"start",     "meter_app", "--cmd",        "/home/kelvo/root/meter_app -a  b",
               "--version", "2.4.1",     "--pidfile",    "/tmp/pid/x",
               "--port",    "eth:502",   "--priority",   "-5",
               "--delay",   "7",         "--keepalive",  "--heartbeat",
               "--restart", "all",       "--life-limit", "600",
               "--no-wait", "--socket",  "/tmp/other",   "--timeout",
               "9"});
    ASSERT_EQ(commandLine.verdict, Verdict::Send) << commandLine.text;
    reqcmd expected{};
    std::strcpy(expected.name, "meter_app");
    std::strcpy(expected.version, "2.4.1");
    std::strcpy(expected.cmd, "/home/kelvo/root/meter_app -a  b");
    std::strcpy(expected.pidfile, "/tmp/pid/x");
    expected.porttype = 2;
    expected.portnum = 502;
    expected.action = 0;
    expected.priority = -5;
    expected.delay = 7;
    expected.keepalive = 1;
    expected.nowait = 1;
    expected.heartbeat = 1;
    expected.restart_type = 1;
    expected.last_runtime_life_limit = 600;
    EXPECT_EQ(std::memcmp(&commandLine.request, &expected, sizeof expected), 0);
    EXPECT_EQ(commandLine.socketPath, "/tmp/other");
    EXPECT_EQ(commandLine.timeoutSec, 9);
    EXPECT_TRUE(commandLine.warnings.empty());
}

TEST(CommandLine, StartLeavesEverythingElseZero) {
    const CommandLine commandLine = parseStart({});
    ASSERT_EQ(commandLine.verdict, Verdict::Send) << commandLine.text;
    reqcmd expected{};
    std::strcpy(expected.name, "app");
    std::strcpy(expected.cmd, "/home/kelvo/root/app");
    std::strcpy(expected.pidfile, "/tmp/pid/home/kelvo/root/app.pid");
    EXPECT_EQ(std::memcmp(&commandLine.request, &expected, sizeof expected), 0);
    EXPECT_EQ(commandLine.socketPath, "/tmp/appmon_sock");
    EXPECT_EQ(commandLine.timeoutSec, 60);
}

struct ActionCase {
    std::vector<std::string> words;
    std::int32_t action;
    const char* name;
};

class CommandLineAction : public testing::TestWithParam<ActionCase> {};

TEST_P(CommandLineAction, FillsActionNameAndNowait) {
    for (const bool noWait : {false, true}) {
        std::vector<std::string> words = GetParam().words;
        if (noWait) {
            words.push_back("--no-wait");
        }
        const CommandLine commandLine = parse(words);
        ASSERT_EQ(commandLine.verdict, Verdict::Send) << commandLine.text;
        reqcmd expected{};
        expected.action = GetParam().action;
        expected.nowait = noWait ? 1 : 0;
        std::strcpy(expected.name, GetParam().name);
        EXPECT_EQ(std::memcmp(&commandLine.request, &expected, sizeof expected), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Actions, CommandLineAction,
                         testing::Values(ActionCase{{"stop", "app"}, 1, "app"},
                                         ActionCase{{"stop", "--all"}, 2, ""},
                                         ActionCase{{"stop", "--all-but-security"}, 3, ""},
                                         ActionCase{{"stop", "--port-apps"}, 4, ""},
                                         ActionCase{{"restart", "app"}, 5, "app"},
                                         ActionCase{{"restart", "--all"}, 6, ""},
                                         ActionCase{{"restart", "--self-restarting"}, 7, ""},
                                         ActionCase{{"restart", "--port-apps"}, 8, ""},
                                         // An application may be called like a command.
                                         ActionCase{{"stop", "start"}, 1, "start"}));

TEST(CommandLine, NeedsExactlyOneSelection) {
    for (const char* command : {"stop", "restart"}) {
        expectUsageError(parse({command}), "exactly one of NAME, --all");
        expectUsageError(parse({command, "app", "--all"}), "exactly one of NAME, --all");
        expectUsageError(parse({command, "--all", "--port-apps"}), "exactly one of NAME, --all");
        expectUsageError(parse({command, "app", "other"}), "other");
        expectUsageError(parse({command, "--all=false"}), "all");
        expectUsageError(parse({command, ""}), "NAME");
    }
    expectUsageError(parse({"stop", "--self-restarting"}), "--self-restarting");
    expectUsageError(parse({"restart", "--all-but-security"}), "--all-but-security");
}

TEST(CommandLine, NeedsAKnownCommand) {
    expectUsageError(parse({}), "start, stop, restart, status, system");
    expectUsageError(parse({"pause"}), "pause");
    expectUsageError(parse({"stop", "app", "--sideways"}), "--sideways");
}

TEST(CommandLine, StartNeedsNameAndCommand) {
    expectUsageError(parse({"start"}), "is required");
    expectUsageError(parse({"start", "app"}), "--cmd");
    expectUsageError(parse({"start", "--cmd", "/bin/x"}), "NAME");
    expectUsageError(parse({"start", "", "--cmd", "/bin/x"}), "NAME");
    expectUsageError(parse({"start", "app", "--cmd"}), "--cmd");
    expectUsageError(parse({"start", "app", "--cmd", ""}), "--cmd");
    expectUsageError(parse({"start", "app", "--cmd", " \t\v\f"}), "--cmd");
}

struct LimitCase {
    const char* what;
    std::size_t limit;
    std::vector<std::string> before;
};

class CommandLineLimit : public testing::TestWithParam<LimitCase> {};

TEST_P(CommandLineLimit, TakesTheLongestTextAndRefusesOneMore) {
    const std::size_t limit = GetParam().limit;
    std::vector<std::string> words = GetParam().before;
    words.push_back("/" + std::string(limit - 1, 'y'));
    const CommandLine longest = parse(words);
    ASSERT_EQ(longest.verdict, Verdict::Send) << longest.text;
    const std::string_view fields[] = {
        fieldText(longest.request.name), fieldText(longest.request.version),
        fieldText(longest.request.cmd), fieldText(longest.request.pidfile)};
    int found = 0;
    for (const std::string_view field : fields) {
        found += field == words.back() ? 1 : 0;
    }
    EXPECT_EQ(found, 1);

    words.back() += "y";
    const CommandLine tooLong = parse(words);
    expectUsageError(tooLong, GetParam().what);
    expectUsageError(tooLong, "at most " + std::to_string(limit));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, CommandLineLimit,
    testing::Values(LimitCase{"NAME", 63, {"start", "--cmd", "/x", "--"}},
                    LimitCase{"NAME", 63, {"stop"}}, LimitCase{"NAME", 63, {"restart"}},
                    LimitCase{"--version", 31, {"start", "a", "--cmd", "/x", "--version"}},
                    LimitCase{"--cmd", 1023, {"start", "a", "--no-pidfile", "--cmd"}},
                    LimitCase{"--pidfile", 63, {"start", "a", "--cmd", "/x", "--pidfile"}}));

struct PortCase {
    const char* text;
    std::int32_t type;
    std::int32_t number;
};

TEST(CommandLine, UnderstandsPorts) {
    for (const PortCase& port : {PortCase{"none", 0, 0}, PortCase{"com:0", 1, 0},
                                 PortCase{"com:2", 1, 2}, PortCase{"com:2147483647", 1, 2147483647},
                                 PortCase{"eth:1", 2, 1}, PortCase{"eth:65535", 2, 65535}}) {
        const CommandLine commandLine = parseStart({"--port", port.text});
        ASSERT_EQ(commandLine.verdict, Verdict::Send) << commandLine.text;
        EXPECT_EQ(commandLine.request.porttype, port.type) << port.text;
        EXPECT_EQ(commandLine.request.portnum, port.number) << port.text;
    }
    for (const char* text : {"", "com", "com:", "com:-1", "com:1x", "com: 1", "com:2147483648",
                             "eth", "eth:", "eth:0", "eth:65536", "COM:1", "usb:1", "none:1"}) {
        expectUsageError(parseStart({"--port", text}), "--port");
    }
}

TEST(CommandLine, UnderstandsRestartPolicies) {
    const struct {
        const char* text;
        std::int32_t type;
    } cases[] = {{"self", 0},
                 {"all", 1},
                 {"0", 0},
                 {"1", 1},
                 {"2", 2},
                 {"-3", -3},
                 {"2147483647", 2147483647},
                 {"-2147483648", -2147483647 - 1}};
    for (const auto& item : cases) {
        const CommandLine commandLine = parseStart({"--restart", item.text});
        ASSERT_EQ(commandLine.verdict, Verdict::Send) << commandLine.text;
        EXPECT_EQ(commandLine.request.restart_type, item.type) << item.text;
    }
    for (const char* text : {"", "none", "1.5", "2147483648", "-2147483649", "0x1"}) {
        expectUsageError(parseStart({"--restart", text}), "--restart");
    }
}

struct NumberCase {
    const char* option;
    std::int32_t reqcmd::*field;
    std::int32_t low;
    std::int32_t high;
};

class CommandLineNumber : public testing::TestWithParam<NumberCase> {};

TEST_P(CommandLineNumber, HasLimitsAndIsDecimal) {
    const NumberCase& number = GetParam();
    for (const std::int32_t value : {number.low, 0, number.high}) {
        const CommandLine commandLine = parseStart({number.option, std::to_string(value)});
        ASSERT_EQ(commandLine.verdict, Verdict::Send) << commandLine.text;
        EXPECT_EQ(commandLine.request.*number.field, value);
    }
    const CommandLine padded = parseStart({number.option, "010"});
    ASSERT_EQ(padded.verdict, Verdict::Send) << padded.text;
    EXPECT_EQ(padded.request.*number.field, 10);
    const std::string below = std::to_string(static_cast<std::int64_t>(number.low) - 1);
    const std::string above = std::to_string(static_cast<std::int64_t>(number.high) + 1);
    for (const std::string& text : {below, above, std::string("x"), std::string("1x"),
                                    std::string("0x1"), std::string(), std::string("true")}) {
        expectUsageError(parseStart({number.option, text}), number.option);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Numbers, CommandLineNumber,
    testing::Values(NumberCase{"--priority", &reqcmd::priority, -20, 19},
                    NumberCase{"--delay", &reqcmd::delay, 0, 2147483647},
                    NumberCase{"--life-limit", &reqcmd::last_runtime_life_limit, 0, 2147483647}));

TEST(CommandLine, FlagsTakeNoValue) {
    for (const char* text : {"--keepalive=false", "--heartbeat=0", "--no-wait=1"}) {
        EXPECT_EQ(parseStart({text}).verdict, Verdict::UsageError) << text;
    }
}

TEST(CommandLine, FillsInTheConventionalPidFile) {
    const auto pidFile = [](const std::vector<std::string>& words, const char* meterRoot) {
        return std::string(fieldText(parse(words, meterRoot).request.pidfile));
    };
    EXPECT_EQ(pidFile({"start", "a", "--cmd", "/home/kelvo/root/app"}, nullptr),
              "/tmp/pid/home/kelvo/root/app.pid");
    EXPECT_EQ(pidFile({"start", "a", "--cmd", " \t/home/kelvo/root/app\v-x y"}, nullptr),
              "/tmp/pid/home/kelvo/root/app.pid");
    EXPECT_EQ(pidFile({"start", "a", "--cmd", "/home/kelvo/root/app -x"}, "/opt/x"),
              "/tmp/pid/opt/x/home/kelvo/root/app.pid");
    EXPECT_EQ(pidFile({"start", "a", "--cmd", "/home/kelvo/root/app"}, ""),
              "/tmp/pid/home/kelvo/root/app.pid");
    EXPECT_EQ(pidFile({"start", "a", "--cmd", "/app", "--no-pidfile"}, nullptr), "");
    EXPECT_EQ(pidFile({"start", "a", "--cmd", "/app", "--pidfile", ""}, nullptr), "");
    EXPECT_EQ(pidFile({"start", "a", "--cmd", "/app", "--pidfile", "/p"}, "/opt/x"), "/p");
}

TEST(CommandLine, LeavesAnOverlongConventionalPidFileEmptyAndWarns) {
    // "/tmp/pid" and ".pid" take 12 of the 63 characters.
    const CommandLine longest = parse({"start", "a", "--cmd", "/" + std::string(50, 'p') + " x"});
    ASSERT_EQ(longest.verdict, Verdict::Send);
    EXPECT_EQ(fieldText(longest.request.pidfile).size(), 63u);
    EXPECT_TRUE(longest.warnings.empty());

    const CommandLine tooLong = parse({"start", "a", "--cmd", "/" + std::string(51, 'p') + " x"});
    ASSERT_EQ(tooLong.verdict, Verdict::Send);
    EXPECT_EQ(fieldText(tooLong.request.pidfile), "");
    ASSERT_EQ(tooLong.warnings.size(), 1u);
    EXPECT_NE(tooLong.warnings[0].find("--pidfile"), std::string::npos);
}

TEST(CommandLine, PidFileAndNoPidFileExcludeEachOther) {
    expectUsageError(parseStart({"--pidfile", "/p", "--no-pidfile"}), "--no-pidfile");
}

TEST(CommandLine, GlobalOptionsStandAnywhere) {
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"--socket", "/s", "--timeout", "5", "stop", "app"},
          std::vector<std::string>{"stop", "--socket", "/s", "app", "--timeout", "5"},
          std::vector<std::string>{"stop", "app", "--socket=/s", "--timeout=5"}}) {
        const CommandLine commandLine = parse(words);
        ASSERT_EQ(commandLine.verdict, Verdict::Send) << commandLine.text;
        EXPECT_EQ(commandLine.socketPath, "/s");
        EXPECT_EQ(commandLine.timeoutSec, 5);
        EXPECT_EQ(fieldText(commandLine.request.name), "app");
    }
}

TEST(CommandLine, LimitsTimeoutAndSocketPath) {
    EXPECT_EQ(parse({"stop", "app", "--timeout", "86400"}).timeoutSec, 86400);
    for (const char* text : {"0", "-1", "86401", "1.5", "", "x"}) {
        expectUsageError(parse({"stop", "app", "--timeout", text}), "--timeout");
    }
    EXPECT_EQ(parse({"stop", "app", "--socket", std::string(107, 's')}).verdict, Verdict::Send);
    expectUsageError(parse({"stop", "app", "--socket", std::string(108, 's')}), "107");
    expectUsageError(parse({"stop", "app", "--socket", ""}), "--socket");
}

TEST(CommandLine, RefusesAnOptionGivenTwice) {
    EXPECT_EQ(parseStart({"--cmd", "/other"}).verdict, Verdict::UsageError);
    EXPECT_EQ(parseStart({"--priority", "1", "--priority", "2"}).verdict, Verdict::UsageError);
}

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

TEST(CommandLine, ShowsHelpAndVersion) {
    const CommandLine version = parse({"--version"});
    EXPECT_EQ(version.verdict, Verdict::ShowText);
    EXPECT_EQ(version.text, "ovardctl " OVARDCTL_VERSION "\n");

    const CommandLine help = parse({"--help"});
    EXPECT_EQ(help.verdict, Verdict::ShowText);
    for (const char* part :
         {"--socket", "--timeout", "start", "stop", "restart", "status", "system"}) {
        EXPECT_NE(help.text.find(part), std::string::npos) << part;
    }

    const CommandLine statusHelp = parse({"status", "--help"});
    EXPECT_EQ(statusHelp.verdict, Verdict::ShowText);
    for (const char* part : {"NAME", "--json", "--watch"}) {
        EXPECT_NE(statusHelp.text.find(part), std::string::npos) << part;
    }

    const CommandLine startHelp = parse({"start", "--help"});
    EXPECT_EQ(startHelp.verdict, Verdict::ShowText);
    for (const char* part :
         {"NAME", "--cmd", "--version", "--pidfile", "--no-pidfile", "--port", "--priority",
          "--delay", "--keepalive", "--heartbeat", "--restart", "--life-limit", "--no-wait"}) {
        EXPECT_NE(startHelp.text.find(part), std::string::npos) << part;
    }
}

} // namespace
