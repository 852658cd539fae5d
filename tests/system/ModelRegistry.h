// What the monitor must have made of all that happened to it: its registry, its applications'
// processes, and what it publishes. A model only: no process, no clock, no input or output.

#ifndef OVARD_TESTS_SYSTEM_MODEL_REGISTRY_H
#define OVARD_TESTS_SYSTEM_MODEL_REGISTRY_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "records/codes.h"
#include "records/reqcmd.h"

namespace systemtest {

/// A launched process: they are counted from 1 in the order of their launches. 0 is none.
using ProcessNumber = int;

/// What stands in a text of the model for the pid of a process: "<12>".
std::string pidMark(ProcessNumber process);

/// What the heartbeat registry tells of a process.
enum class Beat { Missing, Fresh, Expired };

/// A process that lives.
struct ModelProcess {
    std::string program;       ///< its path
    std::string command;       ///< its words, joined by one blank
    std::string pidFile;       ///< that it writes; empty: none
    std::string version;       ///< in that pid file
    bool byConvention = false; ///< the pid file has the name by which the monitor looks for it
    Beat beat = Beat::Missing;

    /// It is taken for a process of an application of that name.
    bool isCopyOf(const std::string& name) const;
};

/// An application in the registry.
struct ModelEntry {
    std::string name;
    std::string version;
    std::string cmd;
    std::string pidfile;
    ProcessNumber process = 0;
    int status = APP_STATUS_INITIALIZING;
    int portType = PORT_TYPE_NONE;
    int portNumber = 0;
    int priority = 0;
    int restartType = RESTART_TYPE_SELF;
    int lifeLimit = 0;
    bool heartbeat = false;
    bool diedEarly = false; ///< before its first status is sure to have been published
    bool isInOrder = false; ///< the last pass found nothing wrong and has reckoned its uptime

    // What settings of the clock make of its times; the time that it lives is left out.
    std::int64_t startSetting = 0; ///< by which its start time is reckoned
    std::int64_t excessSec = 0;    ///< its uptime, by how much it is longer than its life
};

/// Results of a stop and of a launch, or of an action that is none, which fail.
inline constexpr int kModelStopFailed = -4;
inline constexpr int kModelInvalid = -8;

/// What comes of a request.
struct ModelResult {
    int result = 0; ///< of its execution
    bool replied = false;
    int code = 0;
    std::string message; ///< with "DATE" for a date and marks for pids
};

/// How a monitor is started.
struct ModelMonitor {
    bool discovers = true;  ///< looks for the applications of the one before
    bool longGrace = false; ///< young applications are left alone for an hour; else for a second
};

/// Pid files: path, and the process and the version that are in them.
using ModelFiles = std::map<std::string, std::pair<ProcessNumber, std::string>>;

/// The monitor, its applications, and what happens to them.
///
/// Of the wall clock it knows what it is set to: how many seconds it is away from the true time. No
/// application lives for an hour.
///
/// Where the time between two events decides what comes of them, or the machine would restart, or
/// the supervision would never come to rest, isPredictable turns false for good: try an event on a
/// copy.
class RegistryModel {
public:
    /// The monitor begins; one before has gone.
    void startMonitor(const ModelMonitor& monitor);

    /// The first half minute is over, during which entries without a pid file are kept, if the
    /// clock is not set meanwhile.
    void endFirstPhase() { isFirstPhaseOver_ = true; }

    /// The clock is set: 0, or at least half a minute away from the true time and from all other
    /// settings.
    void setClock(std::int64_t setting) { setting_ = setting; }

    /// A request of 1 to 1216 bytes comes and is executed.
    ModelResult receive(const std::string& bytes);

    /// A process is killed.
    void crash(ProcessNumber process);

    /// A process stops beating, and its last beat is old or forgotten.
    void loseHeartbeat(ProcessNumber process, Beat beat) { processes_.at(process).beat = beat; }

    /// The pid file that an entry expects is there now.
    void writePidFile(const ModelEntry& entry);

    /// Supervision passes go by until nothing changes any more. The grace of the youngest is over
    /// then, where it is not the long one.
    void settle();

    bool isPredictable() const { return isPredictable_; }
    bool isFirstPhaseOver() const { return isFirstPhaseOver_; }
    std::int64_t clockSetting() const { return setting_; }
    const std::vector<ModelEntry>& entries() const { return entries_; }
    const std::map<ProcessNumber, ModelProcess>& processes() const { return processes_; }
    bool isAlive(ProcessNumber process) const { return processes_.count(process) == 1; }

    /// The pid file names the entry's process, and its version where one is expected.
    bool isConfirmed(const ModelEntry& entry) const;

    /// Processes that no entry names.
    std::vector<ProcessNumber> orphans() const;

    /// The published text of an entry's status, where it is known.
    const std::optional<std::string>& publishedStatus(std::size_t index) const {
        return statusTexts_.at(index);
    }

    /// Everything, for people.
    std::string text() const;

private:
    ModelResult execute(const reqcmd& request);
    ModelResult start(const reqcmd& request);
    ModelResult stop(const reqcmd& request);
    ModelResult restart(const reqcmd& request);
    template <typename Choice>
    ModelResult stopMany(const reqcmd& request, const char* outcome, bool empties, Choice choice);
    template <typename Choice>
    ModelResult restartMany(const reqcmd& request, const char* outcome, int failure, Choice choice);
    int stopNamed(const reqcmd& request);

    int launch(ModelEntry& entry);
    int stopProcess(ModelEntry& entry);
    int restartProcess(ModelEntry& entry);
    void endProcess(ProcessNumber process);
    void takePidFileName(ModelEntry& entry) const;
    ProcessNumber oldest(const std::function<bool(const ModelProcess&)>& condition) const;

    std::optional<bool> erasesUnusable() const;
    bool isInGrace(const ModelEntry& entry);
    void pass();
    bool check(ModelEntry& entry);
    bool checkStart(ModelEntry& entry);
    bool checkRunning(ModelEntry& entry);
    void handleFailure(ModelEntry& entry);
    void restartAll();
    void publish();
    void adopt(const ModelEntry& published, const std::optional<std::string>& status);

    ModelMonitor monitor_;
    std::int64_t setting_ = 0;      ///< of the clock
    std::int64_t loopSetting_ = 0;  ///< when the monitor's main loop began
    std::int64_t bootSetting_ = 0;  ///< by which the monitor has reckoned when the machine booted
    bool hasDataServerRun_ = false; ///< under this monitor; it reckons anew then
    bool isFirstPhaseOver_ = false;
    bool restartAllRequested_ = false;
    bool isPredictable_ = true;
    int workStatus_ = APP_STATUS_INITIALIZING; ///< what the last single action has left
    reqcmd buffer_ = {};                       ///< what the last request has left
    std::vector<ModelEntry> entries_;
    std::map<ProcessNumber, ModelProcess> processes_;
    ProcessNumber lastProcess_ = 0;
    ProcessNumber lastSettled_ = 0; ///< the youngest process that has written its pid file for sure
    std::set<ProcessNumber> justEnded_; ///< by the monitor since supervision was at rest
    std::set<std::string> lingering_;   ///< commands of those whose end it does not wait for
    ModelFiles files_;
    std::vector<std::optional<std::string>> statusTexts_; ///< by position
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_MODEL_REGISTRY_H
