// Benchmarks that must keep a limit: how one states it, and the main that enforces it.

#ifndef OVARD_TESTS_BENCH_LIMITS_H
#define OVARD_TESTS_BENCH_LIMITS_H

namespace bench {

/// Names of counters. Every benchmark sets one of the limits at its end, when all went well.
/// A limit on the processor time of one iteration, of all threads together, in microseconds:
inline constexpr const char* kLimitUs = "limit_us";
/// A limit on the counter `kRatio`:
inline constexpr const char* kLimitRatio = "limit_ratio";
inline constexpr const char* kRatio = "ratio";
/// A limit on the counter `kCalls`, a number of system calls:
inline constexpr const char* kLimitCalls = "limit_calls";
inline constexpr const char* kCalls = "calls";

/// Runs the registered benchmarks with the usual flags, prints each figure beside its limit and
/// judges the best repetition of each: noise of the machine only ever adds time. Returns the exit
/// status of the program: 0 when every benchmark kept its limit; 1 when one did not, failed or set
/// no limit, or when none ran.
int runBenchmarks(int argc, char** argv);

/// True in scripts/sandbox, where /proc holds the processes of this program alone.
bool isInSandbox();

/// The same for a program that starts processes or looks at all of them: refuses to run outside
/// scripts/sandbox.
int runBenchmarksInSandbox(int argc, char** argv);

} // namespace bench

#endif // OVARD_TESTS_BENCH_LIMITS_H
