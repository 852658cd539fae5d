// The supervision pass of a monitor that is asked to end: applications outlive it.

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/SupervisionFixture.h"

namespace supervision {
namespace {

using SupervisionTerminationTest = SupervisionFixture;

TEST_F(SupervisionTerminationTest, EndsTheWalkAtTheFirstFailure) {
    addRunning();
    addDied(RESTART_TYPE_SELF);
    addRunning();
    onceCalled("probe 701", [] { world().terminationIsPending = true; });
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_THAT(probes(), ElementsAre("probe 701", "probe 702"));
    EXPECT_EQ(world().count("fork"), 0U);
    EXPECT_EQ(entry(3).uptime, 100);
    EXPECT_FALSE(registryIsHeld());
}

TEST_F(SupervisionTerminationTest, KeepsFromARebootAskedForInTheSamePass) {
    addDied(RESTART_TYPE_ALL);
    addRunning();
    onceCalled("probe 702", [] { world().terminationIsPending = true; });
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_THAT(world().events, IsEmpty());
    EXPECT_THAT(world().callsOf({"kill", "sleep", "sync", "shell", "restart", "fork"}), IsEmpty());
    EXPECT_TRUE(Access::rebootRequested(manager_));
}

TEST_F(SupervisionTerminationTest, KeepsFromARestartOfAll) {
    addRunning();
    addRunning();
    Access::restartAllRequested(manager_) = true;
    onceCalled("probe 702", [] { world().terminationIsPending = true; });
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_THAT(world().events, IsEmpty());
    EXPECT_THAT(world().callsOf({"kill", "sleep", "fork"}), IsEmpty());
    EXPECT_TRUE(Access::restartAllRequested(manager_));
}

TEST_F(SupervisionTerminationTest, DuringTheWaitForTheRegistryEndsThePass) {
    addDied(RESTART_TYPE_SELF);
    Access::rebootRequested(manager_) = true;
    std::atomic<bool> locked{false};
    std::atomic<bool> done{false};
    std::thread holder([&] {
        pthread_mutex_lock(&Access::appLock(manager_));
        locked = true;
        (void)fakes::waitUntil([&] { return done.load(); });
        pthread_mutex_unlock(&Access::appLock(manager_));
    });
    ASSERT_TRUE(fakes::waitUntil([&] { return locked.load(); }));
    world().terminationIsPending = true;
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_EQ(manager_.updateStatus(), 0);
    done = true;
    holder.join();
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_EQ(entry(1).status, APP_STATUS_RUNNING);
}

TEST_F(SupervisionTerminationTest, StartAllStartsOnlyWhatIsStoppedOnceTerminationIsPending) {
    for (const int status : {APP_STATUS_RUNNING, APP_STATUS_RUNNING, APP_STATUS_STOPPED,
                             APP_STATUS_DEAD, APP_STATUS_STARTING0, APP_STATUS_STOPPED}) {
        addEntry(status);
    }
    const std::vector<appinfo> before = applist;
    scriptLaunches(3);
    onceCalled("fork", [] { world().terminationIsPending = true; });
    EXPECT_EQ(manager_.start_allprocess(), 0);
    EXPECT_EQ(entry(1).pid, 601); // its launch came before
    EXPECT_EQ(entry(3).pid, 611);
    EXPECT_EQ(entry(6).pid, 621);
    for (const int number : {1, 3, 6}) {
        EXPECT_EQ(entry(number).status, APP_STATUS_STARTING0);
    }
    for (const std::size_t index : {1U, 3U, 4U}) {
        EXPECT_EQ(std::memcmp(&applist[index], &before[index], sizeof(appinfo)), 0) << index;
    }
    EXPECT_EQ(world().count("fork"), 3U);
}

TEST_F(SupervisionTerminationTest, PatienceWithAStoppedProcessLastsAlsoWhenTerminationIsPending) {
    addRunning();
    world().process(701)->ignoresTerm = true;
    world().terminationIsPending = true;
    const std::int64_t begin = world().monotonicMs;
    EXPECT_EQ(manager_.stop_process(entry(1)), 0);
    EXPECT_EQ(world().monotonicMs - begin, 50);
    EXPECT_EQ(world().callsOf("sleep"), Texts(5, "sleep 10"));
    EXPECT_FALSE(world().isAlive(701));
}

} // namespace
} // namespace supervision
