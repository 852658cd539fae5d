#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Thread.h"
#include "platform/Time.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/IntakeSupport.h"
#include "tests/unit/appmanager/RequestSupport.h"
#include "tests/unit/support/FaultyThreads.h"
#include "tests/unit/support/LockState.h"

namespace {

using fakes::world;
using intake::keeps;
using intake::RecordingManager;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Access = AppManagerTestAccess;

class CommandThreadTest : public intake::AppManagerIntakeTest {
protected:
    void startThread() { ASSERT_EQ(manager_.init(false), 0); }
};

TEST_F(CommandThreadTest, ExecutesThroughTheVirtualTableInOrder) {
    startThread();
    queue("one");
    queue("two");
    queue("three");
    EXPECT_TRUE(wakeUntilFinished(3));
    EXPECT_THAT(manager_.finished(), ElementsAre("one", "two", "three"));
    EXPECT_THAT(Access::queue(manager_), IsEmpty());
}

TEST_F(CommandThreadTest, RunsOnAThreadOfItsOwn) {
    std::atomic<bool> onMain{true};
    manager_.onExecute = [&](const reqcmd&) { onMain = fakes::onMainThread(); };
    startThread();
    queue("one");
    EXPECT_TRUE(wakeUntilFinished(1));
    EXPECT_FALSE(onMain);
}

TEST_F(CommandThreadTest, DrainsRequestsQueuedBeforeItWakesInOneGo) {
    verbose = 4;
    queue("one");
    queue("two");
    startThread();
    EXPECT_TRUE(wakeUntilFinished(2));
    EXPECT_TRUE(wakeUntil([] {
        return world().consoleText().find("reqlist.size=0, request.action=1, cmd=\"\")=0\n") !=
               std::string::npos;
    }));
    EXPECT_EQ(world().consoleText(),
              "start process_command_thread()\n"
              "process_command_thread: processCmd(reqlist.size=1, request.action=1, "
              "request.name=one, cmd=\"\")\n"
              "process_command_thread: processCmd(reqlist.size=1, request.action=1, cmd=\"\")=0\n"
              "process_command_thread: processCmd(reqlist.size=0, request.action=1, "
              "request.name=two, cmd=\"\")\n"
              "process_command_thread: processCmd(reqlist.size=0, request.action=1, "
              "cmd=\"\")=0\n");
}

TEST_F(CommandThreadTest, AnnouncesItselfAboveVerbosityThree) {
    verbose = 4;
    startThread();
    EXPECT_TRUE(fakes::waitUntil([] { return !world().consoleText().empty(); }));
    EXPECT_EQ(world().consoleText(), "start process_command_thread()\n");
}

TEST_F(CommandThreadTest, StartsSilentlyAtVerbosityThree) {
    verbose = 3;
    startThread();
    queue("one");
    EXPECT_TRUE(wakeUntilFinished(1));
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(CommandThreadTest, WaitsForASignalAlthoughARequestIsThere) {
    queue("early"); // Its signal comes before anybody waits.
    startThread();
    EXPECT_TRUE(keeps([this] { return manager_.begun().empty(); }));
    EXPECT_TRUE(wakeUntilFinished(1));
    EXPECT_THAT(manager_.finished(), ElementsAre("early"));
}

/// The command thread's body, entered again right after its last look at the queue.
struct LateSignal {
    RecordingManager& manager;
    std::atomic<bool> foundNothing{false};
    std::atomic<bool> signalled{false};
};

void* drainAndThenWait(void* argument) {
    platform::disableCancellation();
    LateSignal& late = *static_cast<LateSignal*>(argument);
    EXPECT_TRUE(Access::drainQueue(late.manager)); // The queue was seen to be empty.
    late.foundNothing = true;
    EXPECT_TRUE(fakes::waitUntil([&] { return late.signalled.load(); }));
    late.manager.process_command_thread(0);
}

TEST_F(CommandThreadTest, RequestSignalledBetweenTheLastLookAndTheWaitStaysForTheNextSignal) {
    LateSignal late = {manager_};
    pthread_t thread = 0;
    ASSERT_EQ(platform::createWorkerThread(&thread, drainAndThenWait, &late), 0);
    ASSERT_TRUE(fakes::waitUntil([&] { return late.foundNothing.load(); }));
    queue("missed");
    late.signalled = true;
    EXPECT_TRUE(keeps([this] { return manager_.begun().empty(); }));

    queue("next"); // Its signal serves both.
    EXPECT_TRUE(wakeUntilFinished(2));
    EXPECT_THAT(manager_.finished(), ElementsAre("missed", "next"));

    Access::shuttingDown(manager_) = true;
    EXPECT_TRUE(wakeUntil([] { return fakes::liveWorkers() == 0; }));
    void* result = &late;
    EXPECT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, nullptr);
}

TEST_F(CommandThreadTest, ProducersMayQueueWhileARequestIsExecuted) {
    std::atomic<bool> mayFinish{false};
    manager_.onExecute = [&](const reqcmd&) {
        EXPECT_TRUE(fakes::waitUntil([&] { return mayFinish.load(); }));
    };
    startThread();
    queue("one");
    ASSERT_TRUE(wakeUntil([this] { return manager_.begun().size() == 1; }));
    queue("two");
    queue("three");
    EXPECT_THAT(Access::queue(manager_), SizeIs(2));
    EXPECT_THAT(manager_.finished(), IsEmpty());
    mayFinish = true;
    EXPECT_TRUE(fakes::waitUntil([this] { return manager_.finished().size() == 3; }));
    EXPECT_THAT(manager_.finished(), ElementsAre("one", "two", "three"));
}

TEST_F(CommandThreadTest, ExecutesTheRequestsOfTwoProducersInArrivalOrder) {
    constexpr int kEach = 40;
    // The trace is printed with the queue locked: its order is that of the arrival.
    verbose = 8;
    std::vector<std::string> arrived;
    world().onConsole = [&](const std::string& text) {
        if (text.rfind("processRequest(cmd=", 0) == 0) {
            const fakes::Lock lock;
            arrived.push_back(text.substr(19, text.find(')') - 19));
        }
    };
    startThread();
    const auto produce = [this](char producer) {
        for (int count = 0; count < kEach; ++count) {
            const std::string name = producer + std::to_string(count);
            queue(name, name);
        }
    };
    std::thread other(produce, 'b');
    produce('a');
    other.join();
    EXPECT_TRUE(wakeUntilFinished(std::size_t{2} * kEach));
    EXPECT_THAT(arrived, SizeIs(2 * kEach));
    EXPECT_THAT(manager_.finished(), testing::ElementsAreArray(arrived));
    for (const char producer : {'a', 'b'}) {
        int next = 0;
        for (const std::string& name : manager_.finished()) {
            if (name[0] == producer) {
                EXPECT_EQ(name, producer + std::to_string(next++));
            }
        }
        EXPECT_EQ(next, kEach);
    }
}

TEST_F(CommandThreadTest, EndsAfterTheRequestDuringWhichItShutsDown) {
    manager_.onExecute = [this](const reqcmd&) { Access::shuttingDown(manager_) = true; };
    queue("one");
    queue("two");
    startThread();
    EXPECT_TRUE(wakeUntil([] { return fakes::liveWorkers() == 0; }));
    EXPECT_THAT(manager_.finished(), ElementsAre("one"));
    ASSERT_THAT(Access::queue(manager_), SizeIs(1));
    EXPECT_STREQ(Access::queue(manager_).front().name, "two");
    EXPECT_EQ(Access::commandThread(manager_), 0U);
    EXPECT_TRUE(manager_.commandThreadHasLeft());
}

TEST_F(CommandThreadTest, EndsAtTheNextWakeUpWithoutLookingAtTheQueue) {
    startThread();
    Access::shuttingDown(manager_) = true;
    queue("one");
    EXPECT_TRUE(wakeUntil([] { return fakes::liveWorkers() == 0; }));
    EXPECT_THAT(manager_.begun(), IsEmpty());
    EXPECT_THAT(Access::queue(manager_), SizeIs(1));
    EXPECT_EQ(Access::commandThread(manager_), 0U);
}

TEST_F(CommandThreadTest, EndingAfterARequestItDetachesItself) {
    const faults::FaultyThreads threads;
    manager_.onExecute = [this](const reqcmd&) { Access::shuttingDown(manager_) = true; };
    startThread();
    const pthread_t thread = Access::commandThread(manager_);
    queue("one");
    EXPECT_TRUE(wakeUntil([] { return fakes::liveWorkers() == 0; }));
    EXPECT_THAT(manager_.finished(), ElementsAre("one"));
    EXPECT_THAT(threads.detached(), ElementsAre(thread));
}

TEST_F(CommandThreadTest, EndingAtAWakeUpItDetachesItself) {
    const faults::FaultyThreads threads;
    startThread();
    const pthread_t thread = Access::commandThread(manager_);
    Access::shuttingDown(manager_) = true;
    EXPECT_TRUE(wakeUntil([] { return fakes::liveWorkers() == 0; }));
    EXPECT_THAT(threads.detached(), ElementsAre(thread));
}

TEST_F(CommandThreadTest, CancelledInItsWaitLeavesTheQueueUnlocked) {
    startThread();
    Access::cancelCommandThread(manager_);
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
    EXPECT_TRUE(locks::isFree(Access::queueLock(manager_)));
    EXPECT_EQ(Access::commandThread(manager_), 0U);
    EXPECT_TRUE(manager_.commandThreadHasLeft());
}

TEST_F(CommandThreadTest, EntryPointServesTheManagerHandedIn) {
    pthread_t thread = 0;
    AppManager* const argument = &manager_;
    ASSERT_EQ(platform::createWorkerThread(&thread, AppManager::cmd_process_thread, argument), 0);
    queue("one");
    EXPECT_TRUE(wakeUntilFinished(1));
    Access::shuttingDown(manager_) = true;
    EXPECT_TRUE(wakeUntil([] { return fakes::liveWorkers() == 0; }));
    void* result = &thread;
    EXPECT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, nullptr);
}

TEST_F(CommandThreadTest, TerminationWhileARequestWaitsDropsTheOthers) {
    std::atomic<bool> began{false};
    manager_.onExecute = [&](const reqcmd&) {
        began = true;
        for (;;) {
            platform::sleepMilliseconds(10); // Ends the thread once it is cancelled.
        }
    };
    startThread();
    queue("one");
    queue("two");
    ASSERT_TRUE(wakeUntil([&] { return began.load(); }));
    manager_.processTermination(&manager_);
    EXPECT_TRUE(manager_.commandThreadHasLeft());
    EXPECT_THAT(manager_.finished(), IsEmpty());
    EXPECT_THAT(manager_.begun(), SizeIs(1));
    EXPECT_THAT(Access::queue(manager_), IsEmpty());
}

// --- waits and signals that fail -----------------------------------------------------------------

class FailingWaitTest : public CommandThreadTest {
protected:
    /// Waits until the command thread has begun its wait number `count` and released the queue.
    bool reachesWait(std::size_t count) {
        return fakes::waitUntil([this, count] {
            return world().count("condWait") == count && locks::isFree(Access::queueLock(manager_));
        });
    }

    faults::FaultyThreads threads_;
};

TEST_F(FailingWaitTest, QueueIsSkippedUntilTheNextWakeUp) {
    threads_.failWaits(3, EINVAL);
    queue("one");
    startThread();
    ASSERT_TRUE(reachesWait(4));
    EXPECT_TRUE(keeps([this] { return manager_.begun().empty(); }));
    EXPECT_THAT(Access::queue(manager_), SizeIs(1));

    EXPECT_EQ(manager_.notify(), 0); // One signal is enough: the thread waits.
    EXPECT_TRUE(fakes::waitUntil([this] { return manager_.finished().size() == 1; }));
    EXPECT_THAT(manager_.finished(), ElementsAre("one"));
}

TEST_F(FailingWaitTest, RequestsAfterItAreExecutedInOrder) {
    threads_.failWaits(1, EINVAL);
    queue("one");
    startThread();
    ASSERT_TRUE(reachesWait(2));
    queue("two");
    EXPECT_TRUE(fakes::waitUntil([this] { return manager_.finished().size() == 2; }));
    EXPECT_THAT(manager_.finished(), ElementsAre("one", "two"));
}

TEST_F(FailingWaitTest, EndsTheThreadAllTheSameWhenItShutsDown) {
    threads_.failWaits(1, EINVAL);
    Access::shuttingDown(manager_) = true;
    queue("one");
    startThread();
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
    EXPECT_EQ(world().count("condWait"), 1U);
    EXPECT_THAT(manager_.begun(), IsEmpty());
    EXPECT_THAT(Access::queue(manager_), SizeIs(1));
}

TEST_F(FailingWaitTest, WaitsOnceForEveryWakeUp) {
    startThread();
    ASSERT_TRUE(reachesWait(1));
    queue("one");
    ASSERT_TRUE(reachesWait(2));
    EXPECT_THAT(manager_.finished(), ElementsAre("one"));
    EXPECT_TRUE(keeps([] { return world().count("condWait") == 2; }));
}

TEST_F(FailingWaitTest, RequestOfAFailedSignalIsExecutedWithTheNextOne) {
    startThread();
    ASSERT_TRUE(reachesWait(1));
    threads_.failSignals(3, EINVAL);
    queue("unannounced");
    EXPECT_TRUE(keeps([this] { return manager_.begun().empty(); }));
    queue("next");
    EXPECT_TRUE(fakes::waitUntil([this] { return manager_.finished().size() == 2; }));
    EXPECT_THAT(manager_.finished(), ElementsAre("unannounced", "next"));
}

TEST_F(FailingWaitTest, RequestOfASignalThatWorksAtItsThirdAttemptIsExecuted) {
    startThread();
    ASSERT_TRUE(reachesWait(1));
    threads_.failSignals(2, EINVAL);
    queue("one");
    EXPECT_TRUE(fakes::waitUntil([this] { return manager_.finished().size() == 1; }));
}

} // namespace
