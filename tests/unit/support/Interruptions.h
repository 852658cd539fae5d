// Signals that interrupt system calls.

#ifndef OVARD_TESTS_UNIT_SUPPORT_INTERRUPTIONS_H
#define OVARD_TESTS_UNIT_SUPPORT_INTERRUPTIONS_H

#include <poll.h>
#include <sys/time.h>

#include <atomic>
#include <csignal>

/// Interrupts the system calls of a program that has one thread, every few milliseconds while it
/// lives: SIGALRM, without SA_RESTART. One at a time.
class Interruptions {
public:
    explicit Interruptions(int intervalMs) {
        count_ = 0;
        struct sigaction action = {};
        action.sa_handler = [](int) { ++count_; };
        ::sigaction(SIGALRM, &action, &previous_);
        setInterval(intervalMs);
    }
    ~Interruptions() {
        setInterval(0);
        // Valgrind holds signals back until a call that may wait; then one must not end the
        // program.
        (void)std::signal(SIGALRM, SIG_IGN);
        (void)::poll(nullptr, 0, 0);
        ::sigaction(SIGALRM, &previous_, nullptr);
    }
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

    /// How often there was one.
    int count() const { return count_; }

private:
    static void setInterval(int intervalMs) {
        const itimerval period = {{0, intervalMs * 1000L}, {0, intervalMs * 1000L}};
        ::setitimer(ITIMER_REAL, &period, nullptr);
    }

    static inline std::atomic<int> count_{0};
    struct sigaction previous_ = {};
};

#endif // OVARD_TESTS_UNIT_SUPPORT_INTERRUPTIONS_H
