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

// --- stopApp -------------------------------------------------------------------------------------

class StopAppTest : public CommandTest {
protected:
    int stop() { return manager_.stopApp(makeRequest(APPMONCTL_Stop, "app"), info_); }
};

TEST_F(StopAppTest, WithoutAnEntryOfTheNameFindsNothing) {
    addRunning(makeApp("other", 700));
    EXPECT_EQ(stop(), -20);
    EXPECT_THAT(registeredNames(), ElementsAre("other"));
    EXPECT_EQ(world().count("kill"), 0U);
}

TEST_F(StopAppTest, EmptyRegistryFindsNothing) {
    EXPECT_EQ(stop(), -20);
}

TEST_F(StopAppTest, PreparesTheRecordInAnyCase) {
    info_.pid = 5;
    manager_.stopApp(makeRequest(APPMONCTL_Stop, "app", "/bin/app"), info_);
    EXPECT_STREQ(info_.name, "app");
    EXPECT_STREQ(info_.cmd, "/bin/app");
    EXPECT_EQ(info_.start_time, kNow);
    EXPECT_EQ(info_.pid, 5);
}

TEST_F(StopAppTest, StopsAndRemovesEveryEntryOfTheNameFrontToBack) {
    addRunning(makeApp("app", 701));
    addRunning(makeApp("app", 702));
    addRunning(makeApp("other", 703));
    addRunning(makeApp("app", 704));
    EXPECT_EQ(stop(), 0);
    EXPECT_THAT(registeredNames(), ElementsAre("other"));
    EXPECT_THAT(signalled(), ElementsAre("701", "702", "704"));
    EXPECT_FALSE(world().isAlive(701));
    EXPECT_TRUE(world().isAlive(703));
}

TEST_F(StopAppTest, ComparesWholeNames) {
    for (const char* name : {"ap", "appl", "App", "app "}) {
        addRunning(makeApp(name, 700));
    }
    EXPECT_EQ(stop(), -20);
    EXPECT_THAT(applist, SizeIs(4));
}

TEST_F(StopAppTest, FindsAnEmptyName) {
    addRunning(makeApp("", 701));
    EXPECT_EQ(manager_.stopApp(makeRequest(APPMONCTL_Stop, ""), info_), 0);
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopAppTest, RemovesAnEntryWhoseStopFailed) {
    applist.push_back(makeLostApp("app", 701));
    EXPECT_EQ(stop(), -4);
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_EQ(world().count("kill"), 0U);
}

TEST_F(StopAppTest, ReturnsTheLastResultWhenThatIsGood) {
    applist.push_back(makeLostApp("app", 701));
    addRunning(makeApp("app", 702));
    EXPECT_EQ(stop(), 0);
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopAppTest, ReturnsTheLastResultWhenThatIsBad) {
    addRunning(makeApp("app", 702));
    applist.push_back(makeLostApp("app", 701));
    EXPECT_EQ(stop(), -4);
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_THAT(signalled(), ElementsAre("702"));
}

TEST_F(StopAppTest, ReportsEachFailureFromVerbosityTwoOn) {
    verbose = 2;
    applist = {makeLostApp("app", 701), makeLostApp("app", 702)};
    stop();
    EXPECT_EQ(world().consoleText(), "stopApp failed for app\nstopApp failed for app\n");
}

TEST_F(StopAppTest, FailsSilentlyAtVerbosityOne) {
    verbose = 1;
    applist = {makeLostApp("app", 701)};
    stop();
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(StopAppTest, HoldsTheRegistryDuringEveryStop) {
    applist = {makeLostApp("app", 701)};
    addRunning(makeApp("app", 702));
    world().onSleep = [&](int) { lookAtTheHeldRegistry(); };
    world().onSignal = [&](pid_t, int) { lookAtTheHeldRegistry(); };
    stop();
    EXPECT_GE(looks_, 12);
    EXPECT_FALSE(registryIsHeld());
}

TEST_F(StopAppTest, WorksOnACopyUntilTheStopIsOver) {
    addRunning(makeApp("app", 701));
    world().onSignal = [](pid_t, int) {
        EXPECT_THAT(applist, SizeIs(1));
        EXPECT_EQ(applist[0].status, APP_STATUS_RUNNING);
    };
    EXPECT_EQ(stop(), 0);
}

// --- Stop ----------------------------------------------------------------------------------------

using StopTest = CommandTest;

TEST_F(StopTest, StopsRemovesAndAnswers) {
    addRunning(makeApp("app", 701));
    EXPECT_EQ(process(APPMONCTL_Stop, "app"), 0);
    expectReply(0, at("app is stopped") + "\n");
    EXPECT_EQ(logLines(), (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Stop app"},
                                 {kLevelInfo, "app[pid=701] is stopped"},
                                 {kLevelInfo, at("app is stopped")}}));
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopTest, AnswersWithTheTimeOfTheRequest) {
    addRunning(makeApp("app", 701));
    scriptSlowStop(701);
    process(APPMONCTL_Stop, "app");
    EXPECT_EQ(world().now, kNow + 1);
    expectAnswer(0, at("app is stopped", kNowText));
}

TEST_F(StopTest, AnswersThatANameIsNotFound) {
    addRunning(makeApp("other", 701));
    EXPECT_EQ(process(APPMONCTL_Stop, "app"), 0);
    expectReply(-20, "app is not found\n");
    EXPECT_EQ(logLines(), (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Stop app"},
                                 {kLevelInfo, "app is not found"}}));
}

TEST_F(StopTest, NotFoundWithoutAReplyIsSilent) {
    EXPECT_EQ(processUnanswered(APPMONCTL_Stop, "app"), 0);
    expectNoReply();
    EXPECT_THAT(logLines(), SizeIs(1));
}

TEST_F(StopTest, FailureIsLoggedAndNotAnswered) {
    applist = {makeLostApp("app", 701)};
    EXPECT_EQ(process(APPMONCTL_Stop, "app"), -4);
    expectNoReply();
    EXPECT_EQ(logLines(), (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Stop app"},
                                 {kLevelError, "app fails to stop"}}));
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopTest, FailureWithoutAReplyIsNotLogged) {
    applist = {makeLostApp("app", 701)};
    EXPECT_EQ(processUnanswered(APPMONCTL_Stop, "app"), 0);
    expectNoReply();
    EXPECT_THAT(logLines(), SizeIs(1));
    EXPECT_THAT(applist, IsEmpty());
}

} // namespace
} // namespace commands
