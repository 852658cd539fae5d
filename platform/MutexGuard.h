// Scoped locking of mutexes.

#ifndef OVARD_PLATFORM_MUTEX_GUARD_H
#define OVARD_PLATFORM_MUTEX_GUARD_H

#include <pthread.h>

#include "platform/RecursiveMutex.h"
#include "platform/Wait.h"

namespace platform {

/// Holds a plain mutex from construction to destruction, as std::lock_guard does a RecursiveMutex.
/// Also unlocks when a cancelled thread unwinds through it.
class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t& mutex)
        : mutex_(mutex) {
        pthread_mutex_lock(&mutex_);
    }
    ~MutexGuard() { pthread_mutex_unlock(&mutex_); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    pthread_mutex_t& mutex_;
};

/// Holds a lock that others may hold for long: on the main thread it gives up when the monitor is
/// asked to end. Test `held()` before touching what the mutex guards.
class PatientGuard {
public:
    explicit PatientGuard(RecursiveMutex& mutex)
        : mutex_(mutex)
        , held_(lockUnlessTerminating(mutex)) {}
    ~PatientGuard() { (void)release(); }
    PatientGuard(const PatientGuard&) = delete;
    PatientGuard& operator=(const PatientGuard&) = delete;

    bool held() const { return held_; }

    /// Unlocks early; the result of unlocking, 0 when nothing was held.
    int release() {
        if (!held_) {
            return 0;
        }
        held_ = false;
        return mutex_.unlock();
    }

private:
    RecursiveMutex& mutex_;
    bool held_;
};

} // namespace platform

#endif // OVARD_PLATFORM_MUTEX_GUARD_H
