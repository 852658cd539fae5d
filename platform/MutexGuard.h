// Scoped locking of the manager's recursive mutexes.

#ifndef OVARD_PLATFORM_MUTEX_GUARD_H
#define OVARD_PLATFORM_MUTEX_GUARD_H

#include <pthread.h>

#include "platform/Wait.h"

namespace platform {

/// Holds a pthread mutex from construction to destruction. Also unlocks when a cancelled thread
/// unwinds through it.
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

/// As MutexGuard, for a lock that others may hold for long: on the main thread it gives up when the
/// monitor is asked to end. Test `held()` before touching what the mutex guards.
class PatientGuard {
public:
    explicit PatientGuard(pthread_mutex_t& mutex)
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
        return pthread_mutex_unlock(&mutex_);
    }

private:
    pthread_mutex_t& mutex_;
    bool held_;
};

} // namespace platform

#endif // OVARD_PLATFORM_MUTEX_GUARD_H
