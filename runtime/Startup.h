// Start-up of the monitor.

#ifndef OVARD_RUNTIME_STARTUP_H
#define OVARD_RUNTIME_STARTUP_H

/// The whole run of the monitor: refuses a second instance, reads the options, starts everything in
/// its fixed order, runs the main loop. Returns the exit status; failures of the set-up exit by
/// themselves.
int runMonitor(int argc, char** argv);

#endif // OVARD_RUNTIME_STARTUP_H
