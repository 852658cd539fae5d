#include "platform/BusError.h"

#include <pthread.h>

#include <atomic>
#include <csetjmp>
#include <csignal>

namespace platform {
namespace {

/// Held by the thread that touches, and around a fork: the child would have the lock, but not the
/// thread that gives it back.
pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;

/// The process's own action, which the handler reads without the lock: a handler that is late finds
/// the same again, unless the process has changed it in that very moment.
struct sigaction g_ownAction;

/// The thread within its touch, none otherwise, and its way out.
std::atomic<pthread_t> g_touching{};
sigjmp_buf g_wayOut;

void lock() {
    pthread_mutex_lock(&g_lock);
}

void unlock() {
    pthread_mutex_unlock(&g_lock);
}

/// Said before there is any thread. It can only fail for want of memory, which costs no more than
/// that.
[[maybe_unused]] const int g_forkIsPrepared = pthread_atfork(lock, unlock, unlock);

/// Does with a signal what would happen without this handler.
void handOn(int signal, siginfo_t* info, void* context) {
    const struct sigaction own = g_ownAction;
    if ((own.sa_flags & SA_SIGINFO) != 0) {
        own.sa_sigaction(signal, info, context);
    } else if (own.sa_handler != SIG_DFL && own.sa_handler != SIG_IGN) {
        own.sa_handler(signal);
    } else {
        ::sigaction(signal, &own, nullptr);
        if (info->si_code <= 0) { // It was sent; a fault comes again by itself.
            (void)::raise(signal);
        }
    }
}

void onBusError(int signal, siginfo_t* info, void* context) {
    if (info->si_code == BUS_ADRERR && pthread_equal(g_touching, pthread_self()) != 0) {
        g_touching = pthread_t{};
        siglongjmp(g_wayOut, 1); // The signal mask is restored by AllToItself.
    }
    handOn(signal, info, context);
}

bool isOurs(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == onBusError;
}

/// While it lives, the thread is interrupted by nothing but bus errors, which end the process where
/// they are blocked.
class AllToItself {
public:
    AllToItself() {
        sigset_t others;
        sigfillset(&others);
        sigdelset(&others, SIGBUS);
        pthread_sigmask(SIG_SETMASK, &others, &saved_);
    }
    ~AllToItself() { pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }
    AllToItself(const AllToItself&) = delete;
    AllToItself& operator=(const AllToItself&) = delete;

private:
    sigset_t saved_ = {};
};

/// While it lives, bus errors come to the handler of this file.
class HandledBusErrors {
public:
    HandledBusErrors() {
        lock();
        ::sigaction(SIGBUS, nullptr, &g_ownAction);
        // All the rest (mask, stack) stays as the process's own handler wants it.
        struct sigaction action = g_ownAction;
        action.sa_sigaction = onBusError;
        action.sa_flags = (action.sa_flags | SA_SIGINFO) & ~static_cast<int>(SA_RESETHAND);
        ::sigaction(SIGBUS, &action, nullptr);
    }
    ~HandledBusErrors() {
        struct sigaction current = {};
        ::sigaction(SIGBUS, nullptr, &current);
        if (isOurs(current)) { // Else the process has set another one meanwhile.
            ::sigaction(SIGBUS, &g_ownAction, nullptr);
        }
        unlock();
    }
    HandledBusErrors(const HandledBusErrors&) = delete;
    HandledBusErrors& operator=(const HandledBusErrors&) = delete;
};

/// No object that has a destructor may live here: the jump destroys none.
bool touchOrReturn(void (*touch)(void*), void* argument) {
    if (sigsetjmp(g_wayOut, 0) != 0) {
        return false;
    }
    g_touching = pthread_self();
    touch(argument);
    g_touching = pthread_t{};
    return true;
}

bool touchUndisturbed(void (*touch)(void*), void* argument) {
    const AllToItself alone;
    const HandledBusErrors handled;
    return touchOrReturn(touch, argument);
}

} // namespace

bool survivesBusError(void (*touch)(void*), void* argument) {
    // No guard: where cancellation is asynchronous, giving it back may unwind at once.
    int cancelState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    const bool survived = touchUndisturbed(touch, argument);
    pthread_setcancelstate(cancelState, nullptr);
    return survived;
}

} // namespace platform
