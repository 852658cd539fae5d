#include "examples/SampleOptions.h"

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using sample::Options;

bool parse(std::vector<const char*> words, Options& options, std::string& error) {
    words.insert(words.begin(), "/home/kelvo/root/app");
    return sample::parseOptions(static_cast<int>(words.size()), words.data(), options, error);
}

/// The options that `words`, which are in order, ask for.
Options parsed(std::vector<const char*> words) {
    Options options;
    std::string error;
    EXPECT_TRUE(parse(std::move(words), options, error)) << error;
    return options;
}

class SampleOptions : public testing::Test {
protected:
    void SetUp() override { ::unsetenv("METER_ROOT"); }
    void TearDown() override { ::unsetenv("METER_ROOT"); }

    Options options_;
    std::string error_;
};

TEST_F(SampleOptions, GoesIntoTheBackgroundWithAConventionalPidFileByDefault) {
    ASSERT_TRUE(parse({}, options_, error_));
    EXPECT_FALSE(options_.foreground);
    EXPECT_EQ(options_.daemonizeAfterMs, 0);
    EXPECT_TRUE(options_.writePidFile);
    EXPECT_EQ(options_.pidFile, "/tmp/pid/home/kelvo/root/app.pid");
    EXPECT_EQ(options_.version, "1.0");
    EXPECT_EQ(options_.heartbeatMs, sample::kNever);
    EXPECT_EQ(options_.exactPidFile, "");
    EXPECT_EQ(options_.hangAfterMs, sample::kNever);
    EXPECT_EQ(options_.hangForMs, sample::kNever);
    EXPECT_EQ(options_.crashAfterMs, sample::kNever);
    EXPECT_EQ(options_.comeBackAfterMs, sample::kNever);
    EXPECT_EQ(options_.exitAfterMs, sample::kNever);
    EXPECT_EQ(options_.exitStatus, 0);
    EXPECT_EQ(options_.strays, 0);
    EXPECT_EQ(options_.report, "");
}

TEST_F(SampleOptions, InsertsMeterRootIntoThePidFile) {
    ::setenv("METER_ROOT", "/opt/x", 1);
    ASSERT_TRUE(parse({}, options_, error_));
    EXPECT_EQ(options_.pidFile, "/tmp/pid/opt/x/home/kelvo/root/app.pid");
}

TEST_F(SampleOptions, ReadsEveryOptionAmongOtherWords) {
    ASSERT_TRUE(parse({"word",
                       "--daemonize-after",
                       "1",
                       "--pidfile",
                       "/p",
                       "--version",
                       "2.0",
                       "-x",
                       "--pidfile-after",
                       "2",
                       "--ignore-term",
                       "--die-of-term",
                       "--heartbeat",
                       "3",
                       "--crash-after",
                       "4",
                       "--exit-after",
                       "5",
                       "--exit-status",
                       "6",
                       "--fork-stray",
                       "7",
                       "--report",
                       "/r",
                       "--exact-pidfile",
                       "/e",
                       "--hang-after",
                       "8",
                       "--hang-for",
                       "9",
                       "--come-back-after",
                       "10",
                       "--foreground",
                       "--other"},
                      options_, error_));
    EXPECT_EQ(options_.daemonizeAfterMs, 1);
    EXPECT_EQ(options_.pidFile, "/p");
    EXPECT_EQ(options_.version, "2.0");
    EXPECT_EQ(options_.pidFileAfterMs, 2);
    EXPECT_TRUE(options_.ignoreTerm);
    EXPECT_TRUE(options_.dieOfTerm);
    EXPECT_EQ(options_.heartbeatMs, 3);
    EXPECT_EQ(options_.crashAfterMs, 4);
    EXPECT_EQ(options_.exitAfterMs, 5);
    EXPECT_EQ(options_.exitStatus, 6);
    EXPECT_EQ(options_.strays, 7);
    EXPECT_EQ(options_.report, "/r");
    EXPECT_EQ(options_.exactPidFile, "/e");
    EXPECT_EQ(options_.hangAfterMs, 8);
    EXPECT_EQ(options_.hangForMs, 9);
    EXPECT_EQ(options_.comeBackAfterMs, 10);
    EXPECT_TRUE(options_.foreground);
}

TEST_F(SampleOptions, ObeysSigtermUnlessAskedToIgnoreItOrToDieOfIt) {
    EXPECT_TRUE(parsed({}).obeysTerm());
    EXPECT_FALSE(parsed({"--ignore-term"}).obeysTerm());
    EXPECT_FALSE(parsed({"--die-of-term"}).obeysTerm());
    EXPECT_FALSE(parsed({"--ignore-term", "--die-of-term"}).obeysTerm());
}

TEST_F(SampleOptions, SwitchesPidFileAndHeartbeatOff) {
    ASSERT_TRUE(
        parse({"--heartbeat", "5", "--heartbeat", "none", "--no-pidfile"}, options_, error_));
    EXPECT_EQ(options_.heartbeatMs, sample::kNever);
    EXPECT_FALSE(options_.writePidFile);
}

TEST_F(SampleOptions, RefusesMissingAndMalformedValues) {
    for (const std::vector<const char*>& words :
         {std::vector<const char*>{"--report"}, std::vector<const char*>{"--heartbeat", "0"},
          std::vector<const char*>{"--heartbeat", "often"},
          std::vector<const char*>{"--exit-after", "-1"},
          std::vector<const char*>{"--crash-after", "none"},
          std::vector<const char*>{"--exact-pidfile"},
          std::vector<const char*>{"--hang-after", "-1"},
          std::vector<const char*>{"--hang-for", "x"},
          std::vector<const char*>{"--come-back-after", ""},
          std::vector<const char*>{"--fork-stray", "1x"},
          std::vector<const char*>{"--exit-status", ""}}) {
        error_.clear();
        EXPECT_FALSE(parse(words, options_, error_));
        EXPECT_NE(error_.find(words[0]), std::string::npos) << error_;
    }
}

} // namespace
