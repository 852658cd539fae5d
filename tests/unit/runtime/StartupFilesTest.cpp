#include "runtime/Startup.h"

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "runtime/Globals.h"
#include "runtime/Shutdown.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/runtime/RuntimeSupport.h"
#include "tests/unit/runtime/StartupSupport.h"

namespace {

// The pid file, and the replay of the start-up file.

using fakes::world;
using levels::kLevelError;
using runtimetest::slotValue;
using testing::ElementsAre;
using testing::IsEmpty;

class StartupFilesTest : public runtimetest::StartupTest {};

TEST_F(StartupFilesTest, PidFileIsWrittenAndKeptForTheShutdown) {
    run({"-d"});
    EXPECT_EQ(pidfile, "/tmp/pid/home/kelvo/root/ovard.pid.4321");
    EXPECT_EQ(world().pidFiles["/tmp/pid/home/kelvo/root/ovard.pid.4321"],
              "4321\n" + slotValue(7) + "\n");
}

TEST_F(StartupFilesTest, PidFilePathHoldsTheMeterRoot) {
    ::setenv("METER_ROOT", "/opt/x", 1);
    run({"-d"});
    EXPECT_EQ(pidfile, "/tmp/pid/opt/x/home/kelvo/root/ovard.pid.4321");
    EXPECT_THAT(
        world().callsOf("pidfile"),
        ElementsAre("pidfile 4321 /tmp/pid/opt/x/home/kelvo/root/ovard.pid 65 " + slotValue(7)));
}

TEST_F(StartupFilesTest, EmptyMeterRootAddsNothing) {
    ::setenv("METER_ROOT", "", 1);
    run({"-d"});
    EXPECT_EQ(pidfile, "/tmp/pid/home/kelvo/root/ovard.pid.4321");
}

TEST_F(StartupFilesTest, PidFileNameEndsInTheNumberThatIsReadBack) {
    world().pidReadBack = 815;
    run({"-d"});
    EXPECT_EQ(pidfile, "/tmp/pid/home/kelvo/root/ovard.pid.815");
    EXPECT_THAT(world().callsOf("pidfile"),
                ElementsAre("pidfile 4321 /tmp/pid/home/kelvo/root/ovard.pid 65 " + slotValue(7)));
}

TEST_F(StartupFilesTest, PidFileThatCannotBeWrittenStopsNothing) {
    world().setPidFileErrno = EROFS;
    EXPECT_EQ(run({"-d"}), 0);
    EXPECT_EQ(pidfile, "/tmp/pid/home/kelvo/root/ovard.pid.4321");
    EXPECT_EQ(world().errorText(), "");
    EXPECT_EQ(world().count("heartbeat_notify"), 1U);
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("/tmp/pid/home/kelvo/root/ovard.pid.4321 cannot be written: Read-only "
                            "file system"));
}

TEST_F(StartupFilesTest, ShutdownAfterTheLoopRemovesThePidFile) {
    run({"-d"});
    g_bDaemonShutdown = 0;
    ovardAtExit();
    EXPECT_THAT(world().pidFiles, IsEmpty());
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started.",
                                            "Ovard: Application Monitor Initialized.",
                                            "Ovard: Application Monitor Stopped."));
}

// --- the start-up file ---------------------------------------------------------------------------

TEST_F(StartupFilesTest, WithoutAStartUpFileThereIsOneThread) {
    run({"-d"});
    EXPECT_EQ(world().count("thread"), 1U);
    EXPECT_EQ(thread_startupAppConfiguration, kNoThread);
}

TEST_F(StartupFilesTest, StartUpFileIsReplayedByAThread) {
    run({"-d", "-x", "/nonexistent/startup"});
    EXPECT_EQ(world().count("thread"), 2U);
    EXPECT_NE(thread_startupAppConfiguration, kNoThread);
    EXPECT_TRUE(fakes::waitUntil([] {
        return world().consoleText().find("/nonexistent/startup for reading") != std::string::npos;
    }));
}

TEST_F(StartupFilesTest, ReplayStartsAfterThePidFile) {
    run({"-d", "-x", "/nonexistent/startup"});
    const std::vector<std::string> calls = world().callsOf({"thread", "pidfile"});
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_EQ(calls[0], "thread");
    EXPECT_EQ(calls[2], "thread");
}

TEST_F(StartupFilesTest, ReplayThatCannotStartRestartsTheMachine) {
    world().threadErrors = {0, EAGAIN};
    world().restartResults = {{-1, EPERM}};
    at("sync",
       [] { EXPECT_THAT(world().logTexts(kLevelError), testing::SizeIs(1)) << "told before"; });
    EXPECT_EQ(run({"-d", "-x", "/nonexistent/startup"}), 0);
    EXPECT_TRUE(looked_);
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("pthread_create startupAppConfigurationProcess error"));
    EXPECT_THAT(world().callsOf({"sync", "restart"}), ElementsAre("sync", "restart"));
    EXPECT_EQ(thread_startupAppConfiguration, kNoThread);
    EXPECT_EQ(world().count("heartbeat_notify"), 1U); // it goes on with the loop
}

} // namespace
