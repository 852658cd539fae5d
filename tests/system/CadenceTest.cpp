// How often the main loop turns and checks the applications.

#include "tests/system/Harness.h"

namespace systemtest {
namespace {

using Cadence = SystemTest;

std::size_t checks() {
    return countLog(7, " checkStatus for heartbeats");
}

/// Lets the main loop turn for a while and returns how many status checks were made.
std::size_t checksWithin(int milliseconds) {
    const std::size_t before = checks();
    const std::int64_t end = monotonicMs() + milliseconds;
    while (monotonicMs() < end) {
        turnMainLoop();
        sleepMs(100);
    }
    return checks() - before;
}

TEST_F(Cadence, IntervalOfZeroOrLessChecksInEveryTurn) {
    for (const char* interval : {"0", "-5", "text"}) {
        Daemon daemon;
        ASSERT_TRUE(daemon.startInForeground({"-v", "8", "-i", interval}));
        EXPECT_GE(checksWithin(3000), 8U) << interval;
        daemon.kill();
        cleanMachine();
    }
}

TEST_F(Cadence, IntervalIsInSeconds) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-v", "8", "-i", "2"}));
    const std::size_t count = checksWithin(6500);
    EXPECT_GE(count, 2U);
    EXPECT_LE(count, 4U);
}

TEST_F(Cadence, LongIntervalChecksNothingSoon) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-v", "8", "-i", "90000"}));
    EXPECT_EQ(checksWithin(3000), 0U);
}

TEST_F(Cadence, IntervalIsFiveSecondsByDefault) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-v", "8"}));
    const std::int64_t begin = monotonicMs();
    ASSERT_TRUE(eventually([] {
        turnMainLoop();
        return checks() == 1;
    }));
    // Whole seconds of the clock are compared: up to one less than five may have passed.
    EXPECT_GE(monotonicMs() - begin, 3900);
    EXPECT_LE(monotonicMs() - begin, 6500);
}

TEST_F(Cadence, WithoutClientsOneTurnTakesTwoSeconds) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-v", "8", "-i", "0"}));
    ASSERT_TRUE(eventually([] { return checks() == 1; }));
    const std::int64_t begin = monotonicMs();
    ASSERT_TRUE(eventually([] { return checks() == 3; }));
    EXPECT_GE(monotonicMs() - begin, 3600); // the first one is seen late
    EXPECT_LE(monotonicMs() - begin, 5500);
}

TEST_F(Cadence, TracesOfTheStatusCheckAtTheirThresholds) {
    const std::string check = "checkStatus(bErasePreloadApplistEntries=0) for heartbeats\n";
    for (const int verbosity : {6, 7, 8}) {
        Daemon daemon;
        ASSERT_TRUE(daemon.startInForeground({"-i", "0", "-v", std::to_string(verbosity)}));
        (void)checksWithin(1500); // how many does not matter here
        const std::string console = daemon.console();
        EXPECT_EQ(countOf(console, check) > 0, verbosity > 7) << verbosity;
        EXPECT_EQ(checks() > 0, verbosity > 7) << verbosity;
        EXPECT_EQ(countOf(console, " updateStatus()\n") > 0, verbosity > 6) << verbosity;
        daemon.kill();
        cleanMachine();
    }
}

TEST_F(Cadence, PreloadedEntriesMayBeErasedAfterThirtySeconds) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-v", "8", "-i", "0"}));
    const std::int64_t begin = monotonicMs();
    const auto erases = [&](int value) {
        return countOf(daemon.console(), "checkStatus(bErasePreloadApplistEntries=" +
                                             std::to_string(value) + ") for heartbeats\n");
    };
    ASSERT_TRUE(eventually([&] { return erases(1) > 0; }, 40000));
    EXPECT_GE(monotonicMs() - begin, 28900);
    EXPECT_LE(monotonicMs() - begin, 34000);
    EXPECT_GT(erases(0), 0U);
    const std::size_t before = erases(0);
    ASSERT_TRUE(eventually([&] { return erases(1) > 1; }));
    EXPECT_EQ(erases(0), before);
}

} // namespace
} // namespace systemtest
