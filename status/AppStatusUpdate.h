// The state of the machine and of every application, as the monitor publishes it.

#ifndef OVARD_STATUS_APP_STATUS_UPDATE_H
#define OVARD_STATUS_APP_STATUS_UPDATE_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "platform/ProcessScan.h"
#include "platform/ShmUpdate.h"
#include "records/appinfo.h"
#include "records/segments.h"
#include "status/CpuTimes.h"
#include "status/ProcParsers.h"

/// Publishes the registry and the machine's statistics, and knows when the machine was booted.
///
/// Owned by the manager. It keeps an image of each segment, fills it in place and copies it into
/// the segment whole, at the end of a cycle. Failures of a segment are made up for by the next
/// cycle.
///
/// Everything runs on the thread of the supervision pass, except `findDaemonName`,
/// `initBootTimeVars`, `bootTime` and `clockTicksPerSecond`, which any thread may call.
class AppStatusUpdate {
public:
    /// Settles the boot time and the clock-tick rate. The segments are not open yet.
    AppStatusUpdate();
    AppStatusUpdate(const AppStatusUpdate&) = delete;
    AppStatusUpdate& operator=(const AppStatusUpdate&) = delete;

    /// Closes the segments. They are not removed.
    virtual ~AppStatusUpdate();

    // --- segments and the publishing cycle (AppStatusUpdate.cpp) ---------------------------------

    /// Opens both segments, adopts applications that already run where `discover` asks for that,
    /// and clears the segments. Caller holds the registry's lock. Returns 0.
    int initUserShm(std::vector<appinfo>& applist, bool discover);

    /// Closes both segments.
    void closeUserShm();

    /// One publishing cycle. With 128 or more applications the application segment is left as it
    /// is. Caller holds the registry's lock. Returns 0.
    int updateUserShm(std::vector<appinfo>& applist);

    /// Fill the images. getMeterInfo and getAppInfo return 0; getSysInfo a negative value when a
    /// parser failed.
    int getMeterInfo();
    int getSysInfo();
    int getAppInfo(std::vector<appinfo>& applist);

    /// Copy the images into the segments. Return 0, also where that fails.
    int updateSysInfo();
    int updateAppInfo();

    /// Errno of the last copy into each segment, 0 when it worked or when there was none yet. Of a
    /// segment that is left as it is nothing new is known: its fault is not over.
    int systemSegmentError() const { return systemSegmentError_; }
    int applicationSegmentError() const { return applicationSegmentError_; }

    /// Copies the kernel and address texts alone, piece by piece. Returns 0. The cycle does not use
    /// it.
    int updateMeterInfo();

    /// Sets the system health word of the next cycle to 0. Deliberate: `value` is ignored.
    void set_sys_health(short value);

    /// Takes the IEC 61850 health word, which another program owns, from the segment, so that the
    /// next cycle keeps it, and sets the system health word to 0. Deliberate: `value` is ignored.
    /// Returns 0, negative when the segment cannot be read.
    int update_IEC61850_health(short* value);

    // --- statistics (AppStatusStatistics.cpp) ----------------------------------------------------

    // Called by getSysInfo and initBootTimeVars; not from two threads at once.

    /// Read the kernel's file of that name into `info`. Return 0; -1 when it cannot be opened, when
    /// nothing is touched; another negative value when something in it was missing.
    int parseUptime(systeminfo_struct& info);
    int parseLoadAvg(systeminfo_struct& info);
    int parseProcStat(systeminfo_struct& info);
    int parseMemInfo(systeminfo_struct& info);
    int parseNetDev(systeminfo_struct& info);

    /// Read a lease file. Return 0; -1 when it cannot be opened, when the lease is "Disabled".
    int parseDHCPINFO(const char* path, DHCP_INFO_STRUCT* lease);
    int parseDHCPV6INFO(const char* path, DHCPV6_INFO_STRUCT* lease);

    // --- boot time -------------------------------------------------------------------------------

    /// Reads boot time and clock-tick rate from the system. Returns the clock-tick rate. A failure
    /// is shown on the console and leaves the boot time as it was.
    int initBootTimeVars();

    /// Seconds since the epoch, of which the low 32 bits count; 0 while unknown.
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

    // --- discovery (Discovery.cpp, FindDaemonName.cpp) -------------------------------------------

    /// Appends to `applist` every application that an earlier monitor has published and that
    /// verifiably still runs. Reads the application segment into its image. Returns 0.
    int initAppInfoWithoutPidFile(std::vector<appinfo>& applist);

    /// Searches /proc for a process whose executable name equals the application's `name` over 15
    /// characters and whose command line lies in the installation directories. The first one in
    /// directory order is taken: `pid`, `start_time`, `pidfile` and `cmd` of `app` are filled.
    /// Returns its pid, or why the last process examined was refused: -2 no process or no facts,
    /// -3 other name, -4 no command line, -7 not in an included directory, -8 in an excluded one;
    /// -1 when /proc cannot be opened.
    int findDaemonName(appinfo& app);

    /// 0 when `text` is all decimal digits (also when empty), -1 otherwise.
    static int is_uint(const char* text);

private:
    friend class AppStatusUpdateTestAccess;

    void fillHeader(std::size_t count);
    void fillVersionTexts();
    void fillRecord(const appinfo& app, application_record& record);
    void traceMeterInfo() const;
    void traceLease(const DHCP_INFO_STRUCT* lease) const;
    void traceLease(const DHCPV6_INFO_STRUCT* lease) const;
    void traceDisabledLease(const DHCPV6_INFO_STRUCT* lease) const;

    bool readStatistics(const char* path);

    bool adoptPublished(application_record& record, appinfo& app);
    bool stillRuns(std::int32_t pid, std::int64_t startTime, const appinfo& app) const;

    static bool isNamed(const statstruct_proc& info, const appinfo& app);
    int examineCandidate(pid_t pid, const appinfo& app, platform::Candidate& candidate) const;
    void adoptCandidate(const platform::Candidate& candidate, appinfo& app) const;

    ShmUpdate sysShm;
    system_segment systemImage_{}; // statistics: guarded by statisticsLock_
    ShmUpdate appShm;
    application_segment applicationImage_{};
    int systemSegmentError_ = 0;
    int applicationSegmentError_ = 0;

    std::atomic<std::uint32_t> bootTime_{0};
    std::atomic<std::int32_t> clockTicks_{0};

    // Any thread that finds the boot time missing reads /proc/stat.
    pthread_mutex_t statisticsLock_ = PTHREAD_MUTEX_INITIALIZER;
    status::CpuSamples cpuSamples_;         // guarded by statisticsLock_
    status::NetworkSamples networkSamples_; // guarded by statisticsLock_
    std::string fileText_;                  // guarded by statisticsLock_; what was read last
};

#endif // OVARD_STATUS_APP_STATUS_UPDATE_H
