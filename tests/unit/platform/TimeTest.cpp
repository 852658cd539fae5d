#include "platform/Time.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Thread.h"
#include "tests/unit/support/Interruptions.h"

namespace {

using namespace testsupport;

constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();

std::vector<int> bytesOf(const zortime8b& time) {
    return {std::begin(time.bytes), std::end(time.bytes)};
}

// --- spans ---

std::int32_t spanOf(std::int64_t since, std::int64_t now) {
    return platform::secondsSince(static_cast<std::uint32_t>(since), static_cast<std::time_t>(now));
}

TEST(SecondsSince, CountsForwardAndBack) {
    EXPECT_EQ(spanOf(1700000000, 1700000000), 0);
    EXPECT_EQ(spanOf(1700000000, 1700000089), 89);
    EXPECT_EQ(spanOf(1700000000, 1699999999), -1);
    EXPECT_EQ(spanOf(0, std::numeric_limits<std::int32_t>::max()), 2147483647);
    EXPECT_EQ(spanOf(0, std::numeric_limits<std::int32_t>::min()), -2147483647 - 1);
}

/// Also with a clock that counts further than the start.
TEST(SecondsSince, DoesNotMindTheEndsOfItsBits) {
    for (const std::int64_t end : {std::int64_t{0}, std::int64_t{1} << 31, std::int64_t{1} << 32}) {
        EXPECT_EQ(spanOf(end - 1, end + 20), 21) << end;
        EXPECT_EQ(spanOf(end + 20, end - 1), -21) << end;
    }
    EXPECT_EQ(spanOf(std::int64_t{1} << 31, std::numeric_limits<std::int32_t>::min()), 0);
}

// --- the instrument's time ---

TEST(InstrumentTime, IsStoredBigEndian) {
    zortime8b time;
    getZortime8BFromTimeStamp(&time, 0x0102030405060708);
    EXPECT_EQ(bytesOf(time), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8}));
    getZortime8BFromTimeStamp(&time, 0);
    EXPECT_EQ(bytesOf(time), std::vector<int>(8, 0));
    getZortime8BFromTimeStamp(&time, -1);
    EXPECT_EQ(bytesOf(time), std::vector<int>(8, 0xFF));
    getZortime8BFromTimeStamp(&time, -2);
    EXPECT_EQ(bytesOf(time), (std::vector<int>{255, 255, 255, 255, 255, 255, 255, 254}));
}

TEST(InstrumentTime, ConvertsBackExactly) {
    for (const std::int64_t milliseconds :
         {kLowest, kLowest + 1, std::int64_t{-1}, std::int64_t{0}, std::int64_t{1},
          std::int64_t{1700000000123}, std::int64_t{255}, std::int64_t{256}, kHighest}) {
        zortime8b time;
        getZortime8BFromTimeStamp(&time, milliseconds);
        EXPECT_EQ(getTimeStampFromZortime8B(time), milliseconds);
    }
}

TEST(InstrumentTime, CountsMillisecondsOfSeconds) {
    zortime8b time;
    for (const std::time_t seconds : {std::time_t{0}, std::time_t{1}, std::time_t{-1},
                                      std::time_t{2147483647}, std::time_t{-2147483647}}) {
        getZortime8BFromTimeT(&time, seconds);
        EXPECT_EQ(getTimeStampFromZortime8B(time), std::int64_t{seconds} * 1000);
    }
}

TEST(InstrumentTime, StaysAtItsLimits) {
    if (sizeof(std::time_t) < 8) {
        GTEST_SKIP() << "every second of this machine fits";
    }
    zortime8b time;
    getZortime8BFromTimeT(&time, std::numeric_limits<std::time_t>::max());
    EXPECT_EQ(getTimeStampFromZortime8B(time), kHighest);
    getZortime8BFromTimeT(&time, std::numeric_limits<std::time_t>::min());
    EXPECT_EQ(getTimeStampFromZortime8B(time), kLowest);
}

TEST(InstrumentTime, FollowsTheWallClock) {
    timespec before = {};
    timespec after = {};
    zortime8b time;
    ::clock_gettime(CLOCK_REALTIME, &before);
    getZortime8BFromSystem(&time);
    ::clock_gettime(CLOCK_REALTIME, &after);
    EXPECT_GE(getTimeStampFromZortime8B(time), before.tv_sec * 1000LL + before.tv_nsec / 1000000);
    EXPECT_LE(getTimeStampFromZortime8B(time), after.tv_sec * 1000LL + after.tv_nsec / 1000000);
}

TEST(InstrumentTime, PrintsDatesInUtc) {
    const EnvironmentGuard zone("TZ", "Pacific/Auckland");
    ::tzset();
    char text[32];
    getDateStringFromTimeStruct(text, 1700000000);
    EXPECT_STREQ(text, "2023-11-14 22:13:20");
    getDateStringFromTimeStruct(text, 0);
    EXPECT_STREQ(text, "1970-01-01 00:00:00");
    getDateStringFromTimeStruct(text, std::numeric_limits<std::time_t>::min());
    EXPECT_LE(std::strlen(text), 31U);
}

// --- clocks ---

TEST(Clocks, TellTheTime) {
    const std::time_t before = std::time(nullptr);
    const std::time_t now = platform::currentTime();
    EXPECT_GE(now, before);
    EXPECT_LE(now, std::time(nullptr));

    timespec monotonic = {};
    ::clock_gettime(CLOCK_MONOTONIC, &monotonic);
    const std::int64_t expected = monotonic.tv_sec * 1000LL + monotonic.tv_nsec / 1000000;
    EXPECT_GE(platform::monotonicMilliseconds(), expected);
    EXPECT_LE(platform::monotonicMilliseconds(), expected + 5000);
}

TEST(Clocks, PrintLocalTimesLikeCtime) {
    const EnvironmentGuard zone("TZ", "EST5");
    ::tzset();
    EXPECT_STREQ(platform::localTimeText(0).text, "Wed Dec 31 19:00:00 1969");
    for (const std::time_t t : {std::time_t{1700000000}, std::time_t{1699200000}}) {
        char expected[32];
        ASSERT_NE(::ctime_r(&t, expected), nullptr);
        EXPECT_EQ(platform::localTimeText(t).text + std::string("\n"), expected);
    }
}

TEST(Clocks, PrintNothingForATimeThatIsNone) {
    if (sizeof(std::time_t) < 8) {
        GTEST_SKIP() << "every second of this machine has a date";
    }
    EXPECT_STREQ(platform::localTimeText(std::numeric_limits<std::time_t>::max()).text, "");
}

// --- sleeping ---

std::int64_t elapsedBy(int milliseconds) {
    const std::int64_t start = platform::monotonicMilliseconds();
    platform::sleepMilliseconds(milliseconds);
    return platform::monotonicMilliseconds() - start;
}

TEST(Sleeping, LastsItsTime) {
    EXPECT_GE(elapsedBy(30), 29);
}

TEST(Sleeping, IsOverAtOnceForNoTime) {
    EXPECT_LT(elapsedBy(0), 1000);
    EXPECT_LT(elapsedBy(-1), 1000);
    EXPECT_LT(elapsedBy(std::numeric_limits<int>::min()), 1000);
    platform::yieldProcessor();
}

TEST(Sleeping, IsResumedAfterSignals) {
    const Interruptions interruptions(5);
    EXPECT_GE(elapsedBy(60), 59);
    EXPECT_GE(interruptions.count(), 1);
}

/// What a cancelled worker thread passes through.
struct Course {
    std::atomic<bool> started{false};
    std::atomic<bool> cancelSent{false};
    std::atomic<bool> passedOtherWaits{false};
    std::atomic<bool> guardReleased{false};
    std::atomic<bool> passedSleep{false};
};

struct Release {
    explicit Release(Course& owner)
        : course(owner) {}
    ~Release() { course.guardReleased = true; }
    Release(const Release&) = delete;
    Release& operator=(const Release&) = delete;
    Course& course;
};

void* sleepAfterCancellation(void* argument) {
    Course& course = *static_cast<Course*>(argument);
    platform::disableCancellation();
    const Release guard(course);
    course.started = true;
    while (!course.cancelSent) {
        ::usleep(100); // a cancellation point of the C library, which must not take effect here
    }
    ::usleep(100);
    platform::yieldProcessor();
    course.passedOtherWaits = true;
    platform::sleepMilliseconds(0); // even a sleep without length ends the thread
    course.passedSleep = true;
    return nullptr;
}

TEST(Sleeping, IsWhereACancelledThreadEnds) {
    Course course;
    pthread_t thread = {};
    ASSERT_EQ(platform::createWorkerThread(&thread, sleepAfterCancellation, &course), 0);
    ASSERT_TRUE(eventually([&] { return course.started.load(); }));
    ASSERT_EQ(::pthread_cancel(thread), 0);
    course.cancelSent = true;
    void* result = nullptr;
    ASSERT_EQ(::pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(course.passedOtherWaits);
    EXPECT_TRUE(course.guardReleased);
    EXPECT_FALSE(course.passedSleep);
}

void* sleepForAnHour(void* argument) {
    Course& course = *static_cast<Course*>(argument);
    platform::disableCancellation();
    const Release guard(course);
    course.started = true;
    platform::sleepMilliseconds(3600000);
    course.passedSleep = true;
    return nullptr;
}

TEST(Sleeping, EndsInTheMiddleForACancelledThread) {
    Course course;
    pthread_t thread = {};
    ASSERT_EQ(platform::createWorkerThread(&thread, sleepForAnHour, &course), 0);
    ASSERT_TRUE(eventually([&] { return course.started.load(); }));
    ::usleep(5000);
    ASSERT_EQ(::pthread_cancel(thread), 0);
    void* result = nullptr;
    ASSERT_EQ(::pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(course.guardReleased);
    EXPECT_FALSE(course.passedSleep);
}

void* stateAfterASleep(void* result) {
    platform::disableCancellation();
    platform::sleepMilliseconds(1);
    ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, static_cast<int*>(result));
    return nullptr;
}

TEST(Sleeping, LeavesCancellationAsItWas) {
    int state = PTHREAD_CANCEL_ENABLE;
    pthread_t thread = {};
    ASSERT_EQ(platform::createWorkerThread(&thread, stateAfterASleep, &state), 0);
    ASSERT_EQ(::pthread_join(thread, nullptr), 0);
    EXPECT_EQ(state, PTHREAD_CANCEL_DISABLE);
}

// --- sleeping regardless ---

std::int64_t elapsedRegardless(int milliseconds) {
    const std::int64_t start = platform::monotonicMilliseconds();
    platform::sleepRegardless(milliseconds);
    return platform::monotonicMilliseconds() - start;
}

TEST(SleepingRegardless, LastsItsTime) {
    EXPECT_GE(elapsedRegardless(30), 29);
    EXPECT_LT(elapsedRegardless(0), 1000);
    EXPECT_LT(elapsedRegardless(-1), 1000);
}

TEST(SleepingRegardless, IsResumedAfterSignals) {
    const Interruptions interruptions(5);
    EXPECT_GE(elapsedRegardless(60), 59);
    EXPECT_GE(interruptions.count(), 1);
}

void* sleepForAnHourRegardless(void* argument) {
    Course& course = *static_cast<Course*>(argument);
    platform::disableCancellation();
    const Release guard(course);
    course.started = true;
    platform::sleepRegardless(3600000);
    course.passedSleep = true;
    return nullptr;
}

TEST(SleepingRegardless, EndsInTheMiddleForACancelledThread) {
    Course course;
    pthread_t thread = {};
    ASSERT_EQ(platform::createWorkerThread(&thread, sleepForAnHourRegardless, &course), 0);
    ASSERT_TRUE(eventually([&] { return course.started.load(); }));
    ::usleep(5000);
    ASSERT_EQ(::pthread_cancel(thread), 0);
    void* result = nullptr;
    ASSERT_EQ(::pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(course.guardReleased);
    EXPECT_FALSE(course.passedSleep);
}

} // namespace
