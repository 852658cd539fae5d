// Opening and reading small files without streams or heap. Everything here is async-signal-safe.

#ifndef OVARD_PLATFORM_LINUX_FILES_H
#define OVARD_PLATFORM_LINUX_FILES_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string_view>

#include "platform/UniqueFd.h"

namespace platform {

/// openFileAt, which also fetches the file's facts. Invalid for everything but a plain file.
UniqueFd openPlainFileAt(int directory, const char* path, int flags, mode_t mode,
                         struct stat& facts);

/// The same for a path that is absolute or below the working directory.
UniqueFd openPlainFile(const char* path, int flags, mode_t mode, struct stat& facts);

/// openPlainFile for reading, where somebody else may have put a link on the way: by the rules of
/// findNamedPlace. On kernels from 5.6 on one call opens a path without links; every other path is
/// opened folder by folder.
UniqueFd openNamedPlainFile(const char* path, struct stat& facts);

/// Opens the folder that holds the last component of `path`, for openFileAt. Folders that are
/// missing are created with mode 0755 whatever the umask is. Each is reached from the one that
/// holds it, by the rules of openFileAt, and past no link in a folder of another user. Invalid
/// with errno on failure.
UniqueFd openFolderOf(std::string_view path);

/// Reads at most `size` bytes of `path` with one read, restarted after signals; a file of /proc
/// gives all it has in one. Returns the bytes read, or -1 with errno.
ssize_t readFileOnce(const char* path, char* buffer, std::size_t size);

} // namespace platform

#endif // OVARD_PLATFORM_LINUX_FILES_H
