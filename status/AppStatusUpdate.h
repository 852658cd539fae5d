// The state of the machine and of every application, as the monitor publishes it.

#ifndef OVARD_STATUS_APP_STATUS_UPDATE_H
#define OVARD_STATUS_APP_STATUS_UPDATE_H

#include <atomic>
#include <cstdint>
#include <ctime>
#include <vector>

#include "platform/ProcessScan.h"
#include "records/appinfo.h"

/// Publishes the registry and the machine's statistics, and knows when the machine was booted.
///
/// Owned by the manager. Everything runs on the thread of the supervision pass, except
/// `findDaemonName`, `initBootTimeVars`, `bootTime` and `clockTicksPerSecond`, which any thread may
/// call.
class AppStatusUpdate {
public:
    /// Settles the boot time and the clock-tick rate.
    AppStatusUpdate();
    AppStatusUpdate(const AppStatusUpdate&) = delete;
    AppStatusUpdate& operator=(const AppStatusUpdate&) = delete;
    virtual ~AppStatusUpdate();

    /// Prepares publication for `applist`; `discover` asks for applications that already run.
    /// Caller holds the registry's lock. Returns 0. Publication and discovery are not built yet:
    /// nothing is opened and nothing adopted.
    int initUserShm(std::vector<appinfo>& applist, bool discover);

    /// One publishing cycle. Caller holds the registry's lock. Returns 0. Not built yet: publishes
    /// nothing.
    int updateUserShm(std::vector<appinfo>& applist);

    /// Reads boot time and clock-tick rate from the system. Returns the clock-tick rate. A failure
    /// is shown on the console and leaves the boot time as it was.
    int initBootTimeVars();

    /// Seconds since the epoch; 0 while unknown.
    std::uint32_t bootTime() const { return bootTime_; }

    /// Clock ticks per second, the unit of process start times; 0 while unknown.
    std::int32_t clockTicksPerSecond() const { return clockTicks_; }

    /// True when both figures above are known.
    bool bootTimeKnown() const { return bootTime_ != 0 && clockTicks_ != 0; }

    /// When a process started, in seconds since the epoch, from its start in clock ticks since
    /// boot. Both figures must be known.
    std::int32_t startTimeOf(const statstruct_proc& info) const;

    /// The reverse: clock ticks since boot at `time`, 0 when that is not after boot.
    std::uint64_t clockTicksAt(std::time_t time) const;

    /// Searches /proc for a process whose executable name equals the application's `name` over 15
    /// characters and whose command line lies in the installation directories. The first one in
    /// directory order is taken: `pid`, `start_time`, `pidfile` and `cmd` of `app` are filled.
    /// Returns its pid, or why the last process examined was refused: -2 no process or no facts,
    /// -3 other name, -4 no command line, -7 not in an included directory, -8 in an excluded one;
    /// -1 when /proc cannot be opened.
    int findDaemonName(appinfo& app);

private:
    int examineCandidate(pid_t pid, const appinfo& app, platform::Candidate& candidate) const;
    void adoptCandidate(const platform::Candidate& candidate, appinfo& app) const;

    std::atomic<std::uint32_t> bootTime_{0};
    std::atomic<std::int32_t> clockTicks_{0};
};

#endif // OVARD_STATUS_APP_STATUS_UPDATE_H
