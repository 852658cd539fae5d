// What supervision makes of applications that die, and of those that come back by themselves.

#include <unistd.h>

#include <algorithm>

#include "tests/system/Supervision.h"

namespace systemtest {
namespace {

using SupervisionDeath = SupervisionTest;

std::size_t passes() {
    return countLog(7, " checkStatus for heartbeats");
}

// --- death ---------------------------------------------------------------------------------------

TEST_F(SupervisionDeath, CrashAtTheStartIsAStartFailureAndTriedAgain) {
    ASSERT_TRUE(startSupervisor({"-s", "3"}));
    const reqcmd request = makeSupervised("weak", RESTART_TYPE_SELF, "--crash-after 800");
    const pid_t first = pidIn(askFor(request).message);
    const std::string failure = "start_time=DATE starting0 confirmed start failure";
    ASSERT_TRUE(reaches(verdict("weak", first, failure)));
    ASSERT_TRUE(duringPasses([&] { return verdictsOn("weak").size() == 2; }));
    const pid_t second = pidIn(verdictsOn("weak")[1]);
    EXPECT_NE(second, first);
    EXPECT_EQ(verdictsOn("weak")[1], verdict("weak", second, failure));
    expectReplacedAfter("weak", first, failure);
}

TEST_F(SupervisionDeath, CrashBetweenTheTwoStepsIsAStartFailure) {
    ASSERT_TRUE(startSupervisor());
    const reqcmd request = makeSupervised("weak", RESTART_TYPE_SELF);
    const pid_t pid = launchUntilStarting(request);
    ASSERT_TRUE(killAndWait(pid));
    const pid_t next = replacementOf(request, pid);
    ASSERT_TRUE(getsRunning("weak", next));
    expectReplacedAfter("weak", pid, "start_time=DATE starting, confirmed dead");
}

TEST_F(SupervisionDeath, CrashOfAnUnconfirmedApplication) {
    ASSERT_TRUE(startSupervisor());
    const pid_t pid = launch(makeSupervised("weak", kNoPolicy, "--no-pidfile"));
    ASSERT_TRUE(reaches(verdict("weak", pid, "starting0 unconfirmed pidfile, now running")));
    ASSERT_TRUE(killAndWait(pid));
    ASSERT_TRUE(duringPasses([&] { return verdictsOn("weak").size() > 1; }));
    const std::string death = verdictsOn("weak")[1];
    const std::string text = "start_time=DATE running0, confirmed dead ret=";
    EXPECT_EQ(death.compare(0, verdict("weak", pid, text).size(), verdict("weak", pid, text)), 0)
        << death;
    letPassesGoBy(1000);
    EXPECT_EQ(verdictsOn("weak").size(), 2U);
    EXPECT_TRUE(processesNamed("weak").empty()) << "that policy replaces nothing";
}

TEST_F(SupervisionDeath, ReplacementRunsWithinOnePass) {
    ASSERT_TRUE(startSupervisor({"-v", "8", "-i", "1"}));
    const reqcmd request = makeSupervised("mortal", RESTART_TYPE_SELF);
    const pid_t pid = launchUntilRunning(request);
    const std::size_t before = passes();
    ASSERT_TRUE(killAndWait(pid));
    ASSERT_EQ(passes(), before) << "it died too late";
    ASSERT_TRUE(eventually([&] { return passes() > before; }));
    // Not before the next pass, two seconds later, there would be a second line.
    ASSERT_TRUE(eventually([&] { return linesOn("mortal").back().find("start_process") == 0; }));
    EXPECT_EQ(passes(), before + 1);
    expectReplacedAfter("mortal", pid, "start_time=DATE running, is dead");
    EXPECT_TRUE(isRunning(replacementOf(request, pid)));
}

TEST_F(SupervisionDeath, ApplicationThatCrashesLaterIsReplacedEveryTime) {
    ASSERT_TRUE(startSupervisor());
    const reqcmd request = makeSupervised("weak", RESTART_TYPE_SELF, "--crash-after 4000");
    pid_t pid = launch(request);
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(getsRunning("weak", pid)) << round;
        const pid_t next = replacementOf(request, pid);
        ASSERT_NE(next, 0) << round;
        expectReplacedAfter("weak", pid, "start_time=DATE running, is dead");
        pid = next;
    }
}

TEST_F(SupervisionDeath, OthersAreLeftAlone) {
    ASSERT_TRUE(startSupervisor());
    const pid_t other = launch(makeSupervised("other", RESTART_TYPE_SELF));
    const reqcmd request = makeSupervised("mortal", RESTART_TYPE_SELF);
    const pid_t pid = launch(request);
    ASSERT_TRUE(getsRunning("mortal", pid) && getsRunning("other", other));
    ASSERT_TRUE(killAndWait(pid));
    ASSERT_TRUE(getsRunning("mortal", replacementOf(request, pid)));
    EXPECT_EQ(verdictsOn("other"), confirmed("other", other));
    EXPECT_TRUE(isRunning(other));
}

TEST_F(SupervisionDeath, PolicyThatNobodyDefinedReplacesNothing) {
    ASSERT_TRUE(startSupervisor());
    const reqcmd request = makeSupervised("mortal", kNoPolicy);
    const pid_t pid = launch(request);
    ASSERT_TRUE(getsRunning("mortal", pid));
    ASSERT_TRUE(killAndWait(pid));
    ASSERT_TRUE(reaches(verdict("mortal", pid, "start_time=DATE running, is dead")));
    letPassesGoBy(1500);
    EXPECT_EQ(verdictsOn("mortal").size(), 4U) << "it is told once";
    EXPECT_TRUE(processesNamed("mortal").empty());
}

// --- return --------------------------------------------------------------------------------------

TEST_F(SupervisionDeath, ApplicationThatComesBackUnderAnotherPidIsNotTakenForTheOldOne) {
    ASSERT_TRUE(startSupervisor());
    const pid_t pid =
        launch(makeSupervised("revenant", kNoPolicy, "--crash-after 4000 --come-back-after 500"));
    ASSERT_TRUE(getsRunning("revenant", pid));
    pid_t next = 0;
    ASSERT_TRUE(duringPasses([&] {
        const std::vector<std::string> lines = linesOf(readFile("/tmp/revenant.pid"));
        next = lines.empty() ? 0 : toPid(lines[0]);
        return next != 0 && next != pid;
    }));
    letPassesGoBy(1500);
    EXPECT_TRUE(isRunning(next));
    EXPECT_EQ(verdictsOn("revenant").back(),
              verdict("revenant", pid, "start_time=DATE running, is dead"));
}

TEST_F(SupervisionDeath, CopyThatCameBackByItselfGivesWayToTheReplacement) {
    ASSERT_TRUE(startSupervisor());
    const reqcmd request = makeSupervised("revenant", RESTART_TYPE_SELF);
    const pid_t pid = launchUntilRunning(request);
    whileTheMonitorStands([&] { // or a pass comes between the death and the return
        ASSERT_TRUE(killAndWait(pid));
        ASSERT_EQ(runProgram("/bin/sh", {"-c", commandIn(request)}).ending.text(), "status 0");
    });
    const std::vector<pid_t> copies = processesWithCommandLine(commandIn(request));
    ASSERT_EQ(copies.size(), 1U);
    const pid_t next = replacementOf(request, pid);
    EXPECT_NE(next, copies[0]);
    EXPECT_FALSE(isRunning(copies[0]));
    const std::vector<std::string> lines = linesOn("revenant");
    const auto at = std::find(lines.begin(), lines.end(),
                              verdict("revenant", pid, "start_time=DATE running, is dead"));
    ASSERT_GE(lines.end() - at, 4) << testing::PrintToString(lines);
    EXPECT_EQ(*(at + 1), stoppedLine("revenant", pid));
    EXPECT_EQ(*(at + 2), stoppedLine("revenant", copies[0]));
    EXPECT_EQ((at + 3)->find("start_process: name=revenant "), 0U);
}

/// Starts a program under a pid of one's choice; false when that cannot be had.
bool startAs(Program& program, pid_t pid, const std::string& path,
             const std::vector<std::string>& arguments) {
    return writeFile("/proc/sys/kernel/ns_last_pid", std::to_string(pid - 1)) &&
           program.start(path, arguments) && program.pid() == pid;
}

TEST_F(SupervisionDeath, DeadApplicationThatIsBackIsTakenUpAgain) {
    ASSERT_TRUE(startSupervisor());
    for (const bool withPidFile : {true, false}) {
        const std::string name = withPidFile ? "known" : "unknown";
        const pid_t pid = launch(makeSupervised(name, kNoPolicy));
        ASSERT_TRUE(getsRunning(name, pid));
        ASSERT_TRUE(killAndWait(pid));
        ASSERT_TRUE(reaches(verdict(name, pid, "start_time=DATE running, is dead")));
        ASSERT_EQ(::unlink(("/tmp/" + name + ".pid").c_str()), 0);
        Program back;
        ASSERT_TRUE(startAs(back, pid, programPath(name),
                            {"--foreground", withPidFile ? "--exact-pidfile" : "--pidfile",
                             "/tmp/" + name + ".pid"}));
        const std::string text = "dead, confirmed alive and pidfile, now running";
        ASSERT_TRUE(duringPasses([&] { return verdictsOn(name).size() > 4; }));
        // The first pass may have come before the pid file.
        const bool early = verdictsOn(name)[4] == verdict(name, pid, text + "0");
        EXPECT_TRUE(early || verdictsOn(name)[4] == verdict(name, pid, text));
        EXPECT_TRUE(early || withPidFile);
        EXPECT_EQ(
            duringPasses(
                [&] { return verdictsOn(name).back() == verdict(name, pid, "running, is alive"); },
                withPidFile ? kPatienceMs : 2500),
            withPidFile);
    }
}

TEST_F(SupervisionDeath, FailedStartThatSucceedsAfterAllIsTakenUpAgain) {
    ASSERT_TRUE(startSupervisor({"-s", "3"}));
    const pid_t pid = pidIn(askFor(makeSupervised("slow", kNoPolicy, "--crash-after 800")).message);
    ASSERT_TRUE(reaches(verdict("slow", pid, "start_time=DATE starting0 confirmed start failure")));
    const std::string pidFile = "/tmp/slow.pid";
    ASSERT_TRUE(writeFile(pidFile, std::to_string(pid) + "\n1.0\n"));
    Program back;
    ASSERT_TRUE(startAs(back, pid, programPath("slow"), {"--foreground", "--no-pidfile"}));
    ASSERT_TRUE(
        reaches(verdict("slow", pid, "start failure, confirmed alive and pidfile, now running")));
    ASSERT_TRUE(getsRunning("slow", pid));
    EXPECT_EQ(verdictsOn("slow").size(), 3U);
    EXPECT_TRUE(isRunning(pid));
}

} // namespace
} // namespace systemtest
