#include <cstddef>
#include <string>
#include <string_view>
#include <thread>

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

// --- startApp ------------------------------------------------------------------------------------

class StartAppTest : public CommandTest {
protected:
    int start(std::string_view cmd) {
        return manager_.startApp(makeRequest(APPMONCTL_Start, "app", cmd), info_);
    }
};

TEST_F(StartAppTest, LaunchesAndAppends) {
    applist.push_back(makeApp("first", 700));
    scriptLaunch(801);
    EXPECT_EQ(start("/bin/app"), 0);
    EXPECT_THAT(registeredNames(), ElementsAre("first", "app"));
    EXPECT_TRUE(sameBytes(applist[1], info_));
    EXPECT_EQ(info_.pid, 801);
    EXPECT_EQ(info_.status, APP_STATUS_STARTING0);
}

TEST_F(StartAppTest, DoesNotLookForAnEntryOfTheSameName) {
    applist.push_back(makeApp("app", 700));
    scriptLaunch(801);
    EXPECT_EQ(start("/bin/app"), 0);
    EXPECT_THAT(registeredNames(), ElementsAre("app", "app"));
    EXPECT_EQ(world().count("kill"), 0U);
}

TEST_F(StartAppTest, AddsNothingWithoutACommand) {
    EXPECT_EQ(start(""), -8);
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_EQ(info_.status, APP_STATUS_START_FAILURE);
}

TEST_F(StartAppTest, ReportsTheFailureFromVerbosityTwoOn) {
    verbose = 2;
    start("");
    EXPECT_EQ(world().consoleText(), "startApp failed for app\n");
}

TEST_F(StartAppTest, FailsSilentlyAtVerbosityOne) {
    verbose = 1;
    start("");
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(StartAppTest, SucceedsSilently) {
    verbose = 2;
    scriptLaunch(801);
    start("/bin/app");
    EXPECT_EQ(world().consoleText(), "");
}

// --- a registry that has to grow -----------------------------------------------------------------

/// The registry has room for one more application, which is started.
class FullRegistryTest : public StartAppTest {
protected:
    void SetUp() override {
        StartAppTest::SetUp();
        applist.shrink_to_fit();
        applist.reserve(3);
        applist.resize(applist.capacity() - 1, makeApp("other", 700));
        scriptLaunch(801);
        EXPECT_EQ(start("/bin/app"), 0);
        full_ = applist.size();
        world().forgetRecords();
        world().mallocs = {};
    }

    void expectRefused(int result) {
        EXPECT_EQ(result, -3);
        EXPECT_EQ(applist.size(), full_);
        EXPECT_EQ(world().count("fork"), 0U) << "what was launched runs unsupervised";
        EXPECT_THAT(world().logTexts(kLevelError),
                    Contains("startApp: no memory for more than " + std::to_string(full_) +
                             " applications"));
    }

    std::size_t full_ = 0;
};

TEST_F(FullRegistryTest, Grows) {
    scriptLaunch(802);
    EXPECT_EQ(start("/bin/app"), 0);
    EXPECT_EQ(applist.size(), full_ + 1);
    EXPECT_EQ(applist.back().pid, 802);
    EXPECT_EQ(applist[full_ - 1].pid, 801) << "what was there has moved";
    EXPECT_THAT(world().logTexts(kLevelError), IsEmpty());
}

TEST_F(FullRegistryTest, LaunchesNothingThatItHasNoMemoryFor) {
    world().mallocs.failNext = 1;
    expectRefused(start("/bin/app"));
    EXPECT_THAT(logLines(), SizeIs(1));
    EXPECT_FALSE(registryIsHeld());
}

TEST_F(FullRegistryTest, ShowsTheFailureAsAnyOther) {
    verbose = 2;
    world().mallocs.failNext = 1;
    start("/bin/app");
    EXPECT_EQ(world().consoleText(), "startApp failed for app\n");
}

TEST_F(FullRegistryTest, FailedStartIsLoggedAndNotAnswered) {
    world().mallocs.failNext = 1;
    expectRefused(process(APPMONCTL_Start, "more", "/bin/more"));
    EXPECT_EQ(logLines().back(), Line(kLevelError, "more fails to start"));
    expectNoReply();
}

TEST_F(FullRegistryTest, TakesTheNextOnceThereIsMemory) {
    world().mallocs.failNext = 1;
    expectRefused(start("/bin/app"));
    scriptLaunch(802);
    EXPECT_EQ(start("/bin/app"), 0);
    EXPECT_EQ(applist.size(), full_ + 1);
}

TEST_F(FullRegistryTest, TakesTheNextOnceAnotherHasGone) {
    world().mallocs.failNext = 1;
    expectRefused(start("/bin/app"));
    applist.pop_back();
    const std::size_t room = applist.capacity();
    scriptLaunch(802);
    EXPECT_EQ(start("/bin/app"), 0);
    EXPECT_EQ(applist.size(), full_);
    EXPECT_EQ(applist.capacity(), room) << "no need to grow";
}

TEST_F(StartAppTest, DoesNotHoldTheRegistryWhileTheLaunchWaits) {
    world().addProcess(801, "app", "/home/kelvo/root/app");
    scriptLaunch(801);
    int looks = 0;
    bool held = false;
    world().onSleep = [&](int) {
        ++looks;
        held = held || registryIsHeld();
        world().now += 31; // The launch gives up.
    };
    EXPECT_EQ(start("/bin/app"), 0);
    EXPECT_GE(looks, 1);
    EXPECT_FALSE(held);
    EXPECT_FALSE(registryIsHeld());
}

TEST_F(StartAppTest, WaitsForTheRegistryBeforeItAppends) {
    scriptLaunch(801);
    EXPECT_EQ(Access::appLock(manager_).lock(), 0);
    std::thread starter([this] { EXPECT_EQ(start("/bin/app"), 0); });
    EXPECT_TRUE(fakes::waitUntil([] { return !world().logTexts(kLevelInfo).empty(); }));
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_EQ(Access::appLock(manager_).unlock(), 0);
    starter.join();
    EXPECT_THAT(registeredNames(), ElementsAre("app"));
}

// --- Start ---------------------------------------------------------------------------------------

using StartTest = CommandTest;

TEST_F(StartTest, LaunchesRegistersAndAnswers) {
    scriptLaunch(801);
    EXPECT_EQ(process(APPMONCTL_Start, "app", "/bin/app"), 0);
    expectReply(0, at("app [pid=801] is started") + "\n");
    EXPECT_EQ(logLines(),
              (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Start app"},
                     {kLevelInfo, "start_process: name=app  status=1 start_process_fork2=801"},
                     {kLevelInfo, at("app [pid=801] is started")}}));
    ASSERT_THAT(registeredNames(), ElementsAre("app"));
    EXPECT_EQ(applist[0].pid, 801);
    EXPECT_EQ(applist[0].status, APP_STATUS_STARTING0);
}

TEST_F(StartTest, ReplacesTheRunningInstanceAndPutsTheNewOneAtTheEnd) {
    addRunning(makeApp("app", 701));
    addRunning(makeApp("other", 702));
    scriptLaunch(801);
    std::string order;
    world().onSignal = [&](pid_t, int) { order += world().count("fork") == 0 ? "k" : "K"; };
    EXPECT_EQ(process(APPMONCTL_Start, "app", "/bin/app"), 0);
    EXPECT_THAT(registeredNames(), ElementsAre("other", "app"));
    EXPECT_EQ(applist[1].pid, 801);
    EXPECT_FALSE(world().isAlive(701));
    EXPECT_EQ(order, "kk"); // before the launch
    expectAnswer(0, at("app [pid=801] is started"));
}

TEST_F(StartTest, ReplacesTwoInstances) {
    addRunning(makeApp("app", 701));
    addRunning(makeApp("app", 702));
    scriptLaunch(801);
    EXPECT_EQ(process(APPMONCTL_Start, "app", "/bin/app"), 0);
    EXPECT_THAT(registeredNames(), ElementsAre("app"));
    EXPECT_THAT(signalled(), ElementsAre("701", "702"));
}

TEST_F(StartTest, IgnoresAFailedStop) {
    applist = {makeLostApp("app", 701)};
    scriptLaunch(801);
    EXPECT_EQ(process(APPMONCTL_Start, "app", "/bin/app"), 0);
    ASSERT_THAT(registeredNames(), ElementsAre("app"));
    EXPECT_EQ(applist[0].pid, 801);
}

TEST_F(StartTest, AnswersWithTheTimeOfTheLaunchNotOfTheRequest) {
    addRunning(makeApp("app", 701));
    scriptSlowStop(701);
    scriptLaunch(801);
    process(APPMONCTL_Start, "app", "/bin/app");
    expectAnswer(0, at("app [pid=801] is started", kNextSecondText));
    EXPECT_EQ(applist[0].start_time, kNow + 1);
}

TEST_F(StartTest, AnswersWithPidAndStartTimeOfTheDaemonFound) {
    scriptLaunch(801);
    world().addProcess(801, "app", "/home/kelvo/root/app -d", 1000000);
    world().onSleep = [](int) {
        if (world().isAlive(801)) {
            world().process(801)->alive = false;
            // Uptime is 10000 s; this one starts four seconds from now.
            world().addProcess(802, "app", "/home/kelvo/root/app -d", 1000400);
        }
    };
    EXPECT_EQ(process(APPMONCTL_Start, "app", "/home/kelvo/root/app -d"), 0);
    expectAnswer(0, at("app [pid=802] is started", "2023-11-14 22:13:24"));
    EXPECT_EQ(applist[0].pid, 802);
    EXPECT_EQ(applist[0].start_time, kNow + 4);
}

TEST_F(StartTest, FailureIsLoggedAndNotAnswered) {
    EXPECT_EQ(process(APPMONCTL_Start, "app"), -3);
    expectNoReply();
    EXPECT_EQ(logLines(), (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Start app"},
                                 {kLevelError, "app has no command line failure"},
                                 {kLevelError, "app fails to start"}}));
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StartTest, FailureWithoutAReplyIsNotLogged) {
    EXPECT_EQ(processUnanswered(APPMONCTL_Start, "app"), 0);
    expectNoReply();
    EXPECT_THAT(world().logTexts(kLevelError), ElementsAre("app has no command line failure"));
}

TEST_F(StartTest, FailureHasStoppedTheRunningInstanceAllTheSame) {
    addRunning(makeApp("app", 701));
    EXPECT_EQ(process(APPMONCTL_Start, "app"), -3);
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_FALSE(world().isAlive(701));
}

TEST_F(StartTest, WithoutAReplyStillLaunches) {
    scriptLaunch(801);
    EXPECT_EQ(processUnanswered(APPMONCTL_Start, "app", "/bin/app"), 0);
    ASSERT_THAT(registeredNames(), ElementsAre("app"));
    EXPECT_EQ(applist[0].pid, 801);
}

TEST_F(StartTest, LaunchWithoutAProcessRegistersNoPid) {
    scriptLaunch(801);
    processUnanswered(APPMONCTL_Start, "first", "/bin/first");
    scriptFailedLaunch();
    EXPECT_EQ(process(APPMONCTL_Start, "app", "/bin/app"), 0);
    expectAnswer(0, at("app [pid=0] is started"));
    ASSERT_THAT(registeredNames(), ElementsAre("first", "app"));
    EXPECT_EQ(applist[1].pid, 0); // not that of the record's last use
}

} // namespace
} // namespace commands
