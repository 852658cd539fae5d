// The main loop: one control request a turn, supervision and publication every few seconds.

#ifndef OVARD_RUNTIME_MAIN_LOOP_H
#define OVARD_RUNTIME_MAIN_LOOP_H

#include <cstdint>
#include <ctime>

#include "appmanager/AppManager.h"
#include "platform/Heartbeat.h"
#include "platform/Log.h"
#include "platform/Signals.h"
#include "platform/Time.h"
#include "records/reqcmd.h"
#include "runtime/MonitorPidFile.h"
#include "server/FaultNotice.h"

/// Main thread only. A turn without a client takes about 2.1 seconds.
class MainLoop {
public:
    /// Time counts from here. `statusIntervalSec` is the time between two supervision passes. Tells
    /// of the faults of the start.
    MainLoop(AppManager& manager, MonitorPidFile& pidFile, std::int32_t statusIntervalSec);

    /// Turns until the monitor is shut down. Returns the exit status of the process, 0.
    int run();

private:
    void turn();
    void beat();
    int errorOfBeat() const;
    void reportFaults();
    void serveClient();
    void checkStatusWhenDue();
    bool statusCheckIsDue() const;
    bool mayErasePreloadedEntries() const;

    AppManager& manager_; // gone once the monitor is shut down
    MonitorPidFile& pidFile_;
    const std::int32_t statusIntervalSec_;
    const std::time_t start_;
    std::time_t lastCheck_;
    std::time_t now_ = 0;
    platform::TimeText timestamp_; // for traces; empty until the first one

    const int ownPid_;
    int beatError_ = 0; // errno of the last beat, 0 when it worked

    FaultNotice eventLogNotice_{kEventLogPath};
    FaultNotice watchdogNotice_{platform::kWatchdogPath};
    FaultNotice heartbeatNotice_{platform::kHeartbeatSegmentName};
    FaultNotice pidFileNotice_;

    /// Deliberate: reused for every request and never cleared between them.
    reqcmd request_{};
};

#endif // OVARD_RUNTIME_MAIN_LOOP_H
