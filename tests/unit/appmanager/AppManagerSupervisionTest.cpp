// The supervision pass: which entries it looks at, and what it keeps current.

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/SupervisionFixture.h"

namespace supervision {
namespace {

class SupervisionTest : public SupervisionFixture {
protected:
    void setBootTime(int secondsAgo) {
        world().uptimeSec = secondsAgo;
        Access::statusUpdate(manager_).initBootTimeVars();
    }

    /// True when a pass looks at the registry: it erases an entry without pid file.
    static bool supervises(AppManager& manager) {
        addEntry(APP_STATUS_RUNNING).pidfile[0] = '\0';
        EXPECT_EQ(manager.checkStatus(true), 0);
        return applist.empty();
    }
};

// --- the first 90 seconds after boot -------------------------------------------------------------

struct Booted {
    int secondsAgo;
    bool supervised;
};

class BootPeriodTest : public SupervisionTest, public testing::WithParamInterface<Booted> {};

TEST_P(BootPeriodTest, NothingIsSupervisedInTheFirst90Seconds) {
    setBootTime(GetParam().secondsAgo);
    EXPECT_EQ(supervises(manager_), GetParam().supervised);
}

INSTANTIATE_TEST_SUITE_P(Boots, BootPeriodTest,
                         testing::Values(Booted{0, false}, Booted{1, false}, Booted{89, false},
                                         Booted{90, true}, Booted{91, true}, Booted{100000, true}));

/// The uptime is rounded up, the time is not, so that the boot seems to lie before the epoch.
TEST_F(SupervisionTest, BootInTheFirstSecondOfAllTimesCounts) {
    world().now = 20;
    setBootTime(21);
    EXPECT_FALSE(supervises(manager_));
    world().now = 88;
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_FALSE(applist.empty());
    world().now = 89;
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_TRUE(applist.empty());
}

TEST_F(SupervisionTest, TimeBeforeBootIsSupervised) {
    setBootTime(0);
    world().now -= 1;
    EXPECT_TRUE(supervises(manager_));
}

TEST_F(SupervisionTest, PassInTheBootPeriodActsOnNoRequest) {
    setBootTime(89);
    addDied(RESTART_TYPE_SELF);
    Access::restartAllRequested(manager_) = true;
    Access::rebootRequested(manager_) = true;
    verbose = 10;
    world().forgetRecords();
    EXPECT_EQ(manager_.checkStatus(false), 0);
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_THAT(world().events, IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_TRUE(Access::restartAllRequested(manager_));
    EXPECT_TRUE(Access::rebootRequested(manager_));
    EXPECT_EQ(entry(1).status, APP_STATUS_RUNNING);
}

TEST_F(SupervisionTest, UnknownBootTimeIsAskedForAndDoesNotKeepFromSupervising) {
    world().uptimeSec = -1;
    FixtureManager manager;
    world().forgetRecords();
    EXPECT_TRUE(supervises(manager));
    EXPECT_EQ(world().consoleText(), "Error 14 obtaining boot time\n");
}

TEST_F(SupervisionTest, BootTimeFoundAtThePassCounts) {
    world().uptimeSec = -1;
    FixtureManager manager;
    world().uptimeSec = 50;
    EXPECT_FALSE(supervises(manager));
}

TEST_F(SupervisionTest, KnownBootTimeIsNotAskedForAgain) {
    setBootTime(100);
    world().uptimeSec = 10;
    EXPECT_TRUE(supervises(manager_));
}

// --- erasing entries -----------------------------------------------------------------------------

TEST_F(SupervisionTest, EntryWithoutPidFileIsErased) {
    verbose = 3;
    addEntry(APP_STATUS_RUNNING).pidfile[0] = '\0';
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_EQ(world().consoleText(), "erase empty pidfile entry for app1\n");
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(SupervisionTest, EntryWithoutCommandIsErased) {
    verbose = 3;
    addEntry(APP_STATUS_RUNNING).cmd[0] = '\0';
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_EQ(world().consoleText(), "erase empty cmd line entry for app1\n");
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(SupervisionTest, EntryWithNeitherIsErasedForItsPidFile) {
    verbose = 3;
    addEntry(APP_STATUS_RUNNING).pidfile[0] = '\0';
    entry(1).cmd[0] = '\0';
    manager_.checkStatus(true);
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_EQ(world().consoleText(), "erase empty pidfile entry for app1\n");
}

TEST_F(SupervisionTest, ErasingIsSilentAtVerbosityTwo) {
    verbose = 2;
    addEntry(APP_STATUS_RUNNING).pidfile[0] = '\0';
    addEntry(APP_STATUS_RUNNING).cmd[0] = '\0';
    manager_.checkStatus(true);
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(SupervisionTest, ErasedEntriesAreNeitherCheckedNorStopped) {
    addRunning().pidfile[0] = '\0';
    manager_.checkStatus(true);
    EXPECT_THAT(world().callsWithout({"loadShm", "yield"}), IsEmpty());
    EXPECT_TRUE(world().isAlive(701));
}

TEST_F(SupervisionTest, WalkGoesOnWithTheEntryThatMovedUp) {
    for (int number = 1; number <= 7; ++number) {
        addRunning();
    }
    for (const int number : {1, 3, 4, 7}) { // the first, adjacent ones, the last
        entry(number).pidfile[0] = '\0';
    }
    entry(4).pidfile[0] = 'x';
    entry(4).cmd[0] = '\0';
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_THAT(registeredNames(), ElementsAre("app2", "app5", "app6"));
    EXPECT_THAT(probes(), ElementsAre("probe 702", "probe 705", "probe 706"));
}

TEST_F(SupervisionTest, AllEntriesMayBeErased) {
    for (int number = 1; number <= 3; ++number) {
        addRunning().pidfile[0] = '\0';
    }
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(SupervisionTest, NothingIsErasedWithoutTheFlag) {
    verbose = 3;
    addRunning().pidfile[0] = '\0';
    addRunning().cmd[0] = '\0';
    EXPECT_EQ(manager_.checkStatus(false), 0);
    EXPECT_THAT(registeredNames(), ElementsAre("app1", "app2"));
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(SupervisionTest, WithoutTheFlagOnlyAMissingPidFileKeepsFromTheCheck) {
    addRunning().pidfile[0] = '\0';
    addRunning().cmd[0] = '\0';
    manager_.checkStatus(false);
    EXPECT_THAT(probes(), ElementsAre("probe 702"));
}

TEST_F(SupervisionTest, UncheckedEntryThatDiedIsLeftAlone) {
    addDied(RESTART_TYPE_ALL).pidfile[0] = '\0';
    manager_.checkStatus(false);
    EXPECT_EQ(entry(1).status, APP_STATUS_RUNNING);
    EXPECT_THAT(world().callsWithout({"loadShm", "yield"}), IsEmpty());
    EXPECT_THAT(world().events, IsEmpty());
}

// --- the walk ------------------------------------------------------------------------------------

TEST_F(SupervisionTest, EmptyRegistryIsFine) {
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_EQ(manager_.checkStatus(false), 0);
    EXPECT_THAT(world().callsWithout({"loadShm"}), IsEmpty());
}

TEST_F(SupervisionTest, EveryEntryComesAfterASleepOfNoLength) {
    addRunning();
    addRunning().pidfile[0] = '\0';
    addRunning();
    manager_.checkStatus(true);
    EXPECT_THAT(world().callsOf({"yield", "probe", "sleep"}),
                ElementsAre("yield", "probe 701", "yield", "yield", "probe 703"));
}

TEST_F(SupervisionTest, RegistryIsHeldDuringTheWalkAndReleasedAfterIt) {
    addEntry(APP_STATUS_STARTING0, 2);
    addProcessOf(entry(1)); // unconfirmed: polled, with sleeps
    addRunning();
    Texts unheld;
    world().onCall = [this, &unheld](const std::string& call) {
        if (!registryIsHeld()) {
            unheld.push_back(call);
        }
    };
    manager_.checkStatus(true);
    world().onCall = nullptr;
    EXPECT_EQ(world().callsOf("sleep"), Texts(11, "sleep 100"));
    EXPECT_THAT(unheld, IsEmpty());
    EXPECT_FALSE(registryIsHeld());
}

TEST_F(SupervisionTest, PassWaitsForTheRegistry) {
    addRunning();
    std::atomic<bool> locked{false};
    std::atomic<bool> released{false};
    std::thread holder([&] {
        EXPECT_EQ(Access::appLock(manager_).lock(), 0);
        locked = true;
        ::usleep(5000);
        released = true;
        EXPECT_EQ(Access::appLock(manager_).unlock(), 0);
    });
    ASSERT_TRUE(fakes::waitUntil([&] { return locked.load(); }));
    onceCalled("yield", [&] { EXPECT_TRUE(released); });
    EXPECT_EQ(manager_.checkStatus(true), 0);
    world().onCall = nullptr;
    holder.join();
    EXPECT_THAT(probes(), ElementsAre("probe 701"));
}

TEST_F(SupervisionTest, ShutdownEndsTheWalk) {
    verbose = 5;
    addRunning();
    addRunning();
    onceCalled("probe 701", [] { g_bDaemonShutdown = -1; });
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_THAT(probes(), ElementsAre("probe 701"));
    EXPECT_EQ(entry(1).uptime, kSinceStartSec);
    EXPECT_EQ(entry(2).uptime, 100);
    // The rest of the pass follows.
    EXPECT_THAT(world().consoleText(), testing::HasSubstr("App Info:\n\tname = app2\n"));
}

TEST_F(SupervisionTest, ShutdownBeforeThePassLeavesNoWalk) {
    g_bDaemonShutdown = -1;
    addRunning().pidfile[0] = '\0';
    addDied(RESTART_TYPE_SELF);
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_EQ(applist.size(), 2U);
    EXPECT_THAT(world().callsWithout({"loadShm"}), IsEmpty());
}

// Another program owns that word in the segment; the next cycle must not overwrite it.
TEST_F(SupervisionTest, HealthWordOfTheSegmentIsReadOnceAfterTheWalk) {
    addRunning();
    addRunning();
    bool held = false;
    world().onCall = [this, &held](const std::string& call) {
        held = call.rfind("loadShm", 0) == 0 ? registryIsHeld() : held;
    };
    manager_.checkStatus(true);
    world().onCall = nullptr;
    EXPECT_TRUE(held);
    EXPECT_EQ(world().count("loadShm"), 1U);
    EXPECT_EQ(world().calls.back(), "loadShm - 4 16384 112");
}

TEST_F(SupervisionTest, ListIsShownAboveVerbosityFourAfterTheWalk) {
    verbose = 5;
    addDied(RESTART_TYPE_SELF);
    addRunning();
    scriptLaunches(1);
    bool held = false;
    world().onConsole = [this, &held](const std::string&) { held = registryIsHeld(); };
    manager_.checkStatus(true);
    world().onConsole = nullptr;
    EXPECT_TRUE(held);
    const std::string shown = world().consoleText();
    world().forgetRecords();
    manager_.displayAppInfo(entry(1)); // as it is after its restart
    manager_.displayAppInfo(entry(2));
    EXPECT_EQ(shown, "waitForDaemonization: pid=601 proc info error\n" + world().consoleText());
    EXPECT_EQ(entry(1).pid, 601);
}

TEST_F(SupervisionTest, ListIsNotShownAtVerbosityFour) {
    verbose = 4;
    addRunning();
    manager_.checkStatus(true);
    EXPECT_EQ(world().consoleText(), "");
}

// --- uptime and pid file -------------------------------------------------------------------------

class UptimeTest : public SupervisionTest, public testing::WithParamInterface<int> {
protected:
    static bool isKeptCurrent() {
        return GetParam() >= APP_STATUS_STARTING0 && GetParam() <= APP_STATUS_RUNNING;
    }
};

/// Without a pid file nothing but the status decides.
TEST_P(UptimeTest, IsKeptCurrentOfRunningApplicationsOnly) {
    addEntry(GetParam()).pidfile[0] = '\0';
    addProcessOf(entry(1)).pidFilename = "/tmp/pid/app1.pid.701";
    manager_.checkStatus(false);
    EXPECT_EQ(entry(1).uptime, isKeptCurrent() ? kSinceStartSec : 100);
    EXPECT_STREQ(entry(1).pidfile, isKeptCurrent() ? "/tmp/pid/app1.pid.701" : "");
    EXPECT_EQ(entry(1).status, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Statuses, UptimeTest, testing::Range(0, 12));

class UptimeInGraceTest : public UptimeTest {};

TEST_P(UptimeInGraceTest, IsKeptCurrentToo) {
    addEntry(GetParam()).start_time = static_cast<std::int32_t>(world().now) - 29;
    addProcessOf(entry(1)).pidFilename = "/tmp/pid/app1.pid.701";
    manager_.checkStatus(true);
    EXPECT_EQ(entry(1).uptime, isKeptCurrent() ? 29 : 100);
    EXPECT_STREQ(entry(1).pidfile, isKeptCurrent() ? "/tmp/pid/app1.pid.701" : "/tmp/app1.pid");
}

INSTANTIATE_TEST_SUITE_P(Statuses, UptimeInGraceTest, testing::Range(0, 5));

TEST_F(SupervisionTest, UptimeOfAnApplicationThatCameBackIsKeptCurrent) {
    addEntry(APP_STATUS_DEAD);
    addProcessOf(entry(1));
    manager_.checkStatus(true);
    EXPECT_EQ(entry(1).status, APP_STATUS_RUNNING0);
    EXPECT_EQ(entry(1).uptime, kSinceStartSec);
}

TEST_F(SupervisionTest, UptimeIsTakenWhenTheEntryIsReached) {
    addEntry(APP_STATUS_STARTING); // unconfirmed: ten polls, one second
    addProcessOf(entry(1));
    manager_.checkStatus(true);
    EXPECT_EQ(entry(1).status, APP_STATUS_RUNNING0);
    EXPECT_EQ(entry(1).uptime, kSinceStartSec + 1);
}

TEST_F(SupervisionTest, FailedEntryKeepsUptimeAndPidFile) {
    addEntry(APP_STATUS_RUNNING, 2).heartbeat = 1;
    addProcessOf(entry(1)).pidFilename = "/tmp/pid/app1.pid.701";
    world().heartbeats.clear(); // missing
    manager_.checkStatus(true);
    EXPECT_EQ(entry(1).status, APP_STATUS_RUNNING);
    EXPECT_EQ(entry(1).uptime, 100);
    EXPECT_STREQ(entry(1).pidfile, "/tmp/app1.pid");
}

TEST_F(SupervisionTest, PidFileThatTheProcessHasNotWrittenLeavesTheName) {
    addRunning();
    manager_.checkStatus(true);
    EXPECT_STREQ(entry(1).pidfile, "/tmp/app1.pid");
}

TEST_F(SupervisionTest, PidFileOf63CharactersFitsOneMoreDoesNot) {
    const std::string fits = "/tmp/" + std::string(58, 'p');
    addRunning();
    world().process(701)->pidFilename = fits;
    addRunning();
    world().process(702)->pidFilename = fits + "p";
    manager_.checkStatus(true);
    EXPECT_EQ(entry(1).pidfile, fits);
    EXPECT_STREQ(entry(2).pidfile, "/tmp/app2.pid");
}

TEST_F(SupervisionTest, VersionInThePidFileOfARunningApplicationDoesNotMatter) {
    addRunning();
    addRunning();
    platform::copyToField(entry(1).version, "1.0");
    platform::copyToField(entry(2).version, "1.0");
    world().pidFiles["/tmp/app1.pid"] = "701\n1.0\n";
    world().pidFiles["/tmp/app2.pid"] = "701\n2.0\n";
    manager_.checkStatus(true);
    for (const int number : {1, 2}) {
        EXPECT_EQ(entry(number).status, APP_STATUS_RUNNING);
        EXPECT_STREQ(entry(number).version, "1.0");
    }
    EXPECT_EQ(world().count("fork"), 0U);
}

/// What is read of pid files, as "PATH VERSION".
Texts readsOf(AppManager& manager) {
    Texts reads;
    world().onPidFileRead = [&reads](const char* path, const char* version) {
        reads.push_back(std::string(path) + " " + version);
    };
    manager.checkStatus(true);
    world().onPidFileRead = nullptr;
    return reads;
}

TEST_F(SupervisionTest, PidFileThatWasTakenOverIsRead) {
    platform::copyToField(addRunning().version, "1.0");
    world().process(701)->pidFilename = "/tmp/pid/app1.pid.701";
    EXPECT_THAT(readsOf(manager_), ElementsAre("/tmp/pid/app1.pid.701 1.0"));
}

TEST_F(SupervisionTest, PidFileThatTheProcessHasNotWrittenIsNotRead) {
    addRunning();
    EXPECT_THAT(readsOf(manager_), IsEmpty());
}

} // namespace
} // namespace supervision
