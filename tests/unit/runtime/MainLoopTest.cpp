#include "runtime/MainLoop.h"

#include <cerrno>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/SystemEvent.h"
#include "runtime/Signals.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/runtime/MainLoopFixture.h"
#include "tests/unit/runtime/RuntimeSupport.h"

namespace {

using namespace runtimetest;
using fakes::world;
using levels::kLevelDebug;
using levels::kLevelError;
using levels::kLevelInfo;
using platform::WaitResult;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// Of heartbeat_check.
constexpr int kFreshBeat = 1;
constexpr int kOldBeat = 2;
constexpr int kNoBeat = 3;

// --- faults that the loop tells of ---------------------------------------------------------------

TEST_F(MainLoopTest, LostEventsAreToldOnceAndSoIsTheirEnd) {
    const auto event = [](int error) {
        return [error] {
            world().eventErrno = error;
            platform::logSystemEvent("event");
            return WaitResult::TimedOut;
        };
    };
    runTurns({event(0), event(EROFS), event(EROFS), nobody, event(ENOSPC), event(0), event(0)},
             kNever);
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("/var/log/meter_events.log cannot be written: Read-only file system"));
    EXPECT_THAT(world().logTexts(kLevelInfo),
                ElementsAre("/var/log/meter_events.log is written again"));
    EXPECT_THAT(world().log, SizeIs(2));
}

TEST_F(MainLoopTest, WatchdogThatIsNotFedIsToldOnceAndSoIsItsEnd) {
    initWatchDog = true;
    wdog_fd = kDevice;
    const auto feed = [](int error) {
        return [error] {
            world().writeResults = {{error == 0 ? 1 : -1, error}};
            tick();
            return WaitResult::TimedOut;
        };
    };
    runTurns({feed(0), feed(ENODEV), feed(ENODEV), nobody, feed(EIO), feed(0), feed(0)}, kNever);
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("/dev/watchdog cannot be written: No such device"));
    EXPECT_THAT(world().logTexts(kLevelInfo), ElementsAre("/dev/watchdog is written again"));
    EXPECT_THAT(world().log, SizeIs(2));
}

TEST_F(MainLoopTest, HeartbeatsThatCannotBeWrittenAreToldOnceAndSoIsTheirEnd) {
    const auto beats = [](int seen, int error) { // the beats from the next turn on
        return [=] {
            world().heartbeats[world().ownPid] = seen;
            world().beatErrno = error;
            return WaitResult::TimedOut;
        };
    };
    runTurns({nobody, beats(kNoBeat, ENOSPC), nobody, beats(kNoBeat, EROFS), beats(kOldBeat, EROFS),
              beats(kFreshBeat, 0), nobody, nobody},
             kNever);
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("/meter_heartbeat.shared cannot be written: No space left on device"));
    EXPECT_THAT(world().logTexts(kLevelInfo),
                ElementsAre("/meter_heartbeat.shared is written again"));
    EXPECT_THAT(world().log, SizeIs(2));
}

TEST_F(MainLoopTest, ReasonOfALostHeartbeatIsThatOfTheBeat) {
    world().beatErrno = EROFS;
    world().onCall = [](const std::string& call) {
        errno = call == "heartbeat_check 4321 2" ? ENOENT : errno; // it is not there to be read
    };
    runTurns({nobody}, kNever);
    world().onCall = nullptr;
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("/meter_heartbeat.shared cannot be written: Read-only file system"));
}

TEST_F(MainLoopTest, HeartbeatThatStaysAnOldOneIsLost) {
    world().beatErrno = EFBIG;
    world().heartbeats[world().ownPid] = kOldBeat;
    runTurns({nobody}, kNever);
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("/meter_heartbeat.shared cannot be written: File too large"));
}

/// Somebody has come between the beat and the look, or the process stood still.
TEST_F(MainLoopTest, HeartbeatThatTheSecondLookShowsIsNotLost) {
    bool isFirst = true;
    world().onCall = [&isFirst](const std::string& call) {
        if (call == "heartbeat_check 4321 2" && isFirst) {
            isFirst = false;
            world().heartbeats.clear();
        }
    };
    runTurns({nobody, nobody}, kNever);
    world().onCall = nullptr;
    EXPECT_THAT(world().log, IsEmpty());
    EXPECT_EQ(world().count("heartbeat_notify"), 3U);
}

TEST_F(MainLoopTest, ReasonOfALookThatFailsIsToldWhereTheBeatHasNone) {
    world().onCall = [](const std::string& call) {
        if (call == "heartbeat_check 4321 2") {
            world().heartbeats.clear();
            errno = EMFILE;
        }
    };
    runTurns({nobody}, kNever);
    world().onCall = nullptr;
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("/meter_heartbeat.shared cannot be written: Too many open files"));
}

TEST_F(MainLoopTest, HeartbeatThatIsLostWithoutAReasonIsToldToo) {
    world().onCall = [](const std::string& call) {
        if (call == "heartbeat_check 4321 2") {
            world().heartbeats.clear();
        }
    };
    runTurns({nobody}, kNever);
    world().onCall = nullptr;
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("/meter_heartbeat.shared cannot be written: Input/output error"));
}

TEST_F(MainLoopTest, PidFileThatCouldNotBeWrittenIsWrittenLater) {
    world().setPidFileErrno = ENOSPC;
    MonitorPidFile pidFile;
    world().forgetRecords();
    MainLoop loop(manager_, pidFile, kNever);
    const auto told = [] {
        EXPECT_THAT(world().logTexts(), SizeIs(1)) << "before the replay and the first client";
        return WaitResult::TimedOut;
    };
    const auto withRoom = [] {
        world().setPidFileErrno = 0;
        return WaitResult::TimedOut;
    };
    world().pidFiles.clear();
    runTurns(loop, {told, nobody, withRoom, nobody, nobody});
    const std::string path = "/tmp/pid/home/kelvo/root/ovard.pid";
    EXPECT_EQ(world().pidFiles[path + ".4321"], "4321\n\n");
    EXPECT_EQ(world().callsOf("pidfile"),
              std::vector<std::string>(3, "pidfile 4321 " + path + " 65 "));
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre(path + ".4321 cannot be written: No space left on device"));
    EXPECT_THAT(world().logTexts(kLevelInfo), ElementsAre(path + ".4321 is written again"));
}

// Who has removed it may have a reason.
TEST_F(MainLoopTest, PidFileThatWasWrittenIsNotWrittenAgain) {
    world().pidFiles.clear();
    runTurns({nobody, nobody}, kNever);
    EXPECT_EQ(world().count("pidfile"), 0U);
    EXPECT_THAT(world().pidFiles, IsEmpty());
}

// --- the turn ------------------------------------------------------------------------------------

TEST_F(MainLoopTest, ReturnsZeroAtOnceWhenShutDown) {
    g_bDaemonShutdown = 1;
    MainLoop loop(manager_, pidFile_, 5);
    EXPECT_EQ(loop.run(), 0);
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(MainLoopTest, TurnWithoutAClientBeatsWaitsAndSleeps) {
    runTurns({nobody}, kNever);
    EXPECT_THAT(world().calls, ElementsAre("heartbeat_notify", "heartbeat_check 4321 2",
                                           "wait 100000 2000", "sleep 100"));
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
    EXPECT_EQ(bytesOf(AppManagerTestAccess::queued(manager_)[0]), bytesOf(requestNamed("meter")));
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(MainLoopTest, OneRequestATurn) {
    runTurns({client("first"), client("second"), nobody}, kNever);
    ASSERT_THAT(AppManagerTestAccess::queue(manager_), SizeIs(2));
    EXPECT_STREQ(AppManagerTestAccess::queued(manager_)[1].name, "second");
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 1000", "sleep 1000", "sleep 100"));
}

TEST_F(MainLoopTest, ShortRequestIsProcessedWithTheRestOfThePreviousOne) {
    runTurns({client("previous"), [] { return clientSending("n"); }}, kNever);
    ASSERT_THAT(AppManagerTestAccess::queue(manager_), SizeIs(2));
    EXPECT_EQ(bytesOf(AppManagerTestAccess::queued(manager_)[1]),
              bytesOf(requestNamed("nrevious")));
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

TEST_F(MainLoopTest, ClientOfARequestWithoutMemoryIsDropped) {
    world().onCall = [](const std::string& call) {
        world().mallocs.failNext = call.rfind("recv ", 0) == 0 ? 1 : 0;
    };
    runTurns({client("meter")}, kNever);
    world().onCall = nullptr;
    EXPECT_THAT(AppManagerTestAccess::queue(manager_), IsEmpty());
    EXPECT_EQ(world().count("closefd"), 1U);
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 1000"));
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
