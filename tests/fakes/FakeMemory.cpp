// Allocations that fail by script. Fresh memory is filled with a pattern and growing always moves
// the block, so that code which relies on either shows.

#include "platform/Memory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "tests/fakes/FakePlatform.h"

using fakes::Lock;
using fakes::world;

namespace {

constexpr int kFreshPattern = 0xA5;

bool failsNow(fakes::AllocationScript& script) {
    ++script.calls;
    if (script.failNext > 0) {
        --script.failNext;
        errno = ENOMEM;
        return true;
    }
    if (script.failCalls.count(script.calls) != 0) {
        errno = ENOMEM;
        return true;
    }
    return false;
}

void* newBlock(std::size_t size) {
    void* const block = std::malloc(size);
    if (block == nullptr) {
        std::abort(); // the machine that runs the tests is out of memory
    }
    std::memset(block, kFreshPattern, size);
    world().blocks[block] = size;
    return block;
}

} // namespace

namespace platform {

void* allocateMemory(std::size_t size) {
    const Lock lock;
    return failsNow(world().mallocs) ? nullptr : newBlock(size);
}

void* reallocateMemory(void* block, std::size_t size) {
    const Lock lock;
    if (failsNow(world().reallocs)) {
        return nullptr;
    }
    const auto old = world().blocks.find(block);
    const std::size_t oldSize = old != world().blocks.end() ? old->second : 0;
    void* const grown = newBlock(size);
    if (block != nullptr) {
        std::memcpy(grown, block, std::min(oldSize, size));
        releaseMemory(block);
    }
    return grown;
}

char* duplicateText(const char* text) {
    const Lock lock;
    if (failsNow(world().strdups)) {
        return nullptr;
    }
    const std::size_t size = std::strlen(text) + 1;
    return static_cast<char*>(std::memcpy(newBlock(size), text, size));
}

void releaseMemory(void* block) {
    const Lock lock;
    if (block == nullptr) {
        return;
    }
    if (world().blocks.erase(block) == 0) {
        ++world().foreignReleases;
    }
    std::free(block);
}

} // namespace platform
