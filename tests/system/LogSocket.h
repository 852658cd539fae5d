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

/// While it is held, /dev/log takes no message: its queue is full and nobody reads it.
class HeldLog {
public:
    HeldLog();
    ~HeldLog();
    HeldLog(const HeldLog&) = delete;
    HeldLog& operator=(const HeldLog&) = delete;

    /// The queue could be filled.
    bool holds() const { return holds_; }

    /// Closes it: writers find nobody from then on. May be called again.
    void release();

private:
    LogAside aside_;
    int socket_ = -1;
    bool holds_ = false;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_LOG_SOCKET_H
