// What the tests of the runtime share.

#ifndef OVARD_TESTS_UNIT_RUNTIME_RUNTIME_SUPPORT_H
#define OVARD_TESTS_UNIT_RUNTIME_RUNTIME_SUPPORT_H

#include <pthread.h>

#include <csignal>
#include <string>

namespace runtimetest {

/// A watchdog device that is open already.
inline constexpr int kDevice = 77000;

/// The recorded call that sets the action of `signal` to `kind`.
inline std::string signalCall(int signal, const char* kind) {
    return "signal " + std::to_string(signal) + ' ' + kind;
}

inline bool isBlocked(int signal) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

inline void blockForReal(int signal) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

/// A handler that a test can find again.
inline void someHandler(int /*signal*/) {}

} // namespace runtimetest

#endif // OVARD_TESTS_UNIT_RUNTIME_RUNTIME_SUPPORT_H
