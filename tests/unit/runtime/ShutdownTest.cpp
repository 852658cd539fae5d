#include "runtime/Shutdown.h"

#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Thread.h"
#include "platform/Time.h"
#include "runtime/Globals.h"
#include "runtime/Signals.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"

namespace {

using fakes::world;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr int kDevice = 77000;
const char* const kPidFile = "/tmp/pid/home/kelvo/root/ovard.pid.4321";
const char* const kKickFile = "/tmp/watchdog_kick";
const char* const kCloseListener = "closefd 100000";
const char* const kRemoveSocket = "remove /tmp/appmon_sock";

std::string signalCall(int signal, const char* kind) {
    return "signal " + std::to_string(signal) + ' ' + kind;
}

void someContinueHandler(int) {}

bool initializationMutexIsFree() {
    return g_ovard_initialization_mutex.tryAcquire() == 1;
}

void takeInitializationMutex() {
    while (initializationMutexIsFree()) {
    }
}

bool isBlocked(int signal) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

/// A running monitor without threads: manager, socket, watchdog, timer, pid file.
class ShutdownTest : public testing::Test {
protected:
    void SetUp() override {
        pthread_sigmask(SIG_SETMASK, nullptr, &prevMask);
        takeInitializationMutex();
    }

    ~ShutdownTest() override {
        world().onCall = nullptr;
        world().onConsole = nullptr;
        world().onSleep = nullptr;
    }

    void startManager() {
        appmgr = AppManager::Instance(g_verbose);
        appmgr->initCommunication();
        world().forgetRecords();
    }

    void startEverything() {
        startManager();
        initWatchDog = true;
        startWatchdogTimer();
        wdog_fd = kDevice;
        savedSigAction_SIGCONT.sa_handler = someContinueHandler;
        pidfile = kPidFile;
        world().pidFiles[kPidFile] = "4321\n";
        world().forgetRecords();
    }

    /// A command thread that never leaves, as far as the manager knows.
    void feignStuckCommandThread() { AppManagerTestAccess::commandThreadAlive(*appmgr) = true; }

    /// What was recorded before the first call `call`.
    static std::vector<std::string> callsBefore(const std::string& call) {
        std::vector<std::string> before;
        for (const std::string& found : world().calls) {
            if (found == call) {
                return before;
            }
            before.push_back(found);
        }
        ADD_FAILURE() << "never called: " << call;
        return before;
    }
};

// --- ovardAtExit ---------------------------------------------------------------------------------

TEST_F(ShutdownTest, StepsInTheirOrder) {
    startEverything();
    ovardAtExit();
    EXPECT_THAT(world().calls,
                ElementsAre(signalCall(SIGINT, "ignore"), signalCall(SIGTERM, "ignore"), "unwatch",
                            kCloseListener, kRemoveSocket, signalCall(SIGUSR1, "ignore"),
                            "deleteTimer", signalCall(SIGUSR1, "default"),
                            "sigaction " + std::to_string(SIGCONT), "write 77000 1",
                            "write 77000 1", "closefd 77000", "heartbeat_cleanup -1",
                            std::string("remove ") + kPidFile, signalCall(SIGINT, "default"),
                            signalCall(SIGTERM, "default")));
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

// --- the start-up thread -------------------------------------------------------------------------

void* sleepUntilCancelled(void* /*unused*/) {
    platform::disableCancellation();
    for (;;) {
        platform::sleepMilliseconds(1000);
    }
}

void* endAtOnce(void* /*unused*/) {
    return nullptr;
}

TEST_F(ShutdownTest, StartUpThreadIsCancelledAndJoinedFirst) {
    pthread_t thread = 0;
    ASSERT_EQ(platform::createWorkerThread(&thread, sleepUntilCancelled, nullptr), 0);
    thread_startupAppConfiguration = thread;
    startManager();
    int workersAtTearDown = -1;
    world().onCall = [&](const std::string& call) {
        if (call == kCloseListener) {
            workersAtTearDown = fakes::liveWorkers();
        }
    };
    ovardAtExit();
    EXPECT_EQ(workersAtTearDown, 0);
    EXPECT_EQ(thread_startupAppConfiguration, kNoThread);
}

TEST_F(ShutdownTest, ThreadLineMutexAndSignalsComeInThisOrder) {
    block_signal = true;
    pthread_t thread = 0;
    ASSERT_EQ(platform::createWorkerThread(&thread, sleepUntilCancelled, nullptr), 0);
    thread_startupAppConfiguration = thread;
    startManager();
    int lines = 0;
    world().onConsole = [&](const std::string& text) {
        ++lines;
        EXPECT_EQ(text, "ovard ovardAtExit()\n");
        EXPECT_EQ(fakes::liveWorkers(), 0);
        EXPECT_EQ(thread_startupAppConfiguration, kNoThread);
        EXPECT_FALSE(initializationMutexIsFree());
        EXPECT_EQ(world().count("signal"), 0U);
    };
    bool looked = false;
    world().onCall = [&](const std::string& call) {
        if (!looked && call == signalCall(SIGHUP, "default")) {
            looked = true;
            EXPECT_EQ(lines, 1);
            EXPECT_TRUE(initializationMutexIsFree());
        }
    };
    ovardAtExit();
    world().onConsole = nullptr;
    EXPECT_EQ(lines, 1);
    EXPECT_TRUE(looked);
}

TEST_F(ShutdownTest, StartUpThreadThatHasEndedIsJoinedToo) {
    pthread_t thread = 0;
    ASSERT_EQ(platform::createWorkerThread(&thread, endAtOnce, nullptr), 0);
    thread_startupAppConfiguration = thread;
    ASSERT_TRUE(fakes::waitForWorkersToEnd());
    ovardAtExit();
    EXPECT_EQ(thread_startupAppConfiguration, kNoThread);
    EXPECT_EQ(world().consoleText(), "ovard ovardAtExit()\n");
}

// --- free_resources ------------------------------------------------------------------------------

TEST_F(ShutdownTest, FullReleaseTearsAllDownInOrder) {
    startEverything();
    free_resources(true);
    EXPECT_THAT(world().calls,
                ElementsAre(kCloseListener, kRemoveSocket, signalCall(SIGUSR1, "ignore"),
                            "deleteTimer", signalCall(SIGUSR1, "default"),
                            "sigaction " + std::to_string(SIGCONT), "write 77000 1",
                            "write 77000 1", "closefd 77000"));
    EXPECT_EQ(world().writtenTo(kDevice), "wV");
    EXPECT_EQ(appmgr, nullptr);
    EXPECT_EQ(world().logCloses, 1);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(ShutdownTest, FullReleaseTwiceDoesNothingMore) {
    startManager();
    wdog_fd = kDevice;
    free_resources(true);
    world().forgetRecords();
    free_resources(true);
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(ShutdownTest, PartialReleaseOnlyClosesTheWatchdogAndLeavesItArmed) {
    startEverything();
    free_resources(false);
    EXPECT_THAT(world().calls, ElementsAre("write 77000 1", "closefd 77000"));
    EXPECT_EQ(world().writtenTo(kDevice), "w");
    EXPECT_EQ(wdog_fd, -1);
    EXPECT_NE(appmgr, nullptr);
    EXPECT_NE(timerid, kNoTimer);
    EXPECT_EQ(pidfile, kPidFile);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(ShutdownTest, PartialReleaseWithoutWatchdogDoesNothing) {
    startEverything();
    wdog_fd = -1;
    free_resources(false);
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(ShutdownTest, PartialReleaseNeverDisarmsWhateverFilesExist) {
    wdog_fd = kDevice;
    world().existingPaths.insert(kKickFile);
    free_resources(false);
    EXPECT_EQ(world().writtenTo(kDevice), "w");
    EXPECT_THAT(world().calls, ElementsAre("write 77000 1", "closefd 77000"));
}

TEST_F(ShutdownTest, WatchdogIsDisarmedWithoutAKickFile) {
    wdog_fd = kDevice;
    free_resources(true);
    EXPECT_EQ(world().writtenTo(kDevice), "wV");
    EXPECT_THAT(world().calls, ElementsAre("write 77000 1", "write 77000 1", "closefd 77000"));
    EXPECT_EQ(wdog_fd, -1);
}

TEST_F(ShutdownTest, WatchdogIsFedOnceMoreAndLeftArmedWithAKickFile) {
    wdog_fd = kDevice;
    world().existingPaths.insert(kKickFile);
    free_resources(true);
    EXPECT_EQ(world().writtenTo(kDevice), "w");
    EXPECT_THAT(world().calls, ElementsAre("write 77000 1", "closefd 77000"));
    EXPECT_EQ(wdog_fd, -1);
    EXPECT_EQ(world().existingPaths.count(kKickFile), 1U);
}

TEST_F(ShutdownTest, WatchdogIsClosedAlsoWithoutTheOption) {
    initWatchDog = false;
    wdog_fd = kDevice;
    free_resources(true);
    EXPECT_EQ(world().writtenTo(kDevice), "wV");
}

TEST_F(ShutdownTest, FailingWatchdogWritesAreSilent) {
    wdog_fd = kDevice;
    world().writeResults = {{-1, EIO}, {-1, EIO}};
    world().closeErrors[kDevice] = EIO;
    free_resources(true);
    EXPECT_EQ(wdog_fd, -1);
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_EQ(world().errorText(), "");
}

TEST_F(ShutdownTest, ExceptionAtTheWatchdogIsReported) {
    wdog_fd = kDevice;
    world().onCall = [](const std::string&) { throw std::runtime_error("broken"); };
    free_resources(true);
    EXPECT_EQ(world().consoleText(), "exception closing watchdog...\n");
    EXPECT_EQ(wdog_fd, -1);
}

TEST_F(ShutdownTest, ExceptionWhileClosingIsReportedAndTheRestGoesOn) {
    startEverything();
    world().onCall = [](const std::string& call) {
        if (call == kCloseListener) {
            world().onCall = nullptr;
            throw std::runtime_error("broken");
        }
    };
    free_resources(true);
    EXPECT_EQ(world().consoleText(), "exception closing comm...\n");
    EXPECT_EQ(world().count("deleteTimer"), 1U);
    EXPECT_EQ(appmgr, nullptr);
    EXPECT_EQ(AppManager::m_pInstance, nullptr);
    EXPECT_EQ(world().writtenTo(kDevice), "wV");
}

TEST_F(ShutdownTest, ExceptionWhileStoppingTheThreadIsReportedAndTheRestGoesOn) {
    startEverything();
    feignStuckCommandThread();
    world().onSleep = [](int) {
        world().onSleep = nullptr;
        AppManagerTestAccess::commandThreadAlive(*AppManager::m_pInstance) = false;
        throw std::runtime_error("broken");
    };
    free_resources(true);
    EXPECT_EQ(world().consoleText(), "exception closing comm...\n");
    EXPECT_EQ(appmgr, nullptr);
    EXPECT_EQ(world().writtenTo(kDevice), "wV");
}

// --- timer and SIGCONT ---------------------------------------------------------------------------

TEST_F(ShutdownTest, WithoutTheOptionTheTimerIsLeftAlone) {
    startManager();
    free_resources(true);
    EXPECT_EQ(world().count("deleteTimer"), 0U);
    EXPECT_EQ(world().count("signal"), 0U);
}

TEST_F(ShutdownTest, TimerThatWasNeverCreatedIsNotDeleted) {
    initWatchDog = true;
    free_resources(true);
    EXPECT_EQ(world().count("deleteTimer"), 0U);
    EXPECT_EQ(world().actions[SIGUSR1].sa_handler, SIG_DFL);
    EXPECT_EQ(timerid, kNoTimer);
}

TEST_F(ShutdownTest, TimerThatCannotBeDeletedIsSilent) {
    startEverything();
    world().deleteTimerErrors = {EINVAL};
    free_resources(true);
    EXPECT_EQ(timerid, kNoTimer);
    EXPECT_EQ(world().errorText(), "");
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(ShutdownTest, TickSignalIsIgnoredUntilTheTimerIsGone) {
    startEverything();
    world().onCall = [](const std::string& call) {
        if (call == "deleteTimer") {
            EXPECT_EQ(world().actions[SIGUSR1].sa_handler, SIG_IGN);
        }
    };
    free_resources(true);
    EXPECT_EQ(world().actions[SIGUSR1].sa_handler, SIG_DFL);
}

TEST_F(ShutdownTest, SavedContinueActionIsReinstalled) {
    savedSigAction_SIGCONT.sa_handler = someContinueHandler;
    savedSigAction_SIGCONT.sa_flags = SA_RESTART;
    free_resources(true);
    EXPECT_THAT(world().calls, ElementsAre("sigaction " + std::to_string(SIGCONT)));
    EXPECT_EQ(world().actions[SIGCONT].sa_handler, someContinueHandler);
    EXPECT_EQ(world().actions[SIGCONT].sa_flags, SA_RESTART);
}

TEST_F(ShutdownTest, IgnoredContinueSignalIsReinstalledToo) {
    savedSigAction_SIGCONT.sa_handler = SIG_IGN;
    free_resources(true);
    EXPECT_EQ(world().actions[SIGCONT].sa_handler, SIG_IGN);
}

TEST_F(ShutdownTest, DefaultContinueActionIsLeftAlone) {
    free_resources(true);
    EXPECT_THAT(world().calls, IsEmpty());
}

// --- a command thread that stays -----------------------------------------------------------------

TEST_F(ShutdownTest, CommandThreadMayTakeItsTime) {
    startManager();
    feignStuckCommandThread();
    const std::int64_t start = world().monotonicMs;
    world().onSleep = [start](int) {
        if (world().monotonicMs >= start + 2900) {
            AppManagerTestAccess::commandThreadAlive(*AppManager::m_pInstance) = false;
        }
    };
    ovardAtExit();
    EXPECT_EQ(world().count("leave"), 0U);
    EXPECT_EQ(AppManager::m_pInstance, nullptr);
    EXPECT_EQ(world().actions[SIGTERM].sa_handler, SIG_DFL);
}

TEST_F(ShutdownTest, CommandThreadThatStaysKeepsItsManager) {
    startEverything();
    feignStuckCommandThread();
    AppManager* const manager = appmgr;
    const std::int64_t start = world().monotonicMs;
    int status = -1;
    try {
        ovardAtExit();
    } catch (const fakes::LeaveProcessCalled& called) {
        status = called.status;
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(world().monotonicMs, start + 3000);
    EXPECT_EQ(appmgr, nullptr);
    EXPECT_EQ(AppManager::m_pInstance, manager);
    EXPECT_THAT(world().calls, Not(Contains(kCloseListener)));
    EXPECT_EQ(world().logCloses, 0);

    // Everything else is done all the same.
    EXPECT_THAT(world().callsWithout({"sleep", "signal", "unwatch"}),
                ElementsAre(kRemoveSocket, "deleteTimer", "sigaction " + std::to_string(SIGCONT),
                            "write 77000 1", "write 77000 1", "closefd 77000",
                            "heartbeat_cleanup -1", std::string("remove ") + kPidFile, "leave 0"));
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Stopped."));

    // The thread leaves after all, so that the next test finds a clean process.
    AppManagerTestAccess::commandThreadAlive(*manager) = false;
    appmgr = manager;
    free_resources(true);
    EXPECT_EQ(AppManager::m_pInstance, nullptr);
}

TEST_F(ShutdownTest, CommandThreadThatWaitsIsStopped) {
    appmgr = AppManager::Instance(g_verbose);
    ASSERT_EQ(appmgr->init(false), 0);
    ovardAtExit();
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
    EXPECT_EQ(AppManager::m_pInstance, nullptr);
    EXPECT_EQ(world().count("leave"), 0U);
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Stopped."));
}

} // namespace
