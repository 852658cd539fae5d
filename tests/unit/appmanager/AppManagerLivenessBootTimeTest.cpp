// When a check reads the boot time of the machine.

#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "status/AppStatusUpdate.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/LivenessFixture.h"

namespace liveness {
namespace {

// --- the data server -----------------------------------------------------------------------------

TEST_F(LivenessTest, BootTimeIsReadAgainWhenTheDataServerIsConfirmed) {
    for (const int status : {0, 1, 2, 3}) {
        world().uptimeSec = 400 + status;
        world().now = kNow;
        bFirstDataServerAfterSystemBoot = false;
        EXPECT_EQ(check(status), 1);
        EXPECT_EQ(bootTime(), kNow - 400 - status);
        EXPECT_TRUE(bFirstDataServerAfterSystemBoot);
    }
}

TEST_F(LivenessTest, BootTimeIsReadAgainOncePerRun) {
    (void)check(APP_STATUS_STARTING);
    ASSERT_EQ(bootTime(), kBootReadAgain);
    world().uptimeSec = 20;
    for (const int status : {0, 1, 2, 3}) {
        (void)check(status);
        EXPECT_EQ(bootTime(), kBootReadAgain);
    }
}

TEST_F(LivenessTest, BootTimeStaysWhenAFailedDataServerComesBack) {
    for (const int status : {APP_STATUS_DEAD, APP_STATUS_START_FAILURE}) {
        EXPECT_EQ(check(status), 1);
        EXPECT_EQ(entry_.status, APP_STATUS_RUNNING);
        EXPECT_EQ(bootTime(), kBoot);
        EXPECT_FALSE(bFirstDataServerAfterSystemBoot);
    }
}

TEST_F(LivenessTest, BootTimeStaysWhenTheDataServerIsNotConfirmed) {
    unconfirm();
    entry_.heartbeat = 1;
    for (const int status : {0, 1, 2, 3}) {
        (void)check(status);
        EXPECT_NE(entry_.status, APP_STATUS_START_FAILURE);
        EXPECT_EQ(bootTime(), kBoot);
        EXPECT_FALSE(bFirstDataServerAfterSystemBoot);
    }
}

TEST_F(LivenessTest, BootTimeStaysWhenTheDataServerDies) {
    endProcess();
    for (const int status : {0, 1, 2, 3, 4}) {
        (void)check(status);
        EXPECT_EQ(bootTime(), kBoot);
        EXPECT_FALSE(bFirstDataServerAfterSystemBoot);
    }
}

TEST_F(LivenessTest, BootTimeStaysWhenTheDataServerOnlyRunsOn) {
    (void)check(APP_STATUS_RUNNING);
    EXPECT_EQ(bootTime(), kBoot);
    EXPECT_FALSE(bFirstDataServerAfterSystemBoot);
}

TEST_F(LivenessTest, BootTimeStaysForOtherNames) {
    for (const char* const name : {"data_serve", "data_server2", "Data_server", "meter_io", ""}) {
        platform::copyToField(entry_.name, name);
        EXPECT_EQ(check(APP_STATUS_STARTING), 1);
        EXPECT_EQ(bootTime(), kBoot) << name;
        EXPECT_FALSE(bFirstDataServerAfterSystemBoot) << name;
    }
}

TEST_F(LivenessTest, BootTimeThatCannotBeReadAgainIsNotTriedTwice) {
    world().uptimeSec = -1;
    EXPECT_EQ(check(APP_STATUS_STARTING), 1);
    EXPECT_EQ(bootTime(), kBoot);
    EXPECT_TRUE(bFirstDataServerAfterSystemBoot);
}

// --- the boot time -------------------------------------------------------------------------------

TEST_F(LivenessTest, KnownBootTimeIsNotReadAgain) {
    platform::copyToField(entry_.name, "meter_io");
    for (int status = -1; status <= 11; ++status) {
        (void)check(status);
        EXPECT_EQ(bootTime(), kBoot);
    }
}

/// The tick rate stays unknown, so every check reads both figures.
TEST_F(LivenessTest, UnknownTickRateIsReadAtEveryCheck) {
    platform::copyToField(entry_.name, "meter_io");
    startedAgo(0);
    world().clockTicksPerSecond = 0;
    statusUpdate().initBootTimeVars();
    for (int status = -1; status <= 11; ++status) {
        world().uptimeSec = 600 + status;
        world().now = kNow;
        (void)check(status);
        EXPECT_EQ(bootTime(), kNow - 600 - status);
    }
    world().clockTicksPerSecond = 100;
    world().uptimeSec = 50;
    (void)check(APP_STATUS_RUNNING);
    EXPECT_TRUE(statusUpdate().bootTimeKnown());
    world().uptimeSec = 20;
    (void)check(APP_STATUS_RUNNING);
    EXPECT_EQ(bootTime(), kNow - 50);
}

struct NoUptime {
    NoUptime() { world().uptimeSec = -1; }
};

/// A manager that came up without a boot time.
class LivenessWithoutBootTimeTest : private NoUptime, public LivenessTest {};

TEST_F(LivenessWithoutBootTimeTest, UnknownBootTimeIsReadAtTheNextCheck) {
    ASSERT_EQ(bootTime(), 0U);
    startedAgo(0);
    (void)check(APP_STATUS_RUNNING);
    EXPECT_EQ(bootTime(), kBootReadAgain);
}

TEST_F(LivenessWithoutBootTimeTest, UnknownBootTimeIsReadUntilItIsKnown) {
    platform::copyToField(entry_.name, "meter_io");
    world().uptimeSec = -1;
    EXPECT_EQ(check(APP_STATUS_RUNNING), 1); // an unknown boot time is no fault
    EXPECT_EQ(bootTime(), 0U);
    world().uptimeSec = 300;
    (void)check(APP_STATUS_DEAD);
    EXPECT_EQ(bootTime(), kNow - 300);
}

} // namespace
} // namespace liveness
