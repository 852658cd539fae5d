#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/DataServer.h"
#include "tests/unit/appmanager/IdentificationFixture.h"

namespace launches {
namespace {

// --- a search by a manager that knows the boot time, or most of it -------------------------------

class FindDaemonBootTimeTest : public SearchTest {
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
    addDaemon(kServer, 500);
    EXPECT_EQ(find(), kDaemon);
    EXPECT_EQ(app_.start_time, kBoot + 10);
}

TEST_F(FindDaemonBootTimeTest, UnknownTickRateKeepsTheStartTime) {
    world().clockTicksPerSecond = 0;
    status().initBootTimeVars();
    addDaemon(kServer, 500);
    EXPECT_EQ(find(), kDaemon);
    EXPECT_EQ(app_.start_time, 22);
    EXPECT_EQ(app_.pid, kDaemon);
}

// --- a manager that came up without a boot time --------------------------------------------------

struct NoUptime {
    NoUptime() { world().uptimeSec = -1; }
};

class UnknownBootTest : private NoUptime, public IdentificationTest {
protected:
    UnknownBootTest() { world().forgetRecords(); }
};

TEST_F(UnknownBootTest, SearchReadsTheBootTimeAgain) {
    world().uptimeSec = 100;
    addDaemon(kServer, 500);
    char** argv = nullptr;
    const int argc = manager_.commandline_parser(kServer, argv);
    const statstruct_proc info = {};
    EXPECT_EQ(manager_.findDaemon(app_, &info, argc, argv, false), kDaemon);
    EXPECT_EQ(app_.start_time, kNow - 100 + 5);
    manager_.commandline_parser_cleanup(argc, argv);
}

TEST_F(UnknownBootTest, WaitGivesUpWithMinusFive) {
    scriptNoDaemon();
    EXPECT_EQ(manager_.waitForDaemonization(app_), -5);
    EXPECT_EQ(world().liveBlocks(), 0U);
    EXPECT_EQ(world().procScans, 0);
    EXPECT_EQ(app_.pid, kLaunched);
}

TEST_F(UnknownBootTest, WaitGoesOnAfterAMillisecondOnceTheBootTimeIsKnown) {
    addLaunched();
    world().onSleep = [](int) {
        if (world().isAlive(kLaunched)) {
            world().process(kLaunched)->alive = false;
            world().uptimeSec = 100;
            addDaemon(kServer, 500);
        }
    };
    EXPECT_EQ(manager_.waitForDaemonization(app_), kDaemon);
    EXPECT_EQ(world().callsOf("sleep"), (std::vector<std::string>{"sleep 1", "sleep 1"}));
    EXPECT_EQ(app_.start_time, kNow - 100 + 5);
}

TEST_F(UnknownBootTest, WaitTracesTheFiguresAboveVerbosityTwo) {
    scriptNoDaemon();
    verbose = 3;
    (void)manager_.waitForDaemonization(app_);
    EXPECT_EQ(world().consoleText(), "waitForDaemonization: jiffiesPerSec=100, boot_time_t=0\n"
                                     "Error 14 obtaining boot time\n");
}

TEST_F(UnknownBootTest, WaitTracesNoFiguresAtVerbosityTwo) {
    scriptNoDaemon();
    verbose = 2;
    (void)manager_.waitForDaemonization(app_);
    EXPECT_EQ(world().consoleText(), "Error 14 obtaining boot time\n");
}

TEST_F(UnknownBootTest, ForegroundProgramIsWaitedForAllTheSame) {
    addLaunched();
    EXPECT_EQ(manager_.waitForDaemonization(app_), -4);
}

} // namespace
} // namespace launches
