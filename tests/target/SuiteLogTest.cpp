#include "tests/target/SuiteLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace target {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kLog = R"([==========] Running 3 tests from 1 test suite.
[ RUN      ] Fault.Clock
tests/system/FaultTest.cpp:12: Skipped
no clock

NOT TESTED: Fault.Clock: no clock
[  SKIPPED ] Fault.Clock (3 ms)
[ RUN      ] Fault.Memory
[       OK ] Fault.Memory (2500 ms)
[ RUN      ] Fault.User
[  SKIPPED ] Fault.User (1 ms)
[==========] 3 tests from 1 test suite ran. (2504 ms total)
[  PASSED  ] 12 tests.
[  SKIPPED ] 2 tests, listed below:
[  SKIPPED ] Fault.Clock
[  SKIPPED ] Fault.User
)";

TEST(SuiteLog, HasWhatTheSummaryTells) {
    const SuiteLog log = parseSuiteLog(kLog);
    EXPECT_EQ(log.passed, 12);
    EXPECT_THAT(log.skipped, ElementsAre("Fault.Clock", "Fault.User"));
}

TEST(SuiteLog, OfAProgramThatDidNotGetSoFarHasNothing) {
    const SuiteLog log = parseSuiteLog("[ RUN      ] Fault.Memory\n");
    EXPECT_EQ(log.passed, 0);
    EXPECT_THAT(log.skipped, IsEmpty());
}

TEST(SuiteLog, HasNoFaultWhenItsTestsPass) {
    EXPECT_THAT(findFaults("Fault", {3, {}}, {}), IsEmpty());
}

TEST(SuiteLog, MayHaveTestsThatAreExpectedToSkipThemselves) {
    const std::vector<std::string> expected = {"Fault.User", "Other.Test", "FaultFork.User",
                                               "Fault.Clock"};
    EXPECT_THAT(findFaults("Fault", {3, {"Fault.Clock", "Fault.User"}}, expected), IsEmpty());
    EXPECT_THAT(findFaults("Fault", {0, {"Fault.Clock", "Fault.User"}}, expected), IsEmpty());
}

TEST(SuiteLog, HasNoTestThatSkipsItselfAndIsNotListed) {
    EXPECT_THAT(findFaults("Fault", {3, {"Fault.User", "Fault.Clock"}}, {"Fault.User"}),
                ElementsAre("skipped itself and is not listed, or the other way round: "
                            "Fault.Clock"));
}

TEST(SuiteLog, HasNoListedTestThatDoesNotSkipItself) {
    EXPECT_THAT(findFaults("Fault", {3, {"Fault.User"}}, {"Fault.User", "Fault.Clock"}),
                ElementsAre("skipped itself and is not listed, or the other way round: "
                            "Fault.Clock"));
}

TEST(SuiteLog, HasTests) {
    EXPECT_THAT(findFaults("Fault", {0, {}}, {}), ElementsAre("ran no test"));
}

} // namespace
} // namespace target
