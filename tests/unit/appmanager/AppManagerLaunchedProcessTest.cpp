#include <cerrno>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Text.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/LaunchFixture.h"

namespace launches {
namespace {

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
    lookAt("exec",
           [&thereAtExec] { thereAtExec = world().existingPaths.count("/tmp/ds.pid") != 0; });
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
    lookAt("fork", [&allocationsAtFork] {
        allocationsAtFork = world().mallocs.calls + world().strdups.calls;
    });
    leaves();
    EXPECT_GT(allocationsAtFork, 0);
    EXPECT_EQ(world().mallocs.calls + world().strdups.calls, allocationsAtFork);
}

TEST_F(LaunchedProcessTest, StartProcessEndsInItToo) {
    EXPECT_EQ(leavesWith([this] { manager_.start_process(app_); }), 127);
    EXPECT_EQ(world().count("exec"), 1U);
}

} // namespace
} // namespace launches
