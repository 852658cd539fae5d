// Benchmarks that must keep a limit: how one states it, and the main that enforces it.

#ifndef OVARD_TESTS_BENCH_LIMITS_H
#define OVARD_TESTS_BENCH_LIMITS_H

namespace bench {

/// Names of counters. Every benchmark sets one of the two limits at its end, when all went well.
/// A limit on the processor time of one iteration, of all threads together, in microseconds:
inline constexpr const char* kLimitUs = "limit_us";
/// A limit on the counter `kRatio`:
inline constexpr const char* kLimitRatio = "limit_ratio";
inline constexpr const char* kRatio = "ratio";

/// Runs the registered benchmarks with the usual flags, prints each figure beside its limit and
/// judges the best repetition of each: noise of the machine only ever adds time. Returns the exit
/// status of the program: 0 when every benchmark kept its limit; 1 when one did not, failed or set
/// no limit, or when none ran.
int runBenchmarks(int argc, char** argv);

} // namespace bench

#endif // OVARD_TESTS_BENCH_LIMITS_H
