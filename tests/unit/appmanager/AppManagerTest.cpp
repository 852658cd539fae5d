#include "appmanager/AppManager.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/RecursiveMutex.h"
#include "platform/Settings.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/support/LockState.h"

namespace {

using fakes::world;
using testing::ElementsAre;
using testing::IsEmpty;
using Access = AppManagerTestAccess;

static_assert(std::has_virtual_destructor_v<AppManager>);
static_assert(!std::has_virtual_destructor_v<AppServer>);

// --- codes and their texts -----------------------------------------------------------------------

/// The texts, which are to be compared instead of their places.
template <typename Texts> std::vector<std::string> textsOf(const Texts& texts) {
    return {std::begin(texts), std::end(texts)};
}

TEST(AppStatusTextTest, NamesEveryStatusAndSharesTheTextsOfTwoPhases) {
    EXPECT_THAT(textsOf(OVARD_APP_STATUS_STR),
                ElementsAre("initializing", "starting", "starting", "started", "started", "stopped",
                            "dead", "stopping", "start failure", "app late", "monitor die"));
}

TEST(AppStatusTextTest, NamesEveryPortType) {
    EXPECT_THAT(textsOf(PORT_TYPE_STR), ElementsAre("None", "COM", "Eth"));
}

TEST(ErrExitTest, ShowsTheErrorAndEndsTheMonitor) {
    errno = ENOENT;
    try {
        errExit("fork2:pipe create error");
    } catch (const fakes::ExitMonitorCalled& end) {
        EXPECT_EQ(end.status, -1);
    }
    EXPECT_EQ(world().errorText(), "fork2:pipe create error: No such file or directory\n");
    EXPECT_THAT(world().calls, ElementsAre("exitMonitor -1"));
}

// --- creation ------------------------------------------------------------------------------------

TEST(AppManagerInstanceTest, FirstCallCreatesTheManagerAndSettlesItsGlobals) {
    ASSERT_EQ(AppManager::m_pInstance, nullptr);
    world().now = 1234567;
    AppManager* const manager = AppManager::Instance(6);
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ(AppManager::m_pInstance, manager);
    EXPECT_EQ(verbose, 6);
    EXPECT_EQ(ovard_start_time, 1234567);
    EXPECT_FALSE(Access::shuttingDown(*manager));
}

TEST(AppManagerInstanceTest, SecondCallReturnsTheSameAndChangesNothing) {
    AppManager* const manager = AppManager::Instance(6);
    const std::int32_t created = ovard_start_time;
    world().now += 100;
    EXPECT_EQ(AppManager::Instance(2), manager);
    EXPECT_EQ(verbose, 6);
    EXPECT_EQ(ovard_start_time, created);
}

TEST(AppManagerInstanceTest, SecondCallLeavesAManagerThatShutsDownAlone) {
    AppManager* const manager = AppManager::Instance(0);
    Access::shuttingDown(*manager) = true;
    (void)AppManager::Instance(0);
    EXPECT_TRUE(Access::shuttingDown(*manager));
}

class AppManagerTest : public testing::Test {
protected:
    FixtureManager manager_;
};

TEST_F(AppManagerTest, StartsWithNothingRequestedAndNoThread) {
    EXPECT_FALSE(Access::shuttingDown(manager_));
    EXPECT_EQ(Access::commandThread(manager_), 0U);
    EXPECT_THAT(Access::queue(manager_), IsEmpty());
    EXPECT_FALSE(Access::restartAllRequested(manager_));
    EXPECT_FALSE(Access::rebootRequested(manager_));
    EXPECT_EQ(Access::lastHeartbeatResult(manager_), 3);
    EXPECT_TRUE(manager_.commandThreadHasLeft());
    EXPECT_EQ(world().count("thread"), 0U);
}

TEST_F(AppManagerTest, StartsWithAZeroWorkRecord) {
    const appinfo zero = {};
    EXPECT_EQ(std::memcmp(&Access::workRecord(manager_), &zero, sizeof zero), 0);
}

TEST_F(AppManagerTest, IsNotTheInstanceByItself) {
    EXPECT_EQ(AppManager::m_pInstance, nullptr);
}

TEST_F(AppManagerTest, BothLocksAreRecursive) {
    for (platform::RecursiveMutex* mutex :
         {&Access::appLock(manager_), &Access::queueLock(manager_)}) {
        ASSERT_EQ(mutex->lockIfFree(), 0);
        ASSERT_EQ(mutex->lockIfFree(), 0);
        EXPECT_FALSE(locks::isFree(*mutex));
        EXPECT_EQ(mutex->unlock(), 0);
        EXPECT_FALSE(locks::isFree(*mutex));
        EXPECT_EQ(mutex->unlock(), 0);
        EXPECT_TRUE(locks::isFree(*mutex));
    }
}

} // namespace
