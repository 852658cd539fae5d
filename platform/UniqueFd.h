// Ownership of a file descriptor, and whole reads and writes.

#ifndef OVARD_PLATFORM_UNIQUE_FD_H
#define OVARD_PLATFORM_UNIQUE_FD_H

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <utility>

namespace platform {

/// Owns one descriptor and closes it on destruction. Move only. Keeps errno.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd)
        : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept
        : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            const int savedErrno = errno;
            ::close(fd_);
            errno = savedErrno;
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

/// openat with close-on-exec, without becoming the controlling terminal's and without blocking on
/// what only looks like a file. In a folder that everybody may write to, a symbolic link in the
/// last component is followed only where it belongs to root or to the caller and has no second
/// name: another user could have planted it. Where `flags` hold O_CREAT, the file is created (with
/// `mode`) only when it cannot be opened without: some systems refuse to open another user's file
/// with leave to create it. Invalid with errno on failure, ELOOP for a link that is not followed.
/// Async-signal-safe.
UniqueFd openFileAt(int directory, const char* path, int flags, mode_t mode = 0);

/// The same for a path that is absolute or below the working directory.
UniqueFd openFile(const char* path, int flags, mode_t mode = 0);

/// openFile for a path that the operator has named, who may mean a fifo or a device. In a folder
/// that everybody may write to it takes nothing but plain files without a second name: the rest
/// could have been planted there, and is the error EACCES. The file is emptied (O_TRUNC) only once
/// it is known to be right.
///
/// What counts is the folder of the name itself: a link in a private folder that leads into a
/// public one is what the operator means, and so is a plain file there, whoever owns it. He who
/// names such a file trusts those who can write to it, or put another one in its place.
UniqueFd openNamedFile(const char* path, int flags, mode_t mode = 0);

/// Reads until `size` bytes came, end of file or an error; restarts after signals.
/// Returns the bytes read, or -1 with errno when the first read failed.
ssize_t readFully(int fd, void* buffer, std::size_t size);

/// Writes until `size` bytes are out or an error; restarts after signals.
/// Returns the bytes written, or -1 with errno when the first write failed. Async-signal-safe.
ssize_t writeFully(int fd, const void* buffer, std::size_t size);

} // namespace platform

#endif // OVARD_PLATFORM_UNIQUE_FD_H
