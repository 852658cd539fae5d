// The system log while its collector is missing or reads nothing.

#include <memory>
#include <string>

#include "tests/system/FaultSupport.h"
#include "tests/system/LogSocket.h"

namespace systemtest {
namespace {

class FaultSyslog : public FaultTest {
protected:
    /// An application that is killed is replaced, and both segments are renewed.
    void expectSupervisedAndPublished(const std::string& what) {
        ASSERT_TRUE(killAndWait(pid_));
        EXPECT_TRUE(publishesAReplacement()) << what;
        const float hours = publishedHours();
        EXPECT_TRUE(duringPasses([&] { return publishedHours() > hours; })) << what;
        expectPublished(what);
    }
};

void expectServed() {
    EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
}

TEST_F(FaultSyslog, CollectorThatVanishesAndComesBack) {
    ASSERT_TRUE(startMonitorInForeground());
    ASSERT_TRUE(waitForLog(6, "App monitor started"));
    const std::size_t lines = daemonLog().size();
    {
        const LogAside aside;
        expectServed();
        expectServed();
        EXPECT_EQ(daemonLog().size(), lines);
    }
    const LogMark mark;
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "nobody")), replyOf(-20, "nobody is not found\n"));
    EXPECT_TRUE(mark.has("nobody is not found"));
    EXPECT_EQ(monitor_.errors(), "");
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

TEST_F(FaultSyslog, CollectorThatReadsNothing) {
    ASSERT_TRUE(startMonitorInForeground());
    auto held = std::make_unique<HeldLog>();
    ASSERT_TRUE(held->holds());
    for (int request = 0; request < 3; ++request) {
        expectServed();
    }
    held.reset();
    const LogMark mark;
    EXPECT_TRUE(askFor(makeRequest(APPMONCTL_Stop, "nobody")).came);
    EXPECT_TRUE(mark.has("nobody is not found"));
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

TEST_F(FaultSyslog, ApplicationsAreSupervisedAndPublishedMeanwhile) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    {
        const LogAside aside;
        expectSupervisedAndPublished("without a collector");
    }
    {
        const HeldLog held;
        ASSERT_TRUE(held.holds());
        expectSupervisedAndPublished("with one that reads nothing");
    }
    expectAllIsWell("with the collector again");
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

TEST_F(FaultSyslog, TerminationBeforeACollectorThatReadsNothing) {
    ASSERT_TRUE(startMonitorInForeground());
    const HeldLog held;
    ASSERT_TRUE(held.holds());
    expectServed();
    const Ending ending = monitor_.terminate();
    EXPECT_EQ(ending.text(), "status 0");
    EXPECT_LT(ending.tookMs, 5000);
    EXPECT_EQ(countEvent("Application Monitor Stopped."), 1U);
}

} // namespace
} // namespace systemtest
