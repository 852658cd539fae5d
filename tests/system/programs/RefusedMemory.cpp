// Memory that a test refuses, for a monitor that loads this library before all others: while the
// byte in the file that OVARD_TEST_MEMORY names is not 0, every allocation of the C library fails.
// A limit of the system leaves what the heap has; this leaves nothing. Applications, which inherit
// the library, are served as ever.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

// The library's own, under the names that it keeps for such cases.
extern "C" void* __libc_malloc(std::size_t size);                // NOLINT: its name
extern "C" void* __libc_calloc(std::size_t n, std::size_t size); // NOLINT: its name
extern "C" void* __libc_realloc(void* block, std::size_t size);  // NOLINT: its name

namespace {

const volatile char* g_refuses = nullptr;

/// The mapping lasts as long as the process; the descriptor would show in its descriptors.
__attribute__((constructor)) void mapRefusal() {
    const char* const path = std::getenv("OVARD_TEST_MEMORY");
    const bool isMonitor = std::strcmp(program_invocation_short_name, "ovard") == 0;
    const int fd = path != nullptr && isMonitor ? ::open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (fd >= 0) {
        void* const page = ::mmap(nullptr, 1, PROT_READ, MAP_SHARED, fd, 0);
        g_refuses = page != MAP_FAILED ? static_cast<const char*>(page) : nullptr;
        (void)::close(fd); // nothing was written
    }
}

bool isRefused() {
    if (g_refuses == nullptr || *g_refuses == 0) {
        return false;
    }
    errno = ENOMEM;
    return true;
}

} // namespace

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the library's names are its own

extern "C" void* malloc(std::size_t size) noexcept {
    return isRefused() ? nullptr : __libc_malloc(size);
}

extern "C" void* calloc(std::size_t n, std::size_t size) noexcept {
    return isRefused() ? nullptr : __libc_calloc(n, size);
}

extern "C" void* realloc(void* block, std::size_t size) noexcept {
    return isRefused() ? nullptr : __libc_realloc(block, size);
}

// NOLINTEND(readability-inconsistent-declaration-parameter-name)
