#include <csignal>
#include <ctime>

#include <gtest/gtest.h>

#include "platform/Signals.h"

namespace {

/// A moment of the wall clock is near for a timer on that clock alone: all other clocks count from
/// the start of the machine.
TEST(TimerClock, IsTheWallClock) {
    constexpr std::time_t kAheadSec = 1000;
    timer_t timer = {};
    ASSERT_EQ(platform::createTimer(&timer, SIGUSR1, nullptr), 0);
    itimerspec moment = {};
    moment.it_value.tv_sec = std::time(nullptr) + kAheadSec;
    EXPECT_EQ(::timer_settime(timer, TIMER_ABSTIME, &moment, nullptr), 0);
    itimerspec left = {};
    EXPECT_EQ(::timer_gettime(timer, &left), 0);
    EXPECT_GT(left.it_value.tv_sec, kAheadSec / 2);
    EXPECT_LE(left.it_value.tv_sec, kAheadSec);
    EXPECT_EQ(platform::deleteTimer(timer), 0);
}

} // namespace
