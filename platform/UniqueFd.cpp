#include "platform/UniqueFd.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <climits>
#include <cstring>

namespace platform {
namespace {

/// Repeats `step(offset)` until `size` bytes are through, end of file, or an error.
template <typename Step> ssize_t transferFully(std::size_t size, Step step) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = step(done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0 && done == 0) {
            return -1;
        }
        if (count <= 0) {
            break;
        }
        done += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(done);
}

UniqueFd openOrCreate(int directory, const char* path, int flags, mode_t mode) {
    constexpr int kAlways = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    UniqueFd file(::openat(directory, path, (flags & ~O_CREAT) | kAlways, mode));
    if (!file.valid() && errno == ENOENT && (flags & O_CREAT) != 0) {
        file.reset(::openat(directory, path, flags | kAlways, mode));
    }
    return file;
}

/// True when everybody may write to the folder that holds `path`, or it cannot be told.
bool liesInPublicFolder(int directory, const char* path) {
    char folder[PATH_MAX] = ".";
    const char* const slash = std::strrchr(path, '/');
    if (slash != nullptr) {
        const std::size_t length = slash == path ? 1 : static_cast<std::size_t>(slash - path);
        if (length >= sizeof folder) {
            return true;
        }
        std::memcpy(folder, path, length);
        folder[length] = '\0';
    }
    struct stat facts = {};
    return ::fstatat(directory, folder, &facts, 0) != 0 || (facts.st_mode & S_IWOTH) != 0;
}

/// True for what belongs to root or to the caller.
bool isOwn(const struct stat& facts) {
    return facts.st_uid == 0 || facts.st_uid == ::geteuid();
}

/// True for a symbolic link that is no stranger's trap; errno is ELOOP for one that is. One with a
/// second name may be root's, put here by somebody else.
bool isTrustedLink(int directory, const char* path) {
    struct stat facts = {};
    if (::fstatat(directory, path, &facts, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISLNK(facts.st_mode)) {
        return false;
    }
    if ((isOwn(facts) && facts.st_nlink == 1) || !liesInPublicFolder(directory, path)) {
        return true;
    }
    errno = ELOOP; // With O_DIRECTORY the system says ENOTDIR.
    return false;
}

/// True for a file that can be what is meant by a name in a folder that everybody may write to.
bool isPlainWithOneName(const struct stat& facts) {
    return S_ISREG(facts.st_mode) && facts.st_nlink == 1;
}

/// Enters a folder on the way to a file that the operator has named.
void enterNamedFolder(Folder& folder, const char* name) {
    const bool isInPublic = liesInPublicFolder(folder.fd.get(), name);
    folder.fd =
        openFileAt(folder.fd.get(), name, kFolderFlags | (folder.mayBePlanted ? O_NOFOLLOW : 0));
    if (isInPublic && folder.fd.valid() && !isTrustedFolder(folder.fd)) {
        folder.mayBePlanted = true;
    }
}

/// The last component of `path`, with the slashes behind it; all of a path that is nothing else.
const char* lastComponent(const char* path) {
    const std::string_view text(path);
    const std::size_t end = text.find_last_not_of('/');
    const std::size_t slash =
        end == std::string_view::npos ? std::string_view::npos : text.rfind('/', end);
    return slash == std::string_view::npos ? path : path + slash + 1;
}

} // namespace

UniqueFd openFileAt(int directory, const char* path, int flags, mode_t mode) {
    UniqueFd file = openOrCreate(directory, path, flags | O_NOFOLLOW, mode);
    // With O_DIRECTORY a link is no directory.
    const bool mayBeLink = !file.valid() && (errno == ELOOP || errno == ENOTDIR);
    if (mayBeLink && (flags & O_NOFOLLOW) == 0 && isTrustedLink(directory, path)) {
        file = openOrCreate(directory, path, flags, mode);
    }
    return file;
}

UniqueFd openFile(const char* path, int flags, mode_t mode) {
    return openFileAt(AT_FDCWD, path, flags, mode);
}

bool isTrustedFolder(const UniqueFd& folder) {
    struct stat facts = {};
    return ::fstatat(folder.get(), ".", &facts, 0) == 0 && isOwn(facts);
}

Folder walkToFolderOf(std::string_view path, EnterFolder enter) {
    Folder folder;
    folder.fd = openFile(path.substr(0, 1) == "/" ? "/" : ".", kFolderFlags);
    for (std::size_t slash = path.find('/'); slash != std::string_view::npos && folder.fd.valid();
         slash = path.find('/')) {
        if (slash > 0) {
            char name[PATH_MAX];
            // Where a name is cut it is too long for any file system, too.
            name[path.substr(0, slash).copy(name, sizeof name - 1)] = '\0';
            enter(folder, name);
        }
        path.remove_prefix(slash + 1);
    }
    return folder;
}

NamedPlace findNamedPlace(const char* path) {
    const char* const name = lastComponent(path);
    return {walkToFolderOf({path, static_cast<std::size_t>(name - path)}, enterNamedFolder), name};
}

UniqueFd openAt(const NamedPlace& place, int flags, mode_t mode) {
    if (!place.folder.fd.valid()) {
        return UniqueFd();
    }
    const int noLink = place.folder.mayBePlanted ? O_NOFOLLOW : 0;
    return openFileAt(place.folder.fd.get(), place.name, flags | noLink, mode);
}

UniqueFd openNamedFile(const char* path, int flags, mode_t mode) {
    const NamedPlace place = findNamedPlace(path);
    UniqueFd file = openAt(place, flags & ~O_TRUNC, mode);
    struct stat facts = {};
    if (!file.valid() || ::fstat(file.get(), &facts) != 0) {
        return UniqueFd();
    }
    const bool isPublic =
        place.folder.mayBePlanted || liesInPublicFolder(place.folder.fd.get(), place.name);
    if (!isPlainWithOneName(facts) && isPublic) {
        errno = EACCES;
        return UniqueFd();
    }
    if ((flags & O_TRUNC) != 0 && S_ISREG(facts.st_mode) && ::ftruncate(file.get(), 0) != 0) {
        return UniqueFd();
    }
    return file;
}

ssize_t readFully(int fd, void* buffer, std::size_t size) {
    return transferFully(size, [=](std::size_t done) {
        return ::read(fd, static_cast<char*>(buffer) + done, size - done);
    });
}

ssize_t writeFully(int fd, const void* buffer, std::size_t size) {
    return transferFully(size, [=](std::size_t done) {
        return ::write(fd, static_cast<const char*>(buffer) + done, size - done);
    });
}

} // namespace platform
