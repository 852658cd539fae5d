#include "tests/system/SanitizerReports.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

#include "tests/system/Support.h"

namespace systemtest {
namespace {

/// A folder that no test empties or takes away. Where a test gives a monitor another /dev, the
/// sanitizer makes a folder of that name there, and reports into it are not seen.
constexpr const char* kReports = "/dev/sanitizer";

} // namespace

std::vector<std::string> sanitizersReportingTo(const std::string& prefix) {
    std::vector<std::string> variables;
#ifdef OVARD_IS_SANITIZED
    for (const char* const name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
        const char* const options = std::getenv(name);
        const std::string kept = options != nullptr ? std::string(options) + ":" : "";
        variables.push_back(std::string(name) + "=" + kept + "log_path=" + prefix);
    }
#else
    (void)prefix;
#endif
    return variables;
}

void collectSanitizerReports() {
    const std::vector<std::string> variables =
        sanitizersReportingTo(std::string(kReports) + "/report");
    if (variables.empty()) {
        return;
    }
    (void)makeDirectories(kReports); // else no reports
    (void)::chmod(kReports, 01777);  // for monitors of other users
    for (const std::string& variable : variables) {
        const std::size_t sign = variable.find('=');
        (void)::setenv(variable.substr(0, sign).c_str(), variable.substr(sign + 1).c_str(),
                       1); // as above
    }
}

std::string takeSanitizerReports() {
    std::string reports;
    for (const std::string& path : entriesOf(kReports)) {
        reports += readFile(path);
        (void)std::remove(path.c_str()); // the next test would show it again
    }
    return reports;
}

} // namespace systemtest
