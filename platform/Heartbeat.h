// The instrument's heartbeat registry. Applications and the monitor link the same functions.

#ifndef OVARD_PLATFORM_HEARTBEAT_H
#define OVARD_PLATFORM_HEARTBEAT_H

/// Refreshes the calling process's heartbeat. Never blocks; a failure is silent.
void heartbeat_notify();

/// The heartbeat of `pid`: 1 fresh, 2 older than `expireSeconds` seconds, 3 none. What an earlier
/// process with the same pid left behind counts as none.
int heartbeat_check(int pid, int expireSeconds);

/// Drops the heartbeat registration of `pid`; -1 means the calling process.
void heartbeat_cleanup(int pid);

#endif // OVARD_PLATFORM_HEARTBEAT_H
