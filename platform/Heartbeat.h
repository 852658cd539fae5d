// The instrument's heartbeat registry. Applications and the monitor link the same functions.

#ifndef OVARD_PLATFORM_HEARTBEAT_H
#define OVARD_PLATFORM_HEARTBEAT_H

/// Refreshes the calling process's heartbeat.
void heartbeat_notify();

/// Drops the heartbeat registration of `pid`; -1 means the calling process.
void heartbeat_cleanup(int pid);

#endif // OVARD_PLATFORM_HEARTBEAT_H
