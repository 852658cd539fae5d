#include "runtime/Startup.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "appmanager/RequestFiles.h"
#include "platform/Settings.h"
#include "runtime/Globals.h"
#include "runtime/Shutdown.h"
#include "runtime/Signals.h"
#include "runtime/VersionInformation.h"
#include "tests/fakes/FakePlatform.h"

namespace {

using fakes::world;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr int kLevelError = 3;
constexpr int kLevelInfo = 6;

std::string signalCall(int signal, const char* kind) {
    return "signal " + std::to_string(signal) + ' ' + kind;
}

std::string actionCall(int signal) {
    return "sigaction " + std::to_string(signal);
}

std::string slotText(std::size_t slot) {
    return version_information_resource[slot];
}

/// The value of a slot, without key and line feed.
std::string slotValue(std::size_t slot) {
    const std::string text = slotText(slot);
    const std::size_t start = text.find('=') + 1;
    return text.substr(start, text.size() - start - 1);
}

std::string versionLine() {
    return "version: " + slotValue(7) + " built on " + slotValue(6) + "\n";
}

bool initializationMutexIsFree() {
    if (g_ovard_initialization_mutex.tryAcquire() != 1) {
        return false;
    }
    g_ovard_initialization_mutex.Unlock();
    return true;
}

/// Takes what earlier tests posted too often, then leaves the mutex free.
void resetInitializationMutex() {
    while (g_ovard_initialization_mutex.tryAcquire() == 1) {
    }
    g_ovard_initialization_mutex.Unlock();
}

void someContinueHandler(int) {}

class StartupTest : public testing::Test {
protected:
    StartupTest() {
        ::opterr = 0;
        ::unsetenv("METER_ROOT");
        resetInitializationMutex();
    }

    ~StartupTest() override {
        world().onCall = nullptr;
        world().onWait = nullptr;
        g_bDaemonShutdown = 0;
        ovardAtExit(); // stops the threads that the run has left
        ::unsetenv("METER_ROOT");
        ::opterr = 1;
    }

    /// Runs the monitor with `arguments` until its first turn is over. Returns its status.
    int run(std::vector<std::string> arguments) {
        world().onWait = [this](int, int) {
            if (atLoop_) {
                atLoop_();
            }
            world().waitResults = {platform::WaitResult::Failed};
            g_bDaemonShutdown = -1;
        };
        arguments.insert(arguments.begin(), "ovard");
        arguments_ = std::move(arguments);
        std::vector<char*> argv;
        for (std::string& word : arguments_) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        return runMonitor(static_cast<int>(arguments_.size()), argv.data());
    }

    /// Status with which the start-up ends the monitor by itself; -1000 when it does not.
    int exitStatusOf(const std::vector<std::string>& arguments) {
        try {
            run(arguments);
        } catch (const fakes::ExitMonitorCalled& called) {
            return called.status;
        }
        return -1000;
    }

    /// Runs `look` when the call `call` is made, and tells whether it was.
    void at(const std::string& call, const std::function<void()>& look) {
        world().onCall = [this, call, look](const std::string& made) {
            if (made == call) {
                looked_ = true;
                look();
            }
        };
    }

    /// The calls of the main thread's start-up: those before the first turn of the loop, without
    /// the signal by which other threads wake the main one and the limit of descriptors.
    static std::vector<std::string> startUpCalls() {
        std::vector<std::string> found;
        for (const std::string& call : world().calls) {
            if (call == "heartbeat_notify") {
                break;
            }
            if (call != signalCall(SIGRTMIN, "ignore") && call != "raiseDescriptorLimit") {
                found.push_back(call);
            }
        }
        return found;
    }

    std::vector<std::string> arguments_;
    std::function<void()> atLoop_;
    bool looked_ = false;
};

// --- a second instance ---------------------------------------------------------------------------

TEST_F(StartupTest, SecondInstanceIsRefused) {
    world().otherInstancePid = 815;
    EXPECT_EQ(run({"-d"}), -10);
    EXPECT_EQ(world().consoleText(), "process \"ovard\" is running, pid = 815, please close it and "
                                     "then restart process\n");
    EXPECT_THAT(world().calls, IsEmpty());
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
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_THAT(world().events, IsEmpty());
}

TEST_F(StartupTest, UnknownOptionAndMissingArgumentDoTheSame) {
    for (const char* const bad : {"-z", "-v"}) {
        world().forgetRecords();
        ::optind = 0;
        EXPECT_EQ(run({bad}), 0) << bad;
        EXPECT_EQ(world().consoleText(), versionLine() + slotText(7) + slotText(6) + "\n") << bad;
        EXPECT_THAT(world().calls, IsEmpty()) << bad;
    }
}

TEST_F(StartupTest, VersionAndBuildTimeAreKept) {
    run({"-?"});
    EXPECT_EQ(std::string(version), slotValue(7));
    EXPECT_EQ(std::string(buildtime), slotValue(6));
}

TEST_F(StartupTest, DiagnosticWithoutAConnection) {
    EXPECT_EQ(run({"-t"}), 0);
    EXPECT_EQ(world().consoleText(),
              versionLine() + "isEstablishedTCPconnectionOnPort22()=false\n");
    EXPECT_THAT(world().calls, ElementsAre("port22"));
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
    EXPECT_THAT(startUpCalls(),
                ElementsAre("daemonize", "watch", signalCall(SIGPIPE, "ignore"),
                            signalCall(SIGCHLD, "default"), actionCall(SIGCONT),
                            "setpriority 4321 -10", "oom -1", "remove /tmp/appmon_sock", "socket",
                            "nonblock 100000", "reuse 100000", "bind 100000 /tmp/appmon_sock",
                            "listen 100000 64", "thread", signalCall(SIGINT, "handler"),
                            signalCall(SIGKILL, "handler"), signalCall(SIGTERM, "handler"),
                            "pidfile 4321 /tmp/pid/home/kelvo/root/ovard.pid 65 " + slotValue(7)));
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started.",
                                            "Ovard: Application Monitor Initialized."));
    EXPECT_EQ(world().errorText(), "");
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
    at("daemonize", [] { EXPECT_FALSE(initializationMutexIsFree()); });
    run({});
    EXPECT_TRUE(looked_);
    EXPECT_EQ(world().daemonizedWith, &g_ovard_initialization_mutex);
}

TEST_F(StartupTest, MutexIsHeldInTheForegroundToo) {
    at("oom -1", [] { EXPECT_FALSE(initializationMutexIsFree()); });
    run({"-d"});
    EXPECT_TRUE(looked_);
}

TEST_F(StartupTest, MutexIsHeldUntilTheHandlersAreInstalled) {
    at(signalCall(SIGTERM, "handler"), [] {
        EXPECT_FALSE(initializationMutexIsFree());
        EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started."));
    });
    run({"-d"});
    EXPECT_TRUE(looked_);
}

TEST_F(StartupTest, MutexIsFreeAndTheEventWrittenBeforeThePidFile) {
    at("pidfile 4321 /tmp/pid/home/kelvo/root/ovard.pid 65 " + slotValue(7), [] {
        EXPECT_TRUE(initializationMutexIsFree());
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
    world().actions[SIGCONT].sa_handler = someContinueHandler;
    run({"-d"});
    EXPECT_EQ(savedSigAction_SIGCONT.sa_handler, someContinueHandler);
    EXPECT_EQ(world().actions[SIGCONT].sa_handler, someContinueHandler);
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

TEST_F(StartupTest, LaunchedProcessesReleaseTheMonitorsResources) {
    run({"-d"});
    EXPECT_EQ(g_releaseResources, free_resources);
}

// --- failures ------------------------------------------------------------------------------------

TEST_F(StartupTest, TimerFailureEndsTheMonitorBeforeTheManagerExists) {
    world().createTimerErrors = {EAGAIN};
    EXPECT_EQ(exitStatusOf({"-d", "-w", "1"}), 1);
    EXPECT_EQ(world().errorText(), "timer_create error: Resource temporarily unavailable\n");
    EXPECT_EQ(appmgr, nullptr);
    EXPECT_EQ(world().count("socket"), 0U);
    EXPECT_EQ(world().count("pidfile"), 0U);
}

TEST_F(StartupTest, SocketFailureEndsTheMonitor) {
    world().listenResults = {{-1, EADDRINUSE}};
    EXPECT_EQ(exitStatusOf({"-d"}), 1);
    EXPECT_THAT(world().logTexts(kLevelError), ElementsAre("listen error, exit"));
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started."));
}

TEST_F(StartupTest, ManagerFailureIsShownLoggedAndEndsTheMonitor) {
    world().threadErrors = {EAGAIN};
    EXPECT_EQ(exitStatusOf({"-d", "-v", "1"}), -1);
    EXPECT_EQ(world().consoleText(), versionLine() + "thread creation  failure! errno=11\n"
                                                     "appmgr->init() failure!\n");
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("init(): thread creation failure!", " initialization failure, exit"));
    EXPECT_EQ(world().count("pidfile"), 0U);
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started."));
}

TEST_F(StartupTest, ManagerFailureIsNotShownAtVerbosityZero) {
    world().threadErrors = {EAGAIN};
    EXPECT_EQ(exitStatusOf({"-d", "-v", "0"}), -1);
    EXPECT_EQ(world().consoleText(), versionLine());
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("init(): thread creation failure!", " initialization failure, exit"));
}

TEST_F(StartupTest, HandlerFailureEndsTheMonitorBeforeItIsInitialized) {
    world().signalErrors[SIGTERM] = EINVAL;
    EXPECT_EQ(exitStatusOf({"-d"}), 1);
    EXPECT_EQ(world().errorText(), "signal_term: Invalid argument\n");
    EXPECT_THAT(world().logTexts(kLevelError), ElementsAre(" signal_term failure, exit"));
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started."));
    EXPECT_EQ(world().count("pidfile"), 0U);
}

// --- the pid file --------------------------------------------------------------------------------

TEST_F(StartupTest, PidFileIsWrittenAndKeptForTheShutdown) {
    run({"-d"});
    EXPECT_EQ(pidfile, "/tmp/pid/home/kelvo/root/ovard.pid.4321");
    EXPECT_EQ(world().pidFiles["/tmp/pid/home/kelvo/root/ovard.pid.4321"],
              "4321\n" + slotValue(7) + "\n");
}

TEST_F(StartupTest, PidFilePathHoldsTheMeterRoot) {
    ::setenv("METER_ROOT", "/opt/x", 1);
    run({"-d"});
    EXPECT_EQ(pidfile, "/tmp/pid/opt/x/home/kelvo/root/ovard.pid.4321");
    EXPECT_THAT(
        world().callsOf("pidfile"),
        ElementsAre("pidfile 4321 /tmp/pid/opt/x/home/kelvo/root/ovard.pid 65 " + slotValue(7)));
}

TEST_F(StartupTest, EmptyMeterRootAddsNothing) {
    ::setenv("METER_ROOT", "", 1);
    run({"-d"});
    EXPECT_EQ(pidfile, "/tmp/pid/home/kelvo/root/ovard.pid.4321");
}

TEST_F(StartupTest, PidFileThatCannotBeWrittenStopsNothing) {
    world().setPidFileErrno = EROFS;
    EXPECT_EQ(run({"-d"}), 0);
    EXPECT_EQ(pidfile, "/tmp/pid/home/kelvo/root/ovard.pid.4321");
    EXPECT_EQ(world().errorText(), "");
    EXPECT_EQ(world().count("heartbeat_notify"), 1U);
}

TEST_F(StartupTest, ShutdownAfterTheLoopRemovesThePidFile) {
    run({"-d"});
    g_bDaemonShutdown = 0;
    ovardAtExit();
    EXPECT_THAT(world().pidFiles, IsEmpty());
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started.",
                                            "Ovard: Application Monitor Initialized.",
                                            "Ovard: Application Monitor Stopped."));
}

// --- the start-up file ---------------------------------------------------------------------------

TEST_F(StartupTest, WithoutAStartUpFileThereIsOneThread) {
    run({"-d"});
    EXPECT_EQ(world().count("thread"), 1U);
    EXPECT_EQ(thread_startupAppConfiguration, kNoThread);
}

TEST_F(StartupTest, StartUpFileIsReplayedByAThread) {
    run({"-d", "-x", "/nonexistent/startup"});
    EXPECT_EQ(world().count("thread"), 2U);
    EXPECT_NE(thread_startupAppConfiguration, kNoThread);
    EXPECT_TRUE(fakes::waitUntil([] {
        return world().consoleText().find("/nonexistent/startup for reading") != std::string::npos;
    }));
}

TEST_F(StartupTest, ReplayStartsAfterThePidFile) {
    run({"-d", "-x", "/nonexistent/startup"});
    const std::vector<std::string> calls = world().callsOf({"thread", "pidfile"});
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_EQ(calls[0], "thread");
    EXPECT_EQ(calls[2], "thread");
}

TEST_F(StartupTest, ReplayThatCannotStartRestartsTheMachine) {
    world().threadErrors = {0, EAGAIN};
    world().restartResults = {{-1, EPERM}};
    EXPECT_EQ(run({"-d", "-x", "/nonexistent/startup"}), 0);
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("pthread_create startupAppConfigurationProcess error"));
    EXPECT_THAT(world().callsOf({"sync", "restart"}), ElementsAre("sync", "restart"));
    EXPECT_EQ(thread_startupAppConfiguration, kNoThread);
    EXPECT_EQ(world().count("heartbeat_notify"), 1U); // it goes on with the loop
}

// --- the end -------------------------------------------------------------------------------------

constexpr int kShutdownRan = 42;
constexpr int kShutdownDidNotRun = 43;

/// Registered before the start, it runs after what the start registers.
void tellWhetherTheShutdownRan() {
    const auto& events = world().events;
    const bool ran = !events.empty() && events.back() == "Ovard: Application Monitor Stopped.";
    ::_exit(ran ? kShutdownRan : kShutdownDidNotRun);
}

class StartupDeathTest : public StartupTest {
protected:
    StartupDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    [[noreturn]] void runAndExit(const std::vector<std::string>& arguments) {
        (void)std::atexit(tellWhetherTheShutdownRan);
        const int status = run(arguments);
        g_bDaemonShutdown = 0; // the test has set it to end the loop
        std::exit(status);
    }
};

TEST_F(StartupDeathTest, ShutdownRunsAtExit) {
    EXPECT_EXIT(runAndExit({"-d"}), testing::ExitedWithCode(kShutdownRan), "");
}

TEST_F(StartupDeathTest, ShutdownDoesNotRunForASecondInstance) {
    EXPECT_EXIT(
        {
            world().otherInstancePid = 815;
            runAndExit({"-d"});
        },
        testing::ExitedWithCode(kShutdownDidNotRun), "");
}

TEST_F(StartupDeathTest, ShutdownDoesNotRunForTheVersion) {
    EXPECT_EXIT(runAndExit({"-?"}), testing::ExitedWithCode(kShutdownDidNotRun), "");
}

TEST_F(StartupDeathTest, ShutdownIsRegisteredAfterTheDaemonizeStep) {
    EXPECT_EXIT(
        {
            at("daemonize", [] { std::exit(0); });
            runAndExit({});
        },
        testing::ExitedWithCode(kShutdownDidNotRun), "");
}

TEST_F(StartupDeathTest, ShutdownIsRegisteredBeforeTheTerminationSignalsAreWatchedFor) {
    // Both come before the termination signals are watched for, which is the first that shows.
    EXPECT_EXIT(
        {
            at("watch", [] { std::exit(0); });
            runAndExit({"-d"});
        },
        testing::ExitedWithCode(kShutdownRan), "");
}

// --- the loop ------------------------------------------------------------------------------------

TEST_F(StartupTest, LoopTakesTheStatusInterval) {
    run({"-d", "-i", "0"});
    EXPECT_THAT(world().callsOf("sleep"), Contains("sleep 10"));
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
