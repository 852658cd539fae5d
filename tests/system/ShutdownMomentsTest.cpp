// SIGTERM at odd moments: twice, many times, during the start.

#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "tests/system/HeldStart.h"
#include "tests/system/ShutdownSupport.h"

namespace systemtest {
namespace {

using ShutdownMoments = ShutdownTest;

/// How long a start takes here: a busy machine and a sanitizer draw it out.
int microsecondsOfAStart() {
    const std::int64_t beginMs = monotonicMs();
    Daemon daemon;
    EXPECT_TRUE(daemon.startInForeground());
    const std::int64_t tookMs = monotonicMs() - beginMs;
    EXPECT_EQ(daemon.terminate().text(), "status 0");
    cleanMachine();
    return static_cast<int>(tookMs) * 1000;
}

TEST_F(ShutdownMoments, TwoTerminationsCleanUpOnce) {
    for (int round = 0; round < 20; ++round) {
        Daemon daemon;
        ASSERT_TRUE(daemon.startInForeground());
        ASSERT_TRUE(daemon.signal(SIGTERM));
        ::usleep(static_cast<useconds_t>(round) * 50);
        (void)daemon.signal(SIGTERM); // it may be gone
        const std::string end = daemon.waitForEnd().text();
        EXPECT_TRUE(end == "status 0" || end == "signal 15") << end;
        EXPECT_EQ(countEvent(kStopped), 1U) << "round " << round << ", " << end;
        EXPECT_FALSE(fileExists(kSocketPath)) << "round " << round << ", " << end;
        EXPECT_FALSE(fileExists(daemon.pidFile())) << "round " << round << ", " << end;
        cleanMachine();
    }
}

TEST_F(ShutdownMoments, BurstOfTerminationsNeverCrashesIt) {
    for (int round = 0; round < 30; ++round) {
        Daemon daemon;
        ASSERT_TRUE(daemon.startInForeground());
        Ending ending;
        for (int count = 0; count < 20000 && !ending.ended; ++count) {
            (void)daemon.signal(SIGTERM); // it may be gone
            ending = daemon.waitForEnd(0);
        }
        const std::string end = daemon.waitForEnd().text();
        EXPECT_TRUE(end == "status 0" || end == "signal 15") << end;
        EXPECT_EQ(countEvent(kStopped), 1U) << "round " << round << ", " << end;
        EXPECT_FALSE(fileExists(kSocketPath)) << "round " << round << ", " << end;
        EXPECT_FALSE(fileExists(daemon.pidFile())) << "round " << round << ", " << end;
        cleanMachine();
    }
}

TEST_F(ShutdownMoments, TerminationDuringTheStart) {
    // Before it has taken charge of the signal the default action holds, and nothing is to be
    // cleaned up; from then on every end is an orderly one.
    int orderly = 0;
    int early = 0;
    constexpr int kRounds = 150;
    const int latestUs = 2 * microsecondsOfAStart();
    for (int round = 0; round < kRounds; ++round) {
        Daemon daemon;
        ASSERT_TRUE(daemon.spawn({"-d"}));
        ::usleep(static_cast<useconds_t>(round * round * (latestUs / kRounds) / kRounds));
        ASSERT_TRUE(daemon.signal(SIGTERM));
        const Ending ending = daemon.waitForEnd();
        const std::string end = ending.text();
        EXPECT_LT(ending.tookMs, kLongestEndMs);
        if (end == "signal 15") {
            ++early;
            EXPECT_EQ(eventTexts(), std::vector<std::string>{}) << "round " << round;
        } else {
            ++orderly;
            EXPECT_EQ(end, "status 0") << "round " << round;
            EXPECT_EQ(eventTexts(), (std::vector<std::string>{kStarted, kInitialized, kStopped}))
                << "round " << round;
        }
        EXPECT_FALSE(fileExists(kSocketPath)) << "round " << round;
        EXPECT_EQ(entriesOf("/tmp/pid/home/kelvo/root"), std::vector<std::string>{});
        cleanMachine();
    }
    EXPECT_GT(early, 0) << "never early enough";
    EXPECT_GT(orderly, 0) << "never late enough";
}

TEST_F(ShutdownMoments, TerminationWhileTheStartWaitsIsObeyedAfterIt) {
    HeldStart start;
    ASSERT_TRUE(start.holds());
    ASSERT_TRUE(daemon_.spawn({"-d"}));
    ASSERT_TRUE(waitForEvent(kStarted));
    ASSERT_TRUE(daemon_.signal(SIGTERM));
    EXPECT_FALSE(daemon_.waitForEnd(300).ended);
    start.release();
    EXPECT_EQ(daemon_.waitForEnd(kLongestEndMs).text(), "status 0");
    expectCleanedUp();
}

} // namespace
} // namespace systemtest
