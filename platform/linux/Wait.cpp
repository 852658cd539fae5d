#include "platform/Wait.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <limits>

#include "platform/MutexGuard.h"
#include "platform/linux/Clock.h"
#include "platform/linux/Watch.h"

namespace platform {
namespace {

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kPendingSlice = 50 * kNanosecondsPerMillisecond;
constexpr int kLockRetryMs = 10;

/// What the calling thread watches for. Without destructor, because exit handlers still wait after
/// the thread-local objects are gone; stopWatchingForTermination closes the descriptor.
struct Watch {
    bool everWatched;
    bool active;
    int wakeFd; ///< readable while a watched signal is pending; -1 when there is none
    int endFd;  ///< readable once endWatchedWaits was called; -1 when there is none
    sigset_t signals;
};

thread_local Watch threadWatch = {false, false, -1, -1, {}};

std::atomic<bool> g_waitsEnded{false};

// The watching thread's endFd for the other threads. The mutex keeps it open while one writes to
// it; held for a moment.
pthread_mutex_t g_endFdMutex = PTHREAD_MUTEX_INITIALIZER;
int g_endFd = -1;

void publishEndFd(int fd) {
    const MutexGuard guard(g_endFdMutex);
    g_endFd = fd;
}

void closeIfOpen(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

/// How long one poll may last: until `deadline`, and where there is no wake descriptor only one
/// slice, after which the caller looks whether it shall end. kNever: without limit.
std::int64_t pollSpan(std::int64_t deadline) {
    std::int64_t span = kNever;
    if (deadline != kNever) {
        span = std::max<std::int64_t>(deadline - monotonicNanoseconds(), 0);
    }
    const bool mustLook = threadWatch.active && (threadWatch.wakeFd < 0 || threadWatch.endFd < 0);
    return mustLook ? std::min(span, kPendingSlice) : span;
}

/// Polls `fd` (-1: none) and the wake descriptors once. Returns ppoll's result; `readyEvents` tells
/// about `fd`.
int pollOnce(int fd, std::int64_t deadline, short& readyEvents) {
    pollfd entries[] = {
        {fd, POLLIN, 0}, {threadWatch.wakeFd, POLLIN, 0}, {threadWatch.endFd, POLLIN, 0}};
    const std::int64_t span = pollSpan(deadline);
    timespec timeout = {};
    if (span != kNever) {
        timeout = toTimespec(span);
    }
    const int count = ::ppoll(entries, 3, span != kNever ? &timeout : nullptr, nullptr);
    readyEvents = entries[0].revents;
    return count;
}

/// waitReadable's result of one poll; TimedOut when nothing has happened yet.
WaitResult pollResult(int count, short readyEvents) {
    const int pollErrno = errno;
    if (terminationPending()) {
        return WaitResult::Terminating;
    }
    if (count < 0) {
        errno = pollErrno;
        return pollErrno == EINTR ? WaitResult::Interrupted : WaitResult::Failed;
    }
    if ((readyEvents & POLLNVAL) != 0) {
        errno = EBADF;
        return WaitResult::Failed;
    }
    return readyEvents != 0 ? WaitResult::Ready : WaitResult::TimedOut;
}

} // namespace

void watchForTermination(const sigset_t& signals) {
    stopWatchingForTermination();
    threadWatch.everWatched = true;
    threadWatch.active = true;
    threadWatch.signals = signals;
    threadWatch.wakeFd = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    threadWatch.endFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    g_waitsEnded = false;
    publishEndFd(threadWatch.endFd);
}

void stopWatchingForTermination() {
    if (!threadWatch.active) {
        return;
    }
    publishEndFd(-1);
    closeIfOpen(threadWatch.wakeFd);
    closeIfOpen(threadWatch.endFd);
    threadWatch.active = false;
}

void endWatchedWaits() {
    g_waitsEnded = true;
    const MutexGuard guard(g_endFdMutex);
    if (g_endFd >= 0) {
        (void)::eventfd_write(g_endFd, 1); // full is readable, too
    }
}

bool terminationPending() {
    if (!threadWatch.active) {
        return false;
    }
    sigset_t pending;
    if (g_waitsEnded || ::sigpending(&pending) != 0) {
        return g_waitsEnded;
    }
    for (int signal = 1; signal < NSIG; ++signal) {
        if (::sigismember(&threadWatch.signals, signal) == 1 &&
            ::sigismember(&pending, signal) == 1) {
            return true;
        }
    }
    return false;
}

bool isWatchingThread() {
    return threadWatch.everWatched;
}

void pauseUntil(std::int64_t deadline) {
    short unusedEvents = 0;
    while (monotonicNanoseconds() < deadline && !terminationPending()) {
        (void)pollOnce(-1, deadline, unusedEvents); // the loop looks at the clock and the signals
    }
}

WaitResult waitReadable(int fd, int timeoutMs) {
    if (fd < 0) {
        errno = EBADF;
        return WaitResult::Failed;
    }
    const std::int64_t deadline = timeoutMs < 0 ? kNever : deadlineAfter(timeoutMs);
    for (;;) {
        short readyEvents = 0;
        const int count = pollOnce(fd, deadline, readyEvents);
        const WaitResult result = pollResult(count, readyEvents);
        if (result != WaitResult::TimedOut || monotonicNanoseconds() >= deadline) {
            return result;
        }
    }
}

bool lockUnlessTerminating(RecursiveMutex& mutex) {
    if (!threadWatch.active) {
        return mutex.lock() == 0;
    }
    int result = mutex.lockIfFree();
    while (result == EBUSY && !terminationPending()) {
        pauseUntil(deadlineAfter(kLockRetryMs));
        result = mutex.lockIfFree();
    }
    return result == 0;
}

} // namespace platform
