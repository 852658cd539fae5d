#include <pthread.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"

namespace {

using fakes::world;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kLevelInfo = 6;
constexpr pid_t kPid = 700;
constexpr pid_t kStray = 800;
constexpr const char* kServer = "/home/kelvo/root/data_server";

using Texts = std::vector<std::string>;

/// What it takes to end a process that obeys SIGTERM at once.
Texts endingOf(pid_t pid) {
    const std::string number = std::to_string(pid);
    return {"kill " + number + " 15", "probe " + number, "kill " + number + " 9"};
}

Texts operator+(Texts first, const Texts& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

/// What it takes to end a process that outlives SIGTERM.
Texts stubbornEndingOf(pid_t pid) {
    const std::string number = std::to_string(pid);
    Texts calls = {"kill " + number + " 15"};
    for (int test = 0; test < 5; ++test) {
        calls = calls + Texts{"probe " + number, "sleep 10"};
    }
    return calls + Texts{"kill " + number + " 9"};
}

appinfo makeApp(std::string_view name, pid_t pid) {
    appinfo app = {};
    app.pid = pid;
    app.status = APP_STATUS_RUNNING;
    app.start_time = 22;
    app.check_flag = 1;
    platform::copyToField(app.name, name);
    platform::copyToField(app.cmd, "/home/kelvo/root/" + std::string(name) + " -old");
    platform::copyToField(app.pidfile, "/tmp/" + std::string(name) + ".pid");
    return app;
}

class StopProcessTest : public testing::Test {
protected:
    void SetUp() override {
        manager_.initCommunication(); // opens the log
        world().forgetRecords();
        app_ = makeApp("data_server", kPid);
        before_ = app_;
    }

    void expectRecordUnchanged() const { EXPECT_EQ(std::memcmp(&app_, &before_, sizeof app_), 0); }

    static Texts signals() { return world().callsOf({"kill", "probe", "sleep"}); }

    FixtureManager manager_;
    appinfo app_ = {};
    appinfo before_ = {};
};

// --- stop_process: a running application --------------------------------------------------------

TEST_F(StopProcessTest, EndsTheProcess) {
    world().addProcess(kPid, "data_server", kServer);
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_FALSE(world().isAlive(kPid));
}

TEST_F(StopProcessTest, SignalsTermThenKillAlthoughTheProcessHasGone) {
    world().addProcess(kPid, "data_server", kServer);
    manager_.stop_process(app_);
    EXPECT_EQ(signals(), endingOf(kPid));
}

TEST_F(StopProcessTest, ProcessThatNeedsSomeTimeIsKilledOnceItHasGone) {
    world().addProcess(kPid, "data_server", kServer).ignoresTerm = true;
    int sleeps = 0;
    world().onSleep = [&sleeps](int) {
        if (++sleeps == 2) {
            world().process(kPid)->alive = false;
        }
    };
    manager_.stop_process(app_);
    EXPECT_THAT(signals(), ElementsAre("kill 700 15", "probe 700", "sleep 10", "probe 700",
                                       "sleep 10", "probe 700", "kill 700 9"));
}

TEST_F(StopProcessTest, ProcessThatIgnoresTermIsKilledAfterFiveTests) {
    world().addProcess(kPid, "data_server", kServer).ignoresTerm = true;
    const std::int64_t begin = world().monotonicMs;
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(signals(), stubbornEndingOf(kPid));
    EXPECT_EQ(world().monotonicMs - begin, 50);
    EXPECT_FALSE(world().isAlive(kPid));
}

TEST_F(StopProcessTest, ProcessOfAnotherUserIsTriedAllTheSame) {
    world().addProcess(kPid, "other", kServer).killErrno = EPERM;
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(signals(), stubbornEndingOf(kPid));
    EXPECT_EQ(app_.status, APP_STATUS_STOPPED);
}

TEST_F(StopProcessTest, ZombieIsTriedAllTheSame) {
    world().addProcess(kPid, "data_server", kServer).zombie = true;
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(signals(), stubbornEndingOf(kPid));
}

TEST_F(StopProcessTest, ProcessThatHasGoneIsSignalledTwice) {
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(signals(), endingOf(kPid));
}

TEST_F(StopProcessTest, OnlyTheStatusChanges) {
    world().addProcess(kPid, "data_server", kServer);
    manager_.stop_process(app_);
    before_.status = APP_STATUS_STOPPED;
    expectRecordUnchanged();
}

TEST_F(StopProcessTest, IsLogged) {
    world().addProcess(kPid, "data_server", kServer);
    manager_.stop_process(app_);
    ASSERT_EQ(world().log.size(), 1U);
    EXPECT_EQ(world().log[0].level, kLevelInfo);
    EXPECT_EQ(world().log[0].text, "data_server[pid=700] is stopped");
}

TEST_F(StopProcessTest, IsTracedAboveVerbosityFive) {
    verbose = 6;
    manager_.stop_process(app_);
    EXPECT_EQ(world().consoleText(), "stop_process data_server pid=700\n");
}

TEST_F(StopProcessTest, IsSilentAtVerbosityFive) {
    verbose = 5;
    manager_.stop_process(app_);
    EXPECT_EQ(world().consoleText(), "");
}

class StopProcessWithoutPidTest : public StopProcessTest,
                                  public testing::WithParamInterface<int> {};

TEST_P(StopProcessWithoutPidTest, SignalsNobodyButMarksItStopped) {
    app_.pid = GetParam();
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_THAT(signals(), IsEmpty());
    EXPECT_EQ(app_.status, APP_STATUS_STOPPED);
    EXPECT_EQ(app_.pid, GetParam());
    EXPECT_EQ(world().logTexts(kLevelInfo),
              Texts{"data_server[pid=" + std::to_string(GetParam()) + "] is stopped"});
}

TEST_P(StopProcessWithoutPidTest, StillHuntsStrayCopies) {
    app_.pid = GetParam();
    world().addProcess(kStray, "data_server", kServer);
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(signals(), endingOf(kStray));
    EXPECT_FALSE(world().isAlive(kStray));
}

INSTANTIATE_TEST_SUITE_P(Pids, StopProcessWithoutPidTest,
                         testing::Values(0, -1, -2, -700, INT_MIN));

// --- stop_process: stray copies -----------------------------------------------------------------

TEST_F(StopProcessTest, LooksForStrayCopiesOnceWhenThereAreNone) {
    world().addProcess(kPid, "data_server", kServer);
    manager_.stop_process(app_);
    EXPECT_EQ(world().procScans, 1);
}

TEST_F(StopProcessTest, EndsAStrayCopyAfterItsOwnProcess) {
    world().addProcess(kPid, "data_server", kServer);
    world().addProcess(kStray, "data_server", kServer);
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(signals(), endingOf(kPid) + endingOf(kStray));
    EXPECT_EQ(world().procScans, 2);
    EXPECT_EQ(world().logTexts(kLevelInfo),
              (Texts{"data_server[pid=700] is stopped", "data_server[pid=800] is stopped"}));
}

TEST_F(StopProcessTest, EndsEveryStrayCopyInDirectoryOrder) {
    world().addProcess(803, "data_server", kServer);
    world().addProcess(801, "data_server", "/home/kelvo/test/data_server");
    world().addProcess(802, "data_server", "/home/kelvo/modbus/data_server -x");
    manager_.stop_process(app_);
    EXPECT_EQ(signals(), endingOf(kPid) + endingOf(803) + endingOf(801) + endingOf(802));
    EXPECT_EQ(world().log.size(), 4U);
}

TEST_F(StopProcessTest, StrayCopyThatIgnoresTermIsKilledAfterFiveTests) {
    world().addProcess(kStray, "data_server", kServer).ignoresTerm = true;
    app_.pid = 0;
    manager_.stop_process(app_);
    EXPECT_EQ(signals(), stubbornEndingOf(kStray));
}

TEST_F(StopProcessTest, StrayHuntKeepsTheRecord) {
    world().addProcess(kStray, "data_server", kServer, 12300).pidFilename = "/tmp/stray.pid.800";
    manager_.stop_process(app_);
    before_.status = APP_STATUS_STOPPED;
    expectRecordUnchanged();
}

TEST_F(StopProcessTest, SparesOtherProcesses) {
    world().addProcess(801, "data_server2", kServer);
    world().addProcess(802, "data_server", "/usr/bin/data_server");
    world().addProcess(803, "data_server", "/home/kelvo/root/appmon/data_server");
    manager_.stop_process(app_);
    EXPECT_TRUE(world().isAlive(801));
    EXPECT_TRUE(world().isAlive(802));
    EXPECT_TRUE(world().isAlive(803));
    EXPECT_EQ(signals(), endingOf(kPid));
}

TEST_F(StopProcessTest, SparesTheMonitorItself) {
    world().ownPid = kStray;
    world().addProcess(kStray, "data_server", kServer);
    manager_.stop_process(app_);
    EXPECT_TRUE(world().isAlive(kStray));
    EXPECT_EQ(signals(), endingOf(kPid));
}

TEST_F(StopProcessTest, ImmortalStrayCopyIsTried100Times) {
    world().addProcess(kStray, "data_server", kServer).killErrno = EPERM;
    app_.pid = 0;
    EXPECT_EQ(manager_.stop_process(app_), 0);
    Texts expected;
    for (int time = 0; time < 100; ++time) {
        expected = expected + stubbornEndingOf(kStray);
    }
    EXPECT_EQ(signals(), expected);
    EXPECT_EQ(world().log.size(), 101U);
}

TEST_F(StopProcessTest, OfManyStrayCopies100AreEnded) {
    app_.pid = 0;
    for (pid_t pid = 1001; pid <= 1101; ++pid) {
        world().addProcess(pid, "data_server", kServer);
    }
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_FALSE(world().isAlive(1100));
    EXPECT_TRUE(world().isAlive(1101));
}

TEST_F(StopProcessTest, UnreadableProcEndsTheHunt) {
    world().procCanBeOpened = false;
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(world().procScans, 1);
    EXPECT_EQ(app_.status, APP_STATUS_STOPPED);
}

TEST_F(StopProcessTest, StrayHuntEndsEarlyWhenTheMonitorIsAskedToEnd) {
    for (pid_t pid = 801; pid <= 810; ++pid) {
        world().addProcess(pid, "data_server", kServer);
    }
    world().onSignal = [](pid_t pid, int) { world().terminationIsPending = pid == 803; };
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_FALSE(world().isAlive(803));
    EXPECT_TRUE(world().isAlive(804));
}

// --- stop_process: start-up grace ---------------------------------------------------------------

class StartUpGraceTest : public StopProcessTest {
protected:
    void SetUp() override {
        StopProcessTest::SetUp();
        app_.status = APP_STATUS_STARTING0;
        before_ = app_;
    }

    /// The process appears during sleep number `sleep`.
    void appearsDuringSleep(int sleep) {
        world().onSleep = [this, sleep](int) {
            if (++sleeps_ == sleep) {
                world().addProcess(kPid, "data_server", kServer);
            }
        };
    }

    int sleeps_ = 0;
};

TEST_F(StartUpGraceTest, ProcessThatNeverComesAliveGivesMinusFour) {
    EXPECT_EQ(manager_.stop_process(app_), -4);
    expectRecordUnchanged();
    EXPECT_EQ(world().count("kill"), 0U);
}

TEST_F(StartUpGraceTest, ElevenTestsAndTenSleeps) {
    manager_.stop_process(app_);
    Texts expected = {"probe 700"};
    for (int sleep = 0; sleep < 10; ++sleep) {
        expected = expected + Texts{"sleep 100", "probe 700"};
    }
    EXPECT_EQ(signals(), expected);
}

TEST_F(StartUpGraceTest, FailureLogsNothingTracesNothingAndHuntsNothing) {
    verbose = 6;
    manager_.stop_process(app_);
    EXPECT_THAT(world().log, IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_EQ(world().procScans, 0);
}

TEST_F(StartUpGraceTest, LiveProcessIsStoppedAtOnce) {
    world().addProcess(kPid, "data_server", kServer);
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(signals(), Texts{"probe 700"} + endingOf(kPid));
    EXPECT_EQ(app_.status, APP_STATUS_STOPPED);
}

TEST_F(StartUpGraceTest, ProcessThatComesAliveAfterTheFirstSleepIsStopped) {
    appearsDuringSleep(1);
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(signals(), (Texts{"probe 700", "sleep 100", "probe 700"} + endingOf(kPid)));
    EXPECT_FALSE(world().isAlive(kPid));
}

TEST_F(StartUpGraceTest, ProcessThatComesAliveDuringTheTenthSleepIsStopped) {
    appearsDuringSleep(10);
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(world().callsOf("sleep"), Texts(10, "sleep 100"));
    EXPECT_FALSE(world().isAlive(kPid));
}

TEST_F(StartUpGraceTest, PidZeroNeverComesAlive) {
    app_.pid = 0;
    EXPECT_EQ(manager_.stop_process(app_), -4);
    EXPECT_EQ(signals(), Texts(10, "sleep 100"));
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
}

TEST_F(StartUpGraceTest, NeedsAPidFile) {
    app_.pidfile[0] = '\0';
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(signals(), endingOf(kPid));
    EXPECT_EQ(app_.status, APP_STATUS_STOPPED);
}

class NoStartUpGraceTest : public StopProcessTest, public testing::WithParamInterface<int> {};

TEST_P(NoStartUpGraceTest, OtherStatesDoNotWait) {
    app_.status = GetParam();
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(signals(), endingOf(kPid));
    EXPECT_EQ(app_.status, APP_STATUS_STOPPED);
}

INSTANTIATE_TEST_SUITE_P(States, NoStartUpGraceTest,
                         testing::Values(APP_STATUS_INITIALIZING, APP_STATUS_STARTING,
                                         APP_STATUS_RUNNING0, APP_STATUS_RUNNING,
                                         APP_STATUS_STOPPED, APP_STATUS_DEAD, APP_STATUS_STOPPING,
                                         APP_STATUS_START_FAILURE, APP_STATUS_APP_LATE,
                                         APP_STATUS_MONITOR_DIE));

TEST_F(StartUpGraceTest, StatusIsSetBeforeTheHunt) {
    world().addProcess(kPid, "data_server", kServer);
    world().addProcess(kStray, "data_server", kServer);
    world().onSignal = [this](pid_t pid, int) {
        EXPECT_EQ(app_.status, pid == kStray ? APP_STATUS_STOPPED : APP_STATUS_STARTING0);
    };
    manager_.stop_process(app_);
    EXPECT_EQ(world().count("kill"), 4U);
}

// --- restart_process ----------------------------------------------------------------------------

class RestartProcessTest : public StopProcessTest {
protected:
    static constexpr pid_t kChild = 600;
    static constexpr pid_t kLaunched = 601;

    bool restartAllRequested() { return AppManagerTestAccess::restartAllRequested(manager_); }
};

TEST_F(RestartProcessTest, StopsAndStarts) {
    world().addProcess(kPid, "data_server", kServer);
    world().scriptLaunch(kChild, kLaunched);
    EXPECT_EQ(manager_.restart_process(app_), 0);
    EXPECT_FALSE(world().isAlive(kPid));
    EXPECT_EQ(app_.pid, kLaunched);
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
    EXPECT_EQ(app_.start_time, 1700000000);
    EXPECT_EQ(app_.check_flag, 0);
    EXPECT_FALSE(restartAllRequested());
    EXPECT_THAT(world().callsOf({"kill", "fork"}),
                ElementsAre("kill 700 15", "kill 700 9", "fork"));
}

TEST_F(RestartProcessTest, StrayHuntKeepsTheCommandToStart) {
    world().addProcess(kStray, "data_server", "/home/kelvo/test/data_server -stray");
    world().scriptLaunch(kChild, kLaunched);
    manager_.restart_process(app_);
    EXPECT_STREQ(app_.cmd, "/home/kelvo/root/data_server -old");
}

TEST_F(RestartProcessTest, TypeAllOnlyRequestsARestartOfAll) {
    world().addProcess(kPid, "data_server", kServer);
    app_.restart_type = RESTART_TYPE_ALL;
    before_ = app_;
    EXPECT_EQ(manager_.restart_process(app_), 0);
    EXPECT_TRUE(restartAllRequested());
    expectRecordUnchanged();
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_THAT(world().log, IsEmpty());
    EXPECT_TRUE(world().isAlive(kPid));
}

class RestartProcessTypeTest : public RestartProcessTest,
                               public testing::WithParamInterface<int> {};

TEST_P(RestartProcessTypeTest, ActsLikeSelf) {
    app_.restart_type = GetParam();
    world().scriptLaunch(kChild, kLaunched);
    EXPECT_EQ(manager_.restart_process(app_), 0);
    EXPECT_EQ(app_.pid, kLaunched);
    EXPECT_FALSE(restartAllRequested());
}

INSTANTIATE_TEST_SUITE_P(Types, RestartProcessTypeTest,
                         testing::Values(0, 2, 3, -1, INT_MAX, INT_MIN));

TEST_F(RestartProcessTest, FailedStopIsReturnedAndNothingStarts) {
    app_.status = APP_STATUS_STARTING0;
    before_ = app_;
    EXPECT_EQ(manager_.restart_process(app_), -4);
    expectRecordUnchanged();
    EXPECT_EQ(world().count("fork"), 0U);
}

TEST_F(RestartProcessTest, FailedStartIsReturned) {
    app_.cmd[0] = '\0';
    EXPECT_EQ(manager_.restart_process(app_), -8);
    EXPECT_EQ(app_.status, APP_STATUS_START_FAILURE);
    EXPECT_EQ(app_.pid, kPid);
}

TEST_F(RestartProcessTest, IsTracedAboveVerbosityFive) {
    app_.restart_type = RESTART_TYPE_ALL;
    verbose = 6;
    manager_.restart_process(app_);
    EXPECT_EQ(world().consoleText(), "restart_process data_server restart_type=1\n");
}

TEST_F(RestartProcessTest, IsSilentAtVerbosityFive) {
    app_.restart_type = RESTART_TYPE_ALL;
    verbose = 5;
    manager_.restart_process(app_);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(RestartProcessTest, TracesRestartStopAndStartInOrder) {
    world().scriptLaunch(kChild, kLaunched);
    verbose = 6;
    manager_.restart_process(app_);
    EXPECT_THAT(
        world().consoleText(),
        testing::StartsWith("restart_process data_server restart_type=0\n"
                            "stop_process data_server pid=700\n"
                            "start_process data_server status=5 before start_process_fork2\n"));
}

// --- whole-registry operations ------------------------------------------------------------------

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
            applist.push_back(makeApp(name, pid));
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

    /// True when no other thread can lock the registry.
    bool isLocked() {
        pthread_mutex_t& lock = AppManagerTestAccess::appLock(manager_);
        int result = 0;
        std::thread other([&lock, &result] {
            result = pthread_mutex_trylock(&lock);
            if (result == 0) {
                pthread_mutex_unlock(&lock);
            }
        });
        other.join();
        return result == EBUSY;
    }

    FixtureManager manager_;
    std::vector<appinfo> before_;
};

// --- stop_allprocess ----------------------------------------------------------------------------

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
        EXPECT_TRUE(isLocked());
        ++looks;
    };
    manager_.stop_allprocess();
    EXPECT_EQ(looks, 4);
    EXPECT_FALSE(isLocked());
}

TEST_F(WholeRegistryTest, StopAllEndsEarlyWhenTheMonitorIsAskedToEnd) {
    registerApps(4);
    world().onSignal = [](pid_t, int signal) { world().terminationIsPending = signal == SIGKILL; };
    (void)manager_.stop_allprocess();
    EXPECT_THAT(signalled(), ElementsAre("704"));
    EXPECT_EQ(app(4).status, APP_STATUS_STOPPED);
    expectUnchanged(3);
    expectUnchanged(2);
    EXPECT_FALSE(isLocked());
}

// --- start_allprocess ---------------------------------------------------------------------------

TEST_F(WholeRegistryTest, StartAllOfNothingGivesMinusTwenty) {
    EXPECT_EQ(manager_.start_allprocess(), -20);
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(WholeRegistryTest, StartAllLaunchesFromTheFirstToTheLast) {
    registerApps(3);
    world().scriptLaunch(600, 601);
    world().scriptLaunch(610, 611);
    world().scriptLaunch(620, 621);
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
    world().scriptLaunch(600, 601);
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
    world().scriptLaunch(600, 601);
    world().scriptLaunch(610, 611);
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
    world().scriptLaunch(600, 601);
    world().addProcess(601, "app1", "/home/kelvo/root/app1 -old");
    world().scriptLaunch(610, 611);
    bool looked = false;
    world().onSleep = [this, &looked](int) {
        if (!looked) {
            EXPECT_TRUE(isLocked());
            looked = true;
        }
        world().process(601)->alive = false;
    };
    manager_.start_allprocess();
    EXPECT_TRUE(looked);
    EXPECT_FALSE(isLocked());
}

// Applications outlive the monitor: what a restart of all has stopped must run again.
TEST_F(WholeRegistryTest, StartAllStartsEverythingAlsoWhenTheMonitorIsAskedToEnd) {
    registerApps(3);
    for (int number = 1; number <= 3; ++number) {
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

// --- restart_allprocess -------------------------------------------------------------------------

TEST_F(WholeRegistryTest, RestartAllOfNothingGivesMinusTwenty) {
    EXPECT_EQ(manager_.restart_allprocess(), -20);
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(WholeRegistryTest, RestartAllRestartsFromTheFirstToTheLast) {
    registerApps(3);
    world().scriptLaunch(600, 601);
    world().scriptLaunch(610, 611);
    world().scriptLaunch(620, 621);
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
    world().scriptLaunch(600, 601);
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
    world().scriptLaunch(600, 601);
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
    world().scriptLaunch(600, 601);
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
    world().scriptLaunch(600, 601);
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
        EXPECT_TRUE(isLocked());
        ++looks;
    };
    world().scriptLaunch(600, 601);
    world().scriptLaunch(610, 611);
    manager_.restart_allprocess();
    EXPECT_EQ(looks, 4);
    EXPECT_FALSE(isLocked());
}

TEST_F(WholeRegistryTest, RestartAllReleasesTheLockAfterAFailure) {
    registerApps(1);
    clearCommand(1);
    EXPECT_EQ(manager_.restart_allprocess(), -5);
    EXPECT_FALSE(isLocked());
}

TEST_F(WholeRegistryTest, RestartAllEndsEarlyWhenTheMonitorIsAskedToEnd) {
    registerApps(3);
    world().onSignal = [](pid_t, int signal) { world().terminationIsPending = signal == SIGKILL; };
    (void)manager_.restart_allprocess();
    EXPECT_THAT(signalled(), ElementsAre("701"));
    expectUnchanged(2);
    expectUnchanged(3);
}

TEST_F(WholeRegistryTest, LockMayBeHeldByTheCallerAlready) {
    registerApps(2);
    pthread_mutex_t& lock = AppManagerTestAccess::appLock(manager_);
    ASSERT_EQ(pthread_mutex_lock(&lock), 0);
    EXPECT_EQ(manager_.stop_allprocess(), 0);
    world().scriptLaunch(600, 601);
    world().scriptLaunch(610, 611);
    EXPECT_EQ(manager_.start_allprocess(), 0);
    world().scriptLaunch(620, 621);
    world().scriptLaunch(630, 631);
    app(1).status = APP_STATUS_DEAD; // its stop must not wait for it
    app(2).status = APP_STATUS_DEAD;
    EXPECT_EQ(manager_.restart_allprocess(), 0);
    EXPECT_TRUE(isLocked());
    pthread_mutex_unlock(&lock);
    EXPECT_FALSE(isLocked());
}

// --- reap_children ------------------------------------------------------------------------------

TEST(ReapChildrenTest, AsksForAnyChildWithoutBlocking) {
    AppManager::reap_children();
    EXPECT_EQ(world().calls, Texts{"waitpid -1 1"}); // WNOHANG
}

TEST(ReapChildrenTest, ReturnsThePidOfAnExitedChild) {
    world().waitpidResults = {{55, 0, 0}};
    EXPECT_EQ(AppManager::reap_children(), 55);
}

TEST(ReapChildrenTest, KeepsTheNewErrnoAfterAnExitedChild) {
    world().waitpidResults = {{55, 0, EINTR}};
    errno = ENOENT;
    EXPECT_EQ(AppManager::reap_children(), 55);
    EXPECT_EQ(errno, EINTR);
}

TEST(ReapChildrenTest, NoExitedChildGivesZero) {
    world().waitpidResults = {{0, 0, 0}};
    errno = ENOENT;
    EXPECT_EQ(AppManager::reap_children(), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(world().errorText(), "");
}

TEST(ReapChildrenTest, NoChildAtAllIsNotReported) {
    world().waitpidResults = {{-1, 0, ECHILD}};
    errno = ENOENT;
    EXPECT_EQ(AppManager::reap_children(), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(world().errorText(), "");
}

TEST(ReapChildrenTest, AnotherFailureIsReported) {
    world().waitpidResults = {{-1, 0, EINTR}};
    errno = ENOENT;
    EXPECT_EQ(AppManager::reap_children(), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(world().errorText(), "waitpid: Interrupted system call\n");
}

} // namespace
