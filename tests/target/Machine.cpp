#include "tests/target/Machine.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace target {
namespace {

std::string readFile(const char* path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

} // namespace

std::string reasonToRefuse() {
    const bool isMarked = readFile("/proc/cmdline").find(kMachineMark) != std::string::npos;
    return isMarked ? "" : "this is not the test machine";
}

double uptimeSec() {
    return std::strtod(readFile("/proc/uptime").c_str(), nullptr);
}

void waitForUptime(double seconds) {
    while (uptimeSec() < seconds) {
        (void)::usleep(100000); // the loop looks at the clock
    }
}

} // namespace target
