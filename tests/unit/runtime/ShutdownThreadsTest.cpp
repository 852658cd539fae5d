#include "runtime/Shutdown.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Thread.h"
#include "platform/Time.h"
#include "runtime/Globals.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/ExitStatus.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/IntakeSupport.h"
#include "tests/unit/appmanager/RequestSupport.h"
#include "tests/unit/runtime/RuntimeSupport.h"
#include "tests/unit/runtime/ShutdownSupport.h"
#include "tests/unit/support/FaultyThreads.h"
#include "tests/unit/support/HangingManager.h"
#include "tests/unit/support/LockState.h"

namespace {

// The threads that the shutdown stops, and the one that it may have to leave behind.

using fakes::world;
using runtimetest::initializationMutexIsFree;
using runtimetest::kCloseListener;
using runtimetest::kPidFile;
using runtimetest::kRemoveSocket;
using runtimetest::signalCall;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

// --- the start-up thread -------------------------------------------------------------------------

void* sleepUntilCancelled(void* /*unused*/) {
    platform::disableCancellation();
    for (;;) {
        platform::sleepMilliseconds(1000);
    }
}

void* endAtOnce(void* /*unused*/) {
    return nullptr;
}

class ShutdownThreadsTest : public runtimetest::ShutdownTest {
protected:
    /// Starts a start-up thread that goes on until it is cancelled.
    static pthread_t startStartUpThread() {
        pthread_t thread = 0;
        EXPECT_EQ(platform::createWorkerThread(&thread, sleepUntilCancelled, nullptr), 0);
        thread_startupAppConfiguration = thread;
        return thread;
    }
};

TEST_F(ShutdownThreadsTest, StartUpThreadIsCancelledAndJoinedFirst) {
    (void)startStartUpThread();
    startManager();
    int workersAtTearDown = -1;
    world().onCall = [&](const std::string& call) {
        if (call == kCloseListener) {
            workersAtTearDown = fakes::liveWorkers();
        }
    };
    ovardAtExit();
    EXPECT_EQ(workersAtTearDown, 0);
    EXPECT_EQ(thread_startupAppConfiguration, kNoThread);
}

TEST_F(ShutdownThreadsTest, ThreadLineMutexAndSignalsComeInThisOrder) {
    block_signal = true;
    (void)startStartUpThread();
    startManager();
    int lines = 0;
    world().onConsole = [&](const std::string& text) {
        ++lines;
        EXPECT_EQ(text, "ovard ovardAtExit()\n");
        EXPECT_EQ(fakes::liveWorkers(), 0);
        EXPECT_EQ(thread_startupAppConfiguration, kNoThread);
        EXPECT_FALSE(initializationMutexIsFree());
        EXPECT_EQ(world().count("signal"), 0U);
    };
    bool looked = false;
    world().onCall = [&](const std::string& call) {
        if (!looked && call == signalCall(SIGHUP, "default")) {
            looked = true;
            EXPECT_EQ(lines, 1);
            EXPECT_TRUE(initializationMutexIsFree());
        }
    };
    ovardAtExit();
    world().onConsole = nullptr;
    EXPECT_EQ(lines, 1);
    EXPECT_TRUE(looked);
}

TEST_F(ShutdownThreadsTest, StartUpThreadThatHasEndedIsJoinedToo) {
    pthread_t thread = 0;
    ASSERT_EQ(platform::createWorkerThread(&thread, endAtOnce, nullptr), 0);
    thread_startupAppConfiguration = thread;
    ASSERT_TRUE(fakes::waitForWorkersToEnd());
    ovardAtExit();
    EXPECT_EQ(thread_startupAppConfiguration, kNoThread);
    EXPECT_EQ(world().consoleText(), "ovard ovardAtExit()\n");
}

TEST_F(ShutdownThreadsTest, StartUpThreadIsCancelledOnceAndThenJoinedOnce) {
    faults::FaultyThreads threads;
    const pthread_t thread = startStartUpThread();
    ovardAtExit();
    EXPECT_THAT(world().callsOf({"cancelThread", "joinThread"}),
                ElementsAre("cancelThread", "joinThread"));
    EXPECT_THAT(threads.cancelled(), ElementsAre(thread));
    EXPECT_THAT(threads.joined(), ElementsAre(thread));
}

TEST_F(ShutdownThreadsTest, StartUpThreadThatCannotBeCancelledIsNotJoined) {
    faults::FaultyThreads threads;
    const pthread_t thread = startStartUpThread();
    threads.failCancels(1, ESRCH);
    ovardAtExit();
    EXPECT_THAT(threads.cancelled(), ElementsAre(thread));
    EXPECT_THAT(threads.joined(), IsEmpty());
    EXPECT_EQ(thread_startupAppConfiguration, kNoThread);
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Stopped."));
    EXPECT_EQ(pthread_join(thread, nullptr), 0);
}

TEST_F(ShutdownThreadsTest, WithoutAStartUpThreadNoneIsCancelledOrJoined) {
    const faults::FaultyThreads threads;
    ovardAtExit();
    EXPECT_EQ(world().count("cancelThread"), 0U);
    EXPECT_EQ(world().count("joinThread"), 0U);
}

TEST_F(ShutdownThreadsTest, CommandThreadThatCannotBeCancelledIsJoined) {
    faults::FaultyThreads threads;
    appmgr = AppManager::Instance(g_verbose);
    ASSERT_EQ(appmgr->init(false), 0);
    const pthread_t thread = AppManagerTestAccess::commandThread(*appmgr);
    threads.failCancels(1, ESRCH);
    ovardAtExit();
    EXPECT_THAT(threads.cancelled(), ElementsAre(thread));
    EXPECT_THAT(threads.joined(), ElementsAre(thread));
    EXPECT_EQ(fakes::liveWorkers(), 0);
}

// --- a command thread that stays -----------------------------------------------------------------

TEST_F(ShutdownThreadsTest, CommandThreadMayTakeItsTime) {
    startManager();
    feignStuckCommandThread();
    const std::int64_t start = world().monotonicMs;
    world().onSleep = [start](int) {
        if (world().monotonicMs >= start + 2900) {
            AppManagerTestAccess::commandThreadAlive(*AppManager::m_pInstance) = false;
        }
    };
    ovardAtExit();
    EXPECT_EQ(world().count("leave"), 0U);
    EXPECT_EQ(AppManager::m_pInstance, nullptr);
    EXPECT_EQ(world().actions[SIGTERM].sa_handler, SIG_DFL);
}

TEST_F(ShutdownThreadsTest, CommandThreadThatStaysKeepsItsManager) {
    startEverything();
    feignStuckCommandThread();
    AppManager* const manager = appmgr;
    const std::int64_t start = world().monotonicMs;
    EXPECT_EQ(leaveStatusOf(ovardAtExit), 0);
    EXPECT_EQ(world().monotonicMs, start + 3000);
    EXPECT_EQ(appmgr, nullptr);
    EXPECT_EQ(AppManager::m_pInstance, manager);
    EXPECT_THAT(world().calls, Not(Contains(kCloseListener)));
    EXPECT_EQ(world().logCloses, 0);

    // Everything else is done all the same.
    EXPECT_THAT(world().callsWithout({"sleep", "signal", "unwatch"}),
                ElementsAre(kRemoveSocket, "deleteTimer", "sigaction " + std::to_string(SIGCONT),
                            "write 77000 1", "write 77000 1", "closefd 77000",
                            "heartbeat_cleanup -1", std::string("remove ") + kPidFile, "leave 0"));
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Stopped."));

    // The thread leaves after all, so that the next test finds a clean process.
    AppManagerTestAccess::commandThreadAlive(*manager) = false;
    appmgr = manager;
    free_resources(true);
    EXPECT_EQ(AppManager::m_pInstance, nullptr);
}

TEST_F(ShutdownThreadsTest, CommandThreadThatWaitsIsStopped) {
    appmgr = AppManager::Instance(g_verbose);
    ASSERT_EQ(appmgr->init(false), 0);
    ovardAtExit();
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
    EXPECT_EQ(AppManager::m_pInstance, nullptr);
    EXPECT_EQ(world().count("leave"), 0U);
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Stopped."));
}

/// A command thread that hangs, not only by its flag, in the execution of a client's request.
class HangingCommandTest : public ShutdownThreadsTest {
protected:
    static constexpr int kConnection = 200001;

    void SetUp() override {
        ShutdownThreadsTest::SetUp();
        manager_ = new HangingManager(destroyed_); // Deleted by the shutdown, or by finish().
        AppManager::m_pInstance = manager_;
        appmgr = manager_;
        ASSERT_EQ(appmgr->init(false), 0);
        reqcmd request = {};
        world().scriptReceive(requests::makeRequest(APPMONCTL_Stop, "one"));
        world().acceptResults = {{kConnection, 0}};
        ASSERT_EQ(appmgr->recvCommand(request), static_cast<int>(sizeof request));
        appmgr->processRequest(request);
        ASSERT_TRUE(intake::wakeUntil(*manager_, [this] { return manager_->hangs(); }));
        appmgr->processRequest(requests::makeRequest(APPMONCTL_Stop, "two"));
        world().forgetRecords();
    }

    /// The tear-down that the shutdown left out, once the thread has gone.
    void finish() {
        EXPECT_TRUE(fakes::waitForWorkersToEnd());
        appmgr = manager_;
        free_resources(true);
        EXPECT_TRUE(destroyed_);
    }

    std::atomic<bool> destroyed_{false};
    HangingManager* manager_ = nullptr;
};

TEST_F(HangingCommandTest, IsLeftBehindAfterThreeSeconds) {
    const std::int64_t start = world().monotonicMs;
    EXPECT_EQ(leaveStatusOf(ovardAtExit), 0);
    EXPECT_EQ(world().monotonicMs, start + 3000);
    EXPECT_EQ(fakes::liveWorkers(), 1);
    ASSERT_FALSE(destroyed_);
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Stopped."));
    EXPECT_EQ(world().calls.back(), "leave 0");

    manager_->letGo();
    finish();
}

TEST_F(HangingCommandTest, CanStillTouchAllThatItsRequestNeeds) {
    EXPECT_EQ(leaveStatusOf(ovardAtExit), 0);
    ASSERT_FALSE(destroyed_);
    EXPECT_TRUE(locks::isFree(AppManagerTestAccess::appLock(*manager_)));
    EXPECT_TRUE(locks::isFree(AppManagerTestAccess::queueLock(*manager_)));
    EXPECT_THAT(AppManagerTestAccess::queue(*manager_), testing::SizeIs(1));
    EXPECT_EQ(world().logCloses, 0);
    EXPECT_THAT(world().calls, Not(Contains("closefd " + std::to_string(kConnection))));

    world().forgetRecords();
    manager_->letGo();
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
    EXPECT_EQ(world().sentTo(kConnection).size(), sizeof(response_struct));
    EXPECT_THAT(world().logTexts(), Contains("processCmd() request.action=APPMONCTL_Stop one"));
    EXPECT_THAT(AppManagerTestAccess::queue(*manager_), testing::SizeIs(1));
    finish();
}

} // namespace
