#include "runtime/Shutdown.h"

#include <pthread.h>

#include <csignal>

#include "platform/Console.h"
#include "platform/Heartbeat.h"
#include "platform/Settings.h"
#include "platform/Signals.h"
#include "platform/System.h"
#include "platform/SystemEvent.h"
#include "platform/Wait.h"
#include "runtime/Globals.h"
#include "runtime/Signals.h"

namespace {

/// While this file exists somebody else feeds the watchdog after the monitor has ended.
constexpr const char* kWatchdogKickFile = "/tmp/watchdog_kick";

/// The system holds the command thread: what it can touch must outlive it.
bool g_commandThreadIsStuck = false;

/// Further termination signals must not cut the shutdown short; with -b they may.
void setTerminationActions(void (*action)(int)) {
    if (!block_signal) {
        (void)platform::setSignalHandler(SIGINT, action); // Cannot fail for these.
        (void)platform::setSignalHandler(SIGTERM, action);
    }
}

void stopStartupThread() {
    if (thread_startupAppConfiguration != kNoThread &&
        pthread_cancel(thread_startupAppConfiguration) == 0) {
        pthread_join(thread_startupAppConfiguration, nullptr);
    }
    thread_startupAppConfiguration = kNoThread;
}

void stopCommunication() {
    if (appmgr == nullptr) {
        return;
    }
    try {
        appmgr->processTermination(appmgr);
        g_commandThreadIsStuck = !appmgr->commandThreadHasLeft();
        if (g_commandThreadIsStuck) {
            (void)platform::removeFile(AppServer::kSocketPath); // The rest is in use.
        } else {
            (void)appmgr->closeCommunication(); // The result of closing the log.
        }
    } catch (...) {
        platform::printConsoleLine("exception closing comm...");
    }
}

void stopTimer() {
    if (!initWatchDog) {
        return;
    }
    // A last tick, ignored, must not meet the default action, which would end the process.
    (void)platform::setSignalHandler(SIGUSR1, SIG_IGN);
    if (timerid != kNoTimer) {
        (void)platform::deleteTimer(timerid); // Gone is gone.
    }
    timerid = kNoTimer;
    (void)platform::setSignalHandler(SIGUSR1, SIG_DFL);
}

void restoreSavedContinueAction() {
    // SIG_DFL is the zero handler word: nothing was saved then.
    if (savedSigAction_SIGCONT.sa_handler != SIG_DFL) {
        (void)platform::setSignalAction(SIGCONT, &savedSigAction_SIGCONT, nullptr);
    }
}

void deleteManager() {
    if (appmgr == nullptr) {
        return;
    }
    try {
        if (!g_commandThreadIsStuck) {
            delete appmgr;
        }
    } catch (...) {
        platform::printConsoleLine("exception deleting appmgr...");
    }
    appmgr = nullptr;
}

void closeWatchdog(bool full) {
    const int device = wdog_fd;
    if (device == -1) {
        return;
    }
    try {
        // The results tell nothing that could be acted upon.
        (void)platform::writeDescriptor(device, "w", 1);
        if (full && !platform::pathExists(kWatchdogKickFile)) {
            (void)platform::writeDescriptor(device, "V", 1);
        }
        (void)platform::closeDescriptor(device);
    } catch (...) {
        platform::printConsoleLine("exception closing watchdog...");
    }
    wdog_fd = -1;
}

void removePidFile() {
    if (!pidfile.empty()) {
        (void)platform::removeFile(pidfile.c_str()); // It may be gone already.
    }
    pidfile.clear();
}

} // namespace

void ovardAtExit() {
    if (g_bDaemonShutdown.fetch_or(-1) != 0) {
        return;
    }
    setTerminationActions(SIG_IGN);
    platform::stopWatchingForTermination();
    stopStartupThread();
    platform::printConsoleLine("ovard ovardAtExit()");
    (void)g_ovard_initialization_mutex.Unlock(); // Nobody may be waiting.
    if (appmgr != nullptr) {
        reportWatchdogEvents(); // While SIGPIPE is still taken care of.
    }
    if (block_signal) {
        restoreLoggedSignals();
    }
    pthread_sigmask(SIG_SETMASK, &prevMask, nullptr);
    free_resources(true);
    heartbeat_cleanup(-1);
    removePidFile();
    platform::logSystemEvent("Application Monitor Stopped.");
    if (g_commandThreadIsStuck) {
        platform::leaveProcess(0); // Without the destructors of what that thread works on.
    }
    setTerminationActions(SIG_DFL);
}

void free_resources(bool full) {
    if (full) {
        stopCommunication();
        stopTimer();
        restoreSavedContinueAction();
        deleteManager();
    }
    closeWatchdog(full);
}
