// Calls of the thread library that fail by script, and are recorded.
//
// The linker hands every such call of the program's own code, the monitor's and the tests', to
// FaultyThreads.cpp, which passes it on unless a test has scripted a failure.

#ifndef OVARD_TESTS_UNIT_SUPPORT_FAULTY_THREADS_H
#define OVARD_TESTS_UNIT_SUPPORT_FAULTY_THREADS_H

#include <pthread.h>

#include <vector>

namespace faults {

/// Scripts the calls of all threads while it lives; at its end every one works again. One at a
/// time. While it lives, these are among the world's recorded calls:
///   condSignal | condWait | cancelThread | joinThread | detachThread
class FaultyThreads {
public:
    FaultyThreads();
    ~FaultyThreads();
    FaultyThreads(const FaultyThreads&) = delete;
    FaultyThreads& operator=(const FaultyThreads&) = delete;

    /// The next `times` calls of pthread_cond_signal wake nobody and return `error`.
    void failSignals(int times, int error);

    /// The next `times` calls of pthread_cond_wait do not wait, keep the mutex, and return `error`.
    void failWaits(int times, int error);

    /// The next `times` calls of pthread_cancel return `error`. They cancel the thread all the
    /// same, so that a join that follows comes to its end.
    void failCancels(int times, int error);

    /// The threads handed to pthread_cancel, pthread_join and pthread_detach, in order.
    std::vector<pthread_t> cancelled() const;
    std::vector<pthread_t> joined() const;
    std::vector<pthread_t> detached() const;
};

} // namespace faults

#endif // OVARD_TESTS_UNIT_SUPPORT_FAULTY_THREADS_H
