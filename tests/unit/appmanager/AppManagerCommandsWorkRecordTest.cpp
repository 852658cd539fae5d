#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "tests/unit/appmanager/CommandFixture.h"
#include "tests/unit/appmanager/RequestSupport.h"

namespace commands {
namespace {

class WorkRecordTest : public CommandTest, public testing::WithParamInterface<int> {
protected:
    /// Restarts one application that serves a port, whose flag is set, with action GetParam().
    void restart() {
        appinfo app = onPort(makeApp("restarted", 700));
        app.check_flag = 1;
        applist = {app};
        scriptLaunch(801);
        EXPECT_EQ(processUnanswered(GetParam()), 0);
    }
};

TEST_P(WorkRecordTest, GivesZeroesBeforeAnyRequest) {
    restart();
    EXPECT_EQ(applist[0].status, APP_STATUS_INITIALIZING);
    EXPECT_EQ(applist[0].check_flag, 0);
    EXPECT_EQ(applist[0].pid, 801);
}

TEST_P(WorkRecordTest, GivesWhatTheLastStartLeft) {
    scriptLaunch(802);
    processUnanswered(APPMONCTL_Start, "app", "/bin/app");
    restart();
    EXPECT_EQ(applist[0].status, APP_STATUS_STARTING0);
}

TEST_P(WorkRecordTest, GivesWhatAFailedStartLeft) {
    processUnanswered(APPMONCTL_Start, "app");
    restart();
    EXPECT_EQ(applist[0].status, APP_STATUS_START_FAILURE);
}

TEST_P(WorkRecordTest, GivesWhatTheLastStopLeft) {
    processUnanswered(APPMONCTL_Start, "app");
    processUnanswered(APPMONCTL_Stop, "app");
    restart();
    EXPECT_EQ(applist[0].status, APP_STATUS_INITIALIZING);
}

TEST_P(WorkRecordTest, GivesWhatTheLastRestartLeft) {
    processUnanswered(APPMONCTL_Start, "app");
    processUnanswered(APPMONCTL_Restart, "app");
    restart();
    EXPECT_EQ(applist[0].status, APP_STATUS_INITIALIZING);
}

TEST_P(WorkRecordTest, IsNotFilledByWholeListActions) {
    processUnanswered(APPMONCTL_Start, "app");
    for (const int action : {2, 3, 4, 6, 7, 8, 9, 10, 11}) {
        appinfo app = onPort(makeApp("other", 0));
        applist = {app};
        processUnanswered(action, "name", "/bin/name");
    }
    EXPECT_STREQ(Access::workRecord(manager_).name, "app");
    restart();
    EXPECT_EQ(applist[0].status, APP_STATUS_START_FAILURE);
}

TEST_P(WorkRecordTest, GivesItsCheckFlag) {
    Access::workRecord(manager_).check_flag = 1;
    restart();
    EXPECT_EQ(applist[0].check_flag, 1);
}

TEST_P(WorkRecordTest, AndPidAndStartTimeAreAllThatChanges) {
    Access::workRecord(manager_).status = APP_STATUS_APP_LATE;
    Access::workRecord(manager_).check_flag = 0;
    platform::copyToField(Access::workRecord(manager_).pidfile, "/tmp/pid/work");
    addRunning(onPort(everyFieldSet(makeApp("app", 701))));
    appinfo expected = applist[0];
    scriptLaunchOfADaemon(801, 802, "app");
    EXPECT_EQ(processUnanswered(GetParam(), "name", "/bin/name"), 0);
    expected.pid = 802;
    expected.status = APP_STATUS_APP_LATE;
    expected.start_time = kDaemonStart;
    expected.check_flag = 0;
    EXPECT_TRUE(sameBytes(applist[0], expected));
}

TEST_P(WorkRecordTest, BelongsToItsManager) {
    AppManager other;
    other.processCmd(unanswered(makeRequest(APPMONCTL_Start, "app")));
    restart();
    EXPECT_EQ(applist[0].status, APP_STATUS_INITIALIZING);
}

INSTANTIATE_TEST_SUITE_P(Actions, WorkRecordTest, testing::Values(6, 7, 8));

} // namespace
} // namespace commands
