// Counts the system calls of a piece of work as the kernel sees them.

#ifndef OVARD_TESTS_BENCH_SYSTEM_CALLS_H
#define OVARD_TESTS_BENCH_SYSTEM_CALLS_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <utility>

namespace bench {

/// A kind of system call: its name, and the file that it opens, looks at or has open; empty where
/// it concerns none. Numbers in the file's name stand as "N".
using SystemCall = std::pair<std::string, std::string>;

using SystemCallCounts = std::map<SystemCall, int>;

/// Runs `work` twice in a forked child that is traced, and fills `counts` from the second time, so
/// that what is done once only is left out. Calls of the thread that runs `work` alone. False when
/// the child cannot be traced or does not come to the end of its work.
bool countSystemCalls(const std::function<void()>& work, SystemCallCounts& counts);

/// Hands every system call that the thread `thread` of another process begins to `take`, until that
/// returns false; the thread then goes on as it was. False when it cannot be traced or ends.
bool traceThread(pid_t thread, const std::function<bool(const SystemCall&)>& take);

/// The calls of all kinds together.
int totalOf(const SystemCallCounts& counts);

/// Counts the calls of `work` and of a bare loop that stands for what it cannot do without. False,
/// after printing how they differ, unless both make the same calls; `total` is their number.
bool makeTheSameCalls(const std::function<void()>& work, const std::function<void()>& bare,
                      int& total);

} // namespace bench

#endif // OVARD_TESTS_BENCH_SYSTEM_CALLS_H
