// Shutdown and clean-up.

#ifndef OVARD_RUNTIME_SHUTDOWN_H
#define OVARD_RUNTIME_SHUTDOWN_H

/// Shuts the monitor down: threads, control socket, timer, watchdog, pid file. The applications go
/// on. Runs once, however often it is called: from the termination handler, which the main thread
/// lets in only where it holds no lock and no function of the manager is on its stack, or from
/// exit. Main thread.
void ovardAtExit();

/// Tears down manager, timer and watchdog. With `full` false, in a freshly launched process, only
/// the watchdog device is closed, without disarming it: async-signal-safe calls only.
void free_resources(bool full);

#endif // OVARD_RUNTIME_SHUTDOWN_H
