// The heartbeat registry while nobody can write it, and the applications that owe heartbeats.

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include "tests/system/FaultSupport.h"

namespace systemtest {
namespace {

constexpr const char* kHeartbeats = "/dev/shm/meter_heartbeat.shared";

const std::string kMissing = "start_time=DATE running, heartbeat missing";

class FaultHeartbeats : public FaultTest {
protected:
    /// Launches an application that beats, as its request has promised, and waits until it counts
    /// as running.
    void startBeating(int policy) {
        ASSERT_TRUE(startPublisher());
        monitorPid_ = monitor_.pid();
        request_ = makeSupervised("beating", policy, "--heartbeat 100");
        request_.heartbeat = 1;
        pid_ = launchUntilRunning(request_);
    }

    /// Without a restart the missing heartbeat is reported in every pass, and nothing else.
    void expectReported() {
        ASSERT_TRUE(reaches(verdict("beating", pid_, kMissing)));
        ASSERT_TRUE(letACycleGoBy());
        const std::vector<std::string> verdicts = verdictsOn("beating");
        ASSERT_GE(verdicts.size(), 6U);
        for (std::size_t at = 2; at + 1 < verdicts.size(); at += 2) {
            EXPECT_EQ(verdicts[at], verdict("beating", pid_, "running, is alive")) << at;
            EXPECT_EQ(verdicts[at + 1], verdict("beating", pid_, kMissing)) << at;
        }
        expectUnharmed("without heartbeats");
    }

    /// It beats again, so that no pass has a verdict on it any more.
    void expectTakenUpAgain() {
        ASSERT_TRUE(letACycleGoBy());
        const std::vector<std::string> verdicts = verdictsOn("beating");
        EXPECT_EQ(verdicts.back(), verdict("beating", pid_, "running, is alive"));
        ASSERT_TRUE(letACycleGoBy());
        EXPECT_EQ(verdictsOn("beating"), verdicts);
        expectUnharmed("afterwards");
        EXPECT_EQ(monitor_.terminate().text(), "status 0");
    }
};

TEST_F(FaultHeartbeats, AreMissingWithoutTheFolder) {
    const OwnMounts mounts;
    const LogMark mark;
    ASSERT_NO_FATAL_FAILURE(startBeating(kNoPolicy));
    ASSERT_TRUE(OwnMounts::change(monitorPid_, devicesWithoutShm()));
    ASSERT_NO_FATAL_FAILURE(expectReported());
    expectTold(mark, kSharedNames, ENOENT, 0);
    ASSERT_TRUE(OwnMounts::change(monitorPid_, uncovered("/dev")));
    expectTold(mark, kSharedNames, ENOENT, 1);
    expectTakenUpAgain();
}

/// Where the registry has its memory they go on; where it must be made anew they are missing.
TEST_F(FaultHeartbeats, AreMissingOnAFullDiskWithoutARegistry) {
    const LogMark mark;
    ASSERT_NO_FATAL_FAILURE(startBeating(kNoPolicy));
    FullFolder memory("/dev/shm");
    if (!memory.isFull()) {
        GTEST_SKIP() << "/dev/shm is no memory disk here";
    }
    for (int cycle = 0; cycle < 3; ++cycle) {
        ASSERT_TRUE(letACycleGoBy());
        EXPECT_EQ(verdictsOn("beating"), confirmed("beating", pid_));
    }
    expectTold(mark, {}, 0, 0);
    whileTheMonitorStands([&] {
        EXPECT_TRUE(sendSignal(pid_, SIGSTOP));
        EXPECT_TRUE(eventually([&] { return processFacts(pid_).state == 'T'; }));
        EXPECT_EQ(::unlink(kHeartbeats), 0);
        memory.fill();
        EXPECT_TRUE(memory.isFull());
        EXPECT_TRUE(sendSignal(pid_, SIGCONT));
    });
    ASSERT_NO_FATAL_FAILURE(expectReported());
    expectTold(mark, {kSharedNames.back()}, ENOSPC, 0);
    memory.release();
    expectTold(mark, {kSharedNames.back()}, ENOSPC, 1);
    expectTakenUpAgain();
}

/// No replacement can beat either, so that one follows the other until the fault is over.
TEST_F(FaultHeartbeats, ThatAreMissingHaveTheApplicationReplaced) {
    const OwnMounts mounts;
    ASSERT_NO_FATAL_FAILURE(startBeating(RESTART_TYPE_SELF));
    ASSERT_TRUE(OwnMounts::change(monitorPid_, devicesWithoutShm()));
    const pid_t replacement = replacementOf(request_, pid_);
    ASSERT_NE(replacement, 0);
    expectReplacedAfter("beating", pid_, kMissing);
    EXPECT_NE(replacementOf(request_, replacement), 0);
    expectReplacedAfter("beating", replacement, kMissing);
    ASSERT_TRUE(OwnMounts::change(monitorPid_, uncovered("/dev")));
    ASSERT_TRUE(letACycleGoBy());
    const std::vector<pid_t> running = processesWithCommandLine(commandIn(request_));
    ASSERT_EQ(running.size(), 1U);
    pid_ = running[0];
    ASSERT_TRUE(getsRunning("beating", pid_));
    expectTakenUpAgain();
}

// --- something else has the name -----------------------------------------------------------------

struct Obstacle {
    const char* what;
    const char* command; ///< for the shell, with the path in "$S"
    int error;
};

constexpr Obstacle kObstacles[] = {
    {"directory", "mkdir $S", EINVAL},
    {"link", "echo precious >/tmp/target; ln -s /tmp/target $S", ELOOP},
};

TEST_F(FaultHeartbeats, AreToldOnceWhileSomethingElseHasTheName) {
    for (const Obstacle& obstacle : kObstacles) {
        SCOPED_TRACE(obstacle.what);
        const LogMark mark;
        ASSERT_TRUE(runShell(std::string("S=") + kHeartbeats + "; rm -f $S; " + obstacle.command));
        const std::string target = readFile("/tmp/target");
        ASSERT_TRUE(startPublisher());
        expectTold(mark, {kSharedNames.back()}, obstacle.error, 0);
        ASSERT_TRUE(letACycleGoBy());
        ASSERT_TRUE(runShell(std::string("rm -r ") + kHeartbeats));
        expectTold(mark, {kSharedNames.back()}, obstacle.error, 1);
        EXPECT_EQ(readFile("/tmp/target"), target);
        EXPECT_EQ(monitor_.terminate().text(), "status 0");
    }
}

} // namespace
} // namespace systemtest
