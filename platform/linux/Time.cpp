#include "platform/Time.h"

#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <cstring>
#include <limits>

#include "platform/linux/CivilTime.h"
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

namespace {

constexpr std::int64_t kMillisecondsPerSecond = 1000;

/// Seconds to milliseconds; what does not fit becomes the nearest time that does.
std::int64_t toMilliseconds(std::int64_t seconds) {
    std::int64_t milliseconds = 0;
    if (!__builtin_mul_overflow(seconds, kMillisecondsPerSecond, &milliseconds)) {
        return milliseconds;
    }
    return seconds < 0 ? std::numeric_limits<std::int64_t>::min()
                       : std::numeric_limits<std::int64_t>::max();
}

} // namespace

void getZortime8BFromSystem(zortime8b* time) {
    timespec now = {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    getZortime8BFromTimeStamp(time, toMilliseconds(now.tv_sec) +
                                        now.tv_nsec / platform::kNanosecondsPerMillisecond);
}

void getZortime8BFromTimeT(zortime8b* time, std::time_t seconds) {
    getZortime8BFromTimeStamp(time, toMilliseconds(seconds));
}

void getZortime8BFromTimeStamp(zortime8b* time, std::int64_t milliseconds) {
    auto rest = static_cast<std::uint64_t>(milliseconds);
    for (std::size_t index = sizeof time->bytes; index > 0; --index) {
        time->bytes[index - 1] = static_cast<unsigned char>(rest & 0xFF);
        rest >>= 8;
    }
}

std::int64_t getTimeStampFromZortime8B(const zortime8b& time) {
    std::uint64_t milliseconds = 0;
    for (const unsigned char byte : time.bytes) {
        milliseconds = milliseconds << 8 | byte;
    }
    return static_cast<std::int64_t>(milliseconds);
}

void getDateStringFromTimeStruct(char* buffer, std::time_t t) {
    const platform::DateTimeText text = platform::dateTimeText(t);
    std::memcpy(buffer, text.c_str(), text.view().size() + 1);
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

std::string localTimeText(std::time_t t) {
    ::tzset();
    std::tm parts = {};
    if (::localtime_r(&t, &parts) == nullptr) {
        return {};
    }
    char text[64];
    return {text, std::strftime(text, sizeof text, "%a %b %e %H:%M:%S %Y", &parts)};
}

void sleepMilliseconds(int milliseconds) {
    const std::int64_t deadline = deadlineAfter(milliseconds);
    if (isWatchingThread()) {
        pauseUntil(deadline);
    } else {
        sleepCancellable(deadline);
    }
}

void yieldProcessor() {
    ::sched_yield();
}

} // namespace platform
