#include <algorithm>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "platform/Text.h"
#include "status/AppStatusUpdate.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/status/SegmentSupport.h"

namespace {

using fakes::world;
using segments::bigEndian;
using segments::bytesOf;
using segments::kApplications;
using segments::kApplicationsSize;
using segments::numberAt;
using segments::putNumber;
using segments::putText;
using segments::recordOffset;
using segments::textAt;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr pid_t kOwnPid = 4321;
constexpr pid_t kPid = 777;
constexpr pid_t kOtherPid = 888;
constexpr const char* kServer = "/home/kelvo/root/data_server -p 5";

/// The machine was booted then; a second has 100 clock ticks.
constexpr std::int64_t kBootSec = 1699990000;

/// Start of the process `kPid`, in clock ticks since boot and in seconds since the epoch.
constexpr std::uint64_t kStartTicks = 123456;
constexpr std::int64_t kStartSec = kBootSec + 1234;

/// One record of the segment; those of the fixture's application by default.
struct Published {
    std::string name = "data_server";
    std::int64_t startMs = kStartSec * 1000;
    std::int32_t pid = kPid;
    std::string status = "started";
    std::string portType = "Eth";
};

void publish(std::size_t number, const Published& published) {
    const std::size_t offset = recordOffset(number);
    putText(kApplications, offset, published.name);
    putText(kApplications, offset + 32, "2.5");
    putText(kApplications, offset + 64, bigEndian(published.startMs));
    putNumber(kApplications, offset + 72, published.pid);
    putText(kApplications, offset + 76, published.status);
    putNumber<std::int32_t>(kApplications, offset + 92, -7);
    putNumber<std::int32_t>(kApplications, offset + 96, 1);
    putNumber<std::int32_t>(kApplications, offset + 100, 86400);
    putText(kApplications, offset + 104, published.portType);
    putNumber<std::int32_t>(kApplications, offset + 120, 502);
    putNumber<std::uint32_t>(kApplications, offset + 124, 1000);
}

void publishCount(std::int32_t count) {
    putNumber(kApplications, 0, count);
}

std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

/// An earlier monitor has left a segment, empty as yet.
class DiscoveryTest : public testing::Test {
protected:
    DiscoveryTest() { forgetPublished(); }

    static void forgetPublished() { bytesOf(kApplications).assign(kApplicationsSize, '\0'); }

    /// One application is published.
    static void publishOne(const Published& published = {}) {
        publishCount(1);
        publish(1, published);
    }

    static fakes::Process& runServer(pid_t pid = kPid, std::uint64_t ticks = kStartTicks) {
        return world().addProcess(pid, "data_server", kServer, ticks);
    }

    /// What a new monitor adopts.
    static std::vector<appinfo> discover() {
        AppStatusUpdate status;
        std::vector<appinfo> list;
        EXPECT_EQ(status.initUserShm(list, true), 0);
        return list;
    }

    /// What the discovery prints at `verbosity`; the segment is left as it was.
    static std::string tracesAt(int verbosity) {
        const std::string before = bytesOf(kApplications);
        AppStatusUpdate status;
        std::vector<appinfo> list;
        verbose = verbosity;
        world().console.clear();
        EXPECT_EQ(status.initUserShm(list, true), 0);
        bytesOf(kApplications) = before;
        return world().consoleText();
    }

    /// `text` is printed from `threshold` on, and not below it.
    static void expectTracedFrom(int threshold, const std::string& text) {
        EXPECT_THAT(tracesAt(threshold), HasSubstr(text));
        EXPECT_THAT(tracesAt(threshold - 1), Not(HasSubstr(text)));
    }
};

// --- taken over by pid --------------------------------------------------------------------------

TEST_F(DiscoveryTest, TakesOverWhatStillRunsWithoutASearch) {
    publishOne();
    runServer().pidFilename = "/tmp/pid/data_server.pid.777";
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].pid, kPid);
    EXPECT_STREQ(list[0].name, "data_server");
    EXPECT_STREQ(list[0].version, "2.5");
    EXPECT_STREQ(list[0].cmd, kServer);
    EXPECT_STREQ(list[0].pidfile, "/tmp/pid/data_server.pid.777");
    EXPECT_EQ(list[0].status, 3);
    EXPECT_EQ(list[0].start_time, kStartSec);
    EXPECT_EQ(list[0].uptime, 1000);
    EXPECT_EQ(list[0].port_type, 2);
    EXPECT_EQ(list[0].port_num, 502);
    EXPECT_EQ(list[0].priority, -7);
    EXPECT_EQ(list[0].restart_type, 1);
    EXPECT_EQ(list[0].last_runtime_life_limit, 86400);
    EXPECT_EQ(list[0].check_flag, 0);
    EXPECT_EQ(list[0].keepalive, 0);
    EXPECT_EQ(list[0].heartbeat, 0);
    EXPECT_EQ(world().procScans, 0);
}

TEST_F(DiscoveryTest, TakesOverWithoutPidFileAndCommandLine) {
    publishOne();
    runServer().cmdlineAvailable = false;
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_STREQ(list[0].pidfile, "");
    EXPECT_STREQ(list[0].cmd, "");
}

TEST_F(DiscoveryTest, LongCommandLineFillsTheField) {
    publishOne();
    const std::string line = "/home/kelvo/root/data_server " + std::string(2000, 'x');
    world().addProcess(kPid, "data_server", line, kStartTicks);
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(std::string(list[0].cmd), line.substr(0, 1023));
}

TEST_F(DiscoveryTest, PidFileNameThatDoesNotFitStaysEmpty) {
    publishOne();
    runServer().pidFilename = std::string(64, 'p');
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_STREQ(list[0].pidfile, "");
}

TEST_F(DiscoveryTest, AppendsToTheRegistry) {
    publishOne();
    runServer();
    AppStatusUpdate status;
    std::vector<appinfo> list = {segments::makeApplication("first")};
    status.initUserShm(list, true);
    ASSERT_THAT(list, SizeIs(2));
    EXPECT_STREQ(list[0].name, "first");
    EXPECT_STREQ(list[1].name, "data_server");
}

TEST_F(DiscoveryTest, KeepsTheOrderOfTheRecords) {
    publishCount(3);
    for (std::size_t number = 1; number <= 3; ++number) {
        Published published;
        published.name = "app" + std::to_string(number);
        published.pid = 100 - static_cast<std::int32_t>(number);
        publish(number, published);
        world().addProcess(published.pid, published.name, "/home/kelvo/root/x", kStartTicks);
    }
    world().process(98)->alive = false;
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(2));
    EXPECT_STREQ(list[0].name, "app1");
    EXPECT_STREQ(list[1].name, "app3");
}

TEST_F(DiscoveryTest, ReadsNothingUnlessAsked) {
    publishOne();
    runServer();
    AppStatusUpdate status;
    std::vector<appinfo> list;
    EXPECT_EQ(status.initUserShm(list, false), 0);
    EXPECT_THAT(list, IsEmpty());
    EXPECT_EQ(world().count("loadShm"), 2U); // those of the constructor
    EXPECT_EQ(bytesOf(kApplications), std::string(kApplicationsSize, '\0'));
}

TEST_F(DiscoveryTest, ClearsTheSegmentAfterwards) {
    publishOne();
    runServer();
    EXPECT_THAT(discover(), SizeIs(1));
    EXPECT_EQ(bytesOf(kApplications), std::string(kApplicationsSize, '\0'));
}

// The next monitor finds what this one could not adopt any more.
TEST_F(DiscoveryTest, EndsWhenTheMonitorIsAskedToAndKeepsTheSegment) {
    publishOne();
    runServer();
    const std::string published = bytesOf(kApplications);
    world().terminationIsPending = true;
    EXPECT_THAT(discover(), IsEmpty());
    EXPECT_EQ(bytesOf(kApplications), published);
}

TEST_F(DiscoveryTest, RefreshesMaximumAndVersionTextsOfTheImage) {
    const char* const savedVersion = g_fileVersion;
    const char* const savedDate = g_fileDate;
    g_fileVersion = "0005.0001.new";
    g_fileDate = "today";
    publishOne();
    putNumber<std::int32_t>(kApplications, 4, 5);
    putText(kApplications, 8, "0005.0001.that.of.before");
    putText(kApplications, 40, "yesterday");
    runServer();
    AppStatusUpdate status;
    std::vector<appinfo> list;
    status.initUserShm(list, true);
    status.updateAppInfo();
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 0), 1);
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 4), 127);
    EXPECT_EQ(textAt(kApplications, 8, 32), "0005.0001.new");
    EXPECT_EQ(textAt(kApplications, 40, 32), "today");
    EXPECT_EQ(textAt(kApplications, 128, 32), "data_server");
    g_fileVersion = savedVersion;
    g_fileDate = savedDate;
}

TEST_F(DiscoveryTest, FindsWhatTheLastMonitorHasPublished) {
    world().now += 3000;
    world().uptimeSec += 3000;
    runServer();
    appinfo app = segments::makeApplication("data_server");
    app.pid = kPid;
    app.start_time = static_cast<std::int32_t>(kStartSec);
    std::vector<appinfo> before = {app};
    {
        AppStatusUpdate status;
        std::vector<appinfo> none;
        status.initUserShm(none, false);
        status.updateUserShm(before);
    }
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].pid, kPid);
    EXPECT_EQ(list[0].start_time, kStartSec);
    EXPECT_EQ(list[0].port_num, 502);
    EXPECT_EQ(world().procScans, 0);
}

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

// --- names of statuses and ports ----------------------------------------------------------------

struct NamedCode {
    std::string name;
    std::int32_t code;
};

/// The bytes of `text` with its NULs.
template <std::size_t Size> std::string bytes(const char (&text)[Size]) {
    return {text, Size - 1};
}

class StatusNameTest : public DiscoveryTest, public testing::WithParamInterface<NamedCode> {};

TEST_P(StatusNameTest, GivesTheFirstStatusOfThatName) {
    Published published;
    published.status = GetParam().name;
    publishOne(published);
    runServer();
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].status, GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(Known, StatusNameTest,
                         testing::Values(NamedCode{"initializing", 0}, NamedCode{"starting", 1},
                                         NamedCode{"started", 3}, NamedCode{"stopped", 5},
                                         NamedCode{"dead", 6}, NamedCode{"stopping", 7},
                                         NamedCode{"start failure", 8}, NamedCode{"app late", 9},
                                         NamedCode{"monitor die", 10},
                                         NamedCode{bytes("stopped\0garbage!"), 5}));

INSTANTIATE_TEST_SUITE_P(Unknown, StatusNameTest,
                         testing::Values(NamedCode{"", 0}, NamedCode{"start", 0},
                                         NamedCode{"startedx", 0}, NamedCode{"Started", 0},
                                         NamedCode{" stopped", 0}, NamedCode{"running", 0},
                                         NamedCode{"startedxstartedx", 0},
                                         NamedCode{"start failurexxx", 0},
                                         NamedCode{std::string(16, '\xFF'), 0}));

class PortNameTest : public DiscoveryTest, public testing::WithParamInterface<NamedCode> {};

TEST_P(PortNameTest, GivesThePortTypeOfThatName) {
    Published published;
    published.portType = GetParam().name;
    publishOne(published);
    runServer();
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].port_type, GetParam().code);
    EXPECT_EQ(list[0].port_num, 502);
}

INSTANTIATE_TEST_SUITE_P(Names, PortNameTest,
                         testing::Values(NamedCode{"None", 0}, NamedCode{"COM", 1},
                                         NamedCode{"Eth", 2},
                                         NamedCode{bytes("COM\0zzzzzzzzzzzz"), 1}, NamedCode{"", 0},
                                         NamedCode{"eth", 0}, NamedCode{"COM1", 0},
                                         NamedCode{"EthEthEthEthEthE", 0},
                                         NamedCode{std::string(16, '\x80'), 0}));

// --- texts without an end -----------------------------------------------------------------------

TEST_F(DiscoveryTest, NameWithoutAnEndIsCutTo31) {
    Published published;
    published.name = std::string(32, 'n');
    publishOne(published);
    world().addProcess(kPid, std::string(15, 'n'), "/home/kelvo/root/n", kStartTicks);
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(std::string(list[0].name), std::string(31, 'n'));
    EXPECT_STREQ(list[0].version, "2.5");
}

TEST_F(DiscoveryTest, VersionWithoutAnEndIsCutTo31) {
    publishOne();
    putText(kApplications, 128 + 32, std::string(32, 'v'));
    runServer();
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(std::string(list[0].version, 32), std::string(31, 'v') + '\0');
    EXPECT_EQ(list[0].start_time, kStartSec);
}

// The image is published again by the next cycle.
TEST_F(DiscoveryTest, TextsOfTheImageEndInsideTheirFields) {
    Published published;
    published.name = std::string(32, 'n');
    published.status = std::string(16, 's');
    published.portType = std::string(16, 'p');
    publishOne(published);
    putText(kApplications, 128 + 32, std::string(32, 'v'));
    AppStatusUpdate status;
    std::vector<appinfo> list;
    status.initUserShm(list, true);
    status.updateAppInfo();
    EXPECT_EQ(textAt(kApplications, 128, 32), std::string(31, 'n'));
    EXPECT_EQ(textAt(kApplications, 128 + 32, 32), std::string(31, 'v'));
    EXPECT_EQ(textAt(kApplications, 128 + 76, 16), std::string(15, 's'));
    EXPECT_EQ(textAt(kApplications, 128 + 104, 16), std::string(15, 'p'));
}

// --- counts -------------------------------------------------------------------------------------

struct PublishedCount {
    std::int32_t count;
    std::size_t examined;
};

class PublishedCountTest : public DiscoveryTest,
                           public testing::WithParamInterface<PublishedCount> {
protected:
    PublishedCountTest() {
        for (std::size_t number = 1; number <= 127; ++number) {
            Published published;
            published.name = "app" + std::to_string(number);
            published.pid = 1000 + static_cast<std::int32_t>(number);
            publish(number, published);
            world().addProcess(published.pid, published.name, "/home/kelvo/root/x", kStartTicks);
        }
        publishCount(GetParam().count);
    }
};

TEST_P(PublishedCountTest, AdoptsSoMany) {
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(GetParam().examined));
    for (std::size_t index = 0; index < list.size(); ++index) {
        EXPECT_EQ(list[index].name, "app" + std::to_string(index + 1));
        EXPECT_EQ(list[index].pid, 1001 + static_cast<std::int32_t>(index));
    }
}

TEST_P(PublishedCountTest, ExaminesSoMany) {
    world().processes.clear();
    EXPECT_EQ(occurrences(tracesAt(4), "initAppInfo: checking "), GetParam().examined);
}

INSTANTIATE_TEST_SUITE_P(
    Counts, PublishedCountTest,
    testing::Values(PublishedCount{std::numeric_limits<std::int32_t>::min(), 0},
                    PublishedCount{-5, 0}, PublishedCount{-1, 0}, PublishedCount{0, 0},
                    PublishedCount{1, 1}, PublishedCount{126, 126}, PublishedCount{127, 127},
                    PublishedCount{128, 127}, PublishedCount{200, 127},
                    PublishedCount{std::numeric_limits<std::int32_t>::max(), 127}));

// --- segments that cannot be read ---------------------------------------------------------------

TEST_F(DiscoveryTest, NewSegmentHoldsNothing) {
    world().segments.clear();
    runServer();
    EXPECT_THAT(discover(), IsEmpty());
}

TEST_F(DiscoveryTest, SegmentThatCannotBeOpenedHoldsNothing) {
    publishOne();
    runServer();
    world().segmentErrors = {kApplications};
    world().segments.erase(kApplications);
    EXPECT_THAT(discover(), IsEmpty());
}

TEST_F(DiscoveryTest, ShortSegmentIsFilledUpWithNothing) {
    publishCount(3);
    publish(1, {});
    bytesOf(kApplications).resize(256);
    runServer();
    EXPECT_THAT(discover(), SizeIs(1));
}

TEST_F(DiscoveryTest, SegmentThatIsShortenedMeanwhileHoldsNothing) {
    publishOne();
    runServer();
    world().onCall = [](const std::string& call) {
        if (call == "clearData /meter_usr7_data.shared") {
            bytesOf(kApplications).resize(300);
        }
    };
    EXPECT_THAT(discover(), IsEmpty());
    world().onCall = nullptr;
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

// --- traces -------------------------------------------------------------------------------------

TEST_F(DiscoveryTest, TracesTheFiguresOfTheClock) {
    expectTracedFrom(4,
                     "initAppInfo: boot_time_t = 1699990000\ninitAppInfo: jiffiesPerSec = 100\n");
}

TEST_F(DiscoveryTest, TracesEachRecord) {
    publishOne();
    expectTracedFrom(4, "initAppInfo: checking 'data_server' start_time=1699991234\n");
}

TEST_F(DiscoveryTest, TracesThePidMinusOne) {
    Published published;
    published.pid = -1;
    publishOne(published);
    expectTracedFrom(5, "initAppInfo: 'data_server' process info not found for pid=-1\n");
}

TEST_F(DiscoveryTest, TracesAProcessThatIsGone) {
    publishOne();
    expectTracedFrom(5, "initAppInfo: 'data_server' process info not found for pid=777\n");
}

TEST_F(DiscoveryTest, TracesAnotherStartTime) {
    Published published;
    published.startMs -= 2000;
    publishOne(published);
    runServer();
    expectTracedFrom(5, "initAppInfo: proc_info.starttime =123456\n"
                        "initAppInfo: 'data_server' pid=777 start_time_t=1699991234 mismatch "
                        "previous start_time_t=1699991232\n");
}

TEST_F(DiscoveryTest, TracesTicksOf64Bits) {
    publishOne();
    runServer(kPid, 5000000000ULL);
    EXPECT_THAT(tracesAt(5), HasSubstr("initAppInfo: proc_info.starttime =5000000000\n"));
}

TEST_F(DiscoveryTest, TracesAnotherName) {
    publishOne();
    world().addProcess(kPid, "other", "/home/kelvo/root/other", kStartTicks);
    // The search that follows says the same of the same process.
    const std::string line =
        "findDaemonName: pid=777, exeName=other mismatched daemon exeName=\"data_server\"\n";
    EXPECT_EQ(occurrences(tracesAt(8), line), 2U);
    EXPECT_EQ(occurrences(tracesAt(7), line), 0U);
}

TEST_F(DiscoveryTest, TracesAFruitlessSearch) {
    publishOne();
    expectTracedFrom(5, "initAppInfo: findDaemonName('data_server') process not found\n");
}

TEST_F(DiscoveryTest, TracesWhatItAdds) {
    publishOne();
    runServer().pidFilename = "/tmp/pid/ds.pid.777";
    expectTracedFrom(4, "initAppInfo: 'data_server' added to applist for pid=777, "
                        "pidfile=/tmp/pid/ds.pid.777, cmd=/home/kelvo/root/data_server -p 5\n");
}

TEST_F(DiscoveryTest, TracesWhatTheSearchAdds) {
    publishOne();
    runServer(kOtherPid);
    EXPECT_THAT(tracesAt(4), HasSubstr("initAppInfo: 'data_server' added to applist for pid=888, "
                                       "pidfile=, cmd=/home/kelvo/root/data_server -p 5\n"));
}

TEST_F(DiscoveryTest, IsSilentAtThree) {
    publishCount(3);
    publish(1, {});
    publish(2, {"gone"});
    runServer();
    EXPECT_EQ(tracesAt(3), "");
}

TEST_F(DiscoveryTest, TracesInOrder) {
    world().textFiles["/proc/stat"] = "";
    publishCount(3);
    Published moved;
    moved.startMs += 2000;
    publish(1, moved);
    Published stopped;
    stopped.name = "stopped";
    stopped.pid = -1;
    publish(2, stopped);
    Published gone;
    gone.name = "gone";
    gone.pid = 5;
    publish(3, gone);
    runServer();
    EXPECT_EQ(tracesAt(5),
              "initAppInfo: boot_time_t = 1699990000\n"
              "initAppInfo: jiffiesPerSec = 100\n"
              "initAppInfo: checking 'data_server' start_time=1699991236\n"
              "initAppInfo: proc_info.starttime =123456\n"
              "initAppInfo: 'data_server' pid=777 start_time_t=1699991234 mismatch previous "
              "start_time_t=1699991236\n"
              "initAppInfo: 'data_server' added to applist for pid=777, pidfile=, "
              "cmd=/home/kelvo/root/data_server -p 5\n"
              "initAppInfo: checking 'stopped' start_time=1699991234\n"
              "initAppInfo: 'stopped' process info not found for pid=-1\n"
              "initAppInfo: checking 'gone' start_time=1699991234\n"
              "initAppInfo: 'gone' process info not found for pid=5\n"
              "initAppInfo: findDaemonName('gone') process not found\n");
}

// --- random segments ----------------------------------------------------------------------------

class RandomSegmentTest : public DiscoveryTest {
protected:
    RandomSegmentTest() {
        verbose = 8;
        runServer(kOwnPid);
        runServer(kPid);
        world().addProcess(kOtherPid, "gateway", "/home/kelvo/modbus/gateway", 98765);
        world().addProcess(5, "kthread", "", 0);
        world().addProcess(6, "data_server", "/home/kelvo/root/appmon/data_server", 4);
    }

    std::uint32_t below(std::uint32_t bound) {
        return static_cast<std::uint32_t>(random_() % bound);
    }

    std::string randomBytes(std::size_t size) {
        std::string text(size, '\0');
        std::generate(text.begin(), text.end(), [this] { return static_cast<char>(below(256)); });
        return text;
    }

    template <typename Value> Value oneOf(const std::vector<Value>& values) {
        return values[below(static_cast<std::uint32_t>(values.size()))];
    }

    /// A record that is almost good.
    Published randomRecord() {
        Published published;
        published.name = oneOf<std::string>(
            {"data_server", "gateway", "", "kthread", std::string(32, 'n'), randomBytes(32)});
        published.pid = oneOf<std::int32_t>(
            {kOwnPid, kPid, kOtherPid, 5, 6, 0, -1, -2, static_cast<std::int32_t>(random_())});
        published.startMs =
            oneOf<std::int64_t>({kStartSec * 1000, (kBootSec + 987) * 1000, kBootSec * 1000,
                                 static_cast<std::int64_t>(random_())});
        published.status = oneOf<std::string>({"started", "dead", "", randomBytes(16)});
        published.portType = oneOf<std::string>({"COM", "Eth", "", randomBytes(16)});
        return published;
    }

    /// Whatever the segment held: what was adopted are real processes, and never the monitor.
    static void expectSound(const std::vector<appinfo>& list) {
        EXPECT_LE(list.size(), 127U);
        for (const appinfo& app : list) {
            EXPECT_NE(app.pid, kOwnPid);
            fakes::Process* const process = world().process(app.pid);
            ASSERT_NE(process, nullptr) << app.pid;
            EXPECT_EQ(platform::fieldText(app.name).substr(0, 15), process->exeName);
            EXPECT_EQ(app.name[31], '\0');
            EXPECT_EQ(app.version[31], '\0');
            EXPECT_TRUE(app.status >= 0 && app.status <= 10) << app.status;
            EXPECT_TRUE(app.port_type >= 0 && app.port_type <= 2) << app.port_type;
            EXPECT_EQ(std::string(app.cmd), process->cmdline);
        }
    }

    std::minstd_rand random_;
};

TEST_F(RandomSegmentTest, OfRandomBytesDoesNoHarm) {
    for (std::uint32_t seed = 1; seed <= 200; ++seed) {
        SCOPED_TRACE(seed);
        random_.seed(seed);
        bytesOf(kApplications) = randomBytes(kApplicationsSize);
        if (seed % 2 == 0) {
            publishCount(127);
        }
        expectSound(discover());
    }
}

TEST_F(RandomSegmentTest, OfAlmostGoodRecordsAdoptsOnlyWhatRuns) {
    std::size_t adopted = 0;
    for (std::uint32_t seed = 1; seed <= 200; ++seed) {
        SCOPED_TRACE(seed);
        random_.seed(seed);
        bytesOf(kApplications) = randomBytes(kApplicationsSize);
        publishCount(oneOf<std::int32_t>({3, 127, 200}));
        for (std::size_t number = 1; number <= 127; ++number) {
            putText(kApplications, recordOffset(number), std::string(64, '\0'));
            publish(number, randomRecord());
        }
        const std::vector<appinfo> list = discover();
        expectSound(list);
        adopted += list.size();
    }
    EXPECT_GT(adopted, 0U);
}

} // namespace
