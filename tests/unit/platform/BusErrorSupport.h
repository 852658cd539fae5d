// Touches of memory that may be taken away, each case in a process of its own, whose actions, mask
// and threads it may use up.

#ifndef OVARD_TESTS_PLATFORM_BUS_ERROR_SUPPORT_H
#define OVARD_TESTS_PLATFORM_BUS_ERROR_SUPPORT_H

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "TestSupport.h"
#include "platform/BusError.h"
#include "platform/UniqueFd.h"

namespace buserrortest {

using platform::survivesBusError;
using testsupport::awaitChild;
using testsupport::eventually;
using testsupport::startChild;

/// How a process ends that a bus error ends.
inline constexpr int kEndedBySigbus = 128 + SIGBUS;

/// How many times the patience of `eventually`: the machine may be busy.
inline constexpr int kPatience = 6;

/// A word in a mapped file that has no length until it is given one.
class Word {
public:
    explicit Word(bool hasMemory)
        : file_(::memfd_create("word", MFD_CLOEXEC))
        , word_(static_cast<volatile int*>(
              ::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0))) {
        if (hasMemory) {
            giveMemory();
        }
    }
    ~Word() { ::munmap(const_cast<int*>(word_), sizeof(int)); }
    Word(const Word&) = delete;
    Word& operator=(const Word&) = delete;

    void giveMemory() const { (void)!::ftruncate(file_.get(), sizeof(int)); }
    void write(int value) const { *word_ = value; }
    int read() const { return *word_; }

    bool survivesWriting(int value) const {
        return survivesBusError([this, value] { write(value); });
    }

private:
    platform::UniqueFd file_;
    volatile int* word_;
};

/// How a child ended: its exit status, or 128 + the signal that ended it. One that hangs is killed,
/// because it may have all else blocked.
inline int endOf(pid_t child) {
    siginfo_t end = {};
    bool hasEnded = false;
    for (int patience = 0; patience < kPatience && !hasEnded; ++patience) {
        hasEnded = eventually([&] {
            return ::waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOHANG | WNOWAIT) ==
                       0 &&
                   end.si_pid == child;
        });
    }
    if (!hasEnded) {
        ::kill(child, SIGKILL);
    }
    return awaitChild(child);
}

/// Runs `body`, which returns true when all was well, in a process of its own: 0 then, else 1 or as
/// endOf says.
template <typename Body> int outcomeOf(Body body) {
    return endOf(startChild([&] {
        (void)std::signal(SIGBUS, SIG_DFL); // a sanitizer has an action of its own
        return body() ? 0 : 1;
    }));
}

/// How often `countSignal`, or another handler, was called in this process.
inline std::atomic<int> g_handled{0};

inline void countSignal(int) {
    ++g_handled;
}

/// Sets the action of the process for bus errors.
inline void setAction(void (*handler)(int), int flags = 0) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    ::sigaction(SIGBUS, &action, nullptr);
}

/// Runs `meanwhile` while another thread is within its touch, which ends well.
template <typename Meanwhile> bool duringATouch(Meanwhile meanwhile) {
    std::atomic<bool> isTouching{false};
    std::atomic<bool> isOver{false};
    std::atomic<bool> survived{false};
    std::thread other([&] {
        survived = survivesBusError([&] {
            isTouching = true;
            while (!isOver) {
            }
        });
    });
    while (!isTouching) {
    }
    meanwhile();
    isOver = true;
    other.join();
    return survived;
}

} // namespace buserrortest

#endif // OVARD_TESTS_PLATFORM_BUS_ERROR_SUPPORT_H
