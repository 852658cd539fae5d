// Search of /proc for an application's process by its executable name.

#include <cstring>

#include "platform/InstallationDirectories.h"
#include "platform/ProcessScan.h"
#include "platform/Settings.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "platform/Trace.h"
#include "status/AppStatusUpdate.h"

namespace {

enum Refusal : int {
    kNoProc = -1,
    kNoProcess = -2,
    kOtherName = -3,
    kNoCommandLine = -4,
    kNotIncluded = -7,
    kExcluded = -8,
};

/// Length of a process's executable name as the kernel keeps it.
constexpr std::size_t kExeNameLength = 15;

} // namespace

int AppStatusUpdate::findDaemonName(appinfo& app) {
    if (!bootTimeKnown()) {
        (void)initBootTimeVars(); // A search without start times is better than none.
    }
    platform::trace(verbose >= 7, "findDaemonName: finding daemon for name=%.64s\n", app.name);

    platform::ProcDirectory proc;
    if (!proc.isOpen()) {
        return kNoProc;
    }
    int result = kNoProcess;
    platform::Candidate candidate;
    platform::ProcDirectory::Entry entry;
    while (result < 0 && platform::nextProcess(proc, entry)) {
        platform::trace(verbose >= 8, "findDaemonName: d_type=0x%x pid=%s\n", entry.type,
                        entry.name);
        const pid_t pid = platform::pidFromName(entry.name);
        if (pid != platform::currentProcessId()) { // The monitor is no application.
            result = examineCandidate(pid, app, candidate);
        }
    }
    if (result < 0) {
        platform::trace(verbose >= 7, "findDaemonName: daemon not found for pid=%d, name=%.64s !\n",
                        app.pid, app.name);
        return result;
    }
    adoptCandidate(candidate, app);
    return result;
}

/// The pid when the process is the application's, else the reason why not.
int AppStatusUpdate::examineCandidate(pid_t pid, const appinfo& app,
                                      platform::Candidate& candidate) const {
    if (get_proc_info_by_pid(pid, &candidate.info) != 0) {
        platform::trace(verbose >= 8, "findDaemonName: pid=%d process info not found\n", pid);
        return kNoProcess;
    }
    if (!isNamed(candidate.info, app)) {
        return kOtherName;
    }
    if (!platform::readCommandLine(pid, candidate)) {
        platform::trace(verbose >= 8,
                        "findDaemonName: pid=%d, starttime=%d, missing or invalid cmdline=\"%s\"\n",
                        pid, platform::traceTicks(candidate.info), candidate.cmdline);
        return kNoCommandLine;
    }
    if (!platform::isInIncludedDirectory(candidate.cmdline)) {
        platform::trace(verbose >= 8,
                        "findDaemonName: not included pid=%d, starttime=%d, cmdline=\"%s\"\n", pid,
                        platform::traceTicks(candidate.info), candidate.cmdline);
        return kNotIncluded;
    }
    if (platform::isInExcludedDirectory(candidate.cmdline)) {
        platform::trace(verbose >= 8,
                        "findDaemonName: excluded pid=%d, starttime=%d, cmdline=\"%s\"\n", pid,
                        platform::traceTicks(candidate.info), candidate.cmdline);
        return kExcluded;
    }
    return pid;
}

/// True when the process has the application's name, as far as the kernel keeps it; says when not.
bool AppStatusUpdate::isNamed(const statstruct_proc& info, const appinfo& app) {
    const bool named = std::strncmp(info.exeName, app.name, kExeNameLength) == 0;
    platform::trace(verbose >= 8 && !named,
                    "findDaemonName: pid=%d, exeName=%s mismatched daemon exeName=\"%.64s\"\n",
                    info.pid, info.exeName, app.name);
    return named;
}

void AppStatusUpdate::adoptCandidate(const platform::Candidate& candidate, appinfo& app) const {
    platform::trace(verbose >= 7,
                    "findDaemonName: found daemon pid=%d, starttime=%d cmdline=\"%s\"\n",
                    candidate.info.pid, platform::traceTicks(candidate.info), candidate.cmdline);
    app.pid = candidate.info.pid;
    if (bootTimeKnown()) {
        app.start_time = startTimeOf(candidate.info);
    }
    (void)platform::takePidFileName(app); // Without one the name stays.
    platform::copyToField(app.cmd, candidate.cmdline);
}
