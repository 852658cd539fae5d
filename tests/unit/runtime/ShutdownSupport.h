// A running monitor, for the tests of its shutdown.

#ifndef OVARD_TESTS_UNIT_RUNTIME_SHUTDOWN_SUPPORT_H
#define OVARD_TESTS_UNIT_RUNTIME_SHUTDOWN_SUPPORT_H

#include <pthread.h>

#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "runtime/Globals.h"
#include "runtime/Shutdown.h"
#include "runtime/Signals.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/runtime/RuntimeSupport.h"

namespace runtimetest {

inline const char* const kPidFile = "/tmp/pid/home/kelvo/root/ovard.pid.4321";
inline const char* const kKickFile = "/tmp/watchdog_kick";
inline const char* const kCloseListener = "closefd 100000";
inline const char* const kRemoveSocket = "remove /tmp/appmon_sock";

/// Takes the mutex when it is free.
inline bool initializationMutexIsFree() {
    return g_ovard_initialization_mutex.tryAcquire() == 1;
}

inline void takeInitializationMutex() {
    while (initializationMutexIsFree()) {
    }
}

/// A running monitor without threads: manager, socket, watchdog, timer, pid file.
class ShutdownTest : public testing::Test {
protected:
    void SetUp() override {
        pthread_sigmask(SIG_SETMASK, nullptr, &prevMask);
        takeInitializationMutex();
    }

    ~ShutdownTest() override {
        fakes::world().onCall = nullptr;
        fakes::world().onConsole = nullptr;
        fakes::world().onSleep = nullptr;
    }

    void startManager() {
        appmgr = AppManager::Instance(g_verbose);
        appmgr->initCommunication();
        fakes::world().forgetRecords();
    }

    void startEverything() {
        startManager();
        initWatchDog = true;
        startWatchdogTimer();
        wdog_fd = kDevice;
        savedSigAction_SIGCONT.sa_handler = someHandler;
        pidfile = kPidFile;
        fakes::world().pidFiles[kPidFile] = "4321\n";
        fakes::world().forgetRecords();
    }

    /// A command thread that never leaves, as far as the manager knows.
    void feignStuckCommandThread() { AppManagerTestAccess::commandThreadAlive(*appmgr) = true; }

    /// What was recorded before the first call `call`.
    static std::vector<std::string> callsBefore(const std::string& call) {
        std::vector<std::string> before;
        for (const std::string& found : fakes::world().calls) {
            if (found == call) {
                return before;
            }
            before.push_back(found);
        }
        ADD_FAILURE() << "never called: " << call;
        return before;
    }
};

} // namespace runtimetest

#endif // OVARD_TESTS_UNIT_RUNTIME_SHUTDOWN_SUPPORT_H
