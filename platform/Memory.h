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

} // namespace platform

#endif // OVARD_PLATFORM_MEMORY_H
