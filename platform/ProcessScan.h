// What the searches of /proc share.

#ifndef OVARD_PLATFORM_PROCESS_SCAN_H
#define OVARD_PLATFORM_PROCESS_SCAN_H

#include <dirent.h>

#include "platform/Process.h"
#include "platform/Text.h"

namespace platform {

/// A process under examination.
struct Candidate {
    statstruct_proc info;
    char cmdline[1024]; ///< arguments separated by blanks
};

/// The next directory of `proc` that is named by a number, that is, a process; false at the end.
inline bool nextProcess(ProcDirectory& proc, ProcDirectory::Entry& entry) {
    while (proc.next(entry)) {
        if (entry.type == DT_DIR && isAllDigits(entry.name)) {
            return true;
        }
    }
    return false;
}

/// Reads the command line of `pid`. False when it cannot be read or does not begin with '/'; what
/// there is of it stands in the candidate all the same.
inline bool readCommandLine(pid_t pid, Candidate& candidate) {
    candidate.cmdline[0] = '\0';
    int length = sizeof candidate.cmdline;
    return get_proc_cmdline(pid, candidate.cmdline, &length) == 0 && candidate.cmdline[0] == '/';
}

/// Puts the name of the pid file that the process `app.pid` has really written into `app.pidfile`.
/// False when it has written none: the name stays.
inline bool takePidFileName(appinfo& app) {
    int length = sizeof app.pidfile;
    return get_pid_filename(&app.pid, app.pidfile, &length) == 0;
}

/// A start time as the traces show it.
inline int traceTicks(const statstruct_proc& info) {
    return static_cast<int>(info.starttime);
}

} // namespace platform

#endif // OVARD_PLATFORM_PROCESS_SCAN_H
