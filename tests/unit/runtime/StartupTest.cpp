#include "runtime/Startup.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "runtime/Globals.h"
#include "runtime/Shutdown.h"
#include "runtime/Signals.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/runtime/RuntimeSupport.h"
#include "tests/unit/runtime/StartupSupport.h"
#include "tests/unit/support/ScriptedInit.h"

namespace {

using fakes::world;
using levels::kLevelError;
using levels::kLevelInfo;
using runtimetest::actionCall;
using runtimetest::launcherMayGoOn;
using runtimetest::signalCall;
using runtimetest::slotText;
using runtimetest::slotValue;
using runtimetest::StartupTest;
using runtimetest::versionLine;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// --- a second instance ---------------------------------------------------------------------------

TEST_F(StartupTest, SecondInstanceIsRefused) {
    world().otherInstancePid = 815;
    EXPECT_EQ(run({"-d"}), -10);
    EXPECT_EQ(world().consoleText(), "process \"ovard\" is running, pid = 815, please close it and "
                                     "then restart process\n");
    EXPECT_THAT(startUpCalls(), IsEmpty());
    EXPECT_THAT(world().events, IsEmpty());
}

TEST_F(StartupTest, SecondInstanceIsRefusedBeforeAnyOptionIsLookedAt) {
    world().otherInstancePid = 815;
    EXPECT_EQ(run({"-?"}), -10);
    EXPECT_EQ(run({"-t"}), -10);
    EXPECT_EQ(run({"-w", "10"}), -10);
    EXPECT_FALSE(initWatchDog);
    EXPECT_EQ(world().count("port22"), 0U);
    EXPECT_THAT(world().consoleText(), Not(HasSubstr("version")));
}

class NoInstanceTest : public StartupTest, public testing::WithParamInterface<int> {};

TEST_P(NoInstanceTest, StartsForZeroOrLess) {
    world().otherInstancePid = GetParam();
    EXPECT_EQ(run({"-?"}), 0);
    EXPECT_THAT(world().consoleText(), Not(HasSubstr("is running")));
}

INSTANTIATE_TEST_SUITE_P(Results, NoInstanceTest, testing::Values(0, -1));

// --- version, -? and -t --------------------------------------------------------------------------

TEST_F(StartupTest, QuestionMarkPrintsVersionDateAndAnEmptyLine) {
    EXPECT_EQ(run({"-?"}), 0);
    EXPECT_EQ(world().consoleText(), versionLine() + slotText(7) + slotText(6) + "\n");
    EXPECT_THAT(startUpCalls(), IsEmpty());
    EXPECT_THAT(world().events, IsEmpty());
}

TEST_F(StartupTest, UnknownOptionAndMissingArgumentDoTheSame) {
    for (const char* const bad : {"-z", "-v"}) {
        world().forgetRecords();
        ::optind = 0;
        EXPECT_EQ(run({bad}), 0) << bad;
        EXPECT_EQ(world().consoleText(), versionLine() + slotText(7) + slotText(6) + "\n") << bad;
        EXPECT_THAT(startUpCalls(), IsEmpty()) << bad;
    }
}

TEST_F(StartupTest, VersionAndBuildTimeAreKept) {
    run({"-?"});
    EXPECT_EQ(std::string(version), slotValue(7));
    EXPECT_EQ(std::string(buildtime), slotValue(6));
    EXPECT_EQ(std::string(g_fileVersion), slotValue(7));
    EXPECT_EQ(std::string(g_fileDate), slotValue(6));
}

TEST_F(StartupTest, DiagnosticWithoutAConnection) {
    EXPECT_EQ(run({"-t"}), 0);
    EXPECT_EQ(world().consoleText(),
              versionLine() + "isEstablishedTCPconnectionOnPort22()=false\n");
    EXPECT_THAT(startUpCalls(), ElementsAre("port22"));
}

TEST_F(StartupTest, DiagnosticShowsAnIPv6PeerWithoutALineEnd) {
    world().remoteShellConnected = true;
    world().remotePeer.sin6_family = AF_INET6;
    ASSERT_EQ(::inet_pton(AF_INET6, "fe80::1:2", &world().remotePeer.sin6_addr), 1);
    EXPECT_EQ(run({"-t"}), 0);
    EXPECT_EQ(world().consoleText(),
              versionLine() + "isEstablishedTCPconnectionOnPort22()=true\nfe80::1:2");
}

TEST_F(StartupTest, DiagnosticShowsAnIPv4Peer) {
    world().remoteShellConnected = true;
    sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    ASSERT_EQ(::inet_pton(AF_INET, "192.0.2.7", &peer.sin_addr), 1);
    std::memcpy(&world().remotePeer, &peer, sizeof peer);
    EXPECT_EQ(run({"-t"}), 0);
    EXPECT_EQ(world().consoleText(),
              versionLine() + "isEstablishedTCPconnectionOnPort22()=true\n192.0.2.7");
}

TEST_F(StartupTest, DiagnosticShowsNoAddressOfAnotherFamily) {
    world().remoteShellConnected = true;
    world().remotePeer.sin6_family = AF_UNIX;
    EXPECT_EQ(run({"-t"}), 0);
    EXPECT_EQ(world().consoleText(), versionLine() + "isEstablishedTCPconnectionOnPort22()=true\n");
}

// --- the order of the start ----------------------------------------------------------------------

TEST_F(StartupTest, StepsInTheirOrder) {
    EXPECT_EQ(run({}), 0);
    EXPECT_THAT(
        startUpCalls(),
        ElementsAre(
            "daemonize", "watch", signalCall(SIGPIPE, "ignore"), signalCall(SIGCHLD, "default"),
            actionCall(SIGCONT), "setpriority 4321 -10", "oom -1", "readTextFile /proc/stat",
            "loadShm - 4 16384 112", "writeShm - 4 16384 112", "loadShm - 2 16384 116",
            "writeShm - 2 16384 116", "openShm /meter_usr7_data.shared 66 438 4096",
            "openShm /meter_usr16_data.shared 66 438 16384", "clearData /meter_usr7_data.shared",
            "loadShm /meter_usr16_data.shared 16384 16384 0", "clearData /meter_usr16_data.shared",
            "remove /tmp/appmon_sock", "socket", "nonblock 100000", "reuse 100000",
            "bind 100000 /tmp/appmon_sock", "listen 100000 64", "thread",
            signalCall(SIGINT, "handler"), signalCall(SIGKILL, "handler"),
            signalCall(SIGTERM, "handler"),
            "pidfile 4321 /tmp/pid/home/kelvo/root/ovard.pid 65 " + slotValue(7)));
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started.",
                                            "Ovard: Application Monitor Initialized."));
    EXPECT_EQ(world().errorText(), "");
}

TEST_F(StartupTest, LoggedSignalsTakeThePlaceOfTheTerminationHandlers) {
    at(signalCall(SIGTRAP, "handler"), [] {
        EXPECT_FALSE(launcherMayGoOn());
        EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started."));
    });
    run({"-b"});
    EXPECT_TRUE(looked_);
    EXPECT_THAT(world().callsOf({"signal", "thread", "pidfile"}),
                ElementsAre(signalCall(SIGPIPE, "ignore"), signalCall(SIGCHLD, "default"), "thread",
                            signalCall(SIGHUP, "handler"), signalCall(SIGINT, "handler"),
                            signalCall(SIGTERM, "handler"), signalCall(SIGSEGV, "handler"),
                            signalCall(SIGABRT, "handler"), signalCall(SIGPIPE, "handler"),
                            signalCall(SIGTRAP, "handler"),
                            "pidfile 4321 /tmp/pid/home/kelvo/root/ovard.pid 65 " + slotValue(7)));
}

TEST_F(StartupTest, ConsoleShowsTheVersionOnlyAtTheDefaultVerbosity) {
    run({});
    EXPECT_EQ(world().consoleText(), versionLine());
    EXPECT_THAT(world().logTexts(kLevelInfo), ElementsAre("App monitor started"));
    EXPECT_THAT(world().logTexts(kLevelError), IsEmpty());
}

TEST_F(StartupTest, WatchdogTimerComesBeforeTheManager) {
    EXPECT_EQ(run({"-w", "100", "-I", "7"}), 0);
    EXPECT_THAT(startUpCalls(), Contains("armTimer 7"));
    const std::vector<std::string> calls =
        world().callsOf({"oom", "sigaction", "createTimer", "armTimer", "socket"});
    EXPECT_THAT(calls,
                ElementsAre(actionCall(SIGCONT), "oom -1", actionCall(SIGUSR1),
                            "createTimer " + std::to_string(SIGUSR1), "armTimer 7", "socket"));
}

TEST_F(StartupTest, WithoutTheOptionThereIsNoTimer) {
    run({});
    EXPECT_EQ(world().count("createTimer"), 0U);
    EXPECT_EQ(world().count("armTimer"), 0U);
}

TEST_F(StartupTest, ForegroundDoesNotDaemonize) {
    EXPECT_EQ(run({"-d"}), 0);
    EXPECT_EQ(world().count("daemonize"), 0U);
    EXPECT_EQ(world().count("pidfile"), 1U);
}

TEST_F(StartupTest, DaemonizesWithTheLockedInitializationMutex) {
    at("daemonize", [] { EXPECT_FALSE(launcherMayGoOn()); });
    run({});
    EXPECT_TRUE(looked_);
    EXPECT_EQ(world().daemonizedWith, &g_ovard_initialization_mutex);
}

TEST_F(StartupTest, MutexIsHeldInTheForegroundToo) {
    at("oom -1", [] { EXPECT_FALSE(launcherMayGoOn()); });
    run({"-d"});
    EXPECT_TRUE(looked_);
}

TEST_F(StartupTest, MutexIsHeldUntilTheHandlersAreInstalled) {
    at(signalCall(SIGTERM, "handler"), [] {
        EXPECT_FALSE(launcherMayGoOn());
        EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started."));
    });
    run({"-d"});
    EXPECT_TRUE(looked_);
}

TEST_F(StartupTest, MutexIsHeldUntilTheInitializedEventIsWritten) {
    std::vector<std::string> heldAt;
    world().onEvent = [&heldAt](const std::string& text) {
        heldAt.push_back((launcherMayGoOn() ? "free: " : "held: ") + text);
    };
    run({"-d"});
    EXPECT_THAT(heldAt, ElementsAre("held: Application Monitor Started.",
                                    "held: Application Monitor Initialized."));
    world().onEvent = nullptr;
}

TEST_F(StartupTest, MutexIsFreeAndTheEventWrittenBeforeThePidFile) {
    at("pidfile 4321 /tmp/pid/home/kelvo/root/ovard.pid 65 " + slotValue(7), [] {
        EXPECT_TRUE(launcherMayGoOn());
        EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started.",
                                                "Ovard: Application Monitor Initialized."));
    });
    run({"-d"});
    EXPECT_TRUE(looked_);
}

TEST_F(StartupTest, StartedEventComesAfterTheScoreAndBeforeTheTimer) {
    at("oom -1", [] { EXPECT_THAT(world().events, IsEmpty()); });
    run({"-d"});
    EXPECT_TRUE(looked_);
}

TEST_F(StartupTest, StartedEventComesBeforeTheTimer) {
    at("armTimer 5",
       [] { EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started.")); });
    run({"-d", "-w", "1"});
    EXPECT_TRUE(looked_);
}

TEST_F(StartupTest, SavesTheSignalMaskBeforeBlocking) {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGWINCH);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    run({"-d"});
    EXPECT_EQ(sigismember(&prevMask, SIGWINCH), 1);
    EXPECT_EQ(sigismember(&prevMask, SIGTERM), 0);
}

TEST_F(StartupTest, SavesTheContinueActionWithoutChangingIt) {
    world().actions[SIGCONT].sa_handler = runtimetest::someHandler;
    run({"-d"});
    EXPECT_EQ(savedSigAction_SIGCONT.sa_handler, runtimetest::someHandler);
    EXPECT_EQ(world().actions[SIGCONT].sa_handler, runtimetest::someHandler);
}

TEST_F(StartupTest, BrokenPipesAreIgnoredWithoutLoggedSignals) {
    run({"-d"});
    EXPECT_EQ(world().actions[SIGPIPE].sa_handler, SIG_IGN);
    EXPECT_EQ(world().actions[SIGTERM].sa_handler, mySIGTERM_handler);
    EXPECT_EQ(world().actions[SIGINT].sa_handler, mySIGTERM_handler);
}

TEST_F(StartupTest, BrokenPipesAreLoggedWithLoggedSignals) {
    run({"-d", "-b"});
    EXPECT_EQ(world().actions[SIGPIPE].sa_handler, mysig_handler);
    EXPECT_EQ(world().actions[SIGTERM].sa_handler, mysig_handler);
    EXPECT_THAT(world().calls, Not(Contains(signalCall(SIGKILL, "handler"))));
}

TEST_F(StartupTest, ChildSignalsGetTheirDefaultAction) {
    world().actions[SIGCHLD].sa_handler = SIG_IGN;
    run({"-d"});
    EXPECT_EQ(world().actions[SIGCHLD].sa_handler, SIG_DFL);
}

TEST_F(StartupTest, PriorityIsShownAboveVerbosityFour) {
    run({"-d", "-v", "5"});
    EXPECT_THAT(world().consoleText(), HasSubstr("\n0=setpriority(PRIO_PROCESS, 4321, -10)\n"));
}

TEST_F(StartupTest, PriorityIsNotShownAtVerbosityFour) {
    run({"-d", "-v", "4"});
    EXPECT_THAT(world().consoleText(), Not(HasSubstr("setpriority")));
}

TEST_F(StartupTest, FailingPriorityAndScoreStopNothing) {
    world().priorityResults = {{-1, EACCES}};
    world().oomResult = -1;
    EXPECT_EQ(run({"-d", "-v", "5"}), 0);
    EXPECT_THAT(world().consoleText(), HasSubstr("\n-1=setpriority(PRIO_PROCESS, 4321, -10)\n"));
    EXPECT_EQ(world().count("pidfile"), 1U);
    EXPECT_EQ(world().errorText(), "");
}

TEST_F(StartupTest, ManagerTakesTheVerbosity) {
    run({"-d", "-v", "2"});
    EXPECT_EQ(verbose, 2);
    EXPECT_EQ(appmgr, AppManager::m_pInstance);
}

struct Discovery {
    std::vector<std::string> arguments;
    bool discovers;
};

class DiscoveryTest : public StartupTest, public testing::WithParamInterface<Discovery> {};

TEST_P(DiscoveryTest, ReachesTheSharedMemory) {
    faults::ScriptedInit init;
    std::vector<bool> flags;
    init.initUserShm = [&](std::vector<appinfo>& /*list*/, bool discover) {
        flags.push_back(discover);
        return 0;
    };
    run(GetParam().arguments);
    EXPECT_THAT(flags, ElementsAre(GetParam().discovers));
}

INSTANTIATE_TEST_SUITE_P(Options, DiscoveryTest,
                         testing::Values(Discovery{{"-d"}, true}, Discovery{{"-d", "-a"}, false},
                                         Discovery{{"-d", "-x", "/nonexistent/startup"}, false},
                                         Discovery{{"-d", "-f", "/nonexistent/record"}, false}));

TEST_F(StartupTest, LaunchedProcessesReleaseTheMonitorsResources) {
    run({"-d"});
    EXPECT_EQ(g_releaseResources, free_resources);
}

// --- the loop ------------------------------------------------------------------------------------

TEST_F(StartupTest, LoopTakesTheStatusInterval) {
    run({"-d", "-i", "0"});
    EXPECT_THAT(world().callsOf("sleep"), Contains("sleep 10"));
}

class LoopStartTest : public StartupTest {
protected:
    /// Runs the monitor whose start-up lasts, up to its very end, `seconds`; its first turn's wait
    /// lasts `waitSec`.
    void runSlowStart(int seconds, int waitSec) {
        at("pidfile 4321 /tmp/pid/home/kelvo/root/ovard.pid 65 " + slotValue(7),
           [seconds] { world().now += seconds; });
        atLoop_ = [waitSec] { world().now += waitSec; };
        run({"-d", "-v", "8"});
        EXPECT_TRUE(looked_);
    }
};

TEST_F(LoopStartTest, IntervalBeginsWithTheLoop) {
    runSlowStart(60, 4);
    EXPECT_THAT(world().consoleText(), Not(HasSubstr("checkStatus(")));
}

TEST_F(LoopStartTest, GraceOfPreloadedEntriesBeginsWithTheLoop) {
    runSlowStart(60, 29);
    EXPECT_THAT(world().consoleText(),
                HasSubstr(" checkStatus(bErasePreloadApplistEntries=0) for heartbeats\n"));
}

TEST_F(LoopStartTest, LoopBeginsBeforeTheReplay) {
    world().threadErrors = {0, EAGAIN};
    world().restartResults = {{-1, EPERM}};
    at("sync", [] { world().now += 40; });
    run({"-d", "-v", "8", "-x", "/nonexistent/startup"});
    EXPECT_TRUE(looked_);
    EXPECT_THAT(world().consoleText(),
                HasSubstr(" checkStatus(bErasePreloadApplistEntries=1) for heartbeats\n"));
}

TEST_F(StartupTest, LoopHasAnIntervalOfFiveSecondsByDefault) {
    atLoop_ = [] { world().now += 4; };
    run({"-d"});
    EXPECT_THAT(world().callsOf("sleep"), Not(Contains("sleep 10")));
    g_bDaemonShutdown = 0;
    ovardAtExit();
    world().forgetRecords();
    g_bDaemonShutdown = 0;
    ::optind = 0;
    atLoop_ = [] { world().now += 5; };
    run({"-d"});
    EXPECT_THAT(world().callsOf("sleep"), Contains("sleep 10"));
}

} // namespace
