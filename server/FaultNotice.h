// Faults of the machine that the monitor works around, as its log tells of them.

#ifndef OVARD_SERVER_FAULT_NOTICE_H
#define OVARD_SERVER_FAULT_NOTICE_H

class AppServer;

/// Tells once that a file, a segment or a device cannot be written, and once that it can be again,
/// however often it is tried in between. One thread.
class FaultNotice {
public:
    /// `path` names what is written, in the log; it must outlive this object. Literals, as a rule.
    explicit FaultNotice(const char* path)
        : path_(path) {}

    /// Takes what the last attempt came to: 0, or its errno, which is told when it is the first
    /// failure.
    void update(AppServer& log, int error);

private:
    const char* path_;
    bool lasts_ = false;
};

#endif // OVARD_SERVER_FAULT_NOTICE_H
