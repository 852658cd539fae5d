// The memory of another process, and what it is used for.

#ifndef OVARD_TESTS_BENCH_MEMORY_USE_H
#define OVARD_TESTS_BENCH_MEMORY_USE_H

#include <sys/types.h>

#include <map>
#include <string>

namespace bench {

/// Kilobytes (1024 bytes).
struct MemoryUse {
    long rss = 0;     ///< resident
    long pss = 0;     ///< resident, shared pages divided by the number of those who share them
    long written = 0; ///< of its own and written to
};

/// The memory of `process`, by "program", "libraries", "heap", "stack", "segments" (shared memory)
/// and "other" (mostly the stacks of its threads and the libraries' own data); empty when it cannot
/// be read.
std::map<std::string, MemoryUse> readMemoryUse(pid_t process);

MemoryUse totalOf(const std::map<std::string, MemoryUse>& parts);

} // namespace bench

#endif // OVARD_TESTS_BENCH_MEMORY_USE_H
