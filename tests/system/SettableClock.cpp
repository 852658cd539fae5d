#include "tests/system/SettableClock.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "platform/UniqueFd.h"
#include "tests/target/Machine.h"

namespace systemtest {
namespace {

constexpr const char* kSettingPath = "/mnt/wall_clock";

/// Lines for MonitorThroughScript.
std::string lines() {
    return std::string("export OVARD_TEST_CLOCK=") + kSettingPath +
           " LD_PRELOAD=" + wallClockLibrary() + "\nexec \"$OVARD\" \"$@\"\n";
}

std::int64_t machineClockMs() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

/// By the clock that nobody sets, which the machine's was so far ahead of in the beginning.
std::int64_t rightTimeMs() {
    static const std::int64_t leadMs = machineClockMs() - monotonicMs();
    return monotonicMs() + leadMs;
}

/// The machine is there for the tests alone.
bool mayBeSet() {
    return readFile("/proc/cmdline").find(target::kMachineMark) != std::string::npos;
}

bool setMachineClock(std::int64_t seconds) {
    const std::int64_t wantedMs = rightTimeMs() + seconds * 1000;
    timespec time = {};
    time.tv_sec = static_cast<std::time_t>(wantedMs / 1000);
    time.tv_nsec = static_cast<long>(wantedMs % 1000) * 1000000;
    return mayBeSet() && ::clock_settime(CLOCK_REALTIME, &time) == 0;
}

/// The file is written over, not replaced: its readers have mapped it.
bool setClockOfPrograms(std::int64_t seconds) {
    const platform::UniqueFd file(::open(kSettingPath, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    return ::pwrite(file.get(), &seconds, sizeof seconds, 0) == sizeof seconds;
}

} // namespace

SettableClock::SettableClock() {
    if (!isMachineWide()) {
        EXPECT_TRUE(fileExists(wallClockLibrary()));
        script_.emplace(lines());
    }
}

SettableClock::~SettableClock() {
    if (isMachineWide()) {
        EXPECT_TRUE(set(0));
    }
}

bool SettableClock::isMachineWide() {
    return std::getenv("OVARD_MACHINE_CLOCK") != nullptr;
}

bool SettableClock::isPossible() {
#ifdef OVARD_IS_SANITIZED
    return false;
#else
    return true;
#endif
}

bool SettableClock::set(std::int64_t seconds) {
    return isMachineWide() ? setMachineClock(seconds) : setClockOfPrograms(seconds);
}

std::time_t SettableClock::rightTime() {
    return static_cast<std::time_t>(rightTimeMs() / 1000);
}

bool SettableClock::isReadBy(pid_t pid) {
    return isMachineWide() ||
           readFile("/proc/" + std::to_string(pid) + "/maps").find(kSettingPath) !=
               std::string::npos;
}

} // namespace systemtest
