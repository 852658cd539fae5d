// The model of the monitor: what must be seen of it from outside after all that has happened.

#ifndef OVARD_TESTS_SYSTEM_MODEL_MONITOR_H
#define OVARD_TESTS_SYSTEM_MODEL_MONITOR_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "records/reqcmd.h"
#include "tests/system/ModelMachine.h"
#include "tests/system/ModelRegistry.h"
#include "tests/system/ModelTimes.h"

namespace systemtest {

/// How many characters of a text are published.
inline constexpr std::size_t kModelPublishedText = 31;

/// How a monitor is started.
struct ModelOptions {
    bool discovers = true;  ///< looks for the applications of the one before
    bool longGrace = false; ///< young applications are left alone for an hour; else for a second
};

/// What comes of a request.
struct ModelResult {
    int result = 0; ///< of its execution
    bool replied = false;
    int code = 0;
    std::string message; ///< with "DATE" for a date and marks for pids

    // The date, by the clock of that setting.
    ProcessNumber startedOf = 0; ///< when that process was started; 0: when the request came
    std::int64_t dateSetting = 0;
};

/// The published text of a status.
struct ModelStatusText {
    std::string text;
    bool orStarting = false; ///< or that of a start, if there was a pass between two events
};

/// The monitor, its applications, and what happens to them.
///
/// Where the time between two events decides what comes of them, or the machine would restart, or
/// the supervision would never come to rest, isPredictable turns false for good: try an event on a
/// copy.
class ModelMonitor {
public:
    /// The monitor begins; one before has gone.
    void begin(const ModelOptions& options);

    /// See ModelTimes.
    void endFirstPhase() { registry_.times().endFirstPhase(); }
    void setClock(std::int64_t setting) { registry_.times().setClock(setting); }

    /// A request of 1 to 1216 bytes comes and is executed.
    ModelResult receive(const std::string& bytes);

    /// A process is killed.
    void crash(ProcessNumber process);

    /// A process stands still, and its last beat is old or forgotten.
    void loseHeartbeat(ProcessNumber process, Beat beat);

    /// The pid file that an entry expects is there now.
    void writePidFile(const ModelEntry& entry);

    /// Supervision passes go by until nothing changes any more, that many. The grace of the
    /// youngest is over then, where it is not the long one.
    int settle();

    bool isPredictable() const { return registry_.machine().isPredictable(); }
    const std::vector<ModelEntry>& entries() const { return registry_.entries(); }
    const ModelMachine& machine() const { return registry_.machine(); }
    const ModelTimes& times() const { return registry_.times(); }
    bool isAlive(ProcessNumber process) const { return machine().isAlive(process); }

    /// Processes that no entry names.
    std::vector<ProcessNumber> orphans() const;

    /// What is published of an entry's status.
    const ModelStatusText& publishedStatus(std::size_t index) const {
        return statusTexts_.at(index);
    }

    /// All that passes change, for people; supervision rests when it stays the same.
    std::string text() const;

private:
    ModelResult execute(const reqcmd& request);
    ModelResult start(const reqcmd& request);
    ModelResult stop(const reqcmd& request);
    ModelResult restart(const reqcmd& request);
    ModelResult stopMany(const reqcmd& request, const char* outcome, bool empties,
                         const ModelRegistry::Choice& choice);
    ModelResult restartMany(const reqcmd& request, const char* outcome, int failure,
                            const ModelRegistry::Choice& choice);

    void publish();
    std::optional<ModelEntry> adopt(const ModelEntry& published, const ModelStatusText& status);

    ModelRegistry registry_;
    reqcmd buffer_ = {};                       ///< what the last request has left
    std::vector<ModelStatusText> statusTexts_; ///< by position
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_MODEL_MONITOR_H
