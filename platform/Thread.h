// Worker threads and their cancellation.
//
// A worker thread runs with signals blocked and with cancellation disabled: it ends only where
// it waits on purpose, that is in platform::sleepMilliseconds, in admitCancellation and inside a
// CancellationWindow. All
// frames on such a path are left by unwinding, so they hold their locks and descriptors in guards
// and catch nothing.

#ifndef OVARD_PLATFORM_THREAD_H
#define OVARD_PLATFORM_THREAD_H

#include <pthread.h>

namespace platform {

/// pthread_create with every signal blocked in the new thread but those that report its own faults.
/// 0 or an error number.
int createWorkerThread(pthread_t* thread, void* (*body)(void*), void* argument);

/// First call of a worker thread's body.
inline void disableCancellation() {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

/// Lets the calling thread be cancelled at the waits within its scope.
class CancellationWindow {
public:
    CancellationWindow() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous_); }
    ~CancellationWindow() { pthread_setcancelstate(previous_, nullptr); }
    CancellationWindow(const CancellationWindow&) = delete;
    CancellationWindow& operator=(const CancellationWindow&) = delete;

private:
    int previous_ = PTHREAD_CANCEL_DISABLE;
};

/// A point at which a cancelled worker thread ends although it does not wait.
inline void admitCancellation() {
    const CancellationWindow window;
    pthread_testcancel();
}

} // namespace platform

#endif // OVARD_PLATFORM_THREAD_H
