// What may happen in the middle of a long pass: requests, and the end of the monitor.

#include <csignal>

#include "tests/system/Supervision.h"

namespace systemtest {
namespace {

/// Every end that SIGTERM brings about.
constexpr int kLongestEndMs = 5000;

/// A line takes a moment from the monitor to the file; a test that expects none must wait.
constexpr int kLogDelayMs = 300;

constexpr const char* kRestartAll = "restart all";
constexpr const char* kReboot = "reboot system";
constexpr const char* kStopped = "Application Monitor Stopped.";

std::size_t passes() {
    return countLog(7, " checkStatus for heartbeats");
}

class SupervisionEnd : public SupervisionTest {
protected:
    /// SIGTERM, and the orderly end that must follow.
    void expectCleanEnd() {
        const Ending ending = monitor_.terminate();
        EXPECT_EQ(ending.text(), "status 0");
        EXPECT_LT(ending.tookMs, kLongestEndMs);
        EXPECT_EQ(countEvent(kStopped), 1U);
        EXPECT_FALSE(fileExists(kSocketPath));
        EXPECT_FALSE(fileExists(monitor_.pidFile()));
        EXPECT_EQ(monitor_.errors(), "");
        sleepMs(kLogDelayMs);
    }

    /// Waits until the monitor has begun a pass and does not come to its end.
    static bool staysInAPass() {
        constexpr int kTurnWithoutClientsMs = 2500;
        std::int64_t since = monotonicMs();
        std::size_t seen = passes();
        return eventually(
            [&] {
                if (passes() != seen) {
                    seen = passes();
                    since = monotonicMs();
                }
                return seen > 0 && monotonicMs() - since > kTurnWithoutClientsMs;
            },
            2 * kPatienceMs);
    }

    /// Three applications, of which the second one demands a restart of all when it dies, or one of
    /// the machine; it dies.
    void bringAbout(const char* event, int limitSec) {
        reqcmd second = makeSupervised("second", RESTART_TYPE_ALL);
        second.last_runtime_life_limit = limitSec;
        (void)launch(makeSupervised("first", RESTART_TYPE_SELF));
        const pid_t pid = launch(second);
        (void)launch(makeSupervised("third", RESTART_TYPE_SELF));
        ASSERT_TRUE(getsRunning("second", pid));
        settle();
        ASSERT_TRUE(killAndWait(pid));
        ASSERT_TRUE(waitForEvent(event));
    }

    static void expectAllRun() {
        for (const char* name : {"first", "second", "third"}) {
            EXPECT_FALSE(processesNamed(name).empty()) << name;
        }
    }
};

using SupervisionRequests = SupervisionEnd;

// --- requests ------------------------------------------------------------------------------------

TEST_F(SupervisionRequests, StopDuringALongPassWaitsForItsEnd) {
    ASSERT_TRUE(startSupervisor({"-p", "3", "-v", "6"}));
    const reqcmd request = makeSupervised("stale", kNoPolicy, "--version 1.1");
    const pid_t pid = launch(request);
    const auto looks = [&] { return countOf(monitor_.console(), "checkAlive() stale status=3 "); };
    ASSERT_TRUE(eventually([&] { return looks() > 0; }, 2 * kPatienceMs));
    const std::int64_t begin = monotonicMs();
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Stop, "stale")));
    const Reply reply = toReply(client.receiveReply(2 * kPatienceMs));
    EXPECT_GE(monotonicMs() - begin, 2500) << "thirty polls of 100 ms";
    EXPECT_EQ(reply, replyOf(0, "stale is stopped @DATE\n"));
    EXPECT_EQ(looks(), 1U) << "it came to a later pass";
    EXPECT_TRUE(isGone(pid));
}

TEST_F(SupervisionRequests, StartThatEndsDuringALongPassWaitsForItsEnd) {
    ASSERT_TRUE(startSupervisor({"-p", "3", "-v", "6"}));
    (void)launch(makeSupervised("stale", kNoPolicy, "--version 1.1"));
    const std::string line = "checkAlive() stale status=3 ";
    ASSERT_TRUE(eventually([&] { return countOf(monitor_.console(), line) > 0; }, 2 * kPatienceMs));
    const reqcmd request = makeSupervised("late", kNoPolicy, "--daemonize-after 1500");
    Client client;
    ASSERT_TRUE(sendRequest(client, request));
    ASSERT_TRUE(waitForLog(7, "processRequest: action=0 name=late, cmd=" + commandIn(request)));
    // The next pass begins a second later and takes three.
    const std::int64_t begin = monotonicMs();
    const Reply reply = toReply(client.receiveReply(2 * kPatienceMs));
    EXPECT_GE(monotonicMs() - begin, 3500);
    const pid_t pid = pidIn(reply.message);
    EXPECT_EQ(reply, replyOf(0, "late [pid=" + std::to_string(pid) + "] is started @DATE\n"));
    EXPECT_TRUE(isRunning(pid));
}

// --- the end of the monitor ----------------------------------------------------------------------

TEST_F(SupervisionEnd, TerminationDuringThePollsForAPidFile) {
    ASSERT_TRUE(startSupervisor({"-p", "60", "-v", "8"}));
    const pid_t pid = launch(makeSupervised("stale", RESTART_TYPE_SELF, "--version 1.1"));
    ASSERT_TRUE(staysInAPass());
    expectCleanEnd();
    EXPECT_EQ(verdictsOn("stale"), std::vector<std::string>{});
    EXPECT_TRUE(isRunning(pid));
}

TEST_F(SupervisionEnd, TerminationDuringThePollsForAProcess) {
    ASSERT_TRUE(startSupervisor({"-p", "60", "-v", "8"}));
    const pid_t other = launch(makeSupervised("other", RESTART_TYPE_SELF));
    const pid_t pid = launch(makeSupervised("gone", RESTART_TYPE_SELF));
    ASSERT_TRUE(killAndWait(pid));
    ASSERT_TRUE(staysInAPass());
    expectCleanEnd();
    EXPECT_EQ(verdictsOn("gone"), std::vector<std::string>{});
    EXPECT_TRUE(isRunning(other));
}

TEST_F(SupervisionEnd, TerminationDuringARestart) {
    ASSERT_TRUE(startSupervisor());
    const pid_t other = launch(makeSupervised("other", RESTART_TYPE_SELF));
    const reqcmd request = makeSupervised("broken", RESTART_TYPE_SELF);
    const pid_t pid = launchUntilRunning(request);
    // Its replacement ends at once and is looked for for 30 seconds.
    ASSERT_TRUE(writeScript("/tmp/script", "exit 0\n"));
    ASSERT_TRUE(copyProgram("/tmp/script", programPath("new")));
    ASSERT_EQ(std::rename(programPath("new").c_str(), programPath("broken").c_str()), 0);
    ASSERT_TRUE(killAndWait(pid));
    ASSERT_TRUE(waitForLog(6, stoppedLine("broken", pid)));
    sleepMs(700); // somewhere within
    expectCleanEnd();
    EXPECT_TRUE(isRunning(other));
}

TEST_F(SupervisionEnd, TerminationDuringThePauseOfARestartOfAll) {
    ASSERT_TRUE(startSupervisor());
    ASSERT_NO_FATAL_FAILURE(bringAbout(kRestartAll, 600));
    sleepMs(500);
    expectCleanEnd();
    expectAllRun();
}

TEST_F(SupervisionEnd, TerminationDuringTheLaunchesOfARestartOfAll) {
    ASSERT_TRUE(startSupervisor());
    ASSERT_NO_FATAL_FAILURE(bringAbout(kRestartAll, 600));
    const std::string launch = "start_process: name=first ";
    const std::size_t before = countOf(readFile(kDaemonLogPath), launch);
    ASSERT_TRUE(eventually([&] { return countOf(readFile(kDaemonLogPath), launch) > before; }));
    expectCleanEnd();
    expectAllRun();
}

TEST_F(SupervisionEnd, TerminationDuringTheStopsOfARestartOfAll) {
    ASSERT_TRUE(startSupervisor());
    const std::string herd = "--ignore-term --fork-stray 40";
    reqcmd second = makeSupervised("second", RESTART_TYPE_ALL);
    second.last_runtime_life_limit = 600;
    (void)launch(makeSupervised("first", RESTART_TYPE_SELF));
    const pid_t pid = launch(second);
    (void)launch(makeSupervised("third", RESTART_TYPE_SELF, herd));
    ASSERT_TRUE(getsRunning("second", pid));
    settle();
    ASSERT_TRUE(killAndWait(pid));
    ASSERT_TRUE(eventually([] { return processesNamed("third").size() < 38; }));
    expectCleanEnd();
    EXPECT_FALSE(processesNamed("first").empty());
    EXPECT_FALSE(processesNamed("third").empty());
}

/// The kernel refuses the monitor to restart the machine, so that there is an end to be seen.
class SupervisionEndAtReboot : public SupervisionEnd {
protected:
    void endDuringThePause() {
        {
            const MonitorThroughScript script(
                "exec setpriv --bounding-set=-sys_boot --inh-caps=-sys_boot \"$OVARD\" \"$@\"\n");
            ASSERT_TRUE(startSupervisor());
        }
        ASSERT_NO_FATAL_FAILURE(bringAbout(kReboot, 0));
        sleepMs(500);
        expectCleanEnd();
    }
};

TEST_F(SupervisionEndAtReboot, ApplicationsRunAgain) {
    ASSERT_NO_FATAL_FAILURE(endDuringThePause());
    expectAllRun();
}

TEST_F(SupervisionEndAtReboot, WatchdogIsArmedAllTheSame) {
    ASSERT_NO_FATAL_FAILURE(endDuringThePause());
    EXPECT_EQ(readFile(kWatchdogPath), "1\n");
    EXPECT_EQ(countOf(monitor_.console(), "enabling watchdog for reboot"), 0U);
}

} // namespace
} // namespace systemtest
