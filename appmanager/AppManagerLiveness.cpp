// Is one application alive? The state machine that a supervision pass runs on each entry.
//
//     STARTING0 --+--> STARTING --+--> RUNNING <--+-- DEAD, START_FAILURE (came back by itself)
//                 |               |        ^      |
//                 +--> RUNNING0 <-+--------+------+
//                 |       |       |        |
//                 v       v       v        v
//        START_FAILURE   DEAD   START_FAILURE   DEAD
//
// Confirmed means that the pid file names the entry's process and version. An entry that waits for
// its confirmation holds the pass; see kPollMs.

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "appmanager/AppManager.h"
#include "appmanager/DateText.h"
#include "platform/Heartbeat.h"
#include "platform/Settings.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "platform/Time.h"
#include "platform/Trace.h"
#include "platform/Wait.h"
#include "records/codes.h"

namespace {

/// Polls in one second, and the pause after each.
constexpr int kPollsPerSecond = 10;
constexpr int kPollMs = 100;

/// Pause after a warning about an entry that is not running.
constexpr int kWarningPauseMs = 100;

/// Results of checkAlive.
constexpr int kInOrder = 1;
constexpr int kNeedsAttention = 0;

constexpr const char* kDataServerName = "data_server";

int mostPolls() {
    return kPollsPerSecond * app_pidfile_minimum_start_time;
}

std::int32_t ageSec(const appinfo& entry, std::time_t now) {
    return platform::secondsSince(static_cast<std::uint32_t>(entry.start_time), now);
}

bool isInGrace(const appinfo& entry, std::time_t now) {
    const std::int32_t sinceStartSec = ageSec(entry, now);
    return sinceStartSec >= 0 && sinceStartSec < app_heartbeat_minimum_start_time;
}

int confirmPidFile(const appinfo& entry) {
    return read_pid_file_version(entry, entry.pidfile, entry.version);
}

void traceGrace(const appinfo& entry, const char* phase, std::time_t now) {
    platform::trace(verbose >= 7, "checkAlive() %s pid=%d start_time=%s %s for %ld sec\n",
                    entry.name, entry.pid, DateText(entry.start_time).text, phase,
                    static_cast<long>(ageSec(entry, now)));
}

} // namespace

/// What polling for the confirmation of an entry found out.
struct AppManager::Confirmation {
    enum Outcome {
        Confirmed,   ///< alive, and the pid file is right
        Unconfirmed, ///< alive to the last poll
        NotAlive,    ///< found dead, or never looked at
        Unknown,     ///< the monitor is asked to end
    } outcome;
    int lastResult; ///< of read_pid_file_version; -1 when it never ran
};

int AppManager::checkAlive(std::vector<appinfo>::iterator entry) {
    const std::time_t now = platform::currentTime();
    if (verbose > 5) {
        platform::trace(true, "checkAlive() %s status=%d pid=%d at %s\n", entry->name,
                        entry->status, entry->pid, platform::localTimeText(now).c_str());
    }
    if (!statusUpdate_.bootTimeKnown()) {
        (void)statusUpdate_.initBootTimeVars(); // Tried again at the next entry.
    }
    switch (entry->status) {
    case APP_STATUS_INITIALIZING:
    case APP_STATUS_STARTING0:
        return checkStarting0(*entry, now);
    case APP_STATUS_STARTING:
        return checkStarting(*entry, now);
    case APP_STATUS_RUNNING0:
        return checkRunning0(*entry, now);
    case APP_STATUS_RUNNING:
        return checkRunning(*entry, now);
    case APP_STATUS_DEAD:
        return checkFailed(*entry, "dead");
    case APP_STATUS_START_FAILURE:
        return checkFailed(*entry, "start failure");
    default:
        return checkUnsupervised(*entry);
    }
}

int AppManager::checkStarting0(appinfo& entry, std::time_t now) {
    platform::trace(verbose > 7, "checkAlive() starting0\n");
    if (isInGrace(entry, now)) {
        traceGrace(entry, "starting0", now);
        return kInOrder;
    }
    const bool cameAlive = pollUntilAlive(entry.pid);
    const Confirmation found =
        cameAlive ? pollConfirmation(entry) : Confirmation{Confirmation::NotAlive, -1};
    if (found.outcome == Confirmation::Unknown || platform::terminationPending()) {
        return kInOrder;
    }
    if (found.outcome == Confirmation::Confirmed) {
        entry.status = APP_STATUS_STARTING;
        report(verbose > 3, verbose > 5,
               "checkAlive: %s[pid=%d] starting0 confirmed pidfile, now starting", entry.name,
               entry.pid);
        noteDataServer(entry);
        return kInOrder;
    }
    if (found.outcome == Confirmation::Unconfirmed) {
        // Deliberate: the text says running, and the result asks for attention.
        entry.status = APP_STATUS_RUNNING0;
        report(verbose > 3, verbose > 5,
               "checkAlive: %s[pid=%d] starting0 unconfirmed pidfile, now running", entry.name,
               entry.pid);
        return kNeedsAttention;
    }
    entry.status = APP_STATUS_START_FAILURE;
    report(verbose > 2, verbose > 5,
           "checkAlive: %s[pid=%d] start_time=%s starting0 confirmed start failure", entry.name,
           entry.pid, DateText(entry.start_time).text);
    return kNeedsAttention;
}

int AppManager::checkStarting(appinfo& entry, std::time_t now) {
    platform::trace(verbose > 7, "checkAlive() starting\n");
    if (isInGrace(entry, now)) {
        traceGrace(entry, "starting", now);
        return kInOrder;
    }
    switch (pollConfirmation(entry).outcome) {
    case Confirmation::Confirmed:
        entry.status = APP_STATUS_RUNNING;
        report(verbose > 3, verbose > 5,
               "checkAlive: %s[pid=%d] starting confirmed pidfile, now running", entry.name,
               entry.pid);
        noteDataServer(entry);
        return kInOrder;
    case Confirmation::Unconfirmed:
        entry.status = APP_STATUS_RUNNING0;
        report(verbose > 3, verbose > 5,
               "checkAlive: %s[pid=%d] starting unconfirmed pidfile, now running0", entry.name,
               entry.pid);
        return kInOrder;
    case Confirmation::NotAlive:
        entry.status = APP_STATUS_START_FAILURE;
        entry.check_flag = 0;
        report(verbose > 2, verbose > 5,
               "checkAlive: %s[pid=%d] start_time=%s starting, confirmed dead", entry.name,
               entry.pid, DateText(entry.start_time).text);
        return kNeedsAttention;
    case Confirmation::Unknown:
        break;
    }
    return kInOrder;
}

int AppManager::checkRunning0(appinfo& entry, std::time_t now) {
    platform::trace(verbose > 7, "checkAlive() running0\n");
    if (isInGrace(entry, now)) {
        traceGrace(entry, "running0", now);
        return kInOrder;
    }
    const Confirmation found = pollConfirmation(entry);
    switch (found.outcome) {
    case Confirmation::Confirmed:
        entry.status = APP_STATUS_RUNNING;
        report(verbose > 3, verbose > 5,
               "checkAlive: %s[pid=%d] running0 confirmed pidfile, now running", entry.name,
               entry.pid);
        noteDataServer(entry);
        return kInOrder;
    case Confirmation::Unconfirmed:
        if (entry.heartbeat != 0) { // Its heartbeats tell whether it lives.
            entry.status = APP_STATUS_RUNNING;
            report(verbose > 3, verbose > 5,
                   "checkAlive: %s[pid=%d] running0 unconfirmed pidfile required, now running",
                   entry.name, entry.pid);
        }
        return kInOrder;
    case Confirmation::NotAlive:
        entry.status = APP_STATUS_DEAD;
        entry.check_flag = 0;
        report(verbose > 2, verbose > 5,
               "checkAlive: %s[pid=%d] start_time=%s running0, confirmed dead ret=%d", entry.name,
               entry.pid, DateText(entry.start_time).text, found.lastResult);
        return kNeedsAttention;
    case Confirmation::Unknown:
        break;
    }
    return kInOrder;
}

int AppManager::checkRunning(appinfo& entry, std::time_t now) {
    platform::trace(verbose > 7, "checkAlive() running\n");
    if (isInGrace(entry, now)) {
        platform::trace(verbose >= 7, "checkAlive: %s[pid=%d] start_time=%s running for %ld sec\n",
                        entry.name, entry.pid, DateText(entry.start_time).text,
                        static_cast<long>(ageSec(entry, now)));
        return kInOrder;
    }
    if (ovard_check_pid_alive(entry.pid) == 0) {
        entry.status = APP_STATUS_DEAD;
        entry.check_flag = 0;
        report(verbose > 2, verbose > 5, "checkAlive: %s[pid=%d] start_time=%s running, is dead",
               entry.name, entry.pid, DateText(entry.start_time).text);
        return kNeedsAttention;
    }
    if (entry.check_flag == 0) {
        if (entry.priority != 0) {
            (void)platform::setProcessPriority(entry.pid, entry.priority); // Runs on without it.
        }
        entry.check_flag = 1;
        report(true, false, "checkAlive: %s[pid=%d] running, is alive", entry.name, entry.pid);
    }
    return checkHeartbeat(entry);
}

int AppManager::checkHeartbeat(appinfo& entry) {
    last_heartbeat_result = heartbeat_check(entry.pid, app_heartbeat_expire_interval);
    if (last_heartbeat_result == platform::kHeartbeatExpired) {
        entry.status = APP_STATUS_DEAD;
        entry.check_flag = 0;
        report(verbose > 2, verbose > 5,
               "checkAlive: %s[pid=%d] start_time=%s running, heartbeat dead", entry.name,
               entry.pid, DateText(entry.start_time).text);
        if (entry.pid != -1 && ovard_check_pid_alive(entry.pid) == 0) {
            heartbeat_cleanup(entry.pid);
        }
        return kNeedsAttention;
    }
    if (last_heartbeat_result == platform::kHeartbeatNone && entry.heartbeat != 0) {
        entry.check_flag = 0;
        report(verbose > 2, verbose > 5,
               "checkAlive: %s[pid=%d] start_time=%s running, heartbeat missing", entry.name,
               entry.pid, DateText(entry.start_time).text);
        return kNeedsAttention;
    }
    return kInOrder;
}

/// A dead application, or one that failed to start (`condition`), may have come back by itself.
int AppManager::checkFailed(appinfo& entry, const char* condition) {
    warn(entry, condition);
    entry.check_flag = 0;
    if (ovard_check_pid_alive(entry.pid) == 0) {
        return kNeedsAttention;
    }
    const bool confirmed = confirmPidFile(entry) == 0;
    entry.status = confirmed ? APP_STATUS_RUNNING : APP_STATUS_RUNNING0;
    // Deliberate: the text claims a pid file in both cases.
    report(true, verbose > 3, "checkAlive: %s[pid=%d] %s, confirmed alive and pidfile, now %s",
           entry.name, entry.pid, condition, confirmed ? "running" : "running0");
    return kInOrder;
}

int AppManager::checkUnsupervised(appinfo& entry) {
    entry.check_flag = 0;
    warn(entry, "unknown status");
    if (ovard_check_pid_alive(entry.pid) != 0) {
        (void)confirmPidFile(entry); // Deliberate: without consequences.
    }
    return kNeedsAttention;
}

/// True once the process is alive; tried for the polling time.
bool AppManager::pollUntilAlive(int pid) {
    bool alive = false;
    for (int poll = 0; poll < mostPolls() && !alive && !platform::terminationPending(); ++poll) {
        alive = ovard_check_pid_alive(pid) != 0;
        platform::sleepMilliseconds(kPollMs);
    }
    return alive;
}

AppManager::Confirmation AppManager::pollConfirmation(const appinfo& entry) {
    Confirmation found = {Confirmation::NotAlive, -1};
    bool settled = false;
    for (int poll = 0; poll < mostPolls() && !settled && !platform::terminationPending(); ++poll) {
        const bool alive = ovard_check_pid_alive(entry.pid) != 0;
        if (alive) {
            found.lastResult = confirmPidFile(entry);
        }
        platform::sleepMilliseconds(kPollMs);
        const bool confirmed = alive && found.lastResult == 0;
        settled = !alive || confirmed;
        found.outcome = !alive      ? Confirmation::NotAlive
                        : confirmed ? Confirmation::Confirmed
                                    : Confirmation::Unconfirmed;
    }
    if (platform::terminationPending()) {
        found.outcome = Confirmation::Unknown; // Waits are cut short: polls prove nothing.
    }
    return found;
}

/// The boot time is settled once more when the data server has been seen to start: by then the
/// instrument has set its clock.
void AppManager::noteDataServer(const appinfo& entry) {
    if (!bFirstDataServerAfterSystemBoot && platform::fieldText(entry.name) == kDataServerName) {
        (void)statusUpdate_.initBootTimeVars(); // A failure leaves the boot time as it was.
        bFirstDataServerAfterSystemBoot = true;
    }
}

void AppManager::warn(const appinfo& entry, const char* condition) {
    if (verbose > 7) {
        report(true, true, "warning: checkAlive: %s[pid=%d] start_time=%s status=%d, %s",
               entry.name, entry.pid, DateText(entry.start_time).text, entry.status, condition);
        platform::sleepMilliseconds(kWarningPauseMs);
    }
}

void AppManager::report(bool logged, bool shown, const char* format, ...) {
    if (!logged) {
        return;
    }
    char text[platform::kLogTextSize];
    std::va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(text, sizeof text, format, arguments); // Longer texts are cut.
    va_end(arguments);
    writeLog(kLogInfo, "%s", text);
    platform::trace(shown, "%s\n", text);
}
