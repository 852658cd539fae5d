// Signal actions, timer and watchdog device: kept in the world, never handed to the system.

#include "platform/Signals.h"

#include "tests/fakes/FakePlatform.h"

using fakes::joined;
using fakes::Lock;
using fakes::world;

namespace {

const char* handlerKind(void (*handler)(int)) {
    if (handler == SIG_DFL) {
        return "default";
    }
    return handler == SIG_IGN ? "ignore" : "handler";
}

} // namespace

namespace platform {

int setSignalHandler(int signal, void (*handler)(int)) {
    const Lock lock;
    world().record(joined("signal", signal, handlerKind(handler)));
    if (fakes::failIfScripted(world().signalErrors, signal) != 0) {
        return -1;
    }
    struct sigaction action = {};
    action.sa_handler = handler;
    world().actions[signal] = action;
    return 0;
}

int setSignalAction(int signal, const struct sigaction* action, struct sigaction* previous) {
    const Lock lock;
    world().record(joined("sigaction", signal));
    if (fakes::failIfScripted(world().sigactionErrors, signal) != 0) {
        return -1;
    }
    if (previous != nullptr) {
        *previous = world().actions[signal];
    }
    if (action != nullptr) {
        world().actions[signal] = *action;
    }
    return 0;
}

int createTimer(timer_t* timer, int signal, void* value) {
    static int timerObject = 0; // its address is the handle
    const Lock lock;
    world().record(joined("createTimer", signal));
    if (fakes::takeError(world().createTimerErrors) != 0) {
        return -1;
    }
    world().timerSignal = signal;
    world().timerValue = value;
    *timer = &timerObject;
    return 0;
}

int armTimer(timer_t /*timer*/, int seconds) {
    const Lock lock;
    world().record(joined("armTimer", seconds));
    return fakes::takeError(world().armTimerErrors);
}

int deleteTimer(timer_t /*timer*/) {
    const Lock lock;
    world().record("deleteTimer");
    return fakes::takeError(world().deleteTimerErrors);
}

int openWatchdogDevice() {
    const Lock lock;
    world().record("watchdog");
    if (!world().watchdogResults.empty()) {
        return static_cast<int>(fakes::takeResult(world().watchdogResults, -1));
    }
    return world().newDescriptor();
}

int flushDescriptor(int fd) {
    const Lock lock;
    world().record(joined("fsync", fd));
    return static_cast<int>(fakes::takeResult(world().flushResults, 0));
}

} // namespace platform
