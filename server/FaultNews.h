// When the log hears of a fault of the machine that the monitor works around.

#ifndef OVARD_SERVER_FAULT_NEWS_H
#define OVARD_SERVER_FAULT_NEWS_H

#include <cstdint>

/// Decides when the log hears of a fault: when it begins, but once a minute at most however often
/// it comes and goes, and when a fault that was told is over. One thread.
class FaultNews {
public:
    /// Takes whether the fault is there now. True when the log has to be told just that.
    bool isDue(bool isThere);

private:
    bool isTold_ = false;           // the log's last word is that it is there
    std::int64_t quietUntilMs_ = 0; // monotonic
};

#endif // OVARD_SERVER_FAULT_NEWS_H
