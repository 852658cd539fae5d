// What the tests of the manager's actions share: a manager whose log is open, applications that
// run, launches that work or fail, and the reply.

#ifndef OVARD_TESTS_UNIT_APPMANAGER_COMMAND_FIXTURE_H
#define OVARD_TESTS_UNIT_APPMANAGER_COMMAND_FIXTURE_H

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/IntakeSupport.h"
#include "tests/unit/appmanager/RequestSupport.h"
#include "tests/unit/support/LockState.h"

namespace commands {

// What nearly all of these tests name.
using fakes::world;
using levels::kLevelDebug;
using levels::kLevelError;
using levels::kLevelInfo;
using requests::Line;
using requests::Lines;
using requests::logLines;
using requests::makeApp;
using requests::makeAppWithoutCommand;
using requests::makeLostApp;
using requests::makeRequest;
using requests::registeredNames;
using requests::replies;
using requests::unanswered;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using Access = AppManagerTestAccess;

/// The clock of a fresh world, and one second later.
inline constexpr std::int32_t kNow = 1700000000;
inline constexpr const char* kNowText = "2023-11-14 22:13:20";
inline constexpr const char* kNextSecondText = "2023-11-14 22:13:21";

/// Start of a daemon that is found, in ticks since the boot and in seconds since the epoch.
inline constexpr std::uint64_t kDaemonTicks = 12300;
inline constexpr std::int32_t kDaemonStart = kNow - 10000 + 123;

/// No result of an action.
inline constexpr int kNoResult = -1000;

/// A monotonic millisecond short of the next second, so that any sleep reaches it.
inline constexpr int kLastMillisecond = 999;

inline std::string at(const std::string& text, const char* date = kNowText) {
    return text + " @" + date;
}

inline bool sameBytes(const appinfo& first, const appinfo& second) {
    return std::memcmp(&first, &second, sizeof first) == 0;
}

/// `app` as one that serves a port.
inline appinfo onPort(appinfo app, int type = PORT_TYPE_COM) {
    app.port_type = type;
    return app;
}

class CommandTest : public testing::Test {
protected:
    void SetUp() override {
        manager_.initCommunication(); // opens the log
        world().forgetRecords();
    }

    /// Executes a request whose sender waits for the reply.
    int process(int action, std::string_view name = {}, std::string_view cmd = {}) {
        return manager_.processCmd(makeRequest(action, name, cmd));
    }

    /// Executes a request whose sender does not wait.
    int processUnanswered(int action, std::string_view name = {}, std::string_view cmd = {}) {
        return manager_.processCmd(unanswered(makeRequest(action, name, cmd)));
    }

    /// Executes, on a thread of its own, a request that comes while the registry is held; then
    /// registers `app`, running, and releases the registry.
    int processWhileRegistering(int action, const appinfo& app) {
        int result = kNoResult;
        EXPECT_EQ(Access::appLock(manager_).lock(), 0);
        std::thread commander([&] { result = process(action); });
        EXPECT_TRUE(fakes::waitUntil([] { return !world().logTexts(kLevelDebug).empty(); }));
        EXPECT_TRUE(intake::keeps([] { return replies().empty(); }));
        addRunning(app);
        EXPECT_EQ(Access::appLock(manager_).unlock(), 0);
        commander.join();
        return result;
    }

    /// The next launch makes the process `pid`, which is gone before anybody looks.
    static void scriptLaunch(int pid) { world().scriptLaunch(40000 + pid, pid); }

    /// The next launch makes the process `pid`, which leaves the daemon `daemon` behind; that has a
    /// pid file and a start time of its own.
    static void scriptLaunchOfADaemon(int pid, int daemon, const std::string& name) {
        const std::string path = "/home/kelvo/root/" + name;
        scriptLaunch(pid);
        world().addProcess(pid, "other", "/usr/bin/other");
        world().onSleep = [=](int) {
            if (world().isAlive(pid)) {
                world().process(pid)->alive = false;
                world().addProcess(daemon, name, path, kDaemonTicks).pidFilename =
                    "/tmp/pid/of_the_daemon";
            }
        };
    }

    /// The next launch ends without a process.
    static void scriptFailedLaunch() {
        world().forkResults.push_back({49999, 0});
        world().waitpidResults.push_back({49999, 0, 0});
        world().reads.push_back({"", EIO});
    }

    /// The stop of the process `pid` lasts into the next second.
    static void scriptSlowStop(int pid) {
        world().process(pid)->ignoresTerm = true;
        world().nowMs = kLastMillisecond;
    }

    /// `app` with something in every field that a restart could spoil.
    static appinfo everyFieldSet(appinfo app) {
        platform::copyToField(app.version, "1.2.3");
        platform::copyToField(app.pidfile, "/tmp/pid/registered");
        app.start_time = 5;
        app.uptime = 77;
        app.port_num = 9;
        app.priority = -3;
        app.check_flag = 1;
        app.keepalive = 1;
        app.heartbeat = 1;
        app.last_runtime_life_limit = 600;
        app.reserved = 0x5A;
        return app;
    }

    static void addRunning(const appinfo& app) {
        applist.push_back(app);
        world().addProcess(app.pid, "other", "/usr/bin/other");
    }

    void expectReply(int code, const std::string& message) {
        ASSERT_THAT(replies(), SizeIs(1));
        EXPECT_EQ(replies()[0].code, code);
        EXPECT_EQ(replies()[0].completed, 1);
        EXPECT_STREQ(replies()[0].message, message.c_str());
    }

    /// The reply, and the same text as the log's last line.
    void expectAnswer(int code, const std::string& text, int level = kLevelInfo) {
        expectReply(code, text + "\n");
        ASSERT_THAT(logLines(), Not(IsEmpty()));
        EXPECT_EQ(logLines().back(), Line(level, text));
    }

    static void expectNoReply() {
        EXPECT_THAT(replies(), IsEmpty());
        EXPECT_EQ(world().count("send"), 0U);
    }

    bool registryIsHeld() { return !locks::isFree(Access::appLock(manager_)); }

    /// For hooks: the registry is held whenever one runs.
    void lookAtTheHeldRegistry() {
        ++looks_;
        EXPECT_TRUE(registryIsHeld());
    }

    /// Pids that were sent SIGTERM, in order.
    static std::vector<std::string> signalled() {
        std::vector<std::string> pids;
        for (const std::string& call : world().callsOf("kill")) {
            if (call.find(" 15") != std::string::npos) {
                pids.push_back(call.substr(5, call.find(' ', 5) - 5));
            }
        }
        return pids;
    }

    FixtureManager manager_;
    appinfo info_ = {};
    int looks_ = 0;
};

} // namespace commands

#endif // OVARD_TESTS_UNIT_APPMANAGER_COMMAND_FIXTURE_H
