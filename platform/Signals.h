// Signal actions, the periodic timer and the watchdog device, behind a seam for tests.
//
// Each returns -1 with errno on failure, as the call of the C library does.

#ifndef OVARD_PLATFORM_SIGNALS_H
#define OVARD_PLATFORM_SIGNALS_H

#include <csignal>
#include <ctime>

namespace platform {

/// Installs `handler` (or SIG_DFL, SIG_IGN) for one signal, as signal() does. Async-signal-safe.
int setSignalHandler(int signal, void (*handler)(int));

/// sigaction; either pointer may be null. Async-signal-safe.
int setSignalAction(int signal, const struct sigaction* action, struct sigaction* previous);

/// Creates a timer on the wall clock that delivers `signal` with `value`.
int createTimer(timer_t* timer, int signal, void* value);

/// Arms `timer`: first expiry and period are both `seconds`.
int armTimer(timer_t timer, int seconds);
int deleteTimer(timer_t timer);

inline constexpr char kWatchdogPath[] = "/dev/watchdog";

/// Opens the watchdog device for reading and writing, close-on-exec. Async-signal-safe.
int openWatchdogDevice();

/// fsync. Async-signal-safe.
int flushDescriptor(int fd);

} // namespace platform

#endif // OVARD_PLATFORM_SIGNALS_H
