#include "platform/BusError.h"

#include <pthread.h>
#include <unistd.h>

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

/// Whether that thread had bus errors blocked, and whether some were sent to it, or to the process,
/// since then: they are left to whoever waits for them.
std::atomic<bool> g_wasBlocked{false};
std::atomic<bool> g_sentToThread{false};
std::atomic<bool> g_sentToProcess{false};

bool isTouching() {
    return pthread_equal(g_touching, pthread_self()) != 0;
}

/// A handler of the process may fork while it interrupts the touch: its thread has the lock
/// already, in the child too.
void lockForFork() {
    if (!isTouching()) {
        pthread_mutex_lock(&g_lock);
    }
}

void unlockAfterFork() {
    if (!isTouching()) {
        pthread_mutex_unlock(&g_lock);
    }
}

/// Said before there is any thread. It can only fail for want of memory, which costs no more than
/// that.
[[maybe_unused]] const int g_forkIsPrepared =
    pthread_atfork(lockForFork, unlockAfterFork, unlockAfterFork);

/// True for a signal that no fault has raised, so that it does not come again by itself.
bool wasSent(const siginfo_t& info) {
    return info.si_code <= 0;
}

/// Does with a signal what would happen without this handler.
void handOn(int signal, siginfo_t* info, void* context) {
    const struct sigaction own = g_ownAction;
    if ((own.sa_flags & static_cast<int>(SA_RESETHAND)) != 0) {
        g_ownAction = {}; // The default: that handler serves once.
    }
    if ((own.sa_flags & SA_SIGINFO) != 0) {
        own.sa_sigaction(signal, info, context);
    } else if (own.sa_handler != SIG_DFL && own.sa_handler != SIG_IGN) {
        own.sa_handler(signal);
    } else if (own.sa_handler == SIG_DFL || !wasSent(*info)) { // A fault cannot be ignored.
        ::sigaction(signal, &own, nullptr);
        if (wasSent(*info)) {
            (void)::raise(signal);
        }
    }
}

void onBusError(int signal, siginfo_t* info, void* context) {
    if (isTouching() && info->si_code == BUS_ADRERR) {
        siglongjmp(g_wayOut, 1); // The signal mask is restored by NoSignals.
    }
    if (isTouching() && g_wasBlocked && wasSent(*info)) {
        (info->si_code == SI_TKILL ? g_sentToThread : g_sentToProcess) = true;
        return;
    }
    handOn(signal, info, context);
}

/// Sends anew what was sent to a thread that had it blocked, and has again.
void sendAnew() {
    if (g_sentToThread.exchange(false)) {
        (void)::raise(SIGBUS);
    }
    if (g_sentToProcess.exchange(false)) {
        (void)::kill(::getpid(), SIGBUS);
    }
}

bool isOurs(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == onBusError;
}

/// Keeps an action that was found as the process's own. Another copy of this file, or a program
/// that puts back what it once found itself, may have left ours: it stands for the former one.
void remember(const struct sigaction& found) {
    if (!isOurs(found)) {
        g_ownAction = found;
    }
}

/// While it lives, the thread is interrupted by nothing, but for what `touchOrReturn` lets through.
class NoSignals {
public:
    NoSignals() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &saved_);
    }
    ~NoSignals() { pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }
    NoSignals(const NoSignals&) = delete;
    NoSignals& operator=(const NoSignals&) = delete;

    bool wasBlocked(int signal) const { return sigismember(&saved_, signal) == 1; }

private:
    sigset_t saved_ = {};
};

/// Puts the handler of this file in front of the process's own. Between the look at that and the
/// change the process may set another one, which shows in what is replaced.
void takeOverAction() {
    struct sigaction found = {};
    ::sigaction(SIGBUS, nullptr, &found);
    remember(found);
    // All the rest (mask, stack) stays as the process's own handler wants it.
    struct sigaction action = g_ownAction;
    action.sa_sigaction = onBusError;
    action.sa_flags = (action.sa_flags | SA_SIGINFO) & ~static_cast<int>(SA_RESETHAND);
    ::sigaction(SIGBUS, &action, &found);
    remember(found);
}

/// Leaves an action that the process has set meanwhile, up to the change itself.
void giveBackAction() {
    struct sigaction found = {};
    ::sigaction(SIGBUS, nullptr, &found);
    if (!isOurs(found)) {
        return;
    }
    ::sigaction(SIGBUS, &g_ownAction, &found);
    if (!isOurs(found)) {
        ::sigaction(SIGBUS, &found, nullptr);
    }
}

/// While it lives, bus errors come to the handler of this file.
class HandledBusErrors {
public:
    explicit HandledBusErrors(bool wasBlocked) {
        pthread_mutex_lock(&g_lock);
        g_wasBlocked = wasBlocked;
        takeOverAction();
    }
    ~HandledBusErrors() {
        giveBackAction();
        sendAnew();
        pthread_mutex_unlock(&g_lock);
    }
    HandledBusErrors(const HandledBusErrors&) = delete;
    HandledBusErrors& operator=(const HandledBusErrors&) = delete;
};

/// Blocks or unblocks (SIG_BLOCK, SIG_UNBLOCK) bus errors in this thread. They end the process
/// where they are blocked.
void changeMask(int how) {
    sigset_t busError;
    sigemptyset(&busError);
    sigaddset(&busError, SIGBUS);
    pthread_sigmask(how, &busError, nullptr);
}

void enterTouch() {
    g_touching = pthread_self();
    changeMask(SIG_UNBLOCK);
}

void leaveTouch() {
    changeMask(SIG_BLOCK);
    g_touching = pthread_t{};
}

/// No object that has a destructor may live here: the jump destroys none.
bool touchOrReturn(void (*touch)(void*), void* argument) {
    if (sigsetjmp(g_wayOut, 0) != 0) {
        leaveTouch();
        return false;
    }
    enterTouch();
    touch(argument);
    leaveTouch();
    return true;
}

bool touchUndisturbed(void (*touch)(void*), void* argument) {
    const NoSignals alone;
    const HandledBusErrors handled(alone.wasBlocked(SIGBUS));
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
