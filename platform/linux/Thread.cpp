#include "platform/Thread.h"

#include <atomic>
#include <csignal>

namespace platform {

namespace {

/// Signals by which the system reports a fault of the very thread: blocked, they would end the
/// process even where they are handled.
constexpr int kFaults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT};

void* endByUnwinding(void* /*unused*/) {
    pthread_exit(nullptr);
}

/// The C library loads what unwinds a cancelled thread when that is first wanted, and ends the
/// process where there is no memory for it by then. A thread that ends itself wants it, too; once
/// is enough. 0 or an error number.
int loadUnwinder() {
    static std::atomic<bool> isLoaded{false};
    if (isLoaded) {
        return 0;
    }
    pthread_t thread = {};
    int error = ::pthread_create(&thread, nullptr, endByUnwinding, nullptr);
    if (error == 0) {
        error = ::pthread_join(thread, nullptr);
        isLoaded = true;
    }
    return error;
}

} // namespace

int createWorkerThread(pthread_t* thread, void* (*body)(void*), void* argument) {
    sigset_t blocked;
    sigset_t saved;
    sigfillset(&blocked);
    for (const int fault : kFaults) {
        sigdelset(&blocked, fault);
    }
    // Inherited by the new threads from their first instruction on.
    pthread_sigmask(SIG_SETMASK, &blocked, &saved);
    int error = loadUnwinder();
    if (error == 0) {
        error = ::pthread_create(thread, nullptr, body, argument);
    }
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    return error;
}

} // namespace platform
