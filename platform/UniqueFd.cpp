#include "platform/UniqueFd.h"

#include <fcntl.h>

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

} // namespace

UniqueFd openFile(const char* path, int flags, mode_t mode) {
    constexpr int kAlways = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    UniqueFd file(::open(path, (flags & ~O_CREAT) | kAlways));
    if (!file.valid() && (flags & O_CREAT) != 0) {
        file.reset(::open(path, flags | kAlways, mode));
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
