// Stopping and restarting applications, one or all.

#include <sys/wait.h>

#include <cerrno>
#include <csignal>

#include "appmanager/AppManager.h"
#include "platform/Console.h"
#include "platform/MutexGuard.h"
#include "platform/Settings.h"
#include "platform/System.h"
#include "platform/Thread.h"
#include "platform/Time.h"
#include "platform/Trace.h"
#include "platform/Wait.h"
#include "records/codes.h"

namespace {

constexpr int kAliveSleeps = 10;
constexpr int kAliveSleepMs = 100;
constexpr int kEndTests = 5;
constexpr int kEndSleepMs = 10;
constexpr int kMostStrayCopies = 100;

} // namespace

int AppManager::stop_process(appinfo& app) {
    if (app.status == APP_STATUS_STARTING0 && app.pidfile[0] != '\0' && !comesAlive(app.pid)) {
        return kResultStopFailed;
    }
    if (app.pid > 0) {
        endProcess(app.pid);
    }
    app.status = APP_STATUS_STOPPED;
    platform::trace(verbose > 5, "stop_process %s pid=%d\n", app.name, app.pid);
    writeLog(kLogInfo, "%s[pid=%d] is stopped", app.name, app.pid);
    huntStrayCopies(app);
    return 0;
}

/// Gives a just-launched process about one second to appear.
bool AppManager::comesAlive(int pid) {
    for (int sleeps = 0; ovard_check_pid_alive(pid) == 0; ++sleeps) {
        if (sleeps == kAliveSleeps) {
            return false;
        }
        platform::sleepMilliseconds(kAliveSleepMs);
    }
    return true;
}

/// SIGTERM, at most 50 ms of patience, SIGKILL. The patience is the application's due even when the
/// monitor itself is asked to end.
void AppManager::endProcess(int pid) {
    (void)platform::sendSignal(pid, SIGTERM); // It may be gone already.
    for (int test = 0; test < kEndTests && ovard_check_pid_alive(pid) != 0; ++test) {
        platform::sleepRegardless(kEndSleepMs);
    }
    // Deliberate: also when it has gone after SIGTERM.
    (void)platform::sendSignal(pid, SIGKILL);
}

/// Ends running copies of the application that the record does not know. The search fills in what
/// it finds, so it works on a copy: the record keeps its pid and its command.
void AppManager::huntStrayCopies(const appinfo& app) {
    for (int count = 0; count < kMostStrayCopies && !platform::terminationPending(); ++count) {
        platform::admitCancellation(); // A search of a full /proc takes its time.
        appinfo stray = app;
        const int pid = statusUpdate_.findDaemonName(stray);
        if (pid < 1) {
            return;
        }
        endProcess(pid);
        writeLog(kLogInfo, "%s[pid=%d] is stopped", app.name, pid);
    }
}

int AppManager::restart_process(appinfo& app) {
    platform::trace(verbose > 5, "restart_process %s restart_type=%d\n", app.name,
                    app.restart_type);
    if (app.restart_type == RESTART_TYPE_ALL) {
        restart_all_requested = true;
        return 0;
    }
    const int stopped = stop_process(app);
    return stopped != 0 ? stopped : start_process(app);
}

int AppManager::stop_allprocess() {
    const platform::PatientGuard lock(app_lock);
    if (!lock.held() || applist.empty()) {
        return kResultNotFound;
    }
    int result = 0;
    // Deliberate: the first registered application survives.
    for (std::size_t index = applist.size() - 1; index > 0; --index) {
        if (platform::terminationPending()) {
            break; // Applications outlive the monitor.
        }
        appinfo copy = applist[index];
        result = stop_process(copy);
        applist[index].status = copy.status;
    }
    return result;
}

int AppManager::start_allprocess() {
    const platform::PatientGuard lock(app_lock);
    if (!lock.held() || applist.empty()) {
        return kResultNotFound;
    }
    int result = 0;
    for (appinfo& entry : applist) {
        if (platform::terminationPending() && entry.status != APP_STATUS_STOPPED) {
            continue; // The stop before was cut short, and this one left running.
        }
        appinfo copy = entry;
        if (start_process(copy) != 0) {
            result = kResultRestartFailed;
        }
        entry.status = copy.status;
        entry.pid = copy.pid;
        entry.start_time = copy.start_time;
    }
    return result;
}

int AppManager::restart_allprocess() {
    const platform::PatientGuard lock(app_lock);
    if (!lock.held() || applist.empty()) {
        return kResultNotFound;
    }
    for (appinfo& entry : applist) {
        if (platform::terminationPending()) {
            break; // Applications outlive the monitor.
        }
        appinfo copy = entry;
        const int result = restart_process(copy);
        entry.status = copy.status;
        if (result != 0) {
            return kResultRestartFailed;
        }
        entry.pid = copy.pid;
        entry.start_time = copy.start_time;
    }
    return 0;
}

int AppManager::reap_children() {
    const int savedErrno = errno;
    int status = 0;
    const pid_t pid = platform::waitForProcess(-1, &status, WNOHANG);
    if (pid > 0) {
        return pid;
    }
    if (pid == -1 && errno != ECHILD) {
        platform::printError("waitpid");
    }
    errno = savedErrno;
    return 0;
}
