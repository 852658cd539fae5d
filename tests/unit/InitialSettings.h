// The values with which the program's settings start: those of the program itself, saved before the
// first test changes any, and those that every test and every input of a fuzzer begins with.

#ifndef OVARD_TESTS_UNIT_INITIAL_SETTINGS_H
#define OVARD_TESTS_UNIT_INITIAL_SETTINGS_H

#include <cstdint>

#include "platform/Settings.h"
#include "runtime/Globals.h"

struct InitialSettings {
    std::int32_t verbosity;
    std::int32_t managerVerbosity;
    std::int32_t pidfileStartSec;
    std::int32_t heartbeatStartSec;
    std::int32_t heartbeatExpireSec;
    std::int32_t timerIntervalSec;
    std::int32_t watchdogDeferSec;
    bool servesWatchdog;
    bool logsSignals;
    bool firstDataServer;
    bool shutsDown;
    bool namesRequestFiles;
};

const InitialSettings& initialSettings();

/// Takes back what the options of a command line set.
inline void resetOptionSettings() {
    g_verbose = 3;
    app_pidfile_minimum_start_time = 7;
    app_heartbeat_minimum_start_time = 30;
    app_heartbeat_expire_interval = 30;
    pszExecuteAppConfigurationFile = nullptr;
    pszAppendToAppConfigurationFile = nullptr;
    initWatchDog = false;
    watchdog_timer_inteval = 5;
    watchdogDeferTime = 120;
    block_signal = false;
}

#endif // OVARD_TESTS_UNIT_INITIAL_SETTINGS_H
