// A manager whose log is open and the record of an application to launch, for the tests of the
// launch.

#ifndef OVARD_TESTS_UNIT_APPMANAGER_LAUNCH_FIXTURE_H
#define OVARD_TESTS_UNIT_APPMANAGER_LAUNCH_FIXTURE_H

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/ExitStatus.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/DataServer.h"

namespace launches {

/// The first descriptors that the tests meet; no real ones.
inline constexpr int kFirstFd = 200000;

/// What waitpid tells of a process that left with `status`.
constexpr int exitStatus(int status) {
    return status << 8;
}

inline void recordRelease(bool full) {
    world().record(full ? "release all" : "release launched");
}

class LaunchTest : public testing::Test {
protected:
    void SetUp() override {
        manager_.initCommunication(); // opens the log
        world().forgetRecords();
        world().nextDescriptor = kFirstFd;
        g_releaseResources = recordRelease;
        platform::copyToField(app_.name, "data_server");
        platform::copyToField(app_.cmd, kServer);
        platform::copyToField(app_.pidfile, "/tmp/ds.pid");
        app_.start_time = 77;
        app_.check_flag = 1;
        before_ = app_;
    }

    /// A launch whose process goes into the background at the first look at it.
    static void scriptGoodLaunch() {
        world().scriptLaunch(kChild, kLaunched);
        scriptDaemonAfter(1);
    }

    /// A launch whose process stays as it is.
    static void scriptForegroundLaunch() {
        world().scriptLaunch(kChild, kLaunched);
        addLaunched();
    }

    /// A launch of which no pid comes through the pipe.
    static void scriptLaunchWithoutPid() { world().forkResults = {{kChild, 0}}; }

    /// Runs `look` at every call whose first word is `word`.
    static void lookAt(const std::string& word, const std::function<void()>& look) {
        world().onCall = [word, look](const std::string& call) {
            if (call.substr(0, call.find(' ')) == word) {
                look();
            }
        };
    }

    /// Runs `code`, which leaves the process; the status with which it does.
    template <typename Code> static int leavesWith(Code code) {
        const int status = leaveStatusOf(code);
        EXPECT_NE(status, kReturned) << "the process was not left";
        return status;
    }

    void expectOneLogLine(int level, const std::string& text) {
        ASSERT_EQ(world().log.size(), 1U);
        EXPECT_EQ(world().log[0].level, level);
        EXPECT_EQ(world().log[0].text, text);
    }

    FixtureManager manager_;
    appinfo app_ = {};
    appinfo before_ = {};
};

} // namespace launches

#endif // OVARD_TESTS_UNIT_APPMANAGER_LAUNCH_FIXTURE_H
