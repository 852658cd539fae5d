#include "platform/linux/Files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace platform {

UniqueFd openPlainFile(const char* path, int flags, mode_t mode, struct stat& facts) {
    UniqueFd file(::open(path, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, mode));
    if (file.valid() && (::fstat(file.get(), &facts) != 0 || !S_ISREG(facts.st_mode))) {
        file.reset();
    }
    return file;
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
