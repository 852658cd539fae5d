#include "runtime/Shutdown.h"

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "runtime/Globals.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/runtime/RuntimeSupport.h"
#include "tests/unit/runtime/ShutdownSupport.h"

namespace {

using fakes::world;
using runtimetest::kCloseListener;
using runtimetest::kDevice;
using runtimetest::kKickFile;
using runtimetest::kPidFile;
using runtimetest::kRemoveSocket;
using runtimetest::signalCall;
using testing::ElementsAre;
using testing::IsEmpty;

class FreeResourcesTest : public runtimetest::ShutdownTest {};

TEST_F(FreeResourcesTest, FullReleaseTearsAllDownInOrder) {
    startEverything();
    free_resources(true);
    EXPECT_THAT(world().calls,
                ElementsAre(kCloseListener, kRemoveSocket, signalCall(SIGUSR1, "ignore"),
                            "deleteTimer", signalCall(SIGUSR1, "default"),
                            "sigaction " + std::to_string(SIGCONT), "closeShm -", "closeShm -",
                            "write 77000 1", "write 77000 1", "closefd 77000"));
    EXPECT_EQ(world().writtenTo(kDevice), "wV");
    EXPECT_EQ(appmgr, nullptr);
    EXPECT_EQ(world().logCloses, 1);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(FreeResourcesTest, FullReleaseTwiceDoesNothingMore) {
    startManager();
    wdog_fd = kDevice;
    free_resources(true);
    world().forgetRecords();
    free_resources(true);
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(FreeResourcesTest, PartialReleaseOnlyClosesTheWatchdogAndLeavesItArmed) {
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

TEST_F(FreeResourcesTest, PartialReleaseWithoutWatchdogDoesNothing) {
    startEverything();
    wdog_fd = -1;
    free_resources(false);
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(FreeResourcesTest, PartialReleaseNeverDisarmsWhateverFilesExist) {
    wdog_fd = kDevice;
    world().existingPaths.insert(kKickFile);
    free_resources(false);
    EXPECT_EQ(world().writtenTo(kDevice), "w");
    EXPECT_THAT(world().calls, ElementsAre("write 77000 1", "closefd 77000"));
}

TEST_F(FreeResourcesTest, WatchdogIsDisarmedWithoutAKickFile) {
    wdog_fd = kDevice;
    free_resources(true);
    EXPECT_EQ(world().writtenTo(kDevice), "wV");
    EXPECT_THAT(world().calls, ElementsAre("write 77000 1", "write 77000 1", "closefd 77000"));
    EXPECT_EQ(wdog_fd, -1);
}

TEST_F(FreeResourcesTest, WatchdogIsFedOnceMoreAndLeftArmedWithAKickFile) {
    wdog_fd = kDevice;
    world().existingPaths.insert(kKickFile);
    free_resources(true);
    EXPECT_EQ(world().writtenTo(kDevice), "w");
    EXPECT_THAT(world().calls, ElementsAre("write 77000 1", "closefd 77000"));
    EXPECT_EQ(wdog_fd, -1);
    EXPECT_EQ(world().existingPaths.count(kKickFile), 1U);
}

TEST_F(FreeResourcesTest, WatchdogIsClosedAlsoWithoutTheOption) {
    initWatchDog = false;
    wdog_fd = kDevice;
    free_resources(true);
    EXPECT_EQ(world().writtenTo(kDevice), "wV");
}

TEST_F(FreeResourcesTest, FailingWatchdogWritesAreSilent) {
    wdog_fd = kDevice;
    world().writeResults = {{-1, EIO}, {-1, EIO}};
    world().closeErrors[kDevice] = EIO;
    free_resources(true);
    EXPECT_EQ(wdog_fd, -1);
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_EQ(world().errorText(), "");
}

TEST_F(FreeResourcesTest, ExceptionAtTheWatchdogIsReported) {
    wdog_fd = kDevice;
    world().onCall = [](const std::string&) { throw std::runtime_error("broken"); };
    free_resources(true);
    EXPECT_EQ(world().consoleText(), "exception closing watchdog...\n");
    EXPECT_EQ(wdog_fd, -1);
}

TEST_F(FreeResourcesTest, ExceptionWhileClosingIsReportedAndTheRestGoesOn) {
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

TEST_F(FreeResourcesTest, ExceptionWhileStoppingTheThreadIsReportedAndTheRestGoesOn) {
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

/// A manager that cannot be destroyed quietly.
class BrokenManager : public AppManager {
public:
    ~BrokenManager() noexcept(false) override { throw std::runtime_error("broken"); }
};

TEST_F(FreeResourcesTest, ExceptionWhileDeletingIsReportedAndTheRestGoesOn) {
    appmgr = new BrokenManager;
    wdog_fd = kDevice;
    free_resources(true);
    EXPECT_EQ(world().consoleText(), "exception deleting appmgr...\n");
    EXPECT_EQ(appmgr, nullptr);
    EXPECT_EQ(world().writtenTo(kDevice), "wV");
}

// --- timer and SIGCONT ---------------------------------------------------------------------------

TEST_F(FreeResourcesTest, WithoutTheOptionTheTimerIsLeftAlone) {
    startManager();
    free_resources(true);
    EXPECT_EQ(world().count("deleteTimer"), 0U);
    EXPECT_EQ(world().count("signal"), 0U);
}

TEST_F(FreeResourcesTest, TimerThatWasNeverCreatedIsNotDeleted) {
    initWatchDog = true;
    free_resources(true);
    EXPECT_EQ(world().count("deleteTimer"), 0U);
    EXPECT_EQ(world().actions[SIGUSR1].sa_handler, SIG_DFL);
    EXPECT_EQ(timerid, kNoTimer);
}

TEST_F(FreeResourcesTest, TimerThatCannotBeDeletedIsSilent) {
    startEverything();
    world().deleteTimerErrors = {EINVAL};
    free_resources(true);
    EXPECT_EQ(timerid, kNoTimer);
    EXPECT_EQ(world().errorText(), "");
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(FreeResourcesTest, TickSignalIsIgnoredUntilTheTimerIsGone) {
    startEverything();
    world().onCall = [](const std::string& call) {
        if (call == "deleteTimer") {
            EXPECT_EQ(world().actions[SIGUSR1].sa_handler, SIG_IGN);
        }
    };
    free_resources(true);
    EXPECT_EQ(world().actions[SIGUSR1].sa_handler, SIG_DFL);
}

TEST_F(FreeResourcesTest, SavedContinueActionIsReinstalled) {
    savedSigAction_SIGCONT.sa_handler = runtimetest::someHandler;
    savedSigAction_SIGCONT.sa_flags = SA_RESTART;
    free_resources(true);
    EXPECT_THAT(world().calls, ElementsAre("sigaction " + std::to_string(SIGCONT)));
    EXPECT_EQ(world().actions[SIGCONT].sa_handler, runtimetest::someHandler);
    EXPECT_EQ(world().actions[SIGCONT].sa_flags, SA_RESTART);
}

TEST_F(FreeResourcesTest, IgnoredContinueSignalIsReinstalledToo) {
    savedSigAction_SIGCONT.sa_handler = SIG_IGN;
    free_resources(true);
    EXPECT_EQ(world().actions[SIGCONT].sa_handler, SIG_IGN);
}

TEST_F(FreeResourcesTest, DefaultContinueActionIsLeftAlone) {
    free_resources(true);
    EXPECT_THAT(world().calls, IsEmpty());
}

} // namespace
