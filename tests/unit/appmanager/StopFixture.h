// A manager whose log is open and applications that run, for the tests of stopping and restarting
// them.

#ifndef OVARD_TESTS_UNIT_APPMANAGER_STOP_FIXTURE_H
#define OVARD_TESTS_UNIT_APPMANAGER_STOP_FIXTURE_H

#include <sys/types.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/RequestSupport.h"

namespace stops {

// What nearly all of these tests name.
using fakes::world;
using levels::kLevelInfo;
using testing::ElementsAre;
using testing::IsEmpty;

inline constexpr pid_t kPid = 700;   ///< the application's process
inline constexpr pid_t kStray = 800; ///< another process of the same program
inline constexpr const char* kServer = "/home/kelvo/root/data_server";

using Texts = std::vector<std::string>;

/// The record of a running application that was started and checked before, by another command
/// than the bare path.
inline appinfo makeCheckedApp(std::string_view name, pid_t pid) {
    appinfo app = requests::makeApp(name, pid);
    app.start_time = 22;
    app.check_flag = 1;
    platform::copyToField(app.cmd, "/home/kelvo/root/" + std::string(name) + " -old");
    platform::copyToField(app.pidfile, "/tmp/" + std::string(name) + ".pid");
    return app;
}

class StopFixture : public testing::Test {
protected:
    void SetUp() override {
        manager_.initCommunication(); // opens the log
        world().forgetRecords();
        app_ = makeCheckedApp("data_server", kPid);
        before_ = app_;
    }

    static fakes::Process& addServer(pid_t pid = kPid) {
        return world().addProcess(pid, "data_server", kServer);
    }

    void expectRecordUnchanged() const { EXPECT_EQ(std::memcmp(&app_, &before_, sizeof app_), 0); }

    FixtureManager manager_;
    appinfo app_ = {};
    appinfo before_ = {};
};

} // namespace stops

#endif // OVARD_TESTS_UNIT_APPMANAGER_STOP_FIXTURE_H
