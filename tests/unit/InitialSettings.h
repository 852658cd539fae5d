// The values with which the program's settings start, saved before the first test changes any.

#ifndef OVARD_TESTS_UNIT_INITIAL_SETTINGS_H
#define OVARD_TESTS_UNIT_INITIAL_SETTINGS_H

#include <cstdint>

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

#endif // OVARD_TESTS_UNIT_INITIAL_SETTINGS_H
