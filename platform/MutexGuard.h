// Scoped locking of the manager's recursive mutexes.

#ifndef OVARD_PLATFORM_MUTEX_GUARD_H
#define OVARD_PLATFORM_MUTEX_GUARD_H

#include <pthread.h>

namespace platform {

/// Holds a pthread mutex from construction to destruction. Also unlocks when a cancelled thread
/// unwinds through it.
class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~MutexGuard() { pthread_mutex_unlock(&mutex_); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    pthread_mutex_t& mutex_;
};

} // namespace platform

#endif // OVARD_PLATFORM_MUTEX_GUARD_H
