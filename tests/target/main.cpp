#include <gtest/gtest.h>

#include <cstdio>

#include "tests/target/Machine.h"
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
    const int status = RUN_ALL_TESTS();
    const testing::UnitTest& tests = *testing::UnitTest::GetInstance();
    if (tests.successful_test_count() == 0 || tests.skipped_test_count() > 0) {
        (void)std::fputs("Nothing was tested, or not all that was to be.\n", stderr);
        return 1;
    }
    if (status == 0) {
        target::sayPassed();
    }
    return status;
}
