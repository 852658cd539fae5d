// A manager whose log is open and entries in the states that a supervision pass meets.

#ifndef OVARD_TESTS_UNIT_APPMANAGER_SUPERVISION_FIXTURE_H
#define OVARD_TESTS_UNIT_APPMANAGER_SUPERVISION_FIXTURE_H

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
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
#include "tests/unit/appmanager/RequestSupport.h"
#include "tests/unit/support/LockState.h"

namespace supervision {

// What nearly all of these tests name.
using Access = AppManagerTestAccess;
using fakes::world;
using levels::kLevelInfo;
using requests::Line;
using requests::logLines;
using requests::registeredNames;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using Texts = std::vector<std::string>;

inline constexpr int kFresh = 1;
inline constexpr int kExpired = 2;

/// How long ago the entries were started, in seconds: their grace is over.
inline constexpr int kSinceStartSec = 1000;

class SupervisionFixture : public testing::Test {
protected:
    void SetUp() override {
        manager_.initCommunication(); // opens the log
        world().forgetRecords();
        app_pidfile_minimum_start_time = 1; // ten polls are enough
    }

    /// Registers "app1", "app2", ... in turn, with the pids 701, 702, ...; no processes are made.
    static appinfo& addEntry(int status, int restartType = RESTART_TYPE_SELF) {
        const int number = static_cast<int>(applist.size()) + 1;
        appinfo entry = requests::makeApp("app" + std::to_string(number), 700 + number);
        entry.status = status;
        entry.start_time = static_cast<std::int32_t>(world().now) - kSinceStartSec;
        entry.uptime = 100;
        entry.check_flag = 1;
        entry.restart_type = restartType;
        platform::copyToField(entry.pidfile, "/tmp/app" + std::to_string(number) + ".pid");
        applist.push_back(entry);
        return applist.back();
    }

    /// An application whose check finds it in order.
    static appinfo& addRunning() {
        appinfo& entry = addEntry(APP_STATUS_RUNNING);
        addProcessOf(entry);
        return entry;
    }

    /// An application that ran, and whose check finds it dead.
    static appinfo& addDied(int restartType) { return addEntry(APP_STATUS_RUNNING, restartType); }

    static fakes::Process& addProcessOf(const appinfo& entry) {
        world().heartbeats[entry.pid] = kFresh;
        return world().addProcess(entry.pid, entry.name, entry.cmd);
    }

    static appinfo& entry(int number) { return applist[static_cast<std::size_t>(number) - 1]; }

    /// `count` launches in turn, whose processes 601, 611, ... are gone before anybody looks.
    static void scriptLaunches(int count) {
        for (int number = 0; number < count; ++number) {
            world().scriptLaunch(600 + 10 * number, 601 + 10 * number);
        }
    }

    /// Runs `action` once `call` has been recorded.
    template <typename Action> static void onceCalled(const std::string& call, Action action) {
        world().onCall = [call, action](const std::string& recorded) {
            if (recorded == call) {
                action();
            }
        };
    }

    bool registryIsHeld() { return !locks::isFree(Access::appLock(manager_)); }

    /// Pids that were looked at, in order.
    static Texts probes() { return world().callsOf("probe"); }

    FixtureManager manager_;
};

} // namespace supervision

#endif // OVARD_TESTS_UNIT_APPMANAGER_SUPERVISION_FIXTURE_H
