#include "runtime/Options.h"

#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "runtime/Globals.h"
#include "tests/unit/InitialSettings.h"

namespace {

using Purpose = Options::Purpose;

class OptionsTest : public testing::Test {
protected:
    OptionsTest() { ::opterr = 0; } // the parser's own complaints
    ~OptionsTest() override { ::opterr = 1; }

    Options parse(const std::vector<std::string>& arguments) {
        words_ = arguments;
        words_.insert(words_.begin(), "ovard");
        argv_.clear();
        for (std::string& word : words_) {
            argv_.push_back(word.data());
        }
        argv_.push_back(nullptr);
        ::optind = 0;
        return parseOptions(static_cast<int>(words_.size()), argv_.data());
    }

    std::vector<std::string> words_;
    std::vector<char*> argv_;
};

TEST(InitialSettingsTest, AreThoseOfAMonitorWithoutOptions) {
    const InitialSettings& initial = initialSettings();
    EXPECT_EQ(initial.verbosity, 3);
    EXPECT_EQ(initial.managerVerbosity, 0);
    EXPECT_EQ(initial.pidfileStartSec, 7);
    EXPECT_EQ(initial.heartbeatStartSec, 30);
    EXPECT_EQ(initial.heartbeatExpireSec, 30);
    EXPECT_EQ(initial.timerIntervalSec, 5);
    EXPECT_EQ(initial.watchdogDeferSec, 120);
    EXPECT_FALSE(initial.servesWatchdog);
    EXPECT_FALSE(initial.logsSignals);
    EXPECT_FALSE(initial.firstDataServer);
    EXPECT_FALSE(initial.shutsDown);
    EXPECT_FALSE(initial.namesRequestFiles);
}

TEST_F(OptionsTest, DefaultsWithoutOptions) {
    const Options options = parse({});
    EXPECT_EQ(options.purpose, Purpose::Monitor);
    EXPECT_TRUE(options.daemonize);
    EXPECT_TRUE(options.discover);
    EXPECT_EQ(options.statusIntervalSec, 5);
    EXPECT_FALSE(initWatchDog);
    EXPECT_EQ(watchdogDeferTime, 120);
    EXPECT_EQ(watchdog_timer_inteval, 5);
    EXPECT_FALSE(block_signal);
    EXPECT_EQ(g_verbose, 3);
    EXPECT_EQ(app_heartbeat_minimum_start_time, 30);
    EXPECT_EQ(app_pidfile_minimum_start_time, 7);
    EXPECT_EQ(app_heartbeat_expire_interval, 30);
    EXPECT_EQ(pszAppendToAppConfigurationFile, nullptr);
    EXPECT_EQ(pszExecuteAppConfigurationFile, nullptr);
}

TEST_F(OptionsTest, ForegroundSkipsTheDaemonizeStepOnly) {
    const Options options = parse({"-d"});
    EXPECT_FALSE(options.daemonize);
    EXPECT_TRUE(options.discover);
    EXPECT_FALSE(block_signal);
}

TEST_F(OptionsTest, BlockSignal) {
    const Options options = parse({"-b"});
    EXPECT_TRUE(block_signal);
    EXPECT_TRUE(options.daemonize);
    EXPECT_TRUE(options.discover);
}

TEST_F(OptionsTest, NoDiscovery) {
    const Options options = parse({"-a"});
    EXPECT_FALSE(options.discover);
    EXPECT_TRUE(options.daemonize);
    EXPECT_EQ(pszAppendToAppConfigurationFile, nullptr);
    EXPECT_EQ(pszExecuteAppConfigurationFile, nullptr);
}

TEST_F(OptionsTest, RecordFileSwitchesDiscoveryOff) {
    EXPECT_FALSE(parse({"-f", "/tmp/record"}).discover);
    EXPECT_STREQ(pszAppendToAppConfigurationFile, "/tmp/record");
    EXPECT_EQ(pszExecuteAppConfigurationFile, nullptr);
}

TEST_F(OptionsTest, StartUpFileSwitchesDiscoveryOff) {
    EXPECT_FALSE(parse({"-x", "/tmp/startup"}).discover);
    EXPECT_STREQ(pszExecuteAppConfigurationFile, "/tmp/startup");
    EXPECT_EQ(pszAppendToAppConfigurationFile, nullptr);
}

TEST_F(OptionsTest, FileNamesAreNotCopied) {
    parse({"-f", "/tmp/record", "-x", "/tmp/startup"});
    EXPECT_EQ(pszAppendToAppConfigurationFile, argv_[2]);
    EXPECT_EQ(pszExecuteAppConfigurationFile, argv_[4]);
}

TEST_F(OptionsTest, Port22Diagnostic) {
    EXPECT_EQ(parse({"-t"}).purpose, Purpose::DiagnosePort22);
}

TEST_F(OptionsTest, QuestionMarkShowsTheVersion) {
    EXPECT_EQ(parse({"-?"}).purpose, Purpose::ShowVersion);
}

TEST_F(OptionsTest, UnknownOptionShowsTheVersion) {
    EXPECT_EQ(parse({"-z"}).purpose, Purpose::ShowVersion);
    EXPECT_EQ(parse({"--help"}).purpose, Purpose::ShowVersion);
}

class OptionsMissingArgumentTest : public OptionsTest,
                                   public testing::WithParamInterface<const char*> {};

TEST_P(OptionsMissingArgumentTest, ShowsTheVersion) {
    EXPECT_EQ(parse({GetParam()}).purpose, Purpose::ShowVersion);
}

INSTANTIATE_TEST_SUITE_P(Options, OptionsMissingArgumentTest,
                         testing::Values("-w", "-v", "-s", "-p", "-h", "-i", "-I", "-f", "-x"));

TEST_F(OptionsTest, ReadingEndsAtTheDiagnostic) {
    EXPECT_EQ(parse({"-v", "7", "-t", "-v", "9", "-?"}).purpose, Purpose::DiagnosePort22);
    EXPECT_EQ(g_verbose, 7);
}

TEST_F(OptionsTest, ReadingEndsAtTheVersion) {
    EXPECT_EQ(parse({"-v", "7", "-?", "-v", "9", "-t"}).purpose, Purpose::ShowVersion);
    EXPECT_EQ(g_verbose, 7);
}

TEST_F(OptionsTest, ReadingEndsAtAnUnknownOption) {
    EXPECT_EQ(parse({"-d", "-q", "-t", "-b"}).purpose, Purpose::ShowVersion);
    EXPECT_FALSE(block_signal);
}

TEST_F(OptionsTest, LaterOptionWins) {
    parse({"-v", "1", "-v", "6", "-s", "10", "-s", "20"});
    EXPECT_EQ(g_verbose, 6);
    EXPECT_EQ(app_heartbeat_minimum_start_time, 20);
}

TEST_F(OptionsTest, LettersMayBeJoined) {
    const Options options = parse({"-dbav9"});
    EXPECT_FALSE(options.daemonize);
    EXPECT_TRUE(block_signal);
    EXPECT_FALSE(options.discover);
    EXPECT_EQ(g_verbose, 9);
}

TEST_F(OptionsTest, WordsThatAreNoOptionsAreIgnored) {
    const Options options = parse({"word", "-d", "other", "-v", "4"});
    EXPECT_EQ(options.purpose, Purpose::Monitor);
    EXPECT_FALSE(options.daemonize);
    EXPECT_EQ(g_verbose, 4);
}

/// One option with a number, and the setting that it gives.
struct Number {
    const char* option;
    const char* text;
    std::int32_t expected;
};

/// The setting behind a numeric option.
std::int32_t settingOf(char option, const Options& options) {
    switch (option) {
    case 'w':
        return watchdogDeferTime;
    case 'v':
        return g_verbose;
    case 's':
        return app_heartbeat_minimum_start_time;
    case 'p':
        return app_pidfile_minimum_start_time;
    case 'h':
        return app_heartbeat_expire_interval;
    case 'i':
        return options.statusIntervalSec;
    default:
        return watchdog_timer_inteval;
    }
}

class OptionsNumberTest : public OptionsTest, public testing::WithParamInterface<Number> {};

TEST_P(OptionsNumberTest, GivesTheSetting) {
    const Number& given = GetParam();
    const Options options = parse({given.option, given.text});
    EXPECT_EQ(options.purpose, Purpose::Monitor);
    EXPECT_EQ(settingOf(given.option[1], options), given.expected)
        << given.option << ' ' << given.text;
    EXPECT_EQ(initWatchDog, given.option[1] == 'w');
    EXPECT_TRUE(options.discover);
    EXPECT_TRUE(options.daemonize);
}

INSTANTIATE_TEST_SUITE_P(WatchdogDeferTime, OptionsNumberTest,
                         testing::Values(Number{"-w", "0", 0}, Number{"-w", "1", 1},
                                         Number{"-w", "120", 120}, Number{"-w", "300", 300},
                                         Number{"-w", "301", 300}, Number{"-w", "500", 300},
                                         Number{"-w", "-5", -5}, Number{"-w", "none", 0},
                                         Number{"-w", "99999999999", 300}));

INSTANTIATE_TEST_SUITE_P(HeartbeatStart, OptionsNumberTest,
                         testing::Values(Number{"-s", "0", 1}, Number{"-s", "-5", 1},
                                         Number{"-s", "1", 1}, Number{"-s", "2", 2},
                                         Number{"-s", "3600", 3600}, Number{"-s", "3601", 3600},
                                         Number{"-s", "4000", 3600}, Number{"-s", "none", 1},
                                         Number{"-s", "4294967298", 3600},
                                         Number{"-s", "-4294967290", 1}));

INSTANTIATE_TEST_SUITE_P(PidfileStart, OptionsNumberTest,
                         testing::Values(Number{"-p", "0", 1}, Number{"-p", "-5", 1},
                                         Number{"-p", "1", 1}, Number{"-p", "60", 60},
                                         Number{"-p", "61", 60}, Number{"-p", "100", 60},
                                         Number{"-p", "none", 1},
                                         Number{"-p", "99999999999999999999", 60}));

INSTANTIATE_TEST_SUITE_P(HeartbeatExpire, OptionsNumberTest,
                         testing::Values(Number{"-h", "0", 1}, Number{"-h", "-5", 1},
                                         Number{"-h", "1", 1}, Number{"-h", "86400", 86400},
                                         Number{"-h", "86401", 86400}, Number{"-h", "90000", 86400},
                                         Number{"-h", "none", 1},
                                         Number{"-h", "4294967297", 86400}));

INSTANTIATE_TEST_SUITE_P(StatusInterval, OptionsNumberTest,
                         testing::Values(Number{"-i", "0", 0}, Number{"-i", "-3", -3},
                                         Number{"-i", "1", 1}, Number{"-i", "100000", 100000},
                                         Number{"-i", "none", 0}));

INSTANTIATE_TEST_SUITE_P(TimerInterval, OptionsNumberTest,
                         testing::Values(Number{"-I", "0", 0}, Number{"-I", "-3", -3},
                                         Number{"-I", "30", 30}, Number{"-I", "none", 0}));

INSTANTIATE_TEST_SUITE_P(Verbosity, OptionsNumberTest,
                         testing::Values(Number{"-v", "0", 0}, Number{"-v", "9", 9},
                                         Number{"-v", "-1", -1}, Number{"-v", "none", 0},
                                         Number{"-v", "", 0}, Number{"-v", "12abc", 12},
                                         Number{"-v", " 8", 8}, Number{"-v", "+8", 8},
                                         Number{"-v", "010", 10}, Number{"-v", "0x10", 0}));

} // namespace
