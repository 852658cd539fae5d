#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/CommandFixture.h"
#include "tests/unit/appmanager/RequestSupport.h"

namespace commands {
namespace {

// Restart_All, Restart_All_But and Restart_PortApps.
using RestartManyTest = CommandTest;

appinfo ofType(appinfo app, int type) {
    app.restart_type = type;
    return app;
}

TEST_F(RestartManyTest, RestartAllRestartsFirstToLast) {
    addRunning(makeApp("one", 701));
    addRunning(makeApp("security_server", 702));
    scriptLaunch(801);
    scriptLaunch(802);
    EXPECT_EQ(process(APPMONCTL_Restart_All), 0);
    expectReply(0, at("all apps were restarted") + "\n");
    EXPECT_EQ(
        logLines(),
        (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Restart_All"},
               {kLevelInfo, "one[pid=701] is stopped"},
               {kLevelInfo, "start_process: name=one  status=1 start_process_fork2=801"},
               {kLevelInfo, "security_server[pid=702] is stopped"},
               {kLevelInfo, "start_process: name=security_server  status=1 start_process_fork2="
                            "802"},
               {kLevelInfo, at("all apps were restarted")}}));
    EXPECT_THAT(registeredNames(), ElementsAre("one", "security_server"));
    EXPECT_EQ(applist[0].pid, 801);
    EXPECT_EQ(applist[0].start_time, kNow);
    EXPECT_EQ(applist[1].pid, 802);
}

TEST_F(RestartManyTest, RestartAllNotesEntriesThatAskForAll) {
    addRunning(ofType(makeApp("one", 701), RESTART_TYPE_ALL));
    addRunning(makeApp("two", 702));
    scriptLaunch(802);
    EXPECT_EQ(process(APPMONCTL_Restart_All), 0);
    expectAnswer(0, at("all apps were restarted"));
    EXPECT_TRUE(Access::restartAllRequested(manager_));
    EXPECT_THAT(signalled(), ElementsAre("702"));
    EXPECT_EQ(applist[0].pid, 701);
}

TEST_F(RestartManyTest, AnswersWithTheTimeOfTheRequest) {
    addRunning(makeApp("one", 701));
    scriptSlowStop(701);
    scriptLaunch(801);
    process(APPMONCTL_Restart_All);
    expectAnswer(0, at("all apps were restarted", kNowText));
    EXPECT_EQ(applist[0].start_time, kNow + 1);
}

TEST_F(RestartManyTest, RestartAllButSparesEveryOtherRestartType) {
    addRunning(ofType(makeApp("all", 701), RESTART_TYPE_ALL));
    addRunning(ofType(makeApp("odd", 702), 2));
    addRunning(makeApp("security_server", 703));
    addRunning(ofType(makeApp("negative", 704), -1));
    scriptLaunch(803);
    EXPECT_EQ(process(APPMONCTL_Restart_All_But), 0);
    expectAnswer(0, at("all apps but sec_server were restarted"));
    EXPECT_THAT(signalled(), ElementsAre("703"));
    EXPECT_FALSE(Access::restartAllRequested(manager_));
    EXPECT_EQ(applist[0].status, APP_STATUS_RUNNING);
}

TEST_F(RestartManyTest, RestartPortAppsRestartsWhatServesAPort) {
    addRunning(onPort(makeApp("com", 701)));
    addRunning(makeApp("none", 702));
    addRunning(onPort(makeApp("odd", 703), -1));
    addRunning(ofType(onPort(makeApp("all", 704), PORT_TYPE_ETH), RESTART_TYPE_ALL));
    scriptLaunch(801);
    scriptLaunch(803);
    EXPECT_EQ(process(APPMONCTL_Restart_PortApps), 0);
    expectAnswer(0, at("all apps on communication ports were restarted"));
    EXPECT_THAT(signalled(), ElementsAre("701", "703"));
    EXPECT_TRUE(Access::restartAllRequested(manager_));
    EXPECT_EQ(applist[1].pid, 702);
}

TEST_F(RestartManyTest, NothingToRestartIsASuccess) {
    addRunning(ofType(makeApp("all", 701), RESTART_TYPE_ALL));
    EXPECT_EQ(process(APPMONCTL_Restart_PortApps), 0);
    expectAnswer(0, at("all apps on communication ports were restarted"));
    EXPECT_FALSE(Access::restartAllRequested(manager_));
}

TEST_F(RestartManyTest, ShowsNoSizes) {
    verbose = 5;
    addRunning(ofType(makeApp("all", 701), RESTART_TYPE_ALL));
    processUnanswered(APPMONCTL_Restart_All_But);
    EXPECT_EQ(world().consoleText(), "");
}

struct RestartFailureCase {
    int action;
    int result;
    const char* name;
};

void PrintTo(const RestartFailureCase& tested, std::ostream* out) {
    *out << tested.action;
}

class RestartManyFailureTest : public RestartManyTest,
                               public testing::WithParamInterface<RestartFailureCase> {
protected:
    void expectFailure() {
        EXPECT_EQ(process(GetParam().action), GetParam().result);
        expectNoReply();
        EXPECT_FALSE(registryIsHeld());
        EXPECT_EQ(applist[0].pid, 801); // stays restarted
        EXPECT_EQ(applist[1].pid, 702);
        EXPECT_EQ(applist[2].pid, 703); // not touched
        EXPECT_EQ(applist[2].status, APP_STATUS_RUNNING);
        EXPECT_TRUE(world().isAlive(703));
    }

    /// The log's lines: the request, the first entry's restart, then `more`. The failure itself is
    /// not among them.
    static void expectLog(const Lines& more) {
        Lines lines = {
            {kLevelDebug, std::string("processCmd() request.action=APPMONCTL_") + GetParam().name},
            {kLevelInfo, "one[pid=701] is stopped"},
            {kLevelInfo, "start_process: name=one  status=1 start_process_fork2=801"}};
        lines.insert(lines.end(), more.begin(), more.end());
        EXPECT_EQ(logLines(), lines);
    }
};

TEST_P(RestartManyFailureTest, FailedStopEndsTheWalkWithoutAReply) {
    addRunning(onPort(makeApp("one", 701)));
    applist.push_back(onPort(makeLostApp("lost", 702)));
    addRunning(onPort(makeApp("three", 703)));
    scriptLaunch(801);
    expectFailure();
    expectLog({});
}

TEST_P(RestartManyFailureTest, FailedStartEndsTheWalkWithoutAReply) {
    addRunning(onPort(makeApp("one", 701)));
    addRunning(onPort(makeAppWithoutCommand("two", 702)));
    addRunning(onPort(makeApp("three", 703)));
    scriptLaunch(801);
    expectFailure();
    expectLog({{kLevelInfo, "two[pid=702] is stopped"},
               {kLevelError, "two has no command line failure"}});
}

TEST_P(RestartManyFailureTest, FailedEntryTakesStatusAndFlagOfTheWorkRecordToo) {
    Access::workRecord(manager_).status = APP_STATUS_START_FAILURE;
    Access::workRecord(manager_).check_flag = 1;
    applist = {onPort(makeLostApp("lost", 702))};
    EXPECT_EQ(process(GetParam().action), GetParam().result);
    EXPECT_EQ(applist[0].status, APP_STATUS_START_FAILURE);
    EXPECT_EQ(applist[0].check_flag, 1);
    EXPECT_EQ(applist[0].pid, 702);
}

TEST_P(RestartManyFailureTest, ComesBeforeTheQuestionWhetherSomebodyWaits) {
    applist = {onPort(makeLostApp("lost", 702))};
    EXPECT_EQ(processUnanswered(GetParam().action), GetParam().result);
    expectNoReply();
}

TEST_P(RestartManyFailureTest, RegistryIsHeldThroughoutARestart) {
    addRunning(onPort(makeApp("one", 701)));
    addRunning(onPort(makeApp("two", 702)));
    world().process(701)->ignoresTerm = true;
    scriptLaunch(801);
    scriptLaunch(802);
    world().addProcess(801, "one", "/home/kelvo/root/one");
    world().onSignal = [&](pid_t, int) { lookAtTheHeldRegistry(); };
    world().onSleep = [&](int milliseconds) {
        lookAtTheHeldRegistry();
        if (milliseconds == 1) {
            world().now += 31; // The launch gives up.
        }
    };
    EXPECT_EQ(process(GetParam().action), 0);
    EXPECT_GE(looks_, 10);
    EXPECT_FALSE(registryIsHeld());
}

TEST_P(RestartManyFailureTest, RegistryIsWaitedForBeforeItIsTakenToBeEmpty) {
    scriptLaunch(801);
    EXPECT_EQ(processWhileRegistering(GetParam().action, onPort(makeApp("late", 701))), 0);
    EXPECT_THAT(signalled(), ElementsAre("701"));
    ASSERT_THAT(registeredNames(), ElementsAre("late"));
    EXPECT_EQ(applist[0].pid, 801);
}

INSTANTIATE_TEST_SUITE_P(Actions, RestartManyFailureTest,
                         testing::Values(RestartFailureCase{6, -1, "Restart_All"},
                                         RestartFailureCase{7, -1, "Restart_All_But"},
                                         RestartFailureCase{8, -5, "Restart_PortApps"}));

} // namespace
} // namespace commands
