// An application that forks without end. It is another user's, with a limit of its own; where the
// monitor itself may not fork any more: FaultForkTest.cpp.

#include <string>
#include <vector>

#include "tests/system/FaultSupport.h"

namespace systemtest {
namespace {

constexpr std::size_t kMostProcesses = 40;

/// A stop hunts at most a hundred stray copies, at most 50 ms for each.
constexpr int kLongestStopMs = 15000;

class FaultForks : public FaultTest {
protected:
    void SetUp() override {
        FaultTest::SetUp();
        if (!AnotherUser::possible()) {
            GTEST_SKIP() << "there are no other users here";
        }
    }

    reqcmd makeForking(int policy) const {
        EXPECT_TRUE(copyProgram(forkingProgram(), programPath("forker")));
        reqcmd request =
            makeRequest(APPMONCTL_Start, "forker",
                        commandOf("forker", user_.id() + " " + std::to_string(kMostProcesses) +
                                                " /tmp/forker.pid"),
                        "/tmp/forker.pid");
        std::string("1.0").copy(request.version, sizeof request.version);
        request.restart_type = policy;
        return request;
    }

    static bool hasGrown() {
        return duringPasses([] { return processesNamed("forker").size() >= kMostProcesses - 2; });
    }

    const AnotherUser user_;
};

TEST_F(FaultForks, OthersAreSupervisedAndServedAsEver) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    const reqcmd request = makeForking(RESTART_TYPE_SELF);
    const Reply reply = askFor(request, 4 * kPatienceMs);
    EXPECT_EQ(reply.code, 0);
    ASSERT_TRUE(hasGrown());
    expectServing();
    ASSERT_TRUE(letACycleGoBy());
    expectUnharmed("among forks");
    expectLeftAlone("among forks");
    EXPECT_EQ(publishedNames(), (std::vector<std::string>{"data_server", "forker"}));
    EXPECT_LE(processesNamed("forker").size(), kMostProcesses);
    ASSERT_TRUE(killAndWait(pid_));
    pid_ = replacementOf(request_, pid_);
    EXPECT_NE(pid_, 0) << "others are replaced";
}

TEST_F(FaultForks, StopComesToAnEnd) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    const Reply reply = askFor(makeForking(kNoPolicy), 4 * kPatienceMs);
    EXPECT_EQ(reply.code, 0);
    ASSERT_TRUE(hasGrown());
    settle();
    const std::int64_t begin = monotonicMs();
    const Reply stopped = askFor(makeRequest(APPMONCTL_Stop, "forker"), 3 * kPatienceMs);
    EXPECT_EQ(stopped.code, 0) << stopped;
    EXPECT_LT(monotonicMs() - begin, kLongestStopMs);
    ASSERT_TRUE(letACycleGoBy());
    EXPECT_EQ(publishedNames(), std::vector<std::string>{"data_server"});
    expectUnharmed("after the stop");
    expectServing();
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

} // namespace
} // namespace systemtest
