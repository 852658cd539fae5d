// How code ends its process, where it does.

#ifndef OVARD_TESTS_UNIT_EXIT_STATUS_H
#define OVARD_TESTS_UNIT_EXIT_STATUS_H

#include "tests/fakes/FakePlatform.h"

/// What the functions below return when the action comes back; no status of the monitor's.
inline constexpr int kReturned = -1000;

/// Status with which `action` ends the process by throwing `Ending`; `kReturned` when it returns.
template <typename Ending, typename Action> int endingStatusOf(Action action) {
    try {
        action();
    } catch (const Ending& ending) {
        return ending.status;
    }
    return kReturned;
}

/// Status with which `action` ends the monitor.
template <typename Action> int exitStatusOf(Action action) {
    return endingStatusOf<fakes::ExitMonitorCalled>(action);
}

/// Status with which `action` leaves a process without its clean-up.
template <typename Action> int leaveStatusOf(Action action) {
    return endingStatusOf<fakes::LeaveProcessCalled>(action);
}

#endif // OVARD_TESTS_UNIT_EXIT_STATUS_H
