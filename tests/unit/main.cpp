// Runs the unit tests, each in a fresh world and with the monitor's settings as at its start.

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "appmanager/RequestFiles.h"
#include "platform/Settings.h"
#include "platform/SystemEvent.h"
#include "runtime/Globals.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/InitialSettings.h"
#include "tests/unit/support/SkipReport.h"

namespace {

InitialSettings savedSettings;

void saveSettings() {
    savedSettings.verbosity = g_verbose;
    savedSettings.managerVerbosity = verbose;
    savedSettings.pidfileStartSec = app_pidfile_minimum_start_time;
    savedSettings.heartbeatStartSec = app_heartbeat_minimum_start_time;
    savedSettings.heartbeatExpireSec = app_heartbeat_expire_interval;
    savedSettings.timerIntervalSec = watchdog_timer_inteval;
    savedSettings.watchdogDeferSec = watchdogDeferTime;
    savedSettings.servesWatchdog = initWatchDog;
    savedSettings.logsSignals = block_signal;
    savedSettings.firstDataServer = bFirstDataServerAfterSystemBoot;
    savedSettings.shutsDown = g_bDaemonShutdown != 0;
    savedSettings.namesRequestFiles =
        pszExecuteAppConfigurationFile != nullptr || pszAppendToAppConfigurationFile != nullptr;
}

void resetSettings() {
    resetOptionSettings();
    verbose = 0;
    g_bDaemonShutdown = 0;
    g_releaseResources = nullptr;
    g_exitMonitor = nullptr;
}

void resetRuntime() {
    appmgr = nullptr;
    pidfile.clear();
    version[0] = '\0';
    buildtime[0] = '\0';
    thread_startupAppConfiguration = kNoThread;
    sigemptyset(&prevMask);
    savedSigAction_SIGCONT = {};
    saved_sa = {};
    timerid = kNoTimer;
    wdog_fd = -1;
    g_watchdogError = 0;
    platform::g_eventLogError = 0;
    thread_heartbeat_counter = 0;
    detect_heartbeat = 0;
    ::optind = 0; // makes getopt begin anew
}

class FreshWorld : public testing::EmptyTestEventListener {
public:
    FreshWorld()
        : fileMask_(::umask(022)) {
        ::umask(fileMask_);
        pthread_sigmask(SIG_SETMASK, nullptr, &signalMask_);
    }

private:
    void OnTestStart(const testing::TestInfo& /*test*/) override {
        fakes::resetWorld();
        applist.clear();
        ovard_start_time = 0;
        file_request_list.clear();
        resetSettings();
        resetRuntime();
    }

    /// What the test left of the monitor goes with it, and so do its changes to this process.
    void OnTestEnd(const testing::TestInfo& /*test*/) override {
        delete AppManager::m_pInstance;
        appmgr = nullptr;
        EXPECT_TRUE(fakes::waitForWorkersToEnd()); // A cancelled thread takes a moment.
        ::umask(fileMask_);
        pthread_sigmask(SIG_SETMASK, &signalMask_, nullptr);
    }

    mode_t fileMask_;
    sigset_t signalMask_;
};

} // namespace

const InitialSettings& initialSettings() {
    return savedSettings;
}

int main(int argc, char** argv) {
    saveSettings();
    ::setenv("TZ", "UTC", 1); // local times in traces are the same everywhere
    testing::InitGoogleMock(&argc, argv);
    testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
    listeners.Append(new FreshWorld);
    listeners.Append(new SkipReport);
    return RUN_ALL_TESTS();
}
