#include <cstring>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/DataServer.h"
#include "tests/unit/appmanager/LaunchFixture.h"

namespace launches {
namespace {

using StartProcessTest = LaunchTest;

TEST_F(StartProcessTest, WithoutACommandItFailsWithMinusEight) {
    app_.cmd[0] = '\0';
    EXPECT_EQ(manager_.start_process(app_), -8);
    EXPECT_EQ(app_.status, APP_STATUS_START_FAILURE);
    expectOneLogLine(kLevelError, "data_server has no command line failure");
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(StartProcessTest, WithoutACommandOnlyTheStatusChanges) {
    app_.cmd[0] = '\0';
    before_.cmd[0] = '\0';
    before_.status = APP_STATUS_START_FAILURE;
    verbose = 10;
    manager_.start_process(app_);
    EXPECT_EQ(std::memcmp(&app_, &before_, sizeof app_), 0);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(StartProcessTest, GoodLaunchReturnsZero) {
    scriptGoodLaunch();
    EXPECT_EQ(manager_.start_process(app_), 0);
    EXPECT_EQ(app_.pid, kDaemon);
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
}

TEST_F(StartProcessTest, LogsTheLaunch) {
    scriptGoodLaunch();
    manager_.start_process(app_);
    expectOneLogLine(kLevelInfo, "start_process: name=data_server  status=1 "
                                 "start_process_fork2=601");
}

TEST_F(StartProcessTest, FailedLaunchReturnsZeroAndIsLogged) {
    scriptLaunchWithoutPid();
    app_.status = APP_STATUS_DEAD;
    EXPECT_EQ(manager_.start_process(app_), 0);
    EXPECT_EQ(app_.status, APP_STATUS_DEAD);
    EXPECT_EQ(app_.pid, 0);
    ASSERT_EQ(world().log.size(), 2U);
    EXPECT_EQ(world().log[0].level, kLevelError);
    EXPECT_EQ(world().log[1].level, kLevelInfo);
    EXPECT_EQ(world().log[1].text,
              "start_process: name=data_server  status=6 start_process_fork2=-10");
}

TEST_F(StartProcessTest, ClearsTheCheckFlagAndSetsTheStartTime) {
    scriptLaunchWithoutPid();
    manager_.start_process(app_);
    EXPECT_EQ(app_.check_flag, 0);
    EXPECT_EQ(app_.start_time, kNow);
}

TEST_F(StartProcessTest, CheckFlagAndStartTimeAreSetBeforeTheLaunch) {
    scriptLaunchWithoutPid();
    lookAt("fork", [this] {
        EXPECT_EQ(app_.check_flag, 0);
        EXPECT_EQ(app_.start_time, kNow);
    });
    manager_.start_process(app_);
    EXPECT_EQ(world().count("fork"), 1U);
}

TEST_F(StartProcessTest, StartTimeIsThatBeforeAForegroundProgramIsWaitedFor) {
    scriptForegroundLaunch();
    EXPECT_EQ(manager_.start_process(app_), 0);
    EXPECT_EQ(app_.start_time, kNow);
    EXPECT_GT(world().now, kNow + 30);
}

TEST_F(StartProcessTest, TracesAboveVerbosityFive) {
    scriptGoodLaunch();
    verbose = 6;
    manager_.start_process(app_);
    EXPECT_EQ(world().consoleText(),
              "start_process data_server status=0 before start_process_fork2\n"
              "start_process data_server status=1 after start_process_fork2=601\n");
}

TEST_F(StartProcessTest, IsSilentAtVerbosityFive) {
    scriptGoodLaunch();
    verbose = 5;
    manager_.start_process(app_);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(StartProcessTest, TracesAFailedLaunch) {
    scriptLaunchWithoutPid();
    verbose = 6;
    manager_.start_process(app_);
    EXPECT_EQ(world().consoleText(),
              "start_process data_server status=0 before start_process_fork2\n"
              "start_process data_server status=0 after start_process_fork2=-10\n");
}

TEST_F(StartProcessTest, FirstTraceComesBeforeTheFork) {
    scriptLaunchWithoutPid();
    verbose = 6;
    std::string tracedAtFork;
    lookAt("fork", [&tracedAtFork] { tracedAtFork = world().consoleText(); });
    manager_.start_process(app_);
    EXPECT_EQ(tracedAtFork, "start_process data_server status=0 before start_process_fork2\n");
}

TEST_F(StartProcessTest, CommandOfBlanksIsLaunched) {
    platform::copyToField(app_.cmd, "   ");
    world().scriptLaunch(kChild, kLaunched);
    world().addProcess(kLaunched, "ovard", "");
    EXPECT_EQ(manager_.start_process(app_), 0);
    EXPECT_EQ(app_.pid, kLaunched);
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
}

TEST_F(StartProcessTest, LongestNameIsLoggedWhole) {
    const std::string name(63, 'n');
    platform::copyToField(app_.name, name);
    app_.cmd[0] = '\0';
    manager_.start_process(app_);
    expectOneLogLine(kLevelError, name + " has no command line failure");
}

} // namespace
} // namespace launches
