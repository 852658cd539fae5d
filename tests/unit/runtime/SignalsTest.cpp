#include "runtime/Signals.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Wait.h"
#include "runtime/Globals.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/ExitStatus.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/runtime/RuntimeSupport.h"
#include "tests/unit/runtime/SignalsSupport.h"

namespace {

using fakes::world;
using levels::kLevelError;
using runtimetest::blockForReal;
using runtimetest::isBlocked;
using runtimetest::signalCall;
using runtimetest::SignalsTest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

auto handlerOf(int signal) {
    return world().actions[signal].sa_handler;
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

TEST_F(SignalsTest, InterruptLeavesTheHandlerOfAHeldTermination) {
    platform::watchForTermination({});
    world().terminationIsPending = true;
    world().forgetRecords();
    mySIGTERM_handler(SIGINT);
    EXPECT_THAT(world().calls,
                ElementsAre(signalCall(SIGINT, "default"), signalCall(SIGKILL, "default")));
    EXPECT_EQ(g_bDaemonShutdown, 0);
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
    EXPECT_EQ(exitStatusOf(installTerminationHandler), kReturned);
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

// --- holding and admitting -----------------------------------------------------------------------

// SIGINT does not end the monitor at first, so it must not cut the waits short either.
TEST_F(SignalsTest, HoldingSavesTheMaskAndBlocksSigtermAlone) {
    blockForReal(SIGWINCH);
    holdTerminationSignals();
    EXPECT_EQ(sigismember(&prevMask, SIGWINCH), 1);
    EXPECT_EQ(sigismember(&prevMask, SIGTERM), 0);
    EXPECT_EQ(sigismember(&prevMask, SIGINT), 0);
    EXPECT_TRUE(isBlocked(SIGTERM));
    EXPECT_FALSE(isBlocked(SIGINT));
    EXPECT_FALSE(isBlocked(SIGHUP));
    EXPECT_EQ(sigismember(&world().watchedSignals, SIGTERM), 1);
    EXPECT_EQ(sigismember(&world().watchedSignals, SIGINT), 0);
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

TEST_F(SignalsTest, InterruptIsLetInWhoeverBlockedIt) {
    blockForReal(SIGINT);
    installTerminationHandler();
    EXPECT_FALSE(isBlocked(SIGINT));
}

TEST_F(SignalsTest, TerminationHandlerKeepsErrno) {
    errno = ENOTTY;
    mySIGTERM_handler(SIGINT);
    EXPECT_EQ(errno, ENOTTY);
}

TEST_F(SignalsTest, LoggedSignalsAreLetInWhoeverBlockedThem) {
    blockForReal(SIGHUP);
    blockForReal(SIGTERM);
    installLoggingHandler();
    EXPECT_FALSE(isBlocked(SIGHUP));
    EXPECT_FALSE(isBlocked(SIGTERM));
}

volatile sig_atomic_t g_realTerminations = 0;

volatile sig_atomic_t g_interrupts = 0;

void countRealTermination(int /*sig*/) {
    g_realTerminations = g_realTerminations + 1;
    g_interrupts = g_interrupts + (isBlocked(SIGUSR2) ? 1 : 0);
}

/// A real handler for SIGTERM, so that its call shows. What interrupts has SIGUSR2 blocked.
class AdmissionTest : public SignalsTest {
protected:
    void SetUp() override {
        SignalsTest::SetUp();
        g_realTerminations = 0;
        g_interrupts = 0;
        struct sigaction action = {};
        action.sa_handler = countRealTermination;
        sigemptyset(&action.sa_mask);
        sigaddset(&action.sa_mask, SIGUSR2);
        ::sigaction(SIGTERM, &action, &saved_);
    }
    ~AdmissionTest() override { ::sigaction(SIGTERM, &saved_, nullptr); }

    struct sigaction saved_ = {};
};

TEST_F(AdmissionTest, HeldSignalIsHandledAtThisLineOnly) {
    holdTerminationSignals();
    ::raise(SIGTERM);
    EXPECT_EQ(g_realTerminations, 0);
    admitTerminationSignals();
    EXPECT_EQ(g_realTerminations, 1);
    EXPECT_TRUE(isBlocked(SIGTERM));
    admitTerminationSignals();
    EXPECT_EQ(g_realTerminations, 1) << "once";
}

TEST_F(AdmissionTest, HandlerOfAHeldSignalInterruptsNothing) {
    holdTerminationSignals();
    ::raise(SIGTERM);
    admitTerminationSignals();
    EXPECT_EQ(g_realTerminations, 1);
    EXPECT_EQ(g_interrupts, 0);
}

TEST_F(AdmissionTest, IgnoredSignalHasNoEffect) {
    ::signal(SIGTERM, SIG_IGN);
    holdTerminationSignals();
    ::raise(SIGTERM);
    admitTerminationSignals();
    EXPECT_TRUE(isBlocked(SIGTERM));
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

TEST_F(ExitDeathTest, HeldSignalWithoutAHandlerEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ::signal(SIGTERM, SIG_DFL);
            holdTerminationSignals();
            ::raise(SIGTERM);
            admitTerminationSignals();
        },
        testing::KilledBySignal(SIGTERM), "");
}

void* exitFromThread(void* /*unused*/) {
    exitMonitorFromAnyThread(9);
    return nullptr;
}

/// Returns as soon as the waits of the main thread end early; ends the process with status 1 when
/// they do not within five seconds.
void awaitEndOfWaits() {
    for (int look = 0; look < 5000; ++look) {
        if (platform::terminationPending()) {
            return;
        }
        ::usleep(1000);
    }
    ::_exit(1);
}

TEST_F(ExitDeathTest, OtherThreadsLeaveItToTheMainThread) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            holdTerminationSignals();
            world().realSleepMicros = 1000;
            pthread_t thread = 0;
            pthread_create(&thread, nullptr, exitFromThread, nullptr);
            awaitEndOfWaits();
            admitTerminationSignals();
        },
        testing::ExitedWithCode(9), "");
}

} // namespace
