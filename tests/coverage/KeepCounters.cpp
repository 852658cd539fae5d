// Writes the counters of a process that ends, or becomes another program, without the exit handlers
// that do so otherwise: what an application is made of between fork and exec would not be counted.
// For the coverage build alone; what is linked in place of the calls allocates memory and opens
// files, which the program itself must not do there.

#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>

namespace {

/// Counters are written with memory of their own; where that is refused, the process would end
/// otherwise than it is about to.
bool hasMemory() {
    constexpr std::size_t kMuch = 65536;
    void* volatile memory = std::malloc(kMuch); // volatile, or the compiler leaves it out
    std::free(memory);
    return memory != nullptr;
}

/// A process that has used up its descriptors could not open the files.
void allowMoreDescriptors() {
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    (void)::setrlimit(RLIMIT_NOFILE, &limit); // Where it fails, its counters are lost.
}

} // namespace

extern "C" {

void __gcov_dump();
void __gcov_reset();

[[noreturn]] void __real__exit(int status);
int __real_execv(const char* path, char* const argv[]);

[[noreturn]] void __wrap__exit(int status) {
    if (hasMemory()) {
        allowMoreDescriptors();
        __gcov_dump();
    }
    __real__exit(status);
}

/// The last of the exit handlers: what comes behind them would write the counters.
__attribute__((constructor)) void leaveWithoutCounters() {
    (void)::on_exit(
        [](int status, void* /*unused*/) {
            if (!hasMemory()) {
                __real__exit(status);
            }
        },
        nullptr);
}

int __wrap_execv(const char* path, char* const argv[]) {
    if (hasMemory()) {
        __gcov_dump();
        __gcov_reset(); // should it fail, what follows is counted anew
    }
    return __real_execv(path, argv);
}
}
