#include <dirent.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/DataServer.h"
#include "tests/unit/appmanager/IdentificationFixture.h"

namespace launches {
namespace {

// --- results -------------------------------------------------------------------------------------

using FindDaemonTest = SearchTest;

TEST_F(FindDaemonTest, ReturnsThePidOfTheProcessWithTheSameWords) {
    addDaemon();
    EXPECT_EQ(find(), kDaemon);
}

TEST_F(FindDaemonTest, ExecutableNameDoesNotMatter) {
    world().addProcess(kDaemon, "(a b ) ( c d) ", kServer);
    EXPECT_EQ(find(), kDaemon);
}

TEST_F(FindDaemonTest, PathWithBlanksAndParentheses) {
    useCommand("/home/kelvo/test/(a b ) ( c d) -x");
    world().addProcess(kDaemon, "(a b ) ( c d) ", "/home/kelvo/test/(a b ) ( c d) -x");
    EXPECT_EQ(find(), kDaemon);
}

TEST_F(FindDaemonTest, NumberOfBlanksDoesNotMatter) {
    useCommand("/home/kelvo/root/data_server \t -p   5 ");
    addDaemon();
    EXPECT_EQ(find(), kDaemon);
}

TEST_F(FindDaemonTest, UnreadableProcGivesMinusOne) {
    world().procCanBeOpened = false;
    EXPECT_EQ(find(), -1);
    expectRecordUnchanged();
}

TEST_F(FindDaemonTest, EmptyProcGivesMinusTwo) {
    EXPECT_EQ(find(), -2);
    expectRecordUnchanged();
}

TEST_F(FindDaemonTest, MissingFactsGiveMinusTwo) {
    world().addProcess(5, "x", "/home/kelvo/root/x");
    addDaemon().factsAvailable = false;
    EXPECT_EQ(find(), -2);
    expectRecordUnchanged();
}

TEST_F(FindDaemonTest, UnreadableCommandLineGivesMinusThree) {
    addDaemon().cmdlineAvailable = false;
    EXPECT_EQ(find(), -3);
    expectRecordUnchanged();
}

TEST_F(FindDaemonTest, EmptyCommandLineGivesMinusThree) {
    world().addProcess(kDaemon, "kthreadd", "");
    EXPECT_EQ(find(), -3);
}

TEST_F(FindDaemonTest, ZombieGivesMinusThree) {
    addDaemon().zombie = true;
    EXPECT_EQ(find(), -3);
}

TEST_F(FindDaemonTest, RelativeCommandLineGivesMinusThree) {
    addDaemon("./data_server -p 5");
    EXPECT_EQ(find(), -3);
}

TEST_F(FindDaemonTest, LeadingBlankGivesMinusThree) {
    addDaemon(std::string(" ") + kServer);
    EXPECT_EQ(find(), -3);
}

TEST_F(FindDaemonTest, OneMoreArgumentGivesMinusFive) {
    addDaemon(std::string(kServer) + " -d");
    EXPECT_EQ(find(), -5);
    expectRecordUnchanged();
}

TEST_F(FindDaemonTest, OneMoreArgumentThanACommandMayHaveGivesMinusFive) {
    std::string command = kServer;
    for (int words = 3; words < 40; ++words) {
        command += " " + std::to_string(words);
    }
    useCommand(command);
    addDaemon(command + " \t");
    EXPECT_GT(find(), 0);
    useCommand(command);
    world().processes.clear();
    addDaemon(command + " d");
    EXPECT_EQ(find(), -5);
    expectRecordUnchanged();
}

TEST_F(FindDaemonTest, ApplicationStartedFromALongerCommandIsFound) {
    std::string command = kServer;
    for (int words = 3; words < 40; ++words) {
        command += " " + std::to_string(words);
    }
    useCommand(command + " and more words that are never handed to the program");
    addDaemon(command);
    EXPECT_GT(find(), 0);
}

TEST_F(FindDaemonTest, OneArgumentLessGivesMinusFive) {
    addDaemon("/home/kelvo/root/data_server -p");
    EXPECT_EQ(find(), -5);
}

TEST_F(FindDaemonTest, CommandLineThatCannotBeSplitGivesMinusFive) {
    addDaemon();
    world().mallocs.failCalls = {2, 3, 4}; // the first one is for the application's own words
    EXPECT_EQ(find(), -5);
    expectRecordUnchanged();
}

TEST_F(FindDaemonTest, OtherProgramGivesMinusSix) {
    addDaemon("/home/kelvo/root/data_serveR -p 5");
    EXPECT_EQ(find(), -6);
    expectRecordUnchanged();
}

TEST_F(FindDaemonTest, OtherArgumentGivesMinusSix) {
    addDaemon("/home/kelvo/root/data_server -p 6");
    EXPECT_EQ(find(), -6);
}

TEST_F(FindDaemonTest, ArgumentsInAnotherOrderGiveMinusSix) {
    addDaemon("/home/kelvo/root/data_server 5 -p");
    EXPECT_EQ(find(), -6);
}

TEST_F(FindDaemonTest, BeginningOfAnArgumentIsNotEnough) {
    addDaemon("/home/kelvo/root/data_server -p 55");
    EXPECT_EQ(find(), -6);
}

TEST_F(FindDaemonTest, ProgramOutsideTheIncludedFoldersGivesMinusSeven) {
    useCommand("/usr/bin/data_server");
    addDaemon("/usr/bin/data_server");
    EXPECT_EQ(find(), -7);
    expectRecordUnchanged();
}

class FindDaemonIncludedTest : public FindDaemonTest,
                               public testing::WithParamInterface<const char*> {};

TEST_P(FindDaemonIncludedTest, IsFound) {
    const std::string command = std::string(GetParam()) + "data_server -p 5";
    useCommand(command);
    addDaemon(command);
    EXPECT_EQ(find(), kDaemon);
}

TEST_P(FindDaemonIncludedTest, FolderWithALongerNameIsNotIncluded) {
    const std::string prefix = GetParam();
    const std::string command = prefix.substr(0, prefix.size() - 1) + "2/data_server -p 5";
    useCommand(command);
    addDaemon(command);
    EXPECT_EQ(find(), -7);
}

INSTANTIATE_TEST_SUITE_P(Prefixes, FindDaemonIncludedTest,
                         testing::Values("/mnt/runfw/home/kelvo/root/",
                                         "/mnt/runfw/home/kelvo/modbus/",
                                         "/mnt/runfw/home/kelvo/test/", "/home/kelvo/root/",
                                         "/home/kelvo/modbus/", "/home/kelvo/test/"));

class FindDaemonExcludedTest : public FindDaemonTest,
                               public testing::WithParamInterface<const char*> {};

TEST_P(FindDaemonExcludedTest, IsRefused) {
    const std::string command = std::string(GetParam()) + "ivity_server";
    useCommand(command);
    addDaemon(command);
    EXPECT_EQ(find(), -8);
    expectRecordUnchanged();
}

INSTANTIATE_TEST_SUITE_P(Prefixes, FindDaemonExcludedTest,
                         testing::Values("/mnt/runfw/home/kelvo/root/appmon/",
                                         "/mnt/runfw/home/kelvo/root/python_scripts/",
                                         "/mnt/runfw/home/kelvo/root/actl",
                                         "/home/kelvo/root/appmon/",
                                         "/home/kelvo/root/python_scripts/",
                                         "/home/kelvo/root/actl"));

TEST_F(FindDaemonTest, TheLastProcessExaminedDecidesTheCode) {
    world().addProcess(5, "data_server", "/home/kelvo/root/data_server -p 6");
    EXPECT_EQ(find(), -6);
    world().addProcess(6, "data_server", "/home/kelvo/root/data_server");
    EXPECT_EQ(find(), -5);
    world().addProcess(7, "kthreadd", "");
    EXPECT_EQ(find(), -3);
    world().addProcess(8, "data_server", kServer).factsAvailable = false;
    EXPECT_EQ(find(), -2);
}

TEST_F(FindDaemonTest, WordsAreComparedBeforeTheFolder) {
    addDaemon("/usr/bin/data_server -p 5");
    EXPECT_EQ(find(), -6);
}

TEST_F(FindDaemonTest, FirstMatchInDirectoryOrderWins) {
    world().addProcess(900, "data_server", kServer);
    addDaemon();
    EXPECT_EQ(find(), 900);
    EXPECT_EQ(app_.pid, 900);
}

TEST_F(FindDaemonTest, RefusedProcessesBeforeTheMatchDoNotMatter) {
    world().addProcess(5, "data_server", "/home/kelvo/root/data_server -p 6");
    world().addProcess(6, "kthreadd", "");
    addDaemon();
    EXPECT_EQ(find(), kDaemon);
}

TEST_F(FindDaemonTest, NeverTakesTheMonitorItself) {
    world().ownPid = kDaemon;
    addDaemon();
    EXPECT_LT(find(), 0);
    expectRecordUnchanged();
}

TEST_F(FindDaemonTest, LooksBehindTheMonitorItself) {
    world().ownPid = 5;
    world().addProcess(5, "data_server", kServer);
    addDaemon();
    EXPECT_EQ(find(), kDaemon);
}

TEST_F(FindDaemonTest, GivesAllMemoryBack) {
    world().addProcess(5, "data_server", "/home/kelvo/root/data_server -p 6");
    world().addProcess(6, "data_server", "/home/kelvo/root/data_server");
    world().addProcess(7, "data_server", "/home/kelvo/root/actl");
    addDaemon();
    (void)find();
    EXPECT_EQ(world().liveBlocks(), 0U);
    EXPECT_EQ(world().foreignReleases, 0);
}

// --- the program path alone ----------------------------------------------------------------------

TEST_F(FindDaemonTest, ProgramPathAloneAcceptsOtherArguments) {
    addDaemon("/home/kelvo/root/data_server -q 6");
    EXPECT_EQ(find(true), kDaemon);
}

TEST_F(FindDaemonTest, ProgramPathAloneMustBeTheSame) {
    addDaemon("/home/kelvo/root/data_server2 -p 5");
    EXPECT_EQ(find(true), -6);
}

TEST_F(FindDaemonTest, ProgramPathAloneStillNeedsTheSameNumberOfWords) {
    addDaemon("/home/kelvo/root/data_server");
    EXPECT_EQ(find(true), -5);
}

// --- entries of /proc ----------------------------------------------------------------------------

TEST_F(FindDaemonTest, SkipsEntriesThatAreNoDirectories) {
    addDaemon().direntType = DT_REG;
    EXPECT_EQ(find(), -2);
}

TEST_F(FindDaemonTest, SkipsNamesThatAreNoNumbers) {
    addDaemon().direntName = "602x";
    world().otherProcEntries = {{".", DT_DIR}, {"..", DT_DIR}, {"self", DT_DIR}};
    EXPECT_EQ(find(), -2);
    EXPECT_THAT(tracesAt(8), Not(HasSubstr("d_type")));
}

TEST_F(FindDaemonTest, NumberBeyondAllPidsHasNoFacts) {
    world().otherProcEntries = {{"99999999999999999999", DT_DIR}};
    EXPECT_EQ(find(), -2);
}

// --- the record ----------------------------------------------------------------------------------

TEST_F(FindDaemonTest, FillsPidStartTimeAndPidFileOnly) {
    addDaemon(kServer, 123456).pidFilename = "/tmp/new.pid.602";
    EXPECT_EQ(find(), kDaemon);
    EXPECT_EQ(app_.pid, kDaemon);
    EXPECT_EQ(app_.start_time, kBoot + 1234);
    EXPECT_STREQ(app_.pidfile, "/tmp/new.pid.602");
    EXPECT_STREQ(app_.cmd, kServer);
    EXPECT_STREQ(app_.name, "data_server");
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
}

TEST_F(FindDaemonTest, KeepsThePidFileOfAProcessWithoutOne) {
    addDaemon();
    (void)find();
    EXPECT_STREQ(app_.pidfile, "/tmp/old.pid");
}

TEST_F(FindDaemonTest, PidFileNameOf63CharactersFits) {
    const std::string name(63, 'p');
    addDaemon().pidFilename = name;
    (void)find();
    EXPECT_EQ(std::string(app_.pidfile), name);
}

TEST_F(FindDaemonTest, PidFileNameOf64CharactersDoesNotFit) {
    addDaemon().pidFilename = std::string(64, 'p');
    (void)find();
    EXPECT_STREQ(app_.pidfile, "/tmp/old.pid");
}

} // namespace
} // namespace launches
