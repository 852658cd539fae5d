// Heap blocks of the C library behind a seam, so that tests can let an allocation fail.

#ifndef OVARD_PLATFORM_MEMORY_H
#define OVARD_PLATFORM_MEMORY_H

#include <cstddef>

namespace platform {

/// malloc: a block of `size` bytes, contents undefined, or null. Released with releaseMemory.
void* allocateMemory(std::size_t size);

/// realloc: `block` grown or shrunk to `size`, or null, when `block` stays valid.
void* reallocateMemory(void* block, std::size_t size);

/// strdup: a copy of `text`, or null. Released with releaseMemory.
char* duplicateText(const char* text);

/// free; null is fine.
void releaseMemory(void* block);

/// What something that grows has to leave for the rest of the monitor, in bytes.
inline constexpr std::size_t kMemoryReserve = 65536;

/// Whether there are `size` bytes in one piece, and the reserve besides. Looked at before a
/// container grows: where there is no memory its exception would end the monitor.
inline bool memoryIsLeft(std::size_t size) {
    void* const block = allocateMemory(kMemoryReserve + size);
    releaseMemory(block);
    return block != nullptr;
}

} // namespace platform

#endif // OVARD_PLATFORM_MEMORY_H
