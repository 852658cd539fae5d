// Signals in a number that no timer brings about.

#ifndef OVARD_TESTS_SYSTEM_SIGNAL_FLOOD_H
#define OVARD_TESTS_SYSTEM_SIGNAL_FLOOD_H

#include <sys/types.h>

#include <atomic>
#include <thread>

namespace systemtest {

/// While it lives it sends a signal to a process about a thousand times a second.
class SignalFlood {
public:
    SignalFlood(pid_t pid, int signal);
    ~SignalFlood() { stop(); }
    SignalFlood(const SignalFlood&) = delete;
    SignalFlood& operator=(const SignalFlood&) = delete;

    void stop();

    /// How many were sent.
    int sent() const { return sent_; }

private:
    std::atomic<bool> enough_{false};
    std::atomic<int> sent_{0};
    std::thread sender_;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_SIGNAL_FLOOD_H
