#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "platform/UniqueFd.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"

namespace {

using fakes::world;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr pid_t kLaunched = 601;
constexpr pid_t kDaemon = 602;

constexpr std::time_t kNow = 1700000000;
constexpr std::time_t kBoot = kNow - 10000;

constexpr const char* kServer = "/home/kelvo/root/data_server -p 5";

class IdentificationTest : public testing::Test {
protected:
    IdentificationTest() {
        platform::copyToField(app_.name, "data_server");
        platform::copyToField(app_.cmd, kServer);
        platform::copyToField(app_.pidfile, "/tmp/old.pid");
        app_.pid = kLaunched;
        app_.start_time = 22;
        app_.status = APP_STATUS_STARTING0;
        before_ = app_;
    }

    void expectRecordUnchanged() const { EXPECT_EQ(std::memcmp(&app_, &before_, sizeof app_), 0); }

    FixtureManager manager_;
    appinfo app_ = {};
    appinfo before_ = {};
};

// --- findDaemon: results ------------------------------------------------------------------------

class FindDaemonTest : public IdentificationTest {
protected:
    int find(bool argv0Only = false) {
        statstruct_proc info = {};
        info.pid = kLaunched;
        char** argv = nullptr;
        const int argc = manager_.commandline_parser(app_.cmd, argv);
        const int result = manager_.findDaemon(app_, &info, argc, argv, argv0Only);
        manager_.commandline_parser_cleanup(argc, argv);
        return result;
    }

    /// What a search at `verbosity` prints, without the traces of the command's words.
    std::string tracesAt(int verbosity, bool argv0Only = false) {
        app_ = before_;
        world().console.clear();
        verbose = verbosity;
        (void)find(argv0Only);
        return withoutWords(world().consoleText());
    }

    static std::string withoutWords(const std::string& text) {
        std::string kept;
        std::size_t begin = 0;
        while (begin < text.size()) {
            const std::size_t end = text.find('\n', begin);
            const std::string line = text.substr(begin, end - begin + 1);
            if (line.rfind("commandline_parser: ", 0) != 0) {
                kept += line;
            }
            begin += line.size();
        }
        return kept;
    }

    /// `text` is printed from `threshold` on, and not below it.
    void expectTracedFrom(int threshold, const std::string& text, bool argv0Only = false) {
        EXPECT_THAT(tracesAt(threshold, argv0Only), HasSubstr(text));
        EXPECT_THAT(tracesAt(threshold - 1, argv0Only), Not(HasSubstr(text)));
    }

    void useCommand(const std::string& command) {
        platform::copyToField(app_.cmd, command);
        before_ = app_;
    }
};

TEST_F(FindDaemonTest, ReturnsThePidOfTheProcessWithTheSameWords) {
    world().addProcess(kDaemon, "data_server", kServer);
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
    world().addProcess(kDaemon, "data_server", kServer);
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
    world().addProcess(kDaemon, "data_server", kServer).factsAvailable = false;
    EXPECT_EQ(find(), -2);
    expectRecordUnchanged();
}

TEST_F(FindDaemonTest, UnreadableCommandLineGivesMinusThree) {
    world().addProcess(kDaemon, "data_server", kServer).cmdlineAvailable = false;
    EXPECT_EQ(find(), -3);
    expectRecordUnchanged();
}

TEST_F(FindDaemonTest, EmptyCommandLineGivesMinusThree) {
    world().addProcess(kDaemon, "kthreadd", "");
    EXPECT_EQ(find(), -3);
}

TEST_F(FindDaemonTest, ZombieGivesMinusThree) {
    world().addProcess(kDaemon, "data_server", kServer).zombie = true;
    EXPECT_EQ(find(), -3);
}

TEST_F(FindDaemonTest, RelativeCommandLineGivesMinusThree) {
    world().addProcess(kDaemon, "data_server", "./data_server -p 5");
    EXPECT_EQ(find(), -3);
}

TEST_F(FindDaemonTest, LeadingBlankGivesMinusThree) {
    world().addProcess(kDaemon, "data_server", std::string(" ") + kServer);
    EXPECT_EQ(find(), -3);
}

TEST_F(FindDaemonTest, OneMoreArgumentGivesMinusFive) {
    world().addProcess(kDaemon, "data_server", std::string(kServer) + " -d");
    EXPECT_EQ(find(), -5);
    expectRecordUnchanged();
}

TEST_F(FindDaemonTest, OneArgumentLessGivesMinusFive) {
    world().addProcess(kDaemon, "data_server", "/home/kelvo/root/data_server -p");
    EXPECT_EQ(find(), -5);
}

TEST_F(FindDaemonTest, CommandLineThatCannotBeSplitGivesMinusFive) {
    world().addProcess(kDaemon, "data_server", kServer);
    world().mallocs.failCalls = {2, 3, 4}; // the first one is for the application's own words
    EXPECT_EQ(find(), -5);
    expectRecordUnchanged();
}

TEST_F(FindDaemonTest, OtherProgramGivesMinusSix) {
    world().addProcess(kDaemon, "data_server", "/home/kelvo/root/data_serveR -p 5");
    EXPECT_EQ(find(), -6);
    expectRecordUnchanged();
}

TEST_F(FindDaemonTest, OtherArgumentGivesMinusSix) {
    world().addProcess(kDaemon, "data_server", "/home/kelvo/root/data_server -p 6");
    EXPECT_EQ(find(), -6);
}

TEST_F(FindDaemonTest, ArgumentsInAnotherOrderGiveMinusSix) {
    world().addProcess(kDaemon, "data_server", "/home/kelvo/root/data_server 5 -p");
    EXPECT_EQ(find(), -6);
}

TEST_F(FindDaemonTest, BeginningOfAnArgumentIsNotEnough) {
    world().addProcess(kDaemon, "data_server", "/home/kelvo/root/data_server -p 55");
    EXPECT_EQ(find(), -6);
}

TEST_F(FindDaemonTest, ProgramOutsideTheIncludedFoldersGivesMinusSeven) {
    useCommand("/usr/bin/data_server");
    world().addProcess(kDaemon, "data_server", "/usr/bin/data_server");
    EXPECT_EQ(find(), -7);
    expectRecordUnchanged();
}

class FindDaemonIncludedTest : public FindDaemonTest,
                               public testing::WithParamInterface<const char*> {};

TEST_P(FindDaemonIncludedTest, IsFound) {
    const std::string command = std::string(GetParam()) + "data_server -p 5";
    useCommand(command);
    world().addProcess(kDaemon, "data_server", command);
    EXPECT_EQ(find(), kDaemon);
}

TEST_P(FindDaemonIncludedTest, FolderWithALongerNameIsNotIncluded) {
    const std::string prefix = GetParam();
    const std::string command = prefix.substr(0, prefix.size() - 1) + "2/data_server -p 5";
    useCommand(command);
    world().addProcess(kDaemon, "data_server", command);
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
    world().addProcess(kDaemon, "data_server", command);
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
    world().addProcess(kDaemon, "data_server", "/usr/bin/data_server -p 5");
    EXPECT_EQ(find(), -6);
}

TEST_F(FindDaemonTest, FirstMatchInDirectoryOrderWins) {
    world().addProcess(900, "data_server", kServer);
    world().addProcess(kDaemon, "data_server", kServer);
    EXPECT_EQ(find(), 900);
    EXPECT_EQ(app_.pid, 900);
}

TEST_F(FindDaemonTest, RefusedProcessesBeforeTheMatchDoNotMatter) {
    world().addProcess(5, "data_server", "/home/kelvo/root/data_server -p 6");
    world().addProcess(6, "kthreadd", "");
    world().addProcess(kDaemon, "data_server", kServer);
    EXPECT_EQ(find(), kDaemon);
}

TEST_F(FindDaemonTest, NeverTakesTheMonitorItself) {
    world().ownPid = kDaemon;
    world().addProcess(kDaemon, "data_server", kServer);
    EXPECT_LT(find(), 0);
    expectRecordUnchanged();
}

TEST_F(FindDaemonTest, LooksBehindTheMonitorItself) {
    world().ownPid = 5;
    world().addProcess(5, "data_server", kServer);
    world().addProcess(kDaemon, "data_server", kServer);
    EXPECT_EQ(find(), kDaemon);
}

TEST_F(FindDaemonTest, GivesAllMemoryBack) {
    world().addProcess(5, "data_server", "/home/kelvo/root/data_server -p 6");
    world().addProcess(6, "data_server", "/home/kelvo/root/data_server");
    world().addProcess(7, "data_server", "/home/kelvo/root/actl");
    world().addProcess(kDaemon, "data_server", kServer);
    (void)find();
    EXPECT_EQ(world().liveBlocks(), 0U);
    EXPECT_EQ(world().foreignReleases, 0);
}

// --- findDaemon: the program path alone ---------------------------------------------------------

TEST_F(FindDaemonTest, ProgramPathAloneAcceptsOtherArguments) {
    world().addProcess(kDaemon, "data_server", "/home/kelvo/root/data_server -q 6");
    EXPECT_EQ(find(true), kDaemon);
}

TEST_F(FindDaemonTest, ProgramPathAloneMustBeTheSame) {
    world().addProcess(kDaemon, "data_server", "/home/kelvo/root/data_server2 -p 5");
    EXPECT_EQ(find(true), -6);
}

TEST_F(FindDaemonTest, ProgramPathAloneStillNeedsTheSameNumberOfWords) {
    world().addProcess(kDaemon, "data_server", "/home/kelvo/root/data_server");
    EXPECT_EQ(find(true), -5);
}

// --- findDaemon: entries of /proc ---------------------------------------------------------------

TEST_F(FindDaemonTest, SkipsEntriesThatAreNoDirectories) {
    world().addProcess(kDaemon, "data_server", kServer).direntType = DT_REG;
    EXPECT_EQ(find(), -2);
}

TEST_F(FindDaemonTest, SkipsNamesThatAreNoNumbers) {
    world().addProcess(kDaemon, "data_server", kServer).direntName = "602x";
    world().otherProcEntries = {{".", DT_DIR}, {"..", DT_DIR}, {"self", DT_DIR}};
    EXPECT_EQ(find(), -2);
    EXPECT_THAT(tracesAt(8), Not(HasSubstr("d_type")));
}

TEST_F(FindDaemonTest, NumberBeyondAllPidsHasNoFacts) {
    world().otherProcEntries = {{"99999999999999999999", DT_DIR}};
    EXPECT_EQ(find(), -2);
}

// --- findDaemon: the record ---------------------------------------------------------------------

TEST_F(FindDaemonTest, FillsPidStartTimeAndPidFileOnly) {
    world().addProcess(kDaemon, "data_server", kServer, 123456).pidFilename = "/tmp/new.pid.602";
    EXPECT_EQ(find(), kDaemon);
    EXPECT_EQ(app_.pid, kDaemon);
    EXPECT_EQ(app_.start_time, kBoot + 1234);
    EXPECT_STREQ(app_.pidfile, "/tmp/new.pid.602");
    EXPECT_STREQ(app_.cmd, kServer);
    EXPECT_STREQ(app_.name, "data_server");
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
}

TEST_F(FindDaemonTest, KeepsThePidFileOfAProcessWithoutOne) {
    world().addProcess(kDaemon, "data_server", kServer);
    (void)find();
    EXPECT_STREQ(app_.pidfile, "/tmp/old.pid");
}

TEST_F(FindDaemonTest, PidFileNameOf63CharactersFits) {
    const std::string name(63, 'p');
    world().addProcess(kDaemon, "data_server", kServer).pidFilename = name;
    (void)find();
    EXPECT_EQ(std::string(app_.pidfile), name);
}

TEST_F(FindDaemonTest, PidFileNameOf64CharactersDoesNotFit) {
    world().addProcess(kDaemon, "data_server", kServer).pidFilename = std::string(64, 'p');
    (void)find();
    EXPECT_STREQ(app_.pidfile, "/tmp/old.pid");
}

// --- findDaemon: traces -------------------------------------------------------------------------

TEST_F(FindDaemonTest, TracesTheSearch) {
    expectTracedFrom(7, "findDaemon: finding daemon for pid=601, name=data_server\n");
}

TEST_F(FindDaemonTest, TracesTheEntry) {
    world().addProcess(kDaemon, "data_server", kServer);
    expectTracedFrom(8, "findDaemon: d_type=0x4 pid=602\n");
}

TEST_F(FindDaemonTest, TracesMissingFacts) {
    world().addProcess(kDaemon, "data_server", kServer).factsAvailable = false;
    expectTracedFrom(8, "findDaemon: pid=602 process info not found\n");
}

TEST_F(FindDaemonTest, TracesAnInvalidCommandLine) {
    world().addProcess(kDaemon, "data_server", "sh -c x", 42);
    expectTracedFrom(8,
                     "findDaemon: pid=602, starttime=42, missing or invalid cmdline=\"sh -c x\"\n");
}

TEST_F(FindDaemonTest, TracesAMissingCommandLine) {
    world().addProcess(kDaemon, "data_server", kServer, 42).cmdlineAvailable = false;
    expectTracedFrom(8, "findDaemon: pid=602, starttime=42, missing or invalid cmdline=\"\"\n");
}

TEST_F(FindDaemonTest, TracesAnotherNumberOfWords) {
    world().addProcess(kDaemon, "x", "/home/kelvo/root/x");
    expectTracedFrom(8, "findDaemon: app cmdline=/home/kelvo/root/data_server -p 5 argc=3 mismatch "
                        "for pid=602, cmdline=\"/home/kelvo/root/x\" argc=1\n");
}

class FindDaemonUnsplitTest : public FindDaemonTest, public testing::WithParamInterface<int> {
protected:
    static constexpr const char* kText =
        "findDaemon: app cmdline=/home/kelvo/root/data_server -p 5 argc=3 mismatch for pid=602, "
        "cmdline=\"/home/kelvo/root/data_server -p 5\" argc=0\n";

    void SetUp() override {
        world().addProcess(kDaemon, "data_server", kServer);
        world().mallocs.failCalls = {2, 3, 4};
    }
};

TEST_P(FindDaemonUnsplitTest, IsTracedFromVerbosityThreeOn) {
    const std::string traces = tracesAt(GetParam());
    if (GetParam() >= 3) {
        EXPECT_THAT(traces, HasSubstr(kText));
    } else {
        EXPECT_EQ(traces, "");
    }
}

INSTANTIATE_TEST_SUITE_P(Verbosities, FindDaemonUnsplitTest, testing::Values(2, 3, 7, 8));

TEST_F(FindDaemonTest, TracesTheFirstWordThatDiffers) {
    world().addProcess(kDaemon, "data_server", "/home/kelvo/root/data_server -q 6");
    expectTracedFrom(
        8, "findDaemon: app cmdline=/home/kelvo/root/data_server -p 5 argv[1]=-p mismatch for "
           "pid=602, cmdline=\"/home/kelvo/root/data_server -q 6\" argv[1]=\"-q\"\n");
    EXPECT_THAT(tracesAt(8), Not(HasSubstr("argv[2]")));
}

TEST_F(FindDaemonTest, TracesThatTheProgramDiffers) {
    world().addProcess(kDaemon, "x", "/home/kelvo/root/x -p 5");
    expectTracedFrom(8, "findDaemon: app cmdline=/home/kelvo/root/data_server -p 5 "
                        "argv[0]=/home/kelvo/root/data_server mismatch for pid=602, "
                        "cmdline=\"/home/kelvo/root/x -p 5\" argv[0]=\"/home/kelvo/root/x\"\n");
}

TEST_F(FindDaemonTest, TracesThatTheProgramAloneDiffers) {
    world().addProcess(kDaemon, "x", "/home/kelvo/root/x -p 5");
    expectTracedFrom(8,
                     "findDaemon: app cmdline=/home/kelvo/root/data_server -p 5 "
                     "argv[0]=/home/kelvo/root/data_server argv[0] mismatch for pid=602, "
                     "cmdline=\"/home/kelvo/root/x -p 5\" argv[0]=\"/home/kelvo/root/x\"\n",
                     true);
}

TEST_F(FindDaemonTest, TracesWhatIsNotIncluded) {
    useCommand("/bin/x");
    world().addProcess(kDaemon, "x", "/bin/x", 42);
    expectTracedFrom(8, "findDaemon: not included pid=602, starttime=42, cmdline=\"/bin/x\"\n");
}

TEST_F(FindDaemonTest, TracesWhatIsExcluded) {
    useCommand("/home/kelvo/root/actl");
    world().addProcess(kDaemon, "actl", "/home/kelvo/root/actl", 42);
    expectTracedFrom(
        8, "findDaemon: excluded pid=602, starttime=42, cmdline=\"/home/kelvo/root/actl\"\n");
}

TEST_F(FindDaemonTest, TracesTheDaemonFoundWithItsStartTime) {
    world().addProcess(kDaemon, "data_server", kServer, 1000000);
    // 10000 s after the boot, that is at second 1700000000.
    expectTracedFrom(7, "findDaemon: found daemon pid=602, starttime=1000000(2023-11-14 22:13:20) "
                        "cmdline=\"/home/kelvo/root/data_server -p 5\"\n");
}

TEST_F(FindDaemonTest, TracesThatNothingWasFound) {
    expectTracedFrom(7, "findDaemon: daemon not found for pid=601, name=data_server !\n"
                        "findDaemon: check daemonInclusionList and daemonExclusionList!\n");
}

TEST_F(FindDaemonTest, TracesInOrder) {
    world().addProcess(5, "kthreadd", "");
    world().addProcess(kDaemon, "data_server", kServer, 0);
    EXPECT_EQ(tracesAt(8), "findDaemon: finding daemon for pid=601, name=data_server\n"
                           "findDaemon: d_type=0x4 pid=5\n"
                           "findDaemon: pid=5, starttime=0, missing or invalid cmdline=\"\"\n"
                           "findDaemon: d_type=0x4 pid=602\n"
                           "findDaemon: found daemon pid=602, starttime=0(2023-11-14 19:26:40) "
                           "cmdline=\"/home/kelvo/root/data_server -p 5\"\n");
}

TEST_F(FindDaemonTest, SaysNothingMoreWhenProcCannotBeOpened) {
    world().procCanBeOpened = false;
    EXPECT_EQ(tracesAt(8), "findDaemon: finding daemon for pid=601, name=data_server\n");
}

TEST_F(FindDaemonTest, IsSilentAtVerbositySix) {
    world().addProcess(5, "data_server", "/home/kelvo/root/data_server -p 6");
    EXPECT_EQ(tracesAt(6), "");
    world().addProcess(kDaemon, "data_server", kServer);
    EXPECT_EQ(tracesAt(6), "");
}

// --- findDaemon: boot time ----------------------------------------------------------------------

class FindDaemonBootTimeTest : public FindDaemonTest {
protected:
    AppStatusUpdate& status() { return AppManagerTestAccess::statusUpdate(manager_); }
};

TEST_F(FindDaemonBootTimeTest, IsNotReadAgainWhenItIsKnown) {
    world().uptimeSec = -1;
    (void)find();
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(FindDaemonBootTimeTest, IsReadAgainWithoutATickRate) {
    world().clockTicksPerSecond = 0;
    status().initBootTimeVars();
    world().clockTicksPerSecond = 50;
    world().addProcess(kDaemon, "data_server", kServer, 500);
    EXPECT_EQ(find(), kDaemon);
    EXPECT_EQ(app_.start_time, kBoot + 10);
}

TEST_F(FindDaemonBootTimeTest, UnknownTickRateKeepsTheStartTime) {
    world().clockTicksPerSecond = 0;
    status().initBootTimeVars();
    world().addProcess(kDaemon, "data_server", kServer, 500);
    EXPECT_EQ(find(), kDaemon);
    EXPECT_EQ(app_.start_time, 22);
    EXPECT_EQ(app_.pid, kDaemon);
}

/// A manager that came up without a boot time.
class UnknownBootTest : public testing::Test {
protected:
    struct NoUptime {
        NoUptime() { world().uptimeSec = -1; }
    };

    UnknownBootTest() {
        platform::copyToField(app_.name, "data_server");
        platform::copyToField(app_.cmd, kServer);
        app_.pid = kLaunched;
        app_.start_time = 22;
        world().forgetRecords();
    }

    void launchedProcessIsGoneAtTheFirstLook() {
        world().addProcess(kLaunched, "data_server", kServer);
        world().onSleep = [](int) { world().process(kLaunched)->alive = false; };
    }

    NoUptime noUptime_;
    FixtureManager manager_;
    appinfo app_ = {};
};

TEST_F(UnknownBootTest, SearchReadsTheBootTimeAgain) {
    world().uptimeSec = 100;
    world().addProcess(kDaemon, "data_server", kServer, 500);
    char** argv = nullptr;
    const int argc = manager_.commandline_parser(kServer, argv);
    const statstruct_proc info = {};
    EXPECT_EQ(manager_.findDaemon(app_, &info, argc, argv, false), kDaemon);
    EXPECT_EQ(app_.start_time, kNow - 100 + 5);
    manager_.commandline_parser_cleanup(argc, argv);
}

TEST_F(UnknownBootTest, WaitGivesUpWithMinusFive) {
    launchedProcessIsGoneAtTheFirstLook();
    EXPECT_EQ(manager_.waitForDaemonization(app_), -5);
    EXPECT_EQ(world().liveBlocks(), 0U);
    EXPECT_EQ(world().procScans, 0);
    EXPECT_EQ(app_.pid, kLaunched);
}

TEST_F(UnknownBootTest, WaitGoesOnAfterAMillisecondOnceTheBootTimeIsKnown) {
    launchedProcessIsGoneAtTheFirstLook();
    world().onSleep = [](int) {
        if (world().isAlive(kLaunched)) {
            world().process(kLaunched)->alive = false;
            world().uptimeSec = 100;
            world().addProcess(kDaemon, "data_server", kServer, 500);
        }
    };
    EXPECT_EQ(manager_.waitForDaemonization(app_), kDaemon);
    EXPECT_EQ(world().callsOf("sleep"), (std::vector<std::string>{"sleep 1", "sleep 1"}));
    EXPECT_EQ(app_.start_time, kNow - 100 + 5);
}

TEST_F(UnknownBootTest, WaitTracesTheFiguresAboveVerbosityTwo) {
    launchedProcessIsGoneAtTheFirstLook();
    verbose = 3;
    (void)manager_.waitForDaemonization(app_);
    EXPECT_EQ(world().consoleText(), "waitForDaemonization: jiffiesPerSec=100, boot_time_t=0\n"
                                     "Error 14 obtaining boot time\n");
}

TEST_F(UnknownBootTest, WaitTracesNoFiguresAtVerbosityTwo) {
    launchedProcessIsGoneAtTheFirstLook();
    verbose = 2;
    (void)manager_.waitForDaemonization(app_);
    EXPECT_EQ(world().consoleText(), "Error 14 obtaining boot time\n");
}

TEST_F(UnknownBootTest, ForegroundProgramIsWaitedForAllTheSame) {
    world().addProcess(kLaunched, "data_server", kServer);
    EXPECT_EQ(manager_.waitForDaemonization(app_), -4);
}

// --- waitForDaemonization -----------------------------------------------------------------------

class WaitForDaemonizationTest : public IdentificationTest {
protected:
    /// The launched process goes after `looks` looks at it; then its daemon is there.
    void scriptDaemonAfter(int looks) {
        world().addProcess(kLaunched, "data_server", kServer);
        looks_ = looks;
        world().onSleep = [this](int) {
            if (--looks_ == 0) {
                world().process(kLaunched)->alive = false;
                world().addProcess(kDaemon, "data_server", kServer, 12300).pidFilename =
                    "/tmp/new.pid.602";
            }
        };
    }

    int wait() { return manager_.waitForDaemonization(app_); }

    /// What a wait at `verbosity` prints, without what other operations print.
    std::string tracesAt(int verbosity) {
        world().console.clear();
        verbose = verbosity;
        (void)wait();
        std::string own;
        std::string rest = world().consoleText();
        while (!rest.empty()) {
            const std::string line = rest.substr(0, rest.find('\n') + 1);
            if (line.rfind("waitForDaemonization: ", 0) == 0) {
                own += line;
            }
            rest.erase(0, line.size());
        }
        return own;
    }

    int looks_ = 0;
};

class WaitWithoutPidTest : public WaitForDaemonizationTest,
                           public testing::WithParamInterface<int> {};

TEST_P(WaitWithoutPidTest, GivesMinusOne) {
    app_.pid = GetParam();
    verbose = 10;
    EXPECT_EQ(wait(), -1);
    EXPECT_EQ(world().consoleText(), "");
}

INSTANTIATE_TEST_SUITE_P(Pids, WaitWithoutPidTest, testing::Values(0, -1, -10, INT_MIN));

TEST_F(WaitForDaemonizationTest, ProcessWithoutFactsGivesMinusTwo) {
    EXPECT_EQ(wait(), -2);
    expectRecordUnchanged();
    EXPECT_EQ(world().count("sleep"), 0U);
}

TEST_F(WaitForDaemonizationTest, FactsComeBeforeTheCommandAndThePidFile) {
    fakes::Process& process = world().addProcess(kLaunched, "data_server", kServer);
    process.pidFilename = "/tmp/launched.pid.601";
    process.factsAvailable = false;
    platform::copyToField(app_.cmd, " ");
    before_ = app_;
    EXPECT_EQ(wait(), -2);
    expectRecordUnchanged();
}

TEST_F(WaitForDaemonizationTest, CommandComesBeforeThePidFile) {
    world().addProcess(kLaunched, "data_server", kServer).pidFilename = "/tmp/launched.pid.601";
    platform::copyToField(app_.cmd, " ");
    before_ = app_;
    EXPECT_EQ(wait(), -3);
    expectRecordUnchanged();
}

TEST_F(WaitForDaemonizationTest, TickRateThatStaysUnknownGivesMinusFive) {
    world().clockTicksPerSecond = 0;
    AppManagerTestAccess::statusUpdate(manager_).initBootTimeVars();
    scriptDaemonAfter(1);
    EXPECT_EQ(wait(), -5);
    EXPECT_EQ(world().procScans, 0);
    EXPECT_EQ(app_.pid, kLaunched);
    EXPECT_EQ(world().liveBlocks(), 0U);
}

TEST_F(WaitForDaemonizationTest, GoesOnAfterAMillisecondOnceTheTickRateIsKnown) {
    world().clockTicksPerSecond = 0;
    AppManagerTestAccess::statusUpdate(manager_).initBootTimeVars();
    scriptDaemonAfter(1);
    const auto script = world().onSleep;
    world().onSleep = [script](int ms) {
        script(ms);
        world().clockTicksPerSecond = 100;
    };
    EXPECT_EQ(wait(), kDaemon);
    EXPECT_EQ(world().callsOf("sleep"), (std::vector<std::string>{"sleep 1", "sleep 1"}));
}

TEST_F(WaitForDaemonizationTest, ProcessWithoutFactsIsTracedFromVerbosityThreeOn) {
    EXPECT_EQ(tracesAt(3), "waitForDaemonization: pid=601 proc info error\n");
    EXPECT_EQ(tracesAt(2), "");
}

TEST_F(WaitForDaemonizationTest, CommandOfBlanksGivesMinusThree) {
    platform::copyToField(app_.cmd, " \t ");
    world().addProcess(kLaunched, "data_server", kServer);
    EXPECT_EQ(wait(), -3);
    EXPECT_EQ(world().liveBlocks(), 0U);
    EXPECT_EQ(world().count("sleep"), 0U);
}

TEST_F(WaitForDaemonizationTest, CommandOfBlanksIsTracedFromVerbosityThreeOn) {
    platform::copyToField(app_.cmd, " ");
    world().addProcess(kLaunched, "data_server", kServer);
    EXPECT_EQ(tracesAt(3), "waitForDaemonization: pid=601 commandline_parser error\n");
    EXPECT_EQ(tracesAt(2), "");
}

TEST_F(WaitForDaemonizationTest, CommandThatCannotBeSplitGivesMinusThree) {
    world().addProcess(kLaunched, "data_server", kServer);
    world().strdups.failNext = 3;
    EXPECT_EQ(wait(), -3);
}

TEST_F(WaitForDaemonizationTest, FindsTheDaemonOfAProcessThatExited) {
    scriptDaemonAfter(1);
    EXPECT_EQ(wait(), kDaemon);
    EXPECT_EQ(app_.pid, kDaemon);
    EXPECT_EQ(app_.start_time, kBoot + 123);
    EXPECT_STREQ(app_.pidfile, "/tmp/new.pid.602");
    EXPECT_EQ(app_.status, APP_STATUS_STARTING0);
    EXPECT_EQ(world().liveBlocks(), 0U);
}

TEST_F(WaitForDaemonizationTest, LooksEveryMillisecondWhetherTheProcessExited) {
    scriptDaemonAfter(25);
    EXPECT_EQ(wait(), kDaemon);
    EXPECT_EQ(world().callsOf("sleep"), std::vector<std::string>(25, "sleep 1"));
    EXPECT_EQ(world().procScans, 1);
}

TEST_F(WaitForDaemonizationTest, SearchesEvery100MillisecondsForTheDaemon) {
    world().addProcess(kLaunched, "data_server", kServer);
    world().onSleep = [this](int) {
        ++looks_;
        if (looks_ == 1) {
            world().process(kLaunched)->alive = false;
        } else if (looks_ == 4) {
            world().addProcess(kDaemon, "data_server", kServer);
        }
    };
    EXPECT_EQ(wait(), kDaemon);
    EXPECT_EQ(world().callsOf("sleep"),
              (std::vector<std::string>{"sleep 1", "sleep 100", "sleep 100", "sleep 100"}));
    EXPECT_EQ(world().procScans, 4);
}

TEST_F(WaitForDaemonizationTest, DaemonMustHaveEveryArgument) {
    scriptDaemonAfter(1);
    platform::copyToField(app_.cmd, "/home/kelvo/root/data_server -p 6");
    EXPECT_EQ(wait(), -4);
    EXPECT_EQ(app_.pid, kLaunched);
}

TEST_F(WaitForDaemonizationTest, PidFileOfTheLaunchedProcessIsTakenBeforeTheSearch) {
    world().addProcess(kLaunched, "data_server", kServer).pidFilename = "/tmp/launched.pid.601";
    EXPECT_EQ(wait(), -4);
    EXPECT_STREQ(app_.pidfile, "/tmp/launched.pid.601");
}

TEST_F(WaitForDaemonizationTest, PidFileOfTheRequestStaysWithoutOne) {
    world().addProcess(kLaunched, "data_server", kServer);
    (void)wait();
    EXPECT_STREQ(app_.pidfile, "/tmp/old.pid");
}

TEST_F(WaitForDaemonizationTest, ForegroundProgramTimesOutAndKeepsItsPid) {
    world().addProcess(kLaunched, "data_server", kServer);
    EXPECT_EQ(wait(), -4);
    expectRecordUnchanged();
    EXPECT_EQ(world().procScans, 0);
    EXPECT_EQ(world().liveBlocks(), 0U);
}

TEST_F(WaitForDaemonizationTest, ThirtySecondsAreNotOverYet) {
    scriptDaemonAfter(30000); // the daemon comes at second 30, not later
    EXPECT_EQ(wait(), kDaemon);
    EXPECT_EQ(world().now, kNow + 30);
}

TEST_F(WaitForDaemonizationTest, MoreThanThirtySecondsAreTheEnd) {
    scriptDaemonAfter(31000);
    EXPECT_EQ(wait(), -4);
    EXPECT_EQ(world().now, kNow + 31);
    EXPECT_EQ(world().count("sleep"), 31000U);
}

TEST_F(WaitForDaemonizationTest, DeadlineCoversTheSearchToo) {
    world().addProcess(kLaunched, "data_server", kServer);
    world().onSleep = [this](int) {
        if (++looks_ == 20000) {
            world().process(kLaunched)->alive = false;
        }
    };
    EXPECT_EQ(wait(), -4);
    EXPECT_EQ(world().now, kNow + 31);
    EXPECT_EQ(world().procScans, 110); // for 11 seconds
    EXPECT_EQ(app_.pid, kLaunched);
    EXPECT_EQ(world().liveBlocks(), 0U);
}

TEST_F(WaitForDaemonizationTest, DaemonThatNeverComesTimesOut) {
    world().addProcess(kLaunched, "data_server", kServer);
    world().onSleep = [](int) { world().process(kLaunched)->alive = false; };
    EXPECT_EQ(wait(), -4);
    expectRecordUnchanged();
}

TEST_F(WaitForDaemonizationTest, ClockSetBackEndsTheWait) {
    world().addProcess(kLaunched, "data_server", kServer);
    world().onSleep = [](int) { world().now = kNow - 1; };
    EXPECT_EQ(wait(), -4);
    EXPECT_EQ(world().count("sleep"), 1U);
    EXPECT_EQ(world().liveBlocks(), 0U);
}

TEST_F(WaitForDaemonizationTest, ClockSetBackToTheBeginningGoesOn) {
    world().now = kNow + 5;
    scriptDaemonAfter(3);
    const auto script = world().onSleep;
    world().onSleep = [script](int ms) {
        world().now = kNow + 5;
        script(ms);
    };
    EXPECT_EQ(wait(), kDaemon);
}

TEST_F(WaitForDaemonizationTest, ClockSetForwardEndsTheWait) {
    world().addProcess(kLaunched, "data_server", kServer);
    world().onSleep = [](int) { world().now += 3600; };
    EXPECT_EQ(wait(), -4);
    EXPECT_EQ(world().count("sleep"), 1U);
}

TEST_F(WaitForDaemonizationTest, EndsEarlyWhenTheMonitorIsAskedToEnd) {
    world().addProcess(kLaunched, "data_server", kServer);
    world().onSleep = [this](int) {
        if (++looks_ == 5) {
            world().terminationIsPending = true;
        }
    };
    EXPECT_LT(wait(), 0);
    EXPECT_EQ(world().count("sleep"), 5U);
    EXPECT_EQ(world().liveBlocks(), 0U);
}

TEST_F(WaitForDaemonizationTest, SearchEndsEarlyWhenTheMonitorIsAskedToEnd) {
    world().addProcess(kLaunched, "data_server", kServer);
    world().onSleep = [this](int) {
        world().process(kLaunched)->alive = false;
        if (++looks_ == 5) {
            world().terminationIsPending = true;
        }
    };
    EXPECT_LT(wait(), 0);
    EXPECT_EQ(world().procScans, 4);
}

// --- waitForDaemonization: traces ---------------------------------------------------------------

TEST_F(WaitForDaemonizationTest, TracesAGoodWaitAboveVerbositySeven) {
    scriptDaemonAfter(2000);
    EXPECT_EQ(tracesAt(8),
              "waitForDaemonization: waiting for pid=601 name=data_server starting at 1700000000\n"
              "waitForDaemonization: pid=601, termination time_t=1700000002\n"
              "waitForDaemonization: found pid=602, pidfile=\"/tmp/new.pid.602\"\n");
}

TEST_F(WaitForDaemonizationTest, TracesNoTerminationAtVerbositySeven) {
    scriptDaemonAfter(2000);
    EXPECT_EQ(tracesAt(7),
              "waitForDaemonization: waiting for pid=601 name=data_server starting at 1700000000\n"
              "waitForDaemonization: found pid=602, pidfile=\"/tmp/new.pid.602\"\n");
}

TEST_F(WaitForDaemonizationTest, GoodWaitIsSilentAtVerbositySix) {
    scriptDaemonAfter(2);
    EXPECT_EQ(tracesAt(6), "");
}

TEST_F(WaitForDaemonizationTest, TracesTheTimeOutFromVerbositySevenOn) {
    world().addProcess(kLaunched, "data_server", kServer);
    EXPECT_EQ(tracesAt(7),
              "waitForDaemonization: waiting for pid=601 name=data_server starting at 1700000000\n"
              "waitForDaemonization: pid=601, name=data_server timeout at 1700000031!!!\n");
}

TEST_F(WaitForDaemonizationTest, TimeOutIsSilentAtVerbositySix) {
    world().addProcess(kLaunched, "data_server", kServer);
    EXPECT_EQ(tracesAt(6), "");
}

TEST_F(WaitForDaemonizationTest, TracesTheTerminationOnce) {
    world().addProcess(kLaunched, "data_server", kServer);
    world().onSleep = [](int) { world().process(kLaunched)->alive = false; };
    EXPECT_EQ(tracesAt(8),
              "waitForDaemonization: waiting for pid=601 name=data_server starting at 1700000000\n"
              "waitForDaemonization: pid=601, termination time_t=1700000000\n"
              "waitForDaemonization: pid=601, name=data_server timeout at 1700000031!!!\n");
}

TEST_F(WaitForDaemonizationTest, WritesNothingToTheLog) {
    (void)manager_.initCommunication(); // opens the log
    world().forgetRecords();
    world().addProcess(kLaunched, "data_server", kServer);
    (void)wait();
    EXPECT_THAT(world().log, IsEmpty());
}

// --- waitForDaemonization: the gate -------------------------------------------------------------

/// A real pipe, so that its end can be seen to be closed.
class GateTest : public WaitForDaemonizationTest {
protected:
    void SetUp() override {
        int ends[2];
        ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        readEnd_.reset(ends[0]);
        gate_.reset(ends[1]);
    }

    /// True when the launched process would go on.
    bool gateIsOpen() const {
        char byte = 0;
        return ::read(readEnd_.get(), &byte, 1) == 0;
    }

    platform::UniqueFd readEnd_;
    platform::UniqueFd gate_;
};

TEST_F(GateTest, OpensBeforeTheProcessIsFollowed) {
    world().addProcess(kLaunched, "data_server", kServer);
    EXPECT_FALSE(gateIsOpen());
    world().onSleep = [this](int) {
        EXPECT_TRUE(gateIsOpen());
        world().terminationIsPending = true;
    };
    (void)manager_.waitForDaemonization(app_, &gate_);
    EXPECT_EQ(world().count("sleep"), 1U);
    EXPECT_FALSE(gate_.valid());
}

TEST_F(GateTest, IsClosedWhileTheFactsAreRead) {
    world().addProcess(kLaunched, "data_server", kServer);
    int looks = 0;
    world().onFacts = [&](pid_t pid) {
        ++looks;
        EXPECT_EQ(pid, kLaunched);
        EXPECT_FALSE(gateIsOpen());
    };
    world().onSleep = [](int) { world().terminationIsPending = true; };
    (void)manager_.waitForDaemonization(app_, &gate_);
    EXPECT_EQ(looks, 1);
    EXPECT_TRUE(gateIsOpen());
}

// --- small utilities ----------------------------------------------------------------------------

class DeadPidTest : public testing::TestWithParam<int> {};

TEST_P(DeadPidTest, IsNotAliveAndNotProbed) {
    EXPECT_EQ(AppManager::ovard_check_pid_alive(GetParam()), 0);
    EXPECT_EQ(world().count("probe"), 0U);
}

INSTANTIATE_TEST_SUITE_P(Pids, DeadPidTest, testing::Values(0, -1, -2, -601, INT_MIN));

TEST(CheckPidAliveTest, MissingProcessIsNotAlive) {
    EXPECT_EQ(AppManager::ovard_check_pid_alive(kDaemon), 0);
    EXPECT_EQ(world().calls, std::vector<std::string>{"probe 602"});
}

TEST(CheckPidAliveTest, LiveProcessIsAlive) {
    world().addProcess(kDaemon, "x", "/x");
    EXPECT_EQ(AppManager::ovard_check_pid_alive(kDaemon), 1);
}

TEST(CheckPidAliveTest, ZombieIsAlive) {
    world().addProcess(kDaemon, "x", "/x").zombie = true;
    EXPECT_EQ(AppManager::ovard_check_pid_alive(kDaemon), 1);
}

TEST(CheckPidAliveTest, OldErrnoDoesNotMatter) {
    world().addProcess(kDaemon, "x", "/x");
    errno = ESRCH;
    EXPECT_EQ(AppManager::ovard_check_pid_alive(kDaemon), 1);
}

class FailedProbeTest : public testing::TestWithParam<int> {};

TEST_P(FailedProbeTest, MeansAlive) {
    world().addProcess(kDaemon, "x", "/x").killErrno = GetParam();
    EXPECT_EQ(AppManager::ovard_check_pid_alive(kDaemon), 1);
}

INSTANTIATE_TEST_SUITE_P(Errors, FailedProbeTest, testing::Values(EPERM, ENOENT, EINVAL, EIO));

TEST(CheckPidAliveTest, NoSuchProcessErrorMeansNotAlive) {
    world().addProcess(kDaemon, "x", "/x").killErrno = ESRCH;
    EXPECT_EQ(AppManager::ovard_check_pid_alive(kDaemon), 0);
}

class File2StrTest : public testing::Test {
protected:
    File2StrTest() {
        char path[] = "/tmp/ovard_unit_XXXXXX";
        const platform::UniqueFd file(::mkostemp(path, O_CLOEXEC));
        if (!file.valid()) {
            throw std::runtime_error("cannot make a file in /tmp");
        }
        path_ = path;
        std::memset(buffer_, 'x', sizeof buffer_);
    }

    ~File2StrTest() override { ::unlink(path_.c_str()); }

    void write(const std::string& content) {
        const platform::UniqueFd file(::open(path_.c_str(), O_WRONLY | O_CLOEXEC));
        ASSERT_EQ(platform::writeFully(file.get(), content.data(), content.size()),
                  static_cast<ssize_t>(content.size()));
    }

    int read(int length) { return AppManager::file2str(path_.c_str(), buffer_, length); }

    std::string path_;
    char buffer_[16];
};

TEST_F(File2StrTest, ReadsAndTerminatesTheText) {
    write("abc\n");
    EXPECT_EQ(read(15), 4);
    EXPECT_STREQ(buffer_, "abc\n");
    EXPECT_EQ(buffer_[5], 'x');
}

TEST_F(File2StrTest, ReadsNoMoreThanAskedFor) {
    write("0123456789");
    EXPECT_EQ(read(4), 4);
    EXPECT_STREQ(buffer_, "0123");
}

TEST_F(File2StrTest, TerminatorStandsRightBehindTheWholeLength) {
    write("0123456789abcdefgh");
    EXPECT_EQ(read(15), 15);
    EXPECT_STREQ(buffer_, "0123456789abcde");
}

TEST_F(File2StrTest, ReadsInOneCall) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_DIRECT), 0); // Each write is read by a call of its own.
    const platform::UniqueFd readEnd(ends[0]);
    platform::UniqueFd writeEnd(ends[1]);
    ASSERT_EQ(::write(writeEnd.get(), "ab", 2), 2);
    ASSERT_EQ(::write(writeEnd.get(), "cd", 2), 2);
    writeEnd.reset();
    const std::string path = "/proc/self/fd/" + std::to_string(readEnd.get());
    EXPECT_EQ(AppManager::file2str(path.c_str(), buffer_, 15), 2);
    EXPECT_STREQ(buffer_, "ab");
    char rest[3] = {};
    EXPECT_EQ(::read(readEnd.get(), rest, 2), 2);
    EXPECT_STREQ(rest, "cd");
}

TEST_F(File2StrTest, EmptyFileGivesMinusTwo) {
    EXPECT_EQ(read(15), -2);
    EXPECT_EQ(buffer_[0], '\0');
    EXPECT_EQ(buffer_[1], 'x');
}

TEST_F(File2StrTest, MissingFileGivesMinusOne) {
    ::unlink(path_.c_str());
    EXPECT_EQ(read(15), -1);
    EXPECT_EQ(buffer_[0], '\0');
    EXPECT_EQ(buffer_[1], 'x');
}

TEST_F(File2StrTest, DirectoryGivesMinusTwo) {
    EXPECT_EQ(AppManager::file2str("/tmp", buffer_, 15), -2);
    EXPECT_EQ(buffer_[0], '\0');
}

TEST(IsUintTest, EmptyTextCountsAsANumber) {
    EXPECT_EQ(AppManager::is_uint(""), 0);
}

TEST(IsUintTest, DigitsAreANumber) {
    EXPECT_EQ(AppManager::is_uint("0"), 0);
    EXPECT_EQ(AppManager::is_uint("0123456789"), 0);
}

TEST(IsUintTest, AnythingElseIsNone) {
    EXPECT_EQ(AppManager::is_uint("self"), -1);
    EXPECT_EQ(AppManager::is_uint("-1"), -1);
    EXPECT_EQ(AppManager::is_uint("+1"), -1);
    EXPECT_EQ(AppManager::is_uint("1 "), -1);
    EXPECT_EQ(AppManager::is_uint("12a"), -1);
}

TEST(UpdateUptimeTest, CountsWholeSecondsUntilNow) {
    EXPECT_EQ(AppManager::updateUptime(kNow - 3661), 3661);
    EXPECT_EQ(AppManager::updateUptime(kNow), 0);
}

TEST(UpdateUptimeTest, IsNegativeBeforeTheStart) {
    EXPECT_EQ(AppManager::updateUptime(kNow + 5), -5);
}

} // namespace
