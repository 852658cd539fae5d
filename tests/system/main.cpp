#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "tests/system/Harness.h"
#include "tests/system/SanitizerReports.h"
#include "tests/unit/support/SkipReport.h"

namespace {

constexpr const char kCheckOption[] = "--check-suites=";
constexpr int kRefused = 2;

/// Compares the suites of this program with a list of names separated by commas. Runs none.
int checkSuites(const std::string& list) {
    std::set<std::string> listed;
    std::size_t begin = 0;
    while (begin < list.size()) {
        const std::size_t end = std::min(list.find(',', begin), list.size());
        listed.insert(list.substr(begin, end - begin));
        begin = end + 1;
    }
    const testing::UnitTest& tests = *testing::UnitTest::GetInstance();
    int faults = 0;
    for (int index = 0; index < tests.total_test_suite_count(); ++index) {
        const std::string name = tests.GetTestSuite(index)->name();
        if (listed.erase(name) == 0) {
            (void)std::fprintf(stderr, "suite %s is never run: list it\n", name.c_str());
            ++faults;
        }
    }
    for (const std::string& name : listed) {
        (void)std::fprintf(stderr, "suite %s is listed, but has no tests\n", name.c_str());
        ++faults;
    }
    return faults == 0 ? 0 : 1;
}

/// Tells when all tests skip themselves, which counts as skipped with CTest too.
class IdleRunReport : public testing::EmptyTestEventListener {
private:
    void OnTestProgramEnd(const testing::UnitTest& tests) override {
        if (tests.skipped_test_count() > 0 &&
            tests.skipped_test_count() == tests.test_to_run_count()) {
            (void)std::printf("NO TEST OF THE SUITE RAN\n");
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc == 2 && std::strncmp(argv[1], kCheckOption, std::strlen(kCheckOption)) == 0) {
        return checkSuites(argv[1] + std::strlen(kCheckOption));
    }
    const std::string reason = systemtest::reasonToRefuse();
    if (!reason.empty()) {
        (void)std::fprintf(
            stderr,
            "These tests run a program that restarts the machine, so they run inside "
            "scripts/sandbox only: %s.\n",
            reason.c_str());
        return kRefused;
    }
    systemtest::rememberMachine();
    systemtest::collectSanitizerReports();
    testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
    listeners.Append(new SkipReport);
    listeners.Append(new IdleRunReport);
    return RUN_ALL_TESTS();
}
