// A wall clock that a test can set, for programs that load this library before all others, where
// the machine's own must not be set. Every reading of the real one is moved by the seconds that
// stand, as one 64-bit number, in the file that OVARD_TEST_CLOCK names.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

using Read = int (*)(clockid_t, timespec*);

const volatile std::int64_t* g_offsetSec = nullptr;

/// The library's own clock_gettime. Looked up once, in a handler it would not be safe.
Read realClock() {
    static const auto real = reinterpret_cast<Read>(::dlsym(RTLD_NEXT, "clock_gettime"));
    return real;
}

/// The mapping lasts as long as the process; the descriptor would show in its descriptors.
__attribute__((constructor)) void mapOffset() {
    const char* const path = std::getenv("OVARD_TEST_CLOCK");
    const int fd = path != nullptr ? ::open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (fd >= 0) {
        void* const page = ::mmap(nullptr, sizeof *g_offsetSec, PROT_READ, MAP_SHARED, fd, 0);
        g_offsetSec = page != MAP_FAILED ? static_cast<const std::int64_t*>(page) : nullptr;
        (void)::close(fd); // nothing was written
    }
    (void)realClock(); // looked up for the handlers
}

} // namespace

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the library's names are its own

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const int result = realClock()(clock, now);
    if (result == 0 && clock == CLOCK_REALTIME && g_offsetSec != nullptr) {
        now->tv_sec += static_cast<std::time_t>(*g_offsetSec);
    }
    return result;
}

extern "C" std::time_t time(std::time_t* seconds) noexcept {
    timespec now = {};
    (void)clock_gettime(CLOCK_REALTIME, &now); // cannot fail for this clock
    if (seconds != nullptr) {
        *seconds = now.tv_sec;
    }
    return now.tv_sec;
}

extern "C" int gettimeofday(timeval* now, void* /*zone*/) noexcept {
    timespec precise = {};
    (void)clock_gettime(CLOCK_REALTIME, &precise); // cannot fail for this clock
    now->tv_sec = precise.tv_sec;
    now->tv_usec = static_cast<suseconds_t>(precise.tv_nsec / 1000);
    return 0;
}

// NOLINTEND(readability-inconsistent-declaration-parameter-name)
