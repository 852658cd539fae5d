// What the tests of the main loop share.

#ifndef OVARD_TESTS_UNIT_RUNTIME_MAIN_LOOP_FIXTURE_H
#define OVARD_TESTS_UNIT_RUNTIME_MAIN_LOOP_FIXTURE_H

#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "runtime/Globals.h"
#include "runtime/MainLoop.h"
#include "runtime/MonitorPidFile.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/runtime/SignalsSupport.h"

namespace runtimetest {

/// The descriptor of the listening socket, the first one that the fakes hand out.
inline constexpr int kListener = fakes::kFirstDescriptor;

/// The wall clock of a fresh world, as local time in UTC.
inline constexpr const char* kStartText = "Tue Nov 14 22:13:20 2023";

inline constexpr int kNever = 1000000; // seconds: no status check is due

inline reqcmd requestNamed(const char* name) {
    reqcmd request = {};
    std::strncpy(request.name, name, sizeof request.name - 1);
    request.action = 9;
    return request;
}

inline std::string bytesOf(const reqcmd& request) {
    return {reinterpret_cast<const char*>(&request), sizeof request};
}

/// A manager that listens and publishes, without a command thread.
class MainLoopTest : public testing::Test {
protected:
    void SetUp() override {
        manager_.initCommunication();
        (void)AppManagerTestAccess::statusUpdate(manager_).initUserShm(applist, false);
        appmgr = &manager_;
        reportWatchdogEvents();
        fakes::world().forgetRecords();
    }

    ~MainLoopTest() override {
        appmgr = nullptr;
        if (!recordFile_.empty()) {
            ::unlink(recordFile_.c_str());
            ::rmdir(folder_.c_str());
        }
    }

    /// Runs one turn for each of `steps`; each step runs where the turn waits for a client, and
    /// says how that wait ends.
    void runTurns(std::vector<std::function<platform::WaitResult()>> steps,
                  std::int32_t intervalSec) {
        MainLoop loop(manager_, pidFile_, intervalSec);
        runTurns(loop, std::move(steps));
    }

    static void runTurns(MainLoop& loop, std::vector<std::function<platform::WaitResult()>> steps) {
        std::size_t turn = 0;
        fakes::world().onWait = [&](int fd, int) {
            if (fd == kListener) {
                const platform::WaitResult result = steps[turn++]();
                fakes::world().waitResults = {result};
                if (turn == steps.size()) {
                    g_bDaemonShutdown = -1;
                }
            }
        };
        EXPECT_EQ(loop.run(), 0);
        fakes::world().onWait = nullptr;
    }

    static platform::WaitResult nobody() { return platform::WaitResult::TimedOut; }
    static platform::WaitResult broken() { return platform::WaitResult::Failed; }

    /// A client that connects and sends nothing.
    static platform::WaitResult silentClient() { return platform::WaitResult::Ready; }

    static platform::WaitResult clientSending(const std::string& bytes) {
        fakes::world().receives = {{bytes, 0}};
        return platform::WaitResult::Ready;
    }

    static std::function<platform::WaitResult()> client(const char* name) {
        return [name] { return clientSending(bytesOf(requestNamed(name))); };
    }

    /// A wait that fails at once, after the clock was set to `now`.
    static std::function<platform::WaitResult()> brokenAt(std::time_t now) {
        return [now] {
            fakes::world().now = now;
            return platform::WaitResult::Failed;
        };
    }

    void recordRequests() {
        char pattern[] = "/tmp/ovard-main-loop-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        folder_ = pattern;
        recordFile_ = folder_ + "/record";
        pszAppendToAppConfigurationFile = recordFile_.c_str();
    }

    std::string recorded() const {
        std::ifstream file(recordFile_, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    std::size_t statusChecks() const {
        std::size_t checks = 0;
        for (const std::string& call : fakes::world().callsOf("sleep")) {
            checks += call == "sleep 10" ? 1 : 0;
        }
        return checks;
    }

    FixtureManager manager_;
    MonitorPidFile pidFile_;
    std::string folder_;
    std::string recordFile_;
};

} // namespace runtimetest

#endif // OVARD_TESTS_UNIT_RUNTIME_MAIN_LOOP_FIXTURE_H
