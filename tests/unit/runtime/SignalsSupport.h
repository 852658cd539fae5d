// A manager whose log is open, and ticks of the timer, for the tests of the signal handlers.

#ifndef OVARD_TESTS_UNIT_RUNTIME_SIGNALS_SUPPORT_H
#define OVARD_TESTS_UNIT_RUNTIME_SIGNALS_SUPPORT_H

#include <csignal>

#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "runtime/Globals.h"
#include "runtime/Signals.h"
#include "tests/fakes/FakePlatform.h"

namespace runtimetest {

inline siginfo_t tickInfo() {
    siginfo_t info = {};
    info.si_signo = SIGUSR1;
    info.si_value.sival_ptr = &timerid;
    return info;
}

/// One expiry of the timer.
inline void tick() {
    siginfo_t info = tickInfo();
    timerHandler(SIGUSR1, &info, nullptr);
}

/// The manager's log is open, nothing of earlier tests is left to report. The system has been up
/// for long, the watchdog is closed.
class SignalsTest : public testing::Test {
protected:
    void SetUp() override {
        appmgr = AppManager::Instance(g_verbose);
        appmgr->initCommunication();
        reportWatchdogEvents();
        fakes::world().forgetRecords();
    }

    ~SignalsTest() override {
        fakes::world().onCall = nullptr;
        fakes::world().onWait = nullptr;
    }
};

} // namespace runtimetest

#endif // OVARD_TESTS_UNIT_RUNTIME_SIGNALS_SUPPORT_H
