// Worker threads, which are real ones, and the waits of the main thread.

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>

#include "platform/Thread.h"
#include "platform/Wait.h"
#include "tests/fakes/FakePlatform.h"

using fakes::joined;
using fakes::Lock;
using fakes::world;

namespace {

constexpr int kPollMicros = 1000;
constexpr int kMostPolls = 5000;

std::atomic<int> workers{0};

struct WorkerStart {
    void* (*body)(void*);
    void* argument;
};

/// Counts a worker thread, also when it is cancelled or ends itself.
class WorkerCount {
public:
    WorkerCount() = default;
    ~WorkerCount() { --workers; }
    WorkerCount(const WorkerCount&) = delete;
    WorkerCount& operator=(const WorkerCount&) = delete;
};

void* runWorker(void* startPointer) {
    const WorkerCount counted;
    const WorkerStart start = *static_cast<WorkerStart*>(startPointer);
    delete static_cast<WorkerStart*>(startPointer);
    return start.body(start.argument);
}

bool mainThreadShallEnd() {
    const Lock lock;
    return world().terminationIsPending && world().watching && fakes::onMainThread();
}

} // namespace

namespace fakes {

int liveWorkers() {
    return workers;
}

bool waitUntil(const std::function<bool()>& condition) {
    for (int polls = 0; !condition(); ++polls) {
        if (polls == kMostPolls) {
            return false;
        }
        ::usleep(kPollMicros);
    }
    return true;
}

bool waitForWorkersToEnd() {
    return waitUntil([] { return liveWorkers() == 0; });
}

} // namespace fakes

namespace platform {

int createWorkerThread(pthread_t* thread, void* (*body)(void*), void* argument) {
    {
        const Lock lock;
        world().record("thread");
        if (fakes::takeError(world().threadErrors) != 0) {
            return errno;
        }
    }
    auto start = std::make_unique<WorkerStart>(WorkerStart{body, argument});
    sigset_t all;
    sigset_t saved;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved);
    ++workers;
    const int error = pthread_create(thread, nullptr, runWorker, start.get());
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    if (error != 0) {
        --workers;
        return error;
    }
    (void)start.release(); // the thread deletes it
    return 0;
}

void watchForTermination(const sigset_t& signals) {
    const Lock lock;
    world().record("watch");
    world().watching = true;
    world().watchedSignals = signals;
}

void stopWatchingForTermination() {
    const Lock lock;
    world().record("unwatch");
    world().watching = false;
}

void endWatchedWaits() {
    const Lock lock;
    world().terminationIsPending = true;
}

bool terminationPending() {
    return mainThreadShallEnd();
}

WaitResult waitReadable(int fd, int timeoutMs) {
    std::function<void(int, int)> hook;
    {
        const Lock lock;
        world().record(joined("wait", fd, timeoutMs));
        hook = world().onWait;
    }
    if (hook) {
        hook(fd, timeoutMs);
    }
    const Lock lock;
    if (fd < 0) {
        errno = EBADF;
        return WaitResult::Failed;
    }
    if (mainThreadShallEnd()) {
        return WaitResult::Terminating;
    }
    if (world().waitResults.empty()) {
        return WaitResult::Ready;
    }
    const WaitResult result = world().waitResults.front();
    world().waitResults.pop_front();
    if (result == WaitResult::TimedOut && timeoutMs > 0) {
        world().advance(timeoutMs);
    }
    if (result == WaitResult::Failed) {
        errno = world().waitErrno;
    }
    return result;
}

bool lockUnlessTerminating(RecursiveMutex& mutex) {
    if (!fakes::onMainThread()) {
        return mutex.lock() == 0;
    }
    for (int polls = 0;; ++polls) {
        const int result = mutex.lockIfFree();
        if (result != EBUSY || mainThreadShallEnd()) {
            return result == 0;
        }
        if (polls == kMostPolls) {
            throw fakes::EndlessLoop("a lock is never released");
        }
        ::usleep(kPollMicros);
    }
}

} // namespace platform
