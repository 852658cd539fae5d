#include "platform/Thread.h"

#include <csignal>

namespace platform {

namespace {

/// Signals by which the system reports a fault of the very thread: blocked, they would end the
/// process even where they are handled.
constexpr int kFaults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT};

} // namespace

int createWorkerThread(pthread_t* thread, void* (*body)(void*), void* argument) {
    sigset_t blocked;
    sigset_t saved;
    sigfillset(&blocked);
    for (const int fault : kFaults) {
        sigdelset(&blocked, fault);
    }
    // Inherited by the new thread from its first instruction on.
    pthread_sigmask(SIG_SETMASK, &blocked, &saved);
    const int error = ::pthread_create(thread, nullptr, body, argument);
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    return error;
}

} // namespace platform
