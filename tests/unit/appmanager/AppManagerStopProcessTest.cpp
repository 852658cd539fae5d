#include <cerrno>
#include <climits>
#include <cstdint>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/StopFixture.h"

namespace stops {
namespace {

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

class StopProcessTest : public StopFixture {
protected:
    static Texts signals() { return world().callsOf({"kill", "probe", "sleep"}); }
};

// --- a running application -----------------------------------------------------------------------

TEST_F(StopProcessTest, EndsTheProcess) {
    addServer();
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_FALSE(world().isAlive(kPid));
}

TEST_F(StopProcessTest, SignalsTermThenKillAlthoughTheProcessHasGone) {
    addServer();
    manager_.stop_process(app_);
    EXPECT_EQ(signals(), endingOf(kPid));
}

TEST_F(StopProcessTest, ProcessThatNeedsSomeTimeIsKilledOnceItHasGone) {
    addServer().ignoresTerm = true;
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
    addServer().ignoresTerm = true;
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
    addServer().zombie = true;
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(signals(), stubbornEndingOf(kPid));
}

TEST_F(StopProcessTest, ProcessThatHasGoneIsSignalledTwice) {
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(signals(), endingOf(kPid));
}

TEST_F(StopProcessTest, OnlyTheStatusChanges) {
    addServer();
    manager_.stop_process(app_);
    before_.status = APP_STATUS_STOPPED;
    expectRecordUnchanged();
}

TEST_F(StopProcessTest, IsLogged) {
    addServer();
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
    addServer(kStray);
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(signals(), endingOf(kStray));
    EXPECT_FALSE(world().isAlive(kStray));
}

INSTANTIATE_TEST_SUITE_P(Pids, StopProcessWithoutPidTest,
                         testing::Values(0, -1, -2, -700, INT_MIN));

// --- stray copies --------------------------------------------------------------------------------

TEST_F(StopProcessTest, LooksForStrayCopiesOnceWhenThereAreNone) {
    addServer();
    manager_.stop_process(app_);
    EXPECT_EQ(world().procScans, 1);
}

TEST_F(StopProcessTest, EndsAStrayCopyAfterItsOwnProcess) {
    addServer();
    addServer(kStray);
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_EQ(signals(), endingOf(kPid) + endingOf(kStray));
    EXPECT_EQ(world().procScans, 2);
    EXPECT_EQ(world().logTexts(kLevelInfo),
              (Texts{"data_server[pid=700] is stopped", "data_server[pid=800] is stopped"}));
}

TEST_F(StopProcessTest, EndsEveryStrayCopyInDirectoryOrder) {
    addServer(803);
    world().addProcess(801, "data_server", "/home/kelvo/test/data_server");
    world().addProcess(802, "data_server", "/home/kelvo/modbus/data_server -x");
    manager_.stop_process(app_);
    EXPECT_EQ(signals(), endingOf(kPid) + endingOf(803) + endingOf(801) + endingOf(802));
    EXPECT_EQ(world().log.size(), 4U);
}

TEST_F(StopProcessTest, StrayCopyThatIgnoresTermIsKilledAfterFiveTests) {
    addServer(kStray).ignoresTerm = true;
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
    addServer(kStray);
    manager_.stop_process(app_);
    EXPECT_TRUE(world().isAlive(kStray));
    EXPECT_EQ(signals(), endingOf(kPid));
}

TEST_F(StopProcessTest, ImmortalStrayCopyIsTried100Times) {
    addServer(kStray).killErrno = EPERM;
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
        addServer(pid);
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
        addServer(pid);
    }
    world().onSignal = [](pid_t pid, int) { world().terminationIsPending = pid == 803; };
    EXPECT_EQ(manager_.stop_process(app_), 0);
    EXPECT_FALSE(world().isAlive(803));
    EXPECT_TRUE(world().isAlive(804));
}

// --- start-up grace ------------------------------------------------------------------------------

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
                addServer();
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
    addServer();
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

TEST_F(StartUpGraceTest, StatusIsSetBeforeTheHunt) {
    addServer();
    addServer(kStray);
    world().onSignal = [this](pid_t pid, int) {
        EXPECT_EQ(app_.status, pid == kStray ? APP_STATUS_STOPPED : APP_STATUS_STARTING0);
    };
    manager_.stop_process(app_);
    EXPECT_EQ(world().count("kill"), 4U);
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

} // namespace
} // namespace stops
