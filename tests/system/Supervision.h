// Applications under a monitor that supervises them: its verdicts, its passes, its replacements.

#ifndef OVARD_TESTS_SYSTEM_SUPERVISION_H
#define OVARD_TESTS_SYSTEM_SUPERVISION_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/system/Applications.h"

namespace systemtest {

/// A restart policy that no text defines: a failure has no consequences, so that the verdicts alone
/// can be watched.
inline constexpr int kNoPolicy = 2;

/// Options of a monitor with short waits: a pass in every turn of the main loop, one second of
/// grace, ten polls (a second), every verdict logged. What a test adds holds instead.
extern const std::vector<std::string> kQuickSupervision;

/// The line of a verdict on a process, every date in it replaced by "DATE".
std::string verdict(const std::string& name, pid_t pid, const std::string& text);

/// The line of a process that is stopped.
std::string stoppedLine(const std::string& name, pid_t pid);

/// A monitor that supervises. Its main loop turns only every two seconds while nobody talks to it;
/// those functions that let passes go by talk to it.
class SupervisionTest : public ApplicationTest {
protected:
    /// Starts the monitor in the foreground with kQuickSupervision and further options.
    bool startSupervisor(const std::vector<std::string>& options = {});

    /// A start request for an application that writes the pid file which the request names,
    /// "/tmp/NAME.pid", with the version that the request expects.
    reqcmd makeSupervised(const std::string& name, int policy, const std::string& options = "");

    /// The command line in a request.
    static std::string commandIn(const reqcmd& request);

    /// Waits for a condition, passes going by. No request may be waiting for its reply meanwhile.
    static bool duringPasses(const std::function<bool()>& condition,
                             int timeoutMs = 2 * kPatienceMs);

    /// Lets passes go by for a while.
    static void letPassesGoBy(int milliseconds);

    /// Does something while the monitor stands still.
    void whileTheMonitorStands(const std::function<void()>& action) const;

    /// The daemon log's verdicts on an application since the monitor was started.
    std::vector<std::string> verdictsOn(const std::string& name) const;

    /// All of the daemon log that concerns an application since then: verdicts, stops, launches.
    std::vector<std::string> linesOn(const std::string& name) const;

    /// Waits until the log has that line, passes going by.
    bool reaches(const std::string& line) const;

    /// Waits until an application counts as running.
    bool getsRunning(const std::string& name, pid_t pid) const;

    /// Launches it and waits until it counts as running. The next pass is then one second away.
    pid_t launchUntilRunning(const reqcmd& request) const;

    /// Launches it and waits for the first of the two steps of its confirmation. The second one is
    /// then two seconds away, if nobody talks to the monitor.
    pid_t launchUntilStarting(const reqcmd& request) const;

    /// Waits until the requests so far have been served. The next pass is then one second away.
    static void settle();

    /// The verdicts that lead from the launch to a confirmed run.
    static std::vector<std::string> confirmed(const std::string& name, pid_t pid);

    /// Waits until the monitor has stopped a process and launched another one, which is the only
    /// one of its kind, passes going by; returns its pid, 0 when that does not come to be.
    pid_t replacementOf(const reqcmd& request, pid_t old) const;

    /// The log has this verdict, and right behind it the stop of that process and a launch.
    void expectReplacedAfter(const std::string& name, pid_t pid, const std::string& text) const;

private:
    std::unique_ptr<LogMark> sinceStart_;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_SUPERVISION_H
