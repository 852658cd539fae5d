// The end of the monitor by signals, at rest and with clients.

#include <sys/inotify.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/system/ShutdownSupport.h"

namespace systemtest {
namespace {

using Shutdown = ShutdownTest;

// --- at rest -------------------------------------------------------------------------------------

TEST_F(Shutdown, TerminationEndsAnIdleMonitor) {
    start();
    expectCleanEnd();
}

TEST_F(Shutdown, TerminationEndsAnIdleMonitorInTheBackground) {
    ASSERT_TRUE(daemon_.startInBackground());
    const Ending ending = daemon_.terminate();
    EXPECT_TRUE(ending.ended);
    EXPECT_LT(ending.tookMs, kLongestEndMs);
    EXPECT_FALSE(fileExists(kSocketPath));
    EXPECT_FALSE(fileExists(daemon_.pidFile()));
    EXPECT_EQ(eventTexts(), (std::vector<std::string>{kStarted, kInitialized, kStopped}));
}

TEST_F(Shutdown, ConsoleEndsWithTheLineOfTheShutdown) {
    start();
    const std::string before = daemon_.console();
    expectCleanEnd();
    EXPECT_EQ(daemon_.console(), before + "ovard ovardAtExit()\n");
}

TEST_F(Shutdown, TerminationEndsAMonitorAfterManyTurns) {
    start({"-i", "0"});
    ASSERT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
    sleepMs(3000);
    expectCleanEnd();
}

TEST_F(Shutdown, PidFileBelowTheMeterRootIsRemoved) {
    daemon_.setMeterRoot("/opt/x");
    start();
    ASSERT_TRUE(fileExists(daemon_.pidFile()));
    expectCleanEnd();
    EXPECT_EQ(entriesOf("/tmp/pid/opt/x/home/kelvo/root"), std::vector<std::string>{});
}

TEST_F(Shutdown, MissingFilesDoNotDisturbIt) {
    start();
    ASSERT_EQ(::unlink(kSocketPath), 0);
    ASSERT_EQ(::unlink(daemon_.pidFile().c_str()), 0);
    expectCleanEnd();
}

TEST_F(Shutdown, RefusedSocketRemovalIsReported) {
    start();
    ASSERT_EQ(::unlink(kSocketPath), 0);
    ASSERT_TRUE(writeFile(std::string(kSocketPath) + "/file", "in the way"));
    EXPECT_EQ(daemon_.terminate().text(), "status 0");
    EXPECT_EQ(daemon_.errors(), "closeCommunication: remove socket path error: Is a directory\n");
    EXPECT_TRUE(waitForLog(3, "remove socket path error error"));
    EXPECT_EQ(countEvent(kStopped), 1U);
    EXPECT_FALSE(fileExists(daemon_.pidFile()));
}

/// What changes in the places that a shutdown touches, in the order in which it happens.
class Observer {
public:
    Observer()
        : fd_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {}
    ~Observer() { (void)::close(fd_); }
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;

    bool watch(const std::string& path, std::uint32_t events) {
        return ::inotify_add_watch(fd_, path.c_str(), events) >= 0;
    }

    /// One word for each change: the name of an entry of a directory, "written" for a file.
    std::vector<std::string> changes() const {
        std::vector<std::string> names;
        alignas(inotify_event) char buffer[16384];
        for (ssize_t count = 0; (count = ::read(fd_, buffer, sizeof buffer)) > 0;) {
            for (const char* at = buffer; at < buffer + count;) {
                inotify_event event = {};
                std::memcpy(&event, at, sizeof event);
                names.emplace_back(event.len > 0 ? at + sizeof event : "written");
                at += sizeof event + event.len;
            }
        }
        return names;
    }

private:
    int fd_;
};

TEST_F(Shutdown, FilesGoBeforeTheLastLineOfTheEventLog) {
    start();
    const std::string pidFile = daemon_.pidFile();
    const std::size_t slash = pidFile.rfind('/');
    Observer observer;
    ASSERT_TRUE(observer.watch("/tmp", IN_DELETE));
    ASSERT_TRUE(observer.watch(pidFile.substr(0, slash), IN_DELETE));
    ASSERT_TRUE(observer.watch(kEventLogPath, IN_MODIFY));
    expectCleanEnd();
    EXPECT_EQ(observer.changes(),
              (std::vector<std::string>{"appmon_sock", pidFile.substr(slash + 1), "written"}));
}

/// Slots of the heartbeat registry that belong to a process.
std::size_t heartbeatSlotsOf(pid_t pid) {
    constexpr std::size_t kHeader = 16;
    constexpr std::size_t kSlot = 16;
    const std::string registry = readFile("/dev/shm/meter_heartbeat.shared");
    std::size_t count = 0;
    for (std::size_t at = kHeader; at + kSlot <= registry.size(); at += kSlot) {
        std::int32_t owner = 0;
        std::memcpy(&owner, registry.data() + at, sizeof owner);
        count += owner == pid ? 1U : 0U;
    }
    return count;
}

TEST_F(Shutdown, OwnHeartbeatIsTakenBack) {
    start();
    EXPECT_TRUE(eventually([&] { return heartbeatSlotsOf(daemon_.pid()) == 1; }));
    expectCleanEnd();
    EXPECT_EQ(heartbeatSlotsOf(daemon_.pid()), 0U);
}

TEST_F(Shutdown, WatchdogIsDisarmed) {
    start({"-w", "0", "-I", "4"});
    ASSERT_TRUE(eventually([] { return readFile(kWatchdogPath) == "w"; }));
    expectCleanEnd();
    EXPECT_EQ(readFile(kWatchdogPath), "wwV");
}

TEST_F(Shutdown, WatchdogStaysArmedWhereSomebodyElseFeedsIt) {
    ASSERT_TRUE(writeFile("/tmp/watchdog_kick", ""));
    start({"-w", "0", "-I", "4"});
    ASSERT_TRUE(eventually([] { return readFile(kWatchdogPath) == "w"; }));
    expectCleanEnd();
    EXPECT_EQ(readFile(kWatchdogPath), "ww");
    EXPECT_TRUE(fileExists("/tmp/watchdog_kick"));
}

TEST_F(Shutdown, WatchdogThatWasNeverOpenedIsLeftAlone) {
    start({"-w", "0", "-I", "60"});
    expectCleanEnd();
    EXPECT_EQ(readFile(kWatchdogPath), "");
}

// --- with clients --------------------------------------------------------------------------------

TEST_F(Shutdown, SilentClientDoesNotHoldItUp) {
    start();
    Client silent;
    ASSERT_NO_FATAL_FAILURE(holdReceivingSide(silent));
    expectCleanEnd();
    EXPECT_TRUE(silent.receive(kPatienceMs).ended);
}

TEST_F(Shutdown, ClientInTheMiddleOfItsRequestDoesNotHoldItUp) {
    start();
    Client slow;
    ASSERT_TRUE(slow.connect());
    ASSERT_TRUE(slow.send(std::string(700, 'x')));
    ASSERT_TRUE(slow.waitUntilRead());
    expectCleanEnd();
    EXPECT_TRUE(slow.receive(kPatienceMs).ended);
}

TEST_F(Shutdown, ClientsThatStillWaitAreLetGo) {
    start();
    std::vector<std::unique_ptr<Client>> clients;
    for (int count = 0; count < 8; ++count) {
        clients.push_back(std::make_unique<Client>());
        ASSERT_TRUE(sendRequest(*clients.back(), makeRequest(APPMONCTL_Stop, "nobody")));
    }
    ASSERT_TRUE(clients.front()->receiveReply());
    expectCleanEnd();
    for (const auto& client : clients) {
        EXPECT_TRUE(client->receive(kPatienceMs).ended);
    }
}

// --- SIGINT --------------------------------------------------------------------------------------

/// Waits until the monitor no longer handles the signals that end it.
bool handlersAreGone(pid_t pid) {
    return eventually(
        [&] { return !signalIsIn(pid, "SigCgt", SIGINT) && !signalIsIn(pid, "SigCgt", SIGTERM); });
}

TEST_F(Shutdown, FirstInterruptOnlyTakesTheHandlersAway) {
    start();
    ASSERT_TRUE(daemon_.signal(SIGINT));
    ASSERT_TRUE(handlersAreGone(daemon_.pid()));
    expectServing();
    EXPECT_TRUE(daemon_.alive());
    EXPECT_EQ(countEvent(kStopped), 0U);
    EXPECT_EQ(countOf(daemon_.console(), "ovardAtExit"), 0U);
}

TEST_F(Shutdown, SecondInterruptEndsItWithoutCleaningUp) {
    start();
    ASSERT_TRUE(daemon_.signal(SIGINT));
    ASSERT_TRUE(handlersAreGone(daemon_.pid()));
    expectServing();
    ASSERT_TRUE(daemon_.signal(SIGINT));
    EXPECT_EQ(daemon_.waitForEnd(kLongestEndMs).text(), "signal 2");
    EXPECT_EQ(countEvent(kStopped), 0U);
    EXPECT_TRUE(fileExists(kSocketPath));
    EXPECT_TRUE(fileExists(daemon_.pidFile()));
}

TEST_F(Shutdown, TerminationAfterAnInterruptEndsItWithoutCleaningUp) {
    start();
    ASSERT_TRUE(daemon_.signal(SIGINT));
    ASSERT_TRUE(handlersAreGone(daemon_.pid()));
    ASSERT_TRUE(daemon_.signal(SIGTERM));
    EXPECT_EQ(daemon_.waitForEnd(kLongestEndMs).text(), "signal 15");
    EXPECT_EQ(countEvent(kStopped), 0U);
    EXPECT_TRUE(fileExists(kSocketPath));
}

TEST_F(Shutdown, InterruptWhileASilentClientHoldsTheReceivingSide) {
    start();
    Client silent;
    ASSERT_NO_FATAL_FAILURE(holdReceivingSide(silent));
    ASSERT_TRUE(daemon_.signal(SIGINT));
    ASSERT_TRUE(handlersAreGone(daemon_.pid()));
    silent.close();
    expectServing();
    ASSERT_TRUE(daemon_.signal(SIGINT));
    EXPECT_EQ(daemon_.waitForEnd(kLongestEndMs).text(), "signal 2");
}

TEST_F(Shutdown, HangUpEndsItByTheDefaultAction) {
    start();
    ASSERT_TRUE(daemon_.signal(SIGHUP));
    EXPECT_EQ(daemon_.waitForEnd(kLongestEndMs).text(), "signal 1");
}

// --- logged signals ------------------------------------------------------------------------------

TEST_F(Shutdown, LoggedSignalsDoNotEndIt) {
    start({"-b"});
    std::vector<std::string> expected = {kStarted, kInitialized};
    for (const int number : {SIGHUP, SIGINT, SIGTERM, SIGSEGV, SIGABRT, SIGPIPE, SIGTRAP}) {
        for (int twice = 0; twice < 2; ++twice) {
            ASSERT_TRUE(daemon_.signal(number));
            expected.push_back("Caught signal " + std::to_string(number));
            ASSERT_TRUE(eventually([&] { return eventTexts().size() == expected.size(); }))
                << number;
            EXPECT_EQ(eventTexts(), expected);
        }
    }
    expectServing();
    EXPECT_TRUE(daemon_.alive());
    EXPECT_TRUE(fileExists(daemon_.pidFile()));
    EXPECT_EQ(countOf(daemon_.console(), "ovardAtExit"), 0U);
}

TEST_F(Shutdown, LoggedSignalsDoNotEndItWhileItServes) {
    start({"-b"});
    for (int round = 0; round < 4; ++round) {
        Client client;
        ASSERT_TRUE(client.connect());
        // Each may use up one of the three receive calls, so one must be left for the request.
        for (const int number : {SIGTERM, round % 2 == 0 ? SIGSEGV : SIGINT}) {
            ASSERT_TRUE(daemon_.signal(number));
        }
        ASSERT_TRUE(client.send(makeRequest(APPMONCTL_Stop, "nobody")));
        ASSERT_TRUE(client.receiveReply()) << round;
    }
}

TEST_F(Shutdown, LoggedSignalIsLoggedWhileASilentClientHoldsTheReceivingSide) {
    start({"-b"});
    Client silent;
    ASSERT_NO_FATAL_FAILURE(holdReceivingSide(silent));
    ASSERT_TRUE(daemon_.signal(SIGTERM));
    EXPECT_TRUE(waitForEvent("Caught signal 15"));
    silent.close();
    expectServing();
}

} // namespace
} // namespace systemtest
