// The supervision pass: what becomes of each application, and of the machine.

#include <cerrno>
#include <cstdint>

#include "appmanager/AppManager.h"
#include "platform/Console.h"
#include "platform/MutexGuard.h"
#include "platform/ProcessScan.h"
#include "platform/Settings.h"
#include "platform/System.h"
#include "platform/SystemEvent.h"
#include "platform/Time.h"
#include "platform/Trace.h"
#include "platform/Wait.h"
#include "records/codes.h"

namespace {

/// Nothing is supervised until the boot of the system is over, in seconds after it.
constexpr int kBootPeriodSec = 89;

/// Bit of the health word.
constexpr std::int16_t kHealthStartFailure = 0x4000;

constexpr int kSettlePauseMs = 2000;

constexpr const char* kArmWatchdogCommand = "/bin/echo 1 > /dev/watchdog";

bool isRunning(const appinfo& entry) {
    return entry.status >= APP_STATUS_STARTING0 && entry.status <= APP_STATUS_RUNNING;
}

} // namespace

int AppManager::checkStatus(bool bErasePreloadApplistEntries) {
    if (statusUpdate_.bootTime() == 0) {
        (void)statusUpdate_.initBootTimeVars(); // Without it supervision starts at once.
    }
    if (systemIsBooting()) {
        return 0;
    }
    {
        const platform::PatientGuard lock(app_lock);
        if (!lock.held()) {
            return 0;
        }
        std::int16_t health = 0;
        checkEntries(bErasePreloadApplistEntries, health);
        (void)statusUpdate_.update_IEC61850_health(&health); // Tried again at the next pass.
        statusUpdate_.set_sys_health(health);
        if (verbose > 4) {
            displayAppList(applist);
        }
    }
    if (platform::terminationPending()) {
        return 0; // Applications outlive the monitor.
    }
    if (reboot_requested) {
        rebootSystem();
    } else if (restart_all_requested) {
        restartAll();
    }
    return 0;
}

bool AppManager::systemIsBooting() const {
    // Deliberate: the boot of a machine without a clock of its own counts, too. It happens in 1970,
    // and what is reckoned lies a second before.
    const std::int32_t sinceBootSec =
        platform::secondsSince(statusUpdate_.bootTime(), platform::currentTime());
    return statusUpdate_.bootTime() != 0 && sinceBootSec >= 0 && sinceBootSec <= kBootPeriodSec;
}

/// The walk over the registry. Caller holds `app_lock`.
void AppManager::checkEntries(bool eraseUnusable, std::int16_t& health) {
    auto entry = applist.begin();
    while (entry != applist.end() && g_bDaemonShutdown == 0) {
        platform::yieldProcessor();
        if (eraseUnusable && isUnusable(*entry)) {
            entry = applist.erase(entry);
            continue;
        }
        const bool isPreloaded = !eraseUnusable && entry->pidfile[0] == '\0';
        if (isPreloaded || checkAlive(entry) == 1) {
            updateRunningEntry(*entry);
        } else if (platform::terminationPending()) {
            break; // Applications outlive the monitor.
        } else {
            handleFailure(*entry, health);
        }
        ++entry;
    }
}

/// True for an entry that cannot be supervised or not be started again; says so.
bool AppManager::isUnusable(const appinfo& entry) {
    if (entry.pidfile[0] == '\0') {
        platform::trace(verbose > 2, "erase empty pidfile entry for %s\n", entry.name);
        return true;
    }
    if (entry.cmd[0] == '\0') {
        platform::trace(verbose > 2, "erase empty cmd line entry for %s\n", entry.name);
        return true;
    }
    return false;
}

void AppManager::updateRunningEntry(appinfo& entry) {
    if (!isRunning(entry)) {
        return;
    }
    entry.uptime = updateUptime(entry.start_time);
    if (platform::takePidFileName(entry)) {
        // Deliberate: without consequences.
        (void)read_pid_file_version(entry, entry.pidfile, entry.version);
    }
}

/// Carries out, or asks for, what the restart policy of a failed application demands.
void AppManager::handleFailure(appinfo& entry, std::int16_t& health) {
    if (entry.status == APP_STATUS_START_FAILURE) {
        health = static_cast<std::int16_t>(health | kHealthStartFailure);
        statusUpdate_.set_sys_health(health);
        if (entry.restart_type == RESTART_TYPE_ALL) {
            reboot_requested = true;
            report(verbose > 2, verbose > 2, "%s[pid=%d] start failure, reboot request", entry.name,
                   entry.pid);
            return;
        }
    }
    if (entry.restart_type == RESTART_TYPE_SELF) {
        if (restart_process(entry) == 0) {
            entry.status = APP_STATUS_STARTING0;
            // Deliberate: without consequences.
            (void)read_pid_file_version(entry, entry.pidfile, entry.version);
        }
    } else if (entry.restart_type == RESTART_TYPE_ALL) {
        requestRestartOfAll(entry);
    }
}

/// One that died young may be cured by a restart of all applications; else the machine restarts.
void AppManager::requestRestartOfAll(const appinfo& entry) {
    if (entry.last_runtime_life_limit != 0 && entry.last_runtime_life_limit > entry.uptime) {
        restart_all_requested = true;
        report(true, verbose > 2, "%s[pid=%d] restartall request", entry.name, entry.pid);
    } else {
        reboot_requested = true;
        report(true, verbose > 2, "%s[pid=%d] reboot request", entry.name, entry.pid);
    }
}

void AppManager::restartAll() {
    restart_all_requested = false;
    platform::printConsoleLine("RESTART ALL...");
    platform::logSystemEvent("restart all");
    (void)stop_allprocess(); // What could not be stopped is started anew all the same.
    platform::sleepMilliseconds(kSettlePauseMs);
    const int started = start_allprocess();
    if (platform::terminationPending()) {
        return; // The monitor's own end was cutting it short.
    }
    if ((started != 0 && started != kResultNotFound) || reboot_requested) {
        rebootSystem();
    }
}

void AppManager::rebootSystem() {
    reboot_requested = false;
    (void)stop_allprocess(); // The machine restarts whatever could be stopped.
    writeLog(kLogInfo, "Appmon reboot system");
    platform::printConsoleLine("REBOOTING...");
    platform::logSystemEvent("reboot system");
    platform::sleepMilliseconds(kSettlePauseMs);
    platform::flushFileSystems();
    if (platform::runShellCommand(kArmWatchdogCommand) != 0) {
        platform::trace(true, "error=%d enabling watchdog for reboot\n", errno);
    }
    platform::flushFileSystems();
    if (platform::restartMachine() != 0) {
        (void)start_allprocess(); // Supervision goes on with what could be started.
    }
}

int AppManager::updateStatus() {
    platform::PatientGuard lock(app_lock);
    if (lock.held()) {
        (void)statusUpdate_.updateUserShm(applist); // Always 0.
    }
    const int result = lock.release();
    systemSegmentNotice_.update(*this, statusUpdate_.systemSegmentError());
    applicationSegmentNotice_.update(*this, statusUpdate_.applicationSegmentError());
    return result;
}
