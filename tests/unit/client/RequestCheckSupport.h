// What the check says of records, for its tests.

#ifndef OVARD_TESTS_UNIT_CLIENT_REQUEST_CHECK_SUPPORT_H
#define OVARD_TESTS_UNIT_CLIENT_REQUEST_CHECK_SUPPORT_H

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/ovardctl/RequestCheck.h"
#include "tests/unit/client/RequestRecords.h"

namespace client_test {

inline ovardctl::ProgramState everythingIsThere(const std::string& /*program*/) {
    return ovardctl::ProgramState::Executable;
}

/// The problems, one "error|warning RECORD TEXT" each.
inline std::vector<std::string>
problemsOf(const ovardctl::RequestFile& file,
           const ovardctl::ProgramExaminer& examine = everythingIsThere,
           ovardctl::ByteOrder target = ovardctl::nativeByteOrder()) {
    std::vector<std::string> lines;
    for (const ovardctl::Problem& problem : ovardctl::checkRequests(file, target, examine)) {
        lines.push_back((problem.severity == ovardctl::Severity::Error ? "error " : "warning ") +
                        std::to_string(problem.record) + ' ' + problem.text);
    }
    return lines;
}

inline std::vector<std::string>
problemsOf(const std::vector<reqcmd>& records,
           const ovardctl::ProgramExaminer& examine = everythingIsThere) {
    return problemsOf(ovardctl::decodeRequests(imageOf(records)), examine);
}

/// There is one problem; it begins like this and has the part.
inline void expectProblem(const std::vector<std::string>& problems, const std::string& begin,
                          const std::string& part) {
    ASSERT_EQ(problems.size(), 1u) << testing::PrintToString(problems);
    EXPECT_EQ(problems[0].substr(0, begin.size()), begin);
    EXPECT_NE(problems[0].find(part), std::string::npos) << problems[0];
}

/// One of the problems begins like this and has the part.
inline void expectAmong(const std::vector<std::string>& problems, const std::string& begin,
                        const std::string& part) {
    EXPECT_TRUE(std::any_of(problems.begin(), problems.end(),
                            [&](const std::string& problem) {
                                return problem.find(begin) == 0 &&
                                       problem.find(part) != std::string::npos;
                            }))
        << begin << "\nis not among\n"
        << testing::PrintToString(problems);
}

/// How many of the problems have the part.
inline std::ptrdiff_t countOf(const std::vector<std::string>& problems, const std::string& part) {
    return std::count_if(problems.begin(), problems.end(), [&part](const std::string& problem) {
        return problem.find(part) != std::string::npos;
    });
}

inline const std::vector<std::string> kNothing;

} // namespace client_test

#endif // OVARD_TESTS_UNIT_CLIENT_REQUEST_CHECK_SUPPORT_H
