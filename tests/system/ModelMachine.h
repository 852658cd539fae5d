// The machine of the model: processes and their pid files. A model only: nothing of it runs.

#ifndef OVARD_TESTS_SYSTEM_MODEL_MACHINE_H
#define OVARD_TESTS_SYSTEM_MODEL_MACHINE_H

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

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
    bool byConvention = false; ///< the pid file has the name by which the monitor looks for it
    bool obeys = true;         ///< ends when it is asked to, and removes its pid file then
    Beat beat = Beat::Missing;
    std::optional<int> nice; ///< that it was given; else the monitor's own

    /// It is taken for a process of an application of that name.
    bool isCopyOf(const std::string& name) const;
};

/// Pid files: path, and the process and the version that are in them.
using ModelFiles = std::map<std::string, std::pair<ProcessNumber, std::string>>;

/// Processes of the sample application. Where the time between two events decides what comes of
/// them, isPredictable turns false for good.
class ModelMachine {
public:
    /// Removes the pid file that is expected and launches a command, which is not empty. Returns
    /// the process that the search behind a launch takes for it.
    ProcessNumber launch(const std::string& command, const std::string& expectedFile);

    /// Ends a process, if it lives, and all others that are taken for an application of that name.
    void stop(ProcessNumber process, const std::string& name);

    /// A process ends by itself.
    void end(ProcessNumber process);

    /// A process stands still from now on, and its last beat is old or forgotten.
    void loseHeartbeat(ProcessNumber process, Beat beat);

    /// A process gets a priority.
    void setNice(ProcessNumber process, int nice) { processes_.at(process).nice = nice; }

    /// A pid file with these contents is there now.
    void writePidFile(const std::string& path, ProcessNumber process, const std::string& version) {
        files_[path] = {process, version};
    }

    /// Time goes by: all that takes a process a moment is done.
    void rest();

    /// What comes next is open, if that holds.
    void leaveOpenIf(bool isOpen) { isPredictable_ = isPredictable_ && !isOpen; }

    bool isPredictable() const { return isPredictable_; }
    const std::map<ProcessNumber, ModelProcess>& processes() const { return processes_; }
    bool isAlive(ProcessNumber process) const { return processes_.count(process) == 1; }

    /// The last one that was launched.
    ProcessNumber youngest() const { return lastProcess_; }

    /// The first process that is taken for one of an application of that name; 0: none.
    ProcessNumber copyOf(const std::string& name) const;

    /// The monitor has ended it since the last rest.
    bool hasJustBeenStopped(ProcessNumber process) const {
        return justStopped_.count(process) != 0;
    }

    /// The pid file names the process, and that version; an empty one stands for any.
    bool isConfirmed(const std::string& path, ProcessNumber process,
                     const std::string& version) const;

    /// The pid file of a process that the monitor finds by its name; empty: none is there.
    std::string fileByConvention(ProcessNumber process) const;

    /// All that passes change, for people.
    std::string text() const;

private:
    ProcessNumber oldest(const std::function<bool(const ModelProcess&)>& condition) const;

    std::map<ProcessNumber, ModelProcess> processes_;
    ModelFiles files_;
    ProcessNumber lastProcess_ = 0;
    ProcessNumber lastRested_ = 0; ///< the youngest one that has written its pid file for sure
    std::set<ProcessNumber> justStopped_; ///< by the monitor since the last rest
    std::set<std::string> lingering_;     ///< commands of those whose end it does not wait for
    bool isPredictable_ = true;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_MODEL_MACHINE_H
