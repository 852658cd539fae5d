#include <cstdlib>

#include "runtime/Startup.h"

namespace __gnu_cxx {

/// In place of the library's own, which prints the name of an exception that nobody has caught, and
/// brings the demangler and its tables, a tenth of a statically linked monitor, for that.
void __verbose_terminate_handler() {
    std::abort();
}

} // namespace __gnu_cxx

int main(int argc, char** argv) {
    return runMonitor(argc, argv);
}
