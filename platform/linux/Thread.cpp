#include "platform/Thread.h"

#include <execinfo.h>

#include <csignal>

namespace platform {

namespace {

/// Signals by which the system reports a fault of the very thread: blocked, they would end the
/// process even where they are handled.
constexpr int kFaults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT};

/// The C library loads what unwinds a cancelled thread when that is first wanted, and ends the
/// process where there is no memory for it by then. A look at the calling frame wants it, too.
void loadUnwinder() {
    void* frame = nullptr;
    (void)::backtrace(&frame, 1); // what it shows is of no use
}

} // namespace

int createWorkerThread(pthread_t* thread, void* (*body)(void*), void* argument) {
    loadUnwinder();
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
