// A wall clock that a test sets.

#ifndef OVARD_TESTS_SYSTEM_SETTABLE_CLOCK_H
#define OVARD_TESTS_SYSTEM_SETTABLE_CLOCK_H

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>

#include "tests/system/Applications.h"

namespace systemtest {

/// While it lives, monitors that are started and their applications read a wall clock of their own
/// (programs/WallClock.cpp), because a sandbox has none and the machine's is not to be set.
/// Programs without shared libraries read the machine's all the same.
///
/// With OVARD_MACHINE_CLOCK in the environment it is the machine's own instead. That is for the
/// test machine (tests/target), and cannot be set anywhere else. The destructor sets it right
/// again.
class SettableClock {
public:
    SettableClock();
    ~SettableClock();
    SettableClock(const SettableClock&) = delete;
    SettableClock& operator=(const SettableClock&) = delete;

    /// It is the machine's own, which everybody reads.
    static bool isMachineWide();

    /// Not in sanitized builds: a sanitizer's library must be loaded before all others.
    static bool isPossible();

    /// Sets it so many seconds away from the right time, for running processes too. False when that
    /// fails.
    static bool set(std::int64_t seconds);

    /// The right time, in seconds since the epoch: what the machine's clock showed when it was
    /// asked for the first time, and what has gone by since.
    static std::time_t rightTime();

    /// A process reads this clock. It has been set before the process was started.
    static bool isReadBy(pid_t pid);

private:
    std::optional<MonitorThroughScript> script_;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_SETTABLE_CLOCK_H
