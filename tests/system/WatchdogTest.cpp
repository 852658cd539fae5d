// The feeding of the watchdog: while the main loop turns, while it stands, and at the end. The
// options themselves are in OptionsTest.cpp, the orderly end in ShutdownTest.cpp.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "tests/system/Applications.h"
#include "tests/system/HeldPass.h"
#include "tests/system/SignalFlood.h"
#include "tests/system/Watchdog.h"

namespace systemtest {
namespace {

/// Ticks that come too early or are seen too late, in milliseconds.
constexpr int kSlackMs = 900;

bool onlyFed() {
    return watchdogBytes().find_first_not_of('w') == std::string::npos;
}

/// How a process has opened that file, as in the access mode of open; -1 when it has not.
int accessModeOf(pid_t pid, const std::string& path) {
    for (const auto& [number, target] : descriptorsOf(pid)) {
        const std::string info =
            readFile("/proc/" + std::to_string(pid) + "/fdinfo/" + std::to_string(number));
        const std::size_t at = info.find("flags:");
        if (target == path && at != std::string::npos) {
            return static_cast<int>(std::strtoul(info.c_str() + at + 6, nullptr, 8)) & O_ACCMODE;
        }
    }
    return -1;
}

/// Words for a monitor that is to feed every so many seconds, from the first tick on.
std::vector<std::string> feedingEvery(int seconds) {
    return {"-w", "0", "-I", std::to_string(seconds)};
}

class Watchdog : public ApplicationTest {
protected:
    /// Starts a monitor that feeds, without supervision.
    void startFeeding(int seconds, std::vector<std::string> more = {}) {
        const std::vector<std::string> words = feedingEvery(seconds);
        more.insert(more.end(), words.begin(), words.end());
        ASSERT_TRUE(startMonitorInForeground(more));
    }

    /// Lets it feed once.
    void waitForFeeding() {
        ASSERT_TRUE(eventually([] { return !watchdogBytes().empty(); }));
    }
};

// --- while all is well ---------------------------------------------------------------------------

TEST_F(Watchdog, IsFedEveryIntervalWhileTheLoopTurns) {
    ASSERT_NO_FATAL_FAILURE(startFeeding(2));
    ASSERT_NO_FATAL_FAILURE(waitForFeeding());
    FeedWatcher feeds;
    feeds.watchFor(7000); // idle turns
    EXPECT_GE(feeds.count(), 3U);
    EXPECT_LE(feeds.count(), 4U);
    EXPECT_LT(feeds.pauseAfterMs(feeds.feedBeforeLongestPause()), 2000 + kSlackMs);
    EXPECT_TRUE(onlyFed());
}

TEST_F(Watchdog, IsOpenForReadingAndWriting) {
    ASSERT_NO_FATAL_FAILURE(startFeeding(1));
    ASSERT_NO_FATAL_FAILURE(waitForFeeding());
    EXPECT_EQ(accessModeOf(monitor_.pid(), kWatchdogPath), O_RDWR);
}

TEST_F(Watchdog, IsFedWhileItServes) {
    ASSERT_NO_FATAL_FAILURE(startFeeding(1));
    ASSERT_NO_FATAL_FAILURE(waitForFeeding());
    FeedWatcher feeds;
    const std::int64_t begin = monotonicMs();
    std::size_t served = 0;
    while (monotonicMs() < begin + 6000) {
        Client client;
        ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Stop, "nobody")));
        (void)feeds.watchUntil([] { return false; }, 700);
        ASSERT_TRUE(client.receiveReply());
        ++served;
    }
    feeds.watchFor(0);
    EXPECT_GE(served, 3U);
    EXPECT_GE(feeds.count(), 5U);
    EXPECT_LE(feeds.count(), 9U);
}

TEST_F(Watchdog, LaunchedApplicationFeedsOnceAndDisarmsNothing) {
    ASSERT_NO_FATAL_FAILURE(startFeeding(3));
    ASSERT_NO_FATAL_FAILURE(waitForFeeding());
    ASSERT_EQ(watchdogBytes(), "w");
    const pid_t application = launch("one");
    EXPECT_EQ(watchdogBytes(), "ww") << "its process lets the device go";
    for (const auto& [number, target] : descriptorsOf(application)) {
        EXPECT_NE(target, kWatchdogPath) << number;
    }
    EXPECT_TRUE(eventually([] { return watchdogBytes() == "www"; })) << "the monitor goes on";
}

TEST_F(Watchdog, SignalsFromElsewhereAddNoFeeding) {
    ASSERT_NO_FATAL_FAILURE(startFeeding(3));
    ASSERT_NO_FATAL_FAILURE(waitForFeeding());
    FeedWatcher feeds;
    SignalFlood flood(monitor_.pid(), SIGUSR1);
    feeds.watchFor(7000);
    flood.stop();
    EXPECT_GT(flood.sent(), 500);
    EXPECT_EQ(feeds.count(), 2U) << "neither fed by them nor kept from it";
    EXPECT_NEAR(static_cast<double>(feeds.pauseAfterMs(0)), 3000, kSlackMs);
    EXPECT_TRUE(askFor(makeRequest(APPMONCTL_Stop, "nobody")).came);
}

TEST_F(Watchdog, DeviceThatAppearsLaterIsFed) {
    WatchdogAside aside;
    ASSERT_NO_FATAL_FAILURE(startFeeding(1));
    const std::string line = "Error: No such file or directory\n";
    ASSERT_TRUE(eventually([&] { return countOf(monitor_.errors(), line) >= 2; }));
    aside.putBack();
    ASSERT_NO_FATAL_FAILURE(waitForFeeding());
    const std::string errors = monitor_.errors();
    ASSERT_TRUE(eventually([] { return watchdogBytes().size() >= 3; }));
    EXPECT_EQ(monitor_.errors(), errors);
    EXPECT_TRUE(onlyFed());
}

using WatchdogEnd = Watchdog;

// --- ends without an orderly shutdown ------------------------------------------------------------

TEST_F(WatchdogEnd, KilledMonitorLeavesItArmed) {
    ASSERT_NO_FATAL_FAILURE(startFeeding(1));
    ASSERT_NO_FATAL_FAILURE(waitForFeeding());
    monitor_.kill();
    EXPECT_TRUE(onlyFed()) << watchdogBytes();
}

TEST_F(WatchdogEnd, FirstInterruptKeepsItFedAndTheSecondLeavesItArmed) {
    ASSERT_NO_FATAL_FAILURE(startFeeding(1));
    ASSERT_NO_FATAL_FAILURE(waitForFeeding());
    ASSERT_TRUE(monitor_.signal(SIGINT));
    ASSERT_TRUE(eventually([&] { return !signalIsIn(monitor_.pid(), "SigCgt", SIGINT); }));
    FeedWatcher feeds;
    EXPECT_TRUE(feeds.watchUntil([&] { return feeds.count() >= 3; }, 4000 + kSlackMs));
    ASSERT_TRUE(monitor_.signal(SIGINT));
    EXPECT_EQ(monitor_.waitForEnd().text(), "signal 2");
    EXPECT_TRUE(onlyFed()) << watchdogBytes();
}

TEST_F(WatchdogEnd, LoggedSignalsKeepItFed) {
    ASSERT_NO_FATAL_FAILURE(startFeeding(1, {"-b"}));
    ASSERT_NO_FATAL_FAILURE(waitForFeeding());
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        ASSERT_TRUE(monitor_.signal(number));
    }
    FeedWatcher feeds;
    EXPECT_TRUE(feeds.watchUntil([&] { return feeds.count() >= 3; }, 4000 + kSlackMs));
    EXPECT_TRUE(onlyFed()) << watchdogBytes();
}

// --- the orderly end -----------------------------------------------------------------------------

constexpr const char* kKickFile = "/tmp/watchdog_kick";

TEST_F(WatchdogEnd, KickFileCountsWhenTheEndComes) {
    ASSERT_NO_FATAL_FAILURE(startFeeding(1));
    ASSERT_NO_FATAL_FAILURE(waitForFeeding());
    ASSERT_TRUE(writeFile(kKickFile, ""));
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
    EXPECT_TRUE(onlyFed()) << watchdogBytes();
    EXPECT_GE(watchdogBytes().size(), 2U) << "it was not fed once more";
}

TEST_F(WatchdogEnd, KickFileThatIsGoneWhenTheEndComesCountsNot) {
    ASSERT_TRUE(writeFile(kKickFile, ""));
    ASSERT_NO_FATAL_FAILURE(startFeeding(1));
    ASSERT_NO_FATAL_FAILURE(waitForFeeding());
    ASSERT_EQ(std::remove(kKickFile), 0);
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
    const std::string bytes = watchdogBytes();
    ASSERT_GE(bytes.size(), 3U);
    EXPECT_EQ(bytes, std::string(bytes.size() - 1, 'w') + "V");
}

TEST_F(WatchdogEnd, NextMonitorFeedsAgain) {
    ASSERT_NO_FATAL_FAILURE(startFeeding(1));
    ASSERT_NO_FATAL_FAILURE(waitForFeeding());
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
    ASSERT_EQ(::truncate(kWatchdogPath, 0), 0); // a file keeps what a device forgets
    ASSERT_NO_FATAL_FAILURE(startFeeding(1));
    FeedWatcher feeds;
    EXPECT_TRUE(feeds.watchUntil([&] { return feeds.count() >= 2; }, 3000 + kSlackMs));
}

// --- the defer time, on a machine that is up for less than two minutes ---------------------------

constexpr double kDeferTimeSec = 120;

class WatchdogDefer : public Watchdog {};

TEST_F(WatchdogDefer, BeforeItTicksDoNothingAndThenTheyFeed) {
    ASSERT_LT(uptimeSec(), kDeferTimeSec - 3) << "the machine is up for too long";
    ASSERT_TRUE(startMonitorInForeground({"-w", "120", "-I", "1"}));
    // The system counts a second that has begun.
    while (uptimeSec() < kDeferTimeSec - 1.1) {
        ASSERT_EQ(watchdogBytes(), "") << uptimeSec();
        for (const auto& [number, target] : descriptorsOf(monitor_.pid())) {
            ASSERT_NE(target, kWatchdogPath) << number;
        }
        sleepMs(50);
    }
    FeedWatcher feeds;
    EXPECT_TRUE(feeds.watchUntil([&] { return feeds.count() >= 1; }, 2000 + kSlackMs));
    EXPECT_TRUE(feeds.watchUntil([&] { return feeds.count() >= 3; }, 2000 + kSlackMs));
}

TEST_F(WatchdogDefer, AfterItTheFirstTickFeeds) {
    ASSERT_GE(uptimeSec(), kDeferTimeSec) << "the machine is not up for long enough";
    const std::int64_t begin = monotonicMs();
    ASSERT_TRUE(startMonitorInForeground({"-w", "120", "-I", "1"}));
    ASSERT_NO_FATAL_FAILURE(waitForFeeding());
    EXPECT_LT(monotonicMs() - begin, 1000 + kSlackMs);
}

TEST_F(WatchdogDefer, EndBeforeItTouchesNothing) {
    ASSERT_LT(uptimeSec(), 250) << "the machine is up for too long";
    ASSERT_TRUE(startMonitorInForeground({"-w", "300", "-I", "1"}));
    sleepMs(2200);
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
    EXPECT_EQ(watchdogBytes(), "");
}

// --- long periods --------------------------------------------------------------------------------

class WatchdogPeriod : public Watchdog {
protected:
    /// Starts a monitor and watches it past the first tick of a long period.
    std::size_t feedsOfFirstTick(int seconds) {
        const std::int64_t begin = monotonicMs();
        EXPECT_TRUE(startMonitorInForeground(feedingEvery(seconds)));
        FeedWatcher feeds;
        feeds.watchFor(static_cast<int>(begin + seconds * 1000L - 200 - monotonicMs()));
        EXPECT_EQ(feeds.count(), 0U) << "before the first tick";
        feeds.watchFor(static_cast<int>(begin + seconds * 1000L + 1500 - monotonicMs()));
        return feeds.count();
    }
};
using WatchdogPeriod25 = WatchdogPeriod;
using WatchdogPeriod26 = WatchdogPeriod;
using WatchdogPeriod30 = WatchdogPeriod;

TEST_F(WatchdogPeriod25, OneTickIsWithinTheBudget) {
    EXPECT_EQ(feedsOfFirstTick(25), 1U);
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
    EXPECT_EQ(watchdogBytes(), "wwV");
}

// Deliberate: a period above the budget leaves no tick at all, so nothing is ever fed.
TEST_F(WatchdogPeriod26, NoTickIsWithinTheBudget) {
    EXPECT_EQ(feedsOfFirstTick(26), 0U);
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
    EXPECT_EQ(watchdogBytes(), "") << "it was never opened";
}

TEST_F(WatchdogPeriod30, NoTickIsWithinTheBudget) {
    EXPECT_EQ(feedsOfFirstTick(30), 0U);
    EXPECT_EQ(monitor_.errors(), "");
}

// --- a main loop that is held --------------------------------------------------------------------

/// Long polls: every pass waits so long for a pid file that never comes.
constexpr int kPollSec = 34;

/// Ticks without a turn of the main loop that are still fed, in seconds of ticks.
constexpr int kBudgetSec = 25;

/// A turn without a client, which lies between the last reset and the pass.
constexpr int kIdleTurnMs = 2100;

class WatchdogHeld : public Watchdog {
protected:
    /// Starts a monitor whose passes are held by an application that is alive, but never confirms
    /// its pid file.
    void startHeld(std::vector<std::string> more) {
        const std::vector<std::string> words = wordsForPolls(kPollSec);
        more.insert(more.end(), words.begin(), words.end());
        ASSERT_TRUE(monitor_.startInForeground(more));
        application_ =
            launch(withoutRestart(makeStart(kSilentName, kSilentOptions, kSilentPidFile)));
    }

    pid_t application_ = 0;
};
using WatchdogHeldAt5 = WatchdogHeld;

/// It is fed up to the budget, then no more, and again once the loop has turned.
void expectBudgetAndResumption(FeedWatcher& feeds, int periodSec) {
    ASSERT_TRUE(feeds.watchUntil(pollsAreOver, 60000)) << "nothing held the loop";
    const std::int64_t overAt = monotonicMs();
    const std::int64_t beginAt = overAt - kPollSec * 1000L;
    const std::size_t beforePass =
        static_cast<std::size_t>(std::count_if(feeds.times().begin(), feeds.times().end(),
                                               [&](std::int64_t time) { return time < beginAt; }));
    // The ticks between the last reset and the pass count too.
    const auto most = static_cast<std::size_t>(kBudgetSec / periodSec);
    const auto ofTurn = static_cast<std::size_t>(kIdleTurnMs / 1000 / periodSec) + 1;
    EXPECT_LE(feeds.count() - beforePass, most);
    EXPECT_GE(feeds.count() - beforePass, most - ofTurn - 1);
    EXPECT_GE(feeds.sinceLastMs(), (kPollSec - kBudgetSec) * 1000 - kSlackMs) << "it went on";
    EXPECT_TRUE(feeds.watchUntil([&] { return feeds.times().back() > overAt; },
                                 periodSec * 1000 + kSlackMs))
        << "it was not taken up again";
}

TEST_F(WatchdogHeld, FeedingStopsAfterTwentyFiveTicksAndIsTakenUpAgain) {
    FeedWatcher feeds;
    ASSERT_NO_FATAL_FAILURE(startHeld(feedingEvery(1)));
    ASSERT_NO_FATAL_FAILURE(expectBudgetAndResumption(feeds, 1));
    EXPECT_TRUE(isRunning(application_));
    EXPECT_TRUE(onlyFed());
    // From the reset on the budget is whole again, though the next pass holds the loop as well.
    const std::size_t before = feeds.count();
    feeds.watchFor(5000);
    EXPECT_GE(feeds.count() - before, 4U);
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

TEST_F(WatchdogHeldAt5, FeedingStopsAfterFiveTicksAndIsTakenUpAgain) {
    FeedWatcher feeds;
    ASSERT_NO_FATAL_FAILURE(startHeld({"-w", "0"})); // the period is five seconds by default
    ASSERT_NO_FATAL_FAILURE(expectBudgetAndResumption(feeds, 5));
    EXPECT_TRUE(onlyFed());
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

using WatchdogMissing = Watchdog;

TEST_F(WatchdogMissing, EachFailureCostsOneTickOfTheBudget) {
    // One tick is within the budget. Deliberate: after three ticks the loop would go on.
    WatchdogAside aside;
    const std::int64_t begin = monotonicMs();
    ASSERT_NO_FATAL_FAILURE(startFeeding(13));
    Client silent;
    ASSERT_TRUE(silent.connect());
    ASSERT_TRUE(eventually([&] { return monitor_.isReceiving(); }));
    ASSERT_TRUE(eventually([&] { return !monitor_.errors().empty(); }, 13000 + kSlackMs));
    aside.putBack();
    sleepMs(static_cast<int>(begin + 27500 - monotonicMs()));
    EXPECT_EQ(monitor_.errors(), "Error: No such file or directory\n");
    EXPECT_EQ(watchdogBytes(), "") << "the failure was not counted";
    silent.close();
    EXPECT_TRUE(waitForLog(3, " watch dog open failure, exit"));
    EXPECT_EQ(countLog(3, " watch dog open failure, exit"), 1U);
    EXPECT_TRUE(monitor_.alive());
}

// --- the timer's signals shorten nothing ---------------------------------------------------------

class WatchdogTicks : public Watchdog {
protected:
    /// Waits for a line of the daemon log; false when it does not come in time.
    static bool logHas(const std::string& part, int timeoutMs = kPatienceMs) {
        return eventually(
            [&] {
                const std::vector<std::string> texts = daemonLogTexts(-1);
                return std::any_of(texts.begin(), texts.end(), [&](const std::string& text) {
                    return text.find(part) != std::string::npos;
                });
            },
            timeoutMs);
    }
};

TEST_F(WatchdogTicks, IdleTurnsLastTheirTime) {
    ASSERT_TRUE(monitor_.startInForeground({"-w", "0", "-I", "1", "-v", "8", "-i", "0"}));
    const auto turns = [] { return countLog(7, " checkStatus for heartbeats"); };
    const SignalFlood flood(monitor_.pid(), SIGUSR1);
    ASSERT_TRUE(eventually([&] { return turns() >= 1; }));
    const std::size_t first = turns();
    const std::int64_t begin = monotonicMs();
    ASSERT_TRUE(eventually([&] { return turns() >= first + 2; }));
    EXPECT_GE(monotonicMs() - begin, 2 * kIdleTurnMs - 1000); // the first one may be seen late
    EXPECT_GT(flood.sent(), 500);
}

TEST_F(WatchdogTicks, PauseAfterAServedRequestLastsItsTime) {
    ASSERT_NO_FATAL_FAILURE(startFeeding(1));
    for (int round = 0; round < 3; ++round) {
        const std::int64_t begin = monotonicMs();
        ASSERT_TRUE(askFor(makeRequest(APPMONCTL_Stop, "first")).came);
        // It comes whole within the pause, so that no receive call has to wait for it.
        Client second;
        ASSERT_TRUE(sendRequest(second, makeRequest(APPMONCTL_Stop, "second")));
        const SignalFlood flood(monitor_.pid(), SIGUSR1);
        ASSERT_TRUE(second.receiveReply());
        EXPECT_GE(monotonicMs() - begin, 1000);
        EXPECT_GT(flood.sent(), 100);
        ASSERT_TRUE(waitForLog(6, "second is not found"));
    }
}

TEST_F(WatchdogTicks, PollsOfAPassLastTheirTime) {
    constexpr int kShortPollSec = 4;
    std::vector<std::string> words = wordsForPolls(kShortPollSec);
    words.insert(words.end(), {"-w", "0", "-I", "1", "-v", "6"});
    ASSERT_TRUE(monitor_.startInForeground(words));
    (void)launch(
        withoutRestart(makeStart(kSilentName, kSilentOptions, kSilentPidFile))); // it checks itself
    const SignalFlood flood(monitor_.pid(), SIGUSR1);
    EXPECT_GE(durationOfPollsMs(monitor_), kShortPollSec * 1000 - 1000); // seen late, too
    EXPECT_GT(flood.sent(), 500);
}

TEST_F(WatchdogTicks, LaunchWaitsForItsApplication) {
    ASSERT_NO_FATAL_FAILURE(startFeeding(1));
    const reqcmd request = makeStart("slow", "--daemonize-after 3000");
    Client client;
    const std::int64_t begin = monotonicMs();
    ASSERT_TRUE(sendRequest(client, request));
    ASSERT_TRUE(logHas("processRequest: action=0 name=slow, cmd="));
    const SignalFlood flood(monitor_.pid(), SIGUSR1);
    const Reply reply = toReply(client.receiveReply());
    const pid_t pid = pidIn(reply.message);
    EXPECT_EQ(reply, replyOf(0, "slow [pid=" + std::to_string(pid) + "] is started @DATE\n"));
    EXPECT_TRUE(runsAlone("slow", pid, "--daemonize-after 3000"));
    EXPECT_GE(monotonicMs() - begin, 3000 - 100);
    EXPECT_GT(flood.sent(), 500);
}

TEST_F(WatchdogTicks, StopOfAStubbornApplicationSucceeds) {
    ASSERT_NO_FATAL_FAILURE(startFeeding(1));
    const pid_t pid = launch("stubborn", "--ignore-term");
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Stop, "stubborn")));
    ASSERT_TRUE(logHas("processRequest: action=1 name=stubborn, cmd="));
    const SignalFlood flood(monitor_.pid(), SIGUSR1);
    const Reply reply = toReply(client.receiveReply());
    EXPECT_TRUE(reply.came);
    EXPECT_EQ(reply.code, 0) << reply.message;
    EXPECT_TRUE(isGone(pid));
}

} // namespace
} // namespace systemtest
