#include <pthread.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
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
#include "tests/unit/appmanager/RequestSupport.h"

namespace {

using fakes::world;
using requests::Line;
using requests::logLines;
using requests::makeRequest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using Access = AppManagerTestAccess;

constexpr int kLevelInfo = 6;
constexpr int kLevelDebug = 7;

/// How often a test looks, one millisecond apart, for something that must not happen.
constexpr int kPatience = 30;

/// A manager that notes its requests in place of executing them.
class RecordingManager : public AppManager {
public:
    ~RecordingManager() noexcept override { processTermination(this); }

    int processCmd(const reqcmd& request) override {
        std::function<void(const reqcmd&)> hook;
        int result = 0;
        {
            const fakes::Lock lock;
            begun_.push_back(request);
            hook = onExecute;
            result = result_;
        }
        if (hook) {
            hook(request);
        }
        const fakes::Lock lock;
        finished_.emplace_back(platform::fieldText(request.name));
        return result;
    }

    void setResult(int result) { result_ = result; }

    std::vector<reqcmd> begun() const {
        const fakes::Lock lock;
        return begun_;
    }

    std::vector<std::string> finished() const {
        const fakes::Lock lock;
        return finished_;
    }

    std::function<void(const reqcmd&)> onExecute;

private:
    std::vector<reqcmd> begun_;
    std::vector<std::string> finished_;
    int result_ = 0;
};

class AppManagerIntakeTest : public testing::Test {
protected:
    void SetUp() override {
        manager_.initCommunication(); // opens the log
        world().forgetRecords();
    }

    void queue(std::string_view name, std::string_view cmd = {}) {
        EXPECT_EQ(manager_.processRequest(makeRequest(APPMONCTL_Stop, name, cmd)), 0);
    }

    /// Wakes the command thread until `done` holds: it may not have come to its wait yet.
    bool wakeUntil(const std::function<bool()>& done) {
        return fakes::waitUntil([&] {
            (void)manager_.notify();
            return done();
        });
    }

    bool wakeUntilFinished(std::size_t count) {
        return wakeUntil([this, count] { return manager_.finished().size() >= count; });
    }

    /// Watches for a while that `condition` goes on.
    static bool keeps(const std::function<bool()>& condition) {
        int looks = 0;
        return fakes::waitUntil([&] { return !condition() || ++looks == kPatience; }) &&
               looks == kPatience;
    }

    RecordingManager manager_;
};

// --- processRequest ------------------------------------------------------------------------------

TEST_F(AppManagerIntakeTest, QueuesACopyOfTheWholeRecord) {
    reqcmd request;
    auto* const bytes = reinterpret_cast<unsigned char*>(&request);
    for (std::size_t index = 0; index < sizeof request; ++index) {
        bytes[index] = static_cast<unsigned char>(index * 7 + 1);
    }
    const reqcmd original = request;
    EXPECT_EQ(manager_.processRequest(request), 0);
    std::memset(&request, 0, sizeof request);
    ASSERT_THAT(Access::queue(manager_), SizeIs(1));
    EXPECT_EQ(std::memcmp(&Access::queue(manager_).front(), &original, sizeof original), 0);
}

TEST_F(AppManagerIntakeTest, QueuesAtTheBack) {
    queue("one");
    queue("two");
    ASSERT_THAT(Access::queue(manager_), SizeIs(2));
    EXPECT_STREQ(Access::queue(manager_)[0].name, "one");
    EXPECT_STREQ(Access::queue(manager_)[1].name, "two");
}

TEST_F(AppManagerIntakeTest, AcceptsEveryAction) {
    for (const int action : {INT_MIN, -1, 0, 9, 10, 11, INT_MAX}) {
        EXPECT_EQ(manager_.processRequest(makeRequest(action)), 0);
    }
    EXPECT_THAT(Access::queue(manager_), SizeIs(7));
}

TEST_F(AppManagerIntakeTest, ExecutesNothingItself) {
    queue("app");
    EXPECT_THAT(manager_.begun(), IsEmpty());
}

TEST_F(AppManagerIntakeTest, LogsEveryRequestAtDebugLevel) {
    EXPECT_EQ(manager_.processRequest(makeRequest(-5, "app", "/bin/app -x 1")), 0);
    EXPECT_THAT(logLines(), ElementsAre(Line{kLevelDebug, "processRequest: action=-5 name=app, "
                                                          "cmd=/bin/app -x 1"}));
}

TEST_F(AppManagerIntakeTest, TracesTheCommandAboveVerbositySeven) {
    verbose = 8;
    queue("app", "/bin/app -x");
    EXPECT_EQ(world().consoleText(), "processRequest(cmd=/bin/app -x)\n");
}

TEST_F(AppManagerIntakeTest, TracesTheCommandBeforeItLogsTheRequest) {
    verbose = 8;
    std::string shown;
    world().onLog = [&](int, const std::string&) { shown = world().consoleText(); };
    queue("app", "/bin/app -x");
    EXPECT_EQ(shown, "processRequest(cmd=/bin/app -x)\n");
}

TEST_F(AppManagerIntakeTest, IsSilentAtVerbositySeven) {
    verbose = 7;
    queue("app", "/bin/app -x");
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_THAT(logLines(), SizeIs(1));
}

TEST_F(AppManagerIntakeTest, ReadsFieldsWithoutNulWithinTheirBounds) {
    verbose = 8;
    reqcmd request;
    std::memset(&request, 'Z', sizeof request);
    std::memset(request.name, 'n', sizeof request.name);
    std::memset(request.cmd, 'c', sizeof request.cmd);
    request.action = 3;
    EXPECT_EQ(manager_.processRequest(request), 0);
    const std::string name(64, 'n');
    const std::string cmd(1024, 'c');
    EXPECT_EQ(world().consoleText(), "processRequest(cmd=" + cmd + ")\n");
    EXPECT_THAT(logLines(), ElementsAre(Line{kLevelDebug, "processRequest: action=3 name=" + name +
                                                              ", cmd=" + cmd}));
}

TEST_F(AppManagerIntakeTest, TakesPercentSignsAsText) {
    verbose = 8;
    queue("%s%n", "%s %d %n");
    EXPECT_EQ(world().consoleText(), "processRequest(cmd=%s %d %n)\n");
    EXPECT_THAT(logLines(),
                ElementsAre(Line{kLevelDebug, "processRequest: action=1 name=%s%n, cmd=%s %d %n"}));
}

TEST_F(AppManagerIntakeTest, LeavesBothLocksFree) {
    queue("app");
    EXPECT_FALSE(requests::isHeld(&Access::queueLock(manager_)));
    EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
}

TEST_F(AppManagerIntakeTest, NeedsNoRegistryLock) {
    pthread_mutex_lock(&Access::appLock(manager_));
    std::thread([this] { queue("app"); }).join();
    pthread_mutex_unlock(&Access::appLock(manager_));
    EXPECT_THAT(Access::queue(manager_), SizeIs(1));
}

// --- notify --------------------------------------------------------------------------------------

TEST_F(AppManagerIntakeTest, NotifyReturnsTheResultOfUnlocking) {
    EXPECT_EQ(manager_.notify(), 0);
    EXPECT_FALSE(requests::isHeld(&Access::queueLock(manager_)));
}

TEST_F(AppManagerIntakeTest, NotifyKeepsWhatItsCallerHolds) {
    pthread_mutex_lock(&Access::queueLock(manager_));
    EXPECT_EQ(manager_.notify(), 0);
    EXPECT_TRUE(requests::isHeld(&Access::queueLock(manager_)));
    EXPECT_EQ(pthread_mutex_unlock(&Access::queueLock(manager_)), 0);
}

TEST_F(AppManagerIntakeTest, NotifyDoesNotYieldWhenTheFirstSignalWorks) {
    EXPECT_EQ(manager_.notify(), 0);
    EXPECT_EQ(world().count("yield"), 0U);
}

// --- draining ------------------------------------------------------------------------------------

TEST_F(AppManagerIntakeTest, DrainsInArrivalOrder) {
    queue("one");
    queue("two");
    queue("three");
    EXPECT_TRUE(Access::drainQueue(manager_));
    EXPECT_THAT(manager_.finished(), ElementsAre("one", "two", "three"));
    EXPECT_THAT(Access::queue(manager_), IsEmpty());
}

TEST_F(AppManagerIntakeTest, HandsOverTheWholeRecord) {
    reqcmd request;
    std::memset(&request, 0xE7, sizeof request);
    request.action = 77;
    manager_.processRequest(request);
    EXPECT_TRUE(Access::drainQueue(manager_));
    ASSERT_THAT(manager_.begun(), SizeIs(1));
    EXPECT_EQ(std::memcmp(&manager_.begun()[0], &request, sizeof request), 0);
}

TEST_F(AppManagerIntakeTest, YieldsAfterEveryRequest) {
    queue("one");
    queue("two");
    EXPECT_TRUE(Access::drainQueue(manager_));
    EXPECT_EQ(world().count("yield"), 2U);
}

TEST_F(AppManagerIntakeTest, ExecutesWithTheQueueUnlocked) {
    bool held = true;
    manager_.onExecute = [&](const reqcmd&) {
        held = requests::isHeld(&Access::queueLock(manager_));
    };
    queue("one");
    EXPECT_TRUE(Access::drainQueue(manager_));
    EXPECT_FALSE(held);
}

TEST_F(AppManagerIntakeTest, DrainsWhatArrivesMeanwhile) {
    manager_.onExecute = [this](const reqcmd& request) {
        if (platform::fieldText(request.name) == "one") {
            queue("late");
        }
    };
    queue("one");
    EXPECT_TRUE(Access::drainQueue(manager_));
    EXPECT_THAT(manager_.finished(), ElementsAre("one", "late"));
}

TEST_F(AppManagerIntakeTest, TakesNoActionOnAFailedRequest) {
    manager_.setResult(-8);
    queue("one");
    queue("two");
    EXPECT_TRUE(Access::drainQueue(manager_));
    EXPECT_THAT(manager_.finished(), ElementsAre("one", "two"));
    EXPECT_THAT(requests::replies(), IsEmpty());
}

TEST_F(AppManagerIntakeTest, TracesEveryRequestTwiceAboveVerbosityThree) {
    verbose = 4;
    manager_.setResult(-4);
    queue("one", "/bin/one -a");
    manager_.processRequest(makeRequest(6, "two", "/bin/two"));
    EXPECT_TRUE(Access::drainQueue(manager_));
    EXPECT_EQ(world().consoleText(),
              "process_command_thread: processCmd(reqlist.size=1, request.action=1, "
              "request.name=one, cmd=\"/bin/one -a\")\n"
              "process_command_thread: processCmd(reqlist.size=1, request.action=1, "
              "cmd=\"/bin/one -a\")=-4\n"
              "process_command_thread: processCmd(reqlist.size=0, request.action=6, "
              "request.name=two, cmd=\"/bin/two\")\n"
              "process_command_thread: processCmd(reqlist.size=0, request.action=6, "
              "cmd=\"/bin/two\")=-4\n");
}

TEST_F(AppManagerIntakeTest, TracesTheFirstLineBeforeTheExecution) {
    verbose = 4;
    std::string before;
    manager_.onExecute = [&](const reqcmd&) { before = world().consoleText(); };
    queue("one");
    EXPECT_TRUE(Access::drainQueue(manager_));
    EXPECT_EQ(before, "process_command_thread: processCmd(reqlist.size=0, request.action=1, "
                      "request.name=one, cmd=\"\")\n");
}

TEST_F(AppManagerIntakeTest, DrainsSilentlyAtVerbosityThree) {
    verbose = 3;
    queue("one");
    EXPECT_TRUE(Access::drainQueue(manager_));
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(AppManagerIntakeTest, TracesFieldsWithoutNulWithinTheirBounds) {
    verbose = 4;
    reqcmd request;
    std::memset(&request, 'Z', sizeof request);
    request.action = 0;
    manager_.processRequest(request);
    EXPECT_TRUE(Access::drainQueue(manager_));
    const std::string name(64, 'Z');
    const std::string cmd(1024, 'Z');
    EXPECT_EQ(world().consoleText(),
              "process_command_thread: processCmd(reqlist.size=0, request.action=0, request.name=" +
                  name + ", cmd=\"" + cmd +
                  "\")\n"
                  "process_command_thread: processCmd(reqlist.size=0, request.action=0, cmd=\"" +
                  cmd + "\")=0\n");
}

TEST_F(AppManagerIntakeTest, FinishesTheRequestDuringWhichItShutsDownAndTakesNoOther) {
    manager_.onExecute = [this](const reqcmd&) { Access::shuttingDown(manager_) = true; };
    queue("one");
    queue("two");
    EXPECT_FALSE(Access::drainQueue(manager_));
    EXPECT_THAT(manager_.finished(), ElementsAre("one"));
    ASSERT_THAT(Access::queue(manager_), SizeIs(1));
    EXPECT_STREQ(Access::queue(manager_)[0].name, "two");
}

// --- the command thread --------------------------------------------------------------------------

class CommandThreadTest : public AppManagerIntakeTest {
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
    startThread();
    // The trace is printed with the queue locked: its order is that of the arrival.
    verbose = 8;
    std::vector<std::string> arrived;
    world().onConsole = [&](const std::string& text) {
        if (text.rfind("processRequest(cmd=", 0) == 0) {
            const fakes::Lock lock;
            arrived.push_back(text.substr(19, text.find(')') - 19));
        }
    };
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
    EXPECT_STREQ(Access::queue(manager_)[0].name, "two");
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

TEST_F(CommandThreadTest, CancelledInItsWaitLeavesTheQueueUnlocked) {
    startThread();
    Access::cancelCommandThread(manager_);
    EXPECT_TRUE(fakes::waitForWorkersToEnd());
    EXPECT_FALSE(requests::isHeld(&Access::queueLock(manager_)));
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

// --- with the real commands ----------------------------------------------------------------------

class CommandThreadExecutionTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(manager_.init(false), 0); }

    bool wakeUntil(const std::function<bool()>& done) {
        return fakes::waitUntil([&] {
            (void)manager_.notify();
            return done();
        });
    }

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
                lockHeld_ = lockHeld_ || requests::isHeld(&Access::appLock(manager_));
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
    EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
    EXPECT_FALSE(requests::isHeld(&Access::queueLock(manager_)));
    EXPECT_TRUE(manager_.commandThreadHasLeft());
    EXPECT_THAT(requests::registeredNames(), ElementsAre("app"));
    EXPECT_THAT(requests::replies(), IsEmpty());
}

TEST_F(CancelledStopTest, ReleasesTheRegistryInAStopOfAll) {
    applist.push_back(requests::makeApp("one", 0));
    applist.push_back(requests::makeLostApp("two", 700));
    cancelDuringTheStop(makeRequest(APPMONCTL_Stop_All));
    EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
    EXPECT_THAT(requests::registeredNames(), ElementsAre("one", "two"));
    EXPECT_THAT(requests::replies(), IsEmpty());
}

TEST_F(CancelledStopTest, ReleasesTheRegistryInARestartOfAll) {
    world().addProcess(700, "one", "/home/kelvo/root/one").ignoresTerm = true;
    applist.push_back(requests::makeApp("one", 700));
    applist.push_back(requests::makeApp("two", 0));
    cancelDuringTheStop(makeRequest(APPMONCTL_Restart_All));
    EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
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
