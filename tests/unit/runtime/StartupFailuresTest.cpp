#include "runtime/Startup.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "runtime/Globals.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/runtime/RuntimeSupport.h"
#include "tests/unit/runtime/StartupSupport.h"
#include "tests/unit/support/ScriptedInit.h"

namespace {

// Starts that fail, and what runs at the end of the process.

using fakes::world;
using levels::kLevelError;
using runtimetest::versionLine;
using testing::ElementsAre;

class StartupFailuresTest : public runtimetest::StartupTest {};

TEST_F(StartupFailuresTest, TimerFailureEndsTheMonitorBeforeTheManagerExists) {
    world().createTimerErrors = {EAGAIN};
    EXPECT_EQ(exitStatusOf({"-d", "-w", "1"}), 1);
    EXPECT_EQ(world().errorText(), "timer_create error: Resource temporarily unavailable\n");
    EXPECT_EQ(appmgr, nullptr);
    EXPECT_EQ(world().count("socket"), 0U);
    EXPECT_EQ(world().count("pidfile"), 0U);
}

TEST_F(StartupFailuresTest, SocketFailureEndsTheMonitor) {
    world().listenResults = {{-1, EADDRINUSE}};
    EXPECT_EQ(exitStatusOf({"-d"}), 1);
    EXPECT_THAT(world().logTexts(kLevelError), ElementsAre("listen error, exit"));
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started."));
}

TEST_F(StartupFailuresTest, ManagerFailureIsShownLoggedAndEndsTheMonitor) {
    world().threadErrors = {EAGAIN};
    EXPECT_EQ(exitStatusOf({"-d", "-v", "1"}), -1);
    EXPECT_EQ(world().consoleText(), versionLine() + "thread creation  failure! errno=11\n"
                                                     "appmgr->init() failure!\n");
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("init(): thread creation failure!", " initialization failure, exit"));
    EXPECT_EQ(world().count("pidfile"), 0U);
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started."));
}

TEST_F(StartupFailuresTest, ManagerFailureIsNotShownAtVerbosityZero) {
    world().threadErrors = {EAGAIN};
    EXPECT_EQ(exitStatusOf({"-d", "-v", "0"}), -1);
    EXPECT_EQ(world().consoleText(), versionLine());
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("init(): thread creation failure!", " initialization failure, exit"));
}

TEST_F(StartupFailuresTest, CommunicationFailureEndsTheMonitorLikeAnyFailureOfTheManager) {
    ASSERT_EQ(AppManager::Instance(1)->initCommunication(), 0); // opens the log
    faults::ScriptedInit init;
    init.initCommunication = [] { return -1; };
    EXPECT_EQ(exitStatusOf({"-d", "-v", "1"}), -1);
    EXPECT_EQ(world().consoleText(), versionLine() + "communication initialization failure!\n"
                                                     "appmgr->init() failure!\n");
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("init(): communication initialization failure!",
                            " initialization failure, exit"));
    EXPECT_EQ(world().count("pidfile"), 0U);
}

TEST_F(StartupFailuresTest, HandlerFailureEndsTheMonitorBeforeItIsInitialized) {
    world().signalErrors[SIGTERM] = EINVAL;
    EXPECT_EQ(exitStatusOf({"-d"}), 1);
    EXPECT_EQ(world().errorText(), "signal_term: Invalid argument\n");
    EXPECT_THAT(world().logTexts(kLevelError), ElementsAre(" signal_term failure, exit"));
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started."));
    EXPECT_EQ(world().count("pidfile"), 0U);
}

TEST_F(StartupFailuresTest, FailureOfALoggingHandlerEndsTheMonitorBeforeItIsInitialized) {
    world().signalErrors[SIGHUP] = EINVAL;
    EXPECT_EQ(exitStatusOf({"-d", "-b"}), 1);
    EXPECT_EQ(world().errorText(), "signal_hup: Invalid argument\n");
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started."));
    EXPECT_EQ(world().count("pidfile"), 0U);
}

// --- the end -------------------------------------------------------------------------------------

constexpr int kShutdownRan = 42;
constexpr int kShutdownDidNotRun = 43;

/// Registered before the start, it runs after what the start registers.
void tellWhetherTheShutdownRan() {
    const auto& events = world().events;
    const bool ran = !events.empty() && events.back() == "Ovard: Application Monitor Stopped.";
    ::_exit(ran ? kShutdownRan : kShutdownDidNotRun);
}

class StartupDeathTest : public StartupFailuresTest {
protected:
    StartupDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    [[noreturn]] void runAndExit(const std::vector<std::string>& arguments) {
        (void)std::atexit(tellWhetherTheShutdownRan);
        const int status = run(arguments);
        g_bDaemonShutdown = 0; // the test has set it to end the loop
        std::exit(status);
    }
};

TEST_F(StartupDeathTest, ShutdownRunsAtExit) {
    EXPECT_EXIT(runAndExit({"-d"}), testing::ExitedWithCode(kShutdownRan), "");
}

TEST_F(StartupDeathTest, ShutdownDoesNotRunForASecondInstance) {
    EXPECT_EXIT(
        {
            world().otherInstancePid = 815;
            runAndExit({"-d"});
        },
        testing::ExitedWithCode(kShutdownDidNotRun), "");
}

TEST_F(StartupDeathTest, ShutdownDoesNotRunForTheVersion) {
    EXPECT_EXIT(runAndExit({"-?"}), testing::ExitedWithCode(kShutdownDidNotRun), "");
}

TEST_F(StartupDeathTest, ShutdownIsRegisteredAfterTheDaemonizeStep) {
    EXPECT_EXIT(
        {
            at("daemonize", [] { std::exit(0); });
            runAndExit({});
        },
        testing::ExitedWithCode(kShutdownDidNotRun), "");
}

TEST_F(StartupDeathTest, ShutdownIsRegisteredBeforeTheTerminationSignalsAreWatchedFor) {
    // Both come before the termination signals are watched for, which is the first that shows.
    EXPECT_EXIT(
        {
            at("watch", [] { std::exit(0); });
            runAndExit({"-d"});
        },
        testing::ExitedWithCode(kShutdownRan), "");
}

} // namespace
