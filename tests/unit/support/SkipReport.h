// Names the tests that skip themselves, for the list of what was not tested.

#ifndef OVARD_TESTS_UNIT_SUPPORT_SKIP_REPORT_H
#define OVARD_TESTS_UNIT_SUPPORT_SKIP_REPORT_H

#include <cstdio>

#include <gtest/gtest.h>

/// Prints "NOT TESTED: SUITE.TEST: REASON" for each, which scripts/test looks for.
class SkipReport : public testing::EmptyTestEventListener {
private:
    void OnTestEnd(const testing::TestInfo& test) override {
        const testing::TestResult& result = *test.result();
        for (int part = 0; result.Skipped() && part < result.total_part_count(); ++part) {
            if (result.GetTestPartResult(part).skipped()) {
                (void)std::printf("NOT TESTED: %s.%s: %s\n", test.test_suite_name(), test.name(),
                                  result.GetTestPartResult(part).message());
            }
        }
        (void)std::fflush(stdout); // or a child of the next test writes it, too
    }
};

#endif // OVARD_TESTS_UNIT_SUPPORT_SKIP_REPORT_H
