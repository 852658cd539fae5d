#include "runtime/Signals.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "runtime/Globals.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/runtime/RuntimeSupport.h"
#include "tests/unit/runtime/SignalsSupport.h"

namespace {

using fakes::kFirstDescriptor;
using fakes::world;
using levels::kLevelDebug;
using levels::kLevelError;
using runtimetest::kDevice;
using runtimetest::tick;
using runtimetest::tickInfo;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class TimerHandlerTest : public runtimetest::SignalsTest {
protected:
    /// How many of `ticks` ticks feed the watchdog.
    static std::size_t feedsOf(int ticks) {
        wdog_fd = kDevice;
        for (int count = 0; count < ticks; ++count) {
            tick();
        }
        return world().count("write");
    }
};

TEST_F(TimerHandlerTest, OpensFeedsAndFlushes) {
    tick();
    const std::string device = std::to_string(kFirstDescriptor + 1);
    EXPECT_THAT(world().calls,
                ElementsAre("watchdog", "write " + device + " 1", "fsync " + device));
    EXPECT_EQ(world().writtenTo(kFirstDescriptor + 1), "w");
    EXPECT_EQ(wdog_fd, kFirstDescriptor + 1);
    EXPECT_EQ(thread_heartbeat_counter, 1U);
    EXPECT_EQ(world().errorText(), "");
}

TEST_F(TimerHandlerTest, OpensOnlyOnce) {
    tick();
    tick();
    EXPECT_EQ(world().count("watchdog"), 1U);
    EXPECT_EQ(world().writtenTo(wdog_fd), "ww");
    EXPECT_EQ(thread_heartbeat_counter, 2U);
}

TEST_F(TimerHandlerTest, OpenDeviceIsFedAtOnce) {
    wdog_fd = kDevice;
    tick();
    EXPECT_THAT(world().calls, ElementsAre("write 77000 1", "fsync 77000"));
}

TEST_F(TimerHandlerTest, FailingFeedCountsAndKeepsTheDevice) {
    wdog_fd = kDevice;
    world().writeResults = {{-1, EIO}};
    world().flushResults = {{-1, EINVAL}};
    tick();
    EXPECT_EQ(wdog_fd, kDevice);
    EXPECT_EQ(thread_heartbeat_counter, 1U);
    EXPECT_EQ(world().errorText(), "");
    EXPECT_EQ(world().count("closefd"), 0U);
    tick();
    EXPECT_EQ(world().count("watchdog"), 0U);
    EXPECT_EQ(world().writtenTo(kDevice), "w");
}

TEST_F(TimerHandlerTest, ErrorOfTheLastFeedIsKept) {
    wdog_fd = kDevice;
    world().writeResults = {{-1, ENODEV}, {-1, 0}, {0, 0}, {1, 0}};
    for (const int error : {ENODEV, EIO, EIO, 0}) {
        errno = ENOTTY;
        tick();
        EXPECT_EQ(g_watchdogError, error);
    }
}

TEST_F(TimerHandlerTest, KeepsErrno) {
    wdog_fd = kDevice;
    world().writeResults = {{-1, EIO}};
    errno = ENOTTY;
    tick();
    EXPECT_EQ(errno, ENOTTY);
}

TEST_F(TimerHandlerTest, IgnoresOtherSignals) {
    for (const int signal : {SIGUSR2, SIGALRM, SIGTERM, SIGRTMIN}) {
        siginfo_t info = tickInfo();
        timerHandler(signal, &info, nullptr);
    }
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_EQ(thread_heartbeat_counter, 0U);
    EXPECT_EQ(detect_heartbeat, 0);
}

TEST_F(TimerHandlerTest, IgnoresTicksWithAnotherValue) {
    siginfo_t info = tickInfo();
    info.si_value.sival_ptr = &saved_sa;
    timerHandler(SIGUSR1, &info, nullptr);
    info.si_value.sival_ptr = nullptr;
    timerHandler(SIGUSR1, &info, nullptr);
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_EQ(thread_heartbeat_counter, 0U);
    EXPECT_EQ(detect_heartbeat, 0);
}

struct Deferral {
    std::int64_t uptimeSec;
    std::int32_t deferTime;
    bool feeds;
};

class DeferTimeTest : public TimerHandlerTest, public testing::WithParamInterface<Deferral> {};

TEST_P(DeferTimeTest, FeedsFromThatUptimeOn) {
    world().uptimeSec = GetParam().uptimeSec;
    watchdogDeferTime = GetParam().deferTime;
    tick();
    EXPECT_EQ(world().count("write"), GetParam().feeds ? 1U : 0U);
    EXPECT_EQ(world().count("watchdog"), GetParam().feeds ? 1U : 0U);
    EXPECT_EQ(detect_heartbeat, GetParam().feeds ? 1 : 0);
    EXPECT_EQ(thread_heartbeat_counter, GetParam().feeds ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(Uptimes, DeferTimeTest,
                         testing::Values(Deferral{60, 120, false}, Deferral{119, 120, false},
                                         Deferral{120, 120, true}, Deferral{121, 120, true},
                                         Deferral{0, 0, true}, Deferral{299, 300, false},
                                         Deferral{300, 300, true}, Deferral{0, -5, true}));

TEST_F(TimerHandlerTest, UptimeThatCannotBeReadCountsAsLongEnough) {
    world().uptimeSec = -1;
    tick();
    EXPECT_EQ(detect_heartbeat, 1);
    EXPECT_EQ(world().count("write"), 1U);
}

TEST_F(TimerHandlerTest, OnceBegunFeedingIsNotDeferredAgain) {
    tick();
    world().uptimeSec = 1;
    tick();
    EXPECT_EQ(world().count("write"), 2U);
    EXPECT_EQ(detect_heartbeat, 1);
}

struct Limit {
    std::int32_t intervalSec;
    std::size_t feeds;
};

class StallLimitTest : public TimerHandlerTest, public testing::WithParamInterface<Limit> {
protected:
    void SetUp() override {
        TimerHandlerTest::SetUp();
        watchdog_timer_inteval = GetParam().intervalSec;
    }
};

TEST_P(StallLimitTest, FeedingStopsAndStaysStopped) {
    EXPECT_EQ(feedsOf(100), GetParam().feeds);
    EXPECT_EQ(thread_heartbeat_counter, GetParam().feeds);
}

TEST_P(StallLimitTest, ResetCounterLetsItGoOn) {
    feedsOf(100);
    thread_heartbeat_counter = 0;
    EXPECT_EQ(feedsOf(100), 2 * GetParam().feeds);
}

INSTANTIATE_TEST_SUITE_P(Intervals, StallLimitTest,
                         testing::Values(Limit{1, 25}, Limit{2, 12}, Limit{5, 5}, Limit{12, 2},
                                         Limit{13, 1}, Limit{25, 1}, Limit{26, 0}, Limit{30, 0},
                                         Limit{0, 25}, Limit{-1, 25}));

TEST_F(TimerHandlerTest, CounterIsComparedUnsigned) {
    thread_heartbeat_counter = 0xFFFFFFFFU;
    EXPECT_EQ(feedsOf(1), 0U);
}

TEST_F(TimerHandlerTest, StalledLoopOpensNothing) {
    thread_heartbeat_counter = 5;
    tick();
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(TimerHandlerTest, MissingDeviceIsShownLoggedAndCounted) {
    world().watchdogResults = {{-1, ENOENT}};
    tick();
    EXPECT_EQ(world().errorText(), "Error: No such file or directory\n");
    EXPECT_EQ(wdog_fd, -1);
    EXPECT_EQ(thread_heartbeat_counter, 1U);
    EXPECT_EQ(world().count("write"), 0U);
    EXPECT_THAT(world().log, IsEmpty()); // the handler leaves that to the main loop

    reportWatchdogEvents();
    EXPECT_THAT(world().logTexts(kLevelError), ElementsAre(" watch dog open failure, exit"));
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(TimerHandlerTest, MissingDeviceIsTriedAtEveryTickUntilTheLimit) {
    for (int count = 0; count < 10; ++count) {
        world().watchdogResults.push_back({-1, EBUSY});
    }
    for (int count = 0; count < 10; ++count) {
        tick();
    }
    EXPECT_EQ(world().count("watchdog"), 5U);
    EXPECT_EQ(thread_heartbeat_counter, 5U);
    reportWatchdogEvents();
    EXPECT_THAT(world().logTexts(kLevelError), SizeIs(5));
    reportWatchdogEvents();
    EXPECT_THAT(world().logTexts(kLevelError), SizeIs(5));
}

TEST_F(TimerHandlerTest, DeviceThatAppearsLaterIsFed) {
    world().watchdogResults = {{-1, EBUSY}};
    tick();
    tick();
    EXPECT_EQ(world().writtenTo(wdog_fd), "w");
    EXPECT_EQ(thread_heartbeat_counter, 2U);
}

TEST_F(TimerHandlerTest, KickIsReportedAboveVerbosityFive) {
    g_verbose = 6;
    tick();
    reportWatchdogEvents();
    EXPECT_EQ(world().consoleText(), "kicked watchdog... 1\n");
    EXPECT_THAT(world().logTexts(kLevelDebug), ElementsAre("kicked watchdog"));
    EXPECT_THAT(world().log, SizeIs(1));
}

TEST_F(TimerHandlerTest, KickIsNotReportedAtVerbosityFive) {
    g_verbose = 5;
    tick();
    reportWatchdogEvents();
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(TimerHandlerTest, KickIsReportedOnce) {
    g_verbose = 6;
    tick();
    reportWatchdogEvents();
    reportWatchdogEvents();
    EXPECT_THAT(world().log, SizeIs(1));
}

TEST_F(TimerHandlerTest, FailedKickIsReportedWithItsResult) {
    g_verbose = 6;
    world().writeResults = {{-1, EIO}};
    tick();
    reportWatchdogEvents();
    EXPECT_EQ(world().consoleText(), "kicked watchdog... -1\n");
}

TEST_F(TimerHandlerTest, EachKickIsReportedWithItsOwnResult) {
    g_verbose = 6;
    world().writeResults = {{-1, EIO}, {1, 0}};
    tick();
    tick();
    reportWatchdogEvents();
    EXPECT_EQ(world().consoleText(), "kicked watchdog... -1\nkicked watchdog... 1\n");
    EXPECT_THAT(world().logTexts(kLevelDebug), SizeIs(2));
}

TEST_F(TimerHandlerTest, TickThatDoesNotFeedReportsNothing) {
    g_verbose = 9;
    world().uptimeSec = 1;
    tick();
    reportWatchdogEvents();
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_THAT(world().log, IsEmpty());
}

// --- timerHandler, saved SIGCONT action ----------------------------------------------------------

int g_plainSignal = 0;
int g_fullSignal = 0;
siginfo_t* g_fullInfo = nullptr;
void* g_fullContext = nullptr;

void plainHandler(int sig) {
    g_plainSignal = sig;
}

void fullHandler(int sig, siginfo_t* info, void* context) {
    g_fullSignal = sig;
    g_fullInfo = info;
    g_fullContext = context;
}

TEST_F(TimerHandlerTest, ContinueSignalCallsTheSavedPlainHandler) {
    g_plainSignal = 0;
    savedSigAction_SIGCONT.sa_handler = plainHandler;
    siginfo_t info = tickInfo();
    timerHandler(SIGCONT, &info, nullptr);
    EXPECT_EQ(g_plainSignal, SIGCONT);
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_EQ(thread_heartbeat_counter, 0U);
}

TEST_F(TimerHandlerTest, ContinueSignalCallsTheSavedFullHandlerWithAllArguments) {
    g_fullSignal = 0;
    savedSigAction_SIGCONT.sa_sigaction = fullHandler;
    savedSigAction_SIGCONT.sa_flags = SA_SIGINFO;
    siginfo_t info = tickInfo();
    int context = 0;
    timerHandler(SIGCONT, &info, &context);
    EXPECT_EQ(g_fullSignal, SIGCONT);
    EXPECT_EQ(g_fullInfo, &info);
    EXPECT_EQ(g_fullContext, &context);
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(TimerHandlerTest, ContinueSignalWithoutSavedHandlerDoesNothing) {
    siginfo_t info = tickInfo();
    for (auto* const action : {SIG_DFL, SIG_IGN}) {
        savedSigAction_SIGCONT.sa_handler = action;
        timerHandler(SIGCONT, &info, nullptr);
    }
    EXPECT_THAT(world().calls, IsEmpty());
}

// --- a tick within a tick ------------------------------------------------------------------------

/// A second tick arrives while the first one opens the watchdog device.
class NestedTickTest : public TimerHandlerTest {
protected:
    static void nestedTicks() {
        world().onCall = [](const std::string& call) {
            if (call == "watchdog") {
                world().onCall = nullptr;
                tick();
            }
        };
        tick();
    }
};

TEST_F(NestedTickTest, DescriptorThatComesSecondIsClosed) {
    world().watchdogResults = {{77001, 0}, {77002, 0}}; // of the inner tick, of the outer one
    nestedTicks();
    EXPECT_EQ(wdog_fd, 77001);
    EXPECT_THAT(world().callsOf("closefd"), ElementsAre("closefd 77002"));
    EXPECT_EQ(world().count("watchdog"), 2U);
}

TEST_F(NestedTickTest, BothTicksFeedTheOneDeviceAndCount) {
    world().watchdogResults = {{77001, 0}, {77002, 0}};
    nestedTicks();
    EXPECT_EQ(world().writtenTo(77001), "ww");
    EXPECT_EQ(world().writtenTo(77002), "");
    EXPECT_EQ(thread_heartbeat_counter, 2U);
}

TEST_F(NestedTickTest, DeviceThatOnlyTheInnerTickGetsStaysOpen) {
    world().watchdogResults = {{77001, 0}, {-1, EBUSY}};
    nestedTicks();
    EXPECT_EQ(wdog_fd, 77001);
    EXPECT_EQ(world().count("closefd"), 0U);
    EXPECT_EQ(thread_heartbeat_counter, 2U);
}

TEST_F(NestedTickTest, DeviceThatOnlyTheOuterTickGetsStaysOpen) {
    world().watchdogResults = {{-1, EBUSY}, {77002, 0}};
    nestedTicks();
    EXPECT_EQ(wdog_fd, 77002);
    EXPECT_EQ(world().count("closefd"), 0U);
    EXPECT_EQ(world().writtenTo(77002), "w");
    EXPECT_EQ(world().errorText(), "Error: Device or resource busy\n");
    EXPECT_EQ(thread_heartbeat_counter, 2U);
}

TEST_F(NestedTickTest, TickWithinAFeedFeedsToo) {
    wdog_fd = kDevice;
    world().onCall = [](const std::string& call) {
        if (call == "write 77000 1") {
            world().onCall = nullptr;
            tick();
        }
    };
    tick();
    EXPECT_EQ(world().writtenTo(kDevice), "ww");
    EXPECT_EQ(thread_heartbeat_counter, 2U);
}

} // namespace
