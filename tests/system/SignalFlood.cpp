#include "tests/system/SignalFlood.h"

#include "tests/system/Processes.h"
#include "tests/system/Support.h"

namespace systemtest {

SignalFlood::SignalFlood(pid_t pid, int signal)
    : sender_([this, pid, signal] {
        while (!enough_) {
            sent_ += sendSignal(pid, signal) ? 1 : 0;
            sleepMs(1);
        }
    }) {}

void SignalFlood::stop() {
    enough_ = true;
    if (sender_.joinable()) {
        sender_.join();
    }
}

} // namespace systemtest
