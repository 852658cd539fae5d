#include "tests/target/SuiteLog.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <set>

#include "tests/system/Support.h"

namespace target {
namespace {

const std::string kPassed = "[  PASSED  ] ";
const std::string kSkipped = "[  SKIPPED ] ";

bool beginsWith(const std::string& text, const std::string& begin) {
    return text.compare(0, begin.size(), begin) == 0;
}

} // namespace

SuiteLog parseSuiteLog(const std::string& text) {
    SuiteLog log;
    for (const std::string& line : systemtest::linesOf(text)) {
        if (beginsWith(line, kPassed)) {
            log.passed = static_cast<int>(std::strtol(line.c_str() + kPassed.size(), nullptr, 10));
        } else if (beginsWith(line, kSkipped) &&
                   line.find(' ', kSkipped.size()) == std::string::npos) {
            log.skipped.push_back(line.substr(kSkipped.size())); // else it tells how long one took
        }
    }
    return log;
}

std::vector<std::string> findFaults(const std::string& suite, const SuiteLog& log,
                                    const std::vector<std::string>& expected) {
    const std::set<std::string> skipped(log.skipped.begin(), log.skipped.end());
    std::set<std::string> listed;
    std::copy_if(expected.begin(), expected.end(), std::inserter(listed, listed.end()),
                 [&](const std::string& name) { return beginsWith(name, suite + "."); });
    std::vector<std::string> faults;
    std::set_symmetric_difference(skipped.begin(), skipped.end(), listed.begin(), listed.end(),
                                  std::back_inserter(faults));
    for (std::string& name : faults) {
        name.insert(0, "skipped itself and is not listed, or the other way round: ");
    }
    if (log.passed == 0 && skipped.empty()) {
        faults.emplace_back("ran no test");
    }
    return faults;
}

} // namespace target
