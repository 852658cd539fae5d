#include <pthread.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/IntakeSupport.h"
#include "tests/unit/appmanager/RequestSupport.h"
#include "tests/unit/support/FaultyThreads.h"
#include "tests/unit/support/LockState.h"
#include "tests/unit/support/ScriptedInit.h"

namespace {

using fakes::world;
using requests::Line;
using requests::logLines;
using requests::makeRequest;
using testing::Contains;
using testing::ElementsAre;
using Access = AppManagerTestAccess;

using levels::kLevelError;
using levels::kLevelInfo;

class AppManagerInitTest : public testing::Test {
protected:
    FixtureManager manager_;
};

TEST_F(AppManagerInitTest, OpensTheSocketAndThenStartsTheCommandThread) {
    EXPECT_EQ(manager_.init(false), 0);
    EXPECT_NE(Access::commandThread(manager_), 0U);
    EXPECT_FALSE(manager_.commandThreadHasLeft());
    EXPECT_EQ(fakes::liveWorkers(), 1);
    EXPECT_THAT(world().callsOf({"socket", "bind", "listen", "thread"}),
                ElementsAre("socket", testing::StartsWith("bind "), testing::StartsWith("listen "),
                            "thread"));
    EXPECT_THAT(logLines(), ElementsAre(Line{kLevelInfo, "App monitor started"}));
}

TEST_F(AppManagerInitTest, WithDiscoverySucceedsToo) {
    EXPECT_EQ(manager_.init(true), 0);
}

TEST_F(AppManagerInitTest, LeavesBothLocksFree) {
    ASSERT_EQ(manager_.init(true), 0);
    EXPECT_TRUE(locks::isFree(Access::appLock(manager_)));
    // The command thread holds it for a moment on its way to the wait.
    EXPECT_TRUE(fakes::waitUntil([this] { return locks::isFree(Access::queueLock(manager_)); }));
}

TEST_F(AppManagerInitTest, PrintsNothingWhenAllGoesWell) {
    verbose = 3;
    ASSERT_EQ(manager_.init(false), 0);
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_EQ(world().errorText(), "");
}

TEST_F(AppManagerInitTest, ReportsAThreadThatCannotBeCreated) {
    verbose = 1;
    world().threadErrors = {EAGAIN};
    EXPECT_EQ(manager_.init(false), -2);
    EXPECT_EQ(world().consoleText(),
              "thread creation  failure! errno=" + std::to_string(EAGAIN) + "\n");
    EXPECT_THAT(logLines(), ElementsAre(Line{kLevelInfo, "App monitor started"},
                                        Line{kLevelError, "init(): thread creation failure!"}));
    EXPECT_EQ(Access::commandThread(manager_), 0U);
    EXPECT_TRUE(manager_.commandThreadHasLeft());
}

TEST_F(AppManagerInitTest, PrintsNoThreadFailureAtVerbosityZero) {
    verbose = 0;
    world().threadErrors = {ENOMEM};
    EXPECT_EQ(manager_.init(false), -2);
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_THAT(logLines(), Contains(Line{kLevelError, "init(): thread creation failure!"}));
}

TEST_F(AppManagerInitTest, WithoutASocketEndsTheMonitorBeforeAnyThread) {
    world().socketResults = {{-1, EMFILE}, {-1, EMFILE}, {-1, EMFILE}};
    EXPECT_THROW(manager_.init(false), fakes::ExitMonitorCalled);
    EXPECT_THAT(world().calls, Contains("exitMonitor 1"));
    EXPECT_EQ(world().count("thread"), 0U);
    EXPECT_TRUE(locks::isFree(Access::appLock(manager_)));
}

TEST_F(AppManagerInitTest, SecondInitReplacesTheCommandThread) {
    ASSERT_EQ(manager_.init(false), 0);
    ASSERT_EQ(manager_.init(false), 0);
    EXPECT_EQ(world().count("thread"), 2U);
    EXPECT_NE(Access::commandThread(manager_), 0U);
    EXPECT_TRUE(fakes::waitUntil([] { return fakes::liveWorkers() == 1; }));
    EXPECT_FALSE(manager_.commandThreadHasLeft());
}

TEST_F(AppManagerInitTest, SecondInitForgetsTheOldThreadEvenIfThereIsNoNewOne) {
    ASSERT_EQ(manager_.init(false), 0);
    world().threadErrors = {EAGAIN};
    EXPECT_EQ(manager_.init(false), -2);
    EXPECT_EQ(Access::commandThread(manager_), 0U);
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
}

TEST_F(AppManagerInitTest, ThreadOfASecondInitExecutesRequests) {
    ASSERT_EQ(manager_.init(false), 0);
    ASSERT_EQ(manager_.init(false), 0);
    manager_.processRequest(makeRequest(APPMONCTL_Stop, "app"));
    EXPECT_TRUE(fakes::waitUntil([this] {
        (void)manager_.notify();
        return !requests::replies().empty();
    }));
}

// --- the command thread of an earlier init -------------------------------------------------------

class RepeatedInitTest : public AppManagerInitTest {
protected:
    std::vector<std::string> threadCalls() const {
        return world().callsOf({"cancelThread", "joinThread", "thread"});
    }

    faults::FaultyThreads threads_;
};

TEST_F(RepeatedInitTest, FirstInitCancelsAndJoinsNothing) {
    ASSERT_EQ(manager_.init(false), 0);
    EXPECT_THAT(threadCalls(), ElementsAre("thread"));
}

TEST_F(RepeatedInitTest, OldThreadIsCancelledAndNotJoined) {
    ASSERT_EQ(manager_.init(false), 0);
    const pthread_t old = Access::commandThread(manager_);
    ASSERT_EQ(manager_.init(false), 0);
    EXPECT_THAT(threadCalls(), ElementsAre("thread", "cancelThread", "thread"));
    EXPECT_THAT(threads_.cancelled(), ElementsAre(old));
    EXPECT_TRUE(fakes::waitUntil([] { return fakes::liveWorkers() == 1; }));
}

TEST_F(RepeatedInitTest, OldThreadThatCannotBeCancelledIsJoined) {
    ASSERT_EQ(manager_.init(false), 0);
    const pthread_t old = Access::commandThread(manager_);
    threads_.failCancels(1, ESRCH);
    ASSERT_EQ(manager_.init(false), 0);
    EXPECT_THAT(threadCalls(), ElementsAre("thread", "cancelThread", "joinThread", "thread"));
    EXPECT_THAT(threads_.cancelled(), ElementsAre(old));
    EXPECT_THAT(threads_.joined(), ElementsAre(old));
    EXPECT_NE(Access::commandThread(manager_), 0U);
    EXPECT_EQ(fakes::liveWorkers(), 1);
}

TEST_F(RepeatedInitTest, HandleIsClearedBeforeTheNewThreadIsMade) {
    for (const int cancelError : {0, ESRCH}) {
        world().threadErrors = {};
        ASSERT_EQ(manager_.init(false), 0);
        threads_.failCancels(cancelError == 0 ? 0 : 1, cancelError);
        world().threadErrors = {EAGAIN};
        EXPECT_EQ(manager_.init(false), -2);
        EXPECT_EQ(Access::commandThread(manager_), 0U) << cancelError;
        EXPECT_TRUE(fakes::waitForWorkersToEnd());
    }
}

TEST_F(RepeatedInitTest, ThreadThatHasBeenForgottenIsNotCancelledAgain) {
    ASSERT_EQ(manager_.init(false), 0);
    world().threadErrors = {EAGAIN};
    EXPECT_EQ(manager_.init(false), -2);
    ASSERT_EQ(manager_.init(false), 0);
    EXPECT_EQ(world().count("cancelThread"), 1U);
}

TEST_F(RepeatedInitTest, NewThreadExecutesRequestsAfterAJoin) {
    ASSERT_EQ(manager_.init(false), 0);
    threads_.failCancels(1, ESRCH);
    ASSERT_EQ(manager_.init(false), 0);
    manager_.processRequest(makeRequest(APPMONCTL_Stop, "app"));
    EXPECT_TRUE(intake::wakeUntil(manager_, [] { return !requests::replies().empty(); }));
}

// --- the shared memory ---------------------------------------------------------------------------

class SharedMemoryInitTest : public AppManagerInitTest, public testing::WithParamInterface<bool> {
protected:
    faults::ScriptedInit init_;
};

TEST_P(SharedMemoryInitTest, GetsTheRegistryAndTheDiscoveryFlagWithTheRegistryLocked) {
    int calls = 0;
    init_.initUserShm = [&](std::vector<appinfo>& list, bool discover) {
        ++calls;
        EXPECT_EQ(&list, &applist);
        EXPECT_EQ(discover, GetParam());
        EXPECT_FALSE(locks::isFree(Access::appLock(manager_)));
        EXPECT_TRUE(locks::isFree(Access::queueLock(manager_)));
        return 0;
    };
    EXPECT_EQ(manager_.init(GetParam()), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(locks::isFree(Access::appLock(manager_)));
}

INSTANTIATE_TEST_SUITE_P(Discovery, SharedMemoryInitTest, testing::Bool());

TEST_F(SharedMemoryInitTest, ComesBeforeTheSocketAndTheThread) {
    init_.initUserShm = [](std::vector<appinfo>& /*list*/, bool /*discover*/) {
        EXPECT_EQ(world().count("socket"), 0U);
        EXPECT_EQ(world().count("thread"), 0U);
        return 0;
    };
    EXPECT_EQ(manager_.init(false), 0);
    EXPECT_EQ(world().count("socket"), 1U);
}

TEST_F(SharedMemoryInitTest, ResultIsNotLookedAt) {
    init_.initUserShm = [](std::vector<appinfo>& /*list*/, bool /*discover*/) { return -1; };
    EXPECT_EQ(manager_.init(false), 0);
    EXPECT_NE(Access::commandThread(manager_), 0U);
}

template <typename Exception> auto throwing(const Exception& exception) {
    return
        [exception](std::vector<appinfo>& /*list*/, bool /*discover*/) -> int { throw exception; };
}

TEST_F(SharedMemoryInitTest, ExceptionIsSwallowedAndTheRegistryReleased) {
    verbose = 9;
    init_.initUserShm = throwing(std::runtime_error("no memory"));
    EXPECT_EQ(manager_.init(false), 0);
    EXPECT_TRUE(locks::isFree(Access::appLock(manager_)));
    EXPECT_NE(Access::commandThread(manager_), 0U);
    EXPECT_THAT(logLines(), ElementsAre(Line{kLevelInfo, "App monitor started"}));
    EXPECT_EQ(world().errorText(), "");
}

TEST_F(SharedMemoryInitTest, ThrownValueOfAnyKindIsSwallowedToo) {
    init_.initUserShm = throwing(42);
    EXPECT_EQ(manager_.init(false), 0);
    EXPECT_TRUE(locks::isFree(Access::appLock(manager_)));
    manager_.processRequest(makeRequest(APPMONCTL_Stop, "app"));
    EXPECT_TRUE(intake::wakeUntil(manager_, [] { return !requests::replies().empty(); }));
}

// --- the control socket --------------------------------------------------------------------------

class SocketInitTest : public AppManagerInitTest, public testing::WithParamInterface<int> {
protected:
    void SetUp() override {
        ASSERT_EQ(manager_.initCommunication(), 0); // opens the log
        world().forgetRecords();
        init_.initCommunication = [] { return GetParam(); };
    }

    faults::ScriptedInit init_;
    faults::FaultyThreads threads_;
};

TEST_P(SocketInitTest, FailureIsShownLoggedAndReturned) {
    verbose = 1;
    EXPECT_EQ(manager_.init(false), -1);
    EXPECT_EQ(world().consoleText(), "communication initialization failure!\n");
    EXPECT_THAT(logLines(),
                ElementsAre(Line{kLevelError, "init(): communication initialization failure!"}));
}

TEST_P(SocketInitTest, FailureIsOnlyLoggedAtVerbosityZero) {
    verbose = 0;
    EXPECT_EQ(manager_.init(false), -1);
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_THAT(logLines(),
                ElementsAre(Line{kLevelError, "init(): communication initialization failure!"}));
}

TEST_P(SocketInitTest, NoThreadIsMadeAfterAFailure) {
    EXPECT_EQ(manager_.init(false), -1);
    EXPECT_EQ(world().count("thread"), 0U);
    EXPECT_EQ(Access::commandThread(manager_), 0U);
    EXPECT_TRUE(locks::isFree(Access::appLock(manager_)));
}

TEST_P(SocketInitTest, FailureLeavesTheOldThreadAtWork) {
    const auto failing = init_.initCommunication;
    init_.initCommunication = nullptr;
    ASSERT_EQ(manager_.init(false), 0);
    const pthread_t old = Access::commandThread(manager_);
    init_.initCommunication = failing;
    EXPECT_EQ(manager_.init(false), -1);
    EXPECT_EQ(Access::commandThread(manager_), old);
    EXPECT_EQ(world().count("cancelThread"), 0U);
    manager_.processRequest(makeRequest(APPMONCTL_Stop, "app"));
    EXPECT_TRUE(intake::wakeUntil(manager_, [] { return !requests::replies().empty(); }));
}

INSTANTIATE_TEST_SUITE_P(Results, SocketInitTest, testing::Values(-1, 1));

} // namespace
