#include <gtest/gtest.h>

#include <cstdio>

#include "tests/target/MachineTest.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const std::string reason = target::reasonToRefuse();
    if (!reason.empty()) {
        (void)std::fprintf(stderr,
                           "These tests restart the machine, so they run within "
                           "scripts/test-target only: %s.\n",
                           reason.c_str());
        return 2;
    }
    systemtest::rememberMachine();
    return RUN_ALL_TESTS();
}
