// Segments are read and written by calls, not through a mapping: a mapping of a file that another
// program shortens, or that no memory is left for, is a fault signal away from the end.

#include "platform/ShmUpdate.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "platform/UniqueFd.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = -1;

/// Longest piece that is loaded at once without another buffer, in bytes.
constexpr std::size_t kStackPiece = 64;

bool isWithin(std::size_t length, std::size_t segmentSize, std::size_t offset) {
    return offset <= segmentSize && length <= segmentSize - offset;
}

/// pwrite of the whole piece, restarted after signals.
bool writeAt(int fd, const void* source, std::size_t length, std::size_t offset) {
    const auto* bytes = static_cast<const char*>(source);
    while (length > 0) {
        const ssize_t count = ::pwrite(fd, bytes, length, static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        bytes += count;
        offset += static_cast<std::size_t>(count);
        length -= static_cast<std::size_t>(count);
    }
    return true;
}

/// pread of the whole piece, restarted after signals.
bool readAt(int fd, void* destination, std::size_t length, std::size_t offset) {
    auto* bytes = static_cast<char*>(destination);
    while (length > 0) {
        const ssize_t count = ::pread(fd, bytes, length, static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        bytes += count;
        offset += static_cast<std::size_t>(count);
        length -= static_cast<std::size_t>(count);
    }
    return true;
}

} // namespace

struct ShmUpdate::Segment {
    std::string name;
    int flags;
    mode_t mode;
    std::size_t size;
    platform::UniqueFd file; ///< invalid where the last attempt to open it failed

    int open();
};

int ShmUpdate::Segment::open() {
    // Some systems refuse to open another user's file with leave to create it. shm_open sets
    // close-on-exec itself.
    file.reset(::shm_open(name.c_str(), (flags & ~O_CREAT) | O_NONBLOCK, mode));
    if (!file.valid()) {
        file.reset(::shm_open(name.c_str(), flags | O_NONBLOCK, mode));
    }
    struct stat facts = {};
    if (!file.valid() || ::fstat(file.get(), &facts) != 0) {
        file.reset();
        return kFailed;
    }
    if (!S_ISREG(facts.st_mode)) {
        file.reset();
        errno = EINVAL; // as shm_open for a directory
        return kFailed;
    }
    // A file with two names may be another program's, put here so that it is opened to everybody.
    if ((facts.st_mode & 07777) != mode && facts.st_nlink == 1) {
        (void)::fchmod(file.get(), mode); // Another owner's segment is published all the same.
    }
    const auto wanted = static_cast<off_t>(size);
    if (facts.st_size < wanted && ::ftruncate(file.get(), wanted) != 0) {
        file.reset();
        return kFailed;
    }
    return kDone;
}

ShmUpdate::ShmUpdate() = default;
ShmUpdate::~ShmUpdate() = default;

int ShmUpdate::openShm(const char* name, int flags, int mode, std::size_t size) {
    segment_.reset(new Segment{name, flags, static_cast<mode_t>(mode), size, platform::UniqueFd()});
    return segment_->open();
}

int ShmUpdate::clearData() {
    if (segment_ == nullptr) {
        return kFailed;
    }
    const std::vector<char> zeros(segment_->size);
    return writeData(zeros.data(), zeros.size());
}

int ShmUpdate::remapShm() {
    return segment_ != nullptr ? segment_->open() : kFailed;
}

int ShmUpdate::writeData(const void* source, std::size_t size) {
    return writeOffsetData(source, size, size, 0);
}

int ShmUpdate::writeOffsetData(const void* source, std::size_t length, std::size_t segmentSize,
                               std::size_t offset) {
    if (segment_ == nullptr || !segment_->file.valid() || !isWithin(length, segmentSize, offset)) {
        return kFailed;
    }
    return writeAt(segment_->file.get(), source, length, offset) ? kDone : kFailed;
}

int ShmUpdate::loadData(void* destination, std::size_t size) {
    return loadOffsetData(destination, size, size, 0);
}

int ShmUpdate::loadOffsetData(void* destination, std::size_t length, std::size_t segmentSize,
                              std::size_t offset) {
    if (segment_ == nullptr || !segment_->file.valid() || !isWithin(length, segmentSize, offset)) {
        return kFailed;
    }
    // A segment that ends early must not leave half of it in the destination.
    char piece[kStackPiece];
    std::vector<char> large(length > sizeof piece ? length : 0);
    char* const copy = large.empty() ? piece : large.data();
    if (!readAt(segment_->file.get(), copy, length, offset)) {
        return kFailed;
    }
    std::memcpy(destination, copy, length);
    return kDone;
}

int ShmUpdate::closeShm() {
    const bool wasOpen = segment_ != nullptr;
    segment_.reset();
    return wasOpen ? kDone : kFailed;
}
