#include "tests/system/SettableClock.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "platform/UniqueFd.h"

namespace systemtest {
namespace {

constexpr const char* kSettingPath = "/mnt/wall_clock";

/// Lines for MonitorThroughScript.
std::string lines() {
    return std::string("export OVARD_TEST_CLOCK=") + kSettingPath +
           " LD_PRELOAD=" + wallClockLibrary() + "\nexec \"$OVARD\" \"$@\"\n";
}

} // namespace

SettableClock::SettableClock()
    : script_(lines()) {
    EXPECT_TRUE(fileExists(wallClockLibrary()));
}

bool SettableClock::isPossible() {
#ifdef OVARD_IS_SANITIZED
    return false;
#else
    return true;
#endif
}

/// The file is written over, not replaced: its readers have mapped it.
bool SettableClock::set(std::int64_t seconds) {
    const platform::UniqueFd file(::open(kSettingPath, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    return ::pwrite(file.get(), &seconds, sizeof seconds, 0) == sizeof seconds;
}

bool SettableClock::isReadBy(pid_t pid) {
    return readFile("/proc/" + std::to_string(pid) + "/maps").find(kSettingPath) !=
           std::string::npos;
}

} // namespace systemtest
