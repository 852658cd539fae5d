// /dev/shm, where the segments, the heartbeats and the initialization mutex lie, while it is
// read-only or missing. While it is full: PublishingDamageTest.cpp.

#include <cerrno>
#include <string>
#include <vector>

#include "tests/system/FaultSupport.h"

namespace systemtest {
namespace {

constexpr const char* kHeartbeats = "/dev/shm/meter_heartbeat.shared";

/// A monitor that starts with this fault works all the same, and publishes once it is over.
class FaultShmAtTheStart : public FaultTest {
protected:
    void expectStart(const std::string& fault, const std::string& cure, int error) {
        const OwnMounts mounts(fault);
        const LogMark mark;
        ASSERT_TRUE(startPublisher()) << monitor_.waitForEnd(0).text();
        monitorPid_ = monitor_.pid();
        expectMissingMutex(monitor_, error);
        request_ = makeSupervised("data_server", RESTART_TYPE_SELF);
        pid_ = launchUntilRunning(request_);
        ASSERT_TRUE(letACycleGoBy());
        expectUnharmed("with the fault");
        EXPECT_EQ(applicationSegment(), "") << "it could be written";
        expectTold(mark, kSharedNames, error, 0);
        ASSERT_TRUE(OwnMounts::change(monitorPid_, cure));
        ASSERT_TRUE(duringPasses([] { return !readFile(kHeartbeats).empty(); }));
        expectAllIsWell("afterwards");
        expectLeftAlone("afterwards");
        expectTold(mark, kSharedNames, error, 1);
        EXPECT_EQ(monitor_.terminate().text(), "status 0");
    }
};

TEST_F(FaultShmAtTheStart, ReadOnly) {
    expectStart(readOnlyFolder("/dev/shm"), uncovered("/dev/shm"), EROFS);
}

TEST_F(FaultShmAtTheStart, Missing) {
    expectStart(devicesWithoutShm(), uncovered("/dev"), ENOENT);
}

/// In the background the launcher waits for the mutex that is not to be had.
TEST_F(FaultShmAtTheStart, LauncherReturnsAllTheSame) {
    const OwnMounts mounts(readOnlyFolder("/dev/shm"));
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground());
    expectMissingMutex(daemon, EROFS);
    expectServing();
    EXPECT_TRUE(daemon.terminate().ended);
    EXPECT_EQ(countEvent("Application Monitor Stopped."), 1U);
}

/// What was published last stays, and is not renewed until the fault is over.
class FaultShm : public FaultTest {
protected:
    void expectEndured(const std::string& fault, const std::string& cure, int error) {
        const OwnMounts mounts;
        const LogMark mark;
        ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
        ASSERT_TRUE(OwnMounts::change(monitorPid_, fault));
        ASSERT_TRUE(letACycleGoBy());
        const float hours = publishedHours();
        for (int cycle = 0; cycle < 3; ++cycle) {
            ASSERT_TRUE(letACycleGoBy());
            expectUnharmed("with the fault");
        }
        EXPECT_EQ(publishedHours(), hours) << "it could be written";
        expectServing();
        expectTold(mark, kSharedNames, error, 0);
        ASSERT_TRUE(OwnMounts::change(monitorPid_, cure));
        expectAllIsWell("afterwards");
        expectLeftAlone("afterwards");
        expectTold(mark, kSharedNames, error, 1);
        EXPECT_EQ(monitor_.terminate().text(), "status 0");
    }
};

TEST_F(FaultShm, BecomesReadOnly) {
    expectEndured(readOnlyFolder("/dev/shm"), uncovered("/dev/shm"), EROFS);
}

TEST_F(FaultShm, Vanishes) {
    expectEndured(devicesWithoutShm(), uncovered("/dev"), ENOENT);
}

/// Nothing can be written into any file, the console's among them.
TEST_F(FaultShm, LimitOfTheFileSize) {
    const LogMark mark;
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ASSERT_TRUE(setLimit(monitorPid_, RLIMIT_FSIZE, 0));
    ASSERT_TRUE(letACycleGoBy());
    const float hours = publishedHours();
    ASSERT_TRUE(letACycleGoBy());
    EXPECT_EQ(publishedHours(), hours) << "it could be written";
    expectUnharmed("with the limit");
    expectServing();
    expectTold(mark, kSharedNames, EFBIG, 0);
    ASSERT_TRUE(liftLimit(monitorPid_, RLIMIT_FSIZE));
    expectAllIsWell("afterwards");
    expectLeftAlone("afterwards");
    expectTold(mark, kSharedNames, EFBIG, 1);
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

} // namespace
} // namespace systemtest
