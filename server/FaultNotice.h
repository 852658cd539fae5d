// What cannot be written, as the monitor's log tells of it.

#ifndef OVARD_SERVER_FAULT_NOTICE_H
#define OVARD_SERVER_FAULT_NOTICE_H

#include "server/FaultNews.h"

class AppServer;

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
