#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/DataServer.h"
#include "tests/unit/appmanager/LaunchFixture.h"

namespace launches {
namespace {

using StartProcessFork2Test = LaunchTest;

TEST_F(StartProcessFork2Test, ReturnsThePidOfTheLaunchedProcess) {
    scriptGoodLaunch();
    EXPECT_EQ(manager_.start_process_fork2(app_), kLaunched);
}

TEST_F(StartProcessFork2Test, RecordTellsTheDaemon) {
    scriptGoodLaunch();
    manager_.start_process_fork2(app_);
    EXPECT_EQ(app_.pid, kDaemon);
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
    EXPECT_STREQ(app_.pidfile, "/tmp/new.pid.602");
    EXPECT_EQ(app_.start_time, kBoot + 123);
}

TEST_F(StartProcessFork2Test, PidAndStatusAreSetBeforeTheWaitForTheDaemon) {
    scriptGoodLaunch();
    world().onSleep = [this](int) {
        EXPECT_EQ(app_.pid, kLaunched);
        EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
        world().process(kLaunched)->alive = false;
        world().onSleep = nullptr;
        addDaemon();
    };
    manager_.start_process_fork2(app_);
    EXPECT_EQ(app_.pid, kDaemon);
}

TEST_F(StartProcessFork2Test, ResultOfTheWaitIsNotUsed) {
    world().scriptLaunch(kChild, kLaunched); // the process is gone at once
    EXPECT_EQ(manager_.start_process_fork2(app_), kLaunched);
    EXPECT_EQ(app_.pid, kLaunched);
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
}

TEST_F(StartProcessFork2Test, ForegroundProgramKeepsItsPid) {
    scriptForegroundLaunch();
    EXPECT_EQ(manager_.start_process_fork2(app_), kLaunched);
    EXPECT_EQ(app_.pid, kLaunched);
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
}

TEST_F(StartProcessFork2Test, LaunchesWithoutAGateToo) {
    scriptGoodLaunch();
    world().pipeErrors = {EMFILE, 0};
    EXPECT_EQ(manager_.start_process_fork2(app_), kLaunched);
    EXPECT_EQ(app_.pid, kDaemon);
}

TEST_F(StartProcessFork2Test, MonitorLeavesThePidFileToTheLaunchedProcess) {
    scriptGoodLaunch();
    world().existingPaths = {"/tmp/ds.pid"};
    manager_.start_process_fork2(app_);
    EXPECT_EQ(world().count("remove"), 0U);
    EXPECT_EQ(world().count("exec"), 0U);
}

TEST_F(StartProcessFork2Test, SignalsAreBlockedAroundTheForkOnly) {
    scriptGoodLaunch();
    manager_.start_process_fork2(app_);
    const std::vector<std::string> calls =
        world().callsOf({"blockSignals", "restoreSignals", "fork", "waitpid", "sleep"});
    ASSERT_GE(calls.size(), 5U);
    EXPECT_EQ(calls[0], "blockSignals");
    EXPECT_EQ(calls[1], "fork");
    EXPECT_EQ(world().count("restoreSignals"), 1U);
    EXPECT_LT(std::find(calls.begin(), calls.end(), "restoreSignals"),
              std::find(calls.begin(), calls.end(), "sleep 1"));
}

TEST_F(StartProcessFork2Test, GivesAllMemoryBack) {
    scriptGoodLaunch();
    manager_.start_process_fork2(app_);
    EXPECT_EQ(world().liveBlocks(), 0U);
    EXPECT_EQ(world().foreignReleases, 0);
}

TEST_F(StartProcessFork2Test, UnreadPidIsLoggedAndReturnedAndChangesNothing) {
    scriptLaunchWithoutPid();
    EXPECT_EQ(manager_.start_process_fork2(app_), -10);
    expectOneLogLine(kLevelError, "\nFatal Error: Problem while starting child process");
    EXPECT_EQ(std::memcmp(&app_, &before_, sizeof app_), 0);
    EXPECT_THAT(world().callsOf({"sync", "restart", "port22", "leave", "sleep"}), IsEmpty());
}

// --- a monitor that cannot fork ------------------------------------------------------------------

class FatalLaunchTest : public LaunchTest {
protected:
    void SetUp() override {
        LaunchTest::SetUp();
        world().forkResults = {{-1, EAGAIN}};
    }

    int leaves() {
        return leavesWith([this] { manager_.start_process_fork2(app_); });
    }

    static std::vector<std::string> steps() {
        return world().callsOf({"sync", "port22", "restart", "leave", "exitMonitor"});
    }
};

TEST_F(FatalLaunchTest, FlushesLooksAtPort22RestartsAndLeaves) {
    leaves();
    EXPECT_THAT(steps(), ElementsAre("sync", "port22", "restart", "leave 0"));
}

TEST_F(FatalLaunchTest, WithAConnectionOnPort22ItOnlyLeaves) {
    world().remoteShellConnected = true;
    leaves();
    EXPECT_THAT(steps(), ElementsAre("sync", "port22", "leave 0"));
}

TEST_F(FatalLaunchTest, LeavesWhenTheRestartFails) {
    world().restartResults = {{-1, EPERM}};
    EXPECT_EQ(leaves(), 0);
    EXPECT_THAT(steps(), ElementsAre("sync", "port22", "restart", "leave 0"));
}

TEST_F(FatalLaunchTest, IsLoggedBeforeAnythingElseHappens) {
    std::vector<std::string> loggedAtSync;
    lookAt("sync", [&loggedAtSync] { loggedAtSync = world().logTexts(kLevelError); });
    leaves();
    EXPECT_THAT(loggedAtSync,
                ElementsAre("fork2():fork parent error: mainpid=-1, status=0, error=0",
                            "\nFatal Error: start_process()_fork2  fork2=-1"));
    EXPECT_EQ(world().log.size(), 2U);
}

TEST_F(FatalLaunchTest, RecordStaysAsItWas) {
    leaves();
    EXPECT_EQ(std::memcmp(&app_, &before_, sizeof app_), 0);
}

TEST_F(FatalLaunchTest, FailedForkLeavesWithTheClearedError) {
    EXPECT_EQ(leaves(), 0);
}

TEST_F(FatalLaunchTest, FailedForkOfTheChildLeavesWithInterrupted) {
    world().forkResults = {{kChild, 0}};
    world().waitpidResults = {{kChild, exitStatus(EAGAIN), 0}};
    EXPECT_EQ(leaves(), EINTR);
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("fork2: errno=11", "\nFatal Error: start_process()_fork2  fork2=-1"));
    EXPECT_THAT(world().calls, Contains("restart"));
}

TEST_F(FatalLaunchTest, FailedWaitLeavesWithItsError) {
    world().forkResults = {{kChild, 0}};
    world().waitpidResults = {{-1, 0, ECHILD}};
    EXPECT_EQ(leaves(), ECHILD);
    EXPECT_THAT(world().calls, Contains("restart"));
}

TEST_F(FatalLaunchTest, ExhaustedWaitsLeaveWithInterrupted) {
    world().forkResults = {{kChild, 0}};
    world().waitpidResults = {{-1, 0, EINTR}, {-1, 0, EINTR}, {-1, 0, EINTR}};
    EXPECT_EQ(leaves(), EINTR);
}

TEST_F(FatalLaunchTest, ErrnoOfTheRestartIsNotTheStatus) {
    world().forkResults = {{kChild, 0}};
    world().waitpidResults = {{-1, 0, ECHILD}};
    world().restartResults = {{-1, EPERM}};
    EXPECT_EQ(leaves(), ECHILD);
}

TEST_F(FatalLaunchTest, ChildEndedByASignalIsFatalToo) {
    world().forkResults = {{kChild, 0}};
    world().waitpidResults = {{kChild, SIGSEGV, 0}};
    EXPECT_EQ(leaves(), 0);
    EXPECT_THAT(steps(), ElementsAre("sync", "port22", "restart", "leave 0"));
}

TEST_F(FatalLaunchTest, StartProcessDoesNotReturnEither) {
    leavesWith([this] { manager_.start_process(app_); });
    EXPECT_THAT(steps(), ElementsAre("sync", "port22", "restart", "leave 0"));
    EXPECT_THAT(world().logTexts(kLevelInfo), IsEmpty());
}

} // namespace
} // namespace launches
