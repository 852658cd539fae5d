#include "runtime/Signals.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "platform/Console.h"
#include "platform/ErrorOf.h"
#include "platform/Settings.h"
#include "platform/Signals.h"
#include "platform/System.h"
#include "platform/SystemEvent.h"
#include "platform/Time.h"
#include "platform/Trace.h"
#include "platform/Wait.h"
#include "runtime/Globals.h"
#include "runtime/Shutdown.h"

namespace {

/// Seconds of timer ticks without a turn of the main loop after which feeding stops.
constexpr std::uint32_t kStallBudgetSec = 25;

constexpr int kParkMs = 1000;

/// Signals that option -b logs, in the order of their installation, with the texts of a failure.
/// Deliberate: the last one has no text for the console.
struct LoggedSignal {
    int number;
    const char* consoleText;
    const char* errorText;
    const char* logText;
};
constexpr LoggedSignal kLoggedSignals[] = {
    {SIGHUP, "block signal(SIGHUP) failure! errno=", "signal_hup", " signal_hup failure, exit"},
    {SIGINT, "block signal(SIGINT) failure! errno=", "signal_int", " signal_int failure, exit"},
    {SIGTERM, "block signal(SIGTERM) failure! errno=", "signal_term", " signal_term failure, exit"},
    {SIGSEGV, "block signal(SIGSEGV) failure! errno=", "signal_segv", " signal_segv failure, exit"},
    {SIGABRT, "block signal(SIGABRT) failure! errno=", "signal_abort",
     " signal_abort failure, exit"},
    {SIGPIPE, "block signal(SIGPIPE) failure! errno=", "signal_pipe", " signal_pipe failure, exit"},
    {SIGTRAP, nullptr, "signal_trap", " signal_trap failure, exit"},
};

pthread_t g_mainThread;
std::atomic<bool> g_exitRequested{false};
std::atomic<int> g_exitStatus{0};

// What the timer's handler leaves for the main loop to log.
std::atomic<std::uint32_t> g_watchdogOpenFailures{0};
std::atomic<std::uint32_t> g_watchdogKicks{0};
/// Results of the latest kicks, by their number. The stall budget ends the feeding long before a
/// result that has not been logged is overwritten.
std::atomic<int> g_watchdogKickResults[32];

/// What is held until admitTerminationSignals: SIGTERM; nothing with -b. SIGINT, which does not end
/// the monitor at first, is never held.
sigset_t terminationSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    if (!block_signal) {
        sigaddset(&signals, SIGTERM);
    }
    return signals;
}

/// Lets a signal in that the launcher of the monitor may have blocked.
void unblock(int signal) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, signal);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

/// Takes a held signal and calls its handler like any other function: one that interrupts may, by
/// the rules of POSIX, neither allocate nor lock. False when SIGTERM has no handler.
bool callHandlerOfHeldSignal(const sigset_t& held) {
    struct sigaction action = {};
    if (::sigaction(SIGTERM, nullptr, &action) != 0 || action.sa_handler == SIG_DFL ||
        action.sa_handler == SIG_IGN) {
        return false;
    }
    const timespec atOnce = {};
    if (::sigtimedwait(&held, nullptr, &atOnce) == SIGTERM) {
        action.sa_handler(SIGTERM);
    }
    return true;
}

/// A SIGTERM that is held came first and keeps its handler: the default action would end the
/// monitor without a shutdown.
void restoreDefaultTermination() {
    const bool shutdownIsDue = platform::terminationPending();
    (void)platform::setSignalHandler(SIGINT, SIG_DFL);
    (void)platform::setSignalHandler(SIGKILL, SIG_DFL); // Refused: it has no other action.
    if (!shutdownIsDue) {
        (void)platform::setSignalHandler(SIGTERM, SIG_DFL);
    }
}

/// True once the system has been up long enough for the watchdog to be fed.
bool feedingMayBegin() {
    if (detect_heartbeat == 0) {
        const long uptimeSec = platform::uptimeSeconds();
        if (uptimeSec >= 0 && uptimeSec < watchdogDeferTime) {
            return false;
        }
        detect_heartbeat = 1;
    }
    return true;
}

bool mainLoopIsStalled() {
    const std::uint32_t limit =
        watchdog_timer_inteval > 0
            ? kStallBudgetSec / static_cast<std::uint32_t>(watchdog_timer_inteval)
            : kStallBudgetSec;
    return thread_heartbeat_counter >= limit;
}

bool openWatchdog() {
    if (wdog_fd != -1) {
        return true;
    }
    const int device = platform::openWatchdogDevice();
    std::int32_t closed = -1;
    if (device != -1 && !wdog_fd.compare_exchange_strong(closed, device)) {
        (void)platform::closeDescriptor(device); // A tick within this one was faster.
    }
    if (wdog_fd == -1) {
        platform::printError("Error");
        ++g_watchdogOpenFailures;
        return false;
    }
    return true;
}

void feedWatchdog() {
    int result = 0;
    // Deliberate: a device that cannot be written is kept and tried again; the main loop tells.
    g_watchdogError = platform::errorOf([&] {
        result = static_cast<int>(platform::writeDescriptor(wdog_fd, "w", 1));
        return result == 1;
    });
    (void)platform::flushDescriptor(wdog_fd); // Devices without it are fed all the same.
    g_watchdogKickResults[g_watchdogKicks++ % std::size(g_watchdogKickResults)] = result;
}

/// Calls the handler that the monitor found for SIGCONT, if it was one.
void callSavedContinueHandler(int sig, siginfo_t* info, void* context) {
    if ((savedSigAction_SIGCONT.sa_flags & SA_SIGINFO) != 0) {
        savedSigAction_SIGCONT.sa_sigaction(sig, info, context);
    } else if (savedSigAction_SIGCONT.sa_handler != SIG_DFL &&
               savedSigAction_SIGCONT.sa_handler != SIG_IGN) {
        savedSigAction_SIGCONT.sa_handler(sig);
    }
}

} // namespace

// Calls: platform::uptimeSeconds (sysinfo), openWatchdogDevice (open), writeDescriptor (write),
// flushDescriptor (fsync), printError (write).
void timerHandler(int sig, siginfo_t* info, void* context) {
    const int savedErrno = errno;
    if (sig == SIGCONT) {
        // Never reached while the handler is installed for SIGUSR1 alone; it stays in place.
        callSavedContinueHandler(sig, info, context);
        return;
    }
    const bool isTick = sig == SIGUSR1 && info->si_value.sival_ptr == &timerid;
    if (isTick && feedingMayBegin() && !mainLoopIsStalled()) {
        if (openWatchdog()) {
            feedWatchdog();
        }
        ++thread_heartbeat_counter;
    }
    errno = savedErrno;
}

// Calls: getZortime8BFromSystem (clock_gettime), write_system_log (open, fstat, fchmod, rename,
// write, lseek, ftruncate, close), snprintf with %d only, which neither allocates nor locks.
void mysig_handler(int sig) {
    const int savedErrno = errno;
    char text[64];
    (void)std::snprintf(text, sizeof text, "Caught signal %d", sig);
    platform::logSystemEvent(text);
    errno = savedErrno;
}

// Calls: for SIGTERM the whole shutdown, which is safe because it is never interrupted by one, see
// admitTerminationSignals; for SIGINT, at any time, sigpending and sigaction.
void mySIGTERM_handler(int sig) {
    const int savedErrno = errno;
    if (sig == SIGTERM || sig == SIGKILL) {
        ovardAtExit();
    }
    restoreDefaultTermination();
    errno = savedErrno;
}

void holdTerminationSignals() {
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_BLOCK, &none, &prevMask);
    g_mainThread = pthread_self();
    g_exitMonitor = exitMonitorFromAnyThread;

    const sigset_t held = terminationSignals();
    pthread_sigmask(SIG_BLOCK, &held, nullptr);
    platform::watchForTermination(held);
}

void admitTerminationSignals() {
    if (g_exitRequested) {
        std::exit(g_exitStatus);
    }
    const sigset_t signals = terminationSignals();
    if (callHandlerOfHeldSignal(signals) && g_bDaemonShutdown == 0) {
        return;
    }
    // The default action, which ends the process, is the system's to take.
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    // After a shutdown a further signal shall end the process at once.
    if (g_bDaemonShutdown == 0) {
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    }
}

void installTerminationHandler() {
    (void)platform::setSignalHandler(SIGINT, mySIGTERM_handler);
    unblock(SIGINT);
    // Deliberate: the system refuses this one.
    (void)platform::setSignalHandler(SIGKILL, mySIGTERM_handler);
    if (platform::setSignalHandler(SIGTERM, mySIGTERM_handler) != 0) {
        platform::printError("signal_term");
        appmgr->writeLog(kLogError, " signal_term failure, exit");
        platform::exitMonitor(1);
    }
}

void installLoggingHandler() {
    for (const LoggedSignal& signal : kLoggedSignals) {
        if (platform::setSignalHandler(signal.number, mysig_handler) == 0) {
            unblock(signal.number);
            continue;
        }
        const int error = errno;
        if (signal.consoleText != nullptr) {
            platform::trace(g_verbose > 0, "%s%d\n", signal.consoleText, error);
        }
        errno = error;
        platform::printError(signal.errorText);
        appmgr->writeLog(kLogError, "%s", signal.logText);
        platform::exitMonitor(1);
    }
}

void restoreLoggedSignals() {
    for (const LoggedSignal& signal : kLoggedSignals) {
        (void)platform::setSignalHandler(signal.number, SIG_DFL); // Cannot fail for these.
    }
}

void startWatchdogTimer() {
    struct sigaction action = {};
    action.sa_sigaction = timerHandler;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigemptyset(&action.sa_mask);
    const char* failure = nullptr;
    if (platform::setSignalAction(SIGUSR1, &action, &saved_sa) != 0) {
        failure = "sigaction SIGUSR1 error";
    } else if (platform::createTimer(&timerid, SIGUSR1, &timerid) != 0) {
        failure = "timer_create error";
    } else if (platform::armTimer(timerid,
                                  watchdog_timer_inteval < 1 ? 1 : watchdog_timer_inteval) != 0) {
        failure = "timer_settime error";
    }
    if (failure != nullptr) {
        platform::printError(failure);
        platform::exitMonitor(1);
    }
    unblock(SIGUSR1);
}

void reportWatchdogEvents() {
    for (std::uint32_t left = g_watchdogOpenFailures.exchange(0); left > 0; --left) {
        appmgr->writeLog(kLogError, " watch dog open failure, exit");
    }
    static std::uint32_t reported = 0;
    for (; reported != g_watchdogKicks; ++reported) {
        if (g_verbose > 5) {
            const std::size_t slot = reported % std::size(g_watchdogKickResults);
            platform::trace(true, "kicked watchdog... %d\n", g_watchdogKickResults[slot].load());
            appmgr->writeLog(kLogDebug, "kicked watchdog");
        }
    }
}

void exitMonitorFromAnyThread(int status) {
    if (pthread_equal(pthread_self(), g_mainThread) == 0) {
        g_exitStatus = status;
        g_exitRequested = true;
        platform::endWatchedWaits();
        for (;;) {
            platform::sleepMilliseconds(kParkMs); // Cancelled here by the shutdown.
        }
    }
    std::exit(status);
}
