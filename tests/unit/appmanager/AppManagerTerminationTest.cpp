#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/IntakeSupport.h"
#include "tests/unit/appmanager/RequestSupport.h"
#include "tests/unit/support/FaultyThreads.h"
#include "tests/unit/support/HangingManager.h"
#include "tests/unit/support/LockState.h"

namespace {

using fakes::world;
using requests::logLines;
using requests::makeRequest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Access = AppManagerTestAccess;

class AppManagerTerminationTest : public testing::Test {
protected:
    FixtureManager manager_;
};

// --- termination ---------------------------------------------------------------------------------

TEST_F(AppManagerTerminationTest, EndsTheCommandThread) {
    ASSERT_EQ(manager_.init(false), 0);
    manager_.processTermination(&manager_);
    EXPECT_TRUE(Access::shuttingDown(manager_));
    EXPECT_EQ(Access::commandThread(manager_), 0U);
    EXPECT_TRUE(manager_.commandThreadHasLeft());
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
}

TEST_F(AppManagerTerminationTest, WithoutAThreadSetsTheFlag) {
    manager_.processTermination(&manager_);
    EXPECT_TRUE(Access::shuttingDown(manager_));
}

TEST_F(AppManagerTerminationTest, DropsTheRequestsLeftInTheQueue) {
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

TEST_F(AppManagerTerminationTest, MayRunAnyNumberOfTimes) {
    ASSERT_EQ(manager_.init(false), 0);
    for (int count = 0; count < 3; ++count) {
        manager_.processTermination(&manager_);
        EXPECT_TRUE(Access::shuttingDown(manager_));
        EXPECT_EQ(Access::commandThread(manager_), 0U);
    }
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
}

TEST_F(AppManagerTerminationTest, UnlocksWhatItsCallerHolds) {
    ASSERT_EQ(manager_.init(false), 0);
    for (int count = 0; count < 3; ++count) {
        EXPECT_EQ(Access::appLock(manager_).lock(), 0);
    }
    EXPECT_EQ(Access::queueLock(manager_).lock(), 0);
    manager_.processTermination(&manager_);
    EXPECT_TRUE(manager_.commandThreadHasLeft());
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
}

TEST_F(AppManagerTerminationTest, FreesACommandThatWaitsForWhatItsCallerHolds) {
    ASSERT_EQ(manager_.init(false), 0);
    applist.push_back(requests::makeApp("app", 0));
    EXPECT_EQ(Access::appLock(manager_).lock(), 0);
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

TEST_F(AppManagerTerminationTest, ActsOnTheManagerHandedIn) {
    AppManager other;
    ASSERT_EQ(other.init(false), 0);
    manager_.processTermination(&other);
    EXPECT_TRUE(Access::shuttingDown(other));
    EXPECT_EQ(Access::commandThread(other), 0U);
    EXPECT_FALSE(Access::shuttingDown(manager_));
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
}

TEST_F(AppManagerTerminationTest, StopsNoApplication) {
    applist.push_back(requests::makeApp("app", 700));
    world().addProcess(700, "app", "/home/kelvo/root/app");
    manager_.processTermination(&manager_);
    EXPECT_TRUE(world().isAlive(700));
    EXPECT_EQ(world().count("kill"), 0U);
    EXPECT_THAT(applist, SizeIs(1));
}

// --- cancelling and joining ----------------------------------------------------------------------

/// The two ways in which a manager's command thread is stopped.
enum class Ending { Termination, Destruction };

class StoppedThreadTest : public testing::TestWithParam<Ending> {
protected:
    /// Starts the manager's command thread and stops it in the way of the test. Returns the thread.
    pthread_t runAndStop() {
        auto manager = std::make_unique<FixtureManager>();
        EXPECT_EQ(manager->init(false), 0);
        const pthread_t thread = Access::commandThread(*manager);
        if (GetParam() == Ending::Termination) {
            manager->processTermination(manager.get());
            EXPECT_EQ(Access::commandThread(*manager), 0U);
            stopCalls_ = threadCalls();
        }
        manager.reset();
        if (GetParam() == Ending::Destruction) {
            stopCalls_ = threadCalls();
        }
        return thread;
    }

    static std::vector<std::string> threadCalls() {
        return world().callsOf({"cancelThread", "joinThread"});
    }

    faults::FaultyThreads threads_;
    std::vector<std::string> stopCalls_;
};

TEST_P(StoppedThreadTest, IsCancelledAndNotJoined) {
    const pthread_t thread = runAndStop();
    EXPECT_THAT(stopCalls_, ElementsAre("cancelThread"));
    EXPECT_THAT(threads_.cancelled(), ElementsAre(thread));
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
}

TEST_P(StoppedThreadTest, IsJoinedWhenItCannotBeCancelled) {
    threads_.failCancels(1, ESRCH);
    const pthread_t thread = runAndStop();
    EXPECT_THAT(stopCalls_, ElementsAre("cancelThread", "joinThread"));
    EXPECT_THAT(threads_.cancelled(), ElementsAre(thread));
    EXPECT_THAT(threads_.joined(), ElementsAre(thread));
    EXPECT_EQ(fakes::liveWorkers(), 0);
}

TEST_P(StoppedThreadTest, IsStoppedOnce) {
    (void)runAndStop();
    EXPECT_THAT(threadCalls(), ElementsAre("cancelThread"));
}

TEST_P(StoppedThreadTest, IsSignalledAfterTheCancelling) {
    (void)runAndStop();
    EXPECT_THAT(world().callsOf({"cancelThread", "condSignal"}),
                ElementsAre("cancelThread", "condSignal"));
}

INSTANTIATE_TEST_SUITE_P(Endings, StoppedThreadTest,
                         testing::Values(Ending::Termination, Ending::Destruction));

TEST_F(AppManagerTerminationTest, WithoutAThreadCancelsAndJoinsNothing) {
    const faults::FaultyThreads threads;
    manager_.processTermination(&manager_);
    EXPECT_EQ(world().count("cancelThread"), 0U);
    EXPECT_EQ(world().count("joinThread"), 0U);
}

TEST(AppManagerSecondPassTest, JoinsTheInstancesThreadWhenItCannotBeCancelled) {
    faults::FaultyThreads threads;
    ASSERT_EQ(AppManager::Instance(0)->init(false), 0);
    const pthread_t thread = Access::commandThread(*AppManager::m_pInstance);
    threads.failCancels(1, ESRCH);
    { const AppManager other; }
    EXPECT_EQ(AppManager::m_pInstance, nullptr);
    EXPECT_THAT(threads.cancelled(), ElementsAre(thread));
    EXPECT_THAT(threads.joined(), ElementsAre(thread));
}

// --- a command thread that hangs -----------------------------------------------------------------

class HangingThreadTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(manager_.init(false), 0);
        manager_.processRequest(makeRequest(APPMONCTL_Stop, "one"));
        ASSERT_TRUE(intake::wakeUntil(manager_, [this] { return manager_.hangs(); }));
        manager_.processRequest(makeRequest(APPMONCTL_Stop, "two"));
    }

    HangingManager manager_;
};

TEST_F(HangingThreadTest, IsWaitedForThreeSecondsAndKeepsWhatItCanTouch) {
    const std::int64_t start = world().monotonicMs;
    manager_.processTermination(&manager_);
    EXPECT_EQ(world().monotonicMs, start + 3000);
    EXPECT_FALSE(manager_.commandThreadHasLeft());
    EXPECT_TRUE(locks::isFree(Access::appLock(manager_)));
    EXPECT_TRUE(locks::isFree(Access::queueLock(manager_)));
    EXPECT_THAT(Access::queue(manager_), SizeIs(1));

    manager_.letGo();
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
    EXPECT_TRUE(manager_.commandThreadHasLeft());
    EXPECT_THAT(requests::replies(), SizeIs(1)); // The second request is not taken any more.
    manager_.processTermination(&manager_);
    EXPECT_THAT(Access::queue(manager_), IsEmpty());
}

TEST_F(HangingThreadTest, ThatGoesOnInTimeIsNotLeftBehind) {
    const std::int64_t start = world().monotonicMs;
    world().onSleep = [&](int /*ms*/) {
        if (world().monotonicMs >= start + 100) {
            manager_.letGo();
        }
    };
    manager_.processTermination(&manager_);
    EXPECT_TRUE(manager_.commandThreadHasLeft());
    EXPECT_LT(world().monotonicMs, start + 3000);
    EXPECT_THAT(Access::queue(manager_), IsEmpty());
    world().onSleep = nullptr;
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
