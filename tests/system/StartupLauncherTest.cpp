// The launcher and the monitor, and a second one beside it.

#include <csignal>
#include <string>
#include <vector>

#include "tests/system/HeldStart.h"
#include "tests/system/StartupSupport.h"

namespace systemtest {
namespace {

using StartupLauncher = SystemTest;

/// Pids of running monitors, waited for until there is one.
pid_t waitForMonitorBeside(pid_t launcher) {
    pid_t found = 0;
    (void)eventually([&] { // the caller looks at the result
        for (const pid_t pid : processesNamed("ovard")) {
            if (pid != launcher) {
                found = pid;
            }
        }
        return found != 0;
    });
    return found;
}

// --- a second one --------------------------------------------------------------------------------

void expectRefused(const std::vector<std::string>& arguments, pid_t running) {
    const ProgramResult second = runProgram(daemonProgram(), arguments);
    EXPECT_EQ(second.ending.text(), "status 246");
    EXPECT_EQ(second.output, "process \"ovard\" is running, pid = " + std::to_string(running) +
                                 ", please close it and then restart process\n");
    EXPECT_EQ(second.errors, "");
}

TEST_F(StartupLauncher, SecondInstanceIsRefusedWhateverItsOptions) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground());
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {}, {"-d"}, {"-?"}, {"-t"}, {"-v"}, {"--nonsense"}, {"-x", "/tmp/file"}}) {
        expectRefused(arguments, daemon.pid());
    }
    // The first one has not been disturbed.
    EXPECT_TRUE(socketListens());
    EXPECT_TRUE(fileExists(daemon.pidFile()));
    EXPECT_TRUE(fileExists(kSemaphorePath));
    EXPECT_EQ(eventTexts(), kStartEvents);
    EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
}

TEST_F(StartupLauncher, SecondInstanceIsRefusedBesideOneInTheForeground) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground());
    expectRefused({"-?"}, daemon.pid());
}

TEST_F(StartupLauncher, NextInstanceStartsAfterTheFirstEnded) {
    Daemon first;
    ASSERT_TRUE(first.startInBackground());
    ASSERT_TRUE(first.terminate().ended);
    Daemon second;
    ASSERT_TRUE(second.startInBackground());
    EXPECT_NE(first.pid(), second.pid());
}

TEST_F(StartupLauncher, NextInstanceStartsAfterTheFirstWasKilled) {
    Daemon first;
    ASSERT_TRUE(first.startInBackground());
    first.kill();
    EXPECT_TRUE(fileExists(kSocketPath));
    EXPECT_FALSE(socketListens());
    Daemon second;
    ASSERT_TRUE(second.startInBackground());
    EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
}

// --- launcher and monitor apart ------------------------------------------------------------------

TEST_F(StartupLauncher, LauncherWaitsAsLongAsTheMonitorIsNotInitialized) {
    HeldStart start;
    ASSERT_TRUE(start.holds());
    Daemon daemon;
    ASSERT_TRUE(daemon.spawn({}));
    ASSERT_TRUE(waitForEvent("Application Monitor Started."));
    EXPECT_FALSE(daemon.spawned().waitForEnd(500).ended);
    EXPECT_EQ(countEvent("Application Monitor Initialized."), 0U);
    EXPECT_FALSE(socketListens());
    start.release();
    EXPECT_EQ(daemon.spawned().waitForEnd(kPatienceMs).text(), "status 0");
    EXPECT_EQ(countEvent("Application Monitor Initialized."), 1U);
    EXPECT_TRUE(daemon.waitUntilReady());
}

TEST_F(StartupLauncher, SecondInstanceIsRefusedWhileTheFirstIsStarting) {
    HeldStart start;
    ASSERT_TRUE(start.holds());
    Daemon daemon;
    ASSERT_TRUE(daemon.spawn({"-d"}));
    ASSERT_TRUE(waitForEvent("Application Monitor Started."));
    expectRefused({}, daemon.pid());
    start.release();
    EXPECT_TRUE(daemon.waitUntilReady());
}

TEST_F(StartupLauncher, KilledLauncherDoesNotDisturbTheMonitor) {
    HeldStart start;
    ASSERT_TRUE(start.holds());
    Daemon daemon;
    ASSERT_TRUE(daemon.spawn({}));
    ASSERT_TRUE(waitForEvent("Application Monitor Started."));
    const pid_t monitor = waitForMonitorBeside(daemon.spawned().pid());
    ASSERT_NE(monitor, 0);
    ASSERT_TRUE(sendSignal(daemon.spawned().pid(), SIGKILL));
    ASSERT_EQ(daemon.spawned().waitForEnd(kPatienceMs).text(), "signal 9");
    start.release();
    ASSERT_TRUE(eventually([&] { return daemon.followMonitor(); }));
    EXPECT_EQ(daemon.pid(), monitor);
    EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
    EXPECT_TRUE(daemon.terminate().ended);
    EXPECT_EQ(eventTexts(), (std::vector<std::string>{kStartEvents[0], kStartEvents[1],
                                                      "Application Monitor Stopped."}));
}

TEST_F(StartupLauncher, LauncherReportsTheSignalThatKilledTheMonitor) {
    HeldStart start;
    ASSERT_TRUE(start.holds());
    Daemon daemon;
    ASSERT_TRUE(daemon.spawn({}));
    ASSERT_TRUE(waitForEvent("Application Monitor Started."));
    const pid_t monitor = waitForMonitorBeside(daemon.spawned().pid());
    ASSERT_TRUE(sendSignal(monitor, SIGKILL));
    EXPECT_EQ(daemon.spawned().waitForEnd(kPatienceMs).text(), "status 137");
}

} // namespace
} // namespace systemtest
