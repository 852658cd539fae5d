// Whether a process is the application that was published: its start time, its name, its pid.

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "tests/unit/status/DiscoveryFixture.h"

namespace discovery {
namespace {

// --- start times --------------------------------------------------------------------------------

class AgreeingStartTest : public DiscoveryTest, public testing::WithParamInterface<int> {};

TEST_P(AgreeingStartTest, IsTakenWithThePublishedTime) {
    Published published;
    published.startMs += std::int64_t{GetParam()} * 1000;
    publishOne(published);
    runServer();
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].pid, kPid);
    EXPECT_EQ(list[0].start_time, kStartSec + GetParam());
    EXPECT_EQ(world().procScans, 0);
}

INSTANTIATE_TEST_SUITE_P(Seconds, AgreeingStartTest, testing::Values(-1, 0, 1));

class DifferingStartTest : public DiscoveryTest, public testing::WithParamInterface<int> {
protected:
    DifferingStartTest() {
        Published published;
        published.startMs += std::int64_t{GetParam()} * 1000;
        publishOne(published);
    }
};

TEST_P(DifferingStartTest, IsDroppedWhenNobodyBearsTheName) {
    world().addProcess(kPid, "other", "/home/kelvo/root/other", kStartTicks);
    EXPECT_THAT(discover(), IsEmpty());
    EXPECT_EQ(world().procScans, 1);
}

TEST_P(DifferingStartTest, IsFoundAgainUnderItsName) {
    world().addProcess(kPid, "other", "/home/kelvo/root/other", kStartTicks);
    runServer(kOtherPid, 555555).pidFilename = "/tmp/pid/ds.pid.888";
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].pid, kOtherPid);
    EXPECT_EQ(list[0].start_time, kBootSec + 5555);
    EXPECT_STREQ(list[0].pidfile, "/tmp/pid/ds.pid.888");
    EXPECT_STREQ(list[0].cmd, kServer);
    EXPECT_EQ(list[0].status, 3);
    EXPECT_EQ(list[0].port_num, 502);
    EXPECT_EQ(world().procScans, 1);
}

TEST_P(DifferingStartTest, OfARestartedApplicationIsCorrectedByTheSearch) {
    runServer();
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].pid, kPid);
    EXPECT_EQ(list[0].start_time, kStartSec);
    EXPECT_EQ(world().procScans, 1);
}

INSTANTIATE_TEST_SUITE_P(Seconds, DifferingStartTest, testing::Values(-100000, -2, 2, 100000));

TEST_F(DiscoveryTest, MillisecondsOfThePublishedTimeAreDropped) {
    Published published;
    published.startMs = (kStartSec + 1) * 1000 + 999;
    publishOne(published);
    runServer();
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].start_time, kStartSec + 1);
    EXPECT_EQ(world().procScans, 0);
}

TEST_F(DiscoveryTest, WholeSecondsOfTheTicksCount) {
    Published published;
    published.startMs = (kStartSec - 1) * 1000;
    publishOne(published);
    runServer(kPid, 123499);
    EXPECT_THAT(discover(), SizeIs(1));
    EXPECT_EQ(world().procScans, 0);
    world().processes.clear();
    publishOne(published);
    runServer(kPid, 123500);
    EXPECT_THAT(discover(), SizeIs(1));
    EXPECT_EQ(world().procScans, 1);
}

TEST_F(DiscoveryTest, PublishedTimesOf64BitsAreCompared) {
    for (const std::int64_t milliseconds :
         {kStartSec * 1000 + 4294967296000, std::numeric_limits<std::int64_t>::max(),
          std::numeric_limits<std::int64_t>::min(), std::int64_t{-1500}, std::int64_t{0}}) {
        world().processes.clear();
        Published published;
        published.startMs = milliseconds;
        publishOne(published);
        world().addProcess(kPid, "data_server", "/elsewhere/data_server", kStartTicks);
        EXPECT_THAT(discover(), IsEmpty()) << milliseconds;
    }
}

// --- without a boot time ------------------------------------------------------------------------

TEST_F(DiscoveryTest, BootTimeIsAskedForAgain) {
    publishOne();
    runServer();
    world().uptimeSec = -1;
    AppStatusUpdate status;
    world().uptimeSec = 10000;
    std::vector<appinfo> list;
    status.initUserShm(list, true);
    EXPECT_THAT(list, SizeIs(1));
    EXPECT_EQ(world().procScans, 0);
}

TEST_F(DiscoveryTest, TickRateIsAskedForAgain) {
    publishOne();
    runServer();
    world().clockTicksPerSecond = 0;
    AppStatusUpdate status;
    world().clockTicksPerSecond = 100;
    std::vector<appinfo> list;
    status.initUserShm(list, true);
    EXPECT_THAT(list, SizeIs(1));
    EXPECT_EQ(world().procScans, 0);
}

TEST_F(DiscoveryTest, KnownBootTimeIsNotAskedForAgain) {
    publishOne();
    runServer();
    AppStatusUpdate status;
    world().now += 5000;
    std::vector<appinfo> list;
    status.initUserShm(list, true);
    EXPECT_THAT(list, SizeIs(1));
    EXPECT_EQ(status.bootTime(), kBootSec);
    EXPECT_EQ(world().procScans, 0);
}

TEST_F(DiscoveryTest, WithoutABootTimeOnlyTheNameIsSearched) {
    Published published;
    published.startMs = 5000;
    publishOne(published);
    runServer();
    world().uptimeSec = -1;
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].pid, kPid);
    EXPECT_EQ(list[0].start_time, 5);
    EXPECT_EQ(world().procScans, 1);
}

TEST_F(DiscoveryTest, WithoutABootTimeThePidAloneProvesNothing) {
    publishOne();
    world().addProcess(kPid, "data_server", "/usr/bin/data_server", kStartTicks);
    world().uptimeSec = -1;
    EXPECT_THAT(discover(), IsEmpty());
}

TEST_F(DiscoveryTest, WithoutATickRateOnlyTheNameIsSearched) {
    publishOne();
    runServer();
    world().clockTicksPerSecond = 0;
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(world().procScans, 1);
}

// --- reused pids and renamed programs -----------------------------------------------------------

TEST_F(DiscoveryTest, ReusedPidIsNotTaken) {
    publishOne();
    world().addProcess(kPid, "other", "/home/kelvo/root/other", kStartTicks + 500000);
    EXPECT_THAT(discover(), IsEmpty());
}

TEST_F(DiscoveryTest, ReusedPidThatStartedInTheSameSecondIsNotTaken) {
    publishOne();
    world().addProcess(kPid, "other", "/home/kelvo/root/other", kStartTicks);
    EXPECT_THAT(discover(), IsEmpty());
    EXPECT_EQ(world().procScans, 1);
}

TEST_F(DiscoveryTest, RenamedProgramIsLookedForUnderItsPublishedName) {
    publishOne();
    world().addProcess(kPid, "data_server2", "/home/kelvo/root/data_server2", kStartTicks);
    runServer(kOtherPid, 9900);
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].pid, kOtherPid);
    EXPECT_EQ(list[0].start_time, kBootSec + 99);
}

TEST_F(DiscoveryTest, NamesAreComparedOver15Characters) {
    Published published;
    published.name = "power_quality_server_of_port_2";
    publishOne(published);
    world().addProcess(kPid, "power_quality_s", "/home/kelvo/root/x", kStartTicks);
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_STREQ(list[0].name, "power_quality_server_of_port_2");
    EXPECT_EQ(world().procScans, 0);
}

TEST_F(DiscoveryTest, The15thCharacterCounts) {
    Published published;
    published.name = "power_quality_server_of_port_2";
    publishOne(published);
    world().addProcess(kPid, "power_quality_x", "/home/kelvo/root/x", kStartTicks);
    EXPECT_THAT(discover(), IsEmpty());
}

TEST_F(DiscoveryTest, DeadApplicationIsDropped) {
    publishOne();
    EXPECT_THAT(discover(), IsEmpty());
    EXPECT_EQ(world().procScans, 1);
}

TEST_F(DiscoveryTest, ProcessWithoutFactsIsDropped) {
    publishOne();
    runServer().factsAvailable = false;
    EXPECT_THAT(discover(), IsEmpty());
}

TEST_F(DiscoveryTest, DeadApplicationIsFoundUnderAnotherPid) {
    publishOne();
    runServer(kOtherPid, 100);
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].pid, kOtherPid);
    EXPECT_EQ(list[0].start_time, kBootSec + 1);
}

TEST_F(DiscoveryTest, UnreadableProcDropsWhatHasToBeSearched) {
    publishOne();
    runServer(kOtherPid);
    world().procCanBeOpened = false;
    EXPECT_THAT(discover(), IsEmpty());
}

class ExcludedFolderTest : public DiscoveryTest, public testing::WithParamInterface<const char*> {};

TEST_P(ExcludedFolderTest, IsNeverTakenByItsName) {
    publishOne();
    world().addProcess(kOtherPid, "data_server", std::string(GetParam()) + "data_server",
                       kStartTicks);
    EXPECT_THAT(discover(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Folders, ExcludedFolderTest,
    testing::Values("/home/kelvo/root/appmon/", "/home/kelvo/root/python_scripts/",
                    "/home/kelvo/root/actl", "/mnt/runfw/home/kelvo/root/appmon/",
                    "/mnt/runfw/home/kelvo/root/python_scripts/", "/mnt/runfw/home/kelvo/root/actl",
                    "/usr/bin/", "/home/kelvo/", "home/kelvo/root/"));

TEST_F(DiscoveryTest, ExcludedProgramIsNotTakenOverByItsPid) {
    publishOne();
    world().addProcess(kPid, "data_server", "/home/kelvo/root/appmon/data_server", kStartTicks);
    EXPECT_THAT(discover(), IsEmpty());
}

TEST_F(DiscoveryTest, ProgramOutsideAllFoldersIsTakenOverByItsPid) {
    publishOne();
    world().addProcess(kPid, "data_server", "/usr/bin/data_server", kStartTicks);
    EXPECT_THAT(discover(), SizeIs(1));
}

// --- special pids -------------------------------------------------------------------------------

TEST_F(DiscoveryTest, PidMinusOneIsDroppedWithoutASearch) {
    Published published;
    published.pid = -1;
    publishOne(published);
    runServer();
    EXPECT_THAT(discover(), IsEmpty());
    EXPECT_EQ(world().procScans, 0);
}

TEST_F(DiscoveryTest, RecordsBehindPidMinusOneAreExamined) {
    publishCount(2);
    Published stopped;
    stopped.name = "stopped";
    stopped.pid = -1;
    publish(1, stopped);
    publish(2, {});
    runServer();
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_STREQ(list[0].name, "data_server");
}

class PidOfNoProcessTest : public DiscoveryTest, public testing::WithParamInterface<std::int32_t> {
protected:
    PidOfNoProcessTest() {
        Published published;
        published.pid = GetParam();
        publishOne(published);
    }
};

TEST_P(PidOfNoProcessTest, IsDropped) {
    EXPECT_THAT(discover(), IsEmpty());
    EXPECT_EQ(world().procScans, 1);
}

TEST_P(PidOfNoProcessTest, IsLookedForByName) {
    runServer();
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].pid, kPid);
}

INSTANTIATE_TEST_SUITE_P(Pids, PidOfNoProcessTest,
                         testing::Values(0, -2, std::numeric_limits<std::int32_t>::min(),
                                         std::numeric_limits<std::int32_t>::max()));

TEST_F(DiscoveryTest, NeverTakesTheMonitorItself) {
    Published published;
    published.pid = kOwnPid;
    publishOne(published);
    runServer(kOwnPid);
    EXPECT_THAT(discover(), IsEmpty());
}

TEST_F(DiscoveryTest, ApplicationUnderTheMonitorsPidIsLookedForByName) {
    Published published;
    published.pid = kOwnPid;
    publishOne(published);
    runServer(kOwnPid);
    runServer(kOtherPid);
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].pid, kOtherPid);
}

} // namespace
} // namespace discovery
