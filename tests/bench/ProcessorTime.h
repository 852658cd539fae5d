// Processor time, which other programs disturb less than the time that passes.

#ifndef OVARD_TESTS_BENCH_PROCESSOR_TIME_H
#define OVARD_TESTS_BENCH_PROCESSOR_TIME_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <vector>

#include "tests/bench/Limits.h"

namespace bench {

/// Seconds of processor time that this process has had, all threads together.
inline double processorSeconds() {
    timespec used = {};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

/// Seconds of processor time that `work()` takes.
template <typename Work> double processorSecondsOf(Work& work) {
    const double begin = processorSeconds();
    work();
    return processorSeconds() - begin;
}

/// The upper one of the two in the middle where their number is even. There must be one.
inline double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// Runs `work()` and the bare loop `bare()` by turns, once each for every iteration of `state`, so
/// that a change of the machine's pace concerns both; each is first every other time. Sets
/// the counters "work_us" and "bare_us" to the medians of their processor times, and `kRatio`.
/// The benchmark counts iterations and uses manual time.
template <typename Work, typename Bare>
void compareWithBareLoop(benchmark::State& state, Work work, Bare bare) {
    constexpr int kWarmUpRounds = 3;
    constexpr double kMicrosecondsPerSecond = 1e6;
    for (int warmUp = 0; warmUp < kWarmUpRounds; ++warmUp) {
        work();
        bare();
    }
    std::vector<double> workTimes;
    std::vector<double> bareTimes;
    for ([[maybe_unused]] auto iteration : state) {
        const bool bareFirst = workTimes.size() % 2 == 0;
        if (bareFirst) {
            bareTimes.push_back(processorSecondsOf(bare));
        }
        workTimes.push_back(processorSecondsOf(work));
        if (!bareFirst) {
            bareTimes.push_back(processorSecondsOf(bare));
        }
        state.SetIterationTime(workTimes.back());
    }
    const double workSeconds = median(workTimes);
    const double bareSeconds = median(bareTimes);
    state.counters["work_us"] = workSeconds * kMicrosecondsPerSecond;
    state.counters["bare_us"] = bareSeconds * kMicrosecondsPerSecond;
    state.counters[kRatio] = workSeconds / bareSeconds;
}

} // namespace bench

#endif // OVARD_TESTS_BENCH_PROCESSOR_TIME_H
