#include <climits>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/CommandFixture.h"
#include "tests/unit/appmanager/RequestSupport.h"

namespace commands {
namespace {

// --- restartApp ----------------------------------------------------------------------------------

class RestartAppTest : public CommandTest {
protected:
    int restart(std::string_view cmd = {}) {
        return manager_.restartApp(makeRequest(APPMONCTL_Restart, "app", cmd), info_);
    }
};

TEST_F(RestartAppTest, EmptyRegistryIsASuccess) {
    EXPECT_EQ(restart(), 0);
    EXPECT_STREQ(info_.name, "app");
}

TEST_F(RestartAppTest, WithoutAnEntryOfTheNameIsASuccess) {
    addRunning(makeApp("other", 701));
    EXPECT_EQ(restart(), 0);
    EXPECT_EQ(world().count("kill"), 0U);
    EXPECT_EQ(world().count("fork"), 0U);
}

TEST_F(RestartAppTest, RestartsEveryEntryOfTheNameInPlace) {
    addRunning(makeApp("app", 701));
    addRunning(makeApp("other", 702));
    addRunning(makeApp("app", 703));
    applist[0].check_flag = 1;
    applist[0].start_time = 5;
    applist[0].uptime = 77;
    applist[0].port_num = 9;
    const appinfo before = applist[0];
    scriptLaunch(801);
    scriptLaunch(803);

    EXPECT_EQ(restart("/bin/ignored"), 0);

    EXPECT_THAT(registeredNames(), ElementsAre("app", "other", "app"));
    EXPECT_THAT(signalled(), ElementsAre("701", "703"));
    EXPECT_EQ(applist[0].pid, 801);
    EXPECT_EQ(applist[2].pid, 803);
    appinfo expected = before;
    expected.pid = 801;
    expected.status = APP_STATUS_STARTING0;
    expected.start_time = kNow;
    expected.check_flag = 0;
    EXPECT_TRUE(sameBytes(applist[0], expected));
    EXPECT_EQ(applist[1].pid, 702);
    EXPECT_EQ(applist[1].status, APP_STATUS_RUNNING);
}

TEST_F(RestartAppTest, TakesNothingElseOfTheDaemonFound) {
    addRunning(everyFieldSet(makeApp("app", 701)));
    appinfo expected = applist[0];
    scriptLaunchOfADaemon(801, 802, "app");
    EXPECT_EQ(restart("/bin/ignored"), 0);
    expected.pid = 802;
    expected.status = APP_STATUS_STARTING0;
    expected.start_time = kDaemonStart;
    expected.check_flag = 0;
    EXPECT_TRUE(sameBytes(applist[0], expected));
    EXPECT_STREQ(applist[0].pidfile, "/tmp/pid/registered");
}

TEST_F(RestartAppTest, HoldsTheRegistryDuringTheWaitsOfTheStop) {
    addRunning(makeApp("app", 701));
    world().process(701)->ignoresTerm = true;
    scriptLaunch(801);
    world().onSleep = [&](int) { lookAtTheHeldRegistry(); };
    EXPECT_EQ(restart(), 0);
    EXPECT_EQ(looks_, 5);
    EXPECT_FALSE(registryIsHeld());
}

TEST_F(RestartAppTest, LaunchWithoutAProcessCountsAsStarted) {
    addRunning(makeApp("app", 701));
    scriptFailedLaunch();
    EXPECT_EQ(restart(), 0);
    EXPECT_EQ(applist[0].pid, 701);
    EXPECT_EQ(applist[0].status, APP_STATUS_STARTING0);
}

TEST_F(RestartAppTest, EntryThatAsksForAllIsLeftAloneAndTheRequestIsNoted) {
    addRunning(makeApp("app", 701));
    applist[0].restart_type = RESTART_TYPE_ALL;
    EXPECT_EQ(restart(), 0);
    EXPECT_TRUE(Access::restartAllRequested(manager_));
    EXPECT_TRUE(world().isAlive(701));
    EXPECT_EQ(world().count("fork"), 0U);
    EXPECT_EQ(applist[0].status, APP_STATUS_RUNNING);
}

TEST_F(RestartAppTest, RestartTypeOfTheRequestDoesNotMatter) {
    addRunning(makeApp("app", 701));
    scriptLaunch(801);
    reqcmd request = makeRequest(APPMONCTL_Restart, "app");
    request.restart_type = RESTART_TYPE_ALL;
    EXPECT_EQ(manager_.restartApp(request, info_), 0);
    EXPECT_FALSE(Access::restartAllRequested(manager_));
    EXPECT_EQ(applist[0].pid, 801);
}

TEST_F(RestartAppTest, GoesOnAfterAFailedStopAndRemembersIt) {
    applist = {makeLostApp("app", 701)};
    addRunning(makeApp("app", 702));
    const appinfo lost = applist[0];
    scriptLaunch(802);
    EXPECT_EQ(restart(), -4);
    EXPECT_TRUE(sameBytes(applist[0], lost));
    EXPECT_EQ(applist[1].pid, 802);
}

TEST_F(RestartAppTest, EndsAtTheFirstFailedStart) {
    addRunning(makeAppWithoutCommand("app", 701));
    addRunning(makeApp("app", 702));
    EXPECT_EQ(restart(), -5);
    EXPECT_EQ(applist[0].status, APP_STATUS_STOPPED);
    EXPECT_EQ(applist[0].pid, 701);
    EXPECT_THAT(signalled(), ElementsAre("701"));
    EXPECT_EQ(applist[1].status, APP_STATUS_RUNNING);
    EXPECT_FALSE(registryIsHeld());
}

TEST_F(RestartAppTest, FailedStartOutweighsAFailedStop) {
    applist = {makeLostApp("app", 701)};
    addRunning(makeAppWithoutCommand("app", 702));
    EXPECT_EQ(restart(), -5);
}

TEST_F(RestartAppTest, EntryIsStoppedWhileItIsLaunched) {
    addRunning(makeApp("app", 701));
    scriptLaunch(801);
    world().addProcess(801, "app", "/bin/app");
    world().onSleep = [&](int) {
        EXPECT_EQ(applist[0].status, APP_STATUS_STOPPED);
        lookAtTheHeldRegistry();
        world().now += 31; // The launch gives up.
    };
    EXPECT_EQ(restart(), 0);
    EXPECT_GE(looks_, 1);
    EXPECT_FALSE(registryIsHeld());
}

class RestartAppTypeTest : public RestartAppTest, public testing::WithParamInterface<int> {};

TEST_P(RestartAppTypeTest, EveryOtherTypeRestartsTheApplicationItself) {
    addRunning(makeApp("app", 701));
    applist[0].restart_type = GetParam();
    scriptLaunch(801);
    EXPECT_EQ(restart(), 0);
    EXPECT_FALSE(Access::restartAllRequested(manager_));
    EXPECT_EQ(applist[0].pid, 801);
}

INSTANTIATE_TEST_SUITE_P(Types, RestartAppTypeTest, testing::Values(0, 2, -1, INT_MIN, INT_MAX));

// --- Restart -------------------------------------------------------------------------------------

using RestartTest = CommandTest;

TEST_F(RestartTest, RestartsInPlaceAndAnswers) {
    addRunning(makeApp("app", 701));
    addRunning(makeApp("other", 702));
    scriptLaunch(801);
    EXPECT_EQ(process(APPMONCTL_Restart, "app"), 0);
    expectReply(0, at("app is restarted") + "\n");
    EXPECT_EQ(logLines(),
              (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Restart app"},
                     {kLevelInfo, "app[pid=701] is stopped"},
                     {kLevelInfo, "start_process: name=app  status=1 start_process_fork2=801"},
                     {kLevelInfo, at("app is restarted")}}));
    EXPECT_THAT(registeredNames(), ElementsAre("app", "other"));
    EXPECT_EQ(applist[0].pid, 801);
}

TEST_F(RestartTest, AnswersWithTheTimeOfThePreparation) {
    addRunning(makeApp("app", 701));
    scriptSlowStop(701);
    scriptLaunch(801);
    process(APPMONCTL_Restart, "app");
    expectAnswer(0, at("app is restarted", kNowText));
    EXPECT_EQ(applist[0].start_time, kNow + 1);
}

TEST_F(RestartTest, UnknownNameIsAnsweredAsRestarted) {
    EXPECT_EQ(process(APPMONCTL_Restart, "app"), 0);
    expectAnswer(0, at("app is restarted"));
    EXPECT_THAT(logLines(), SizeIs(2));
}

TEST_F(RestartTest, EntryThatAsksForAllIsAnsweredAsRestarted) {
    addRunning(makeApp("app", 701));
    applist[0].restart_type = RESTART_TYPE_ALL;
    EXPECT_EQ(process(APPMONCTL_Restart, "app"), 0);
    expectAnswer(0, at("app is restarted"));
    EXPECT_TRUE(Access::restartAllRequested(manager_));
    EXPECT_TRUE(world().isAlive(701));
}

TEST_F(RestartTest, FailedStopIsAnsweredAndLoggedAsAnError) {
    applist = {makeLostApp("app", 701)};
    EXPECT_EQ(process(APPMONCTL_Restart, "app"), -3);
    expectAnswer(-4, "app fails to restart", kLevelError);
    EXPECT_THAT(logLines(), SizeIs(2));
    EXPECT_THAT(registeredNames(), ElementsAre("app"));
}

TEST_F(RestartTest, FailedStartIsAnsweredAndLoggedAsAnError) {
    addRunning(makeAppWithoutCommand("app", 701));
    EXPECT_EQ(process(APPMONCTL_Restart, "app"), -3);
    expectAnswer(-5, "app fails to restart", kLevelError);
    EXPECT_THAT(registeredNames(), ElementsAre("app"));
}

TEST_F(RestartTest, FailureWithoutAReplyIsASuccess) {
    applist = {makeLostApp("app", 701)};
    EXPECT_EQ(processUnanswered(APPMONCTL_Restart, "app"), 0);
    expectNoReply();
    EXPECT_THAT(logLines(), SizeIs(1));
}

} // namespace
} // namespace commands
