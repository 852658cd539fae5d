#include "tests/system/SanitizerReports.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/system/Support.h"

namespace systemtest {
namespace {

/// A folder that no test empties, covers or takes away; a monitor that finds it missing would make
/// it.
constexpr const char* kReports = "/dev/sanitizer";

#ifdef OVARD_IS_SANITIZED
/// Where programs of every user can read them.
constexpr const char* kSuppressions = "/dev/sanitizer-suppressions";

/// The options with a copy of the file that lists what is not to be reported, if they name one.
std::string withReadableSuppressions(std::string options) {
    const std::string key = "suppressions=";
    const std::size_t begin = options.find(key);
    if (begin == std::string::npos) {
        return options;
    }
    const std::size_t path = begin + key.size();
    const std::size_t length = std::min(options.find(':', path), options.size()) - path;
    if (!writeFile(kSuppressions, readFile(options.substr(path, length))) ||
        ::chmod(kSuppressions, 0644) != 0) {
        return options;
    }
    return options.replace(path, length, kSuppressions);
}
#endif

} // namespace

void collectSanitizerReports() {
#ifdef OVARD_IS_SANITIZED
    (void)makeDirectories(kReports); // else no reports
    (void)::chmod(kReports, 01777);  // for monitors of other users
    for (const char* const variable : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
        const char* const options = std::getenv(variable);
        const std::string kept =
            options != nullptr ? withReadableSuppressions(options) + ":" : std::string();
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
