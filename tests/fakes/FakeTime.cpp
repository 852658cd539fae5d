// Clocks that only sleeps move on, and the conversions of times.

#include "platform/Time.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>

#include "platform/Wait.h"
#include "tests/fakes/FakePlatform.h"

using fakes::joined;
using fakes::Lock;
using fakes::world;

namespace {

/// Real duration of a millisecond of sleep while worker threads live, and the least of a sleep:
/// long enough for a thread that has been cancelled to end within the time that its end is waited
/// for, on a busy machine and in an instrumented program, too.
constexpr unsigned kWorkerMicrosPerMillisecond = 10;
constexpr unsigned kLeastWorkerMicros = 100;

unsigned realMicrosWithWorkers(int milliseconds) {
    const unsigned slept = static_cast<unsigned>(std::clamp(milliseconds, 0, 1000));
    return std::max(kLeastWorkerMicros, slept * kWorkerMicrosPerMillisecond);
}

/// Records the sleep and moves the clocks on; returns how long it lasts for real, in microseconds.
unsigned passTime(int milliseconds, bool endsEarly) {
    const Lock lock;
    world().record(joined("sleep", milliseconds));
    if (!(endsEarly && platform::terminationPending())) {
        world().advance(std::max(milliseconds, 0));
    }
    const unsigned least = fakes::liveWorkers() > 0 ? realMicrosWithWorkers(milliseconds) : 0;
    return std::max(world().realSleepMicros, least);
}

void runSleepHook(int milliseconds) {
    std::function<void(int)> hook;
    {
        const Lock lock;
        hook = world().onSleep;
    }
    if (hook) {
        hook(milliseconds);
    }
}

/// Where a cancelled worker thread ends.
void endIfCancelled() {
    int savedState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &savedState);
    pthread_testcancel();
    pthread_setcancelstate(savedState, nullptr);
}

/// A real pause during which nothing can be cancelled.
void pauseForReal(unsigned microseconds) {
    int savedState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &savedState);
    ::usleep(microseconds);
    pthread_setcancelstate(savedState, nullptr);
}

void sleepFor(int milliseconds, bool endsEarly) {
    const unsigned realMicros = passTime(milliseconds, endsEarly);
    runSleepHook(milliseconds);
    if (realMicros > 0) {
        pauseForReal(realMicros);
    }
    if (!fakes::onMainThread()) {
        endIfCancelled();
    }
}

} // namespace

void getZortime8BFromSystem(zortime8b* time) {
    getZortime8BFromTimeStamp(time, world().nowInMs());
}

namespace platform {

std::time_t currentTime() {
    const Lock lock;
    return world().now;
}

std::int64_t monotonicMilliseconds() {
    const Lock lock;
    return world().monotonicMs;
}

TimeText localTimeText(std::time_t t, const char* format) {
    ::tzset();
    TimeText result;
    std::tm parts = {};
    if (::localtime_r(&t, &parts) == nullptr ||
        std::strftime(result.text, sizeof result.text, format, &parts) == 0) {
        result.text[0] = '\0';
    }
    return result;
}

void sleepMilliseconds(int milliseconds) {
    sleepFor(milliseconds, true);
}

void sleepRegardless(int milliseconds) {
    sleepFor(milliseconds, false);
}

void yieldProcessor() {
    world().record("yield");
    ::sched_yield();
}

} // namespace platform
