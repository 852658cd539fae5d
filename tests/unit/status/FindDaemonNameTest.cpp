#include <dirent.h>

#include <cstring>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "platform/Text.h"
#include "status/AppStatusUpdate.h"
#include "tests/fakes/FakePlatform.h"

namespace {

using fakes::world;
using testing::HasSubstr;
using testing::Not;

constexpr pid_t kPid = 777;
constexpr const char* kServer = "/home/kelvo/root/data_server -p 5";

class FindDaemonNameTest : public testing::Test {
protected:
    FindDaemonNameTest() {
        app_.pid = 11;
        app_.start_time = 22;
        platform::copyToField(app_.name, "data_server");
        platform::copyToField(app_.cmd, "old command");
        platform::copyToField(app_.pidfile, "/tmp/old.pid");
        before_ = app_;
    }

    int find() { return status_.findDaemonName(app_); }

    /// What a search at `verbosity` prints.
    std::string tracesAt(int verbosity) {
        app_ = before_;
        world().console.clear();
        verbose = verbosity;
        (void)find();
        return world().consoleText();
    }

    /// `line` is printed from `threshold` on, and not below it.
    void expectTracedFrom(int threshold, const std::string& line) {
        EXPECT_THAT(tracesAt(threshold), HasSubstr(line));
        EXPECT_THAT(tracesAt(threshold - 1), Not(HasSubstr(line)));
    }

    void expectRecordUnchanged() const { EXPECT_EQ(std::memcmp(&app_, &before_, sizeof app_), 0); }

    AppStatusUpdate status_;
    appinfo app_ = {};
    appinfo before_ = {};
};

// --- results ------------------------------------------------------------------------------------

TEST_F(FindDaemonNameTest, ReturnsThePidOfTheProcessOfThatName) {
    world().addProcess(kPid, "data_server", kServer);
    EXPECT_EQ(find(), kPid);
}

TEST_F(FindDaemonNameTest, EmptyProcGivesMinusTwo) {
    EXPECT_EQ(find(), -2);
    expectRecordUnchanged();
}

TEST_F(FindDaemonNameTest, UnreadableProcGivesMinusOne) {
    world().procCanBeOpened = false;
    EXPECT_EQ(find(), -1);
    expectRecordUnchanged();
}

TEST_F(FindDaemonNameTest, MissingFactsGiveMinusTwo) {
    world().addProcess(5, "other", kServer);
    world().addProcess(kPid, "data_server", kServer).factsAvailable = false;
    EXPECT_EQ(find(), -2);
    expectRecordUnchanged();
}

TEST_F(FindDaemonNameTest, OtherNameGivesMinusThree) {
    world().addProcess(kPid, "data_serve", kServer);
    EXPECT_EQ(find(), -3);
    expectRecordUnchanged();
}

TEST_F(FindDaemonNameTest, LongerNameIsAnotherOne) {
    world().addProcess(kPid, "data_server2", kServer);
    EXPECT_EQ(find(), -3);
}

TEST_F(FindDaemonNameTest, UnreadableCommandLineGivesMinusFour) {
    world().addProcess(kPid, "data_server", kServer).cmdlineAvailable = false;
    EXPECT_EQ(find(), -4);
    expectRecordUnchanged();
}

TEST_F(FindDaemonNameTest, EmptyCommandLineGivesMinusFour) {
    world().addProcess(kPid, "data_server", "");
    EXPECT_EQ(find(), -4);
}

TEST_F(FindDaemonNameTest, ZombieGivesMinusFour) {
    world().addProcess(kPid, "data_server", kServer).zombie = true;
    EXPECT_EQ(find(), -4);
}

TEST_F(FindDaemonNameTest, RelativeCommandLineGivesMinusFour) {
    world().addProcess(kPid, "data_server", "home/kelvo/root/data_server");
    EXPECT_EQ(find(), -4);
}

TEST_F(FindDaemonNameTest, CommandLineOutsideTheIncludedFoldersGivesMinusSeven) {
    world().addProcess(kPid, "data_server", "/usr/bin/data_server");
    EXPECT_EQ(find(), -7);
    expectRecordUnchanged();
}

class FindDaemonNameIncludedTest : public FindDaemonNameTest,
                                   public testing::WithParamInterface<const char*> {};

TEST_P(FindDaemonNameIncludedTest, IsFound) {
    world().addProcess(kPid, "data_server", std::string(GetParam()) + "data_server");
    EXPECT_EQ(find(), kPid);
}

INSTANTIATE_TEST_SUITE_P(Prefixes, FindDaemonNameIncludedTest,
                         testing::Values("/home/kelvo/root/", "/home/kelvo/modbus/",
                                         "/home/kelvo/test/", "/mnt/runfw/home/kelvo/root/",
                                         "/mnt/runfw/home/kelvo/modbus/",
                                         "/mnt/runfw/home/kelvo/test/"));

class FindDaemonNameExcludedTest : public FindDaemonNameTest,
                                   public testing::WithParamInterface<const char*> {};

TEST_P(FindDaemonNameExcludedTest, IsNeverTaken) {
    world().addProcess(kPid, "data_server", std::string(GetParam()) + "data_server");
    EXPECT_EQ(find(), -8);
    expectRecordUnchanged();
}

INSTANTIATE_TEST_SUITE_P(Prefixes, FindDaemonNameExcludedTest,
                         testing::Values("/home/kelvo/root/appmon/",
                                         "/home/kelvo/root/python_scripts/",
                                         "/home/kelvo/root/actl",
                                         "/mnt/runfw/home/kelvo/root/appmon/",
                                         "/mnt/runfw/home/kelvo/root/python_scripts/",
                                         "/mnt/runfw/home/kelvo/root/actl"));

TEST_F(FindDaemonNameTest, TheLastProcessExaminedDecidesTheCode) {
    world().addProcess(5, "data_server", "/usr/bin/data_server");
    world().addProcess(6, "other", kServer);
    EXPECT_EQ(find(), -3);
    world().addProcess(7, "data_server", "/home/kelvo/root/appmon/data_server");
    EXPECT_EQ(find(), -8);
}

TEST_F(FindDaemonNameTest, FirstMatchInDirectoryOrderWins) {
    world().addProcess(900, "data_server", "/home/kelvo/test/data_server");
    world().addProcess(kPid, "data_server", kServer);
    EXPECT_EQ(find(), 900);
    EXPECT_STREQ(app_.cmd, "/home/kelvo/test/data_server");
}

TEST_F(FindDaemonNameTest, RefusedProcessesBeforeTheMatchDoNotMatter) {
    world().addProcess(5, "other", kServer);
    world().addProcess(6, "data_server", "/usr/bin/data_server");
    world().addProcess(kPid, "data_server", kServer);
    EXPECT_EQ(find(), kPid);
}

TEST_F(FindDaemonNameTest, NeverTakesTheMonitorItself) {
    world().ownPid = kPid;
    world().addProcess(kPid, "data_server", kServer);
    EXPECT_LT(find(), 0);
    expectRecordUnchanged();
}

TEST_F(FindDaemonNameTest, LooksBehindTheMonitorItself) {
    world().ownPid = 5;
    world().addProcess(5, "data_server", kServer);
    world().addProcess(kPid, "data_server", kServer);
    EXPECT_EQ(find(), kPid);
}

// --- entries of /proc ---------------------------------------------------------------------------

TEST_F(FindDaemonNameTest, SkipsEntriesThatAreNoDirectories) {
    world().addProcess(kPid, "data_server", kServer).direntType = DT_REG;
    EXPECT_EQ(find(), -2);
}

TEST_F(FindDaemonNameTest, SkipsEntriesOfUnknownType) {
    world().addProcess(kPid, "data_server", kServer).direntType = DT_UNKNOWN;
    EXPECT_EQ(find(), -2);
}

TEST_F(FindDaemonNameTest, SkipsNamesThatAreNoNumbers) {
    world().addProcess(kPid, "data_server", kServer).direntName = "777a";
    world().otherProcEntries = {{".", DT_DIR}, {"..", DT_DIR}, {"self", DT_DIR}, {"net", DT_DIR}};
    EXPECT_EQ(find(), -2);
    EXPECT_THAT(tracesAt(8), Not(HasSubstr("d_type")));
}

TEST_F(FindDaemonNameTest, NumberBeyondAllPidsHasNoFacts) {
    world().otherProcEntries = {{"99999999999999999999", DT_DIR}};
    EXPECT_EQ(find(), -2);
}

// --- names --------------------------------------------------------------------------------------

TEST_F(FindDaemonNameTest, FifteenCharactersOfALongNameDecide) {
    platform::copyToField(app_.name, "power_quality_server_of_port_2");
    world().addProcess(kPid, "power_quality_server_of_port_1",
                       "/home/kelvo/root/power_quality_server_of_port_1");
    EXPECT_EQ(find(), kPid);
}

TEST_F(FindDaemonNameTest, TheFifteenthCharacterCounts) {
    platform::copyToField(app_.name, "power_quality_s");
    world().addProcess(kPid, "power_quality_x", kServer);
    EXPECT_EQ(find(), -3);
}

TEST_F(FindDaemonNameTest, NameWithBlanksAndParentheses) {
    platform::copyToField(app_.name, "(a b ) ( c d) ");
    world().addProcess(kPid, "(a b ) ( c d) ", "/home/kelvo/test/(a b ) ( c d) -x");
    EXPECT_EQ(find(), kPid);
    EXPECT_STREQ(app_.cmd, "/home/kelvo/test/(a b ) ( c d) -x");
}

TEST_F(FindDaemonNameTest, ComparesUpperAndLowerCase) {
    world().addProcess(kPid, "Data_server", kServer);
    EXPECT_EQ(find(), -3);
}

// --- the record ---------------------------------------------------------------------------------

TEST_F(FindDaemonNameTest, FillsTheRecord) {
    world().addProcess(kPid, "data_server", kServer, 123456).pidFilename = "/tmp/pid/ds.pid.777";
    EXPECT_EQ(find(), kPid);
    EXPECT_EQ(app_.pid, kPid);
    EXPECT_EQ(app_.start_time, 1700000000 - 10000 + 1234);
    EXPECT_STREQ(app_.pidfile, "/tmp/pid/ds.pid.777");
    EXPECT_STREQ(app_.cmd, kServer);
    EXPECT_STREQ(app_.name, "data_server");
}

TEST_F(FindDaemonNameTest, KeepsThePidFileOfAProcessWithoutOne) {
    world().addProcess(kPid, "data_server", kServer);
    (void)find();
    EXPECT_STREQ(app_.pidfile, "/tmp/old.pid");
}

TEST_F(FindDaemonNameTest, KeepsThePidFileWhenTheNewNameDoesNotFit) {
    world().addProcess(kPid, "data_server", kServer).pidFilename = std::string(64, 'p');
    (void)find();
    EXPECT_STREQ(app_.pidfile, "/tmp/old.pid");
}

TEST_F(FindDaemonNameTest, LongCommandLineFillsTheField) {
    const std::string longLine = "/home/kelvo/root/data_server " + std::string(2000, 'x');
    world().addProcess(kPid, "data_server", longLine);
    EXPECT_EQ(find(), kPid);
    EXPECT_EQ(std::string(app_.cmd), longLine.substr(0, 1023));
}

// --- boot time ----------------------------------------------------------------------------------

TEST(FindDaemonNameBootTimeTest, IsReadAgainWhenItIsUnknown) {
    world().uptimeSec = -1;
    AppStatusUpdate status;
    world().uptimeSec = 100;
    world().addProcess(kPid, "data_server", kServer, 500);
    appinfo app = {};
    platform::copyToField(app.name, "data_server");
    EXPECT_EQ(status.findDaemonName(app), kPid);
    EXPECT_EQ(app.start_time, 1700000000 - 100 + 5);
}

TEST(FindDaemonNameBootTimeTest, IsReadAgainWhenTheTickRateIsUnknown) {
    world().clockTicksPerSecond = 0;
    AppStatusUpdate status;
    world().clockTicksPerSecond = 50;
    world().addProcess(kPid, "data_server", kServer, 500);
    appinfo app = {};
    platform::copyToField(app.name, "data_server");
    EXPECT_EQ(status.findDaemonName(app), kPid);
    EXPECT_EQ(app.start_time, 1700000000 - 10000 + 10);
}

TEST(FindDaemonNameBootTimeTest, IsNotReadAgainWhenItIsKnown) {
    AppStatusUpdate status;
    world().uptimeSec = -1;
    appinfo app = {};
    (void)status.findDaemonName(app);
    EXPECT_EQ(world().consoleText(), "");
}

TEST(FindDaemonNameBootTimeTest, UnknownBootTimeKeepsTheStartTime) {
    world().uptimeSec = -1;
    AppStatusUpdate status;
    world().addProcess(kPid, "data_server", kServer, 500);
    appinfo app = {};
    app.start_time = 22;
    platform::copyToField(app.name, "data_server");
    EXPECT_EQ(status.findDaemonName(app), kPid);
    EXPECT_EQ(app.start_time, 22);
}

TEST(FindDaemonNameBootTimeTest, UnknownTickRateKeepsTheStartTime) {
    world().clockTicksPerSecond = 0;
    AppStatusUpdate status;
    world().addProcess(kPid, "data_server", kServer, 500);
    appinfo app = {};
    app.start_time = 22;
    platform::copyToField(app.name, "data_server");
    EXPECT_EQ(status.findDaemonName(app), kPid);
    EXPECT_EQ(app.start_time, 22);
}

// --- traces -------------------------------------------------------------------------------------

TEST_F(FindDaemonNameTest, TracesTheSearch) {
    expectTracedFrom(7, "findDaemonName: finding daemon for name=data_server\n");
}

TEST_F(FindDaemonNameTest, TracesTheEntry) {
    world().addProcess(kPid, "other", kServer);
    expectTracedFrom(8, "findDaemonName: d_type=0x4 pid=777\n");
}

TEST_F(FindDaemonNameTest, TracesMissingFacts) {
    world().addProcess(kPid, "data_server", kServer).factsAvailable = false;
    expectTracedFrom(8, "findDaemonName: pid=777 process info not found\n");
}

TEST_F(FindDaemonNameTest, TracesTheOtherName) {
    world().addProcess(kPid, "other", kServer);
    expectTracedFrom(
        8, "findDaemonName: pid=777, exeName=other mismatched daemon exeName=\"data_server\"\n");
}

TEST_F(FindDaemonNameTest, TracesAnInvalidCommandLine) {
    world().addProcess(kPid, "data_server", "[data_server]", 42);
    expectTracedFrom(8, "findDaemonName: pid=777, starttime=42, missing or invalid "
                        "cmdline=\"[data_server]\"\n");
}

TEST_F(FindDaemonNameTest, TracesAMissingCommandLine) {
    world().addProcess(kPid, "data_server", kServer, 42).cmdlineAvailable = false;
    expectTracedFrom(8, "findDaemonName: pid=777, starttime=42, missing or invalid cmdline=\"\"\n");
}

TEST_F(FindDaemonNameTest, TracesWhatIsNotIncluded) {
    world().addProcess(kPid, "data_server", "/bin/data_server", 42);
    expectTracedFrom(
        8, "findDaemonName: not included pid=777, starttime=42, cmdline=\"/bin/data_server\"\n");
}

TEST_F(FindDaemonNameTest, TracesWhatIsExcluded) {
    world().addProcess(kPid, "data_server", "/home/kelvo/root/actl_x", 42);
    expectTracedFrom(
        8, "findDaemonName: excluded pid=777, starttime=42, cmdline=\"/home/kelvo/root/actl_x\"\n");
}

TEST_F(FindDaemonNameTest, TracesTheDaemonFound) {
    world().addProcess(kPid, "data_server", kServer, 42);
    expectTracedFrom(7, "findDaemonName: found daemon pid=777, starttime=42 "
                        "cmdline=\"/home/kelvo/root/data_server -p 5\"\n");
}

TEST_F(FindDaemonNameTest, TracesThatNothingWasFound) {
    expectTracedFrom(7, "findDaemonName: daemon not found for pid=11, name=data_server !\n");
}

TEST_F(FindDaemonNameTest, TracesInOrder) {
    world().addProcess(5, "other", kServer);
    world().addProcess(kPid, "data_server", "/bin/data_server", 42);
    EXPECT_EQ(tracesAt(8),
              "findDaemonName: finding daemon for name=data_server\n"
              "findDaemonName: d_type=0x4 pid=5\n"
              "findDaemonName: pid=5, exeName=other mismatched daemon exeName=\"data_server\"\n"
              "findDaemonName: d_type=0x4 pid=777\n"
              "findDaemonName: not included pid=777, starttime=42, cmdline=\"/bin/data_server\"\n"
              "findDaemonName: daemon not found for pid=11, name=data_server !\n");
}

TEST_F(FindDaemonNameTest, FoundDaemonIsNotReportedMissing) {
    world().addProcess(kPid, "data_server", kServer);
    EXPECT_THAT(tracesAt(8), Not(HasSubstr("not found")));
}

TEST_F(FindDaemonNameTest, SaysNothingWhenProcCannotBeOpened) {
    world().procCanBeOpened = false;
    EXPECT_EQ(tracesAt(8), "findDaemonName: finding daemon for name=data_server\n");
}

TEST_F(FindDaemonNameTest, IsSilentAtVerbositySix) {
    world().addProcess(5, "other", kServer);
    world().addProcess(kPid, "data_server", kServer);
    EXPECT_EQ(tracesAt(6), "");
}

TEST_F(FindDaemonNameTest, WritesNothingToTheLog) {
    (void)find();
    EXPECT_TRUE(world().log.empty());
}

} // namespace
