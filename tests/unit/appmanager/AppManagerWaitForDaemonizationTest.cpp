#include <climits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/DataServer.h"
#include "tests/unit/appmanager/IdentificationFixture.h"

namespace launches {
namespace {

class WaitForDaemonizationTest : public IdentificationTest {
protected:
    int wait() { return manager_.waitForDaemonization(app_); }

    /// What a wait at `verbosity` prints, without what other operations print.
    std::string tracesAt(int verbosity) {
        world().console.clear();
        verbose = verbosity;
        (void)wait();
        return linesThat(true, "waitForDaemonization: ", world().consoleText());
    }

    int looks_ = 0;
};

class WaitWithoutPidTest : public WaitForDaemonizationTest,
                           public testing::WithParamInterface<int> {};

TEST_P(WaitWithoutPidTest, GivesMinusOne) {
    app_.pid = GetParam();
    verbose = 10;
    EXPECT_EQ(wait(), -1);
    EXPECT_EQ(world().consoleText(), "");
}

INSTANTIATE_TEST_SUITE_P(Pids, WaitWithoutPidTest, testing::Values(0, -1, -10, INT_MIN));

TEST_F(WaitForDaemonizationTest, ProcessWithoutFactsGivesMinusTwo) {
    EXPECT_EQ(wait(), -2);
    expectRecordUnchanged();
    EXPECT_EQ(world().count("sleep"), 0U);
}

TEST_F(WaitForDaemonizationTest, FactsComeBeforeTheCommandAndThePidFile) {
    fakes::Process& process = addLaunched();
    process.pidFilename = "/tmp/launched.pid.601";
    process.factsAvailable = false;
    useCommand(" ");
    EXPECT_EQ(wait(), -2);
    expectRecordUnchanged();
}

TEST_F(WaitForDaemonizationTest, CommandComesBeforeThePidFile) {
    addLaunched().pidFilename = "/tmp/launched.pid.601";
    useCommand(" ");
    EXPECT_EQ(wait(), -3);
    expectRecordUnchanged();
}

TEST_F(WaitForDaemonizationTest, TickRateThatStaysUnknownGivesMinusFive) {
    world().clockTicksPerSecond = 0;
    AppManagerTestAccess::statusUpdate(manager_).initBootTimeVars();
    scriptDaemonAfter(1);
    EXPECT_EQ(wait(), -5);
    EXPECT_EQ(world().procScans, 0);
    EXPECT_EQ(app_.pid, kLaunched);
    EXPECT_EQ(world().liveBlocks(), 0U);
}

TEST_F(WaitForDaemonizationTest, GoesOnAfterAMillisecondOnceTheTickRateIsKnown) {
    world().clockTicksPerSecond = 0;
    AppManagerTestAccess::statusUpdate(manager_).initBootTimeVars();
    scriptDaemonAfter(1);
    const auto script = world().onSleep;
    world().onSleep = [script](int ms) {
        script(ms);
        world().clockTicksPerSecond = 100;
    };
    EXPECT_EQ(wait(), kDaemon);
    EXPECT_EQ(world().callsOf("sleep"), (std::vector<std::string>{"sleep 1", "sleep 1"}));
}

TEST_F(WaitForDaemonizationTest, ProcessWithoutFactsIsTracedFromVerbosityThreeOn) {
    EXPECT_EQ(tracesAt(3), "waitForDaemonization: pid=601 proc info error\n");
    EXPECT_EQ(tracesAt(2), "");
}

TEST_F(WaitForDaemonizationTest, CommandOfBlanksGivesMinusThree) {
    platform::copyToField(app_.cmd, " \t ");
    addLaunched();
    EXPECT_EQ(wait(), -3);
    EXPECT_EQ(world().liveBlocks(), 0U);
    EXPECT_EQ(world().count("sleep"), 0U);
}

TEST_F(WaitForDaemonizationTest, CommandOfBlanksIsTracedFromVerbosityThreeOn) {
    platform::copyToField(app_.cmd, " ");
    addLaunched();
    EXPECT_EQ(tracesAt(3), "waitForDaemonization: pid=601 commandline_parser error\n");
    EXPECT_EQ(tracesAt(2), "");
}

TEST_F(WaitForDaemonizationTest, CommandThatCannotBeSplitGivesMinusThree) {
    addLaunched();
    world().strdups.failNext = 3;
    EXPECT_EQ(wait(), -3);
}

TEST_F(WaitForDaemonizationTest, FindsTheDaemonOfAProcessThatExited) {
    scriptDaemonAfter(1);
    EXPECT_EQ(wait(), kDaemon);
    EXPECT_EQ(app_.pid, kDaemon);
    EXPECT_EQ(app_.start_time, kBoot + 123);
    EXPECT_STREQ(app_.pidfile, "/tmp/new.pid.602");
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
    EXPECT_EQ(world().liveBlocks(), 0U);
}

TEST_F(WaitForDaemonizationTest, LooksEveryMillisecondWhetherTheProcessExited) {
    scriptDaemonAfter(25);
    EXPECT_EQ(wait(), kDaemon);
    EXPECT_EQ(world().callsOf("sleep"), std::vector<std::string>(25, "sleep 1"));
    EXPECT_EQ(world().procScans, 1);
}

TEST_F(WaitForDaemonizationTest, SearchesEvery100MillisecondsForTheDaemon) {
    addLaunched();
    world().onSleep = [this](int) {
        ++looks_;
        if (looks_ == 1) {
            world().process(kLaunched)->alive = false;
        } else if (looks_ == 4) {
            addDaemon();
        }
    };
    EXPECT_EQ(wait(), kDaemon);
    EXPECT_EQ(world().callsOf("sleep"),
              (std::vector<std::string>{"sleep 1", "sleep 100", "sleep 100", "sleep 100"}));
    EXPECT_EQ(world().procScans, 4);
}

TEST_F(WaitForDaemonizationTest, DaemonMustHaveEveryArgument) {
    scriptDaemonAfter(1);
    platform::copyToField(app_.cmd, "/home/kelvo/root/data_server -p 6");
    EXPECT_EQ(wait(), -4);
    EXPECT_EQ(app_.pid, kLaunched);
}

TEST_F(WaitForDaemonizationTest, PidFileOfTheLaunchedProcessIsTakenBeforeTheSearch) {
    addLaunched().pidFilename = "/tmp/launched.pid.601";
    EXPECT_EQ(wait(), -4);
    EXPECT_STREQ(app_.pidfile, "/tmp/launched.pid.601");
}

TEST_F(WaitForDaemonizationTest, PidFileOfTheRequestStaysWithoutOne) {
    addLaunched();
    (void)wait();
    EXPECT_STREQ(app_.pidfile, "/tmp/old.pid");
}

TEST_F(WaitForDaemonizationTest, ForegroundProgramTimesOutAndKeepsItsPid) {
    addLaunched();
    EXPECT_EQ(wait(), -4);
    expectRecordUnchanged();
    EXPECT_EQ(world().procScans, 0);
    EXPECT_EQ(world().liveBlocks(), 0U);
}

TEST_F(WaitForDaemonizationTest, ThirtySecondsAreNotOverYet) {
    scriptDaemonAfter(30000); // the daemon comes at second 30, not later
    EXPECT_EQ(wait(), kDaemon);
    EXPECT_EQ(world().now, kNow + 30);
}

TEST_F(WaitForDaemonizationTest, MoreThanThirtySecondsAreTheEnd) {
    scriptDaemonAfter(31000);
    EXPECT_EQ(wait(), -4);
    EXPECT_EQ(world().now, kNow + 31);
    EXPECT_EQ(world().count("sleep"), 31000U);
}

TEST_F(WaitForDaemonizationTest, DeadlineCoversTheSearchToo) {
    addLaunched();
    world().onSleep = [this](int) {
        if (++looks_ == 20000) {
            world().process(kLaunched)->alive = false;
        }
    };
    EXPECT_EQ(wait(), -4);
    EXPECT_EQ(world().now, kNow + 31);
    EXPECT_EQ(world().procScans, 110); // for 11 seconds
    EXPECT_EQ(app_.pid, kLaunched);
    EXPECT_EQ(world().liveBlocks(), 0U);
}

TEST_F(WaitForDaemonizationTest, DaemonThatNeverComesTimesOut) {
    scriptNoDaemon();
    EXPECT_EQ(wait(), -4);
    expectRecordUnchanged();
}

TEST_F(WaitForDaemonizationTest, ClockSetBackEndsTheWait) {
    addLaunched();
    world().onSleep = [](int) { world().now = kNow - 1; };
    EXPECT_EQ(wait(), -4);
    EXPECT_EQ(world().count("sleep"), 1U);
    EXPECT_EQ(world().liveBlocks(), 0U);
}

TEST_F(WaitForDaemonizationTest, ClockSetBackToTheBeginningGoesOn) {
    world().now = kNow + 5;
    scriptDaemonAfter(3);
    const auto script = world().onSleep;
    world().onSleep = [script](int ms) {
        world().now = kNow + 5;
        script(ms);
    };
    EXPECT_EQ(wait(), kDaemon);
}

TEST_F(WaitForDaemonizationTest, ClockSetForwardEndsTheWait) {
    addLaunched();
    world().onSleep = [](int) { world().now += 3600; };
    EXPECT_EQ(wait(), -4);
    EXPECT_EQ(world().count("sleep"), 1U);
}

TEST_F(WaitForDaemonizationTest, EndsEarlyWhenTheMonitorIsAskedToEnd) {
    addLaunched();
    world().onSleep = [this](int) {
        if (++looks_ == 5) {
            world().terminationIsPending = true;
        }
    };
    EXPECT_LT(wait(), 0);
    EXPECT_EQ(world().count("sleep"), 5U);
    EXPECT_EQ(world().liveBlocks(), 0U);
}

TEST_F(WaitForDaemonizationTest, SearchEndsEarlyWhenTheMonitorIsAskedToEnd) {
    addLaunched();
    world().onSleep = [this](int) {
        world().process(kLaunched)->alive = false;
        if (++looks_ == 5) {
            world().terminationIsPending = true;
        }
    };
    EXPECT_LT(wait(), 0);
    EXPECT_EQ(world().procScans, 4);
}

// --- traces --------------------------------------------------------------------------------------

TEST_F(WaitForDaemonizationTest, TracesAGoodWaitAboveVerbositySeven) {
    scriptDaemonAfter(2000);
    EXPECT_EQ(tracesAt(8),
              "waitForDaemonization: waiting for pid=601 name=data_server starting at 1700000000\n"
              "waitForDaemonization: pid=601, termination time_t=1700000002\n"
              "waitForDaemonization: found pid=602, pidfile=\"/tmp/new.pid.602\"\n");
}

TEST_F(WaitForDaemonizationTest, TracesNoTerminationAtVerbositySeven) {
    scriptDaemonAfter(2000);
    EXPECT_EQ(tracesAt(7),
              "waitForDaemonization: waiting for pid=601 name=data_server starting at 1700000000\n"
              "waitForDaemonization: found pid=602, pidfile=\"/tmp/new.pid.602\"\n");
}

TEST_F(WaitForDaemonizationTest, GoodWaitIsSilentAtVerbositySix) {
    scriptDaemonAfter(2);
    EXPECT_EQ(tracesAt(6), "");
}

TEST_F(WaitForDaemonizationTest, TracesTheTimeOutFromVerbositySevenOn) {
    addLaunched();
    EXPECT_EQ(tracesAt(7),
              "waitForDaemonization: waiting for pid=601 name=data_server starting at 1700000000\n"
              "waitForDaemonization: pid=601, name=data_server timeout at 1700000031!!!\n");
}

TEST_F(WaitForDaemonizationTest, TimeOutIsSilentAtVerbositySix) {
    addLaunched();
    EXPECT_EQ(tracesAt(6), "");
}

TEST_F(WaitForDaemonizationTest, TracesTheTerminationOnce) {
    scriptNoDaemon();
    EXPECT_EQ(tracesAt(8),
              "waitForDaemonization: waiting for pid=601 name=data_server starting at 1700000000\n"
              "waitForDaemonization: pid=601, termination time_t=1700000000\n"
              "waitForDaemonization: pid=601, name=data_server timeout at 1700000031!!!\n");
}

TEST_F(WaitForDaemonizationTest, WritesNothingToTheLog) {
    (void)manager_.initCommunication(); // opens the log
    world().forgetRecords();
    addLaunched();
    (void)wait();
    EXPECT_THAT(world().log, IsEmpty());
}

} // namespace
} // namespace launches
