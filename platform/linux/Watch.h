// What sleeps and waits share about the thread that watches for termination.

#ifndef OVARD_PLATFORM_LINUX_WATCH_H
#define OVARD_PLATFORM_LINUX_WATCH_H

#include <cstdint>

namespace platform {

/// True on a thread that has called watchForTermination, also after it stopped watching: such a
/// thread is never cancelled.
bool isWatchingThread();

/// Sleeps until the monotonic time `deadline` (nanoseconds), signal handlers notwithstanding, but
/// only until a signal that the calling thread watches for is pending.
void pauseUntil(std::int64_t deadline);

} // namespace platform

#endif // OVARD_PLATFORM_LINUX_WATCH_H
