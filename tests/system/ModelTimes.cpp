#include "tests/system/ModelTimes.h"

#include <sstream>

namespace systemtest {
namespace {

/// The long grace.
constexpr std::int64_t kHourSec = 3600;

/// How long entries without a pid file are kept.
constexpr std::int64_t kFirstPhaseSec = 30;

} // namespace

void ModelTimes::beginMonitor(bool hasLongGrace) {
    hasLongGrace_ = hasLongGrace;
    isFirstPhaseOver_ = false;
    loopSetting_ = setting_;
    bootSetting_ = setting_;
}

std::optional<bool> ModelTimes::erasesUnusable() const {
    const std::int64_t excessSec = setting_ - loopSetting_;
    if (excessSec == 0) {
        return isFirstPhaseOver_;
    }
    if (excessSec >= kFirstPhaseSec || excessSec <= -kHourSec) {
        return true;
    }
    return std::nullopt;
}

std::optional<bool> ModelTimes::isInGrace(std::int64_t startSetting) const {
    const std::int64_t excessSec = setting_ - startSetting;
    if (!hasLongGrace_) {
        return false;
    }
    if (excessSec < 0 && excessSec > -kHourSec) {
        return std::nullopt; // Has the clock reached its start?
    }
    return excessSec >= 0 && excessSec < kHourSec;
}

std::string ModelTimes::text() const {
    std::ostringstream stream;
    stream << "grace " << (hasLongGrace_ ? "long" : "short") << ", "
           << (isFirstPhaseOver_ ? "later" : "first") << " phase, clock " << setting_
           << ", of the main loop " << loopSetting_ << ", of the boot time " << bootSetting_
           << "\n";
    return stream.str();
}

} // namespace systemtest
