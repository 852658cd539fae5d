// One publishing cycle of the monitor, as another program sees it.

#ifndef OVARD_TESTS_TARGET_CYCLE_H
#define OVARD_TESTS_TARGET_CYCLE_H

#include <cstdint>

#include "records/segments.h"
#include "tests/target/Figures.h"

namespace target {

/// What the system segment held after a cycle, and what the machine said shortly before the monitor
/// read its figures and right after they were published.
struct Cycle {
    system_segment system{};
    std::int64_t publishedMs = 0; ///< since the epoch
    Figures before;
    Figures after;
};

/// When the system segment was written last, in milliseconds since the epoch; 0 while there is
/// none.
std::int64_t lastPublicationMs();

/// Waits for the end of a cycle, which may have begun before, and returns that time. Fails the test
/// when none comes.
std::int64_t awaitPublication();

/// Waits for the cycle that follows the one of that time; fails the test when none comes, and when
/// it published the uptime of another one.
void awaitCycleAfter(std::int64_t publishedMs, Cycle& cycle);

} // namespace target

#endif // OVARD_TESTS_TARGET_CYCLE_H
