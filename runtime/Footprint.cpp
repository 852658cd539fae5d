#include "runtime/Footprint.h"

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

extern "C" {
// The linker's marks: where the program begins and where its code ends. Nothing in between is ever
// written to, so nothing can be lost there.
extern const char __executable_start; // NOLINT(bugprone-reserved-identifier): its name
extern const char etext;
}

void shareOneHeap() {
    (void)::mallopt(M_ARENA_MAX, 1); // Refused, it costs memory and nothing else.
}

void releaseStartupMemory() {
    (void)::malloc_trim(0); // It says whether there was any.
    const auto begin = reinterpret_cast<std::uintptr_t>(&__executable_start);
    const auto end = reinterpret_cast<std::uintptr_t>(&etext);
    const std::uintptr_t partOfPage = end % static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    // Refused, it costs memory and nothing else.
    (void)::madvise(reinterpret_cast<void*>(begin), end - partOfPage - begin, MADV_DONTNEED);
}
