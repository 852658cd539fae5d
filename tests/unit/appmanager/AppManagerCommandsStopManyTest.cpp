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

// Stop_All, Stop_All_But and Stop_PortApps.
using StopManyTest = CommandTest;

TEST_F(StopManyTest, StopAllStopsInReverseOrderAndEmptiesTheRegistry) {
    addRunning(makeApp("one", 701));
    addRunning(makeApp("security_server", 702));
    addRunning(onPort(makeApp("three", 703)));
    EXPECT_EQ(process(APPMONCTL_Stop_All), 0);
    expectReply(0, at("all apps were stopped") + "\n");
    EXPECT_EQ(logLines(), (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Stop_All"},
                                 {kLevelInfo, "three[pid=703] is stopped"},
                                 {kLevelInfo, "security_server[pid=702] is stopped"},
                                 {kLevelInfo, "one[pid=701] is stopped"},
                                 {kLevelInfo, at("all apps were stopped")}}));
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopManyTest, StopAllAnswersWithTheResultOfTheFirstEntry) {
    applist = {makeLostApp("one", 701)};
    addRunning(makeApp("two", 702));
    addRunning(makeApp("three", 703));
    EXPECT_EQ(process(APPMONCTL_Stop_All), 0);
    expectAnswer(-4, at("all apps were stopped"));
    EXPECT_THAT(signalled(), ElementsAre("703", "702"));
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopManyTest, StopAllForgetsOtherFailures) {
    addRunning(makeApp("one", 701));
    applist.push_back(makeLostApp("two", 702));
    applist.push_back(makeLostApp("three", 703));
    process(APPMONCTL_Stop_All);
    expectAnswer(0, at("all apps were stopped"));
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopManyTest, AnswersWithTheTimeOfTheRequest) {
    addRunning(makeApp("one", 701));
    scriptSlowStop(701);
    process(APPMONCTL_Stop_All);
    EXPECT_EQ(world().now, kNow + 1);
    expectAnswer(0, at("all apps were stopped", kNowText));
}

TEST_F(StopManyTest, StopAllButSparesTheSecurityServer) {
    addRunning(makeApp("a", 701));
    addRunning(makeApp("security_server", 702));
    addRunning(makeApp("b", 703));
    EXPECT_EQ(process(APPMONCTL_Stop_All_But), 0);
    expectAnswer(0, at("all apps but sec_server were stopped"));
    EXPECT_THAT(signalled(), ElementsAre("703", "701"));
    EXPECT_THAT(registeredNames(), ElementsAre("security_server"));
    EXPECT_EQ(applist[0].status, APP_STATUS_RUNNING);
    EXPECT_TRUE(world().isAlive(702));
}

TEST_F(StopManyTest, StopAllButSparesExactlyThatName) {
    addRunning(makeApp("security_server2", 701));
    addRunning(makeApp("security_serve", 702));
    addRunning(makeApp("Security_server", 703));
    addRunning(makeApp("sec_server", 704));
    process(APPMONCTL_Stop_All_But);
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopManyTest, StopAllButStopsWhateverTheRestartType) {
    addRunning(makeApp("a", 701));
    applist[0].restart_type = RESTART_TYPE_ALL;
    process(APPMONCTL_Stop_All_But);
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_FALSE(Access::restartAllRequested(manager_));
}

TEST_F(StopManyTest, StopAllButKeepsWhatCouldNotBeStopped) {
    applist = {makeLostApp("lost", 701)};
    addRunning(makeApp("security_server", 702));
    addRunning(makeApp("b", 703));
    EXPECT_EQ(process(APPMONCTL_Stop_All_But), 0);
    expectAnswer(-4, at("all apps but sec_server were stopped"));
    EXPECT_THAT(registeredNames(), ElementsAre("lost", "security_server"));
    EXPECT_EQ(applist[0].status, APP_STATUS_STARTING0);
}

TEST_F(StopManyTest, StopAllButAnswersWithTheLastStopMade) {
    addRunning(makeApp("a", 701));
    applist.push_back(makeLostApp("lost", 702));
    process(APPMONCTL_Stop_All_But);
    expectAnswer(0, at("all apps but sec_server were stopped"));
    EXPECT_THAT(registeredNames(), ElementsAre("lost"));
}

TEST_F(StopManyTest, StopAllButWithNothingToStopAnswersZero) {
    addRunning(makeApp("security_server", 702));
    EXPECT_EQ(process(APPMONCTL_Stop_All_But), 0);
    expectAnswer(0, at("all apps but sec_server were stopped"));
}

TEST_F(StopManyTest, StopPortAppsStopsWhatServesAPort) {
    addRunning(onPort(makeApp("com", 701)));
    addRunning(makeApp("none", 702));
    addRunning(onPort(makeApp("security_server", 703), PORT_TYPE_ETH));
    addRunning(onPort(makeApp("odd", 704), -1));
    EXPECT_EQ(process(APPMONCTL_Stop_PortApps), 0);
    expectAnswer(0, at("all apps on ports were stopped"));
    EXPECT_THAT(signalled(), ElementsAre("704", "703", "701"));
    EXPECT_THAT(registeredNames(), ElementsAre("none"));
}

TEST_F(StopManyTest, StopPortAppsKeepsWhatCouldNotBeStopped) {
    applist = {onPort(makeLostApp("lost", 701))};
    addRunning(onPort(makeApp("com", 702)));
    process(APPMONCTL_Stop_PortApps);
    expectAnswer(-4, at("all apps on ports were stopped"));
    EXPECT_THAT(registeredNames(), ElementsAre("lost"));
}

TEST_F(StopManyTest, StopPortAppsWithoutAnyAnswersZero) {
    addRunning(makeApp("none", 701));
    process(APPMONCTL_Stop_PortApps);
    expectAnswer(0, at("all apps on ports were stopped"));
    EXPECT_THAT(registeredNames(), ElementsAre("none"));
    EXPECT_EQ(world().count("kill"), 0U);
}

TEST_F(StopManyTest, PortOfTheRequestDoesNotMatter) {
    addRunning(makeApp("none", 701));
    reqcmd request = makeRequest(APPMONCTL_Stop_PortApps);
    request.porttype = PORT_TYPE_COM;
    manager_.processCmd(request);
    EXPECT_THAT(applist, SizeIs(1));
}

TEST_F(StopManyTest, EntryIsMarkedStoppedBeforeTheNextOneIsStopped) {
    addRunning(makeApp("one", 701));
    addRunning(makeApp("two", 702));
    world().onSignal = [](pid_t pid, int) {
        if (pid == 701) {
            EXPECT_EQ(applist[1].status, APP_STATUS_STOPPED);
        }
    };
    process(APPMONCTL_Stop_All);
}

TEST_F(StopManyTest, StopAllShowsTheSizesAboveVerbosityThree) {
    verbose = 4;
    addRunning(makeApp("one", 701));
    addRunning(makeApp("two", 702));
    processUnanswered(APPMONCTL_Stop_All);
    // The second figure is that after the loop, at the latest after the registry was emptied.
    EXPECT_THAT(world().consoleText(),
                testing::AnyOf("applist size before =2\napplist size after 0\n",
                               "applist size before =2\napplist size after 2\n"));
}

TEST_F(StopManyTest, StopPortAppsShowsTheSizesAboveVerbosityThree) {
    verbose = 4;
    addRunning(makeApp("one", 701));
    addRunning(onPort(makeApp("two", 702)));
    addRunning(onPort(makeApp("three", 703)));
    processUnanswered(APPMONCTL_Stop_PortApps);
    EXPECT_EQ(world().consoleText(), "applist size before =3\napplist size after 1\n");
}

TEST_F(StopManyTest, StopAllButShowsNoSizes) {
    verbose = 5;
    addRunning(makeApp("one", 701));
    processUnanswered(APPMONCTL_Stop_All_But);
    EXPECT_EQ(world().consoleText(), "");
}

class StopManyTraceTest : public StopManyTest, public testing::WithParamInterface<int> {};

TEST_P(StopManyTraceTest, ShowsNoSizesAtVerbosityThree) {
    verbose = 3;
    addRunning(onPort(makeApp("one", 701)));
    processUnanswered(GetParam());
    EXPECT_EQ(world().consoleText(), "");
}

INSTANTIATE_TEST_SUITE_P(Actions, StopManyTraceTest, testing::Values(2, 3, 4));

class StopManyLockTest : public CommandTest, public testing::WithParamInterface<int> {};

TEST_P(StopManyLockTest, RegistryIsHeldThroughoutAStop) {
    addRunning(makeApp("one", 701));
    addRunning(makeApp("two", 702));
    applist[0].port_type = PORT_TYPE_COM;
    applist[1].port_type = PORT_TYPE_ETH;
    world().onSignal = [&](pid_t, int) { lookAtTheHeldRegistry(); };
    EXPECT_EQ(process(GetParam()), 0);
    EXPECT_EQ(looks_, 4);
}

TEST_P(StopManyLockTest, RegistryIsWaitedForBeforeItIsTakenToBeEmpty) {
    EXPECT_EQ(processWhileRegistering(GetParam(), onPort(makeApp("late", 701))), 0);
    EXPECT_THAT(signalled(), ElementsAre("701"));
    EXPECT_THAT(applist, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Actions, StopManyLockTest, testing::Values(2, 3, 4));

} // namespace
} // namespace commands
