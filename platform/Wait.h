// Waits of the main thread that end early when the monitor is asked to end.

#ifndef OVARD_PLATFORM_WAIT_H
#define OVARD_PLATFORM_WAIT_H

#include <csignal>

#include "platform/RecursiveMutex.h"

namespace platform {

/// What ended a wait.
enum class WaitResult {
    Ready,       ///< the descriptor is readable (or at its end, or in error)
    TimedOut,    ///< the time is over
    Terminating, ///< a watched signal is pending, or endWatchedWaits was called
    Interrupted, ///< another signal's handler ran
    Failed,      ///< see errno
};

/// Makes the calling thread, the main one, watch for `signals`: its waits and sleeps end as soon as
/// one of them is pending or endWatchedWaits is called. The signals must be blocked in every
/// thread. Call once, at start-up. Where no descriptors can be had for it, the waits look every 50
/// ms instead.
void watchForTermination(const sigset_t& signals);

/// Stops watching; the waits of the calling thread last their whole time again.
void stopWatchingForTermination();

/// From now on the waits of the watching thread end as if a watched signal were pending. Any
/// thread; not in a signal handler.
void endWatchedWaits();

/// True when the calling thread watches and one of its signals is pending or endWatchedWaits was
/// called.
bool terminationPending();

/// Waits until `fd` is readable. `timeoutMs` < 0 waits for ever. `fd` may be of any size.
WaitResult waitReadable(int fd, int timeoutMs);

/// Locks `mutex` for the main thread, at once when it is free. False when a watched signal is
/// pending before it becomes free: the mutex is then not held. On a thread that does not watch it
/// is a plain lock.
bool lockUnlessTerminating(RecursiveMutex& mutex);

} // namespace platform

#endif // OVARD_PLATFORM_WAIT_H
