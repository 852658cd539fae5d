// What a suite of tests tells when it has run.

#ifndef OVARD_TESTS_TARGET_SUITE_LOG_H
#define OVARD_TESTS_TARGET_SUITE_LOG_H

#include <string>
#include <vector>

namespace target {

/// The summary at the end of what a program of GoogleTest prints.
struct SuiteLog {
    int passed = 0;                   ///< tests that passed; 0 where it does not say
    std::vector<std::string> skipped; ///< tests that skipped themselves, as "Suite.Test"
};

SuiteLog parseSuiteLog(const std::string& text);

/// What is wrong with a suite that succeeded, in one line each; nothing when it did what it had to
/// do. Of its tests just those have to skip themselves that `expected` names; names of other
/// suites do not count.
std::vector<std::string> findFaults(const std::string& suite, const SuiteLog& log,
                                    const std::vector<std::string>& expected);

} // namespace target

#endif // OVARD_TESTS_TARGET_SUITE_LOG_H
