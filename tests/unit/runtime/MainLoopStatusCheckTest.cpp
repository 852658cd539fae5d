#include "runtime/MainLoop.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/LogLevels.h"
#include "tests/unit/runtime/MainLoopFixture.h"

namespace {

using namespace runtimetest;
using fakes::world;
using levels::kLevelDebug;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

// --- traces --------------------------------------------------------------------------------------

TEST_F(MainLoopTest, StatusCheckIsShownAndLoggedAboveVerbositySeven) {
    g_verbose = 8;
    runTurns({brokenAt(1700000005)}, 5);
    EXPECT_EQ(world().consoleText(),
              "Tue Nov 14 22:13:25 2023 checkStatus(bErasePreloadApplistEntries=0) for "
              "heartbeats\n"
              "Tue Nov 14 22:13:25 2023 updateStatus()\n");
    EXPECT_THAT(world().logTexts(kLevelDebug), ElementsAre(" checkStatus for heartbeats"));
    EXPECT_THAT(world().log, SizeIs(1));
}

TEST_F(MainLoopTest, StatusCheckIsNeitherShownNorLoggedAtVerbositySeven) {
    g_verbose = 7;
    runTurns({brokenAt(1700000005)}, 5);
    EXPECT_EQ(world().consoleText(), "Tue Nov 14 22:13:25 2023 updateStatus()\n");
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(MainLoopTest, PublicationIsNotShownAtVerbositySix) {
    g_verbose = 6;
    runTurns({brokenAt(1700000005)}, 5);
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_EQ(statusChecks(), 1U);
}

TEST_F(MainLoopTest, StatusCheckComesAfterTheSleepOfTheTurn) {
    runTurns({brokenAt(1700000005)}, 5);
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 100", "sleep 10"));
}

TEST_F(MainLoopTest, StatusCheckComesAfterAServedRequestToo) {
    runTurns({client("meter")}, 0);
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 1000", "sleep 10"));
}

TEST_F(MainLoopTest, StatusCheckIsShownBeforeItsSleepAndPublicationAfterIt) {
    g_verbose = 8;
    std::string atSleep;
    world().onSleep = [&](int ms) {
        if (ms == 10) {
            atSleep = world().console;
        }
    };
    runTurns({brokenAt(1700000005)}, 5);
    EXPECT_THAT(atSleep, HasSubstr("for heartbeats\n"));
    EXPECT_THAT(atSleep, Not(HasSubstr("updateStatus")));
    EXPECT_THAT(world().consoleText(), HasSubstr("updateStatus"));
}

/// Where the first call `text`, with whatever arguments, stands among `calls`.
std::ptrdiff_t positionOf(const std::string& text, const std::vector<std::string>& calls) {
    return std::find_if(calls.begin(), calls.end(),
                        [&text](const std::string& call) {
                            return call == text || call.rfind(text + " ", 0) == 0;
                        }) -
           calls.begin();
}

// A pass ends with the health word, for which it reads the published one.
TEST_F(MainLoopTest, PassComesBeforeThatSleepAndPublicationAfterIt) {
    runTurns({brokenAt(1700000005)}, 5);
    const std::vector<std::string>& calls = world().calls;
    const std::ptrdiff_t passed = positionOf("loadShm", calls);
    const std::ptrdiff_t slept = positionOf("sleep 10", calls);
    const std::ptrdiff_t published = positionOf("readTextFile /proc/uptime", calls);
    EXPECT_LT(passed, slept);
    EXPECT_LT(slept, published);
    EXPECT_LT(published, static_cast<std::ptrdiff_t>(calls.size())) << "never";
}

// --- when the status check is due ----------------------------------------------------------------

TEST_F(MainLoopTest, StatusCheckIsNotDueBeforeTheInterval) {
    runTurns({brokenAt(1700000004)}, 5);
    EXPECT_EQ(statusChecks(), 0U);
}

TEST_F(MainLoopTest, StatusCheckIsDueAtTheInterval) {
    runTurns({brokenAt(1700000005)}, 5);
    EXPECT_EQ(statusChecks(), 1U);
}

TEST_F(MainLoopTest, IntervalOfZeroOrLessIsDueAtEveryTurn) {
    runTurns({broken, broken, broken}, 0);
    EXPECT_EQ(statusChecks(), 3U);
    g_bDaemonShutdown = 0;
    world().forgetRecords();
    runTurns({broken, broken}, -5);
    EXPECT_EQ(statusChecks(), 2U);
}

TEST_F(MainLoopTest, NextCheckCountsFromTheTimeOfTheReceive) {
    // The turn's sleeps do not move the time of the last check on.
    world().onSleep = [](int ms) {
        if (ms == 10) {
            world().now = 1700000009;
        }
    };
    runTurns({brokenAt(1700000005), brokenAt(1700000009)}, 5);
    EXPECT_EQ(statusChecks(), 1U);
    g_bDaemonShutdown = 0;
    world().forgetRecords();
    world().now = 1700000000;
    runTurns({brokenAt(1700000005), brokenAt(1700000010)}, 5);
    EXPECT_EQ(statusChecks(), 2U);
}

TEST_F(MainLoopTest, DefaultIntervalChecksAtAboutEveryThirdIdleTurn) {
    runTurns({nobody, nobody, nobody, nobody, nobody, nobody}, 5);
    EXPECT_EQ(statusChecks(), 2U);
}

TEST_F(MainLoopTest, ClockSetBackMakesTheCheckDueAtOnce) {
    g_verbose = 8;
    runTurns({brokenAt(1699999999)}, kNever);
    EXPECT_EQ(statusChecks(), 1U);
    EXPECT_THAT(world().consoleText(), HasSubstr("checkStatus(bErasePreloadApplistEntries=1)"));
}

/// Where seconds have 32 bits, a clock beyond 2038 may have wrapped; the difference has no room.
TEST_F(MainLoopTest, ClockSetRightAfterItHadWrappedMakesTheCheckDue) {
    world().now = std::numeric_limits<std::int32_t>::min() + 10;
    g_verbose = 8;
    runTurns({brokenAt(1700000000)}, 5);
    EXPECT_EQ(statusChecks(), 1U);
    EXPECT_THAT(world().consoleText(), HasSubstr("checkStatus(bErasePreloadApplistEntries=1)"));
}

TEST_F(MainLoopTest, ClockSetBackBetweenChecksMakesTheNextOneDueOnce) {
    runTurns({brokenAt(1700000100), brokenAt(1700000050), brokenAt(1700000050)}, 60);
    EXPECT_EQ(statusChecks(), 2U);
}

TEST_F(MainLoopTest, ClockThatStandsStillIsNotSetBack) {
    runTurns({brokenAt(1700000000)}, 5);
    EXPECT_EQ(statusChecks(), 0U);
}

// --- the erase flag ------------------------------------------------------------------------------

struct EraseFlag {
    std::time_t sinceStartSec;
    const char* shown;
};

class MainLoopEraseTest : public MainLoopTest, public testing::WithParamInterface<EraseFlag> {};

TEST_P(MainLoopEraseTest, IsSetFromThirtySecondsOnAndBeforeTheStart) {
    g_verbose = 8;
    runTurns({brokenAt(1700000000 + GetParam().sinceStartSec)}, 0);
    EXPECT_THAT(world().consoleText(),
                HasSubstr(std::string(" checkStatus(bErasePreloadApplistEntries=") +
                          GetParam().shown + ") for heartbeats\n"));
}

INSTANTIATE_TEST_SUITE_P(Seconds, MainLoopEraseTest,
                         testing::Values(EraseFlag{0, "0"}, EraseFlag{1, "0"}, EraseFlag{29, "0"},
                                         EraseFlag{30, "1"}, EraseFlag{31, "1"},
                                         EraseFlag{100000, "1"}, EraseFlag{-1, "1"},
                                         EraseFlag{-100000, "1"}));

} // namespace
