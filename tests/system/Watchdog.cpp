#include "tests/system/Watchdog.h"

#include <cstdio>
#include <cstdlib>

#include "tests/system/Support.h"

namespace systemtest {
namespace {

const std::string kAside = std::string(kWatchdogPath) + ".aside";

} // namespace

std::string watchdogBytes() {
    return readFile(kWatchdogPath);
}

double uptimeSec() {
    return std::strtod(readFile("/proc/uptime").c_str(), nullptr);
}

WatchdogAside::WatchdogAside()
    : away_(std::rename(kWatchdogPath, kAside.c_str()) == 0) {}

void WatchdogAside::putBack() {
    if (away_) {
        away_ = std::rename(kAside.c_str(), kWatchdogPath) != 0;
    }
}

FeedWatcher::FeedWatcher()
    : seen_(watchdogBytes().size())
    , begin_(monotonicMs()) {}

bool FeedWatcher::watchUntil(const std::function<bool()>& done, int timeoutMs) {
    return eventually(
        [&] {
            look();
            return done();
        },
        timeoutMs);
}

void FeedWatcher::watchFor(int milliseconds) {
    (void)watchUntil([] { return false; }, milliseconds); // it never is
}

std::int64_t FeedWatcher::sinceLastMs() const {
    return monotonicMs() - (times_.empty() ? begin_ : times_.back());
}

std::size_t FeedWatcher::feedBeforeLongestPause() const {
    std::size_t found = 0;
    for (std::size_t feed = 0; feed + 1 < times_.size(); ++feed) {
        if (pauseAfterMs(feed) > pauseAfterMs(found)) {
            found = feed;
        }
    }
    return found;
}

std::int64_t FeedWatcher::pauseAfterMs(std::size_t feed) const {
    return feed + 1 < times_.size() ? times_[feed + 1] - times_[feed] : 0;
}

void FeedWatcher::look() {
    const std::size_t size = watchdogBytes().size();
    for (; seen_ < size; ++seen_) {
        times_.push_back(monotonicMs());
    }
}

} // namespace systemtest
