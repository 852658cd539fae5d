// An application that forks without end. It is another user's, with a limit of its own; where the
// monitor itself may not fork any more: FaultForkTest.cpp.

#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

#include "tests/system/FaultSupport.h"

namespace systemtest {
namespace {

constexpr std::size_t kSome = 40;

/// A stop hunts at most a hundred stray copies, at most 50 ms for each.
constexpr std::size_t kHunted = 100;
constexpr std::size_t kMoreThanAreHunted = 150;
constexpr int kLongestStopMs = 15000;

class FaultForks : public FaultTest {
protected:
    void SetUp() override {
        FaultTest::SetUp();
        if (!AnotherUser::possible()) {
            GTEST_SKIP() << "there are no other users here";
        }
    }

    /// A start request for an application that forks up to that many processes.
    reqcmd makeForking(int policy, std::size_t count) const {
        EXPECT_TRUE(copyProgram(forkingProgram(), programPath("forker")));
        reqcmd request = makeRequest(
            APPMONCTL_Start, "forker",
            commandOf("forker", user_.id() + " " + std::to_string(count) + " /tmp/forker.pid"),
            "/tmp/forker.pid");
        std::string("1.0").copy(request.version, sizeof request.version);
        request.restart_type = policy;
        return request;
    }

    static bool hasGrownTo(std::size_t count) {
        return duringPasses([&] { return processesNamed("forker").size() == count; });
    }

    /// Ends them all, faster than they fork.
    static bool endForking() {
        return eventually([] {
            const std::vector<pid_t> present = processesNamed("forker");
            for (const pid_t pid : present) {
                (void)sendSignal(pid, SIGKILL); // it may have ended meanwhile
            }
            return present.empty();
        });
    }

    /// The processes that a stop says to have ended, in order.
    static std::vector<pid_t> stoppedSince(const LogMark& mark) {
        std::vector<pid_t> pids;
        for (const LogText& line : mark.lines(0)) {
            const pid_t pid = pidIn(line.text);
            if (line.text == stoppedLine("forker", pid)) {
                pids.push_back(pid);
            }
        }
        return pids;
    }

    const AnotherUser user_;
};

TEST_F(FaultForks, OthersAreSupervisedAndServedAsEver) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    const Reply started = askFor(makeForking(RESTART_TYPE_SELF, kSome), 4 * kPatienceMs);
    EXPECT_EQ(started.code, 0);
    ASSERT_TRUE(hasGrownTo(kSome));
    expectServing();
    ASSERT_TRUE(letACycleGoBy());
    expectUnharmed("among forks");
    expectLeftAlone("among forks");
    EXPECT_EQ(publishedNames(), (std::vector<std::string>{"data_server", "forker"}));
    EXPECT_EQ(publishedApp("forker").pid, pidIn(started.message)) << "it is not replaced";
    ASSERT_TRUE(killAndWait(pid_));
    pid_ = replacementOf(request_, pid_);
    EXPECT_NE(pid_, 0) << "others are replaced";
    ASSERT_TRUE(getsRunning("data_server", pid_));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "forker"), 3 * kPatienceMs).code, 0);
    ASSERT_TRUE(endForking());
    expectAllIsWell("afterwards"); // with one application
    EXPECT_TRUE(processesNamed("forker").empty()) << "it is started again";
    EXPECT_TRUE(isRunning(launch("late")));
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

/// The required end of a stop: one process by its pid, a hundred that are found. Who is left goes
/// on to fork, until there are as many as before.
TEST_F(FaultForks, StopHuntsAHundredCopiesAndNoMore) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    const reqcmd request = makeForking(kNoPolicy, kMoreThanAreHunted);
    EXPECT_EQ(askFor(request, 4 * kPatienceMs).code, 0);
    ASSERT_TRUE(hasGrownTo(kMoreThanAreHunted));
    settle();
    const std::vector<pid_t> before = processesNamed("forker");
    const LogMark mark;
    const std::int64_t begin = monotonicMs();
    const Reply stopped = askFor(makeRequest(APPMONCTL_Stop, "forker"), 3 * kPatienceMs);
    EXPECT_EQ(stopped.code, 0) << stopped;
    EXPECT_LT(monotonicMs() - begin, kLongestStopMs);
    const std::vector<pid_t> ended = stoppedSince(mark);
    EXPECT_EQ(ended.size(), 1 + kHunted);
    for (const pid_t pid : before) {
        const bool wasStopped = std::find(ended.begin(), ended.end(), pid) != ended.end();
        EXPECT_TRUE(wasStopped ? isGone(pid) : isRunning(pid)) << pid;
    }
    EXPECT_TRUE(hasGrownTo(kMoreThanAreHunted)) << "who is left goes on";
    EXPECT_TRUE(publishes({"data_server"})) << "but unsupervised";
    expectUnharmed("after the stop");
    expectServing();
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

} // namespace
} // namespace systemtest
