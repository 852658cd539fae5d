#include "runtime/Signals.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Wait.h"
#include "runtime/Globals.h"
#include "runtime/MainLoop.h"
#include "runtime/MonitorPidFile.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/ExitStatus.h"
#include "tests/unit/runtime/RuntimeSupport.h"
#include "tests/unit/runtime/SignalsSupport.h"

namespace {

// The watchdog's timer, and the main loop that keeps it feeding.

using fakes::world;
using runtimetest::blockForReal;
using runtimetest::isBlocked;
using runtimetest::tick;
using testing::ElementsAre;
using testing::IsEmpty;

class WatchdogTimerTest : public runtimetest::SignalsTest {};

TEST_F(WatchdogTimerTest, TimerIsInstalledCreatedAndArmed) {
    startWatchdogTimer();
    EXPECT_THAT(world().calls, ElementsAre("sigaction " + std::to_string(SIGUSR1),
                                           "createTimer " + std::to_string(SIGUSR1), "armTimer 5"));
    EXPECT_NE(timerid, kNoTimer);
    EXPECT_EQ(world().timerSignal, SIGUSR1);
    EXPECT_EQ(world().timerValue, &timerid);
    EXPECT_EQ(world().errorText(), "");
}

TEST_F(WatchdogTimerTest, TimerHandlerTakesThreeArgumentsAndDoesNotBlockItself) {
    startWatchdogTimer();
    const struct sigaction& action = world().actions[SIGUSR1];
    EXPECT_EQ(action.sa_sigaction, timerHandler);
    EXPECT_EQ(action.sa_flags, SA_SIGINFO | SA_NODEFER);
    for (int signal = 1; signal < SIGRTMIN; ++signal) {
        EXPECT_EQ(sigismember(&action.sa_mask, signal), 0) << signal;
    }
}

TEST_F(WatchdogTimerTest, TimerKeepsThePreviousAction) {
    world().actions[SIGUSR1].sa_handler = runtimetest::someHandler;
    startWatchdogTimer();
    EXPECT_EQ(saved_sa.sa_handler, runtimetest::someHandler);
}

class TimerPeriodTest : public WatchdogTimerTest,
                        public testing::WithParamInterface<std::pair<std::int32_t, const char*>> {};

TEST_P(TimerPeriodTest, IsTheIntervalAndAtLeastOne) {
    watchdog_timer_inteval = GetParam().first;
    startWatchdogTimer();
    EXPECT_THAT(world().callsOf("armTimer"), ElementsAre(GetParam().second));
}

INSTANTIATE_TEST_SUITE_P(Intervals, TimerPeriodTest,
                         testing::Values(std::pair(30, "armTimer 30"), std::pair(1, "armTimer 1"),
                                         std::pair(0, "armTimer 1"), std::pair(-5, "armTimer 1")));

TEST_F(WatchdogTimerTest, TimerHandlerThatIsRefusedEndsTheMonitor) {
    world().sigactionErrors[SIGUSR1] = EINVAL;
    EXPECT_EQ(exitStatusOf(startWatchdogTimer), 1);
    EXPECT_EQ(world().errorText(), "sigaction SIGUSR1 error: Invalid argument\n");
    EXPECT_EQ(world().count("createTimer"), 0U);
    EXPECT_THAT(world().log, IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(WatchdogTimerTest, TimerThatCannotBeCreatedEndsTheMonitor) {
    world().createTimerErrors = {EAGAIN};
    EXPECT_EQ(exitStatusOf(startWatchdogTimer), 1);
    EXPECT_EQ(world().errorText(), "timer_create error: Resource temporarily unavailable\n");
    EXPECT_EQ(world().count("armTimer"), 0U);
    EXPECT_EQ(timerid, kNoTimer);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(WatchdogTimerTest, TimerThatCannotBeArmedEndsTheMonitor) {
    world().armTimerErrors = {EINVAL};
    EXPECT_EQ(exitStatusOf(startWatchdogTimer), 1);
    EXPECT_EQ(world().errorText(), "timer_settime error: Invalid argument\n");
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(WatchdogTimerTest, TimerSignalIsLetIn) {
    blockForReal(SIGUSR1);
    startWatchdogTimer();
    EXPECT_FALSE(isBlocked(SIGUSR1));
}

// --- the main loop -------------------------------------------------------------------------------

/// A main loop during whose waits the timer expires.
class WatchdogLoopTest : public WatchdogTimerTest {
protected:
    void SetUp() override {
        WatchdogTimerTest::SetUp();
        initWatchDog = true;
        wdog_fd = runtimetest::kDevice;
    }

    /// Runs one turn for each entry of `ticks`, with so many ticks in it. Returns how many of them
    /// fed the watchdog, turn by turn.
    static std::vector<std::size_t> feedsOf(const std::vector<int>& ticks) {
        constexpr int kNever = 1000000; // seconds: no status check is due
        std::vector<std::size_t> feeds;
        world().onWait = [&](int /*fd*/, int /*timeoutMs*/) {
            const std::size_t before = world().count("write");
            for (int count = 0; count < ticks[feeds.size()]; ++count) {
                tick();
            }
            feeds.push_back(world().count("write") - before);
            world().waitResults = {platform::WaitResult::Failed};
            if (feeds.size() == ticks.size()) {
                g_bDaemonShutdown = -1;
            }
        };
        MonitorPidFile pidFile;
        EXPECT_EQ(MainLoop(*appmgr, pidFile, kNever).run(), 0);
        return feeds;
    }
};

TEST_F(WatchdogLoopTest, EveryTickFeedsWhileTheLoopTurns) {
    EXPECT_THAT(feedsOf({1, 4, 5, 0, 5, 5}), ElementsAre(1, 4, 5, 0, 5, 5));
}

TEST_F(WatchdogLoopTest, FeedingStopsInATurnThatHangsAndResumesWithTheNextOne) {
    EXPECT_THAT(feedsOf({3, 50, 3, 6, 1}), ElementsAre(3, 5, 3, 5, 1));
}

TEST_F(WatchdogLoopTest, BudgetIsTwentyFiveSecondsOfTicks) {
    watchdog_timer_inteval = 10;
    EXPECT_THAT(feedsOf({9, 9}), ElementsAre(2, 2));
}

TEST_F(WatchdogLoopTest, WithoutTheOptionFeedingDoesNotResume) {
    initWatchDog = false;
    EXPECT_THAT(feedsOf({6, 6}), ElementsAre(5, 0));
}

} // namespace
