// Whole text files in memory.

#ifndef OVARD_PLATFORM_TEXT_FILE_H
#define OVARD_PLATFORM_TEXT_FILE_H

#include <cstddef>
#include <string>

namespace platform {

/// Most that is read of one file, in bytes; the rest is left out.
inline constexpr std::size_t kLongestTextFile = 1048576;

/// Reads the regular file `path`, those of /proc included, into `text`, whose memory is reused.
/// False when it cannot be opened: `text` is then unspecified. A file that cannot be read, or for
/// all of which there is no memory, counts as empty. Never blocks on what only looks like a file.
bool readTextFile(const char* path, std::string& text);

} // namespace platform

#endif // OVARD_PLATFORM_TEXT_FILE_H
