// A start of the monitor, for the tests of its start-up.

#ifndef OVARD_TESTS_UNIT_RUNTIME_STARTUP_SUPPORT_H
#define OVARD_TESTS_UNIT_RUNTIME_STARTUP_SUPPORT_H

#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "runtime/Globals.h"
#include "runtime/Shutdown.h"
#include "runtime/Startup.h"
#include "runtime/VersionInformation.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/ExitStatus.h"
#include "tests/unit/runtime/RuntimeSupport.h"

namespace runtimetest {

inline std::string actionCall(int signal) {
    return "sigaction " + std::to_string(signal);
}

/// A slot that is filled to its end has no terminator.
inline std::string slotText(std::size_t slot) {
    const char* const text = version_information_resource[slot];
    return {text, ::strnlen(text, kVersionSlotSize)};
}

/// The value of a slot, without key and line feed.
inline std::string slotValue(std::size_t slot) {
    const std::string text = slotText(slot);
    const std::size_t start = text.find('=') + 1;
    return text.substr(start, text.size() - start - 1);
}

inline std::string versionLine() {
    return "version: " + slotValue(7) + " built on " + slotValue(6) + "\n";
}

/// Leaves the mutex as it is.
inline bool launcherMayGoOn() {
    if (g_ovard_initialization_mutex.tryAcquire() != 1) {
        return false;
    }
    g_ovard_initialization_mutex.Unlock();
    return true;
}

/// Takes what earlier tests posted too often, then leaves the mutex free.
inline void resetInitializationMutex() {
    while (g_ovard_initialization_mutex.tryAcquire() == 1) {
    }
    g_ovard_initialization_mutex.Unlock();
}

/// Runs the monitor, in the scripted world, up to its main loop.
class StartupTest : public testing::Test {
protected:
    StartupTest() {
        ::opterr = 0;
        ::unsetenv("METER_ROOT");
        resetInitializationMutex();
    }

    ~StartupTest() override {
        fakes::world().onCall = nullptr;
        fakes::world().onWait = nullptr;
        g_bDaemonShutdown = 0;
        ovardAtExit(); // stops the threads that the run has left
        ::unsetenv("METER_ROOT");
        ::opterr = 1;
    }

    /// Runs the monitor with `arguments` until its first turn is over. Returns its status.
    int run(std::vector<std::string> arguments) {
        fakes::world().onWait = [this](int, int) {
            if (atLoop_) {
                atLoop_();
            }
            fakes::world().waitResults = {platform::WaitResult::Failed};
            g_bDaemonShutdown = -1;
        };
        arguments.insert(arguments.begin(), "ovard");
        arguments_ = std::move(arguments);
        std::vector<char*> argv;
        for (std::string& word : arguments_) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        return runMonitor(static_cast<int>(arguments_.size()), argv.data());
    }

    /// Status with which the start-up ends the monitor by itself; kReturned when it does not.
    int exitStatusOf(const std::vector<std::string>& arguments) {
        return ::exitStatusOf([&] { (void)run(arguments); });
    }

    /// Runs `look` when the call `call` is made, and tells whether it was.
    void at(const std::string& call, const std::function<void()>& look) {
        fakes::world().onCall = [this, call, look](const std::string& made) {
            if (made == call) {
                looked_ = true;
                look();
            }
        };
    }

    /// The calls of the main thread's start-up: those before the first turn of the loop, without
    /// what is done about the limit of descriptors.
    static std::vector<std::string> startUpCalls() {
        std::vector<std::string> found;
        for (const std::string& call : fakes::world().calls) {
            if (call == "heartbeat_notify") {
                break;
            }
            if (call != "raiseDescriptorLimit") {
                found.push_back(call);
            }
        }
        return found;
    }

    std::vector<std::string> arguments_;
    std::function<void()> atLoop_;
    bool looked_ = false;
};

} // namespace runtimetest

#endif // OVARD_TESTS_UNIT_RUNTIME_STARTUP_SUPPORT_H
