// Shared-memory segments and text files.

#include <algorithm>
#include <cstring>

#include "platform/ShmUpdate.h"
#include "platform/TextFile.h"
#include "tests/fakes/FakePlatform.h"

using fakes::joined;
using fakes::Lock;
using fakes::world;

struct ShmUpdate::Segment {
    std::string name;
    std::size_t size;

    /// The bytes of the segment, null while it cannot be reached.
    std::string* bytes() const {
        const auto found = world().segments.find(name);
        return found != world().segments.end() ? &found->second : nullptr;
    }

    int open() {
        if (world().segmentErrors.count(name) != 0) {
            errno = world().segmentErrno;
            return -1;
        }
        std::string& content = world().segments[name];
        content.resize(std::max(content.size(), size));
        return 0;
    }
};

ShmUpdate::ShmUpdate() = default;
ShmUpdate::~ShmUpdate() = default;

int ShmUpdate::openShm(const char* name, int flags, int mode, std::size_t size) {
    const Lock lock;
    world().record(joined("openShm", name, flags, mode, size));
    segment_.reset(new Segment{name, size});
    return segment_->open();
}

int ShmUpdate::clearData() {
    const Lock lock;
    world().record(joined("clearData", segment_ != nullptr ? segment_->name : "-"));
    std::string* const bytes = segment_ != nullptr ? segment_->bytes() : nullptr;
    if (bytes == nullptr) {
        return -1;
    }
    bytes->assign(bytes->size(), '\0');
    return 0;
}

int ShmUpdate::remapShm() {
    const Lock lock;
    world().record(joined("remapShm", segment_ != nullptr ? segment_->name : "-"));
    return segment_ != nullptr ? segment_->open() : -1;
}

int ShmUpdate::writeData(const void* source, std::size_t size) {
    return writeOffsetData(source, size, size, 0);
}

int ShmUpdate::writeOffsetData(const void* source, std::size_t length, std::size_t segmentSize,
                               std::size_t offset) {
    const Lock lock;
    world().record(joined("writeShm", segment_ != nullptr ? segment_->name : "-", length,
                          segmentSize, offset));
    std::string* const bytes = segment_ != nullptr ? segment_->bytes() : nullptr;
    if (bytes == nullptr || offset + length > segmentSize) {
        return -1;
    }
    bytes->resize(std::max(bytes->size(), offset + length));
    bytes->replace(offset, length, static_cast<const char*>(source), length);
    return 0;
}

int ShmUpdate::loadData(void* destination, std::size_t size) {
    return loadOffsetData(destination, size, size, 0);
}

int ShmUpdate::loadOffsetData(void* destination, std::size_t length, std::size_t segmentSize,
                              std::size_t offset) {
    const Lock lock;
    world().record(
        joined("loadShm", segment_ != nullptr ? segment_->name : "-", length, segmentSize, offset));
    const std::string* const bytes = segment_ != nullptr ? segment_->bytes() : nullptr;
    if (bytes == nullptr || offset + length > std::min(bytes->size(), segmentSize)) {
        return -1;
    }
    std::memcpy(destination, bytes->data() + offset, length);
    return 0;
}

int ShmUpdate::closeShm() {
    const Lock lock;
    world().record(joined("closeShm", segment_ != nullptr ? segment_->name : "-"));
    const bool wasOpen = segment_ != nullptr;
    segment_.reset();
    return wasOpen ? 0 : -1;
}

namespace platform {

bool readTextFile(const char* path, std::string& text) {
    const Lock lock;
    world().record(joined("readTextFile", path));
    const auto found = world().textFiles.find(path);
    if (found == world().textFiles.end()) {
        return false;
    }
    text = found->second;
    return true;
}

} // namespace platform
