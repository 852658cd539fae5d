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

void collectSanitizerReports() {
#ifdef OVARD_IS_SANITIZED
    (void)makeDirectories(kReports); // else no reports
    (void)::chmod(kReports, 01777);  // for monitors of other users
    for (const char* const variable : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
        const char* const options = std::getenv(variable);
        const std::string kept = options != nullptr ? std::string(options) + ":" : "";
        (void)::setenv(variable, (kept + "log_path=" + kReports + "/report").c_str(),
                       1); // as above
    }
#endif
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
