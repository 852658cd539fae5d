#include "platform/linux/Files.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>
#if __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#endif

#include <cerrno>
#include <utility>

#include "platform/linux/FixedText.h"

namespace platform {
namespace {

constexpr mode_t kFolderMode = 0755;

/// Gives the folder its mode, of which the umask may have taken bits away. By the descriptor,
/// because its name could lead elsewhere by now; fchmod refuses descriptors of this kind.
void settleMode(const UniqueFd& folder) {
    FixedText<32> name;
    name.add("/proc/self/fd/").addNumber(folder.get());
    (void)::chmod(name.c_str(), kFolderMode); // What it lacks shows when it is used.
}

/// Enters the folder `name`, created if it is missing.
void enterFolder(Folder& folder, const char* name) {
    const bool isNew = ::mkdirat(folder.fd.get(), name, kFolderMode) == 0;
    const bool mayFollow = !isNew && isTrustedFolder(folder.fd);
    folder.fd = openFileAt(folder.fd.get(), name, kFolderFlags | (mayFollow ? 0 : O_NOFOLLOW));
    if (isNew && folder.fd.valid()) {
        settleMode(folder.fd);
    }
}

/// `file` with its facts; invalid for everything but a plain one.
UniqueFd onlyPlain(UniqueFd file, struct stat& facts) {
    if (file.valid() && ::fstat(file.get(), &facts) != 0) {
        file.reset();
    }
    if (file.valid() && !S_ISREG(facts.st_mode)) {
        file.reset();
        errno = EINVAL;
    }
    return file;
}

#if defined(RESOLVE_NO_SYMLINKS) && defined(SYS_openat2)

/// Opens `path` for reading if there is no link in it. Invalid else, and on every kernel that
/// cannot tell.
UniqueFd openWithoutLinks(const char* path) {
    open_how how = {};
    how.flags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    how.resolve = RESOLVE_NO_SYMLINKS;
    return UniqueFd(static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof how)));
}

#else

/// Neither the kernel's headers nor the C library know how.
UniqueFd openWithoutLinks(const char* /*path*/) {
    errno = ENOSYS;
    return UniqueFd();
}

#endif

} // namespace

UniqueFd openPlainFileAt(int directory, const char* path, int flags, mode_t mode,
                         struct stat& facts) {
    return onlyPlain(openFileAt(directory, path, flags, mode), facts);
}

UniqueFd openPlainFile(const char* path, int flags, mode_t mode, struct stat& facts) {
    return openPlainFileAt(AT_FDCWD, path, flags, mode, facts);
}

UniqueFd openNamedPlainFile(const char* path, struct stat& facts) {
    UniqueFd file = openWithoutLinks(path);
    if (!file.valid() && errno != ENOENT) {
        file = openAt(findNamedPlace(path), O_RDONLY);
    }
    return onlyPlain(std::move(file), facts);
}

UniqueFd openFolderOf(std::string_view path) {
    return walkToFolderOf(path, enterFolder).fd;
}

ssize_t readFileOnce(const char* path, char* buffer, std::size_t size) {
    const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        return -1;
    }
    ssize_t count = 0;
    do {
        count = ::read(file.get(), buffer, size);
    } while (count < 0 && errno == EINTR);
    return count;
}

} // namespace platform
