// Which process is the application: the search of /proc for the daemon that a launch left behind,
// and small process utilities.

#include <fcntl.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

#include "appmanager/AppManager.h"
#include "appmanager/CommandWords.h"
#include "platform/InstallationDirectories.h"
#include "platform/ProcessScan.h"
#include "platform/Settings.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "platform/Time.h"
#include "platform/Trace.h"
#include "platform/Wait.h"

namespace {

constexpr int kDaemonDeadlineSec = 30;
constexpr int kExitPollMs = 1;
constexpr int kSearchPauseMs = 100;

/// Why findDaemon refused a process.
enum Refusal : int {
    kNoProc = -1,
    kNoFacts = -2,
    kNoCommandLine = -3,
    kOtherWordCount = -5,
    kOtherWords = -6,
    kNotIncluded = -7,
    kExcluded = -8,
};

/// Why waitForDaemonization gave up.
enum WaitFailure : int {
    kNoPid = -1,
    kNoProcess = -2,
    kNoCommand = -3,
    kTooLate = -4,
    kNoBootTime = -5,
};

} // namespace

/// What a process is compared with.
struct AppManager::Wanted {
    const char* cmd; ///< for messages
    int argc;
    char** argv;
    bool argv0Only;
};

int AppManager::findDaemon(appinfo& app, const statstruct_proc* info, int argc, char** argv,
                           bool argv0_only) {
    if (!statusUpdate_.bootTimeKnown()) {
        (void)statusUpdate_.initBootTimeVars(); // Without it the start time stays as it is.
    }
    platform::trace(verbose > 6, "findDaemon: finding daemon for pid=%d, name=%s\n", info->pid,
                    app.name);
    platform::ProcDirectory proc;
    if (!proc.isOpen()) {
        return kNoProc;
    }
    const Wanted wanted = {app.cmd, argc, argv, argv0_only};
    int result = kNoFacts;
    platform::Candidate candidate;
    platform::ProcDirectory::Entry entry;
    while (result < 0 && platform::nextProcess(proc, entry)) {
        platform::trace(verbose > 7, "findDaemon: d_type=0x%x pid=%s\n", entry.type, entry.name);
        const pid_t pid = platform::pidFromName(entry.name);
        if (pid != platform::currentProcessId()) { // The monitor is no application.
            result = examineCandidate(pid, wanted, candidate);
        }
    }
    if (result < 0) {
        platform::trace(verbose >= 7,
                        "findDaemon: daemon not found for pid=%d, name=%s !\n"
                        "findDaemon: check daemonInclusionList and daemonExclusionList!\n",
                        info->pid, app.name);
        return result;
    }
    adoptDaemon(candidate, app);
    return result;
}

/// The pid when the process is the one wanted, else the reason why not.
int AppManager::examineCandidate(pid_t pid, const Wanted& wanted, platform::Candidate& candidate) {
    if (get_proc_info_by_pid(pid, &candidate.info) != 0) {
        platform::trace(verbose > 7, "findDaemon: pid=%d process info not found\n", pid);
        return kNoFacts;
    }
    if (!platform::readCommandLine(pid, candidate)) {
        platform::trace(verbose > 7,
                        "findDaemon: pid=%d, starttime=%d, missing or invalid cmdline=\"%s\"\n",
                        pid, platform::traceTicks(candidate.info), candidate.cmdline);
        return kNoCommandLine;
    }
    const int refusal = compareWords(wanted, candidate);
    if (refusal != 0) {
        return refusal;
    }
    if (!platform::isInIncludedDirectory(candidate.cmdline)) {
        platform::trace(verbose > 7,
                        "findDaemon: not included pid=%d, starttime=%d, cmdline=\"%s\"\n", pid,
                        platform::traceTicks(candidate.info), candidate.cmdline);
        return kNotIncluded;
    }
    if (platform::isInExcludedDirectory(candidate.cmdline)) {
        platform::trace(verbose > 7, "findDaemon: excluded pid=%d, starttime=%d, cmdline=\"%s\"\n",
                        pid, platform::traceTicks(candidate.info), candidate.cmdline);
        return kExcluded;
    }
    return pid;
}

/// 0 when the process runs with the wanted words, else the reason why not.
int AppManager::compareWords(const Wanted& wanted, const platform::Candidate& candidate) {
    const CommandWords words(*this, candidate.cmdline);
    if (words.count() == 0 || words.count() != wanted.argc || words.isCut()) {
        platform::trace(
            verbose > 7 || (verbose >= 3 && words.count() == 0),
            "findDaemon: app cmdline=%s argc=%d mismatch for pid=%d, cmdline=\"%s\" argc=%d\n",
            wanted.cmd, wanted.argc, candidate.info.pid, candidate.cmdline, words.count());
        return kOtherWordCount;
    }
    const int compared = wanted.argv0Only ? 1 : wanted.argc;
    for (int index = 0; index < compared; ++index) {
        const char* const expected = wanted.argv[index];
        const char* const found = words.words()[index];
        if (std::strcmp(expected, found) == 0) {
            continue;
        }
        platform::trace(verbose > 7 && wanted.argv0Only,
                        "findDaemon: app cmdline=%s argv[%d]=%s argv[0] mismatch for pid=%d, "
                        "cmdline=\"%s\" argv[%d]=\"%s\"\n",
                        wanted.cmd, index, expected, candidate.info.pid, candidate.cmdline, index,
                        found);
        platform::trace(verbose > 7 && !wanted.argv0Only,
                        "findDaemon: app cmdline=%s argv[%d]=%s mismatch for pid=%d, "
                        "cmdline=\"%s\" argv[%d]=\"%s\"\n",
                        wanted.cmd, index, expected, candidate.info.pid, candidate.cmdline, index,
                        found);
        return kOtherWords;
    }
    return 0;
}

void AppManager::adoptDaemon(const platform::Candidate& candidate, appinfo& app) {
    app.pid = candidate.info.pid;
    if (statusUpdate_.bootTimeKnown()) {
        app.start_time = statusUpdate_.startTimeOf(candidate.info);
    }
    (void)platform::takePidFileName(app); // Without one the name stays.
    if (verbose > 6) {
        char date[256];
        getDateStringFromTimeStruct(date, app.start_time);
        platform::trace(true, "findDaemon: found daemon pid=%d, starttime=%d(%s) cmdline=\"%s\"\n",
                        app.pid, platform::traceTicks(candidate.info), date, candidate.cmdline);
    }
}

int AppManager::waitForDaemonization(appinfo& app, platform::UniqueFd* gate) {
    if (app.pid < 1) {
        return kNoPid;
    }
    statstruct_proc facts = {};
    if (get_proc_info_by_pid(app.pid, &facts) != 0) {
        platform::trace(verbose >= 3, "waitForDaemonization: pid=%d proc info error\n", app.pid);
        return kNoProcess;
    }
    const CommandWords command(*this, app.cmd);
    if (command.count() == 0) {
        platform::trace(verbose >= 3, "waitForDaemonization: pid=%d commandline_parser error\n",
                        app.pid);
        return kNoCommand;
    }
    if (gate != nullptr) {
        gate->reset(); // Until now the process was a copy of the monitor: no pid file of its own.
    } else {
        (void)platform::takePidFileName(app);
    }
    const int result = awaitDaemon(app, facts, command.count(), command.words());
    if (result < 0 && gate != nullptr) {
        (void)platform::takePidFileName(app);
    }
    if (result > 0) {
        platform::trace(verbose >= 7, "waitForDaemonization: found pid=%d, pidfile=\"%s\"\n",
                        result, app.pidfile);
    }
    return result;
}

/// Waits until the launched process `app.pid` has exited, then searches for the daemon that it left
/// behind.
int AppManager::awaitDaemon(appinfo& app, statstruct_proc& facts, int argc, char** argv) {
    const pid_t launched = app.pid;
    const std::string path = "/proc/" + std::to_string(launched);
    const std::time_t begin = platform::currentTime();
    std::time_t termination = 0;
    platform::trace(verbose > 6,
                    "waitForDaemonization: waiting for pid=%d name=%s starting at %ld\n", launched,
                    app.name, static_cast<long>(begin));
    for (;;) {
        const std::time_t now = platform::currentTime();
        if (now < begin || std::int64_t{now} - begin > kDaemonDeadlineSec) {
            platform::trace(verbose >= 7,
                            "waitForDaemonization: pid=%d, name=%s timeout at %ld!!!\n", launched,
                            app.name, static_cast<long>(now));
            return kTooLate;
        }
        if (platform::terminationPending()) {
            return kTooLate;
        }
        if (platform::pathExists(path.c_str())) {
            platform::sleepMilliseconds(kExitPollMs);
            continue;
        }
        if (termination == 0) {
            termination = now;
            platform::trace(verbose > 7, "waitForDaemonization: pid=%d, termination time_t=%ld\n",
                            launched, static_cast<long>(termination));
        }
        const int result = searchDaemon(app, facts, argc, argv, termination);
        if (result != 0) {
            return result;
        }
    }
}

/// One search for the daemon of a launched process that has exited: its pid, 0 to search again
/// (after a pause), or a reason to give up.
int AppManager::searchDaemon(appinfo& app, statstruct_proc& facts, int argc, char** argv,
                             std::time_t termination) {
    if (!statusUpdate_.bootTimeKnown()) {
        platform::trace(verbose > 2, "waitForDaemonization: jiffiesPerSec=%d, boot_time_t=%ld\n",
                        statusUpdate_.clockTicksPerSecond(),
                        static_cast<long>(statusUpdate_.bootTime()));
        (void)statusUpdate_.initBootTimeVars();
        if (!statusUpdate_.bootTimeKnown()) {
            return kNoBootTime;
        }
        platform::sleepMilliseconds(kExitPollMs);
        return 0;
    }
    facts.starttime = statusUpdate_.clockTicksAt(termination);
    const int found = findDaemon(app, &facts, argc, argv, false);
    if (found > 0) {
        return found;
    }
    platform::sleepMilliseconds(kSearchPauseMs);
    return 0;
}

int AppManager::ovard_check_pid_alive(int pid) {
    if (pid <= 0) {
        return 0;
    }
    errno = 0;
    (void)platform::sendSignal(pid, 0); // errno alone decides.
    return errno == ESRCH ? 0 : 1;
}

int AppManager::file2str(const char* path, char* buffer, int length) {
    buffer[0] = '\0';
    const platform::UniqueFd file = platform::openFile(path, O_RDONLY);
    if (!file.valid()) {
        return -1;
    }
    const ssize_t count = ::read(file.get(), buffer, static_cast<std::size_t>(length));
    if (count <= 0) {
        buffer[0] = '\0';
        return -2;
    }
    buffer[count] = '\0';
    return static_cast<int>(count);
}

int AppManager::is_uint(const char* text) {
    return platform::isAllDigits(text) ? 0 : -1;
}

int AppManager::updateUptime(std::time_t start) {
    return platform::secondsSince(static_cast<std::uint32_t>(start), platform::currentTime());
}
