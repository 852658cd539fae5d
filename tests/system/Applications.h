// Applications under a running monitor: starting them by request, and what they, the replies and
// the log tell about it.

#ifndef OVARD_TESTS_SYSTEM_APPLICATIONS_H
#define OVARD_TESTS_SYSTEM_APPLICATIONS_H

#include <sys/types.h>

#include <ctime>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "tests/system/Harness.h"

namespace systemtest {

/// Options of a monitor whose supervision does not run during a test, so that only requests change
/// anything.
extern const std::vector<std::string> kWithoutSupervision;

/// How long to wait for something that must not come, in milliseconds.
inline constexpr int kSilenceMs = 500;

/// A reply, or that there was none.
struct Reply {
    bool came = false;
    int code = 0;
    int completed = 0;
    std::string message; ///< every date in it replaced by "DATE"
    std::string date;    ///< the date that was there last, "YYYY-MM-DD HH:MM:SS"
};

bool operator==(const Reply& left, const Reply& right); // the dates may differ
std::ostream& operator<<(std::ostream& stream, const Reply& reply);

/// A complete reply to compare with.
Reply replyOf(int code, const std::string& message);

/// What a connection received.
Reply toReply(const std::optional<response_struct>& received);

/// Sends a request on a connection of its own and waits for the reply.
Reply askFor(const reqcmd& request, int timeoutMs = kPatienceMs);

/// Sends a request that is not answered, and gives the monitor time to answer it all the same.
/// True when the connection stayed open and nothing came over it.
bool staysUnanswered(const reqcmd& request);

/// Sends a request with `nowait` set on a connection of its own, which is closed at once.
bool sendWithoutWaiting(reqcmd request);

/// A request whose name fills all of its field, without a NUL behind it.
reqcmd makeRequestWithWholeName(int action, const std::string& name, const std::string& cmd = "");

/// The pid in a message such as "NAME [pid=12] is started"; 0 when there is none.
pid_t pidIn(const std::string& message);

/// Seconds since the epoch of a date in UTC, "YYYY-MM-DD HH:MM:SS"; -1 when it is none.
std::time_t timeOf(const std::string& date);

/// The facts that the sample application reports, by their keys.
using LaunchReport = std::map<std::string, std::string>;

/// Waits for a report file; empty when none comes.
LaunchReport waitForReport(const std::string& path, int timeoutMs = kPatienceMs);

/// The words that the reporting process was started with.
std::vector<std::string> argumentsIn(const LaunchReport& report);

/// Writes an executable script for bash.
bool writeScript(const std::string& path, const std::string& lines);

/// While it lives, what the tests start as the monitor is a script that ends in `exec "$OVARD"`,
/// with the daemon's real path in OVARD and its arguments in "$@".
class MonitorThroughScript {
public:
    explicit MonitorThroughScript(const std::string& lines);
    ~MonitorThroughScript();
    MonitorThroughScript(const MonitorThroughScript&) = delete;
    MonitorThroughScript& operator=(const MonitorThroughScript&) = delete;

private:
    std::string real_;
};

/// Lines for MonitorThroughScript: the monitor is started with these signals ignored and those
/// blocked.
std::string linesThatSetSignals(const std::vector<int>& ignored, const std::vector<int>& blocked);

/// A monitor and its applications. At the end no zombie may be the monitor's child.
class ApplicationTest : public SystemTest {
protected:
    void TearDown() override;

    /// Starts the monitor in the background, without supervision.
    bool startMonitor(const std::vector<std::string>& options = {});

    /// Starts the monitor in the foreground, without supervision; its console can be read.
    bool startMonitorInForeground(const std::vector<std::string>& options = {});

    /// Path of the program of that name in the installation folder.
    static std::string programPath(const std::string& name);

    /// The command line of that program; `options` may be empty.
    static std::string commandOf(const std::string& name, const std::string& options = "");

    /// A start request for the program of that name, which is installed when it is missing.
    reqcmd makeStart(const std::string& name, const std::string& options = "",
                     const std::string& pidfile = "");

    /// Sends a start request, which must succeed; returns the pid in the reply.
    static pid_t launch(const reqcmd& request);
    pid_t launch(const std::string& name, const std::string& options = "") {
        return launch(makeStart(name, options));
    }

    /// Launches an application and kills it in such a way that stopping it fails: it counts as just
    /// launched, it has a pid file by its record, and it never comes alive.
    void launchOneThatCannotBeStopped(reqcmd request);
    void launchOneThatCannotBeStopped(const std::string& name) {
        launchOneThatCannotBeStopped(makeStart(name, "--no-pidfile", "/tmp/of_its_own.pid"));
    }

    /// True when exactly this process runs with the command line of that program.
    static bool runsAlone(const std::string& name, pid_t pid, const std::string& options = "");

    /// What the command thread traced about its results, at verbosity 4: "ACTION=RESULT" each. It
    /// does so after the reply.
    std::vector<std::string> tracedResults() const;
    void expectTracedResults(const std::vector<std::string>& results) const;

    Daemon monitor_;
};

/// Waits until a process is gone.
bool isGone(pid_t pid, int timeoutMs = kPatienceMs);

/// Kills a process and waits until it is gone.
bool killAndWait(pid_t pid);

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_APPLICATIONS_H
