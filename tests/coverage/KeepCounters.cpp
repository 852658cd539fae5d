// Writes the counters of a process that ends, or becomes another program, without the exit handlers
// that do so otherwise: what an application is made of between fork and exec would not be counted.
// For the coverage build alone; what is linked in place of the calls allocates memory and opens
// files, which the program itself must not do there.

#include <unistd.h>

extern "C" {

void __gcov_dump();
void __gcov_reset();

[[noreturn]] void __real__exit(int status);
int __real_execv(const char* path, char* const argv[]);

[[noreturn]] void __wrap__exit(int status) {
    __gcov_dump();
    __real__exit(status);
}

int __wrap_execv(const char* path, char* const argv[]) {
    __gcov_dump();
    __gcov_reset(); // should it fail, what follows is counted anew
    return __real_execv(path, argv);
}
}
