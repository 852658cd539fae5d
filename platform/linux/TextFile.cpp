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
    if (!resizeText(text, std::clamp(text.capacity(), kFirstSize, kLongestTextFile))) {
        return false;
    }
    std::size_t used = 0;
    ssize_t count = 0;
    while (used < kLongestTextFile &&
           (count = readFully(file.get(), text.data() + used, text.size() - used)) > 0) {
        used += static_cast<std::size_t>(count);
        if (used < text.size()) {
            break; // The end was reached.
        }
        if (!resizeText(text, std::min(2 * text.size(), kLongestTextFile))) {
            break; // What there is room for is better than nothing.
        }
    }
    text.resize(used);
    return count >= 0;
}

} // namespace platform
