// The supervision pass of a monitor that is asked to end: applications outlive it.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/RecursiveMutex.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/SupervisionFixture.h"

namespace supervision {
namespace {

/// Another thread that holds a lock for the scope.
class Holder {
public:
    explicit Holder(platform::RecursiveMutex& lock)
        : thread_([this, &lock] {
            EXPECT_EQ(lock.lock(), 0);
            locked_ = true;
            (void)fakes::waitUntil([this] { return done_.load(); });
            EXPECT_EQ(lock.unlock(), 0);
        }) {
        EXPECT_TRUE(fakes::waitUntil([this] { return locked_.load(); }));
    }
    ~Holder() {
        done_ = true;
        thread_.join();
    }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

private:
    std::atomic<bool> locked_{false};
    std::atomic<bool> done_{false};
    std::thread thread_;
};

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
    const Holder holder(Access::appLock(manager_));
    world().terminationIsPending = true;
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_EQ(manager_.updateStatus(), 0);
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_EQ(entry(1).status, APP_STATUS_RUNNING);
}

TEST_F(SupervisionTerminationTest, DuringTheWaitForTheRegistryEndsWhatConcernsAll) {
    addRunning();
    addEntry(APP_STATUS_STOPPED);
    const Holder holder(Access::appLock(manager_));
    world().terminationIsPending = true;
    EXPECT_EQ(manager_.stop_allprocess(), -20);
    EXPECT_EQ(manager_.start_allprocess(), -20);
    EXPECT_EQ(manager_.restart_allprocess(), -20);
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_EQ(entry(1).status, APP_STATUS_RUNNING);
    EXPECT_EQ(entry(2).status, APP_STATUS_STOPPED);
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

TEST_F(SupervisionTerminationTest, WithinTheLaunchesOfARestartOfAllKeepsFromARestartOfTheMachine) {
    addRunning();
    addRunning().cmd[0] = '\0'; // cannot be started again
    Access::restartAllRequested(manager_) = true;
    scriptLaunches(1);
    onceCalled("fork", [] { world().terminationIsPending = true; });
    EXPECT_EQ(manager_.checkStatus(false), 0);
    EXPECT_EQ(world().count("fork"), 1U);
    EXPECT_EQ(entry(2).status, APP_STATUS_START_FAILURE);
    EXPECT_THAT(world().events, ElementsAre("Ovard: restart all"));
    EXPECT_THAT(world().callsOf({"sync", "shell", "restart"}), IsEmpty());
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
