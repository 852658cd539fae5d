#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/DataServer.h"
#include "tests/unit/appmanager/LaunchFixture.h"

namespace launches {
namespace {

class Fork2Test : public LaunchTest {
protected:
    static constexpr int kReadEnd = kFirstFd;
    static constexpr int kWriteEnd = kFirstFd + 1;

    static std::string closing(int fd) { return "closefd " + std::to_string(fd); }
};

// --- in the monitor ------------------------------------------------------------------------------

using Fork2MonitorTest = Fork2Test;

TEST_F(Fork2MonitorTest, ReturnsThePidFromThePipe) {
    world().scriptLaunch(kChild, kLaunched);
    EXPECT_EQ(manager_.fork2(), kLaunched);
    EXPECT_THAT(world().log, IsEmpty());
    EXPECT_EQ(world().errorText(), "");
}

TEST_F(Fork2MonitorTest, WaitsForTheChildBetweenClosingTheTwoEnds) {
    world().scriptLaunch(kChild, kLaunched);
    manager_.fork2();
    EXPECT_THAT(world().calls,
                ElementsAre("pipe", "fork", closing(kWriteEnd), "waitpid 600 0",
                            "read " + std::to_string(kReadEnd) + " 4", closing(kReadEnd)));
}

TEST_F(Fork2MonitorTest, ReleasesNothingOfItsOwn) {
    world().scriptLaunch(kChild, kLaunched);
    manager_.fork2();
    EXPECT_EQ(world().count("release"), 0U);
}

TEST_F(Fork2MonitorTest, EndsWithoutAPipe) {
    world().pipeErrors = {EMFILE};
    EXPECT_EQ(exitStatusOf([this] { manager_.fork2(); }), -1);
    EXPECT_EQ(world().errorText(), "fork2:pipe create error: Too many open files\n");
    EXPECT_EQ(world().count("fork"), 0U);
}

TEST_F(Fork2MonitorTest, FailedForkIsLoggedWithTheClearedError) {
    world().forkResults = {{-1, EAGAIN}};
    EXPECT_EQ(manager_.fork2(), -1);
    expectOneLogLine(kLevelError, "fork2():fork parent error: mainpid=-1, status=0, error=0");
}

TEST_F(Fork2MonitorTest, FailedForkClosesBothEndsAndWaitsForNobody) {
    world().forkResults = {{-1, EAGAIN}};
    manager_.fork2();
    EXPECT_THAT(world().calls, ElementsAre("pipe", "fork", closing(kWriteEnd), closing(kReadEnd)));
}

TEST_F(Fork2MonitorTest, InterruptedWaitIsRepeated) {
    world().scriptLaunch(kChild, kLaunched);
    world().waitpidResults.push_front({-1, 0, EINTR});
    EXPECT_EQ(manager_.fork2(), kLaunched);
    EXPECT_EQ(world().count("waitpid"), 2U);
    expectOneLogLine(kLevelError, "fork2():fork parent error: mainpid=600, status=0, error=4");
}

TEST_F(Fork2MonitorTest, TheThirdWaitMaySucceed) {
    world().scriptLaunch(kChild, kLaunched);
    world().waitpidResults.push_front({-1, 0, EINTR});
    world().waitpidResults.push_front({-1, 0, EINTR});
    EXPECT_EQ(manager_.fork2(), kLaunched);
    EXPECT_EQ(world().count("waitpid"), 3U);
    EXPECT_EQ(world().log.size(), 2U);
}

TEST_F(Fork2MonitorTest, ThreeInterruptedWaitsAreAFailure) {
    world().forkResults = {{kChild, 0}};
    world().waitpidResults = {{-1, 0, EINTR}, {-1, 0, EINTR}, {-1, 0, EINTR}, {kChild, 0, 0}};
    EXPECT_EQ(manager_.fork2(), -1);
    EXPECT_EQ(world().count("waitpid"), 3U);
    EXPECT_EQ(
        world().logTexts(kLevelError),
        std::vector<std::string>(3, "fork2():fork parent error: mainpid=600, status=0, error=4"));
    EXPECT_EQ(world().count("read"), 0U);
    EXPECT_EQ(world().calls.back(), closing(kReadEnd));
}

TEST_F(Fork2MonitorTest, AnotherFailureOfTheWaitIsNotRepeated) {
    world().forkResults = {{kChild, 0}};
    world().waitpidResults = {{-1, 0, ECHILD}};
    EXPECT_EQ(manager_.fork2(), -1);
    EXPECT_EQ(world().count("waitpid"), 1U);
    expectOneLogLine(kLevelError, "fork2():fork parent error: mainpid=600, status=0, error=10");
    EXPECT_EQ(world().calls.back(), closing(kReadEnd));
}

TEST_F(Fork2MonitorTest, AnotherFailureAfterAnInterruptionIsNotRepeated) {
    world().forkResults = {{kChild, 0}};
    world().waitpidResults = {{-1, 0, EINTR}, {-1, 0, ECHILD}};
    EXPECT_EQ(manager_.fork2(), -1);
    EXPECT_EQ(world().count("waitpid"), 2U);
}

TEST_F(Fork2MonitorTest, FailedWaitIsLoggedWithPidStatusAndError) {
    world().forkResults = {{kChild, 0}};
    world().waitpidResults = {{7, 0x1234, EINTR}, {-1, 0, EIO}}; // another pid than asked for
    EXPECT_EQ(manager_.fork2(), -1);
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("fork2():fork parent error: mainpid=600, status=4660, error=4",
                            "fork2():fork parent error: mainpid=600, status=4660, error=5"));
}

TEST_F(Fork2MonitorTest, ChildEndedByASignalIsAFailure) {
    world().scriptLaunch(kChild, kLaunched);
    world().waitpidResults = {{kChild, SIGKILL, 0}};
    EXPECT_EQ(manager_.fork2(), -1);
    EXPECT_THAT(world().log, IsEmpty());
    EXPECT_EQ(world().count("read"), 0U);
    EXPECT_EQ(world().calls.back(), closing(kReadEnd));
}

TEST_F(Fork2MonitorTest, ExitStatusOfTheChildIsLoggedAsAnError) {
    world().scriptLaunch(kChild, kLaunched);
    world().waitpidResults = {{kChild, exitStatus(11), 0}};
    EXPECT_EQ(manager_.fork2(), -1);
    expectOneLogLine(kLevelError, "fork2: errno=11");
    EXPECT_EQ(world().count("read"), 0U);
    EXPECT_EQ(world().calls.back(), closing(kReadEnd));
}

TEST_F(Fork2MonitorTest, ExitStatusOfTheChildLeavesErrnoAtInterrupted) {
    world().scriptLaunch(kChild, kLaunched);
    world().waitpidResults = {{kChild, exitStatus(12), 0}};
    manager_.fork2();
    EXPECT_EQ(errno, EINTR);
}

TEST_F(Fork2MonitorTest, ExitStatusOfAFailedWriteIsAFailureToo) {
    world().scriptLaunch(kChild, kLaunched);
    world().waitpidResults = {{kChild, exitStatus(255), 0}};
    EXPECT_EQ(manager_.fork2(), -1);
    expectOneLogLine(kLevelError, "fork2: errno=255");
}

TEST_F(Fork2MonitorTest, EmptyPipeGivesMinusTen) {
    scriptLaunchWithoutPid();
    errno = 0;
    EXPECT_EQ(manager_.fork2(), -10);
    EXPECT_THAT(world().errorText(), testing::StartsWith("fork2:fork parent pipe[0] read error: "));
    EXPECT_THAT(world().log, IsEmpty());
    EXPECT_EQ(world().calls.back(), closing(kReadEnd));
}

TEST_F(Fork2MonitorTest, ShortReadGivesMinusTen) {
    world().forkResults = {{kChild, 0}};
    world().reads = {{std::string(3, '\1'), 0}};
    EXPECT_EQ(manager_.fork2(), -10);
    EXPECT_THAT(world().errorText(), testing::StartsWith("fork2:fork parent pipe[0] read error: "));
}

TEST_F(Fork2MonitorTest, FailedReadGivesMinusTen) {
    world().forkResults = {{kChild, 0}};
    world().reads = {{"", EIO}};
    EXPECT_EQ(manager_.fork2(), -10);
    EXPECT_EQ(world().errorText(), "fork2:fork parent pipe[0] read error: Input/output error\n");
}

TEST_F(Fork2MonitorTest, FailedCloseOfTheWriteEndIsOnlyReported) {
    world().scriptLaunch(kChild, kLaunched);
    world().closeErrors = {{kWriteEnd, EIO}};
    EXPECT_EQ(manager_.fork2(), kLaunched);
    EXPECT_EQ(world().errorText(), "fork2:fork parent pipe[1] close error: Input/output error\n");
}

TEST_F(Fork2MonitorTest, FailedCloseOfTheReadEndIsOnlyReported) {
    world().scriptLaunch(kChild, kLaunched);
    world().closeErrors = {{kReadEnd, EIO}};
    EXPECT_EQ(manager_.fork2(), kLaunched);
    EXPECT_EQ(world().errorText(), "fork2:fork parent pipe[0] close error: Input/output error\n");
}

TEST_F(Fork2MonitorTest, FailedClosesAfterAFailedForkAreReported) {
    world().forkResults = {{-1, EAGAIN}};
    world().closeErrors = {{kReadEnd, EIO}, {kWriteEnd, EIO}};
    EXPECT_EQ(manager_.fork2(), -1);
    EXPECT_EQ(world().errorText(), "fork2:fork parent pipe[1] close error: Input/output error\n"
                                   "fork2:fork parent pipe[0] close error: Input/output error\n");
    expectOneLogLine(kLevelError, "fork2():fork parent error: mainpid=-1, status=0, error=0");
}

// --- in the intermediate child -------------------------------------------------------------------

class Fork2ChildTest : public Fork2Test {
protected:
    void SetUp() override {
        Fork2Test::SetUp();
        world().forkResults = {{0, 0}, {kLaunched, 0}};
    }

    int leaves() {
        return leavesWith([this] { manager_.fork2(); });
    }
};

TEST_F(Fork2ChildTest, WritesThePidOfTheLaunchedProcessIntoThePipe) {
    EXPECT_EQ(leaves(), 0);
    const std::string written = world().writtenTo(kWriteEnd);
    int word = 0;
    ASSERT_EQ(written.size(), sizeof word);
    std::memcpy(&word, written.data(), sizeof word);
    EXPECT_EQ(word, kLaunched);
}

TEST_F(Fork2ChildTest, ReleasesForksWritesClosesAndLeaves) {
    leaves();
    EXPECT_THAT(world().calls, ElementsAre("pipe", "fork", "release launched", "fork",
                                           "write " + std::to_string(kWriteEnd) + " 4",
                                           closing(kReadEnd), closing(kWriteEnd), "leave 0"));
    EXPECT_EQ(world().errorText(), "");
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(Fork2ChildTest, WorksWithoutAReleaseFunction) {
    g_releaseResources = nullptr;
    EXPECT_EQ(leaves(), 0);
}

TEST_F(Fork2ChildTest, FailedForkIsItsExitStatus) {
    world().forkResults = {{0, 0}, {-1, ENOMEM}};
    EXPECT_EQ(leaves(), ENOMEM);
    EXPECT_EQ(world().count("write"), 0U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(Fork2ChildTest, FailedWriteIsReportedAndLeavesWithMinusOne) {
    world().writeResults = {{-1, EPIPE}};
    EXPECT_EQ(leaves(), -1);
    EXPECT_EQ(world().errorText(), "fork2:fork child pipe[1] write error: Broken pipe\n");
    EXPECT_EQ(world().callsOf("closefd"),
              (std::vector<std::string>{closing(kReadEnd), closing(kWriteEnd)}));
}

TEST_F(Fork2ChildTest, ShortWriteIsAFailure) {
    world().writeResults = {{2, 0}};
    EXPECT_EQ(leaves(), -1);
    EXPECT_THAT(world().errorText(), testing::StartsWith("fork2:fork child pipe[1] write error: "));
}

TEST_F(Fork2ChildTest, FailedClosesAreOnlyReported) {
    world().closeErrors = {{kReadEnd, EIO}, {kWriteEnd, EIO}};
    EXPECT_EQ(leaves(), 0);
    EXPECT_EQ(world().errorText(), "fork2:fork child pipe[0] close error: Input/output error\n"
                                   "fork2:fork child pipe[1] close error: Input/output error\n");
}

TEST_F(Fork2ChildTest, FailedClosesAfterAFailedWriteAreReported) {
    world().writeResults = {{-1, EPIPE}};
    world().closeErrors = {{kReadEnd, EIO}, {kWriteEnd, EIO}};
    EXPECT_EQ(leaves(), -1);
    EXPECT_EQ(world().errorText(), "fork2:fork child pipe[1] write error: Broken pipe\n"
                                   "fork2:fork child pipe[0] close error: Input/output error\n"
                                   "fork2:fork child pipe[1] close error: Input/output error\n");
}

// --- in the grandchild ---------------------------------------------------------------------------

class Fork2GrandchildTest : public Fork2Test {
protected:
    void SetUp() override {
        Fork2Test::SetUp();
        world().forkResults = {{0, 0}, {0, 0}};
    }
};

TEST_F(Fork2GrandchildTest, ReturnsZero) {
    EXPECT_EQ(manager_.fork2(), 0);
    EXPECT_THAT(world().log, IsEmpty());
    EXPECT_EQ(world().errorText(), "");
}

TEST_F(Fork2GrandchildTest, ClosesBothEndsAndThenReleasesTheMonitorsResources) {
    manager_.fork2();
    EXPECT_THAT(world().calls,
                ElementsAre("pipe", "fork", "release launched", "fork", closing(kReadEnd),
                            closing(kWriteEnd), "release launched"));
}

TEST_F(Fork2GrandchildTest, FailedClosesAreOnlyReported) {
    world().closeErrors = {{kReadEnd, EIO}, {kWriteEnd, EIO}};
    EXPECT_EQ(manager_.fork2(), 0);
    EXPECT_EQ(world().errorText(),
              "fork2:fork child's child pipe[0] close error: Input/output error\n"
              "fork2:fork child's child pipe[1] close error: Input/output error\n");
}

TEST_F(Fork2GrandchildTest, WorksWithoutAReleaseFunction) {
    g_releaseResources = nullptr;
    EXPECT_EQ(manager_.fork2(), 0);
}

} // namespace
} // namespace launches
