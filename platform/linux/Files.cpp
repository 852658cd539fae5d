#include "platform/linux/Files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

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

} // namespace

UniqueFd openPlainFileAt(int directory, const char* path, int flags, mode_t mode,
                         struct stat& facts) {
    UniqueFd file = openFileAt(directory, path, flags, mode);
    if (file.valid() && ::fstat(file.get(), &facts) != 0) {
        file.reset();
    }
    if (file.valid() && !S_ISREG(facts.st_mode)) {
        file.reset();
        errno = EINVAL;
    }
    return file;
}

UniqueFd openPlainFile(const char* path, int flags, mode_t mode, struct stat& facts) {
    return openPlainFileAt(AT_FDCWD, path, flags, mode, facts);
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
