#include "client/ovardctl/CommandLine.h"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "records/codes.h"
#include "tests/unit/client/CommandLineSupport.h"

namespace {

using namespace client_test;
using namespace ovardctl;
using platform::fieldText;

/// A start request with further arguments behind the required ones.
CommandLine parseStart(std::vector<std::string> more, const char* meterRoot = nullptr) {
    more.insert(more.begin(), {"start", "app", "--cmd", "/home/kelvo/root/app"});
    return parse(more, meterRoot);
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
    expectUsageError(parse({}), "start, stop, restart, status, system, events");
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
    // "/tmp/pid", ".pid" and, behind it, "." and 7 digits take 20 of the 63 characters.
    const std::string name(26, 'p');
    const std::string program = "/home/kelvo/root/" + name;
    const CommandLine longest = parse({"start", name, "--cmd", program + " x"});
    ASSERT_EQ(longest.verdict, Verdict::Send);
    EXPECT_EQ(fieldText(longest.request.pidfile).size(), 55u);
    EXPECT_TRUE(longest.warnings.empty());

    const CommandLine tooLong = parse({"start", name, "--cmd", program + "p x"});
    ASSERT_EQ(tooLong.verdict, Verdict::Send);
    EXPECT_EQ(fieldText(tooLong.request.pidfile), "");
    ASSERT_EQ(tooLong.warnings.size(), 1u);
    EXPECT_NE(tooLong.warnings[0].find("--pidfile"), std::string::npos);
}

TEST(CommandLine, WarnsOfCommandsThatTheMonitorTakesDifferently) {
    EXPECT_TRUE(parseStart({}).warnings.empty());
    const CommandLine outside = parse({"start", "app", "--cmd", "/bin/app"});
    ASSERT_EQ(outside.verdict, Verdict::Send);
    ASSERT_EQ(outside.warnings.size(), 1u);
    EXPECT_NE(outside.warnings[0].find("/bin/app lies outside"), std::string::npos);

    std::string words = "/bin/app";
    for (int count = 1; count < 41; ++count) {
        words += " x";
    }
    EXPECT_EQ(parse({"start", "app", "--cmd", words}).warnings.size(), 2u);

    const CommandLine misnamed = parse({"start", "a", "--cmd", "/home/kelvo/root/app"});
    ASSERT_EQ(misnamed.warnings.size(), 1u);
    EXPECT_NE(misnamed.warnings[0].find("not named as its program, app"), std::string::npos);
    EXPECT_EQ(
        parse({"start", std::string(32, 'a'), "--cmd", "/home/kelvo/root/" + std::string(15, 'a')})
            .warnings.size(),
        1u);
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

TEST(CommandLine, ShowsAnExampleOfEachCommand) {
    for (const char* command :
         {"start", "stop", "restart", "status", "system", "events", "requests"}) {
        const CommandLine help = parse({command, "--help"});
        ASSERT_EQ(help.verdict, Verdict::ShowText);
        const std::string begin = std::string("\nExample: ovardctl ") + command + ' ';
        const std::size_t at = help.text.find(begin);
        ASSERT_NE(at, std::string::npos) << help.text;
        EXPECT_EQ(help.text.find('\n', at + 1), help.text.size() - 1) << "one line";
        EXPECT_LE(help.text.size() - at, 81u) << help.text;
    }
}

TEST(CommandLine, ShowsTheExitStatusesInTheHelp) {
    const std::string help = parse({"--help"}).text;
    for (const char* part : {"Exit status: 0 ", " 1 ", "a file of\nrequests is not in order,",
                             " 2 ", " 3 ", " 4 ", " 5 ", " 130 "}) {
        EXPECT_NE(help.find(part), std::string::npos) << part;
    }
}

TEST(CommandLine, SaysWhatAValueOfAStartDoesNotDo) {
    const std::string help = parse({"start", "--help"}).text;
    for (const char* part :
         {"Carried along; supervision makes no use of it", "nothing (any other number)",
          "and when it never came up, the machine"}) {
        EXPECT_NE(help.find(part), std::string::npos) << help;
    }
    EXPECT_NE(parse({"restart", "--help"}).text.find("An application with policy all is not"),
              std::string::npos);
}

TEST(CommandLine, ShowsHelpAndVersion) {
    const CommandLine version = parse({"--version"});
    EXPECT_EQ(version.verdict, Verdict::ShowText);
    EXPECT_EQ(version.text, "ovardctl " OVARDCTL_VERSION "\n");

    const CommandLine help = parse({"--help"});
    EXPECT_EQ(help.verdict, Verdict::ShowText);
    for (const char* part :
         {"--socket", "--timeout", "start", "stop", "restart", "status", "system", "events"}) {
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
