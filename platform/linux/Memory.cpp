#include "platform/Memory.h"

#include <cstdlib>
#include <cstring>

namespace platform {

void* allocateMemory(std::size_t size) {
    return std::malloc(size);
}

void* reallocateMemory(void* block, std::size_t size) {
    return std::realloc(block, size);
}

char* duplicateText(const char* text) {
    return ::strdup(text);
}

void releaseMemory(void* block) {
    std::free(block);
}

} // namespace platform
