// Whole copies of a shared-memory segment that somebody else writes at any time.

#ifndef OVARD_CLIENT_SEGMENT_READER_H
#define OVARD_CLIENT_SEGMENT_READER_H

#include <cstddef>
#include <functional>

#include "client/OvardClient.h"

namespace ovard_client {

/// Most copies that one reading takes.
inline constexpr int kMostCopies = 40;

/// The pause between two copies: 5 ms. Long enough that a writer which had to give up the processor
/// in the middle has it back before the second copy is taken.
void pauseBetweenCopies() noexcept;

/// Copies the first `size` bytes of the segment `name` (as shm_open takes it) into `destination`
/// when two successive copies agree, and else leaves it alone. `pause` is called between two copies
/// and must not throw. It reads by calls: a mapping of a segment that is shortened meanwhile would
/// end the process. See readSystemSegment for the rest.
SegmentOutcome readSegment(const char* name, void* destination, std::size_t size,
                           const std::function<void()>& pause = pauseBetweenCopies) noexcept;

} // namespace ovard_client

#endif // OVARD_CLIENT_SEGMENT_READER_H
