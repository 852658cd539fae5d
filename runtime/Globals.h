// State of the runtime that its parts share. Main thread only, except where said otherwise.

#ifndef OVARD_RUNTIME_GLOBALS_H
#define OVARD_RUNTIME_GLOBALS_H

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <string>

#include "appmanager/AppManager.h"
#include "runtime/InterprocessNamedMutex.h"

/// Option -w was given: the watchdog is served.
extern bool initWatchDog;

/// Period of the watchdog timer in seconds (option -I); the timer uses 1 for less.
extern std::int32_t watchdog_timer_inteval;

/// Least system uptime in seconds before the watchdog is fed (option -w), at most 300.
extern std::int32_t watchdogDeferTime;

/// Option -b was given: signals are logged instead of ending the monitor.
extern bool block_signal;

/// The manager; null before it is created and after shutdown.
extern AppManager* appmgr;

/// Name of the monitor's own pid file, whether it could be written or not; empty before and after.
extern std::string pidfile;

/// File version and file date of this program, without their keys.
extern char version[36];
extern char buildtime[36];

/// "No thread", for `thread_startupAppConfiguration`.
inline constexpr pthread_t kNoThread = static_cast<pthread_t>(-1);

/// The thread that replays the start-up request file.
extern pthread_t thread_startupAppConfiguration;

/// Signal mask with which the monitor was started.
extern sigset_t prevMask;

/// Actions that were in force when the monitor started.
extern struct sigaction savedSigAction_SIGCONT;
extern struct sigaction saved_sa;

/// "No timer", for `timerid`.
inline const timer_t kNoTimer = reinterpret_cast<timer_t>(-1);

/// The periodic timer; its address is the value that its signal carries.
extern timer_t timerid;

/// The watchdog device; -1 while closed. Shared with the timer's handler.
extern std::atomic<std::int32_t> wdog_fd;

/// Errno of the last feeding of the watchdog, 0 when it worked or when there was none yet. Written
/// by the timer's handler.
extern std::atomic<int> g_watchdogError;

/// Ticks of the timer since the main loop last completed a turn. Shared with the timer's handler.
extern std::atomic<std::uint32_t> thread_heartbeat_counter;

/// Latched to 1 once the watchdog may be fed. Timer's handler only.
extern std::atomic<std::int32_t> detect_heartbeat;

/// Hands start-up over to the process that launched the monitor. Built before main runs.
extern const char* const g_ovard_initialization_mutex_name;
extern CInterprocessNamedMutex g_ovard_initialization_mutex;

#endif // OVARD_RUNTIME_GLOBALS_H
