#include "client/ovardctl/EventFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

namespace ovardctl {
namespace {

constexpr off_t kBlockSize = 16384;

/// pread that signals do not cut short; -1 with errno.
ssize_t readAt(int fd, char* buffer, std::size_t size, off_t position) {
    ssize_t count = 0;
    do {
        count = ::pread(fd, buffer, size, position);
    } while (count < 0 && errno == EINTR);
    return count;
}

/// Looks for line feeds from the end of a file towards its beginning.
class LineFeedSearch {
public:
    LineFeedSearch(int fd, off_t end)
        : fd_(fd)
        , blockBegin_(end) {}

    /// Position of the next one, -1 when there is none or the file cannot be read.
    off_t next() {
        for (;;) {
            const std::size_t found = std::string_view(block_, unseen_).rfind('\n');
            if (found != std::string_view::npos) {
                unseen_ = found;
                return blockBegin_ + static_cast<off_t>(found);
            }
            if (!readBlockBefore()) {
                return -1;
            }
        }
    }

private:
    bool readBlockBefore() {
        const off_t size = std::min(blockBegin_, kBlockSize);
        if (size == 0) {
            return false;
        }
        const auto wanted = static_cast<std::size_t>(size);
        blockBegin_ -= size;
        unseen_ = wanted;
        return readAt(fd_, block_, wanted, blockBegin_) == static_cast<ssize_t>(wanted);
    }

    int fd_;
    off_t blockBegin_;
    std::size_t unseen_ = 0; ///< bytes of the block that were not searched yet
    char block_[kBlockSize];
};

} // namespace

EventFile::EventFile(const std::string& path)
    : file_(platform::openAt(platform::findNamedPlace(path.c_str()), O_RDONLY)) {
    struct stat facts = {};
    if (!file_.valid() || ::fstat(file_.get(), &facts) != 0) {
        error_ = errno;
        file_.reset();
    } else if (!S_ISREG(facts.st_mode)) {
        error_ = EINVAL;
        file_.reset();
    }
    device_ = facts.st_dev;
    inode_ = facts.st_ino;
}

bool EventFile::isSameAs(const EventFile& other) const {
    return isOpen() && other.isOpen() && device_ == other.device_ && inode_ == other.inode_;
}

off_t EventFile::size() const {
    struct stat facts = {};
    return ::fstat(file_.get(), &facts) == 0 ? facts.st_size : 0;
}

std::size_t EventFile::goToLastLines(std::size_t count) {
    position_ = size();
    if (position_ == 0 || count == 0) {
        return 0;
    }
    // A line feed at the very end ends the last line and begins no other one.
    LineFeedSearch search(file_.get(), position_ - 1);
    for (std::size_t lines = 1;; ++lines) {
        const off_t lineFeed = search.next();
        position_ = lineFeed + 1;
        if (lineFeed < 0 || lines == count) {
            return lines;
        }
    }
}

bool EventFile::goBackIfShortened() {
    if (size() >= position_) {
        return false;
    }
    position_ = 0;
    return true;
}

ssize_t EventFile::read(char* buffer, std::size_t size) {
    const ssize_t count = readAt(file_.get(), buffer, size, position_);
    position_ += std::max<ssize_t>(count, 0);
    return count;
}

} // namespace ovardctl
