// The wall clock set forward and back.

#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/system/FaultSupport.h"
#include "tests/system/SettableClock.h"
#include "tests/system/Watchdog.h"

namespace systemtest {
namespace {

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kTenYears = kHour * 24 * 365 * 10;

class FaultClock : public FaultTest {
protected:
    void SetUp() override {
        FaultTest::SetUp();
        if (!SettableClock::isPossible()) {
            GTEST_SKIP() << "a sanitizer's library must be the first one";
        }
        ASSERT_TRUE(SettableClock::set(0));
    }

    /// The clock of the monitor, by the date of an event that it logs now, less the right time.
    static std::int64_t offsetOfEvents() {
        const std::vector<EventLine> events = eventLog();
        return events.empty()
                   ? 0
                   : timeOf(events.back().time.substr(0, 19)) - SettableClock::rightTime();
    }

    SettableClock clock_;
};

/// Each by itself, and from the one to the other.
constexpr std::int64_t kSettings[] = {kHour, -kHour, kTenYears, -kTenYears, 0};

TEST_F(FaultClock, RunningApplicationsAreLeftAlone) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    reqcmd beating = makeSupervised("beating", RESTART_TYPE_SELF, "--heartbeat 100");
    beating.heartbeat = 1;
    const pid_t pid = launchUntilRunning(beating);
    for (const std::int64_t setting : kSettings) {
        const std::string what = std::to_string(setting);
        ASSERT_TRUE(SettableClock::set(setting));
        expectServing();
        ASSERT_TRUE(letACycleGoBy()) << what;
        expectUnharmed(what);
        expectLeftAlone(what);
        EXPECT_EQ(verdictsOn("beating"), confirmed("beating", pid)) << what;
        EXPECT_EQ(publishedApp("beating").pid, pid) << what;
    }
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

TEST_F(FaultClock, DeathIsNoticedWhateverTheTime) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    for (const std::int64_t setting : kSettings) {
        const std::string what = std::to_string(setting);
        ASSERT_TRUE(SettableClock::set(setting));
        ASSERT_TRUE(letACycleGoBy()) << what;
        const pid_t old = pid_;
        ASSERT_TRUE(killAndWait(old));
        pid_ = replacementOf(request_, old);
        ASSERT_NE(pid_, 0) << what;
        EXPECT_TRUE(getsRunning("data_server", pid_)) << what;
    }
}

TEST_F(FaultClock, ApplicationThatIsStartingIsConfirmed) {
    for (const std::int64_t setting : kSettings) {
        const std::string what = std::to_string(setting);
        ASSERT_TRUE(SettableClock::set(0));
        ASSERT_TRUE(startPublisher());
        request_ = makeSupervised("data_server", RESTART_TYPE_SELF);
        const pid_t pid = launch(request_);
        ASSERT_TRUE(SettableClock::set(setting));
        EXPECT_TRUE(getsRunning("data_server", pid)) << what;
        EXPECT_EQ(verdictsOn("data_server"), confirmed("data_server", pid)) << what;
        EXPECT_EQ(monitor_.terminate().text(), "status 0");
        ASSERT_TRUE(killAndWait(pid));
    }
}

TEST_F(FaultClock, LaunchAfterASetting) {
    ASSERT_TRUE(startPublisher());
    for (const std::int64_t setting : kSettings) {
        ASSERT_TRUE(SettableClock::set(setting));
        const std::string name = "app" + std::to_string(setting);
        const pid_t pid = launch(makeSupervised(name, RESTART_TYPE_SELF));
        EXPECT_TRUE(getsRunning(name, pid)) << name;
    }
}

/// A pass is due when the interval is over by the clock, and at once when the clock was set back.
TEST_F(FaultClock, SettingMakesAPassDueOnce) {
    ASSERT_TRUE(monitor_.startInForeground({"-i", "1800", "-v", "8"}));
    const std::string pass = " checkStatus for heartbeats";
    std::size_t passes = 0;
    for (const std::int64_t setting : {kHour, -kHour, kTenYears, -kTenYears}) {
        ASSERT_TRUE(SettableClock::set(setting));
        ++passes;
        EXPECT_TRUE(eventually([&] { return countLog(7, pass) == passes; })) << setting;
        sleepMs(4500); // two turns
        EXPECT_EQ(countLog(7, pass), passes) << setting;
    }
}

TEST_F(FaultClock, ApplicationsAreTakenOverAfterASetting) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    for (const std::int64_t setting : kSettings) {
        const std::string what = std::to_string(setting);
        EXPECT_EQ(monitor_.terminate().text(), "status 0");
        ASSERT_TRUE(SettableClock::set(setting));
        ASSERT_TRUE(startPublisher()) << what;
        EXPECT_EQ(publishedApp("data_server").pid, pid_) << what;
        letPassesGoBy(1000);
        EXPECT_TRUE(runsAlone("data_server", pid_, "--exact-pidfile /tmp/data_server.pid")) << what;
    }
}

TEST_F(FaultClock, EventsHaveTheTimeThatIsSet) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-b", "-i", "0"}));
    std::size_t events = eventLog().size();
    for (const std::int64_t setting : kSettings) {
        ASSERT_TRUE(SettableClock::set(setting));
        ASSERT_TRUE(daemon.signal(SIGHUP));
        ++events;
        ASSERT_TRUE(eventually([&] { return eventLog().size() == events; }));
        EXPECT_NEAR(static_cast<double>(offsetOfEvents()), static_cast<double>(setting), 2);
        letPassesGoBy(kPassesMs);
    }
}

/// The timer of the feeding is one of the wall clock. Where a setting starved the watchdog, the
/// machine would be reset.
TEST_F(FaultClock, WatchdogIsFedOn) {
    ASSERT_TRUE(startMonitorInForeground({"-w", "0", "-I", "1"}));
    ASSERT_TRUE(eventually([] { return !watchdogBytes().empty(); }));
    for (const std::int64_t setting : kSettings) {
        ASSERT_TRUE(SettableClock::set(setting));
        FeedWatcher feeds;
        feeds.watchFor(3000);
        EXPECT_GE(feeds.count(), 2U) << setting;
        EXPECT_LE(feeds.count(), 5U) << setting << ": what was skipped is not made up for";
    }
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

} // namespace
} // namespace systemtest
