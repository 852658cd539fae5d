// The model of the monitor's registry: what requests and supervision make of its entries.

#ifndef OVARD_TESTS_SYSTEM_MODEL_REGISTRY_H
#define OVARD_TESTS_SYSTEM_MODEL_REGISTRY_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "records/codes.h"
#include "tests/system/ModelMachine.h"
#include "tests/system/ModelTimes.h"

namespace systemtest {

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
    bool hasPriority = false; ///< taken to have been given to its process
    bool diedEarly = false;   ///< before its first status is sure to have been published
    bool isInOrder = false;   ///< the last pass found nothing wrong and has reckoned its uptime

    // What settings of the clock make of its times; the time that it lives is left out.
    std::int64_t startSetting = 0; ///< by which its start time is reckoned
    std::int64_t excessSec = 0;    ///< its uptime, by how much it is longer than its life

    /// The pid file names the process, and the version where one is expected.
    bool isConfirmedOn(const ModelMachine& machine) const;
};

/// Results of actions that fail.
inline constexpr int kModelRestartAllFailed = -1;
inline constexpr int kModelStartFailed = -3;
inline constexpr int kModelStopFailed = -4;
inline constexpr int kModelRestartPortAppsFailed = -5;
inline constexpr int kModelInvalid = -8; ///< no such action, or nothing that could be launched
inline constexpr int kModelNotFound = -20;

/// Entries in the order of their registration, and the machine that they act on.
///
/// What would restart the machine is left open, too; see ModelMachine.
class ModelRegistry {
public:
    /// Which entries an action is for.
    using Choice = std::function<bool(const ModelEntry&)>;

    // What requests ask for. A name is compared as it was sent, whole. The result is 0, or why
    // something failed.

    /// Stops what has the name, and launches and registers the entry.
    int start(const std::string& sentName, ModelEntry entry);

    /// Stops and forgets what has the name. The result is that of the last stop, or kModelNotFound.
    int stop(const std::string& sentName);

    /// Goes on behind a failure; the result is that of the last one.
    int restart(const std::string& sentName);

    /// From the last entry to the first. `empties` has those forgotten, too, that fail to stop. The
    /// result is that of the last stop.
    int stopMany(const Choice& choice, bool empties);

    /// Up to the first failure.
    int restartMany(const Choice& choice);

    /// A supervision pass goes by.
    void pass();

    /// Another monitor begins with these entries.
    void begin(std::vector<ModelEntry> entries);

    const std::vector<ModelEntry>& entries() const { return entries_; }
    ModelMachine& machine() { return machine_; }
    const ModelMachine& machine() const { return machine_; }
    ModelTimes& times() { return times_; }
    const ModelTimes& times() const { return times_; }

    /// All that passes change, for people.
    std::string text() const;

private:
    int launch(ModelEntry& entry);
    int stopProcess(ModelEntry& entry);
    int restartProcess(ModelEntry& entry);
    static void take(ModelEntry& entry, const ModelEntry& copy);
    void takePidFileName(ModelEntry& entry) const;
    bool tellsTheBoot(const ModelEntry& entry) const;

    bool isInGrace(const ModelEntry& entry);
    void supervise(ModelEntry& entry);
    bool check(ModelEntry& entry);
    void givePriority(ModelEntry& entry);
    void handleFailure(ModelEntry& entry);
    void restartAll();

    std::vector<ModelEntry> entries_;
    int workStatus_ = APP_STATUS_INITIALIZING; ///< what the last single action has left
    bool restartAllRequested_ = false;
    bool hasDataServerRun_ = false; ///< which has this monitor reckon the time of the boot anew
    ModelTimes times_;
    ModelMachine machine_;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_MODEL_REGISTRY_H
