#include "tests/system/SanitizerReports.h"

#include <cstdio>
#include <cstdlib>

#include "tests/system/Support.h"

namespace systemtest {
namespace {

/// In a folder that is not emptied before a test or in the middle of one. Each report has a pid
/// behind this.
constexpr const char* kReportBase = "/var/log/sanitizer";

} // namespace

void collectSanitizerReports() {
#ifdef OVARD_IS_SANITIZED
    for (const char* const variable : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
        const char* const options = std::getenv(variable);
        const std::string kept = options != nullptr ? std::string(options) + ":" : "";
        (void)::setenv(variable, (kept + "log_path=" + kReportBase).c_str(), 1); // else no reports
    }
#endif
}

std::string takeSanitizerReports() {
    std::string reports;
    for (const std::string& path : entriesOf("/var/log")) {
        if (path.compare(0, std::string(kReportBase).size(), kReportBase) == 0) {
            reports += readFile(path);
            (void)std::remove(path.c_str()); // the next test would show it again
        }
    }
    return reports;
}

} // namespace systemtest
