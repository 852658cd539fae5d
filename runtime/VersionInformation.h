// The identity of this program, as a block of text slots that tools can find in the executable.

#ifndef OVARD_RUNTIME_VERSION_INFORMATION_H
#define OVARD_RUNTIME_VERSION_INFORMATION_H

#include <cstddef>

inline constexpr std::size_t kVersionSlotSize = 64;
inline constexpr std::size_t kVersionSlotCount = 9;

/// Index of a slot.
enum VersionSlot : std::size_t {
    kSlotVersionInformation = 0,
    kSlotCompany = 1,
    kSlotCopyright = 2,
    kSlotProduct = 3,
    kSlotProductVersion = 4,
    kSlotFile = 5,
    kSlotFileDate = 6,
    kSlotFileVersion = 7,
    kSlotFileDescription = 8,
};

/// Each slot holds one line "VER_Key=Value\n", then NUL bytes to its end. Writable data, so that a
/// build tool can patch values in place as long as each line stays within its slot.
extern char version_information_resource[kVersionSlotCount][kVersionSlotSize];
static_assert(sizeof version_information_resource == 576);

/// Copies at most 64 characters of `value`, the text after the "=" of a slot, into `out`, which
/// holds at least 65 bytes, and cuts off the last character, the line feed. Deliberate: it always
/// drops one character. Returns `out`.
char* VI_VALUE_RemoveTerminator(const char* value, char* out);

/// Prints the file version line, the file date line and an empty line. Returns 0.
int VI_print_FileVersion_FileDate();

/// The value of a slot without its line feed, at most `size` - 1 characters and a NUL, into `out`.
void copyVersionValue(VersionSlot slot, char* out, std::size_t size);

#endif // OVARD_RUNTIME_VERSION_INFORMATION_H
