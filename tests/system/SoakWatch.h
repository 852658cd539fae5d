// What the soak looks at while it goes on: the monitor's supervision passes and what it uses.

#ifndef OVARD_TESTS_SYSTEM_SOAK_WATCH_H
#define OVARD_TESTS_SYSTEM_SOAK_WATCH_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace systemtest {

/// How often so far something was done that makes a pass come later, or hides why it does.
struct SoakDisturbances {
    int silences = 0;  ///< clients that sent nothing
    int logFaults = 0; ///< the log was taken away
};

/// How long a client is there that sends nothing, and how long the log is away, in milliseconds.
inline constexpr int kSoakSilenceMs = 1500;
inline constexpr int kSoakAbsenceMs = 900;

/// The supervision passes of a monitor at verbosity 8: the daemon log tells when one begins, the
/// publication that follows it when it is over.
///
/// The next pass begins in the first turn of the main loop in which the interval is over; where
/// it does not, it was missed. What makes a pass last is waiting for process and pid file, launches
/// and stops, all of which the log tells.
class SoakPasses {
public:
    SoakPasses();

    /// One look; call it many times a second.
    void look(const SoakDisturbances& soFar);

    /// Decides whether the pass has been missed that should have come since the last one.
    void judge(const SoakDisturbances& soFar);

    int count() const { return count_; }

    /// Longest time from the end of a pass to that of the next one.
    std::int64_t longestGapMs() const { return longestGapMs_; }

    /// How long the longest pass took, of those whose beginning was seen.
    std::int64_t longestPassMs() const { return longestPassMs_; }

    /// What was late, for people.
    const std::vector<std::string>& late() const { return late_; }

private:
    void readLog();
    void noteBeginning(const SoakDisturbances& soFar);
    std::int64_t allowedRestMs(const SoakDisturbances& soFar) const;
    std::int64_t allowedPassMs() const;
    void expect(const std::string& what, std::int64_t tookMs, std::int64_t allowedMs);
    void beginGap(const SoakDisturbances& soFar);

    std::size_t logRead_;
    std::string log_;       ///< of this gap
    std::string logBefore_; ///< of the one before
    float published_;
    std::int64_t end_;             ///< of the last pass
    std::int64_t begin_;           ///< of the last pass
    std::int64_t nextBegin_ = 0;   ///< of the pass that goes on; 0: none is known
    bool lineIsOwed_ = false;      ///< the line of the last pass has not come yet
    SoakDisturbances atEnd_;       ///< of the last pass
    SoakDisturbances atEndBefore_; ///< of the one before
    int count_ = 0;
    std::int64_t longestGapMs_ = 0;
    std::int64_t longestPassMs_ = 0;
    std::vector<std::string> late_;
};

/// What a monitor uses at one moment.
struct SoakSample {
    std::size_t descriptors = 0; ///< without the connections
    std::size_t connections = 0; ///< accepted ones, and the socket that listens
    std::size_t threads = 0;
    std::size_t children = 0;
    std::set<pid_t> zombies; ///< among them
    std::int64_t residentKb = 0;
    std::int64_t anonymousKb = 0; ///< of these, those of no file and not of the main thread's stack
    std::int64_t stackKb = 0;     ///< those of that stack, which holds what SIGUSR1 interrupts
    std::int64_t dataKb = 0;      ///< address space for heap and thread stacks
};

/// Looks at a process.
SoakSample sampleOf(pid_t pid);

/// The same, whatever descriptors it has open, or has closed to open them anew, for a moment only.
SoakSample sampleWithoutMoments(pid_t pid);

/// One line for people.
std::string textOf(const SoakSample& sample);

/// The median of a figure over a part of the samples: the tenth of that number, from 0. 0 without
/// samples.
std::int64_t medianOfTenth(const std::vector<SoakSample>& samples, std::int64_t SoakSample::*figure,
                           std::size_t tenth);

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_SOAK_WATCH_H
