// Faults of the machine that the monitor works around, as its log tells of them.

#ifndef OVARD_SERVER_FAULT_NOTICE_H
#define OVARD_SERVER_FAULT_NOTICE_H

#include <cstdint>

class AppServer;

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

/// Tells that `path` cannot be written, with the reason `error`, an errno.
void logWriteFault(AppServer& log, const char* path, int error);

/// Tells that a file, a segment or a device cannot be written, and that it can be again, as
/// `FaultNews` decides, however often it is tried in between. One thread.
class FaultNotice {
public:
    /// `path` names what is written, in the log; it must outlive this object. Literals, as a rule.
    explicit FaultNotice(const char* path)
        : path_(path) {}

    /// Takes what the last attempt came to: 0, or its errno, which is told where the fault is.
    void update(AppServer& log, int error);

private:
    const char* path_;
    FaultNews news_;
};

#endif // OVARD_SERVER_FAULT_NOTICE_H
