// Runs the tests of the signal handlers, which write to the watchdog and to the event log.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const char* const marker = std::getenv("OVARD_SANDBOX");
    if (marker == nullptr || std::strcmp(marker, "1") != 0) {
        (void)std::fputs("These tests feed a watchdog, so they run inside scripts/sandbox only.\n",
                         stderr);
        return 2;
    }
    return RUN_ALL_TESTS();
}
