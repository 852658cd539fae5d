// One application and its process, in a world where a check finds everything in order.

#ifndef OVARD_TESTS_UNIT_APPMANAGER_LIVENESS_FIXTURE_H
#define OVARD_TESTS_UNIT_APPMANAGER_LIVENESS_FIXTURE_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"

namespace liveness {

// What nearly all of these tests name.
using fakes::world;
using levels::kLevelInfo;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

inline constexpr std::time_t kNow = 1700000000;
inline constexpr std::uint32_t kBoot = kNow - 10000;
inline constexpr int kPid = 700;
inline constexpr const char* kPidFile = "/tmp/data_server.pid";
inline constexpr const char* kPidFileText = "700\n1.2\n";
inline constexpr int kMostPolls = 70; ///< by default

inline constexpr int kFresh = 1;
inline constexpr int kExpired = 2;
inline constexpr int kMissing = 3;

/// An application whose grace is long over, with a process that lives and that its pid file
/// confirms, in a world where the boot time would be another one if it were read again.
class LivenessTest : public testing::Test {
protected:
    void SetUp() override {
        bFirstDataServerAfterSystemBoot = false;
        manager_.initCommunication(); // opens the log
        world().forgetRecords();
        world().uptimeSec = 500;
        platform::copyToField(entry_.name, "data_server");
        platform::copyToField(entry_.version, "1.2");
        platform::copyToField(entry_.pidfile, kPidFile);
        entry_.pid = kPid;
        entry_.check_flag = 1;
        startedAgo(1000);
        world().addProcess(kPid, "data_server", "");
        world().pidFiles[kPidFile] = kPidFileText;
        world().heartbeats[kPid] = kFresh;
    }

    void startedAgo(int seconds) { entry_.start_time = static_cast<std::int32_t>(kNow - seconds); }
    static void unconfirm() { world().pidFiles.clear(); }
    static void endProcess() { world().process(kPid)->alive = false; }

    /// Runs `action` at the end of sleep number `number`.
    template <typename Action> static void duringSleep(int number, Action action) {
        // The world runs copies of the hook: the count is theirs together.
        world().onSleep = [left = std::make_shared<int>(number), action](int) {
            if (--*left == 0) {
                action();
            }
        };
    }
    static void askToEndDuringSleep(int number) {
        duringSleep(number, [] { world().terminationIsPending = true; });
    }

    int check() { return check(entry_.status); }
    int check(int status) {
        entry_.status = status;
        applist = {entry_};
        const int result = manager_.checkAlive(applist.begin());
        entry_ = applist.front();
        return result;
    }

    /// The check finds the entry in order, does not change it and says nothing.
    void expectLeavesAlone(int status) {
        entry_.status = status;
        const appinfo before = entry_;
        EXPECT_EQ(check(), 1);
        EXPECT_EQ(std::memcmp(&before, &entry_, sizeof before), 0);
        EXPECT_THAT(world().logTexts(), IsEmpty());
    }

    std::uint32_t bootTime() { return statusUpdate().bootTime(); }
    AppStatusUpdate& statusUpdate() { return AppManagerTestAccess::statusUpdate(manager_); }
    int lastHeartbeat() { return AppManagerTestAccess::lastHeartbeatResult(manager_); }
    static std::size_t looks() { return world().count("probe"); }
    static std::size_t sleeps() { return world().count("sleep"); }

    FixtureManager manager_;
    appinfo entry_ = {};
};

inline constexpr std::uint32_t kBootReadAgain = kNow - 500;

} // namespace liveness

#endif // OVARD_TESTS_UNIT_APPMANAGER_LIVENESS_FIXTURE_H
