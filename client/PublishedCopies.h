// Published records in the form in which C programs get them.

#ifndef OVARD_CLIENT_PUBLISHED_COPIES_H
#define OVARD_CLIENT_PUBLISHED_COPIES_H

#include <cstddef>
#include <cstring>

#include "client/ovard_client.h"
#include "records/segments.h"

namespace ovard_client {

/// Copies a text into a field with room for one character more than its own, so that none is lost
/// and there is always a NUL. The rest of the field is zero.
template <std::size_t Size> void copyText(char (&copy)[Size + 1], const char (&field)[Size]) {
    const std::size_t length = ::strnlen(field, Size);
    std::memcpy(copy, field, length);
    std::memset(copy + length, 0, sizeof copy - length);
}

/// Whether a segment holds a whole cycle, and not the zero bytes that a monitor starts with.
bool holdsCycle(const application_segment& segment);
bool holdsCycle(const system_segment& segment);

/// Copies the published applications, at most `capacity`; `applications` has that much room.
void copyApplications(const application_segment& segment, ovard_application* applications,
                      std::size_t capacity);

/// As C programs get it, but for `modified_ms`, which is no part of the segment.
ovard_overview copyOf(const application_header& header);
ovard_machine copyOf(const system_segment& segment);

} // namespace ovard_client

#endif // OVARD_CLIENT_PUBLISHED_COPIES_H
