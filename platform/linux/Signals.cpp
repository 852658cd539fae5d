#include "platform/Signals.h"

#include <fcntl.h>
#include <unistd.h>

namespace platform {

int setSignalHandler(int signal, void (*handler)(int)) {
    return ::signal(signal, handler) != SIG_ERR ? 0 : -1;
}

int setSignalAction(int signal, const struct sigaction* action, struct sigaction* previous) {
    return ::sigaction(signal, action, previous);
}

int createTimer(timer_t* timer, int signal, void* value) {
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = signal;
    event.sigev_value.sival_ptr = value;
    return ::timer_create(CLOCK_REALTIME, &event, timer);
}

int armTimer(timer_t timer, int seconds) {
    itimerspec period = {};
    period.it_value.tv_sec = seconds;
    period.it_interval.tv_sec = seconds;
    return ::timer_settime(timer, 0, &period, nullptr);
}

int deleteTimer(timer_t timer) {
    return ::timer_delete(timer);
}

int openWatchdogDevice() {
    return ::open(kWatchdogPath, O_RDWR | O_CLOEXEC);
}

int flushDescriptor(int fd) {
    return ::fsync(fd);
}

} // namespace platform
