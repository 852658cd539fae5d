#include "platform/Time.h"

#include <pthread.h>
#include <sched.h>

#include <cerrno>

#include "platform/linux/Clock.h"
#include "platform/linux/Watch.h"

#if defined(__SANITIZE_ADDRESS__)
#define OVARD_ADDRESS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OVARD_ADDRESS_SANITIZER
#endif
#endif
#ifdef OVARD_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif

void getZortime8BFromSystem(zortime8b* time) {
    timespec now = {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    constexpr std::int64_t kMillisecondsPerSecond = 1000;
    getZortime8BFromTimeStamp(time, now.tv_sec * kMillisecondsPerSecond +
                                        now.tv_nsec / platform::kNanosecondsPerMillisecond);
}

namespace platform {
namespace {

/// The address sanitizer does not see a cancelled thread leave its frames, and would take what is
/// put in their place for an overflow: forgets where their variables end. Nothing in other builds.
void forgetFrames() {
#ifdef OVARD_ADDRESS_SANITIZER
    ::__asan_handle_no_return();
#endif
}

/// Sleeps until the monotonic time `deadline`. The one place where a cancelled thread ends.
void sleepCancellable(std::int64_t deadline) {
    const timespec end = toTimespec(deadline);
    int savedState = PTHREAD_CANCEL_ENABLE;
    ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &savedState);
    forgetFrames();
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
    ::pthread_setcancelstate(savedState, nullptr);
}

} // namespace

std::time_t currentTime() {
    return std::time(nullptr);
}

std::int64_t monotonicMilliseconds() {
    return monotonicNanoseconds() / kNanosecondsPerMillisecond;
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
    const std::int64_t deadline = deadlineAfter(milliseconds);
    if (isWatchingThread()) {
        pauseUntil(deadline);
    } else {
        sleepCancellable(deadline);
    }
}

void sleepRegardless(int milliseconds) {
    sleepCancellable(deadlineAfter(milliseconds)); // Nobody cancels the watching thread.
}

void yieldProcessor() {
    ::sched_yield();
}

} // namespace platform
