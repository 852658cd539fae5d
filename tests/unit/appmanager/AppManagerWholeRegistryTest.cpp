#include <csignal>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/RecursiveMutex.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/StopFixture.h"
#include "tests/unit/support/LockState.h"

namespace stops {
namespace {

class WholeRegistryTest : public testing::Test {
protected:
    void SetUp() override {
        manager_.initCommunication(); // opens the log
        world().forgetRecords();
    }

    /// Registers applications "app1", "app2", ... whose processes have the pids 701, 702, ...
    void registerApps(int count) {
        for (int number = 1; number <= count; ++number) {
            const std::string name = "app" + std::to_string(number);
            const pid_t pid = 700 + number;
            applist.push_back(makeCheckedApp(name, pid));
            world().addProcess(pid, name, "/home/kelvo/root/" + name);
        }
        before_ = applist;
    }

    appinfo& app(int number) { return applist[static_cast<std::size_t>(number) - 1]; }

    void expectUnchanged(int number) {
        const std::size_t index = static_cast<std::size_t>(number) - 1;
        EXPECT_EQ(std::memcmp(&applist[index], &before_[index], sizeof(appinfo)), 0) << number;
    }

    /// Makes a stop of the application fail: just launched, and gone.
    void loseApp(int number) {
        app(number).status = APP_STATUS_STARTING0;
        world().process(700 + number)->alive = false;
        before_ = applist;
    }

    void clearCommand(int number) {
        app(number).cmd[0] = '\0';
        before_ = applist;
    }

    /// Pids that were sent a signal, in order, each once.
    static Texts signalled() {
        Texts pids;
        for (const std::string& call : world().callsOf("kill")) {
            const std::string pid = call.substr(5, call.rfind(' ') - 5);
            if (pids.empty() || pids.back() != pid) {
                pids.push_back(pid);
            }
        }
        return pids;
    }

    /// `count` launches in turn: the processes `first` + 1, `first` + 11, ..., which are gone
    /// before anybody looks.
    static void scriptLaunches(int count, pid_t first = 600) {
        for (int number = 0; number < count; ++number) {
            const pid_t child = first + 10 * number;
            world().scriptLaunch(child, child + 1);
        }
    }

    bool registryIsHeld() { return !locks::isFree(AppManagerTestAccess::appLock(manager_)); }

    FixtureManager manager_;
    std::vector<appinfo> before_;
};

// --- stop_allprocess -----------------------------------------------------------------------------

TEST_F(WholeRegistryTest, StopAllOfNothingGivesMinusTwenty) {
    EXPECT_EQ(manager_.stop_allprocess(), -20);
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(WholeRegistryTest, StopAllOfOneStopsNothing) {
    registerApps(1);
    EXPECT_EQ(manager_.stop_allprocess(), 0);
    expectUnchanged(1);
    EXPECT_TRUE(world().isAlive(701));
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(WholeRegistryTest, StopAllOfTwoStopsTheSecond) {
    registerApps(2);
    EXPECT_EQ(manager_.stop_allprocess(), 0);
    expectUnchanged(1);
    EXPECT_EQ(app(2).status, APP_STATUS_STOPPED);
    EXPECT_THAT(signalled(), ElementsAre("702"));
}

TEST_F(WholeRegistryTest, StopAllOfThreeStopsTheThirdAndThenTheSecond) {
    registerApps(3);
    EXPECT_EQ(manager_.stop_allprocess(), 0);
    EXPECT_THAT(signalled(), ElementsAre("703", "702"));
    expectUnchanged(1);
    EXPECT_TRUE(world().isAlive(701));
    EXPECT_EQ(applist.size(), 3U);
}

TEST_F(WholeRegistryTest, StopAllWritesBackTheStatusOnly) {
    registerApps(3);
    manager_.stop_allprocess();
    before_[1].status = APP_STATUS_STOPPED;
    before_[2].status = APP_STATUS_STOPPED;
    expectUnchanged(1);
    expectUnchanged(2);
    expectUnchanged(3);
}

TEST_F(WholeRegistryTest, StopAllTriesEveryRecordAndReturnsTheLastResult) {
    registerApps(3);
    loseApp(3);
    EXPECT_EQ(manager_.stop_allprocess(), 0);
    EXPECT_EQ(app(3).status, APP_STATUS_STARTING0);
    EXPECT_EQ(app(2).status, APP_STATUS_STOPPED);
}

TEST_F(WholeRegistryTest, StopAllReturnsTheFailureOfTheLastStop) {
    registerApps(3);
    loseApp(2);
    EXPECT_EQ(manager_.stop_allprocess(), -4);
    EXPECT_EQ(app(3).status, APP_STATUS_STOPPED);
    EXPECT_EQ(app(2).status, APP_STATUS_STARTING0);
}

TEST_F(WholeRegistryTest, StopAllHoldsTheLockThroughout) {
    registerApps(3);
    int looks = 0;
    world().onSignal = [this, &looks](pid_t, int) {
        EXPECT_TRUE(registryIsHeld());
        ++looks;
    };
    manager_.stop_allprocess();
    EXPECT_EQ(looks, 4);
    EXPECT_FALSE(registryIsHeld());
}

TEST_F(WholeRegistryTest, StopAllEndsEarlyWhenTheMonitorIsAskedToEnd) {
    registerApps(4);
    world().onSignal = [](pid_t, int signal) { world().terminationIsPending = signal == SIGKILL; };
    (void)manager_.stop_allprocess();
    EXPECT_THAT(signalled(), ElementsAre("704"));
    EXPECT_EQ(app(4).status, APP_STATUS_STOPPED);
    expectUnchanged(3);
    expectUnchanged(2);
    EXPECT_FALSE(registryIsHeld());
}

// --- start_allprocess ----------------------------------------------------------------------------

TEST_F(WholeRegistryTest, StartAllOfNothingGivesMinusTwenty) {
    EXPECT_EQ(manager_.start_allprocess(), -20);
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(WholeRegistryTest, StartAllLaunchesFromTheFirstToTheLast) {
    registerApps(3);
    scriptLaunches(3);
    EXPECT_EQ(manager_.start_allprocess(), 0);
    EXPECT_EQ(app(1).pid, 601);
    EXPECT_EQ(app(2).pid, 611);
    EXPECT_EQ(app(3).pid, 621);
    for (int number = 1; number <= 3; ++number) {
        EXPECT_EQ(app(number).status, APP_STATUS_STARTING0);
        EXPECT_EQ(app(number).start_time, 1700000000);
    }
    EXPECT_THAT(signalled(), IsEmpty());
}

TEST_F(WholeRegistryTest, StartAllWritesBackStatusPidAndStartTimeOnly) {
    registerApps(1);
    scriptLaunches(1);
    world().addProcess(601, "app1", "/home/kelvo/root/app1 -old");
    world().onSleep = [](int) {
        if (world().isAlive(601)) {
            world().process(601)->alive = false;
            world().addProcess(602, "app1", "/home/kelvo/root/app1 -old", 12300).pidFilename =
                "/tmp/new.pid.602";
        }
    };
    EXPECT_EQ(manager_.start_allprocess(), 0);
    before_[0].status = APP_STATUS_STARTING0;
    before_[0].pid = 602;
    before_[0].start_time = 1700000000 - 10000 + 123;
    expectUnchanged(1);
}

TEST_F(WholeRegistryTest, StartAllGoesOnAfterAFailureAndGivesMinusFive) {
    registerApps(3);
    clearCommand(2);
    scriptLaunches(2);
    EXPECT_EQ(manager_.start_allprocess(), -5);
    EXPECT_EQ(app(1).pid, 601);
    EXPECT_EQ(app(2).status, APP_STATUS_START_FAILURE);
    EXPECT_EQ(app(2).pid, 702);
    EXPECT_EQ(app(2).start_time, 22);
    EXPECT_EQ(app(3).pid, 611);
}

TEST_F(WholeRegistryTest, StartAllCountsAFailedLaunchAsStarted) {
    registerApps(1);
    world().forkResults = {{600, 0}}; // no pid comes through the pipe
    EXPECT_EQ(manager_.start_allprocess(), 0);
    EXPECT_EQ(app(1).status, APP_STATUS_RUNNING);
    EXPECT_EQ(app(1).pid, 701);
}

TEST_F(WholeRegistryTest, StartAllHoldsTheLockThroughout) {
    registerApps(2);
    scriptLaunches(2);
    world().addProcess(601, "app1", "/home/kelvo/root/app1 -old");
    bool looked = false;
    world().onSleep = [this, &looked](int) {
        if (!looked) {
            EXPECT_TRUE(registryIsHeld());
            looked = true;
        }
        world().process(601)->alive = false;
    };
    manager_.start_allprocess();
    EXPECT_TRUE(looked);
    EXPECT_FALSE(registryIsHeld());
}

// Applications outlive the monitor: what a restart of all has stopped must run again.
TEST_F(WholeRegistryTest, StartAllStartsWhatWasStoppedAlsoWhenTheMonitorIsAskedToEnd) {
    registerApps(3);
    for (int number = 1; number <= 3; ++number) {
        app(number).status = APP_STATUS_STOPPED;
        const std::string name = "app" + std::to_string(number);
        world().scriptLaunch(600 + 10 * number, 601 + 10 * number);
        world().addProcess(601 + 10 * number, name, "/home/kelvo/root/" + name + " -old");
    }
    world().onSleep = [](int) { world().terminationIsPending = true; };
    EXPECT_EQ(manager_.start_allprocess(), 0);
    EXPECT_EQ(world().count("fork"), 3U);
    EXPECT_EQ(app(1).pid, 611);
    EXPECT_EQ(app(2).pid, 621);
    EXPECT_EQ(app(3).pid, 631);
}

// --- restart_allprocess --------------------------------------------------------------------------

TEST_F(WholeRegistryTest, RestartAllOfNothingGivesMinusTwenty) {
    EXPECT_EQ(manager_.restart_allprocess(), -20);
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(WholeRegistryTest, RestartAllRestartsFromTheFirstToTheLast) {
    registerApps(3);
    scriptLaunches(3);
    EXPECT_EQ(manager_.restart_allprocess(), 0);
    EXPECT_THAT(signalled(), ElementsAre("701", "702", "703"));
    EXPECT_EQ(app(1).pid, 601);
    EXPECT_EQ(app(2).pid, 611);
    EXPECT_EQ(app(3).pid, 621);
    for (int number = 1; number <= 3; ++number) {
        EXPECT_EQ(app(number).status, APP_STATUS_STARTING0);
    }
}

TEST_F(WholeRegistryTest, RestartAllWritesBackStatusPidAndStartTimeOnly) {
    registerApps(1);
    scriptLaunches(1);
    world().addProcess(601, "other", "/home/kelvo/root/other").pidFilename = "/tmp/new.pid.601";
    manager_.restart_allprocess();
    before_[0].status = APP_STATUS_STARTING0;
    before_[0].pid = 601;
    before_[0].start_time = 1700000000;
    expectUnchanged(1);
}

TEST_F(WholeRegistryTest, RestartAllStopsAtTheFirstFailedStart) {
    registerApps(3);
    clearCommand(2);
    scriptLaunches(1);
    EXPECT_EQ(manager_.restart_allprocess(), -5);
    EXPECT_EQ(app(1).pid, 601);
    EXPECT_EQ(app(1).status, APP_STATUS_STARTING0);
    before_[1].status = APP_STATUS_START_FAILURE;
    expectUnchanged(2);
    expectUnchanged(3);
    EXPECT_TRUE(world().isAlive(703));
    EXPECT_THAT(signalled(), ElementsAre("701", "702"));
}

TEST_F(WholeRegistryTest, RestartAllStopsAtTheFirstFailedStop) {
    registerApps(3);
    loseApp(2);
    scriptLaunches(1);
    EXPECT_EQ(manager_.restart_allprocess(), -5);
    EXPECT_EQ(app(1).pid, 601);
    expectUnchanged(2);
    expectUnchanged(3);
    EXPECT_TRUE(world().isAlive(703));
}

TEST_F(WholeRegistryTest, RestartAllOfAnApplicationOfTypeAllOnlyRaisesTheRequest) {
    registerApps(2);
    app(1).restart_type = RESTART_TYPE_ALL;
    before_ = applist;
    scriptLaunches(1);
    EXPECT_EQ(manager_.restart_allprocess(), 0);
    expectUnchanged(1);
    EXPECT_TRUE(world().isAlive(701));
    EXPECT_EQ(app(2).pid, 601);
    EXPECT_TRUE(AppManagerTestAccess::restartAllRequested(manager_));
}

TEST_F(WholeRegistryTest, RestartAllHoldsTheLockThroughout) {
    registerApps(2);
    int looks = 0;
    world().onSignal = [this, &looks](pid_t, int) {
        EXPECT_TRUE(registryIsHeld());
        ++looks;
    };
    scriptLaunches(2);
    manager_.restart_allprocess();
    EXPECT_EQ(looks, 4);
    EXPECT_FALSE(registryIsHeld());
}

TEST_F(WholeRegistryTest, RestartAllReleasesTheLockAfterAFailure) {
    registerApps(1);
    clearCommand(1);
    EXPECT_EQ(manager_.restart_allprocess(), -5);
    EXPECT_FALSE(registryIsHeld());
}

TEST_F(WholeRegistryTest, RestartAllEndsEarlyWhenTheMonitorIsAskedToEnd) {
    registerApps(3);
    world().onSignal = [](pid_t, int signal) { world().terminationIsPending = signal == SIGKILL; };
    (void)manager_.restart_allprocess();
    EXPECT_THAT(signalled(), ElementsAre("701"));
    expectUnchanged(2);
    expectUnchanged(3);
}

// --- all of them ---------------------------------------------------------------------------------

TEST_F(WholeRegistryTest, LockMayBeHeldByTheCallerAlready) {
    registerApps(2);
    platform::RecursiveMutex& lock = AppManagerTestAccess::appLock(manager_);
    EXPECT_EQ(lock.lock(), 0);
    EXPECT_EQ(manager_.stop_allprocess(), 0);
    scriptLaunches(2);
    EXPECT_EQ(manager_.start_allprocess(), 0);
    scriptLaunches(2, 620);
    app(1).status = APP_STATUS_DEAD; // its stop must not wait for it
    app(2).status = APP_STATUS_DEAD;
    EXPECT_EQ(manager_.restart_allprocess(), 0);
    EXPECT_TRUE(registryIsHeld());
    EXPECT_EQ(lock.unlock(), 0);
    EXPECT_FALSE(registryIsHeld());
}

} // namespace
} // namespace stops
