// One file of the event log, read from any of its last lines onwards.

#ifndef OVARD_CLIENT_OVARDCTL_EVENT_FILE_H
#define OVARD_CLIENT_OVARDCTL_EVENT_FILE_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/UniqueFd.h"

namespace ovardctl {

/// A plain file that others append to, rename, cut or remove meanwhile. Move only.
class EventFile {
public:
    /// No file.
    EventFile() = default;

    /// Opens a plain file for reading, without waiting for anybody; see error().
    explicit EventFile(const std::string& path);

    bool isOpen() const { return file_.valid(); }

    /// Errno of the opening; EINVAL for what is no plain file, 0 where it succeeded.
    int error() const { return error_; }

    /// True when both are open on the same file, whatever its name.
    bool isSameAs(const EventFile& other) const;

    /// Goes to the beginning of the last `count` lines, or of the file where it has fewer. Returns
    /// how many lines follow; an unfinished one at the end counts. Memory does not depend on the
    /// file.
    std::size_t goToLastLines(std::size_t count);

    /// Goes to the beginning of a file that has become shorter than what was read of it; false for
    /// one that has not.
    bool goBackIfShortened();

    /// Reads on; 0 at the present end of the file, -1 with errno when that fails.
    ssize_t read(char* buffer, std::size_t size);

private:
    off_t size() const;

    platform::UniqueFd file_;
    int error_ = 0;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    off_t position_ = 0;
};

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_EVENT_FILE_H
