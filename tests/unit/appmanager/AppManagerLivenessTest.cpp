// Checks of single applications, beside the transition table (LivenessTableTest.cpp).

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/LivenessFixture.h"

namespace liveness {
namespace {

// --- grace ---------------------------------------------------------------------------------------

TEST_F(LivenessTest, LaunchedTenSecondsAgoIsLeftAlone) {
    startedAgo(10);
    endProcess();
    expectLeavesAlone(APP_STATUS_STARTING0);
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(LivenessTest, LaunchedThirtyOneSecondsAgoIsPolled) {
    startedAgo(31);
    endProcess();
    EXPECT_EQ(check(APP_STATUS_STARTING0), 0);
    EXPECT_EQ(entry_.status, APP_STATUS_START_FAILURE);
    EXPECT_EQ(looks(), kMostPolls);
    EXPECT_EQ(sleeps(), kMostPolls);
}

TEST_F(LivenessTest, LaunchedThisSecondIsInGrace) {
    startedAgo(0);
    endProcess();
    for (const int status : {0, 1, 2, 3, 4}) {
        expectLeavesAlone(status);
    }
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(LivenessTest, GraceIsAsLongAsTheOptionSays) {
    app_heartbeat_minimum_start_time = 5;
    startedAgo(4);
    expectLeavesAlone(APP_STATUS_RUNNING);
    EXPECT_EQ(looks(), 0U);
    startedAgo(5);
    expectLeavesAlone(APP_STATUS_RUNNING);
    EXPECT_EQ(looks(), 1U);
}

TEST_F(LivenessTest, StartAtTheEndOfTimeIsInTheFuture) {
    entry_.start_time = INT_MAX;
    endProcess();
    EXPECT_EQ(check(APP_STATUS_RUNNING), 0);
    EXPECT_EQ(entry_.status, APP_STATUS_DEAD);
}

TEST_F(LivenessTest, StartBeforeAllTimesIsLongAgo) {
    entry_.start_time = INT_MIN;
    endProcess();
    EXPECT_EQ(check(APP_STATUS_RUNNING), 0);
    EXPECT_EQ(entry_.status, APP_STATUS_DEAD);
}

/// The clock has passed what a start time can hold.
TEST_F(LivenessTest, GraceGoesOnBehindTheEndOfTime) {
    world().now = static_cast<std::time_t>(std::int64_t{INT_MAX} + 20);
    entry_.start_time = INT_MIN + 10; // nine seconds ago
    endProcess();
    expectLeavesAlone(APP_STATUS_RUNNING);
    EXPECT_EQ(looks(), 0U);
}

/// The clock is set back into the grace while the check polls.
TEST_F(LivenessTest, GraceIsDecidedOnce) {
    endProcess();
    duringSleep(1, [] { world().now = kNow - 1000; });
    EXPECT_EQ(check(APP_STATUS_STARTING0), 0);
    EXPECT_EQ(looks(), kMostPolls);
}

// --- polls ---------------------------------------------------------------------------------------

TEST_F(LivenessTest, NeverLaunchedEntryIsWaitedFor) {
    entry_.pid = 0;
    entry_.start_time = 0;
    EXPECT_EQ(check(APP_STATUS_INITIALIZING), 0);
    EXPECT_EQ(entry_.status, APP_STATUS_START_FAILURE);
    EXPECT_EQ(looks(), 0U); // there is no such process to look at
    EXPECT_EQ(sleeps(), kMostPolls);
}

TEST_F(LivenessTest, OneCheckPollsForFourteenSecondsAtMost) {
    unconfirm();
    endProcess();
    duringSleep(kMostPolls - 1, [] { world().process(kPid)->alive = true; });
    EXPECT_EQ(check(APP_STATUS_STARTING0), 0);
    EXPECT_EQ(entry_.status, APP_STATUS_RUNNING0);
    EXPECT_EQ(world().callsOf("sleep"),
              std::vector<std::string>(std::size_t{2} * kMostPolls, "sleep 100"));
    EXPECT_EQ(world().now, kNow + 14);
}

TEST_F(LivenessTest, ProcessOfAnotherUserIsAlive) {
    world().process(kPid)->killErrno = EPERM;
    EXPECT_EQ(check(APP_STATUS_STARTING), 1);
    EXPECT_EQ(entry_.status, APP_STATUS_RUNNING);
}

TEST_F(LivenessTest, NegativePollingTimeMeansNoPoll) {
    app_pidfile_minimum_start_time = -1;
    const int failed[] = {APP_STATUS_START_FAILURE, APP_STATUS_START_FAILURE,
                          APP_STATUS_START_FAILURE, APP_STATUS_DEAD};
    for (const int status : {0, 1, 2, 3}) {
        EXPECT_EQ(check(status), 0);
        EXPECT_EQ(entry_.status, failed[status]);
    }
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(LivenessTest, OtherVersionInThePidFileDoesNotConfirm) {
    world().pidFiles[kPidFile] = "700\n1.3\n";
    EXPECT_EQ(check(APP_STATUS_STARTING), 1);
    EXPECT_EQ(entry_.status, APP_STATUS_RUNNING0);
}

/// The last result counts, not the first one.
TEST_F(LivenessTest, LastReadingOfThePidFileIsReported) {
    verbose = 3;
    unconfirm();
    world().pidFileRefusal = -5;
    duringSleep(1, [] { world().pidFileRefusal = -7; });
    world().onPidFileRead = [readings = std::make_shared<int>(0)](const char*, const char*) {
        if (++*readings == 2) {
            endProcess();
        }
    };
    EXPECT_EQ(check(APP_STATUS_RUNNING0), 0);
    EXPECT_THAT(world().logTexts(kLevelInfo),
                ElementsAre("checkAlive: data_server[pid=700] start_time=2023-11-14 21:56:40 "
                            "running0, confirmed dead ret=-7"));
}

// --- what happens to an application --------------------------------------------------------------

TEST_F(LivenessTest, ExitBeforeThePidFileIsAStartFailure) {
    unconfirm();
    duringSleep(3, [] { endProcess(); });
    EXPECT_EQ(check(APP_STATUS_STARTING), 0);
    EXPECT_EQ(entry_.status, APP_STATUS_START_FAILURE);
    EXPECT_EQ(entry_.check_flag, 0);
    EXPECT_EQ(looks(), 4U);
}

TEST_F(LivenessTest, ExpiredHeartbeatMeansDead) {
    world().heartbeats[kPid] = kExpired;
    EXPECT_EQ(check(APP_STATUS_RUNNING), 0);
    EXPECT_EQ(entry_.status, APP_STATUS_DEAD);
    EXPECT_EQ(entry_.check_flag, 0);
}

TEST_F(LivenessTest, MissingHeartbeatThatIsRequiredNeedsAttention) {
    world().heartbeats[kPid] = kMissing;
    entry_.heartbeat = 1;
    EXPECT_EQ(check(APP_STATUS_RUNNING), 0);
    EXPECT_EQ(entry_.status, APP_STATUS_RUNNING);
    EXPECT_EQ(entry_.check_flag, 0);
}

TEST_F(LivenessTest, MissingHeartbeatThatIsNotRequiredIsInOrder) {
    world().heartbeats[kPid] = kMissing;
    entry_.heartbeat = 0;
    expectLeavesAlone(APP_STATUS_RUNNING);
}

TEST_F(LivenessTest, DeadApplicationThatCameBackIsAdoptedWithoutARestart) {
    EXPECT_EQ(check(APP_STATUS_DEAD), 1);
    EXPECT_EQ(entry_.status, APP_STATUS_RUNNING);
    unconfirm();
    EXPECT_EQ(check(APP_STATUS_DEAD), 1);
    EXPECT_EQ(entry_.status, APP_STATUS_RUNNING0);
    EXPECT_EQ(entry_.pid, kPid);
    EXPECT_THAT(world().calls, ElementsAre("probe 700", "probe 700"));
}

TEST_F(LivenessTest, FlagsAreSetWhateverTheirNumber) {
    world().heartbeats[kPid] = kMissing;
    entry_.heartbeat = 2;
    entry_.check_flag = 0x80;
    EXPECT_EQ(check(APP_STATUS_RUNNING), 0);
    EXPECT_THAT(world().logTexts(), IsEmpty()); // was known to be alive
    unconfirm();
    EXPECT_EQ(check(APP_STATUS_RUNNING0), 1);
    EXPECT_EQ(entry_.status, APP_STATUS_RUNNING);
}

// --- running -------------------------------------------------------------------------------------

TEST_F(LivenessTest, PriorityMayBeNegative) {
    entry_.check_flag = 0;
    entry_.priority = -5;
    EXPECT_EQ(check(APP_STATUS_RUNNING), 1);
    EXPECT_THAT(world().callsOf("setpriority"), ElementsAre("setpriority 700 -5"));
}

TEST_F(LivenessTest, PriorityThatCannotBeSetIsNoFault) {
    entry_.check_flag = 0;
    entry_.priority = -5;
    world().priorityResults = {{-1, EACCES}};
    EXPECT_EQ(check(APP_STATUS_RUNNING), 1);
    EXPECT_EQ(entry_.status, APP_STATUS_RUNNING);
    EXPECT_EQ(entry_.check_flag, 1);
    EXPECT_THAT(world().logTexts(kLevelInfo),
                ElementsAre("checkAlive: data_server[pid=700] running, is alive"));
    EXPECT_EQ(world().errorText(), "");
}

TEST_F(LivenessTest, PriorityIsSetOnce) {
    entry_.check_flag = 0;
    entry_.priority = 3;
    (void)check(APP_STATUS_RUNNING);
    (void)check(APP_STATUS_RUNNING);
    EXPECT_EQ(world().count("setpriority"), 1U);
    EXPECT_EQ(world().log.size(), 1U);
}

TEST_F(LivenessTest, HeartbeatExpiresAfterTheIntervalOfTheOption) {
    app_heartbeat_expire_interval = 77;
    (void)check(APP_STATUS_RUNNING);
    EXPECT_THAT(world().callsOf("heartbeat_check"), ElementsAre("heartbeat_check 700 77"));
}

TEST_F(LivenessTest, LastHeartbeatResultIsKept) {
    for (const int result : {0, 1, 2, 3, 4, -1}) {
        world().heartbeats[kPid] = result;
        (void)check(APP_STATUS_RUNNING);
        EXPECT_EQ(lastHeartbeat(), result);
    }
}

TEST_F(LivenessTest, LastHeartbeatResultStaysWhenNoneIsChecked) {
    world().heartbeats[kPid] = kFresh;
    (void)check(APP_STATUS_RUNNING);
    world().heartbeats[kPid] = kExpired;
    for (const int status : {0, 1, 2, 3, 5, 6, 7, 8, 9, 10}) {
        (void)check(status);
    }
    endProcess();
    (void)check(APP_STATUS_RUNNING);
    EXPECT_EQ(lastHeartbeat(), kFresh);
}

TEST_F(LivenessTest, UnknownHeartbeatResultIsFresh) {
    entry_.heartbeat = 1;
    for (const int result : {-1, 4, 100}) {
        world().heartbeats[kPid] = result;
        expectLeavesAlone(APP_STATUS_RUNNING);
    }
}

TEST_F(LivenessTest, ExpiredHeartbeatOfALivingProcessStaysRegistered) {
    world().heartbeats[kPid] = kExpired;
    (void)check(APP_STATUS_RUNNING);
    EXPECT_EQ(world().count("heartbeat_cleanup"), 0U);
    EXPECT_EQ(looks(), 2U);
}

TEST_F(LivenessTest, ExpiredHeartbeatOfAProcessThatWentIsCleanedUp) {
    world().heartbeats[kPid] = kExpired;
    world().onCall = [](const std::string& call) {
        if (call == "heartbeat_check 700 30") {
            endProcess();
        }
    };
    EXPECT_EQ(check(APP_STATUS_RUNNING), 0);
    EXPECT_THAT(world().calls, ElementsAre("probe 700", "heartbeat_check 700 30", "probe 700",
                                           "heartbeat_cleanup 700"));
}

/// The log line comes before the look that decides about the registration.
TEST_F(LivenessTest, DeathByHeartbeatIsLoggedBeforeTheCleanUp) {
    verbose = 3;
    world().heartbeats[kPid] = kExpired;
    std::size_t looksAtLog = 0;
    world().onLog = [&looksAtLog](int, const std::string&) { looksAtLog = looks(); };
    (void)check(APP_STATUS_RUNNING);
    EXPECT_EQ(looksAtLog, 1U);
}

/// -1 would mean the monitor's own heartbeat.
TEST_F(LivenessTest, EntryWithoutAPidNeverCleansUp) {
    entry_.pid = -1;
    world().heartbeats[-1] = kExpired;
    EXPECT_EQ(check(APP_STATUS_RUNNING), 0);
    EXPECT_EQ(entry_.status, APP_STATUS_DEAD);
    EXPECT_THAT(world().calls, IsEmpty());
}

// --- texts ---------------------------------------------------------------------------------------

TEST_F(LivenessTest, LongestNameIsLoggedWhole) {
    verbose = 6;
    const std::string name(sizeof entry_.name - 1, 'n');
    platform::copyToField(entry_.name, name);
    (void)check(APP_STATUS_STARTING);
    const std::string line =
        "checkAlive: " + name + "[pid=700] starting confirmed pidfile, now running";
    EXPECT_THAT(world().logTexts(kLevelInfo), ElementsAre(line));
    EXPECT_THAT(world().consoleText(), HasSubstr(line + "\n"));
}

TEST_F(LivenessTest, NameIsNoFormat) {
    verbose = 8;
    platform::copyToField(entry_.name, "%s%n%d");
    endProcess();
    (void)check(APP_STATUS_DEAD);
    EXPECT_THAT(world().logTexts(kLevelInfo),
                ElementsAre("warning: checkAlive: %s%n%d[pid=700] start_time=2023-11-14 21:56:40 "
                            "status=6, dead"));
}

TEST_F(LivenessTest, ExtremeNumbersAreShownWhole) {
    verbose = 8;
    entry_.pid = INT_MIN;
    (void)check(INT_MIN);
    EXPECT_THAT(world().logTexts(kLevelInfo),
                ElementsAre("warning: checkAlive: data_server[pid=-2147483648] "
                            "start_time=2023-11-14 21:56:40 status=-2147483648, unknown status"));
    EXPECT_EQ(entry_.status, INT_MIN);
}

// --- an end of the monitor in the middle of a check ----------------------------------------------

class LivenessEndTest : public LivenessTest {
protected:
    void SetUp() override {
        LivenessTest::SetUp();
        verbose = 9;
    }

    /// Checks with an end that is asked for during sleep `sleep`; nothing follows that sleep.
    void expectEndDuringSleep(int status, int sleep) {
        askToEndDuringSleep(sleep);
        expectLeavesAlone(status);
        EXPECT_EQ(sleeps(), static_cast<std::size_t>(sleep));
        EXPECT_FALSE(bFirstDataServerAfterSystemBoot);
        world().terminationIsPending = false;
        world().forgetRecords();
    }
};

TEST_F(LivenessEndTest, BeforeThePollsLeavesTheEntryAlone) {
    world().terminationIsPending = true;
    for (const int status : {0, 1, 2, 3}) {
        expectLeavesAlone(status);
    }
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(LivenessEndTest, WhileWaitingForTheProcessLeavesTheEntryAlone) {
    endProcess();
    for (const int sleep : {1, 35, kMostPolls}) {
        expectEndDuringSleep(APP_STATUS_INITIALIZING, sleep);
        expectEndDuringSleep(APP_STATUS_STARTING0, sleep);
    }
}

TEST_F(LivenessEndTest, WhenTheProcessHasJustComeLeavesTheEntryAlone) {
    expectEndDuringSleep(APP_STATUS_INITIALIZING, 1);
    expectEndDuringSleep(APP_STATUS_STARTING0, 1);
}

TEST_F(LivenessEndTest, WhileWaitingForThePidFileLeavesTheEntryAlone) {
    unconfirm();
    for (const int sleep : {1, 35, kMostPolls - 1}) {
        expectEndDuringSleep(APP_STATUS_INITIALIZING, 1 + sleep);
        expectEndDuringSleep(APP_STATUS_STARTING0, 1 + sleep);
        expectEndDuringSleep(APP_STATUS_STARTING, sleep);
        expectEndDuringSleep(APP_STATUS_RUNNING0, sleep);
    }
}

TEST_F(LivenessEndTest, DuringTheLastPollLeavesTheEntryAlone) {
    unconfirm();
    entry_.heartbeat = 1;
    expectEndDuringSleep(APP_STATUS_INITIALIZING, 1 + kMostPolls);
    expectEndDuringSleep(APP_STATUS_STARTING0, 1 + kMostPolls);
    expectEndDuringSleep(APP_STATUS_STARTING, kMostPolls);
    expectEndDuringSleep(APP_STATUS_RUNNING0, kMostPolls);
}

TEST_F(LivenessEndTest, DuringTheConfirmingPollLeavesTheEntryAlone) {
    expectEndDuringSleep(APP_STATUS_STARTING0, 2);
    expectEndDuringSleep(APP_STATUS_STARTING, 1);
    expectEndDuringSleep(APP_STATUS_RUNNING0, 1);
}

TEST_F(LivenessEndTest, DuringThePollThatFindsItDeadLeavesTheEntryAlone) {
    endProcess();
    expectEndDuringSleep(APP_STATUS_STARTING, 1);
    expectEndDuringSleep(APP_STATUS_RUNNING0, 1);
}

} // namespace
} // namespace liveness
