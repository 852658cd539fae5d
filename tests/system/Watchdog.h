// What the watchdog is fed.

#ifndef OVARD_TESTS_SYSTEM_WATCHDOG_H
#define OVARD_TESTS_SYSTEM_WATCHDOG_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace systemtest {

/// Everything that was written to the watchdog.
std::string watchdogBytes();

/// Seconds since boot.
double uptimeSec();

/// While it lives there is no watchdog.
class WatchdogAside {
public:
    WatchdogAside();
    ~WatchdogAside() { putBack(); }
    WatchdogAside(const WatchdogAside&) = delete;
    WatchdogAside& operator=(const WatchdogAside&) = delete;

    void putBack();

private:
    bool away_;
};

/// Notes when the watchdog is fed. What it was fed before does not count.
class FeedWatcher {
public:
    FeedWatcher();

    /// Watches until `done` holds; false when it does not within the time.
    bool watchUntil(const std::function<bool()>& done, int timeoutMs);

    /// Watches for that time.
    void watchFor(int milliseconds);

    /// Times of the feeds by monotonicMs, each a few milliseconds late.
    const std::vector<std::int64_t>& times() const { return times_; }

    std::size_t count() const { return times_.size(); }

    /// Time since the last feed, or since the watch began.
    std::int64_t sinceLastMs() const;

    /// Number of the feed before the longest pause between two; 0 when there are less than two.
    std::size_t feedBeforeLongestPause() const;

    /// Pause after that feed.
    std::int64_t pauseAfterMs(std::size_t feed) const;

private:
    void look();

    std::size_t seen_;
    std::int64_t begin_;
    std::vector<std::int64_t> times_;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_WATCHDOG_H
