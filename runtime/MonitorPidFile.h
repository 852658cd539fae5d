// The monitor's own pid file.

#ifndef OVARD_RUNTIME_MONITOR_PID_FILE_H
#define OVARD_RUNTIME_MONITOR_PID_FILE_H

#include <string>

/// Written at the start, and as soon as that works: a full disk gets room again. Who removes it
/// later is left alone. Never fatal. Main thread only.
class MonitorPidFile {
public:
    /// Writes it for the first time. Whether that works or not, `pidfile` is its name from now on.
    MonitorPidFile();

    /// Tries again where the last attempt has failed. Allocates nothing.
    void retry();

    /// Errno of the last attempt; 0 when it worked.
    int error() const { return error_; }

    /// As `pidfile`, for as long as this object lives.
    const char* name() const { return name_.c_str(); }

private:
    void write(int& pid);

    const std::string path_; // what the pid is appended to
    std::string name_;
    int error_ = 0;
};

#endif // OVARD_RUNTIME_MONITOR_PID_FILE_H
