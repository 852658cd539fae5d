// Stands in for the C library's search for addresses, for test programs without shared libraries:
// GoogleTest could send its results over the network, which nobody asks it to, and the linker warns
// of the real search there.

#include <netdb.h>

extern "C" int getaddrinfo(const char* /*name*/, const char* /*service*/, const addrinfo* /*hints*/,
                           addrinfo** /*result*/) {
    return EAI_FAIL;
}

extern "C" void freeaddrinfo(addrinfo* /*none*/) noexcept {}
