// Making a monitor wait in the middle of its start.

#ifndef OVARD_TESTS_SYSTEM_HELD_START_H
#define OVARD_TESTS_SYSTEM_HELD_START_H

namespace systemtest {

/// A monitor that is spawned while it is held waits where it first needs the local time: for the
/// line "App monitor started" of its log, early in its start, with the initialization mutex taken.
/// Its time zone is a fifo that nobody writes to.
class HeldStart {
public:
    HeldStart();
    ~HeldStart();
    HeldStart(const HeldStart&) = delete;
    HeldStart& operator=(const HeldStart&) = delete;

    bool holds() const { return holds_; }

    /// Lets it go on, with the time zone UTC. May be called again.
    void release();

private:
    bool holds_ = false;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_HELD_START_H
