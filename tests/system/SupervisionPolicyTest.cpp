// Failures that are answered by a restart of all applications, or of the machine.

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "tests/system/AnotherMachine.h"
#include "tests/system/Supervision.h"

namespace systemtest {
namespace {

constexpr const char* kStarted = "Application Monitor Started.";
constexpr const char* kInitialized = "Application Monitor Initialized.";
constexpr const char* kRestartAll = "restart all";
constexpr const char* kReboot = "reboot system";
constexpr int kPauseMs = 2000;

/// Longer than any application runs here.
constexpr int kLongLimitSec = 600;

class SupervisionPolicy : public SupervisionTest {
protected:
    /// Starts a monitor whom the kernel refuses to restart the machine.
    bool startWithoutTheRightToReboot(const std::vector<std::string>& options = {}) {
        const MonitorThroughScript script(
            "exec setpriv --bounding-set=-sys_boot --inh-caps=-sys_boot \"$OVARD\" \"$@\"\n");
        return startSupervisor(options);
    }

    reqcmd makeDemanding(const std::string& name, int limitSec, const std::string& options = "") {
        reqcmd request = makeSupervised(name, RESTART_TYPE_ALL, options);
        request.last_runtime_life_limit = limitSec;
        return request;
    }

    /// Three running applications, of which the second one demands more than its own restart.
    void launchThree(int limitSec) {
        requests_ = {makeSupervised("first", RESTART_TYPE_SELF), makeDemanding("second", limitSec),
                     makeSupervised("third", RESTART_TYPE_SELF)};
        for (const reqcmd& request : requests_) {
            pids_.push_back(launch(request));
        }
        for (std::size_t index = 0; index < requests_.size(); ++index) {
            ASSERT_TRUE(getsRunning(requests_[index].name, pids_[index]));
        }
        settle();
    }

    /// All but the first one were stopped, the last one first; then all were launched.
    void expectStoppedAndLaunched() {
        const auto launches = [&](const std::string& name) {
            const std::vector<std::string> lines = linesOn(name);
            return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
                return line.find("start_process: ") == 0;
            });
        };
        ASSERT_TRUE(eventually([&] { return launches("third") == 2; }));
        EXPECT_EQ(launches("first"), 2);
        EXPECT_EQ(launches("second"), 2);
        EXPECT_TRUE(isRunning(pids_[0])) << "the first one is never stopped";
        EXPECT_EQ(processesNamed("first").size(), 2U) << "but launched again";
        EXPECT_FALSE(isRunning(pids_[1]) || isRunning(pids_[2]));
        const auto all = daemonLogTexts(6);
        const auto position = [&](const std::string& text) {
            return std::find(all.begin(), all.end(), text) - all.begin();
        };
        EXPECT_LT(position(stoppedLine("third", pids_[2])),
                  position(stoppedLine("second", pids_[1])));
        EXPECT_EQ(linesOn("second").back().find("start_process: "), 0U);
    }

    /// In the end there is one of each, with which everything is in order.
    void expectEachRunsAlone() {
        for (const reqcmd& request : requests_) {
            const std::string name = request.name;
            EXPECT_TRUE(duringPasses([&] {
                const std::vector<pid_t> found = processesWithCommandLine(commandIn(request));
                const std::vector<std::string> verdicts = verdictsOn(name);
                return found.size() == 1 &&
                       std::count(
                           verdicts.begin(), verdicts.end(),
                           verdict(name, found[0], "starting confirmed pidfile, now running")) == 1;
            })) << name;
        }
    }

    static std::string failed(const std::string& name, pid_t pid, const std::string& text) {
        return name + "[pid=" + std::to_string(pid) + "] " + text;
    }

    /// The events since the monitor was initialized.
    static std::vector<std::string> events() {
        std::vector<std::string> texts = eventTexts();
        EXPECT_GE(texts.size(), 2U);
        texts.erase(texts.begin(), texts.begin() + 2);
        return texts;
    }

    std::vector<reqcmd> requests_;
    std::vector<pid_t> pids_;
};

using SupervisionReboot = SupervisionPolicy;

// --- all applications ----------------------------------------------------------------------------

TEST_F(SupervisionPolicy, EarlyDeathRestartsAllApplications) {
    ASSERT_TRUE(startSupervisor());
    ASSERT_NO_FATAL_FAILURE(launchThree(kLongLimitSec));
    ASSERT_TRUE(killAndWait(pids_[1]));
    ASSERT_TRUE(waitForEvent(kRestartAll));
    const std::int64_t begin = monotonicMs();
    ASSERT_NO_FATAL_FAILURE(expectStoppedAndLaunched());
    EXPECT_GE(monotonicMs() - begin, kPauseMs - 100);
    const std::string request = failed("second", pids_[1], "restartall request");
    EXPECT_EQ(countLog(6, request), 1U);
    EXPECT_EQ(countOf(monitor_.console(), request + "\n"), 1U);
    EXPECT_EQ(countOf(monitor_.console(), "RESTART ALL...\n"), 1U);
    expectEachRunsAlone();
    EXPECT_EQ(events(), std::vector<std::string>{kRestartAll});
    EXPECT_EQ(readFile(kWatchdogPath), "");
}

TEST_F(SupervisionPolicy, WrongVersionRestartsAllApplications) {
    ASSERT_TRUE(startSupervisor());
    (void)launch(makeSupervised("first", RESTART_TYPE_SELF));
    const pid_t pid = launch(makeDemanding("stale", kLongLimitSec, "--version 1.1"));
    ASSERT_TRUE(waitForEvent(kRestartAll));
    EXPECT_TRUE(waitForLog(6, failed("stale", pid, "restartall request")));
    EXPECT_EQ(countLog(6, verdict("stale", pid, "starting0 unconfirmed pidfile, now running")), 1U);
    EXPECT_TRUE(isGone(pid));
}

TEST_F(SupervisionPolicy, MissingHeartbeatRestartsAllApplications) {
    ASSERT_TRUE(startSupervisor());
    (void)launch(makeSupervised("first", RESTART_TYPE_SELF));
    reqcmd request = makeDemanding("silent", kLongLimitSec);
    request.heartbeat = 1;
    const pid_t pid = launch(request);
    ASSERT_TRUE(duringPasses([] { return countEvent(kRestartAll) == 1; }));
    EXPECT_TRUE(waitForLog(6, failed("silent", pid, "restartall request")));
    EXPECT_TRUE(isGone(pid));
}

TEST_F(SupervisionPolicy, RequestToRestartOneRestartsAllApplications) {
    ASSERT_TRUE(startSupervisor());
    ASSERT_NO_FATAL_FAILURE(launchThree(kLongLimitSec));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Restart, "second")),
              replyOf(0, "second is restarted @DATE\n"));
    ASSERT_NO_FATAL_FAILURE(expectStoppedAndLaunched());
    EXPECT_EQ(countOf(monitor_.console(), "RESTART ALL...\n"), 1U);
    EXPECT_EQ(events(), std::vector<std::string>{kRestartAll});
    expectEachRunsAlone();
}

// --- the machine ---------------------------------------------------------------------------------

TEST_F(SupervisionReboot, LateDeathRestartsTheMachine) {
    ASSERT_TRUE(startWithoutTheRightToReboot());
    ASSERT_NO_FATAL_FAILURE(launchThree(1));
    ASSERT_TRUE(killAndWait(pids_[1]));
    ASSERT_TRUE(waitForEvent(kReboot));
    const std::int64_t begin = monotonicMs();
    ASSERT_TRUE(eventually([] { return readFile(kWatchdogPath) == "1\n"; }));
    EXPECT_GE(monotonicMs() - begin, kPauseMs - 100);
    // The kernel has refused: life goes on.
    ASSERT_NO_FATAL_FAILURE(expectStoppedAndLaunched());
    const std::string request = failed("second", pids_[1], "reboot request");
    EXPECT_EQ(countOf(monitor_.console(), request + "\n"), 1U);
    EXPECT_EQ(countOf(monitor_.console(), "REBOOTING...\n"), 1U);
    EXPECT_EQ(countOf(monitor_.console(), "enabling watchdog for reboot"), 0U);
    const std::vector<std::string> log = daemonLogTexts(6);
    const auto asked = std::find(log.begin(), log.end(), request);
    const auto stopped = std::find(asked, log.end(), stoppedLine("second", pids_[1]));
    EXPECT_NE(std::find(stopped, log.end(), "Appmon reboot system"), log.end());
    expectEachRunsAlone();
    EXPECT_EQ(events(), std::vector<std::string>{kReboot});
}

TEST_F(SupervisionReboot, DeathWithoutALimitRestartsTheMachine) {
    ASSERT_TRUE(startWithoutTheRightToReboot());
    const pid_t pid = launchUntilRunning(makeDemanding("young", 0));
    ASSERT_TRUE(killAndWait(pid));
    ASSERT_TRUE(waitForEvent(kReboot));
    EXPECT_TRUE(waitForLog(6, failed("young", pid, "reboot request")));
    EXPECT_EQ(events(), std::vector<std::string>{kReboot});
}

TEST_F(SupervisionReboot, StartFailureRestartsTheMachineWhateverTheLimit) {
    ASSERT_TRUE(startWithoutTheRightToReboot({"-s", "3"}));
    const pid_t pid =
        pidIn(askFor(makeDemanding("weak", kLongLimitSec, "--crash-after 800")).message);
    ASSERT_TRUE(waitForEvent(kReboot));
    const std::string request = failed("weak", pid, "start failure, reboot request");
    EXPECT_TRUE(waitForLog(6, request));
    EXPECT_EQ(countOf(monitor_.console(), request + "\n"), 1U);
    EXPECT_EQ(events(), std::vector<std::string>{kReboot});
}

TEST_F(SupervisionReboot, MachineComesFirstAndTheApplicationsInTheNextPass) {
    ASSERT_TRUE(startWithoutTheRightToReboot());
    const pid_t young = launch(makeDemanding("young", kLongLimitSec));
    const pid_t old = launch(makeDemanding("old", 0));
    ASSERT_TRUE(getsRunning("young", young) && getsRunning("old", old));
    settle();
    ASSERT_TRUE(killAndWait(young) && killAndWait(old));
    ASSERT_TRUE(waitForEvent(kReboot));
    EXPECT_TRUE(waitForLog(6, failed("young", young, "restartall request")));
    EXPECT_TRUE(waitForLog(6, failed("old", old, "reboot request")));
    ASSERT_TRUE(duringPasses([] { return countEvent(kRestartAll) == 1; }));
    EXPECT_EQ(events(), (std::vector<std::string>{kReboot, kRestartAll}));
}

/// While it lives, nothing can be written to the watchdog.
class BrokenWatchdog {
public:
    BrokenWatchdog() {
        EXPECT_EQ(std::rename(kWatchdogPath, kAside), 0);
        EXPECT_TRUE(makeDirectories(kWatchdogPath));
    }
    ~BrokenWatchdog() {
        EXPECT_EQ(::rmdir(kWatchdogPath), 0);
        EXPECT_EQ(std::rename(kAside, kWatchdogPath), 0);
    }
    BrokenWatchdog(const BrokenWatchdog&) = delete;
    BrokenWatchdog& operator=(const BrokenWatchdog&) = delete;

private:
    static constexpr const char* kAside = "/dev/watchdog.aside";
};

TEST_F(SupervisionReboot, MissingWatchdogIsReportedOnly) {
    const BrokenWatchdog watchdog;
    ASSERT_TRUE(startWithoutTheRightToReboot());
    ASSERT_NO_FATAL_FAILURE(launchThree(1));
    ASSERT_TRUE(killAndWait(pids_[1]));
    ASSERT_TRUE(waitForEvent(kReboot));
    ASSERT_NO_FATAL_FAILURE(expectStoppedAndLaunched());
    const std::vector<std::string> console = linesOf(monitor_.console());
    const std::string end = " enabling watchdog for reboot";
    EXPECT_EQ(std::count_if(console.begin(), console.end(),
                            [&](const std::string& line) {
                                return line.find("error=") == 0 && line.find(end) != line.npos;
                            }),
              1);
}

// --- the kernel ----------------------------------------------------------------------------------

/// Runs a monitor in a sandbox of its own. "last" is started with these options of ovardctl and of
/// its own, and killed, should it come so far, when it counts as running.
ProgramResult runAnotherMachine(const std::string& control, const std::string& options) {
    return runOnAnotherMachine(
        "mkdir -p /home/kelvo/root\n"
        "cp \"$SAMPLE\" /home/kelvo/root/first\n"
        "cp \"$SAMPLE\" /home/kelvo/root/last\n"
        "\"$OVARD\" -d -i 0 -s 2 -p 1 -v 4 >/tmp/console 2>&1 &\n"
        "until [ -S /tmp/appmon_sock ]; do sleep 0.05; done; sleep 0.5\n"
        "\"$CONTROL\" start first --cmd /home/kelvo/root/first\n"
        "\"$CONTROL\" start last " +
        control +
        " --pidfile /tmp/last.pid --cmd '/home/kelvo/root/last --exact-pidfile /tmp/last.pid " +
        options +
        "'\n"
        "until grep -q 'last.* running, is alive' /var/log/daemon.log; do sleep 0.05; done\n"
        "kill -9 \"$(head -n 1 /tmp/last.pid)\"\n"
        "sleep 15\n"
        "echo yes >/tmp/survived\n");
}

void expectRebootSequence(const ProgramResult& result) {
    expectRestart(result);
    const Remains remains(result);
    EXPECT_EQ(remains.of(kWatchdogPath), "1\n");
    EXPECT_EQ(countOf(remains.of("/tmp/console"), "REBOOTING...\n"), 1U);
    EXPECT_EQ(countOf(remains.of(kDaemonLogPath), "Appmon reboot system\n"), 1U);
    std::vector<std::string> events;
    for (const std::string& line : linesOf(remains.of(kEventLogPath))) {
        events.push_back(line.substr(line.find(" Ovard: ") + 8));
    }
    EXPECT_EQ(events, (std::vector<std::string>{kStarted, kInitialized, kReboot}));
}

TEST_F(SupervisionReboot, KernelRestartsTheMachineAfterADeath) {
    const ProgramResult result = runAnotherMachine("--restart all", "");
    expectRebootSequence(result);
    EXPECT_EQ(countOf(Remains(result).of(kDaemonLogPath), "] reboot request\n"), 1U);
}

TEST_F(SupervisionReboot, KernelRestartsTheMachineAfterAStartFailure) {
    const ProgramResult result =
        runAnotherMachine("--restart all --life-limit 600", "--crash-after 500");
    expectRebootSequence(result);
    EXPECT_EQ(countOf(Remains(result).of(kDaemonLogPath), "start failure, reboot request\n"), 1U);
}

} // namespace
} // namespace systemtest
