// Whether a lock is held, as another thread finds it.

#ifndef OVARD_TESTS_UNIT_SUPPORT_LOCK_STATE_H
#define OVARD_TESTS_UNIT_SUPPORT_LOCK_STATE_H

#include <thread>

#include "platform/RecursiveMutex.h"

namespace locks {

/// Whether a new thread can lock `mutex`, and unlock it again: to who holds it a recursive mutex
/// always looks free. One that was destroyed is not free.
inline bool isFree(platform::RecursiveMutex& mutex) {
    bool free = false;
    std::thread([&] { free = mutex.lockIfFree() == 0 && mutex.unlock() == 0; }).join();
    return free;
}

} // namespace locks

#endif // OVARD_TESTS_UNIT_SUPPORT_LOCK_STATE_H
