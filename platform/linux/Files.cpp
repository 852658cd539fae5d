#include "platform/linux/Files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "platform/linux/FixedText.h"

namespace platform {
namespace {

constexpr mode_t kFolderMode = 0755;

/// Only to reach what it holds, which needs no leave to list it; kernels before 2.6.39, which do
/// not know O_PATH, open it for reading.
constexpr int kFolderFlags = O_PATH | O_DIRECTORY;

/// Gives the folder its mode, of which the umask may have taken bits away. By the descriptor,
/// because its name could lead elsewhere by now; fchmod refuses descriptors of this kind.
void settleMode(const UniqueFd& folder) {
    FixedText<32> name;
    name.add("/proc/self/fd/").addNumber(folder.get());
    (void)::chmod(name.c_str(), kFolderMode); // What it lacks shows when it is used.
}

/// True for a folder in which nobody but root and the caller decides what stands where.
bool isTrustedFolder(const UniqueFd& folder) {
    struct stat facts = {};
    return ::fstatat(folder.get(), ".", &facts, 0) == 0 &&
           (facts.st_uid == 0 || facts.st_uid == ::geteuid());
}

/// Opens the folder `name` of `parent`, created if it is missing.
UniqueFd enterFolder(const UniqueFd& parent, const char* name) {
    const bool isNew = ::mkdirat(parent.get(), name, kFolderMode) == 0;
    const bool mayFollow = !isNew && isTrustedFolder(parent);
    UniqueFd folder = openFileAt(parent.get(), name, kFolderFlags | (mayFollow ? 0 : O_NOFOLLOW));
    if (isNew && folder.valid()) {
        settleMode(folder);
    }
    return folder;
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
    UniqueFd folder = openFile(path.substr(0, 1) == "/" ? "/" : ".", kFolderFlags);
    for (std::size_t slash = path.find('/'); slash != std::string_view::npos && folder.valid();
         slash = path.find('/')) {
        if (slash > 0) {
            FixedText<PATH_MAX> name;
            name.add(path.substr(0, slash));
            folder = enterFolder(folder, name.c_str());
        }
        path.remove_prefix(slash + 1);
    }
    return folder;
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
