// Taking the system log away from the monitor, or giving it one that nobody reads.

#ifndef OVARD_TESTS_SYSTEM_LOG_SOCKET_H
#define OVARD_TESTS_SYSTEM_LOG_SOCKET_H

namespace systemtest {

/// While it lives there is no /dev/log.
class LogAside {
public:
    LogAside();
    ~LogAside();
    LogAside(const LogAside&) = delete;
    LogAside& operator=(const LogAside&) = delete;
};

/// While it lives, /dev/log takes no message: its queue is full and nobody reads it. Afterwards
/// writers find nobody there and do not wait again.
class HeldLog {
public:
    HeldLog();
    ~HeldLog();
    HeldLog(const HeldLog&) = delete;
    HeldLog& operator=(const HeldLog&) = delete;

    /// The queue could be filled.
    bool holds() const { return holds_; }

private:
    LogAside aside_;
    int socket_;
    bool holds_ = false;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_LOG_SOCKET_H
