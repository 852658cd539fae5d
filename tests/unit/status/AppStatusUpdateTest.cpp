#include "status/AppStatusUpdate.h"

#include <cerrno>

#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "tests/fakes/FakePlatform.h"

namespace {

using fakes::world;

statstruct_proc processStartedAt(std::uint64_t ticks) {
    statstruct_proc info = {};
    info.starttime = ticks;
    return info;
}

TEST(AppStatusUpdateTest, OnlyDigitsOrNothingAreANumber) {
    for (const char* const number : {"", "0", "0123456789"}) {
        EXPECT_EQ(AppStatusUpdate::is_uint(number), 0) << number;
    }
    for (const char* const other : {"self", "-1", "+1", "1 ", "12a"}) {
        EXPECT_EQ(AppStatusUpdate::is_uint(other), -1) << other;
    }
}

TEST(AppStatusUpdateTest, KnowsTheBootTimeFromItsConstructionOn) {
    world().now = 1700000000;
    world().uptimeSec = 10000;
    world().clockTicksPerSecond = 250;
    const AppStatusUpdate status;
    EXPECT_EQ(status.bootTime(), 1699990000U);
    EXPECT_EQ(status.clockTicksPerSecond(), 250);
    EXPECT_TRUE(status.bootTimeKnown());
}

TEST(AppStatusUpdateTest, BootTimeIsUnknownWhenTheSystemCallFailsAtConstruction) {
    world().uptimeSec = -1;
    const AppStatusUpdate status;
    EXPECT_EQ(status.bootTime(), 0U);
    EXPECT_FALSE(status.bootTimeKnown());
}

TEST(AppStatusUpdateTest, BootTimeIsUnknownWithoutAClockTickRate) {
    world().clockTicksPerSecond = 0;
    const AppStatusUpdate status;
    EXPECT_NE(status.bootTime(), 0U);
    EXPECT_FALSE(status.bootTimeKnown());
}

TEST(InitBootTimeVarsTest, ReturnsTheClockTickRate) {
    AppStatusUpdate status;
    world().clockTicksPerSecond = 1000;
    EXPECT_EQ(status.initBootTimeVars(), 1000);
    EXPECT_EQ(status.clockTicksPerSecond(), 1000);
}

TEST(InitBootTimeVarsTest, FollowsTheClocks) {
    AppStatusUpdate status;
    world().now = 1800000000;
    world().uptimeSec = 60;
    status.initBootTimeVars();
    EXPECT_EQ(status.bootTime(), 1799999940U);
}

TEST(InitBootTimeVarsTest, FailureLeavesTheBootTimeAsItWas) {
    AppStatusUpdate status;
    const std::uint32_t before = status.bootTime();
    world().now += 500;
    world().uptimeSec = -1;
    status.initBootTimeVars();
    EXPECT_EQ(status.bootTime(), before);
    EXPECT_TRUE(status.bootTimeKnown());
}

TEST(InitBootTimeVarsTest, FailureStillReadsTheClockTickRate) {
    AppStatusUpdate status;
    world().uptimeSec = -1;
    world().clockTicksPerSecond = 1024;
    EXPECT_EQ(status.initBootTimeVars(), 1024);
    EXPECT_EQ(status.clockTicksPerSecond(), 1024);
}

TEST(InitBootTimeVarsTest, FailureIsShownAtEveryVerbosity) {
    AppStatusUpdate status;
    verbose = 0;
    world().uptimeSec = -1;
    world().uptimeErrno = EFAULT;
    status.initBootTimeVars();
    EXPECT_EQ(world().consoleText(), "Error 14 obtaining boot time\n");
}

TEST(InitBootTimeVarsTest, SuccessIsSilent) {
    verbose = 10;
    world().textFiles["/proc/stat"] = "";
    AppStatusUpdate status;
    status.initBootTimeVars();
    EXPECT_EQ(world().consoleText(), "");
}

TEST(InitBootTimeVarsTest, KeepsABootTimeAfter2038) {
    AppStatusUpdate status;
    world().now = static_cast<std::time_t>(2147483648 + 1000); // wraps in 32 bits, and comes back
    world().uptimeSec = 1;
    status.initBootTimeVars();
    EXPECT_EQ(status.bootTime(), 2147484647U);
}

TEST(InitBootTimeVarsTest, ALaterSuccessMakesTheBootTimeKnown) {
    world().uptimeSec = -1;
    AppStatusUpdate status;
    world().uptimeSec = 10;
    status.initBootTimeVars();
    EXPECT_TRUE(status.bootTimeKnown());
}

/// Boot at second 1000, 100 ticks each second.
class ClockTicksTest : public testing::Test {
protected:
    ClockTicksTest() {
        world().now = 1500;
        world().uptimeSec = 500;
        world().clockTicksPerSecond = 100;
        status_.initBootTimeVars();
    }

    AppStatusUpdate status_;
};

TEST_F(ClockTicksTest, StartTimeIsBootTimePlusWholeSeconds) {
    EXPECT_EQ(status_.startTimeOf(processStartedAt(0)), 1000);
    EXPECT_EQ(status_.startTimeOf(processStartedAt(99)), 1000);
    EXPECT_EQ(status_.startTimeOf(processStartedAt(100)), 1001);
    EXPECT_EQ(status_.startTimeOf(processStartedAt(12399)), 1123);
}

TEST_F(ClockTicksTest, StartTimeOfAProcessAfter248DaysOfTicks) {
    EXPECT_EQ(status_.startTimeOf(processStartedAt(2147483700ULL)), 1000 + 21474837);
    EXPECT_EQ(status_.startTimeOf(processStartedAt(4294967400ULL)), 1000 + 42949674);
}

TEST_F(ClockTicksTest, TimeIsConvertedToTicksSinceBoot) {
    EXPECT_EQ(status_.clockTicksAt(1001), 100U);
    EXPECT_EQ(status_.clockTicksAt(1123), 12300U);
}

TEST_F(ClockTicksTest, TimeNotAfterTheBootGivesNoTicks) {
    EXPECT_EQ(status_.clockTicksAt(1000), 0U);
    EXPECT_EQ(status_.clockTicksAt(999), 0U);
    EXPECT_EQ(status_.clockTicksAt(-5), 0U);
}

/// On a machine without a clock of its own.
TEST_F(ClockTicksTest, BootMayLieASecondBeforeTheEpoch) {
    world().now = 20;
    world().uptimeSec = 21;
    status_.initBootTimeVars();
    EXPECT_EQ(status_.clockTicksAt(20), 2100U);
    EXPECT_EQ(status_.startTimeOf(processStartedAt(2100)), 20);
}

TEST_F(ClockTicksTest, ManyTicksDoNotOverflow) {
    EXPECT_EQ(status_.clockTicksAt(1000 + 50000000), 5000000000ULL);
}

} // namespace
