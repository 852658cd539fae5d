#include "platform/TextFile.h"

#include <fcntl.h>

#include <algorithm>

#include "platform/Memory.h"
#include "platform/UniqueFd.h"
#include "platform/linux/Files.h"

namespace platform {
namespace {

/// Holds each of the kernel's statistics on a small machine.
constexpr std::size_t kFirstSize = 4096;

/// Gives `text` the size `size`; false when there is no memory for that, when it stays as it is.
bool resizeText(std::string& text, std::size_t size) {
    if (size > text.capacity() && !memoryIsLeft(2 * size)) {
        return false;
    }
    text.resize(size);
    return true;
}

} // namespace

bool readTextFile(const char* path, std::string& text) {
    struct stat facts = {};
    const UniqueFd file = openPlainFile(path, O_RDONLY, 0, facts);
    if (!file.valid()) {
        return false;
    }
    // The size that the system states is 0 for files of /proc.
    std::size_t size = std::clamp(text.capacity(), kFirstSize, kLongestTextFile);
    std::size_t used = 0;
    while (resizeText(text, size)) {
        const ssize_t count = readFully(file.get(), text.data() + used, size - used);
        used += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
        if (used < size || size == kLongestTextFile) {
            text.resize(used); // The end was reached, or the limit.
            return true;
        }
        size = std::min(2 * size, kLongestTextFile);
    }
    text.clear(); // Half a file would pass for a whole one.
    return true;
}

} // namespace platform
