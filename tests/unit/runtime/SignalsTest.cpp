#include "runtime/Signals.h"

#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Signals.h"
#include "runtime/Globals.h"
#include "tests/fakes/FakePlatform.h"

namespace {

using fakes::kFirstDescriptor;
using fakes::world;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int kLevelError = 3;
constexpr int kLevelDebug = 7;
constexpr int kDevice = 77000;

std::string signalCall(int signal, const char* kind) {
    return "signal " + std::to_string(signal) + ' ' + kind;
}

bool isBlocked(int signal) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

void blockForReal(int signal) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

auto handlerOf(int signal) {
    return world().actions[signal].sa_handler;
}

/// Status with which `action` ends the monitor; -1000 when it returns.
template <typename Action> int exitStatusOf(Action action) {
    try {
        action();
    } catch (const fakes::ExitMonitorCalled& called) {
        return called.status;
    }
    return -1000;
}

/// The manager's log is open, nothing of earlier tests is left to report.
class SignalsTest : public testing::Test {
protected:
    void SetUp() override {
        appmgr = AppManager::Instance(g_verbose);
        appmgr->initCommunication();
        reportWatchdogEvents();
        world().forgetRecords();
    }
};

// --- timerHandler --------------------------------------------------------------------------------

/// The system has been up for long, the watchdog is closed.
class TimerHandlerTest : public SignalsTest {
protected:
    static siginfo_t tickInfo() {
        siginfo_t info = {};
        info.si_signo = SIGUSR1;
        info.si_value.sival_ptr = &timerid;
        return info;
    }

    static void tick() {
        siginfo_t info = tickInfo();
        timerHandler(SIGUSR1, &info, nullptr);
    }

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

// --- mysig_handler -------------------------------------------------------------------------------

class LoggingHandlerTest : public SignalsTest, public testing::WithParamInterface<int> {};

TEST_P(LoggingHandlerTest, WritesOneEventAndNothingElse) {
    g_verbose = 9;
    errno = ENOTTY;
    mysig_handler(GetParam());
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_THAT(world().events, ElementsAre("Ovard: Caught signal " + std::to_string(GetParam())));
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_THAT(world().log, IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_EQ(g_bDaemonShutdown, 0);
}

INSTANTIATE_TEST_SUITE_P(Signals, LoggingHandlerTest,
                         testing::Values(SIGHUP, SIGINT, SIGTERM, SIGSEGV, SIGABRT, SIGPIPE,
                                         SIGTRAP));

// --- mySIGTERM_handler ---------------------------------------------------------------------------

TEST_F(SignalsTest, InterruptOnlyRestoresTheDefaultActions) {
    mySIGTERM_handler(SIGINT);
    EXPECT_THAT(world().calls,
                ElementsAre(signalCall(SIGINT, "default"), signalCall(SIGKILL, "default"),
                            signalCall(SIGTERM, "default")));
    EXPECT_EQ(g_bDaemonShutdown, 0);
    EXPECT_THAT(world().events, IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_NE(appmgr, nullptr);
}

class TerminatingSignalTest : public SignalsTest, public testing::WithParamInterface<int> {};

TEST_P(TerminatingSignalTest, ShutsDownAndThenRestoresTheDefaultActions) {
    mySIGTERM_handler(GetParam());
    EXPECT_EQ(g_bDaemonShutdown, -1);
    EXPECT_EQ(appmgr, nullptr);
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Stopped."));
    const std::size_t size = world().calls.size();
    ASSERT_GE(size, 3U);
    EXPECT_EQ(world().calls[size - 3], signalCall(SIGINT, "default"));
    EXPECT_EQ(world().calls[size - 2], signalCall(SIGKILL, "default"));
    EXPECT_EQ(world().calls[size - 1], signalCall(SIGTERM, "default"));
}

INSTANTIATE_TEST_SUITE_P(Signals, TerminatingSignalTest, testing::Values(SIGTERM, SIGKILL));

TEST_F(SignalsTest, SecondTerminationShutsNothingDownAgain) {
    mySIGTERM_handler(SIGTERM);
    world().forgetRecords();
    mySIGTERM_handler(SIGTERM);
    EXPECT_THAT(world().events, IsEmpty());
    EXPECT_THAT(world().calls,
                ElementsAre(signalCall(SIGINT, "default"), signalCall(SIGKILL, "default"),
                            signalCall(SIGTERM, "default")));
}

// --- installation --------------------------------------------------------------------------------

TEST_F(SignalsTest, TerminationHandlerIsInstalledForThreeSignals) {
    installTerminationHandler();
    EXPECT_THAT(world().calls,
                ElementsAre(signalCall(SIGINT, "handler"), signalCall(SIGKILL, "handler"),
                            signalCall(SIGTERM, "handler")));
    EXPECT_EQ(handlerOf(SIGINT), mySIGTERM_handler);
    EXPECT_EQ(handlerOf(SIGTERM), mySIGTERM_handler);
    EXPECT_EQ(world().errorText(), "");
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(SignalsTest, RefusedInterruptHandlerIsNotLookedAt) {
    world().signalErrors[SIGINT] = EINVAL;
    EXPECT_EQ(exitStatusOf(installTerminationHandler), -1000);
    EXPECT_EQ(handlerOf(SIGTERM), mySIGTERM_handler);
    EXPECT_EQ(world().errorText(), "");
}

TEST_F(SignalsTest, RefusedTerminationHandlerEndsTheMonitor) {
    g_verbose = 9;
    world().signalErrors[SIGTERM] = EINVAL;
    EXPECT_EQ(exitStatusOf(installTerminationHandler), 1);
    EXPECT_EQ(world().errorText(), "signal_term: Invalid argument\n");
    EXPECT_THAT(world().logTexts(kLevelError), ElementsAre(" signal_term failure, exit"));
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(SignalsTest, LoggingHandlerIsInstalledForSevenSignalsInOrder) {
    installLoggingHandler();
    EXPECT_THAT(world().calls,
                ElementsAre(signalCall(SIGHUP, "handler"), signalCall(SIGINT, "handler"),
                            signalCall(SIGTERM, "handler"), signalCall(SIGSEGV, "handler"),
                            signalCall(SIGABRT, "handler"), signalCall(SIGPIPE, "handler"),
                            signalCall(SIGTRAP, "handler")));
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGSEGV, SIGABRT, SIGPIPE, SIGTRAP}) {
        EXPECT_EQ(handlerOf(signal), mysig_handler) << signal;
    }
    EXPECT_EQ(world().errorText(), "");
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_THAT(world().log, IsEmpty());
}

struct Refusal {
    int signal;
    unsigned calls;
    const char* console;
    const char* error;
    const char* log;
};

class RefusedLoggingHandlerTest : public SignalsTest, public testing::WithParamInterface<Refusal> {
protected:
    void SetUp() override {
        SignalsTest::SetUp();
        world().signalErrors[GetParam().signal] = EINVAL;
    }
};

TEST_P(RefusedLoggingHandlerTest, EndsTheMonitorWithItsTexts) {
    g_verbose = 1;
    EXPECT_EQ(exitStatusOf(installLoggingHandler), 1);
    EXPECT_EQ(world().consoleText(), GetParam().console);
    EXPECT_EQ(world().errorText(), GetParam().error);
    EXPECT_THAT(world().logTexts(kLevelError), ElementsAre(GetParam().log));
    EXPECT_THAT(world().log, SizeIs(1));
    EXPECT_EQ(world().count("signal"), GetParam().calls); // the first failure is the last attempt
}

TEST_P(RefusedLoggingHandlerTest, PrintsNothingAtVerbosityZero) {
    g_verbose = 0;
    EXPECT_EQ(exitStatusOf(installLoggingHandler), 1);
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_EQ(world().errorText(), GetParam().error);
    EXPECT_THAT(world().logTexts(kLevelError), ElementsAre(GetParam().log));
}

INSTANTIATE_TEST_SUITE_P(
    Signals, RefusedLoggingHandlerTest,
    testing::Values(Refusal{SIGHUP, 1, "block signal(SIGHUP) failure! errno=22\n",
                            "signal_hup: Invalid argument\n", " signal_hup failure, exit"},
                    Refusal{SIGINT, 2, "block signal(SIGINT) failure! errno=22\n",
                            "signal_int: Invalid argument\n", " signal_int failure, exit"},
                    Refusal{SIGTERM, 3, "block signal(SIGTERM) failure! errno=22\n",
                            "signal_term: Invalid argument\n", " signal_term failure, exit"},
                    Refusal{SIGSEGV, 4, "block signal(SIGSEGV) failure! errno=22\n",
                            "signal_segv: Invalid argument\n", " signal_segv failure, exit"},
                    Refusal{SIGABRT, 5, "block signal(SIGABRT) failure! errno=22\n",
                            "signal_abort: Invalid argument\n", " signal_abort failure, exit"},
                    Refusal{SIGPIPE, 6, "block signal(SIGPIPE) failure! errno=22\n",
                            "signal_pipe: Invalid argument\n", " signal_pipe failure, exit"},
                    Refusal{SIGTRAP, 7, "", "signal_trap: Invalid argument\n",
                            " signal_trap failure, exit"}));

TEST_F(SignalsTest, SevenSignalsGetTheirDefaultActionsBack) {
    restoreLoggedSignals();
    EXPECT_THAT(world().calls, testing::UnorderedElementsAre(
                                   signalCall(SIGHUP, "default"), signalCall(SIGINT, "default"),
                                   signalCall(SIGTERM, "default"), signalCall(SIGSEGV, "default"),
                                   signalCall(SIGABRT, "default"), signalCall(SIGPIPE, "default"),
                                   signalCall(SIGTRAP, "default")));
}

// --- the timer -----------------------------------------------------------------------------------

TEST_F(SignalsTest, TimerIsInstalledCreatedAndArmed) {
    startWatchdogTimer();
    EXPECT_THAT(world().calls, ElementsAre("sigaction " + std::to_string(SIGUSR1),
                                           "createTimer " + std::to_string(SIGUSR1), "armTimer 5"));
    EXPECT_NE(timerid, kNoTimer);
    EXPECT_EQ(world().timerSignal, SIGUSR1);
    EXPECT_EQ(world().timerValue, &timerid);
    EXPECT_EQ(world().errorText(), "");
}

TEST_F(SignalsTest, TimerHandlerTakesThreeArgumentsAndDoesNotBlockItself) {
    startWatchdogTimer();
    const struct sigaction& action = world().actions[SIGUSR1];
    EXPECT_EQ(action.sa_sigaction, timerHandler);
    EXPECT_EQ(action.sa_flags, SA_SIGINFO | SA_NODEFER);
    for (int signal = 1; signal < SIGRTMIN; ++signal) {
        EXPECT_EQ(sigismember(&action.sa_mask, signal), 0) << signal;
    }
}

TEST_F(SignalsTest, TimerKeepsThePreviousAction) {
    world().actions[SIGUSR1].sa_handler = plainHandler;
    startWatchdogTimer();
    EXPECT_EQ(saved_sa.sa_handler, plainHandler);
}

class TimerPeriodTest : public SignalsTest,
                        public testing::WithParamInterface<std::pair<std::int32_t, const char*>> {};

TEST_P(TimerPeriodTest, IsTheIntervalAndAtLeastOne) {
    watchdog_timer_inteval = GetParam().first;
    startWatchdogTimer();
    EXPECT_THAT(world().callsOf("armTimer"), ElementsAre(GetParam().second));
}

INSTANTIATE_TEST_SUITE_P(Intervals, TimerPeriodTest,
                         testing::Values(std::pair(30, "armTimer 30"), std::pair(1, "armTimer 1"),
                                         std::pair(0, "armTimer 1"), std::pair(-5, "armTimer 1")));

TEST_F(SignalsTest, TimerHandlerThatIsRefusedEndsTheMonitor) {
    world().sigactionErrors[SIGUSR1] = EINVAL;
    EXPECT_EQ(exitStatusOf(startWatchdogTimer), 1);
    EXPECT_EQ(world().errorText(), "sigaction SIGUSR1 error: Invalid argument\n");
    EXPECT_EQ(world().count("createTimer"), 0U);
    EXPECT_THAT(world().log, IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(SignalsTest, TimerThatCannotBeCreatedEndsTheMonitor) {
    world().createTimerErrors = {EAGAIN};
    EXPECT_EQ(exitStatusOf(startWatchdogTimer), 1);
    EXPECT_EQ(world().errorText(), "timer_create error: Resource temporarily unavailable\n");
    EXPECT_EQ(world().count("armTimer"), 0U);
    EXPECT_EQ(timerid, kNoTimer);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(SignalsTest, TimerThatCannotBeArmedEndsTheMonitor) {
    world().armTimerErrors = {EINVAL};
    EXPECT_EQ(exitStatusOf(startWatchdogTimer), 1);
    EXPECT_EQ(world().errorText(), "timer_settime error: Invalid argument\n");
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(SignalsTest, TimerSignalIsLetIn) {
    blockForReal(SIGUSR1);
    startWatchdogTimer();
    EXPECT_FALSE(isBlocked(SIGUSR1));
}

// --- holding and admitting -----------------------------------------------------------------------

TEST_F(SignalsTest, HoldingSavesTheMaskAndBlocksTheTerminationSignals) {
    blockForReal(SIGWINCH);
    holdTerminationSignals();
    EXPECT_EQ(sigismember(&prevMask, SIGWINCH), 1);
    EXPECT_EQ(sigismember(&prevMask, SIGTERM), 0);
    EXPECT_EQ(sigismember(&prevMask, SIGINT), 0);
    EXPECT_TRUE(isBlocked(SIGTERM));
    EXPECT_TRUE(isBlocked(SIGINT));
    EXPECT_FALSE(isBlocked(SIGHUP));
    EXPECT_EQ(sigismember(&world().watchedSignals, SIGTERM), 1);
    EXPECT_EQ(sigismember(&world().watchedSignals, SIGINT), 1);
    EXPECT_EQ(g_exitMonitor, exitMonitorFromAnyThread);
}

TEST_F(SignalsTest, WithLoggedSignalsNoneIsHeld) {
    block_signal = true;
    holdTerminationSignals();
    EXPECT_FALSE(isBlocked(SIGTERM));
    EXPECT_FALSE(isBlocked(SIGINT));
    EXPECT_EQ(sigismember(&world().watchedSignals, SIGTERM), 0);
    EXPECT_EQ(sigismember(&world().watchedSignals, SIGINT), 0);
}

TEST_F(SignalsTest, LoggedSignalsAreLetInWhoeverBlockedThem) {
    blockForReal(SIGHUP);
    blockForReal(SIGTERM);
    installLoggingHandler();
    EXPECT_FALSE(isBlocked(SIGHUP));
    EXPECT_FALSE(isBlocked(SIGTERM));
}

volatile sig_atomic_t g_realTerminations = 0;

void countRealTermination(int /*sig*/) {
    g_realTerminations = g_realTerminations + 1;
}

/// A real handler for SIGTERM, so that one that is let in shows.
class AdmissionTest : public SignalsTest {
protected:
    void SetUp() override {
        SignalsTest::SetUp();
        g_realTerminations = 0;
        struct sigaction action = {};
        action.sa_handler = countRealTermination;
        sigemptyset(&action.sa_mask);
        ::sigaction(SIGTERM, &action, &saved_);
    }
    ~AdmissionTest() override { ::sigaction(SIGTERM, &saved_, nullptr); }

    struct sigaction saved_ = {};
};

TEST_F(AdmissionTest, HeldSignalIsLetInAtThisLineOnly) {
    holdTerminationSignals();
    ::raise(SIGTERM);
    EXPECT_EQ(g_realTerminations, 0);
    admitTerminationSignals();
    EXPECT_EQ(g_realTerminations, 1);
    EXPECT_TRUE(isBlocked(SIGTERM));
    EXPECT_TRUE(isBlocked(SIGINT));
}

TEST_F(AdmissionTest, AfterAShutdownSignalsStayAdmitted) {
    holdTerminationSignals();
    g_bDaemonShutdown = -1;
    admitTerminationSignals();
    EXPECT_FALSE(isBlocked(SIGTERM));
    EXPECT_FALSE(isBlocked(SIGINT));
}

using ExitDeathTest = SignalsTest;

TEST_F(ExitDeathTest, MainThreadExitsAtOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            holdTerminationSignals();
            exitMonitorFromAnyThread(7);
        },
        testing::ExitedWithCode(7), "");
}

void* exitFromThread(void* /*unused*/) {
    exitMonitorFromAnyThread(9);
    return nullptr;
}

TEST_F(ExitDeathTest, OtherThreadsLeaveItToTheMainThread) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            holdTerminationSignals();
            world().realSleepMicros = 1000;
            pthread_t thread = 0;
            pthread_create(&thread, nullptr, exitFromThread, nullptr);
            for (;;) {
                admitTerminationSignals();
            }
        },
        testing::ExitedWithCode(9), "");
}

} // namespace
