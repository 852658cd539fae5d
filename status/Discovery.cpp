// Adoption of the applications that an earlier monitor has left running.

#include <algorithm>
#include <cstring>
#include <iterator>

#include "platform/InstallationDirectories.h"
#include "platform/Settings.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "platform/Trace.h"
#include "platform/Wait.h"
#include "records/codes.h"
#include "status/AppStatusUpdate.h"
#include "status/InstrumentTime.h"

namespace {

constexpr std::int64_t kMillisecondsPerSecond = 1000;

/// How far the start of a process may be from what was published, in seconds.
constexpr std::int64_t kStartToleranceSec = 1;

/// Index of the entry of `names` that equals the field over its length, 0 when there is none.
template <std::size_t Size, std::size_t Count>
std::int32_t indexOfName(char (&field)[Size], const char* const (&names)[Count]) {
    platform::terminateField(field);
    const auto* const found =
        std::find_if(std::begin(names), std::end(names),
                     [&](const char* name) { return std::strncmp(field, name, Size) == 0; });
    return found != std::end(names) ? static_cast<std::int32_t>(found - names) : 0;
}

void traceNoProcess(const appinfo& app, std::int32_t pid) {
    platform::trace(verbose > 4, "initAppInfo: '%s' process info not found for pid=%d\n", app.name,
                    pid);
}

/// Takes over the command line of the process, an empty one when it cannot be read. False for a
/// program that is never taken for an application.
bool takeCommandLine(pid_t pid, appinfo& app) {
    char cmdline[sizeof app.cmd] = {};
    int length = sizeof cmdline;
    (void)get_proc_cmdline(pid, cmdline, &length);
    if (platform::isInExcludedDirectory(cmdline)) {
        return false;
    }
    platform::copyToField(app.cmd, cmdline);
    return true;
}

/// What the record tells of an application, all but its process.
appinfo readRecord(application_record& record) {
    appinfo app = {};
    platform::terminateField(record.name);
    platform::terminateField(record.version);
    platform::copyToField(app.name, platform::fieldText(record.name));
    platform::copyToField(app.version, platform::fieldText(record.version));
    app.status = indexOfName(record.status, OVARD_APP_STATUS_STR);
    app.port_type = indexOfName(record.port_type, PORT_TYPE_STR);
    app.priority = record.nice;
    app.restart_type = record.restart_type;
    app.last_runtime_life_limit = record.last_runtime_life_limit;
    app.port_num = record.port_num;
    app.uptime = static_cast<std::int32_t>(record.uptime);
    return app;
}

} // namespace

int AppStatusUpdate::is_uint(const char* text) {
    return platform::isAllDigits(text) ? 0 : -1;
}

int AppStatusUpdate::initAppInfoWithoutPidFile(std::vector<appinfo>& applist) {
    if (appShm.loadData(&applicationImage_, sizeof applicationImage_) != 0) {
        applicationImage_.header.count = 0; // Nothing was published.
    }
    fillVersionTexts();
    if (!bootTimeKnown()) {
        (void)initBootTimeVars(); // Without it only names can be compared.
    }
    platform::trace(verbose > 3,
                    "initAppInfo: boot_time_t = %u\n"
                    "initAppInfo: jiffiesPerSec = %d\n",
                    bootTime(), clockTicksPerSecond());
    const std::int32_t count = std::min(applicationImage_.header.count, kMostPublishedApplications);
    // A search of a full /proc for each of them takes its time.
    for (std::int32_t index = 0; index < count && !platform::terminationPending(); ++index) {
        appinfo app = {};
        if (adoptPublished(applicationImage_.applications[index], app)) {
            applist.push_back(app);
            platform::trace(verbose > 3,
                            "initAppInfo: '%s' added to applist for pid=%d, pidfile=%s, cmd=%s\n",
                            app.name, app.pid, app.pidfile, app.cmd);
        }
    }
    return 0;
}

/// Fills `app` when the published application still runs, under its pid or another one.
bool AppStatusUpdate::adoptPublished(application_record& record, appinfo& app) {
    app = readRecord(record);
    const std::int64_t startTime =
        status::loadTimeStamp(record.start_time) / kMillisecondsPerSecond;
    app.start_time = static_cast<std::int32_t>(startTime);
    platform::trace(verbose > 3, "initAppInfo: checking '%s' start_time=%lld\n", app.name,
                    static_cast<long long>(startTime));
    if (record.pid == -1) {
        traceNoProcess(app, record.pid);
        return false;
    }
    if (stillRuns(record.pid, startTime, app) && takeCommandLine(record.pid, app)) {
        app.pid = record.pid;
        (void)platform::takePidFileName(app); // It may have written none.
        return true;
    }
    if (findDaemonName(app) < 1) {
        platform::trace(verbose > 4, "initAppInfo: findDaemonName('%s') process not found\n",
                        app.name);
        return false;
    }
    return true;
}

/// True when `pid` is the process that was published: started then, and of that name.
bool AppStatusUpdate::stillRuns(std::int32_t pid, std::int64_t startTime,
                                const appinfo& app) const {
    statstruct_proc info = {};
    const bool isMonitor = pid == platform::currentProcessId(); // The monitor is no application.
    if (isMonitor || get_proc_info_by_pid(pid, &info) != 0) {
        traceNoProcess(app, pid);
        return false;
    }
    if (!bootTimeKnown()) {
        return false; // The name alone proves nothing for this pid.
    }
    const std::int64_t actualStart = startTimeOf(info);
    const bool tooEarly = startTime > actualStart + kStartToleranceSec;
    const bool tooLate = startTime < actualStart - kStartToleranceSec;
    if (tooEarly || tooLate) {
        platform::trace(verbose > 4,
                        "initAppInfo: proc_info.starttime =%llu\n"
                        "initAppInfo: '%s' pid=%d start_time_t=%lld mismatch previous "
                        "start_time_t=%lld\n",
                        static_cast<unsigned long long>(info.starttime), app.name, pid,
                        static_cast<long long>(actualStart), static_cast<long long>(startTime));
        return false;
    }
    return isNamed(info, app);
}
