// Ownership of a file descriptor, and whole reads and writes.

#ifndef OVARD_PLATFORM_UNIQUE_FD_H
#define OVARD_PLATFORM_UNIQUE_FD_H

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string_view>
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

/// Opens a folder only to reach what it holds, which needs no leave to list it; kernels before
/// 2.6.39, which do not know O_PATH, open it for reading.
constexpr int kFolderFlags = O_PATH | O_DIRECTORY;

/// A folder that a path leads to.
struct Folder {
    UniqueFd fd;
    /// Another user could have made it, or one on the way to it, in a folder that everybody may
    /// write to. Set by who enters it.
    bool mayBePlanted = false;
};

/// Replaces `folder` by the folder `name` that it holds; its fd is invalid, with errno, on failure.
using EnterFolder = void (*)(Folder& folder, const char* name);

/// Walks to the folder that holds what stands behind the last slash of `path`, with `enter` from
/// each folder to the next one. Invalid with errno on failure. Async-signal-safe if `enter` is.
Folder walkToFolderOf(std::string_view path, EnterFolder enter);

/// True for a folder in which nobody but root and the caller decides what stands where, as long as
/// not everybody may write to it.
bool isTrustedFolder(const UniqueFd& folder);

/// Where a file lies that the operator has named.
struct NamedPlace {
    Folder folder;              ///< invalid where there is no such folder
    const char* name = nullptr; ///< of the file there, with slashes behind it: a part of the path
};

/// Walks to the place of the file `path`; errno tells why there is no such folder. Each folder on
/// the way is reached from the one that holds it, by the rules of openFileAt; below a folder of
/// another user that is reached from one that everybody may write to, no link is followed at all.
/// The path has to outlive what is returned. Async-signal-safe.
NamedPlace findNamedPlace(const char* path);

/// openFileAt for the file of a place, by the rules of findNamedPlace. Async-signal-safe.
UniqueFd openAt(const NamedPlace& place, int flags, mode_t mode = 0);

/// openFile for a path that the operator has named, who may mean a fifo or a device. In a folder
/// that everybody may write to it takes nothing but plain files without a second name: the rest
/// could have been planted there, and is the error EACCES. The file is emptied (O_TRUNC) only once
/// it is known to be right.
///
/// The way to it is that of findNamedPlace. Below a folder of another user that is reached from one
/// that everybody may write to, nothing is taken that is not taken from such a folder.
///
/// What counts are the folders that are named: a link in a private folder that leads into a
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
