// Signals of the monitor: handlers, their installation, and the one place where SIGTERM is taken.
//
// Without option -b SIGTERM stays blocked in every thread. The waits of the main thread end as soon
// as it is pending, and the main loop takes it where it holds no lock and no function of the
// manager is on its stack, and calls the handler, which interrupts nothing. The handler may
// therefore do the whole shutdown. SIGINT, whose handler only restores default actions, may run on
// the main thread at any time.
// With -b no signal ends the monitor; the handler only writes one line and may run at any time.

#ifndef OVARD_RUNTIME_SIGNALS_H
#define OVARD_RUNTIME_SIGNALS_H

#include <csignal>

/// Timer tick (SIGUSR1): feeds the watchdog while the main loop is healthy.
void timerHandler(int sig, siginfo_t* info, void* context);

/// Logging handler, used with -b: one line in the event log, nothing else.
void mysig_handler(int sig);

/// Termination handler, used without -b: shuts down for SIGTERM; in every case restores the default
/// actions, so that a second signal ends the process. Deliberate: a first SIGINT does no more.
void mySIGTERM_handler(int sig);

/// Saves the signal mask in `prevMask`, then, without -b, blocks SIGTERM and makes the main thread
/// watch for it. Called once, by the main thread, before any other exists.
void holdTerminationSignals();

/// Calls the handler of a pending SIGTERM, or lets its default action have its way. Called by the
/// main loop with no lock held. Ends the process when another thread has asked for that.
void admitTerminationSignals();

/// Installs the handlers. Failures end the process with status 1, after their message.
void installTerminationHandler();
void installLoggingHandler();

/// Default actions for the signals of installLoggingHandler.
void restoreLoggedSignals();

/// Installs the timer's handler, creates the timer and arms it. Failures end the process with
/// status 1, after their message.
void startWatchdogTimer();

/// Logs what the timer's handler has noted since the last call.
void reportWatchdogEvents();

/// Ends the monitor from any thread: the main thread exits; any other one leaves that to the main
/// thread and waits for its own end. Never returns.
void exitMonitorFromAnyThread(int status);

#endif // OVARD_RUNTIME_SIGNALS_H
