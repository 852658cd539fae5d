#include "RefusedLocks.h"

#include <pthread.h>

namespace {

thread_local int refusal = 0; // 0: the system decides

} // namespace

namespace testsupport {

RefusedLocks::RefusedLocks(int error) {
    refusal = error;
}

RefusedLocks::~RefusedLocks() {
    refusal = 0;
}

} // namespace testsupport

// What stands between the program and the system's calls.
extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_trylock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    return refusal != 0 ? refusal : __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
    return refusal != 0 ? refusal : __real_pthread_mutex_trylock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    return refusal != 0 ? refusal : __real_pthread_mutex_unlock(mutex);
}

} // extern "C"
