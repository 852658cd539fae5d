// Heartbeats of running applications: fresh, late, missing, and there again.

#include <csignal>

#include "tests/system/Supervision.h"

namespace systemtest {
namespace {

/// Heartbeats expire after two seconds, where nothing else is said.
class SupervisionHeartbeat : public SupervisionTest {
protected:
    bool startWatching(const std::vector<std::string>& options = {}) {
        std::vector<std::string> words = {"-h", "2"};
        words.insert(words.end(), options.begin(), options.end());
        return startSupervisor(words);
    }

    reqcmd makeBeating(const std::string& name, int policy, const std::string& options) {
        reqcmd request = makeSupervised(name, policy, options);
        request.heartbeat = 1;
        return request;
    }
};

const std::string kExpired = "start_time=DATE running, heartbeat dead";
const std::string kMissing = "start_time=DATE running, heartbeat missing";
const std::string kTakenUp = "dead, confirmed alive and pidfile, now running";

TEST_F(SupervisionHeartbeat, ApplicationThatBeatsIsLeftAlone) {
    ASSERT_TRUE(startWatching({"-h", "20"}));
    const pid_t pid = launch(makeBeating("lively", RESTART_TYPE_SELF, "--heartbeat 100"));
    ASSERT_TRUE(getsRunning("lively", pid));
    letPassesGoBy(2500);
    EXPECT_EQ(verdictsOn("lively"), confirmed("lively", pid));
    EXPECT_TRUE(isRunning(pid));
}

TEST_F(SupervisionHeartbeat, ApplicationThatHangsIsReplacedInTheSamePass) {
    ASSERT_TRUE(startWatching({"-v", "8"}));
    const reqcmd request =
        makeBeating("hanging", RESTART_TYPE_SELF, "--heartbeat 100 --hang-after 2500");
    const pid_t pid = launch(request);
    ASSERT_TRUE(getsRunning("hanging", pid));
    ASSERT_NE(replacementOf(request, pid), 0);
    EXPECT_FALSE(isRunning(pid));
    expectReplacedAfter("hanging", pid, kExpired);
    const std::vector<std::string> all = daemonLogTexts();
    std::size_t passes = 0;
    bool between = false;
    for (const std::string& text : all) {
        between = between ? text != stoppedLine("hanging", pid)
                          : withoutDates(text) == verdict("hanging", pid, kExpired);
        passes += between && text == " checkStatus for heartbeats" ? 1U : 0U;
    }
    EXPECT_EQ(passes, 0U);
}

TEST_F(SupervisionHeartbeat, ApplicationThatHangsAndIgnoresTheRequestToEndIsKilled) {
    ASSERT_TRUE(startWatching());
    const reqcmd request = makeBeating("hanging", RESTART_TYPE_SELF,
                                       "--heartbeat 100 --hang-after 2500 --ignore-term");
    const pid_t pid = launch(request);
    ASSERT_NE(replacementOf(request, pid), 0);
    EXPECT_FALSE(isRunning(pid));
    expectReplacedAfter("hanging", pid, kExpired);
}

TEST_F(SupervisionHeartbeat, WhoOnceBeatMayNotHangEvenWithoutTheFlag) {
    ASSERT_TRUE(startWatching());
    const reqcmd request =
        makeSupervised("hanging", RESTART_TYPE_SELF, "--heartbeat 100 --hang-after 2500");
    const pid_t pid = launch(request);
    ASSERT_NE(replacementOf(request, pid), 0);
    expectReplacedAfter("hanging", pid, kExpired);
}

TEST_F(SupervisionHeartbeat, ApplicationThatNeverBeatsIsReplacedWhereItShould) {
    ASSERT_TRUE(startWatching());
    const reqcmd request = makeBeating("silent", RESTART_TYPE_SELF, "");
    const pid_t pid = launch(request);
    ASSERT_NE(replacementOf(request, pid), 0);
    EXPECT_FALSE(isRunning(pid));
    expectReplacedAfter("silent", pid, kMissing);
}

TEST_F(SupervisionHeartbeat, ApplicationThatNeverBeatsIsLeftAloneWhereItNeedNot) {
    ASSERT_TRUE(startWatching());
    const pid_t pid = launch(makeSupervised("silent", RESTART_TYPE_SELF));
    ASSERT_TRUE(getsRunning("silent", pid));
    letPassesGoBy(3000);
    EXPECT_EQ(verdictsOn("silent"), confirmed("silent", pid));
    EXPECT_TRUE(isRunning(pid));
}

TEST_F(SupervisionHeartbeat, MissingHeartbeatIsReportedAnewInEveryPass) {
    ASSERT_TRUE(startWatching());
    const pid_t pid = launch(makeBeating("silent", kNoPolicy, ""));
    ASSERT_TRUE(duringPasses([&] { return verdictsOn("silent").size() >= 8; }));
    const std::vector<std::string> verdicts = verdictsOn("silent");
    for (std::size_t at = 2; at + 1 < verdicts.size(); at += 2) {
        EXPECT_EQ(verdicts[at], verdict("silent", pid, "running, is alive")) << at;
        EXPECT_EQ(verdicts[at + 1], verdict("silent", pid, kMissing)) << at;
    }
    EXPECT_TRUE(isRunning(pid));
}

TEST_F(SupervisionHeartbeat, HeartbeatsReplaceAWrongPidFile) {
    ASSERT_TRUE(startWatching({"-h", "20"}));
    const pid_t pid = launch(makeBeating("stale", kNoPolicy, "--heartbeat 100 --version 1.1"));
    ASSERT_TRUE(getsRunning("stale", pid));
    letPassesGoBy(1500);
    EXPECT_EQ(verdictsOn("stale"),
              (std::vector<std::string>{
                  verdict("stale", pid, "starting0 unconfirmed pidfile, now running"),
                  verdict("stale", pid, "running0 unconfirmed pidfile required, now running"),
                  verdict("stale", pid, "running, is alive")}));
}

TEST_F(SupervisionHeartbeat, SuspendedApplicationWithoutHeartbeatsCountsAsAlive) {
    ASSERT_TRUE(startWatching());
    const pid_t pid = launch(makeSupervised("frozen", RESTART_TYPE_SELF));
    ASSERT_TRUE(getsRunning("frozen", pid));
    ASSERT_TRUE(sendSignal(pid, SIGSTOP));
    letPassesGoBy(3000);
    EXPECT_EQ(processFacts(pid).state, 'T');
    ASSERT_TRUE(sendSignal(pid, SIGCONT));
    letPassesGoBy(1000);
    EXPECT_EQ(verdictsOn("frozen"), confirmed("frozen", pid));
    EXPECT_TRUE(isRunning(pid));
}

TEST_F(SupervisionHeartbeat, SuspendedApplicationWithHeartbeatsIsReplaced) {
    ASSERT_TRUE(startWatching());
    const reqcmd request = makeBeating("frozen", RESTART_TYPE_SELF, "--heartbeat 100");
    const pid_t pid = launch(request);
    ASSERT_TRUE(getsRunning("frozen", pid));
    ASSERT_TRUE(sendSignal(pid, SIGSTOP));
    ASSERT_NE(replacementOf(request, pid), 0);
    EXPECT_TRUE(isGone(pid));
    expectReplacedAfter("frozen", pid, kExpired);
}

TEST_F(SupervisionHeartbeat, ShortSuspensionDoesNoHarm) {
    ASSERT_TRUE(startWatching({"-h", "20"}));
    const pid_t pid = launch(makeBeating("frozen", RESTART_TYPE_SELF, "--heartbeat 100"));
    ASSERT_TRUE(getsRunning("frozen", pid));
    ASSERT_TRUE(sendSignal(pid, SIGSTOP));
    letPassesGoBy(2000);
    ASSERT_TRUE(sendSignal(pid, SIGCONT));
    letPassesGoBy(500);
    EXPECT_EQ(verdictsOn("frozen"), confirmed("frozen", pid));
    EXPECT_TRUE(isRunning(pid));
}

TEST_F(SupervisionHeartbeat, ContinuedApplicationIsTakenUpAgain) {
    ASSERT_TRUE(startWatching());
    const pid_t pid = launch(makeBeating("frozen", kNoPolicy, "--heartbeat 100"));
    ASSERT_TRUE(getsRunning("frozen", pid));
    ASSERT_TRUE(sendSignal(pid, SIGSTOP));
    // It lives, so that it is taken up in the next pass, and found hanging in the one after it.
    ASSERT_TRUE(reaches(verdict("frozen", pid, kTakenUp)));
    ASSERT_TRUE(sendSignal(pid, SIGCONT));
    letPassesGoBy(1000);
    const std::size_t settled = verdictsOn("frozen").size();
    letPassesGoBy(1500);
    const std::vector<std::string> verdicts = verdictsOn("frozen");
    EXPECT_EQ(verdicts.size(), settled);
    EXPECT_EQ(verdicts.back(), verdict("frozen", pid, "running, is alive"));
    ASSERT_GT(verdicts.size(), 5U);
    EXPECT_EQ(verdicts[3], verdict("frozen", pid, kExpired));
    EXPECT_EQ(verdicts[4], verdict("frozen", pid, kTakenUp));
    EXPECT_EQ(verdicts[5], verdict("frozen", pid, "running, is alive"));
}

TEST_F(SupervisionHeartbeat, ApplicationThatComesBackByItselfIsTakenUpAgain) {
    ASSERT_TRUE(startWatching());
    const pid_t pid = launch(
        makeBeating("sleepy", kNoPolicy, "--heartbeat 100 --hang-after 2500 --hang-for 4500"));
    ASSERT_TRUE(reaches(verdict("sleepy", pid, kTakenUp)));
    letPassesGoBy(3500);
    const std::size_t settled = verdictsOn("sleepy").size();
    letPassesGoBy(1000);
    EXPECT_EQ(verdictsOn("sleepy").size(), settled);
    EXPECT_EQ(verdictsOn("sleepy").back(), verdict("sleepy", pid, "running, is alive"));
    EXPECT_TRUE(isRunning(pid));
}

} // namespace
} // namespace systemtest
