#include <climits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/StopFixture.h"

namespace stops {
namespace {

class RestartProcessTest : public StopFixture {
protected:
    static constexpr pid_t kChild = 600;
    static constexpr pid_t kLaunched = 601;

    bool restartAllRequested() { return AppManagerTestAccess::restartAllRequested(manager_); }
};

TEST_F(RestartProcessTest, StopsAndStarts) {
    addServer();
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
    addServer();
    app_.restart_type = RESTART_TYPE_ALL;
    before_ = app_;
    EXPECT_EQ(manager_.restart_process(app_), 0);
    EXPECT_TRUE(restartAllRequested());
    expectRecordUnchanged();
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_THAT(world().log, IsEmpty());
    EXPECT_TRUE(world().isAlive(kPid));
}

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

} // namespace
} // namespace stops
