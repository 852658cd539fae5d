// A wall clock that a test sets. The sandbox has none of its own, and the machine's is never set.

#ifndef OVARD_TESTS_SYSTEM_SETTABLE_CLOCK_H
#define OVARD_TESTS_SYSTEM_SETTABLE_CLOCK_H

#include <sys/types.h>

#include <cstdint>

#include "tests/system/Applications.h"

namespace systemtest {

/// While it lives, monitors that are started and their applications read this wall clock
/// (programs/WallClock.cpp). Programs without shared libraries read the machine's all the same.
class SettableClock {
public:
    SettableClock();

    /// Not in sanitized builds: a sanitizer's library must be loaded before all others.
    static bool isPossible();

    /// Sets it so many seconds away from the machine's, for running processes too. False when that
    /// fails.
    static bool set(std::int64_t seconds);

    /// A process reads this clock. It has been set before the process was started.
    static bool isReadBy(pid_t pid);

private:
    MonitorThroughScript script_;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_SETTABLE_CLOCK_H
