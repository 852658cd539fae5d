// What a monitor of the model reckons by the clock.

#ifndef OVARD_TESTS_SYSTEM_MODEL_TIMES_H
#define OVARD_TESTS_SYSTEM_MODEL_TIMES_H

#include <cstdint>
#include <optional>
#include <string>

namespace systemtest {

/// Of the wall clock only what it is set to is known: how many seconds it is away from the true
/// time. No application lives for an hour.
class ModelTimes {
public:
    /// A monitor begins. The grace of young applications is an hour, or over before supervision is
    /// at rest.
    void beginMonitor(bool hasLongGrace);

    /// Half a minute has gone by. By a clock that stands as it did when the monitor's main loop
    /// began, its first phase is over.
    void endFirstPhase() { isFirstPhaseOver_ = true; }

    /// The clock is set: 0, or at least half a minute away from the true time and from all other
    /// settings.
    void setClock(std::int64_t setting) { setting_ = setting; }

    /// The monitor takes the time of the boot from the clock anew.
    void reckonBoot() { bootSetting_ = setting_; }

    bool isFirstPhaseOver() const { return isFirstPhaseOver_; }
    std::int64_t setting() const { return setting_; }

    /// By which start times are reckoned: from the boot on, whatever time it is now.
    std::int64_t bootSetting() const { return bootSetting_; }

    /// Entries without a pid file are erased; none where that hangs on how long the monitor has
    /// run. By a clock that was set back its main loop has not begun yet, and they are.
    std::optional<bool> erasesUnusable() const;

    /// What was started by that setting is left alone, as it was a moment ago by the clock; none
    /// where that hangs on how long it has lived.
    std::optional<bool> isInGrace(std::int64_t startSetting) const;

    /// Everything, for people.
    std::string text() const;

private:
    bool hasLongGrace_ = false;
    bool isFirstPhaseOver_ = false;
    std::int64_t setting_ = 0;     ///< of the clock
    std::int64_t loopSetting_ = 0; ///< when the monitor's main loop began
    std::int64_t bootSetting_ = 0; ///< when it reckoned when the machine was booted
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_MODEL_TIMES_H
