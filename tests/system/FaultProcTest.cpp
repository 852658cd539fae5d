// /proc that shows a process only to its own user (hidepid), or that is not there at all.

#include <string>
#include <vector>

#include "tests/system/FaultSupport.h"

namespace systemtest {
namespace {

constexpr const char* kHidden = "mount -t proc -o hidepid=2 proc /proc\n";

class FaultProc : public FaultTest {
protected:
    /// Among the monitor's mounts this user sees what is its own, and process 1 it does not.
    void expectHiddenFrom(const AnotherUser& user) const {
        ASSERT_TRUE(OwnMounts::change(monitor_.pid(),
                                      user.prefix() + "/bin/bash -c \"test -e /proc/self/stat && "
                                                      "test ! -e /proc/1\""));
    }
};

TEST_F(FaultProc, HiddenProcessesUnderRoot) {
    const OwnMounts mounts(kHidden);
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    if (AnotherUser::possible()) {
        ASSERT_NO_FATAL_FAILURE(expectHiddenFrom(AnotherUser()));
    }
    expectAllIsWell("hidden");
    expectLeftAlone("hidden");
    ASSERT_TRUE(killAndWait(pid_));
    pid_ = replacementOf(request_, pid_);
    ASSERT_NE(pid_, 0);
    EXPECT_EQ(daemonLogTexts(3), std::vector<std::string>{});
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
    ASSERT_TRUE(startPublisher());
    EXPECT_EQ(publishedNames(), std::vector<std::string>{"data_server"}) << "taken over";
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "data_server")).code, 0);
    EXPECT_TRUE(isGone(pid_));
}

/// A monitor of another user sees its own processes, and those are all that it needs.
TEST_F(FaultProc, HiddenProcessesUnderAnotherUser) {
    if (!AnotherUser::possible()) {
        GTEST_SKIP() << "there are no other users here";
    }
    const AnotherUser user;
    const OwnMounts mounts(kHidden + ("exec " + user.prefix()) + "\"$0\" \"$@\"");
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ASSERT_NO_FATAL_FAILURE(expectHiddenFrom(user));
    EXPECT_EQ(statusValue(pid_, "Uid").substr(0, user.id().size()), user.id());
    expectAllIsWell("hidden");
    expectLeftAlone("hidden");
    ASSERT_TRUE(killAndWait(pid_));
    const pid_t old = pid_;
    pid_ = replacementOf(request_, old);
    ASSERT_NE(pid_, 0);
    ASSERT_TRUE(getsRunning("data_server", pid_));
    expectAllIsWell("after a death");
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "data_server")).code, 0);
    EXPECT_TRUE(isGone(pid_));
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

/// Processes of others look as if they were not there: a published application of another user is
/// not taken over, nor is it harmed.
TEST_F(FaultProc, HiddenApplicationOfRootIsNotTakenOver) {
    if (!AnotherUser::possible()) {
        GTEST_SKIP() << "there are no other users here";
    }
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
    ASSERT_TRUE(runShell("rm -r /tmp/pid")); // it is root's, too
    const AnotherUser user;
    const OwnMounts mounts(kHidden + ("exec " + user.prefix()) + "\"$0\" \"$@\"");
    ASSERT_TRUE(startPublisher());
    ASSERT_NO_FATAL_FAILURE(expectHiddenFrom(user));
    EXPECT_EQ(publishedNames(), std::vector<std::string>{});
    expectServing();
    EXPECT_TRUE(isRunning(pid_));
}

/// What the process table of the kernel tells is enough to go on without /proc.
TEST_F(FaultProc, FolderThatVanishes) {
    const OwnMounts mounts("mount --rbind /proc /mnt");
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ASSERT_TRUE(OwnMounts::change(monitorPid_, "mount -t tmpfs tmpfs /proc\n"));
    expectServing();
    for (int cycle = 0; cycle < 3; ++cycle) {
        ASSERT_TRUE(letACycleGoBy());
        expectUnharmed("without /proc");
        expectLeftAlone("without /proc");
    }
    ASSERT_TRUE(OwnMounts::change(monitorPid_, "mount --rbind /mnt /proc\n"));
    expectAllIsWell("with /proc again");
    expectLeftAlone("with /proc again");
    EXPECT_EQ(daemonLogTexts(3), std::vector<std::string>{});
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

/// Without /proc an application that goes into the background is not found again.
TEST_F(FaultProc, ApplicationThatDiesMeanwhileIsReplacedAfterwards) {
    const OwnMounts mounts("mount --rbind /proc /mnt");
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ASSERT_TRUE(OwnMounts::change(monitorPid_, "mount -t tmpfs tmpfs /proc\n"));
    ASSERT_TRUE(killAndWait(pid_));
    ASSERT_TRUE(waitForLog(6, stoppedLine("data_server", pid_), 3 * kPatienceMs));
    expectServing();
    ASSERT_TRUE(OwnMounts::change(monitorPid_, "mount --rbind /mnt /proc\n"));
    ASSERT_TRUE(publishesAReplacement(12 * kPatienceMs));
    expectAllIsWell("with /proc again");
    EXPECT_EQ(daemonLogTexts(3), std::vector<std::string>{});
}

} // namespace
} // namespace systemtest
