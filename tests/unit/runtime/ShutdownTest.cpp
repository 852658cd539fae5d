#include "runtime/Shutdown.h"

#include <pthread.h>

#include <csignal>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "runtime/Globals.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/runtime/RuntimeSupport.h"
#include "tests/unit/runtime/ShutdownSupport.h"

namespace {

using fakes::world;
using runtimetest::initializationMutexIsFree;
using runtimetest::isBlocked;
using runtimetest::kCloseListener;
using runtimetest::kDevice;
using runtimetest::kPidFile;
using runtimetest::kRemoveSocket;
using runtimetest::ShutdownTest;
using runtimetest::signalCall;
using runtimetest::takeInitializationMutex;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

TEST_F(ShutdownTest, StepsInTheirOrder) {
    startEverything();
    ovardAtExit();
    EXPECT_THAT(world().calls,
                ElementsAre(signalCall(SIGINT, "ignore"), signalCall(SIGTERM, "ignore"), "unwatch",
                            kCloseListener, kRemoveSocket, signalCall(SIGUSR1, "ignore"),
                            "deleteTimer", signalCall(SIGUSR1, "default"),
                            "sigaction " + std::to_string(SIGCONT), "closeShm -", "closeShm -",
                            "write 77000 1", "write 77000 1", "closefd 77000",
                            "heartbeat_cleanup -1", std::string("remove ") + kPidFile,
                            signalCall(SIGINT, "default"), signalCall(SIGTERM, "default")));
    EXPECT_EQ(world().consoleText(), "ovard ovardAtExit()\n");
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Stopped."));
    EXPECT_EQ(world().errorText(), "");
    EXPECT_EQ(g_bDaemonShutdown, -1);
    EXPECT_EQ(appmgr, nullptr);
    EXPECT_EQ(AppManager::m_pInstance, nullptr);
    EXPECT_EQ(timerid, kNoTimer);
    EXPECT_EQ(wdog_fd, -1);
    EXPECT_EQ(pidfile, "");
    EXPECT_EQ(world().pidFiles.count(kPidFile), 0U);
    EXPECT_TRUE(initializationMutexIsFree());
}

TEST_F(ShutdownTest, SecondCallDoesNothing) {
    startEverything();
    ovardAtExit();
    world().forgetRecords();
    takeInitializationMutex();
    ovardAtExit();
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_THAT(world().events, IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_FALSE(initializationMutexIsFree());
}

TEST_F(ShutdownTest, AnyFormerValueOfTheFlagMakesItReturn) {
    g_bDaemonShutdown = 1;
    ovardAtExit();
    EXPECT_EQ(g_bDaemonShutdown, -1);
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(ShutdownTest, BeforeTheManagerExistsTheOtherStepsStillRun) {
    initWatchDog = true;
    wdog_fd = kDevice;
    pidfile = kPidFile;
    ovardAtExit();
    EXPECT_THAT(world().calls,
                ElementsAre(signalCall(SIGINT, "ignore"), signalCall(SIGTERM, "ignore"), "unwatch",
                            signalCall(SIGUSR1, "ignore"), signalCall(SIGUSR1, "default"),
                            "write 77000 1", "write 77000 1", "closefd 77000",
                            "heartbeat_cleanup -1", std::string("remove ") + kPidFile,
                            signalCall(SIGINT, "default"), signalCall(SIGTERM, "default")));
    EXPECT_EQ(world().consoleText(), "ovard ovardAtExit()\n");
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Stopped."));
    EXPECT_TRUE(initializationMutexIsFree());
}

TEST_F(ShutdownTest, WithNothingStartedOnlyTheUnconditionalStepsRun) {
    ovardAtExit();
    EXPECT_THAT(world().callsWithout({"signal", "unwatch"}), ElementsAre("heartbeat_cleanup -1"));
    EXPECT_THAT(world().callsOf("signal"),
                ElementsAre(signalCall(SIGINT, "ignore"), signalCall(SIGTERM, "ignore"),
                            signalCall(SIGINT, "default"), signalCall(SIGTERM, "default")));
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Stopped."));
}

TEST_F(ShutdownTest, LineMutexAndMaskComeBeforeTheTearDown) {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGWINCH);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    startManager();
    bool looked = false;
    world().onCall = [&looked](const std::string& call) {
        if (call == kCloseListener) {
            looked = true;
            EXPECT_EQ(world().console, "ovard ovardAtExit()\n");
            EXPECT_TRUE(initializationMutexIsFree());
            EXPECT_FALSE(isBlocked(SIGWINCH));
            EXPECT_THAT(world().events, IsEmpty());
        }
    };
    ovardAtExit();
    EXPECT_TRUE(looked);
}

TEST_F(ShutdownTest, LoggedSignalsGetTheirDefaultActionsBeforeTheMaskIsRestored) {
    block_signal = true;
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGWINCH);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    startManager();
    world().onCall = [](const std::string& call) {
        if (call.rfind("signal ", 0) == 0) {
            EXPECT_TRUE(isBlocked(SIGWINCH)) << call;
        }
    };
    ovardAtExit();
    EXPECT_FALSE(isBlocked(SIGWINCH));
    EXPECT_THAT(callsBefore(kCloseListener),
                testing::UnorderedElementsAre(
                    "unwatch", signalCall(SIGHUP, "default"), signalCall(SIGINT, "default"),
                    signalCall(SIGTERM, "default"), signalCall(SIGSEGV, "default"),
                    signalCall(SIGABRT, "default"), signalCall(SIGPIPE, "default"),
                    signalCall(SIGTRAP, "default")));
    EXPECT_THAT(world().calls, Not(Contains(HasSubstr("ignore"))));
}

TEST_F(ShutdownTest, WithoutLoggedSignalsTheOthersKeepTheirActions) {
    startManager();
    ovardAtExit();
    for (const int signal : {SIGHUP, SIGSEGV, SIGABRT, SIGPIPE, SIGTRAP}) {
        EXPECT_THAT(world().calls, Not(Contains(signalCall(signal, "default"))));
    }
}

TEST_F(ShutdownTest, SavedMaskIsRestoredAsItWas) {
    sigemptyset(&prevMask);
    sigaddset(&prevMask, SIGWINCH);
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &held, nullptr);
    ovardAtExit();
    EXPECT_TRUE(isBlocked(SIGWINCH));
    EXPECT_FALSE(isBlocked(SIGTERM));
}

TEST_F(ShutdownTest, TerminationSignalsAreIgnoredMeanwhileAndDefaultAfterwards) {
    startEverything();
    world().onCall = [](const std::string& call) {
        if (call == kCloseListener || call == "heartbeat_cleanup -1") {
            EXPECT_EQ(world().actions[SIGTERM].sa_handler, SIG_IGN) << call;
            EXPECT_EQ(world().actions[SIGINT].sa_handler, SIG_IGN) << call;
        }
    };
    ovardAtExit();
    EXPECT_EQ(world().actions[SIGTERM].sa_handler, SIG_DFL);
    EXPECT_EQ(world().actions[SIGINT].sa_handler, SIG_DFL);
}

TEST_F(ShutdownTest, WaitsLastTheirWholeTimeAgain) {
    world().terminationIsPending = true;
    ovardAtExit();
    EXPECT_FALSE(world().watching);
}

TEST_F(ShutdownTest, MissingPidFileIsSilentlySkipped) {
    pidfile = kPidFile;
    ovardAtExit();
    EXPECT_EQ(pidfile, "");
    EXPECT_EQ(world().errorText(), "");
    EXPECT_EQ(world().consoleText(), "ovard ovardAtExit()\n");
}

TEST_F(ShutdownTest, EventComesAfterThePidFile) {
    pidfile = kPidFile;
    world().onCall = [](const std::string& call) {
        if (call == std::string("remove ") + kPidFile) {
            EXPECT_THAT(world().events, IsEmpty());
        }
    };
    ovardAtExit();
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Stopped."));
}

} // namespace
