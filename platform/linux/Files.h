// Opening and reading small files without streams or heap. Everything here is async-signal-safe.

#ifndef OVARD_PLATFORM_LINUX_FILES_H
#define OVARD_PLATFORM_LINUX_FILES_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>

#include "platform/UniqueFd.h"

namespace platform {

/// Opens `path` with `flags`, close-on-exec and without waiting for anybody, and fetches its facts.
/// Invalid for everything but a plain file.
UniqueFd openPlainFile(const char* path, int flags, mode_t mode, struct stat& facts);

/// Reads at most `size` bytes of `path` with one read, restarted after signals; a file of /proc
/// gives all it has in one. Returns the bytes read, or -1 with errno.
ssize_t readFileOnce(const char* path, char* buffer, std::size_t size);

} // namespace platform

#endif // OVARD_PLATFORM_LINUX_FILES_H
