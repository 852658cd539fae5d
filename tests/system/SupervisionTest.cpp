// How supervision follows an application through its life.

#include <unistd.h>

#include <ctime>

#include "tests/system/Supervision.h"

namespace systemtest {
namespace {

using Supervision = SupervisionTest;

TEST_F(Supervision, HealthyApplicationIsConfirmedInTwoSteps) {
    ASSERT_TRUE(startSupervisor());
    reqcmd request = makeStart("healthy"); // with the conventional pid file
    std::string("1.0").copy(request.version, sizeof request.version);
    const pid_t pid = launch(request);
    ASSERT_TRUE(getsRunning("healthy", pid));
    letPassesGoBy(1500);
    EXPECT_EQ(verdictsOn("healthy"), confirmed("healthy", pid));
    EXPECT_TRUE(runsAlone("healthy", pid));
}

TEST_F(Supervision, NothingIsPolledDuringTheGrace) {
    ASSERT_TRUE(startSupervisor({"-s", "5"}));
    const reqcmd request = makeSupervised("young", RESTART_TYPE_SELF);
    const Reply reply = askFor(request);
    const std::time_t start = timeOf(reply.date);
    ASSERT_GT(start, 0);
    ASSERT_TRUE(duringPasses([&] { return !verdictsOn("young").empty(); }));
    EXPECT_GE(std::time(nullptr), start + 5);
}

TEST_F(Supervision, DeathDuringTheGraceIsNoticedAfterIt) {
    ASSERT_TRUE(startSupervisor({"-s", "4"}));
    const reqcmd request = makeSupervised("young", RESTART_TYPE_SELF);
    const Reply reply = askFor(request);
    const std::time_t start = timeOf(reply.date);
    const pid_t pid = pidIn(reply.message);
    ASSERT_TRUE(killAndWait(pid));
    ASSERT_NE(replacementOf(request, pid), 0);
    EXPECT_GE(std::time(nullptr), start + 4);
}

TEST_F(Supervision, PriorityOfTheRequestIsSetOnceItRuns) {
    ASSERT_TRUE(startSupervisor());
    reqcmd request = makeSupervised("nice", RESTART_TYPE_SELF);
    request.priority = 7;
    const pid_t pid = launch(request);
    EXPECT_NE(processFacts(pid).nice, 7);
    ASSERT_TRUE(getsRunning("nice", pid));
    EXPECT_EQ(processFacts(pid).nice, 7);
}

TEST_F(Supervision, PidFileThatComesDuringThePollsIsWaitedFor) {
    ASSERT_TRUE(startSupervisor({"-p", "6"}));
    const pid_t pid = launch(makeSupervised("late", RESTART_TYPE_SELF, "--pidfile-after 3500"));
    ASSERT_TRUE(getsRunning("late", pid));
    EXPECT_EQ(verdictsOn("late"), confirmed("late", pid));
}

TEST_F(Supervision, PidFileThatComesAfterThePollsIsTakenLater) {
    ASSERT_TRUE(startSupervisor());
    const pid_t pid = launch(makeSupervised("late", kNoPolicy, "--pidfile-after 5000"));
    ASSERT_TRUE(getsRunning("late", pid));
    EXPECT_EQ(verdictsOn("late"),
              (std::vector<std::string>{
                  verdict("late", pid, "starting0 unconfirmed pidfile, now running"),
                  verdict("late", pid, "running0 confirmed pidfile, now running"),
                  verdict("late", pid, "running, is alive")}));
}

TEST_F(Supervision, PidFileThatComesAfterThePollsIsTooLateForThePolicySelf) {
    ASSERT_TRUE(startSupervisor());
    const reqcmd request = makeSupervised("late", RESTART_TYPE_SELF, "--pidfile-after 30000");
    const pid_t pid = launch(request);
    ASSERT_NE(replacementOf(request, pid), 0);
    EXPECT_FALSE(isRunning(pid));
    expectReplacedAfter("late", pid, "starting0 unconfirmed pidfile, now running");
}

TEST_F(Supervision, PidFileThatVanishesIsMissedWhileStarting) {
    ASSERT_TRUE(startSupervisor());
    const reqcmd request = makeSupervised("forgetful", RESTART_TYPE_SELF);
    const pid_t pid = launchUntilStarting(request);
    const std::string content = readFile("/tmp/forgetful.pid");
    ASSERT_EQ(::unlink("/tmp/forgetful.pid"), 0);
    ASSERT_TRUE(reaches(verdict("forgetful", pid, "starting unconfirmed pidfile, now running0")));
    ASSERT_TRUE(writeFile("/tmp/forgetful.pid", content));
    ASSERT_TRUE(reaches(verdict("forgetful", pid, "running0 confirmed pidfile, now running")));
    ASSERT_TRUE(getsRunning("forgetful", pid));
    EXPECT_TRUE(isRunning(pid));
    EXPECT_EQ(verdictsOn("forgetful").size(), 4U);
}

TEST_F(Supervision, WrongVersionIsNeverConfirmed) {
    ASSERT_TRUE(startSupervisor());
    const pid_t pid = launch(makeSupervised("stale", kNoPolicy, "--version 1.1"));
    ASSERT_TRUE(reaches(verdict("stale", pid, "starting0 unconfirmed pidfile, now running")));
    letPassesGoBy(3500);
    EXPECT_EQ(verdictsOn("stale").size(), 1U) << "without heartbeats it is left as it is";
    EXPECT_TRUE(isRunning(pid));
}

TEST_F(Supervision, WrongVersionIsReplacedByThePolicySelf) {
    ASSERT_TRUE(startSupervisor());
    const reqcmd request = makeSupervised("stale", RESTART_TYPE_SELF, "--version 1.1");
    const pid_t pid = launch(request);
    ASSERT_NE(replacementOf(request, pid), 0);
    expectReplacedAfter("stale", pid, "starting0 unconfirmed pidfile, now running");
}

TEST_F(Supervision, StatusAfterARestartOfAllIsSettledAgain) {
    ASSERT_TRUE(startSupervisor());
    const reqcmd request = makeSupervised("renewed", RESTART_TYPE_SELF);
    const pid_t pid = launch(request);
    ASSERT_TRUE(getsRunning("renewed", pid));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Restart_All)),
              replyOf(0, "all apps were restarted @DATE\n"));
    const pid_t next = replacementOf(request, pid);
    ASSERT_TRUE(getsRunning("renewed", next));
    std::vector<std::string> expected = confirmed("renewed", pid);
    for (const std::string& line : confirmed("renewed", next)) {
        expected.push_back(line);
    }
    EXPECT_EQ(verdictsOn("renewed"), expected);
}

} // namespace
} // namespace systemtest
