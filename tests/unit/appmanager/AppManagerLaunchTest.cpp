#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "platform/UniqueFd.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"

namespace {

using fakes::world;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kLevelError = 3;
constexpr int kLevelInfo = 6;

constexpr pid_t kChild = 600;
constexpr pid_t kLaunched = 601;
constexpr pid_t kDaemon = 602;

/// The first descriptors that the tests meet; no real ones.
constexpr int kFirstFd = 200000;

constexpr const char* kServer = "/home/kelvo/root/data_server -p 5";

constexpr int exitStatus(int status) {
    return status << 8;
}

void recordRelease(bool full) {
    world().record(full ? "release all" : "release launched");
}

bool contains(const std::vector<std::string>& calls, std::string_view call) {
    return std::find(calls.begin(), calls.end(), call) != calls.end();
}

class LaunchTest : public testing::Test {
protected:
    void SetUp() override {
        manager_.initCommunication(); // opens the log
        world().forgetRecords();
        world().nextDescriptor = kFirstFd;
        g_releaseResources = recordRelease;
        platform::copyToField(app_.name, "data_server");
        platform::copyToField(app_.cmd, kServer);
        platform::copyToField(app_.pidfile, "/tmp/ds.pid");
        app_.start_time = 77;
        app_.check_flag = 1;
        before_ = app_;
    }

    /// Runs `code`, which leaves the process; the status with which it does.
    template <typename Code> int leavesWith(Code code) {
        try {
            code();
        } catch (const fakes::LeaveProcessCalled& left) {
            return left.status;
        }
        ADD_FAILURE() << "the process was not left";
        return -999;
    }

    void expectOneLogLine(int level, const std::string& text) {
        ASSERT_EQ(world().log.size(), 1U);
        EXPECT_EQ(world().log[0].level, level);
        EXPECT_EQ(world().log[0].text, text);
    }

    FixtureManager manager_;
    appinfo app_ = {};
    appinfo before_ = {};
};

// --- fork2, in the monitor ----------------------------------------------------------------------

class Fork2Test : public LaunchTest {
protected:
    static constexpr int kReadEnd = kFirstFd;
    static constexpr int kWriteEnd = kFirstFd + 1;

    static std::string closing(int fd) { return "closefd " + std::to_string(fd); }
};

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
    int status = 0;
    try {
        manager_.fork2();
    } catch (const fakes::ExitMonitorCalled& exit) {
        status = exit.status;
    }
    EXPECT_EQ(status, -1);
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
    world().forkResults = {{kChild, 0}};
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

// --- fork2, in the intermediate child -----------------------------------------------------------

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

// --- fork2, in the grandchild -------------------------------------------------------------------

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

// --- the launched process -----------------------------------------------------------------------

class LaunchedProcessTest : public LaunchTest {
protected:
    void SetUp() override {
        LaunchTest::SetUp();
        world().forkResults = {{0, 0}, {0, 0}};
        world().existingPaths = {"/tmp/ds.pid"};
    }

    int leaves() {
        return leavesWith([this] { manager_.start_process_fork2(app_); });
    }

    static std::vector<std::string> steps() {
        return world().callsOf({"release", "clean", "gate", "remove", "exec", "leave"});
    }
};

TEST_F(LaunchedProcessTest, ReleasesCleansWaitsAtTheGateRemovesThePidFileAndExecutes) {
    leaves();
    const std::string gate = std::to_string(kFirstFd);
    EXPECT_THAT(steps(), ElementsAre("release launched", "release launched", "clean " + gate,
                                     "gate " + gate, "remove /tmp/ds.pid",
                                     "exec /home/kelvo/root/data_server -p 5", "leave 127"));
}

TEST_F(LaunchedProcessTest, PidFileIsGoneBeforeTheProgramRuns) {
    bool thereAtExec = true;
    world().onCall = [&thereAtExec](const std::string& call) {
        if (call.rfind("exec", 0) == 0) {
            thereAtExec = world().existingPaths.count("/tmp/ds.pid") != 0;
        }
    };
    leaves();
    EXPECT_EQ(world().count("exec"), 1U);
    EXPECT_FALSE(thereAtExec);
}

TEST_F(LaunchedProcessTest, SignalsStayBlockedUntilItIsClean) {
    leaves();
    const std::vector<std::string> calls =
        world().callsOf({"blockSignals", "restoreSignals", "fork", "clean", "exec"});
    ASSERT_GE(calls.size(), 5U);
    EXPECT_EQ(calls[0], "blockSignals");
    EXPECT_EQ(calls[1], "fork");
    EXPECT_EQ(calls[2], "fork");
    EXPECT_THAT(calls[3], testing::StartsWith("clean "));
    EXPECT_THAT(calls[4], testing::StartsWith("exec "));
}

TEST_F(LaunchedProcessTest, ProgramIsTakenByItsPathWithAllItsWords) {
    leaves();
    ASSERT_EQ(world().executions.size(), 1U);
    EXPECT_EQ(world().executions[0].path, "/home/kelvo/root/data_server");
    EXPECT_THAT(world().executions[0].arguments,
                ElementsAre("/home/kelvo/root/data_server", "-p", "5"));
}

TEST_F(LaunchedProcessTest, ProgramWithoutASlashIsNotSearchedFor) {
    platform::copyToField(app_.cmd, "data_server");
    leaves();
    ASSERT_EQ(world().executions.size(), 1U);
    EXPECT_EQ(world().executions[0].path, "data_server");
}

TEST_F(LaunchedProcessTest, WordsAreSplitOnBlanksAndTabs) {
    platform::copyToField(app_.cmd, "/home/kelvo/root/x  a\tb");
    leaves();
    ASSERT_EQ(world().executions.size(), 1U);
    EXPECT_THAT(world().executions[0].arguments, ElementsAre("/home/kelvo/root/x", "a", "b"));
}

TEST_F(LaunchedProcessTest, AtMostFortyWordsReachTheProgram) {
    std::string command = "/home/kelvo/root/x";
    for (int word = 0; word < 60; ++word) {
        command += " w" + std::to_string(word);
    }
    platform::copyToField(app_.cmd, command);
    leaves();
    ASSERT_EQ(world().executions.size(), 1U);
    EXPECT_EQ(world().executions[0].arguments.size(), 40U);
    EXPECT_EQ(world().executions[0].arguments.back(), "w38");
}

TEST_F(LaunchedProcessTest, MissingProgramLeavesWith127) {
    world().executionErrors = {ENOENT};
    EXPECT_EQ(leaves(), 127);
}

TEST_F(LaunchedProcessTest, ForbiddenProgramLeavesWith127) {
    world().executionErrors = {EACCES};
    EXPECT_EQ(leaves(), 127);
}

TEST_F(LaunchedProcessTest, CommandOfBlanksLeavesWith127AndExecutesNothing) {
    platform::copyToField(app_.cmd, " \t ");
    EXPECT_EQ(leaves(), 127);
    EXPECT_THAT(world().executions, IsEmpty());
    EXPECT_EQ(world().callsOf("remove"), std::vector<std::string>{"remove /tmp/ds.pid"});
}

TEST_F(LaunchedProcessTest, WithoutMemoryForTheWordsItLeavesWith127) {
    world().mallocs.failNext = 3;
    EXPECT_EQ(leaves(), 127);
    EXPECT_THAT(world().executions, IsEmpty());
}

TEST_F(LaunchedProcessTest, EmptyPidFileNameRemovesNothing) {
    app_.pidfile[0] = '\0';
    leaves();
    EXPECT_EQ(world().count("remove"), 0U);
    EXPECT_EQ(world().count("exec"), 1U);
}

TEST_F(LaunchedProcessTest, MissingPidFileDoesNotMatter) {
    world().existingPaths.clear();
    leaves();
    EXPECT_EQ(world().count("exec"), 1U);
}

TEST_F(LaunchedProcessTest, PidFileThatCannotBeRemovedDoesNotMatter) {
    world().removeErrors = {{"/tmp/ds.pid", EACCES}};
    leaves();
    EXPECT_EQ(world().count("exec"), 1U);
}

TEST_F(LaunchedProcessTest, WithoutAGateItDoesNotWait) {
    world().pipeErrors = {EMFILE, 0};
    leaves();
    EXPECT_THAT(steps(), ElementsAre("release launched", "release launched", "clean -1",
                                     "remove /tmp/ds.pid", "exec /home/kelvo/root/data_server -p 5",
                                     "leave 127"));
}

TEST_F(LaunchedProcessTest, WritesNothingToTheLog) {
    leaves();
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(LaunchedProcessTest, AllocatesNothingAfterTheFork) {
    int allocationsAtFork = 0;
    world().onCall = [&allocationsAtFork](const std::string& call) {
        if (call == "fork") {
            allocationsAtFork = world().mallocs.calls + world().strdups.calls;
        }
    };
    leaves();
    EXPECT_GT(allocationsAtFork, 0);
    EXPECT_EQ(world().mallocs.calls + world().strdups.calls, allocationsAtFork);
}

TEST_F(LaunchedProcessTest, StartProcessEndsInItToo) {
    EXPECT_EQ(leavesWith([this] { manager_.start_process(app_); }), 127);
    EXPECT_EQ(world().count("exec"), 1U);
}

// --- start_process_fork2, in the monitor --------------------------------------------------------

class StartProcessFork2Test : public LaunchTest {
protected:
    /// A launch whose process goes into the background at the first look at it.
    void scriptGoodLaunch() {
        world().scriptLaunch(kChild, kLaunched);
        world().addProcess(kLaunched, "data_server", kServer);
        world().onSleep = [](int) {
            if (world().isAlive(kLaunched)) {
                world().process(kLaunched)->alive = false;
                world().addProcess(kDaemon, "data_server", kServer, 12300).pidFilename =
                    "/tmp/pid/ds.pid.602";
            }
        };
    }
};

TEST_F(StartProcessFork2Test, ReturnsThePidOfTheLaunchedProcess) {
    scriptGoodLaunch();
    EXPECT_EQ(manager_.start_process_fork2(app_), kLaunched);
}

TEST_F(StartProcessFork2Test, RecordTellsTheDaemon) {
    scriptGoodLaunch();
    manager_.start_process_fork2(app_);
    EXPECT_EQ(app_.pid, kDaemon);
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
    EXPECT_STREQ(app_.pidfile, "/tmp/pid/ds.pid.602");
    EXPECT_EQ(app_.start_time, 1700000000 - 10000 + 123);
}

TEST_F(StartProcessFork2Test, PidAndStatusAreSetBeforeTheWaitForTheDaemon) {
    scriptGoodLaunch();
    world().onSleep = [this](int) {
        EXPECT_EQ(app_.pid, kLaunched);
        EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
        world().process(kLaunched)->alive = false;
        world().onSleep = nullptr;
        world().addProcess(kDaemon, "data_server", kServer);
    };
    manager_.start_process_fork2(app_);
    EXPECT_EQ(app_.pid, kDaemon);
}

TEST_F(StartProcessFork2Test, ResultOfTheWaitIsNotUsed) {
    world().scriptLaunch(kChild, kLaunched); // the process is gone at once
    EXPECT_EQ(manager_.start_process_fork2(app_), kLaunched);
    EXPECT_EQ(app_.pid, kLaunched);
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
}

TEST_F(StartProcessFork2Test, ForegroundProgramKeepsItsPid) {
    world().scriptLaunch(kChild, kLaunched);
    world().addProcess(kLaunched, "data_server", kServer);
    EXPECT_EQ(manager_.start_process_fork2(app_), kLaunched);
    EXPECT_EQ(app_.pid, kLaunched);
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
}

TEST_F(StartProcessFork2Test, LaunchesWithoutAGateToo) {
    scriptGoodLaunch();
    world().pipeErrors = {EMFILE, 0};
    EXPECT_EQ(manager_.start_process_fork2(app_), kLaunched);
    EXPECT_EQ(app_.pid, kDaemon);
}

/// A real pipe as the gate, at numbers that the fakes hand out.
class LaunchGateTest : public StartProcessFork2Test {
protected:
    static constexpr int kGateRead = 900;
    static constexpr int kGateWrite = 901;

    void SetUp() override {
        StartProcessFork2Test::SetUp();
        int ends[2];
        ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        observer_.reset(ends[0]);
        const platform::UniqueFd writeEnd(ends[1]);
        ASSERT_EQ(::fcntl(ends[0], F_DUPFD_CLOEXEC, kGateRead), kGateRead);
        ASSERT_EQ(::fcntl(ends[1], F_DUPFD_CLOEXEC, kGateWrite), kGateWrite);
        world().nextDescriptor = kGateRead;
    }

    /// True when the launched process would go on.
    bool gateIsOpen() const {
        char byte = 0;
        return ::read(observer_.get(), &byte, 1) == 0;
    }

    platform::UniqueFd observer_;
};

TEST_F(LaunchGateTest, StaysClosedUntilTheFactsWereRead) {
    scriptGoodLaunch();
    int looks = 0;
    world().onFacts = [&](pid_t pid) {
        if (pid == kLaunched) {
            ++looks;
            EXPECT_FALSE(gateIsOpen());
            world().onFacts = nullptr;
        }
    };
    EXPECT_EQ(manager_.start_process_fork2(app_), kLaunched);
    EXPECT_EQ(looks, 1);
    EXPECT_TRUE(gateIsOpen());
}

TEST_F(LaunchGateTest, OpensWhenTheLaunchedProcessHasNoFacts) {
    world().scriptLaunch(kChild, kLaunched);
    EXPECT_FALSE(gateIsOpen());
    EXPECT_EQ(manager_.start_process_fork2(app_), kLaunched);
    EXPECT_TRUE(gateIsOpen());
}

TEST_F(LaunchGateTest, OpensWhenTheCommandHasNoWords) {
    platform::copyToField(app_.cmd, " \t ");
    world().scriptLaunch(kChild, kLaunched);
    world().addProcess(kLaunched, "data_server", kServer);
    EXPECT_EQ(manager_.start_process_fork2(app_), kLaunched);
    EXPECT_TRUE(gateIsOpen());
}

TEST_F(LaunchGateTest, OpensWhenThePidCouldNotBeRead) {
    world().forkResults = {{kChild, 0}};
    world().reads = {{"", EIO}};
    EXPECT_EQ(manager_.start_process_fork2(app_), -10);
    EXPECT_TRUE(gateIsOpen());
}

TEST_F(StartProcessFork2Test, MonitorLeavesThePidFileToTheLaunchedProcess) {
    scriptGoodLaunch();
    world().existingPaths = {"/tmp/ds.pid"};
    manager_.start_process_fork2(app_);
    EXPECT_EQ(world().count("remove"), 0U);
    EXPECT_EQ(world().count("exec"), 0U);
}

TEST_F(StartProcessFork2Test, SignalsAreBlockedAroundTheForkOnly) {
    scriptGoodLaunch();
    manager_.start_process_fork2(app_);
    const std::vector<std::string> calls =
        world().callsOf({"blockSignals", "restoreSignals", "fork", "waitpid", "sleep"});
    ASSERT_GE(calls.size(), 5U);
    EXPECT_EQ(calls[0], "blockSignals");
    EXPECT_EQ(calls[1], "fork");
    EXPECT_EQ(world().count("restoreSignals"), 1U);
    EXPECT_LT(std::find(calls.begin(), calls.end(), "restoreSignals"),
              std::find(calls.begin(), calls.end(), "sleep 1"));
}

TEST_F(StartProcessFork2Test, GivesAllMemoryBack) {
    scriptGoodLaunch();
    manager_.start_process_fork2(app_);
    EXPECT_EQ(world().liveBlocks(), 0U);
    EXPECT_EQ(world().foreignReleases, 0);
}

TEST_F(StartProcessFork2Test, UnreadPidIsLoggedAndReturnedAndChangesNothing) {
    world().forkResults = {{kChild, 0}};
    EXPECT_EQ(manager_.start_process_fork2(app_), -10);
    expectOneLogLine(kLevelError, "\nFatal Error: Problem while starting child process");
    EXPECT_EQ(std::memcmp(&app_, &before_, sizeof app_), 0);
    EXPECT_THAT(world().callsOf({"sync", "restart", "port22", "leave", "sleep"}), IsEmpty());
}

// --- a monitor that cannot fork -----------------------------------------------------------------

class FatalLaunchTest : public LaunchTest {
protected:
    void SetUp() override {
        LaunchTest::SetUp();
        world().forkResults = {{-1, EAGAIN}};
    }

    int leaves() {
        return leavesWith([this] { manager_.start_process_fork2(app_); });
    }

    static std::vector<std::string> steps() {
        return world().callsOf({"sync", "port22", "restart", "leave", "exitMonitor"});
    }
};

TEST_F(FatalLaunchTest, FlushesLooksAtPort22RestartsAndLeaves) {
    leaves();
    EXPECT_THAT(steps(), ElementsAre("sync", "port22", "restart", "leave 0"));
}

TEST_F(FatalLaunchTest, WithAConnectionOnPort22ItOnlyLeaves) {
    world().remoteShellConnected = true;
    leaves();
    EXPECT_THAT(steps(), ElementsAre("sync", "port22", "leave 0"));
}

TEST_F(FatalLaunchTest, LeavesWhenTheRestartFails) {
    world().restartResults = {{-1, EPERM}};
    EXPECT_EQ(leaves(), 0);
    EXPECT_THAT(steps(), ElementsAre("sync", "port22", "restart", "leave 0"));
}

TEST_F(FatalLaunchTest, IsLoggedBeforeAnythingElseHappens) {
    std::vector<std::string> loggedAtSync;
    world().onCall = [&loggedAtSync](const std::string& call) {
        if (call == "sync") {
            loggedAtSync = world().logTexts(kLevelError);
        }
    };
    leaves();
    EXPECT_THAT(loggedAtSync,
                ElementsAre("fork2():fork parent error: mainpid=-1, status=0, error=0",
                            "\nFatal Error: start_process()_fork2  fork2=-1"));
    EXPECT_EQ(world().log.size(), 2U);
}

TEST_F(FatalLaunchTest, RecordStaysAsItWas) {
    leaves();
    EXPECT_EQ(std::memcmp(&app_, &before_, sizeof app_), 0);
}

TEST_F(FatalLaunchTest, FailedForkLeavesWithTheClearedError) {
    EXPECT_EQ(leaves(), 0);
}

TEST_F(FatalLaunchTest, FailedForkOfTheChildLeavesWithInterrupted) {
    world().forkResults = {{kChild, 0}};
    world().waitpidResults = {{kChild, exitStatus(EAGAIN), 0}};
    EXPECT_EQ(leaves(), EINTR);
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("fork2: errno=11", "\nFatal Error: start_process()_fork2  fork2=-1"));
    EXPECT_TRUE(contains(world().calls, "restart"));
}

TEST_F(FatalLaunchTest, FailedWaitLeavesWithItsError) {
    world().forkResults = {{kChild, 0}};
    world().waitpidResults = {{-1, 0, ECHILD}};
    EXPECT_EQ(leaves(), ECHILD);
    EXPECT_TRUE(contains(world().calls, "restart"));
}

TEST_F(FatalLaunchTest, ExhaustedWaitsLeaveWithInterrupted) {
    world().forkResults = {{kChild, 0}};
    world().waitpidResults = {{-1, 0, EINTR}, {-1, 0, EINTR}, {-1, 0, EINTR}};
    EXPECT_EQ(leaves(), EINTR);
}

TEST_F(FatalLaunchTest, ErrnoOfTheRestartIsNotTheStatus) {
    world().forkResults = {{kChild, 0}};
    world().waitpidResults = {{-1, 0, ECHILD}};
    world().restartResults = {{-1, EPERM}};
    EXPECT_EQ(leaves(), ECHILD);
}

TEST_F(FatalLaunchTest, ChildEndedByASignalIsFatalToo) {
    world().forkResults = {{kChild, 0}};
    world().waitpidResults = {{kChild, SIGSEGV, 0}};
    EXPECT_EQ(leaves(), 0);
    EXPECT_THAT(steps(), ElementsAre("sync", "port22", "restart", "leave 0"));
}

TEST_F(FatalLaunchTest, StartProcessDoesNotReturnEither) {
    leavesWith([this] { manager_.start_process(app_); });
    EXPECT_THAT(steps(), ElementsAre("sync", "port22", "restart", "leave 0"));
    EXPECT_THAT(world().logTexts(kLevelInfo), IsEmpty());
}

// --- start_process ------------------------------------------------------------------------------

using StartProcessTest = StartProcessFork2Test;

TEST_F(StartProcessTest, WithoutACommandItFailsWithMinusEight) {
    app_.cmd[0] = '\0';
    EXPECT_EQ(manager_.start_process(app_), -8);
    EXPECT_EQ(app_.status, APP_STATUS_START_FAILURE);
    expectOneLogLine(kLevelError, "data_server has no command line failure");
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(StartProcessTest, WithoutACommandOnlyTheStatusChanges) {
    app_.cmd[0] = '\0';
    before_.cmd[0] = '\0';
    before_.status = APP_STATUS_START_FAILURE;
    verbose = 10;
    manager_.start_process(app_);
    EXPECT_EQ(std::memcmp(&app_, &before_, sizeof app_), 0);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(StartProcessTest, GoodLaunchReturnsZero) {
    scriptGoodLaunch();
    EXPECT_EQ(manager_.start_process(app_), 0);
    EXPECT_EQ(app_.pid, kDaemon);
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
}

TEST_F(StartProcessTest, LogsTheLaunch) {
    scriptGoodLaunch();
    manager_.start_process(app_);
    expectOneLogLine(kLevelInfo, "start_process: name=data_server  status=1 "
                                 "start_process_fork2=601");
}

TEST_F(StartProcessTest, FailedLaunchReturnsZeroAndIsLogged) {
    world().forkResults = {{kChild, 0}};
    app_.status = APP_STATUS_DEAD;
    EXPECT_EQ(manager_.start_process(app_), 0);
    EXPECT_EQ(app_.status, APP_STATUS_DEAD);
    EXPECT_EQ(app_.pid, 0);
    ASSERT_EQ(world().log.size(), 2U);
    EXPECT_EQ(world().log[0].level, kLevelError);
    EXPECT_EQ(world().log[1].level, kLevelInfo);
    EXPECT_EQ(world().log[1].text,
              "start_process: name=data_server  status=6 start_process_fork2=-10");
}

TEST_F(StartProcessTest, ClearsTheCheckFlagAndSetsTheStartTime) {
    world().forkResults = {{kChild, 0}};
    manager_.start_process(app_);
    EXPECT_EQ(app_.check_flag, 0);
    EXPECT_EQ(app_.start_time, 1700000000);
}

TEST_F(StartProcessTest, CheckFlagAndStartTimeAreSetBeforeTheLaunch) {
    world().forkResults = {{kChild, 0}};
    world().onCall = [this](const std::string& call) {
        if (call == "fork") {
            EXPECT_EQ(app_.check_flag, 0);
            EXPECT_EQ(app_.start_time, 1700000000);
        }
    };
    manager_.start_process(app_);
    EXPECT_EQ(world().count("fork"), 1U);
}

TEST_F(StartProcessTest, StartTimeIsThatBeforeAForegroundProgramIsWaitedFor) {
    world().scriptLaunch(kChild, kLaunched);
    world().addProcess(kLaunched, "data_server", kServer);
    EXPECT_EQ(manager_.start_process(app_), 0);
    EXPECT_EQ(app_.start_time, 1700000000);
    EXPECT_GT(world().now, 1700000000 + 30);
}

TEST_F(StartProcessTest, TracesAboveVerbosityFive) {
    scriptGoodLaunch();
    verbose = 6;
    manager_.start_process(app_);
    EXPECT_EQ(world().consoleText(),
              "start_process data_server status=0 before start_process_fork2\n"
              "start_process data_server status=1 after start_process_fork2=601\n");
}

TEST_F(StartProcessTest, IsSilentAtVerbosityFive) {
    scriptGoodLaunch();
    verbose = 5;
    manager_.start_process(app_);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(StartProcessTest, TracesAFailedLaunch) {
    world().forkResults = {{kChild, 0}};
    verbose = 6;
    manager_.start_process(app_);
    EXPECT_EQ(world().consoleText(),
              "start_process data_server status=0 before start_process_fork2\n"
              "start_process data_server status=0 after start_process_fork2=-10\n");
}

TEST_F(StartProcessTest, FirstTraceComesBeforeTheFork) {
    world().forkResults = {{kChild, 0}};
    verbose = 6;
    std::string tracedAtFork;
    world().onCall = [&tracedAtFork](const std::string& call) {
        if (call == "fork") {
            tracedAtFork = world().consoleText();
        }
    };
    manager_.start_process(app_);
    EXPECT_EQ(tracedAtFork, "start_process data_server status=0 before start_process_fork2\n");
}

TEST_F(StartProcessTest, CommandOfBlanksIsLaunched) {
    platform::copyToField(app_.cmd, "   ");
    world().scriptLaunch(kChild, kLaunched);
    world().addProcess(kLaunched, "ovard", "");
    EXPECT_EQ(manager_.start_process(app_), 0);
    EXPECT_EQ(app_.pid, kLaunched);
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
}

TEST_F(StartProcessTest, LongestNameIsLoggedWhole) {
    const std::string name(63, 'n');
    platform::copyToField(app_.name, name);
    app_.cmd[0] = '\0';
    manager_.start_process(app_);
    expectOneLogLine(kLevelError, name + " has no command line failure");
}

// --- errExit ------------------------------------------------------------------------------------

TEST(LaunchErrExitTest, ReportsTheErrorAndEndsTheMonitorWithMinusOne) {
    int status = 0;
    try {
        errno = EACCES;
        errExit("some message");
    } catch (const fakes::ExitMonitorCalled& exit) {
        status = exit.status;
    }
    EXPECT_EQ(status, -1);
    EXPECT_EQ(world().errorText(), "some message: Permission denied\n");
    EXPECT_THAT(world().calls, ElementsAre("exitMonitor -1"));
}

} // namespace
