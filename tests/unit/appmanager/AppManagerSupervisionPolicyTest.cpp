// The supervision pass: what becomes of an application that failed.

#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/SupervisionFixture.h"

namespace supervision {
namespace {

constexpr int kNoHeartbeat = 0;

/// An entry that needs attention.
struct Failure {
    const char* name;
    int status; ///< before the check
    bool alive;
    int heartbeat; ///< what heartbeat_check tells; 0: there is none
    int checkedTo; ///< the status after the check
};

std::ostream& operator<<(std::ostream& out, const Failure& failure) {
    return out << failure.name;
}

class FailureTest : public SupervisionFixture, public testing::WithParamInterface<Failure> {
protected:
    static void addFailure(int restartType) {
        appinfo& entry = addEntry(GetParam().status, restartType);
        entry.heartbeat = GetParam().heartbeat == kNoHeartbeat ? 1 : 0;
        if (GetParam().alive) {
            (void)addProcessOf(entry);
        }
        world().heartbeats.clear();
        if (GetParam().heartbeat != kNoHeartbeat) {
            world().heartbeats[entry.pid] = GetParam().heartbeat;
        }
    }

    static bool failsToStart() { return GetParam().checkedTo == APP_STATUS_START_FAILURE; }

    static void expectNothingDone() {
        EXPECT_EQ(entry(1).status, GetParam().checkedTo);
        EXPECT_EQ(entry(1).pid, 701);
        EXPECT_THAT(world().callsOf({"kill", "fork", "sync", "shell", "restart"}), IsEmpty());
        EXPECT_THAT(world().events, IsEmpty());
    }
};

TEST_P(FailureTest, IsRestartedByItself) {
    addFailure(RESTART_TYPE_SELF);
    scriptLaunches(1);
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_EQ(entry(1).status, APP_STATUS_STARTING0);
    EXPECT_EQ(entry(1).pid, 601);
    EXPECT_EQ(entry(1).start_time, static_cast<std::int32_t>(world().now));
    EXPECT_EQ(entry(1).uptime, 100); // not kept current for it in this pass
    EXPECT_FALSE(world().isAlive(701));
    EXPECT_THAT(world().callsOf({"fork", "kill"}),
                ElementsAre("kill 701 15", "kill 701 9", "fork"));
    EXPECT_THAT(world().events, IsEmpty());
}

TEST_P(FailureTest, OfAnApplicationThatDiedYoungRestartsAll) {
    addFailure(RESTART_TYPE_ALL);
    entry(1).last_runtime_life_limit = 600;
    scriptLaunches(1);
    EXPECT_EQ(manager_.checkStatus(true), 0);
    // One that failed to start asks for more than that.
    EXPECT_THAT(world().events,
                ElementsAre(failsToStart() ? "Ovard: reboot system" : "Ovard: restart all"));
    EXPECT_EQ(world().count("restart"), failsToStart() ? 1U : 0U);
    EXPECT_THAT(world().callsOf("kill"), IsEmpty()); // itself it is not stopped
}

TEST_P(FailureTest, OfAnApplicationThatRanLongRestartsTheMachine) {
    addFailure(RESTART_TYPE_ALL);
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_THAT(world().events, ElementsAre("Ovard: reboot system"));
    EXPECT_EQ(world().count("restart"), 1U);
    EXPECT_EQ(entry(1).status, GetParam().checkedTo);
}

TEST_P(FailureTest, IsAskedForInTheLog) {
    verbose = 3;
    addFailure(RESTART_TYPE_ALL);
    manager_.checkStatus(true);
    const std::string text = failsToStart() ? "app1[pid=701] start failure, reboot request"
                                            : "app1[pid=701] reboot request";
    EXPECT_THAT(logLines(), Contains(Line(kLevelInfo, text)));
    EXPECT_EQ(world().consoleText(), text + "\nREBOOTING...\n");
}

TEST_P(FailureTest, HasNoConsequencesUnderAnyOtherPolicy) {
    for (const int restartType : {2, -1, 256, 0x01000000}) {
        applist.clear();
        addFailure(restartType);
        EXPECT_EQ(manager_.checkStatus(true), 0);
        expectNothingDone();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Failures, FailureTest,
    testing::Values(Failure{"InitializingLost", 0, false, kNoHeartbeat, 8},
                    Failure{"InitializingUnconfirmed", 0, true, kNoHeartbeat, 3},
                    Failure{"Starting0Lost", 1, false, kNoHeartbeat, 8},
                    Failure{"Starting0Unconfirmed", 1, true, kNoHeartbeat, 3},
                    Failure{"StartingDied", 2, false, kNoHeartbeat, 8},
                    Failure{"Running0Died", 3, false, kNoHeartbeat, 6},
                    Failure{"RunningDied", 4, false, kNoHeartbeat, 6},
                    Failure{"RunningHeartbeatExpired", 4, true, kExpired, 6},
                    Failure{"RunningHeartbeatMissing", 4, true, kNoHeartbeat, 4},
                    Failure{"StoppedGone", 5, false, kNoHeartbeat, 5},
                    Failure{"StoppedAlive", 5, true, kNoHeartbeat, 5},
                    Failure{"Dead", 6, false, kNoHeartbeat, 6},
                    Failure{"Stopping", 7, false, kNoHeartbeat, 7},
                    Failure{"StartFailure", 8, false, kNoHeartbeat, 8},
                    Failure{"AppLate", 9, false, kNoHeartbeat, 9},
                    Failure{"MonitorDie", 10, false, kNoHeartbeat, 10},
                    Failure{"UnknownStatus", 42, false, kNoHeartbeat, 42}),
    [](const testing::TestParamInfo<Failure>& test) { return std::string(test.param.name); });

// --- how long it ran -----------------------------------------------------------------------------

struct Life {
    int limit;
    int uptime;
    bool restartsAll;
};

class LifeLimitTest : public SupervisionFixture, public testing::WithParamInterface<Life> {};

TEST_P(LifeLimitTest, DecidesBetweenAllApplicationsAndTheMachine) {
    addDied(RESTART_TYPE_ALL).last_runtime_life_limit = GetParam().limit;
    entry(1).uptime = GetParam().uptime;
    scriptLaunches(1);
    manager_.checkStatus(true);
    EXPECT_THAT(world().events, ElementsAre(GetParam().restartsAll ? "Ovard: restart all"
                                                                   : "Ovard: reboot system"));
    EXPECT_THAT(logLines(), Contains(Line(kLevelInfo, GetParam().restartsAll
                                                          ? "app1[pid=701] restartall request"
                                                          : "app1[pid=701] reboot request")));
}

INSTANTIATE_TEST_SUITE_P(Lives, LifeLimitTest,
                         testing::Values(Life{600, 100, true}, Life{600, 599, true},
                                         Life{600, 600, false}, Life{600, 601, false},
                                         Life{600, 700, false}, Life{0, 0, false},
                                         Life{0, 100, false}, Life{0, -10, false}, Life{1, 0, true},
                                         Life{-5, 0, false}, Life{-5, -10, true}));

// --- messages ------------------------------------------------------------------------------------

class PolicyTest : public SupervisionFixture {
protected:
    /// Fails under the restart policy ALL, after a life shorter than its limit.
    void addYoungDeath() { addDied(RESTART_TYPE_ALL).last_runtime_life_limit = 600; }
};

TEST_F(PolicyTest, RestartOfAllIsAskedForOnTheConsoleAboveVerbosityTwo) {
    verbose = 3;
    addYoungDeath();
    scriptLaunches(1);
    manager_.checkStatus(true);
    EXPECT_EQ(world().consoleText(), "app1[pid=701] restartall request\nRESTART ALL...\n"
                                     "waitForDaemonization: pid=601 proc info error\n");
}

TEST_F(PolicyTest, RestartOfAllIsAskedForInTheLogAlone) {
    verbose = 2;
    addYoungDeath();
    scriptLaunches(1);
    manager_.checkStatus(true);
    EXPECT_EQ(world().consoleText(), "RESTART ALL...\n");
    EXPECT_EQ(logLines().front(), Line(kLevelInfo, "app1[pid=701] restartall request"));
}

TEST_F(PolicyTest, RebootIsAskedForInTheLogAlone) {
    verbose = 2;
    addDied(RESTART_TYPE_ALL);
    manager_.checkStatus(true);
    EXPECT_EQ(world().consoleText(), "REBOOTING...\n");
    EXPECT_THAT(logLines(), ElementsAre(Line(kLevelInfo, "app1[pid=701] reboot request"),
                                        Line(kLevelInfo, "Appmon reboot system")));
}

TEST_F(PolicyTest, RebootForAStartFailureIsNotMentionedAtVerbosityTwo) {
    verbose = 2;
    addEntry(APP_STATUS_START_FAILURE, RESTART_TYPE_ALL);
    manager_.checkStatus(true);
    EXPECT_EQ(world().consoleText(), "REBOOTING...\n");
    EXPECT_THAT(logLines(), ElementsAre(Line(kLevelInfo, "Appmon reboot system")));
}

// --- several failures ----------------------------------------------------------------------------

TEST_F(PolicyTest, WalkGoesOnAfterEveryFailure) {
    addEntry(APP_STATUS_START_FAILURE, RESTART_TYPE_ALL);
    addDied(RESTART_TYPE_ALL);
    addYoungDeath();
    addDied(2);
    addDied(RESTART_TYPE_SELF);
    addRunning();
    scriptLaunches(1);
    manager_.checkStatus(true);
    const Texts all = probes();
    ASSERT_GE(all.size(), 7U);
    EXPECT_THAT(Texts(all.begin(), all.begin() + 7),
                ElementsAre("probe 701", "probe 702", "probe 703", "probe 704", "probe 705",
                            "probe 705", "probe 706")); // 705 once more for its stop
}

TEST_F(PolicyTest, DeadAndRestartedInTheSamePass) {
    addRunning();
    world().heartbeats[701] = kExpired;
    scriptLaunches(1);
    manager_.checkStatus(true);
    EXPECT_EQ(entry(1).status, APP_STATUS_STARTING0);
    EXPECT_FALSE(world().isAlive(701));
}

TEST_F(PolicyTest, ApplicationThatCameBackIsNotRestarted) {
    for (const int restartType : {RESTART_TYPE_SELF, RESTART_TYPE_ALL}) {
        addEntry(APP_STATUS_DEAD, restartType);
        addProcessOf(applist.back());
    }
    manager_.checkStatus(true);
    EXPECT_EQ(entry(1).status, APP_STATUS_RUNNING0);
    EXPECT_EQ(entry(2).status, APP_STATUS_RUNNING0);
    EXPECT_THAT(world().callsOf({"kill", "fork", "restart"}), IsEmpty());
    EXPECT_THAT(world().events, IsEmpty());
}

// --- the restart of one --------------------------------------------------------------------------

TEST_F(PolicyTest, RestartIsOneOfTheEntryItself) {
    addDied(RESTART_TYPE_SELF);
    addRunning();
    scriptLaunches(1);
    manager_.checkStatus(true);
    EXPECT_EQ(entry(1).check_flag, 0);
    EXPECT_EQ(entry(2).pid, 702);
    EXPECT_EQ(entry(2).status, APP_STATUS_RUNNING);
    EXPECT_TRUE(world().isAlive(702));
}

TEST_F(PolicyTest, RestartIsDoneWithTheRegistryHeld) {
    addDied(RESTART_TYPE_SELF);
    scriptLaunches(1);
    bool held = false;
    onceCalled("fork", [&] { held = registryIsHeld(); });
    manager_.checkStatus(true);
    EXPECT_TRUE(held);
}

TEST_F(PolicyTest, LaunchThatFailedCountsAsARestart) {
    addDied(RESTART_TYPE_SELF);
    world().forkResults = {{600, 0}}; // no pid comes through the pipe
    manager_.checkStatus(true);
    EXPECT_EQ(entry(1).status, APP_STATUS_STARTING0);
    EXPECT_EQ(entry(1).pid, 701);
}

TEST_F(PolicyTest, PidFileIsReadAfterTheRestart) {
    platform::copyToField(addDied(RESTART_TYPE_SELF).version, "1.0");
    addDied(2);
    scriptLaunches(1);
    Texts reads;
    world().onPidFileRead = [&reads](const char* path, const char* version) {
        EXPECT_EQ(world().count("fork"), 1U);
        EXPECT_EQ(entry(1).status, APP_STATUS_STARTING0);
        reads.push_back(std::string(path) + " " + version);
    };
    manager_.checkStatus(true);
    world().onPidFileRead = nullptr;
    EXPECT_THAT(reads, ElementsAre("/tmp/app1.pid 1.0"));
}

TEST_F(PolicyTest, PidFileAfterTheRestartDoesNotMatter) {
    for (const char* content : {"601\n1.0\n", "601\n2.0\n", "5\n", ""}) {
        applist.clear();
        world().processes.clear();
        platform::copyToField(addDied(RESTART_TYPE_SELF).version, "1.0");
        world().pidFiles["/tmp/app1.pid"] = content;
        scriptLaunches(1);
        manager_.checkStatus(true);
        EXPECT_EQ(entry(1).status, APP_STATUS_STARTING0) << content;
        EXPECT_EQ(entry(1).pid, 601) << content;
    }
}

/// The launch refuses an entry without command.
TEST_F(PolicyTest, FailedRestartLeavesTheEntryAndIsTriedAgain) {
    addDied(RESTART_TYPE_SELF).cmd[0] = '\0';
    for (int pass = 1; pass <= 3; ++pass) {
        world().forgetRecords();
        EXPECT_EQ(manager_.checkStatus(false), 0);
        ASSERT_EQ(applist.size(), 1U);
        EXPECT_EQ(entry(1).pid, 701);
        EXPECT_EQ(entry(1).uptime, 100);
        EXPECT_EQ(entry(1).status, APP_STATUS_START_FAILURE); // what the launch made of it
        EXPECT_THAT(logLines(),
                    Contains(Line(levels::kLevelError, "app1 has no command line failure")));
        EXPECT_EQ(world().count("fork"), 0U);
        EXPECT_THAT(world().events, IsEmpty());
    }
}

} // namespace
} // namespace supervision
