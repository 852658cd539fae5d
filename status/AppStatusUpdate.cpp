#include "status/AppStatusUpdate.h"

#include <cerrno>
#include <ctime>

#include "platform/System.h"
#include "platform/Time.h"
#include "platform/Trace.h"

AppStatusUpdate::AppStatusUpdate() {
    (void)initBootTimeVars(); // Tried again by whoever finds the figures missing.
}

AppStatusUpdate::~AppStatusUpdate() = default;

int AppStatusUpdate::initUserShm(std::vector<appinfo>& /*applist*/, bool /*discover*/) {
    return 0;
}

int AppStatusUpdate::updateUserShm(std::vector<appinfo>& /*applist*/) {
    return 0;
}

int AppStatusUpdate::initBootTimeVars() {
    const long uptimeSec = platform::uptimeSeconds();
    if (uptimeSec >= 0) {
        bootTime_ = static_cast<std::uint32_t>(platform::currentTime() - uptimeSec);
    } else {
        platform::trace(true, "Error %d obtaining boot time\n", errno);
    }
    clockTicks_ = static_cast<std::int32_t>(platform::clockTicksPerSecond());
    return clockTicks_;
}

std::int32_t AppStatusUpdate::startTimeOf(const statstruct_proc& info) const {
    const auto ticks = static_cast<std::uint64_t>(clockTicks_.load());
    return static_cast<std::int32_t>(bootTime_ + info.starttime / ticks);
}

std::uint64_t AppStatusUpdate::clockTicksAt(std::time_t time) const {
    const std::int64_t sinceBootSec = static_cast<std::int64_t>(time) - bootTime_;
    return sinceBootSec > 0 ? static_cast<std::uint64_t>(sinceBootSec * clockTicks_) : 0;
}
