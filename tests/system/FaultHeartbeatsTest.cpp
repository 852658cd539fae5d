// The heartbeat registry while nobody can write it, or somebody damages it, and the applications
// that owe heartbeats.

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <functional>
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

    /// Does something while the application stands still.
    void whileItStands(const std::function<void()>& action) const {
        ASSERT_TRUE(sendSignal(pid_, SIGSTOP));
        ASSERT_TRUE(eventually([this] { return processFacts(pid_).state == 'T'; }));
        action();
        ASSERT_TRUE(sendSignal(pid_, SIGCONT));
    }

    /// Does something while neither beats.
    void whileNobodyBeats(const std::function<void()>& action) const {
        whileTheMonitorStands([&] { whileItStands(action); });
    }

    /// The application has a slot in the registry.
    bool isRegistered() const {
        constexpr std::size_t kHeader = 16;
        constexpr std::size_t kSlot = 16;
        const std::string registry = readFile(kHeartbeats);
        for (std::size_t slot = kHeader; slot + kSlot <= registry.size(); slot += kSlot) {
            if (numberAt<std::int32_t>(registry, slot) == pid_) {
                return true;
            }
        }
        return false;
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
    whileNobodyBeats([&] {
        EXPECT_EQ(::unlink(kHeartbeats), 0);
        memory.fill();
        EXPECT_TRUE(memory.isFull());
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

// --- damage --------------------------------------------------------------------------------------

struct Damage {
    const char* what;
    const char* command; ///< for the shell, with the path in "$S"
};

constexpr Damage kDamages[] = {
    {"removed", "rm $S"},
    {"emptied", ": >$S"},
    {"shortened", "truncate -s 24 $S"},
    {"cleared", "head -c 4112 /dev/zero >$S"},
    {"overwritten", "head -c 4112 /dev/urandom >$S"},
};

/// What an application has lost by then it brings back with its next beat.
TEST_F(FaultHeartbeats, AreThereAgainAfterTheNextBeat) {
    const LogMark mark;
    ASSERT_NO_FATAL_FAILURE(startBeating(RESTART_TYPE_SELF));
    for (const Damage& damage : kDamages) {
        SCOPED_TRACE(damage.what);
        settle(); // so that it does not stand at work on the registry
        whileTheMonitorStands([&] {
            whileItStands([&] {
                EXPECT_TRUE(runShell(std::string("S=") + kHeartbeats + "; " + damage.command));
                EXPECT_FALSE(isRegistered());
            });
            EXPECT_TRUE(eventually([this] { return isRegistered(); }));
        });
        ASSERT_TRUE(letACycleGoBy());
        EXPECT_EQ(verdictsOn("beating"), confirmed("beating", pid_));
        expectUnharmed("afterwards");
    }
    expectServing();
    expectTold(mark, {}, 0, 0);
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

/// Nobody else can bring them back.
TEST_F(FaultHeartbeats, AreMissingUntilTheNextBeat) {
    const LogMark mark;
    ASSERT_NO_FATAL_FAILURE(startBeating(kNoPolicy));
    whileItStands([&] {
        EXPECT_EQ(::unlink(kHeartbeats), 0);
        expectReported();
        expectServing();
    });
    ASSERT_TRUE(eventually([this] { return isRegistered(); }));
    expectTold(mark, {}, 0, 0);
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

/// Lines of the shell that put it in the registry's place.
std::string plant(const Obstacle& obstacle) {
    return std::string("S=") + kHeartbeats + "; rm -f $S; " + obstacle.command;
}

TEST_F(FaultHeartbeats, AreToldOnceWhileSomethingElseHasTheNameAtTheStart) {
    for (const Obstacle& obstacle : kObstacles) {
        SCOPED_TRACE(obstacle.what);
        const LogMark mark;
        ASSERT_TRUE(runShell(plant(obstacle)));
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

TEST_F(FaultHeartbeats, AreMissingWhileSomethingElseHasTheName) {
    for (const Obstacle& obstacle : kObstacles) {
        SCOPED_TRACE(obstacle.what);
        const LogMark mark;
        ASSERT_NO_FATAL_FAILURE(startBeating(kNoPolicy));
        std::string target;
        whileNobodyBeats([&] {
            EXPECT_TRUE(runShell(plant(obstacle)));
            target = readFile("/tmp/target");
        });
        ASSERT_NO_FATAL_FAILURE(expectReported());
        expectServing();
        expectTold(mark, {kSharedNames.back()}, obstacle.error, 0);
        EXPECT_EQ(readFile("/tmp/target"), target);
        ASSERT_TRUE(runShell(std::string("rm -r ") + kHeartbeats));
        expectTold(mark, {kSharedNames.back()}, obstacle.error, 1);
        expectTakenUpAgain();
        ASSERT_TRUE(killAndWait(pid_));
    }
}

} // namespace
} // namespace systemtest
