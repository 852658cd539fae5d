#include "appmanager/AppManager.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/RequestSupport.h"

namespace {

using fakes::world;
using requests::Line;
using requests::logLines;
using requests::makeRequest;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Access = AppManagerTestAccess;

constexpr int kLevelError = 3;
constexpr int kLevelInfo = 6;

static_assert(std::has_virtual_destructor_v<AppManager>);
static_assert(!std::has_virtual_destructor_v<AppServer>);

// --- codes and their texts -----------------------------------------------------------------------

TEST(AppStatusTextTest, NamesEveryStatusAndSharesTheTextsOfTwoPhases) {
    EXPECT_THAT(OVARD_APP_STATUS_STR,
                ElementsAre(std::string("initializing"), "starting", "starting", "started",
                            "started", "stopped", "dead", "stopping", "start failure", "app late",
                            "monitor die"));
}

TEST(AppStatusTextTest, NamesEveryPortType) {
    EXPECT_THAT(PORT_TYPE_STR, ElementsAre(std::string("None"), "COM", "Eth"));
}

TEST(ErrExitTest, ShowsTheErrorAndEndsTheMonitor) {
    errno = ENOENT;
    try {
        errExit("fork2:pipe create error");
    } catch (const fakes::ExitMonitorCalled& end) {
        EXPECT_EQ(end.status, -1);
    }
    EXPECT_EQ(world().errorText(), "fork2:pipe create error: No such file or directory\n");
    EXPECT_THAT(world().calls, ElementsAre("exitMonitor -1"));
}

// --- creation ------------------------------------------------------------------------------------

TEST(AppManagerInstanceTest, FirstCallCreatesTheManagerAndSettlesItsGlobals) {
    ASSERT_EQ(AppManager::m_pInstance, nullptr);
    world().now = 1234567;
    AppManager* const manager = AppManager::Instance(6);
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ(AppManager::m_pInstance, manager);
    EXPECT_EQ(verbose, 6);
    EXPECT_EQ(ovard_start_time, 1234567);
    EXPECT_FALSE(Access::shuttingDown(*manager));
}

TEST(AppManagerInstanceTest, SecondCallReturnsTheSameAndChangesNothing) {
    AppManager* const manager = AppManager::Instance(6);
    const std::int32_t created = ovard_start_time;
    world().now += 100;
    EXPECT_EQ(AppManager::Instance(2), manager);
    EXPECT_EQ(verbose, 6);
    EXPECT_EQ(ovard_start_time, created);
}

TEST(AppManagerInstanceTest, SecondCallLeavesAManagerThatShutsDownAlone) {
    AppManager* const manager = AppManager::Instance(0);
    Access::shuttingDown(*manager) = true;
    (void)AppManager::Instance(0);
    EXPECT_TRUE(Access::shuttingDown(*manager));
}

class AppManagerTest : public testing::Test {
protected:
    FixtureManager manager_;
};

TEST_F(AppManagerTest, StartsWithNothingRequestedAndNoThread) {
    EXPECT_FALSE(Access::shuttingDown(manager_));
    EXPECT_EQ(Access::commandThread(manager_), 0U);
    EXPECT_THAT(Access::queue(manager_), IsEmpty());
    EXPECT_FALSE(Access::restartAllRequested(manager_));
    EXPECT_FALSE(Access::rebootRequested(manager_));
    EXPECT_EQ(Access::lastHeartbeatResult(manager_), 3);
    EXPECT_TRUE(manager_.commandThreadHasLeft());
    EXPECT_EQ(world().count("thread"), 0U);
}

TEST_F(AppManagerTest, StartsWithAZeroWorkRecord) {
    const appinfo zero = {};
    EXPECT_EQ(std::memcmp(&Access::workRecord(manager_), &zero, sizeof zero), 0);
}

TEST_F(AppManagerTest, IsNotTheInstanceByItself) {
    EXPECT_EQ(AppManager::m_pInstance, nullptr);
}

TEST_F(AppManagerTest, BothLocksAreRecursive) {
    for (pthread_mutex_t* mutex : {&Access::appLock(manager_), &Access::queueLock(manager_)}) {
        ASSERT_EQ(pthread_mutex_trylock(mutex), 0);
        ASSERT_EQ(pthread_mutex_trylock(mutex), 0);
        EXPECT_TRUE(requests::isHeld(mutex));
        EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
        EXPECT_TRUE(requests::isHeld(mutex));
        EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
        EXPECT_FALSE(requests::isHeld(mutex));
    }
}

// --- init ----------------------------------------------------------------------------------------

TEST_F(AppManagerTest, InitOpensTheSocketAndThenStartsTheCommandThread) {
    EXPECT_EQ(manager_.init(false), 0);
    EXPECT_NE(Access::commandThread(manager_), 0U);
    EXPECT_FALSE(manager_.commandThreadHasLeft());
    EXPECT_EQ(fakes::liveWorkers(), 1);
    EXPECT_THAT(world().callsOf({"socket", "bind", "listen", "thread"}),
                ElementsAre("socket", testing::StartsWith("bind "), testing::StartsWith("listen "),
                            "thread"));
    EXPECT_THAT(logLines(), ElementsAre(Line{kLevelInfo, "App monitor started"}));
}

TEST_F(AppManagerTest, InitWithDiscoverySucceedsToo) {
    EXPECT_EQ(manager_.init(true), 0);
}

TEST_F(AppManagerTest, InitLeavesBothLocksFree) {
    ASSERT_EQ(manager_.init(true), 0);
    EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
    // The command thread holds it for a moment on its way to the wait.
    EXPECT_TRUE(
        fakes::waitUntil([this] { return !requests::isHeld(&Access::queueLock(manager_)); }));
}

TEST_F(AppManagerTest, InitPrintsNothingWhenAllGoesWell) {
    verbose = 3;
    ASSERT_EQ(manager_.init(false), 0);
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_EQ(world().errorText(), "");
}

TEST_F(AppManagerTest, InitReportsAThreadThatCannotBeCreated) {
    verbose = 1;
    world().threadErrors = {EAGAIN};
    EXPECT_EQ(manager_.init(false), -2);
    EXPECT_EQ(world().consoleText(),
              "thread creation  failure! errno=" + std::to_string(EAGAIN) + "\n");
    EXPECT_THAT(logLines(), ElementsAre(Line{kLevelInfo, "App monitor started"},
                                        Line{kLevelError, "init(): thread creation failure!"}));
    EXPECT_EQ(Access::commandThread(manager_), 0U);
    EXPECT_TRUE(manager_.commandThreadHasLeft());
}

TEST_F(AppManagerTest, InitPrintsNoThreadFailureAtVerbosityZero) {
    verbose = 0;
    world().threadErrors = {ENOMEM};
    EXPECT_EQ(manager_.init(false), -2);
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_THAT(logLines(), Contains(Line{kLevelError, "init(): thread creation failure!"}));
}

TEST_F(AppManagerTest, InitWithoutASocketEndsTheMonitorBeforeAnyThread) {
    world().socketResults = {{-1, EMFILE}, {-1, EMFILE}, {-1, EMFILE}};
    EXPECT_THROW(manager_.init(false), fakes::ExitMonitorCalled);
    EXPECT_THAT(world().calls, Contains("exitMonitor 1"));
    EXPECT_EQ(world().count("thread"), 0U);
    EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
}

TEST_F(AppManagerTest, SecondInitReplacesTheCommandThread) {
    ASSERT_EQ(manager_.init(false), 0);
    ASSERT_EQ(manager_.init(false), 0);
    EXPECT_EQ(world().count("thread"), 2U);
    EXPECT_NE(Access::commandThread(manager_), 0U);
    EXPECT_TRUE(fakes::waitUntil([] { return fakes::liveWorkers() == 1; }));
    EXPECT_FALSE(manager_.commandThreadHasLeft());
}

TEST_F(AppManagerTest, SecondInitForgetsTheOldThreadEvenIfThereIsNoNewOne) {
    ASSERT_EQ(manager_.init(false), 0);
    world().threadErrors = {EAGAIN};
    EXPECT_EQ(manager_.init(false), -2);
    EXPECT_EQ(Access::commandThread(manager_), 0U);
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
}

TEST_F(AppManagerTest, ThreadOfASecondInitExecutesRequests) {
    ASSERT_EQ(manager_.init(false), 0);
    ASSERT_EQ(manager_.init(false), 0);
    manager_.processRequest(makeRequest(APPMONCTL_Stop, "app"));
    EXPECT_TRUE(fakes::waitUntil([this] {
        (void)manager_.notify();
        return !requests::replies().empty();
    }));
}

// --- termination ---------------------------------------------------------------------------------

TEST_F(AppManagerTest, TerminationEndsTheCommandThread) {
    ASSERT_EQ(manager_.init(false), 0);
    manager_.processTermination(&manager_);
    EXPECT_TRUE(Access::shuttingDown(manager_));
    EXPECT_EQ(Access::commandThread(manager_), 0U);
    EXPECT_TRUE(manager_.commandThreadHasLeft());
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
}

TEST_F(AppManagerTest, TerminationWithoutAThreadSetsTheFlag) {
    manager_.processTermination(&manager_);
    EXPECT_TRUE(Access::shuttingDown(manager_));
}

TEST_F(AppManagerTest, TerminationDropsTheRequestsLeftInTheQueue) {
    manager_.initCommunication();
    manager_.processRequest(makeRequest(APPMONCTL_Stop, "one"));
    manager_.processRequest(makeRequest(APPMONCTL_Stop_All));
    applist.push_back(requests::makeApp("one", 700));
    world().forgetRecords();
    ASSERT_THAT(Access::queue(manager_), SizeIs(2));
    manager_.processTermination(&manager_);
    EXPECT_THAT(Access::queue(manager_), IsEmpty());
    EXPECT_THAT(applist, SizeIs(1));
    EXPECT_THAT(requests::replies(), IsEmpty());
    EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(AppManagerTest, TerminationMayRunAnyNumberOfTimes) {
    ASSERT_EQ(manager_.init(false), 0);
    for (int count = 0; count < 3; ++count) {
        manager_.processTermination(&manager_);
        EXPECT_TRUE(Access::shuttingDown(manager_));
        EXPECT_EQ(Access::commandThread(manager_), 0U);
    }
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
}

TEST_F(AppManagerTest, TerminationUnlocksWhatItsCallerHolds) {
    ASSERT_EQ(manager_.init(false), 0);
    for (int count = 0; count < 3; ++count) {
        pthread_mutex_lock(&Access::appLock(manager_));
    }
    pthread_mutex_lock(&Access::queueLock(manager_));
    manager_.processTermination(&manager_);
    EXPECT_TRUE(manager_.commandThreadHasLeft());
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
}

TEST_F(AppManagerTest, TerminationFreesACommandThatWaitsForWhatItsCallerHolds) {
    ASSERT_EQ(manager_.init(false), 0);
    applist.push_back(requests::makeApp("app", 0));
    pthread_mutex_lock(&Access::appLock(manager_));
    manager_.processRequest(makeRequest(APPMONCTL_Stop, "app"));
    ASSERT_TRUE(fakes::waitUntil([this] {
        (void)manager_.notify();
        return !logLines().empty() &&
               logLines().back().second == "processCmd() request.action=APPMONCTL_Stop app";
    }));
    for (int look = 0; look < 20; ++look) {
        ::usleep(1000); // It reaches the lock, and stays there.
        ASSERT_EQ(logLines().back().second, "processCmd() request.action=APPMONCTL_Stop app");
    }
    manager_.processTermination(&manager_);
    EXPECT_TRUE(manager_.commandThreadHasLeft());
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
}

TEST_F(AppManagerTest, TerminationActsOnTheManagerHandedIn) {
    AppManager other;
    ASSERT_EQ(other.init(false), 0);
    manager_.processTermination(&other);
    EXPECT_TRUE(Access::shuttingDown(other));
    EXPECT_EQ(Access::commandThread(other), 0U);
    EXPECT_FALSE(Access::shuttingDown(manager_));
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
}

TEST_F(AppManagerTest, TerminationStopsNoApplication) {
    applist.push_back(requests::makeApp("app", 700));
    world().addProcess(700, "app", "/home/kelvo/root/app");
    manager_.processTermination(&manager_);
    EXPECT_TRUE(world().isAlive(700));
    EXPECT_EQ(world().count("kill"), 0U);
    EXPECT_THAT(applist, SizeIs(1));
}

// --- destruction ---------------------------------------------------------------------------------

TEST(AppManagerDestructorTest, EndsTheThreadAndForgetsTheInstance) {
    AppManager* const manager = AppManager::Instance(0);
    ASSERT_EQ(manager->init(false), 0);
    delete manager;
    EXPECT_EQ(AppManager::m_pInstance, nullptr);
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
}

TEST(AppManagerDestructorTest, RunsAfterATermination) {
    AppManager* const manager = AppManager::Instance(0);
    ASSERT_EQ(manager->init(false), 0);
    manager->processTermination(manager);
    delete manager;
    EXPECT_EQ(AppManager::m_pInstance, nullptr);
}

TEST(AppManagerDestructorTest, DropsTheRequestsLeftInTheQueue) {
    AppManager* const manager = AppManager::Instance(0);
    manager->initCommunication();
    manager->processRequest(makeRequest(APPMONCTL_Stop, "app"));
    world().forgetRecords();
    delete manager;
    EXPECT_THAT(requests::replies(), IsEmpty());
    EXPECT_THAT(logLines(), IsEmpty());
}

TEST(AppManagerDestructorTest, OfAnotherManagerEndsAndReleasesTheInstanceToo) {
    ASSERT_EQ(AppManager::Instance(0)->init(false), 0);
    {
        AppManager other;
        ASSERT_EQ(other.init(false), 0);
        EXPECT_EQ(fakes::liveWorkers(), 2);
    }
    EXPECT_EQ(AppManager::m_pInstance, nullptr);
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
}

TEST(AppManagerDestructorTest, OfAPlainManagerNeedsNoInstance) {
    { const AppManager manager; }
    EXPECT_EQ(AppManager::m_pInstance, nullptr);
}

TEST(AppManagerDestructorTest, WorksThroughTheBaseOfAManagerOfItsOwnKind) {
    struct Derived : AppManager {
        explicit Derived(bool& destroyed)
            : destroyed_(destroyed) {}
        ~Derived() override { destroyed_ = true; }
        bool& destroyed_;
    };
    bool destroyed = false;
    AppManager* const manager = new Derived(destroyed);
    delete manager;
    EXPECT_TRUE(destroyed);
}

TEST(AppManagerDestructorTest, NextInstanceIsAFreshOne) {
    AppManager* const first = AppManager::Instance(5);
    first->processTermination(first);
    delete first;
    world().now += 50;
    AppManager* const second = AppManager::Instance(2);
    EXPECT_FALSE(Access::shuttingDown(*second));
    EXPECT_EQ(verbose, 2);
    EXPECT_EQ(ovard_start_time, static_cast<std::int32_t>(world().now));
    EXPECT_EQ(second->init(false), 0);
}

} // namespace
