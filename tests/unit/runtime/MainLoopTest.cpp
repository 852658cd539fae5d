#include "runtime/MainLoop.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "runtime/Globals.h"
#include "runtime/Signals.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/runtime/SignalsSupport.h"

namespace {

using fakes::world;
using platform::WaitResult;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr int kLevelDebug = 7;

/// The descriptor of the listening socket, the first one that the fakes hand out.
constexpr int kListener = fakes::kFirstDescriptor;

/// The wall clock of a fresh world, as local time in UTC.
const char* const kStartText = "Tue Nov 14 22:13:20 2023";

constexpr int kNever = 1000000; // seconds: no status check is due

reqcmd requestNamed(const char* name) {
    reqcmd request = {};
    std::strncpy(request.name, name, sizeof request.name - 1);
    request.action = 9;
    return request;
}

std::string bytesOf(const reqcmd& request) {
    return {reinterpret_cast<const char*>(&request), sizeof request};
}

/// A manager that listens, without a command thread.
class MainLoopTest : public testing::Test {
protected:
    void SetUp() override {
        manager_.initCommunication();
        appmgr = &manager_;
        reportWatchdogEvents();
        world().forgetRecords();
    }

    ~MainLoopTest() override {
        appmgr = nullptr;
        if (!recordFile_.empty()) {
            ::unlink(recordFile_.c_str());
            ::rmdir(folder_.c_str());
        }
    }

    /// Runs one turn for each of `steps`; each step runs where the turn waits for a client, and
    /// says how that wait ends.
    void runTurns(std::vector<std::function<WaitResult()>> steps, std::int32_t intervalSec) {
        MainLoop loop(manager_, intervalSec);
        runTurns(loop, std::move(steps));
    }

    static void runTurns(MainLoop& loop, std::vector<std::function<WaitResult()>> steps) {
        std::size_t turn = 0;
        world().onWait = [&](int fd, int) {
            if (fd == kListener) {
                const WaitResult result = steps[turn++]();
                world().waitResults = {result};
                if (turn == steps.size()) {
                    g_bDaemonShutdown = -1;
                }
            }
        };
        EXPECT_EQ(loop.run(), 0);
        world().onWait = nullptr;
    }

    static WaitResult nobody() { return WaitResult::TimedOut; }
    static WaitResult broken() { return WaitResult::Failed; }

    /// A client that connects and sends nothing.
    static WaitResult silentClient() { return WaitResult::Ready; }

    static WaitResult clientSending(const std::string& bytes) {
        world().receives = {{bytes, 0}};
        return WaitResult::Ready;
    }

    static std::function<WaitResult()> client(const char* name) {
        return [name] { return clientSending(bytesOf(requestNamed(name))); };
    }

    /// A wait that fails at once, after the clock was set to `now`.
    static std::function<WaitResult()> brokenAt(std::time_t now) {
        return [now] {
            world().now = now;
            return WaitResult::Failed;
        };
    }

    void recordRequests() {
        char pattern[] = "/tmp/ovard-main-loop-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        folder_ = pattern;
        recordFile_ = folder_ + "/record";
        pszAppendToAppConfigurationFile = recordFile_.c_str();
    }

    std::string recorded() const {
        std::ifstream file(recordFile_, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    std::size_t statusChecks() const {
        std::size_t checks = 0;
        for (const std::string& call : world().callsOf("sleep")) {
            checks += call == "sleep 10" ? 1 : 0;
        }
        return checks;
    }

    FixtureManager manager_;
    std::string folder_;
    std::string recordFile_;
};

// --- the turn ------------------------------------------------------------------------------------

TEST_F(MainLoopTest, ReturnsZeroAtOnceWhenShutDown) {
    g_bDaemonShutdown = 1;
    MainLoop loop(manager_, 5);
    EXPECT_EQ(loop.run(), 0);
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(MainLoopTest, TurnWithoutAClientBeatsWaitsAndSleeps) {
    runTurns({nobody}, kNever);
    EXPECT_THAT(world().calls, ElementsAre("heartbeat_notify", "wait 100000 2000", "sleep 100"));
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(MainLoopTest, ShutdownFlagIsTestedBeforeEachTurnOnly) {
    runTurns({nobody, nobody, nobody}, kNever);
    EXPECT_EQ(world().count("heartbeat_notify"), 3U);
    EXPECT_EQ(world().count("wait"), 3U);
    EXPECT_EQ(world().callsOf("sleep"), std::vector<std::string>(3, "sleep 100"));
}

TEST_F(MainLoopTest, TurnWithAnErrorSleeps) {
    runTurns({broken}, kNever);
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 100"));
}

TEST_F(MainLoopTest, SilentClientCountsAsNothingReceived) {
    runTurns({silentClient}, kNever);
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 100"));
    EXPECT_THAT(AppManagerTestAccess::queue(manager_), IsEmpty());
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(MainLoopTest, VanishedClientCountsAsNothingReceived) {
    world().acceptResults = {{-1, EINVAL}};
    runTurns({silentClient}, kNever);
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 100"));
    EXPECT_THAT(AppManagerTestAccess::queue(manager_), IsEmpty());
}

TEST_F(MainLoopTest, RequestIsQueuedBeforeASecondOfSleep) {
    bool queuedBefore = false;
    world().onSleep = [&](int ms) {
        queuedBefore = ms == 1000 && AppManagerTestAccess::queue(manager_).size() == 1;
    };
    runTurns({client("meter")}, kNever);
    EXPECT_TRUE(queuedBefore);
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 1000"));
    ASSERT_THAT(AppManagerTestAccess::queue(manager_), SizeIs(1));
    EXPECT_EQ(bytesOf(AppManagerTestAccess::queue(manager_)[0]), bytesOf(requestNamed("meter")));
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(MainLoopTest, OneRequestATurn) {
    runTurns({client("first"), client("second"), nobody}, kNever);
    ASSERT_THAT(AppManagerTestAccess::queue(manager_), SizeIs(2));
    EXPECT_STREQ(AppManagerTestAccess::queue(manager_)[1].name, "second");
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 1000", "sleep 1000", "sleep 100"));
}

TEST_F(MainLoopTest, ShortRequestIsProcessedWithTheRestOfThePreviousOne) {
    runTurns({client("previous"), [] { return clientSending("n"); }}, kNever);
    ASSERT_THAT(AppManagerTestAccess::queue(manager_), SizeIs(2));
    EXPECT_EQ(bytesOf(AppManagerTestAccess::queue(manager_)[1]), bytesOf(requestNamed("nrevious")));
}

// --- the record file -----------------------------------------------------------------------------

TEST_F(MainLoopTest, RequestIsRecorded) {
    recordRequests();
    runTurns({client("meter")}, kNever);
    EXPECT_EQ(recorded(), bytesOf(requestNamed("meter")));
}

TEST_F(MainLoopTest, NothingReceivedIsRecordedWithWhatTheBufferHolds) {
    recordRequests();
    runTurns({silentClient, client("meter"), silentClient}, kNever);
    EXPECT_EQ(recorded(),
              bytesOf(reqcmd{}) + bytesOf(requestNamed("meter")) + bytesOf(requestNamed("meter")));
    EXPECT_THAT(AppManagerTestAccess::queue(manager_), SizeIs(1));
}

TEST_F(MainLoopTest, TimeOutAndErrorAreNotRecorded) {
    recordRequests();
    runTurns({nobody, broken}, kNever);
    EXPECT_NE(::access(recordFile_.c_str(), F_OK), 0);
}

TEST_F(MainLoopTest, WithoutARecordFileNothingIsRecorded) {
    recordRequests();
    pszAppendToAppConfigurationFile = nullptr;
    runTurns({client("meter"), silentClient}, kNever);
    EXPECT_NE(::access(recordFile_.c_str(), F_OK), 0);
}

TEST_F(MainLoopTest, RecordFileThatCannotBeWrittenStopsNothing) {
    pszAppendToAppConfigurationFile = "/nonexistent/folder/record";
    runTurns({client("meter")}, kNever);
    EXPECT_THAT(AppManagerTestAccess::queue(manager_), SizeIs(1));
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 1000"));
}

TEST_F(MainLoopTest, RequestIsRecordedBeforeItIsShownAndQueued) {
    pszAppendToAppConfigurationFile = "/nonexistent/folder/record";
    g_verbose = 7;
    verbose = 8;
    runTurns({client("meter")}, kNever);
    const std::string console = world().consoleText();
    const std::size_t record = console.find("opening /nonexistent/folder/record for appending");
    const std::size_t shown = console.find("appmgr->recvCommand()=");
    const std::size_t queued = console.find("processRequest(");
    ASSERT_NE(queued, std::string::npos);
    EXPECT_LT(record, shown);
    EXPECT_LT(shown, queued);
}

// --- traces --------------------------------------------------------------------------------------

TEST_F(MainLoopTest, RequestIsShownAboveVerbositySix) {
    g_verbose = 7;
    runTurns({client("meter")}, kNever);
    EXPECT_EQ(world().consoleText(), std::string(kStartText) +
                                         " appmgr->recvCommand()=1216\n"
                                         "Request Command:\n"
                                         "\tname = meter\n"
                                         "\tversion = \n"
                                         "\taction = 9\n"
                                         "\tcmd = \"\"\n"
                                         "\tpidfile = \"\"\n"
                                         "\tporttype = 0\n"
                                         "\tportnum = 0\n"
                                         "\tdelay = 0\n"
                                         "\tkeepalive = 0\n"
                                         "\tnowait = 0\n"
                                         "\trequest.heartbeat = 0\n"
                                         "\trequest.restart_type = 0\n"
                                         "\trequest.last_runtime_life_limit = 0\n");
}

TEST_F(MainLoopTest, NothingReceivedIsShownToo) {
    g_verbose = 7;
    runTurns({silentClient}, kNever);
    EXPECT_THAT(world().consoleText(),
                testing::StartsWith(std::string(kStartText) +
                                    " appmgr->recvCommand()=0\nRequest Command:\n\tname = \n"));
}

TEST_F(MainLoopTest, RequestIsNotShownAtVerbositySix) {
    g_verbose = 6;
    runTurns({client("meter"), silentClient}, kNever);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(MainLoopTest, TimeOutIsNeverShown) {
    g_verbose = 9;
    runTurns({nobody, broken}, kNever);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(MainLoopTest, StatusCheckIsShownAndLoggedAboveVerbositySeven) {
    g_verbose = 8;
    runTurns({brokenAt(1700000005)}, 5);
    EXPECT_EQ(world().consoleText(),
              "Tue Nov 14 22:13:25 2023 checkStatus(bErasePreloadApplistEntries=0) for "
              "heartbeats\n"
              "Tue Nov 14 22:13:25 2023 updateStatus()\n");
    EXPECT_THAT(world().logTexts(kLevelDebug), ElementsAre(" checkStatus for heartbeats"));
    EXPECT_THAT(world().log, SizeIs(1));
}

TEST_F(MainLoopTest, StatusCheckIsNeitherShownNorLoggedAtVerbositySeven) {
    g_verbose = 7;
    runTurns({brokenAt(1700000005)}, 5);
    EXPECT_EQ(world().consoleText(), "Tue Nov 14 22:13:25 2023 updateStatus()\n");
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(MainLoopTest, PublicationIsNotShownAtVerbositySix) {
    g_verbose = 6;
    runTurns({brokenAt(1700000005)}, 5);
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_EQ(statusChecks(), 1U);
}

TEST_F(MainLoopTest, StatusCheckComesAfterTheSleepOfTheTurn) {
    runTurns({brokenAt(1700000005)}, 5);
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 100", "sleep 10"));
}

TEST_F(MainLoopTest, StatusCheckComesAfterAServedRequestToo) {
    runTurns({client("meter")}, 0);
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 1000", "sleep 10"));
}

TEST_F(MainLoopTest, StatusCheckIsShownBeforeItsSleepAndPublicationAfterIt) {
    g_verbose = 8;
    std::string atSleep;
    world().onSleep = [&](int ms) {
        if (ms == 10) {
            atSleep = world().console;
        }
    };
    runTurns({brokenAt(1700000005)}, 5);
    EXPECT_THAT(atSleep, HasSubstr("for heartbeats\n"));
    EXPECT_THAT(atSleep, Not(HasSubstr("updateStatus")));
    EXPECT_THAT(world().consoleText(), HasSubstr("updateStatus"));
}

/// Where the first call `text`, with whatever arguments, stands among `calls`.
std::ptrdiff_t positionOf(const std::string& text, const std::vector<std::string>& calls) {
    return std::find_if(calls.begin(), calls.end(),
                        [&text](const std::string& call) {
                            return call == text || call.rfind(text + " ", 0) == 0;
                        }) -
           calls.begin();
}

// A pass ends with the health word, for which it reads the published one.
TEST_F(MainLoopTest, PassComesBeforeThatSleepAndPublicationAfterIt) {
    runTurns({brokenAt(1700000005)}, 5);
    const std::vector<std::string>& calls = world().calls;
    const std::ptrdiff_t passed = positionOf("loadShm", calls);
    const std::ptrdiff_t slept = positionOf("sleep 10", calls);
    const std::ptrdiff_t published = positionOf("readTextFile /proc/uptime", calls);
    EXPECT_LT(passed, slept);
    EXPECT_LT(slept, published);
    EXPECT_LT(published, static_cast<std::ptrdiff_t>(calls.size())) << "never";
}

// --- when the status check is due ----------------------------------------------------------------

TEST_F(MainLoopTest, StatusCheckIsNotDueBeforeTheInterval) {
    runTurns({brokenAt(1700000004)}, 5);
    EXPECT_EQ(statusChecks(), 0U);
}

TEST_F(MainLoopTest, StatusCheckIsDueAtTheInterval) {
    runTurns({brokenAt(1700000005)}, 5);
    EXPECT_EQ(statusChecks(), 1U);
}

TEST_F(MainLoopTest, IntervalOfZeroOrLessIsDueAtEveryTurn) {
    runTurns({broken, broken, broken}, 0);
    EXPECT_EQ(statusChecks(), 3U);
    g_bDaemonShutdown = 0;
    world().forgetRecords();
    runTurns({broken, broken}, -5);
    EXPECT_EQ(statusChecks(), 2U);
}

TEST_F(MainLoopTest, NextCheckCountsFromTheTimeOfTheReceive) {
    // The turn's sleeps do not move the time of the last check on.
    world().onSleep = [](int ms) {
        if (ms == 10) {
            world().now = 1700000009;
        }
    };
    runTurns({brokenAt(1700000005), brokenAt(1700000009)}, 5);
    EXPECT_EQ(statusChecks(), 1U);
    g_bDaemonShutdown = 0;
    world().forgetRecords();
    world().now = 1700000000;
    runTurns({brokenAt(1700000005), brokenAt(1700000010)}, 5);
    EXPECT_EQ(statusChecks(), 2U);
}

TEST_F(MainLoopTest, DefaultIntervalChecksAtAboutEveryThirdIdleTurn) {
    runTurns({nobody, nobody, nobody, nobody, nobody, nobody}, 5);
    EXPECT_EQ(statusChecks(), 2U);
}

TEST_F(MainLoopTest, ClockSetBackMakesTheCheckDueAtOnce) {
    g_verbose = 8;
    runTurns({brokenAt(1699999999)}, kNever);
    EXPECT_EQ(statusChecks(), 1U);
    EXPECT_THAT(world().consoleText(), HasSubstr("checkStatus(bErasePreloadApplistEntries=1)"));
}

TEST_F(MainLoopTest, ClockSetBackBetweenChecksMakesTheNextOneDueOnce) {
    runTurns({brokenAt(1700000100), brokenAt(1700000050), brokenAt(1700000050)}, 60);
    EXPECT_EQ(statusChecks(), 2U);
}

TEST_F(MainLoopTest, ClockThatStandsStillIsNotSetBack) {
    runTurns({brokenAt(1700000000)}, 5);
    EXPECT_EQ(statusChecks(), 0U);
}

// --- the erase flag ------------------------------------------------------------------------------

struct EraseFlag {
    std::time_t sinceStartSec;
    const char* shown;
};

class MainLoopEraseTest : public MainLoopTest, public testing::WithParamInterface<EraseFlag> {};

TEST_P(MainLoopEraseTest, IsSetFromThirtySecondsOnAndBeforeTheStart) {
    g_verbose = 8;
    runTurns({brokenAt(1700000000 + GetParam().sinceStartSec)}, 0);
    EXPECT_THAT(world().consoleText(),
                HasSubstr(std::string(" checkStatus(bErasePreloadApplistEntries=") +
                          GetParam().shown + ") for heartbeats\n"));
}

INSTANTIATE_TEST_SUITE_P(Seconds, MainLoopEraseTest,
                         testing::Values(EraseFlag{0, "0"}, EraseFlag{1, "0"}, EraseFlag{29, "0"},
                                         EraseFlag{30, "1"}, EraseFlag{31, "1"},
                                         EraseFlag{100000, "1"}, EraseFlag{-1, "1"},
                                         EraseFlag{-100000, "1"}));

// --- the watchdog's counter ----------------------------------------------------------------------

TEST_F(MainLoopTest, CounterIsResetWithTheWatchdog) {
    initWatchDog = true;
    thread_heartbeat_counter = 4;
    runTurns({nobody}, kNever);
    EXPECT_EQ(thread_heartbeat_counter, 0U);
}

TEST_F(MainLoopTest, CounterIsLeftAloneWithoutTheWatchdog) {
    thread_heartbeat_counter = 4;
    runTurns({nobody, client("meter")}, 0);
    EXPECT_EQ(thread_heartbeat_counter, 4U);
}

TEST_F(MainLoopTest, CounterIsResetAtTheEndOfTheTurnOnly) {
    initWatchDog = true;
    std::uint32_t atCheck = 0;
    world().onSleep = [&](int ms) {
        if (ms == 10) {
            atCheck = thread_heartbeat_counter;
        }
    };
    std::uint32_t atPublication = 0;
    world().onCall = [&](const std::string& call) {
        if (call == "readTextFile /proc/uptime") {
            atPublication = thread_heartbeat_counter;
        }
    };
    thread_heartbeat_counter = 4;
    runTurns({broken}, 0);
    world().onCall = nullptr;
    EXPECT_EQ(atCheck, 4U);
    EXPECT_EQ(atPublication, 4U);
    EXPECT_EQ(thread_heartbeat_counter, 0U);
}

TEST_F(MainLoopTest, KicksAreReportedByTheTurn) {
    initWatchDog = true;
    g_verbose = 6;
    runTurns({[] {
                 runtimetest::tick();
                 return WaitResult::TimedOut;
             }},
             kNever);
    EXPECT_EQ(world().consoleText(), "kicked watchdog... 1\n");
    EXPECT_THAT(world().logTexts(kLevelDebug), ElementsAre("kicked watchdog"));
}

TEST_F(MainLoopTest, PendingTerminationEndsTheTurnEarly) {
    runTurns({[] {
                 world().terminationIsPending = true;
                 return WaitResult::TimedOut;
             }},
             5);
    EXPECT_EQ(world().now, 1700000000);
    EXPECT_EQ(statusChecks(), 0U);
}

} // namespace
