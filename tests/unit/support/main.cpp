// Runs unit tests that need no scripted world.

#include <gtest/gtest.h>

#include "tests/unit/support/SkipReport.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new SkipReport);
    return RUN_ALL_TESTS();
}
