#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/IntakeSupport.h"
#include "tests/unit/appmanager/RequestSupport.h"
#include "tests/unit/support/FaultyThreads.h"
#include "tests/unit/support/LockState.h"

namespace {

using fakes::world;
using intake::AppManagerIntakeTest;
using requests::Line;
using requests::logLines;
using requests::makeRequest;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;
using Access = AppManagerTestAccess;

using levels::kLevelDebug;
using levels::kLevelError;

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
    EXPECT_STREQ(Access::queued(manager_)[0].name, "one");
    EXPECT_STREQ(Access::queued(manager_)[1].name, "two");
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

TEST_F(AppManagerIntakeTest, RequestWithoutMemoryIsLoggedAndDropped) {
    verbose = 8;
    world().mallocs.failNext = 1;
    queue("app", "/bin/app");
    EXPECT_THAT(Access::queue(manager_), IsEmpty());
    EXPECT_THAT(logLines(),
                ElementsAre(Line{kLevelError, "processRequest: no memory for action=1 name=app"}));
    EXPECT_EQ(world().consoleText(), "");
    queue("next");
    EXPECT_THAT(Access::queue(manager_), SizeIs(1));
}

TEST_F(AppManagerIntakeTest, RequestWithoutMemoryIsReadWithinItsBounds) {
    reqcmd request;
    std::memset(&request, 'Z', sizeof request);
    request.action = 3;
    world().mallocs.failNext = 1;
    EXPECT_EQ(manager_.processRequest(request), 0);
    EXPECT_THAT(logLines(), ElementsAre(Line{kLevelError, "processRequest: no memory for action=3 "
                                                          "name=" +
                                                              std::string(64, 'Z')}));
}

TEST_F(AppManagerIntakeTest, RequestWithoutMemoryWakesTheCommandThreadForTheOthers) {
    const faults::FaultyThreads threads;
    world().mallocs.failNext = 1;
    queue("app");
    EXPECT_THAT(world().calls, ElementsAre("condSignal"));
}

// --- requests of clients -------------------------------------------------------------------------

class AppManagerClientIntakeTest : public AppManagerIntakeTest {
protected:
    void SetUp() override {
        AppManagerIntakeTest::SetUp();
        world().scriptReceive(makeRequest(APPMONCTL_Stop, "app"));
        ASSERT_GT(manager_.recvCommand(request_), 0);
        world().forgetRecords();
    }

    reqcmd request_ = {};
};

TEST_F(AppManagerClientIntakeTest, QueuedOneKeepsItsConnection) {
    manager_.processClientRequest(request_);
    ASSERT_THAT(Access::queue(manager_), SizeIs(1));
    EXPECT_STREQ(Access::queue(manager_).front().name, "app");
    EXPECT_EQ(world().count("closefd"), 0U);
}

TEST_F(AppManagerClientIntakeTest, OneWithoutMemoryLosesItsConnectionOnceThatIsLogged) {
    std::size_t linesAtTheClose = 0;
    world().onCall = [&](const std::string& call) {
        linesAtTheClose += call.rfind("closefd ", 0) == 0 ? world().log.size() : 0;
    };
    world().mallocs.failNext = 1;
    manager_.processClientRequest(request_);
    world().onCall = nullptr;
    EXPECT_THAT(Access::queue(manager_), IsEmpty());
    EXPECT_EQ(world().count("closefd"), 1U);
    EXPECT_EQ(linesAtTheClose, 1U);
    EXPECT_EQ(world().count("send"), 0U);
}

/// Of a request file, for example.
TEST_F(AppManagerClientIntakeTest, AnotherOneWithoutMemoryLeavesTheConnectionOpen) {
    world().mallocs.failNext = 1;
    queue("other");
    EXPECT_EQ(world().count("closefd"), 0U);
}

// --- locks ---------------------------------------------------------------------------------------

TEST_F(AppManagerIntakeTest, LeavesBothLocksFree) {
    queue("app");
    EXPECT_TRUE(locks::isFree(Access::queueLock(manager_)));
    EXPECT_TRUE(locks::isFree(Access::appLock(manager_)));
}

TEST_F(AppManagerIntakeTest, NeedsNoRegistryLock) {
    EXPECT_EQ(Access::appLock(manager_).lock(), 0);
    std::thread([this] { queue("app"); }).join();
    EXPECT_EQ(Access::appLock(manager_).unlock(), 0);
    EXPECT_THAT(Access::queue(manager_), SizeIs(1));
}

// --- notify --------------------------------------------------------------------------------------

TEST_F(AppManagerIntakeTest, NotifyReturnsTheResultOfUnlocking) {
    EXPECT_EQ(manager_.notify(), 0);
    EXPECT_TRUE(locks::isFree(Access::queueLock(manager_)));
}

TEST_F(AppManagerIntakeTest, NotifyKeepsWhatItsCallerHolds) {
    EXPECT_EQ(Access::queueLock(manager_).lock(), 0);
    EXPECT_EQ(manager_.notify(), 0);
    EXPECT_FALSE(locks::isFree(Access::queueLock(manager_)));
    EXPECT_EQ(Access::queueLock(manager_).unlock(), 0);
}

TEST_F(AppManagerIntakeTest, NotifyDoesNotYieldWhenTheFirstSignalWorks) {
    EXPECT_EQ(manager_.notify(), 0);
    EXPECT_EQ(world().count("yield"), 0U);
}

TEST_F(AppManagerIntakeTest, NotifySignalsWithTheQueueLocked) {
    const faults::FaultyThreads threads;
    bool held = false;
    world().onCall = [&](const std::string& call) {
        held = call == "condSignal" && !locks::isFree(Access::queueLock(manager_));
    };
    EXPECT_EQ(manager_.notify(), 0);
    world().onCall = nullptr;
    EXPECT_TRUE(held);
}

TEST_F(AppManagerIntakeTest, NotifyReturnsTheErrorOfUnlocking) {
    const faults::FaultyThreads threads;
    world().onCall = [this](const std::string& call) {
        if (call == "condSignal") {
            (void)Access::queueLock(manager_).unlock(); // None is left for its caller.
        }
    };
    EXPECT_EQ(manager_.notify(), EPERM);
    world().onCall = nullptr;
}

struct FailingSignals {
    int failures;
    std::vector<std::string> calls;
};

class FailingSignalTest : public AppManagerIntakeTest,
                          public testing::WithParamInterface<FailingSignals> {
protected:
    void SetUp() override {
        AppManagerIntakeTest::SetUp();
        threads_.failSignals(GetParam().failures, EINVAL);
    }

    faults::FaultyThreads threads_;
};

TEST_P(FailingSignalTest, NotifyTriesThreeTimesAndYieldsAfterEachFailure) {
    EXPECT_EQ(manager_.notify(), 0);
    EXPECT_THAT(world().calls, ElementsAreArray(GetParam().calls));
    EXPECT_TRUE(locks::isFree(Access::queueLock(manager_)));
}

TEST_P(FailingSignalTest, RequestIsTakenAllTheSame) {
    queue("app");
    EXPECT_THAT(world().calls, ElementsAreArray(GetParam().calls));
    EXPECT_THAT(Access::queue(manager_), SizeIs(1));
    EXPECT_EQ(world().errorText(), "");
    EXPECT_THAT(logLines(), SizeIs(1)); // of the request itself
}

INSTANTIATE_TEST_SUITE_P(
    Failures, FailingSignalTest,
    testing::Values(
        FailingSignals{0, {"condSignal"}}, FailingSignals{1, {"condSignal", "yield", "condSignal"}},
        FailingSignals{2, {"condSignal", "yield", "condSignal", "yield", "condSignal"}},
        FailingSignals{3, {"condSignal", "yield", "condSignal", "yield", "condSignal", "yield"}},
        FailingSignals{9, {"condSignal", "yield", "condSignal", "yield", "condSignal", "yield"}}));

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
    manager_.onExecute = [&](const reqcmd&) { held = !locks::isFree(Access::queueLock(manager_)); };
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
    EXPECT_STREQ(Access::queue(manager_).front().name, "two");
}

} // namespace
