#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "status/AppStatusUpdate.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/status/SegmentSupport.h"

namespace {

using fakes::world;
using segments::bigEndian;
using segments::bytesAt;
using segments::kSystem;
using segments::numberAt;
using testing::ElementsAre;

constexpr std::size_t kBootTimeField = 256 + 24;

/// What the image of `status` holds as boot time.
std::string publishedBootTime(AppStatusUpdate& status) {
    std::vector<appinfo> none;
    status.initUserShm(none, false);
    status.updateSysInfo();
    return bytesAt(kSystem, kBootTimeField, 8);
}

TEST(BootTimeTest, IsClockMinusUptimeInMilliseconds) {
    world().now = 1700000000;
    world().uptimeSec = 10000;
    AppStatusUpdate status;
    EXPECT_EQ(publishedBootTime(status), bigEndian(1699990000000));
}

TEST(BootTimeTest, ReplacesThatOfTheKernelsStatistics) {
    world().textFiles["/proc/stat"] = "btime 1234567\n";
    AppStatusUpdate status;
    EXPECT_EQ(publishedBootTime(status), bigEndian(1699990000000));
}

TEST(BootTimeTest, OfTheKernelsStatisticsStaysWhenTheUptimeFails) {
    world().textFiles["/proc/stat"] = "btime 1234567\n";
    world().uptimeSec = -1;
    AppStatusUpdate status;
    EXPECT_EQ(publishedBootTime(status), bigEndian(1234567000));
    EXPECT_EQ(status.bootTime(), 0U);
}

TEST(BootTimeTest, OfTheKernelsStatisticsIsPublishedByTheCycle) {
    AppStatusUpdate status;
    std::vector<appinfo> none;
    status.initUserShm(none, false);
    world().textFiles["/proc/stat"] = "btime 1234567\n";
    status.updateUserShm(none);
    EXPECT_EQ(bytesAt(kSystem, kBootTimeField, 8), bigEndian(1234567000));
    EXPECT_EQ(status.bootTime(), 1699990000U);
}

TEST(BootTimeTest, ReadsTheStatisticsFirst) {
    AppStatusUpdate status;
    verbose = 5;
    world().uptimeSec = -1;
    world().forgetRecords();
    status.initBootTimeVars();
    EXPECT_THAT(world().calls, ElementsAre("readTextFile /proc/stat"));
    EXPECT_EQ(world().consoleText(), "/proc/stat - error opening!\nError 14 obtaining boot time\n");
}

TEST(BootTimeTest, MissingStatisticsDoNotMatter) {
    AppStatusUpdate status;
    world().now += 100;
    EXPECT_EQ(status.initBootTimeVars(), 100);
    EXPECT_EQ(status.bootTime(), 1699990100U);
    EXPECT_EQ(publishedBootTime(status), bigEndian(1699990100000));
}

TEST(BootTimeTest, FailureShowsItsErrorNumber) {
    AppStatusUpdate status;
    world().textFiles["/proc/stat"] = "btime 1\n";
    world().uptimeSec = -1;
    world().uptimeErrno = 38;
    status.initBootTimeVars();
    EXPECT_EQ(world().consoleText(), "Error 38 obtaining boot time\n");
}

TEST(BootTimeTest, LaterCallPublishesTheNewOne) {
    AppStatusUpdate status;
    world().uptimeSec = 20000;
    status.initBootTimeVars();
    EXPECT_EQ(publishedBootTime(status), bigEndian(1699980000000));
}

TEST(BootTimeTest, UptimeOfZeroIsAnUptime) {
    world().uptimeSec = 0;
    AppStatusUpdate status;
    EXPECT_EQ(status.bootTime(), 1700000000U);
    EXPECT_EQ(world().consoleText(), "");
}

TEST(BootTimeTest, TakesTheFirstSampleOfTheProcessor) {
    world().textFiles["/proc/stat"] = "cpu 100 0 0 900 0 0 0 0 0 0\n";
    AppStatusUpdate status;
    std::vector<appinfo> none;
    status.initUserShm(none, false);
    world().textFiles["/proc/stat"] = "cpu 200 0 0 1000 0 0 0 0 0 0\n";
    status.updateUserShm(none);
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 64), 50.0F);
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 76), 50.0F);
}

} // namespace
