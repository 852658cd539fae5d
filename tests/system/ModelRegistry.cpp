#include "tests/system/ModelRegistry.h"

#include <sstream>
#include <utility>

namespace systemtest {

bool ModelEntry::isConfirmedOn(const ModelMachine& machine) const {
    return machine.isConfirmed(pidfile, process, version);
}

int ModelRegistry::start(const std::string& sentName, ModelEntry entry) {
    (void)stop(sentName); // as the monitor ignores it
    for (const ModelEntry& other : entries_) {
        // Does a pass restart all before this one is registered?
        machine_.leaveOpenIf(other.restartType == RESTART_TYPE_ALL &&
                             machine_.hasJustBeenStopped(other.process) && !isInGrace(other));
    }
    const int result = launch(entry);
    workStatus_ = entry.status;
    if (result == 0) {
        // Is its pid file there when the launch is followed?
        machine_.leaveOpenIf(entry.pidfile.empty() && times_.erasesUnusable().value_or(true) &&
                             machine_.processes().at(entry.process).byConvention);
        entries_.push_back(std::move(entry));
    }
    return result;
}

int ModelRegistry::stop(const std::string& sentName) {
    workStatus_ = APP_STATUS_INITIALIZING;
    int result = kModelNotFound;
    for (auto entry = entries_.begin(); entry != entries_.end();) {
        if (entry->name == sentName) {
            result = stopProcess(*entry);
            entry = entries_.erase(entry);
        } else {
            ++entry;
        }
    }
    return result;
}

int ModelRegistry::restart(const std::string& sentName) {
    workStatus_ = APP_STATUS_INITIALIZING;
    int result = 0;
    for (ModelEntry& entry : entries_) {
        if (entry.name == sentName) {
            ModelEntry copy = entry;
            // The launch succeeds: nothing without a command is ever registered.
            const int stopped = restartProcess(copy);
            if (stopped == 0) {
                take(entry, copy);
                entry.hasPriority = copy.hasPriority;
            } else {
                result = stopped;
            }
        }
    }
    return result;
}

int ModelRegistry::stopMany(const Choice& choice, bool empties) {
    int result = 0;
    for (auto entry = entries_.end(); entry != entries_.begin();) {
        --entry;
        if (choice(*entry)) {
            result = stopProcess(*entry);
            entry = result == 0 ? entries_.erase(entry) : entry;
        }
    }
    if (empties) {
        entries_.clear();
    }
    return result;
}

int ModelRegistry::restartMany(const Choice& choice) {
    for (ModelEntry& entry : entries_) {
        if (choice(entry)) {
            ModelEntry copy = entry;
            const int result = restartProcess(copy);
            if (result == 0) {
                take(entry, copy);
            }
            entry.status = workStatus_;
            entry.hasPriority = false; // as in the work record, too
            if (result != 0) {
                return result;
            }
        }
    }
    return 0;
}

int ModelRegistry::launch(ModelEntry& entry) {
    if (entry.cmd.empty()) {
        entry.status = APP_STATUS_START_FAILURE;
        return kModelInvalid;
    }
    entry.process = machine_.launch(entry.cmd, entry.pidfile);
    entry.startSetting = times_.bootSetting();
    entry.status = APP_STATUS_STARTING0;
    entry.hasPriority = false;
    const bool hasPolicy =
        entry.restartType == RESTART_TYPE_SELF || entry.restartType == RESTART_TYPE_ALL;
    // Where its promise to beat is enough it is never confirmed, which has the boot reckoned anew.
    const bool mayTellTheBoot = tellsTheBoot(entry) && entry.heartbeat;
    const ProcessNumber launched = machine_.youngest();
    // Does the monitor learn the name before the grace is over?
    machine_.leaveOpenIf(machine_.processes().at(launched).byConvention &&
                         (hasPolicy || mayTellTheBoot) && !isInGrace(entry));
    if (entry.process != launched) {
        takePidFileName(entry);
    }
    return 0;
}

int ModelRegistry::stopProcess(ModelEntry& entry) {
    if (entry.status == APP_STATUS_STARTING0 && !entry.pidfile.empty() &&
        !machine_.isAlive(entry.process)) {
        machine_.leaveOpenIf(machine_.hasJustBeenStopped(entry.process)); // Is it gone already?
        return kModelStopFailed;
    }
    machine_.stop(entry.process, entry.name);
    entry.status = APP_STATUS_STOPPED;
    return 0;
}

int ModelRegistry::restartProcess(ModelEntry& entry) {
    if (entry.restartType == RESTART_TYPE_ALL) {
        restartAllRequested_ = true;
        return 0;
    }
    const int stopped = stopProcess(entry);
    return stopped != 0 ? stopped : launch(entry);
}

void ModelRegistry::takePidFileName(ModelEntry& entry) const {
    const std::string file = machine_.fileByConvention(entry.process);
    entry.pidfile = file.empty() ? entry.pidfile : file;
}

/// What a restart has made of a copy. The name of a pid file is lost; so is that a process has not
/// been given its priority, unless the caller takes that, too.
void ModelRegistry::take(ModelEntry& entry, const ModelEntry& copy) {
    entry.process = copy.process;
    entry.startSetting = copy.startSetting;
    entry.status = copy.status;
}

bool ModelRegistry::tellsTheBoot(const ModelEntry& entry) const {
    return entry.name == "data_server" && !hasDataServerRun_;
}

void ModelRegistry::begin(std::vector<ModelEntry> entries) {
    entries_ = std::move(entries);
    workStatus_ = APP_STATUS_INITIALIZING;
    restartAllRequested_ = false;
    hasDataServerRun_ = false;
}

std::string ModelRegistry::text() const {
    std::ostringstream stream;
    stream << "work record " << workStatus_ << (restartAllRequested_ ? ", restart all" : "")
           << (hasDataServerRun_ ? ", the data server has run" : "") << "\n";
    for (const ModelEntry& entry : entries_) {
        stream << "entry \"" << entry.name << "\" pid " << pidMark(entry.process) << " status "
               << entry.status << " pidfile \"" << entry.pidfile << "\" policy "
               << entry.restartType << " limit " << entry.lifeLimit << " heartbeat "
               << entry.heartbeat << " clock of the start " << entry.startSetting << " excess "
               << entry.excessSec << (entry.hasPriority ? ", has its priority" : "")
               << (entry.diedEarly ? ", died early" : "") << (entry.isInOrder ? ", in order" : "")
               << "\n";
    }
    return stream.str() + times_.text() + machine_.text();
}

} // namespace systemtest
