// Process-wide settings of the monitor: verbosity, tunables, the shutdown flag.
//
// Written by the start-up code before any other thread exists, except where said otherwise, and
// read everywhere. Lives on the ground floor so that every module may look at it.

#ifndef OVARD_PLATFORM_SETTINGS_H
#define OVARD_PLATFORM_SETTINGS_H

#include <atomic>
#include <cstdint>

/// Console verbosity of the runtime (option -v).
extern std::int32_t g_verbose;

/// Console verbosity of the manager and the status publisher; copied from `g_verbose` when the
/// manager is created.
extern std::int32_t verbose;

/// Grace period for a pid file after a launch, in seconds, 1 to 60 (option -p).
extern std::int32_t app_pidfile_minimum_start_time;

/// Grace period before heartbeats are required, in seconds, 1 to 3600 (option -s).
extern std::int32_t app_heartbeat_minimum_start_time;

/// Age in seconds at which a heartbeat counts as expired, 1 to 86400 (option -h).
extern std::int32_t app_heartbeat_expire_interval;

/// Request file replayed at start-up (option -x); null when there is none. Not owned.
extern const char* pszExecuteAppConfigurationFile;

/// Request file to which received requests are appended (option -f); null when there is none. Not
/// owned.
extern const char* pszAppendToAppConfigurationFile;

/// File version and file date of this program, as published. Handed down by the runtime at
/// start-up; empty until then. Not owned.
extern const char* g_fileVersion;
extern const char* g_fileDate;

/// 0 while the monitor runs, all ones from the first step of its shutdown on. Any thread.
extern std::atomic<std::int32_t> g_bDaemonShutdown;

/// Releases the daemon's own resources in a freshly launched process (`full` false). Handed down by
/// the runtime at start-up; null until then. Called between fork and exec: only async-signal-safe
/// calls.
extern void (*g_releaseResources)(bool full);

/// Ends the monitor with `status` after its clean-up; never returns. Handed down by the runtime at
/// start-up; while null, `platform::exitMonitor` calls std::exit itself.
extern void (*g_exitMonitor)(int status);

#endif // OVARD_PLATFORM_SETTINGS_H
