#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/IntakeSupport.h"
#include "tests/unit/appmanager/RequestSupport.h"
#include "tests/unit/support/LockState.h"

namespace {

// Requests that the command thread executes with the real commands.

using fakes::world;
using requests::makeRequest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using Access = AppManagerTestAccess;

using levels::kLevelInfo;

class CommandThreadExecutionTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(manager_.init(false), 0); }

    bool wakeUntil(const std::function<bool()>& done) { return intake::wakeUntil(manager_, done); }

    FixtureManager manager_;
};

TEST_F(CommandThreadExecutionTest, RepliesAfterTheExecutionOnly) {
    world().addProcess(700, "app", "/home/kelvo/root/app");
    applist.push_back(requests::makeApp("app", 700));
    std::atomic<int> repliesAtTheSignal{-1};
    world().onSignal = [&](pid_t, int) {
        repliesAtTheSignal = static_cast<int>(requests::replies().size());
    };
    manager_.processRequest(makeRequest(APPMONCTL_Stop, "app"));
    EXPECT_TRUE(wakeUntil([] { return !requests::replies().empty(); }));
    EXPECT_EQ(repliesAtTheSignal, 0);
    EXPECT_FALSE(world().isAlive(700));
}

TEST_F(CommandThreadExecutionTest, ExecutesButDoesNotAnswerARequestThatDoesNotWait) {
    applist.push_back(requests::makeApp("one", 0));
    applist.push_back(requests::makeApp("two", 0));
    manager_.processRequest(requests::unanswered(makeRequest(APPMONCTL_Stop, "one")));
    manager_.processRequest(makeRequest(APPMONCTL_Stop, "two"));
    EXPECT_TRUE(wakeUntil([] { return !requests::replies().empty(); }));
    EXPECT_TRUE(fakes::waitUntil([] {
        const std::vector<std::string> lines = world().logTexts(kLevelInfo);
        return !lines.empty() && lines.back().find("two is stopped @") == 0;
    }));
    EXPECT_THAT(requests::replies(), SizeIs(1));
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_THAT(world().logTexts(kLevelInfo), Not(testing::Contains(HasSubstr("one is stopped"))));
}

TEST_F(CommandThreadExecutionTest, AnswersOnTheConnectionThatTheMainThreadAccepted) {
    reqcmd request = {};
    world().scriptReceive(makeRequest(APPMONCTL_Stop, "app"));
    world().acceptResults = {{200001, 0}};
    ASSERT_EQ(manager_.recvCommand(request), static_cast<int>(sizeof request));
    manager_.processRequest(request);
    EXPECT_TRUE(wakeUntil([] { return world().sentTo(200001).size() == sizeof(response_struct); }));
    EXPECT_TRUE(fakes::waitUntil([] { return world().count("closefd") == 1; }));
    EXPECT_THAT(world().callsOf("closefd"), ElementsAre("closefd 200001"));
}

TEST_F(CommandThreadExecutionTest, UnknownActionIsReportedByTheExecutionOnly) {
    EXPECT_EQ(manager_.processRequest(makeRequest(4711)), 0);
    EXPECT_TRUE(wakeUntil([] {
        const std::vector<std::string> lines = world().logTexts(kLevelInfo);
        return !lines.empty() && lines.back() == "request.action=UNKNOWN";
    }));
    EXPECT_THAT(requests::replies(), IsEmpty());
}

TEST_F(CommandThreadExecutionTest, AnswersTheRequestDuringWhichItShutsDown) {
    world().addProcess(700, "app", "/home/kelvo/root/app");
    applist.push_back(requests::makeApp("app", 700));
    world().onSignal = [this](pid_t, int) { Access::shuttingDown(manager_) = true; };
    manager_.processRequest(makeRequest(APPMONCTL_Stop, "app"));
    manager_.processRequest(makeRequest(APPMONCTL_Stop, "other"));
    EXPECT_TRUE(wakeUntil([] { return fakes::liveWorkers() == 0; }));
    ASSERT_THAT(requests::replies(), SizeIs(1));
    EXPECT_EQ(requests::replies()[0].code, 0);
    EXPECT_THAT(requests::replies()[0].message, testing::StartsWith("app is stopped @"));
    EXPECT_THAT(world().logTexts(kLevelInfo).back(), testing::StartsWith("app is stopped @"));
    EXPECT_THAT(Access::queue(manager_), SizeIs(1));
}

/// Cancels the command thread while it sleeps in the middle of a stop.
class CancelledStopTest : public CommandThreadExecutionTest {
protected:
    void cancelDuringTheStop(const reqcmd& request) {
        world().onSleep = [this](int) {
            if (!fakes::onMainThread()) {
                lockHeld_ = lockHeld_ || !locks::isFree(Access::appLock(manager_));
                sleeping_ = true;
                EXPECT_TRUE(fakes::waitUntil([this] { return cancelled_.load(); }));
            }
        };
        manager_.processRequest(request);
        ASSERT_TRUE(wakeUntil([this] { return sleeping_.load(); }));
        Access::cancelCommandThread(manager_);
        cancelled_ = true;
        EXPECT_TRUE(fakes::waitForWorkersToEnd());
        EXPECT_TRUE(lockHeld_);
    }

    std::atomic<bool> sleeping_{false};
    std::atomic<bool> cancelled_{false};
    std::atomic<bool> lockHeld_{false};
};

TEST_F(CancelledStopTest, ReleasesTheRegistryAndLeavesItAsItWas) {
    applist.push_back(requests::makeLostApp("app", 700));
    cancelDuringTheStop(makeRequest(APPMONCTL_Stop, "app"));
    EXPECT_TRUE(locks::isFree(Access::appLock(manager_)));
    EXPECT_TRUE(locks::isFree(Access::queueLock(manager_)));
    EXPECT_TRUE(manager_.commandThreadHasLeft());
    EXPECT_THAT(requests::registeredNames(), ElementsAre("app"));
    EXPECT_THAT(requests::replies(), IsEmpty());
}

TEST_F(CancelledStopTest, ReleasesTheRegistryInAStopOfAll) {
    applist.push_back(requests::makeApp("one", 0));
    applist.push_back(requests::makeLostApp("two", 700));
    cancelDuringTheStop(makeRequest(APPMONCTL_Stop_All));
    EXPECT_TRUE(locks::isFree(Access::appLock(manager_)));
    EXPECT_THAT(requests::registeredNames(), ElementsAre("one", "two"));
    EXPECT_THAT(requests::replies(), IsEmpty());
}

TEST_F(CancelledStopTest, ReleasesTheRegistryInARestartOfAll) {
    world().addProcess(700, "one", "/home/kelvo/root/one").ignoresTerm = true;
    applist.push_back(requests::makeApp("one", 700));
    applist.push_back(requests::makeApp("two", 0));
    cancelDuringTheStop(makeRequest(APPMONCTL_Restart_All));
    EXPECT_TRUE(locks::isFree(Access::appLock(manager_)));
    EXPECT_THAT(applist, SizeIs(2));
    EXPECT_EQ(world().count("fork"), 0U);
}

TEST_F(CancelledStopTest, ManagerStillTerminatesAndServesAgainAfterAnotherInit) {
    applist.push_back(requests::makeLostApp("app", 700));
    cancelDuringTheStop(makeRequest(APPMONCTL_Stop, "app"));
    world().onSleep = nullptr;
    ASSERT_EQ(manager_.init(false), 0);
    manager_.processRequest(makeRequest(APPMONCTL_Stop, "other"));
    EXPECT_TRUE(wakeUntil([] { return !requests::replies().empty(); }));
}

} // namespace
