#include "tests/system/ModelRegistry.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <sstream>

namespace systemtest {
namespace {

/// What the kernel keeps of a program's name.
constexpr std::size_t kProcessName = 15;

std::vector<std::string> wordsOf(const std::string& command) {
    std::vector<std::string> words;
    std::size_t begin = command.find_first_not_of(" \t\v\f");
    while (begin != std::string::npos) {
        const std::size_t end = std::min(command.find_first_of(" \t\v\f", begin), command.size());
        words.push_back(command.substr(begin, end - begin));
        begin = command.find_first_not_of(" \t\v\f", end);
    }
    return words;
}

/// The value of an option of the sample application.
std::optional<std::string> optionIn(const std::vector<std::string>& words, const char* name) {
    const auto at = std::find(words.begin(), words.end(), name);
    if (at == words.end()) {
        return std::nullopt;
    }
    return std::next(at) != words.end() ? *std::next(at) : "";
}

/// The sample application that a command makes of itself.
ModelProcess processOf(const std::string& command, ProcessNumber number) {
    const std::vector<std::string> words = wordsOf(command);
    ModelProcess process;
    process.program = words.at(0);
    process.command = words.at(0);
    for (std::size_t index = 1; index < words.size(); ++index) {
        process.command += " " + words[index];
    }
    const auto exact = optionIn(words, "--exact-pidfile");
    process.byConvention = !exact && !optionIn(words, "--no-pidfile");
    process.pidFile = process.byConvention
                          ? "/tmp/pid" + process.program + ".pid." + pidMark(number)
                          : exact.value_or("");
    process.version = optionIn(words, "--version").value_or("1.0");
    process.beat = optionIn(words, "--heartbeat") ? Beat::Fresh : Beat::Missing;
    return process;
}

} // namespace

std::string pidMark(ProcessNumber process) {
    return "<" + std::to_string(process) + ">";
}

bool ModelProcess::isCopyOf(const std::string& name) const {
    const std::string file = program.substr(program.rfind('/') + 1);
    return file.substr(0, kProcessName) == name.substr(0, kProcessName);
}

ProcessNumber
RegistryModel::oldest(const std::function<bool(const ModelProcess&)>& condition) const {
    const auto found =
        std::find_if(processes_.begin(), processes_.end(),
                     [&](const auto& numbered) { return condition(numbered.second); });
    return found != processes_.end() ? found->first : 0;
}

int RegistryModel::launch(ModelEntry& entry) {
    if (entry.cmd.empty()) {
        entry.status = APP_STATUS_START_FAILURE;
        return kModelInvalid;
    }
    files_.erase(entry.pidfile);
    const ProcessNumber launched = ++lastProcess_;
    const ModelProcess& process = processes_[launched] = processOf(entry.cmd, launched);
    if (!process.pidFile.empty()) {
        files_[process.pidFile] = {launched, process.version};
        for (auto other = processes_.upper_bound(lastSettled_); other->first != launched; ++other) {
            // Which of the two writes the file last?
            isPredictable_ = isPredictable_ && other->second.pidFile != process.pidFile;
        }
    }
    if (lingering_.count(process.command) != 0) {
        isPredictable_ = false; // Is the killed one gone, or found once more?
    }
    // The search that follows a launch takes the first process with that command line.
    entry.process =
        oldest([&](const ModelProcess& other) { return other.command == process.command; });
    entry.startSetting = bootSetting_; // It is reckoned from the boot on, whatever time it is now.
    entry.status = APP_STATUS_STARTING0;
    const bool isRestarted =
        entry.restartType == RESTART_TYPE_SELF || entry.restartType == RESTART_TYPE_ALL;
    // Where its promise to beat is enough it is never confirmed, which has the boot reckoned anew.
    const bool tellsTheBoot = entry.name == "data_server" && !hasDataServerRun_ && entry.heartbeat;
    if (process.byConvention && (isRestarted || tellsTheBoot) && !isInGrace(entry)) {
        isPredictable_ = false; // Does the monitor learn the name before the grace is over?
    }
    if (entry.process != launched) {
        takePidFileName(entry);
    }
    return 0;
}

int RegistryModel::stopProcess(ModelEntry& entry) {
    if (entry.status == APP_STATUS_STARTING0 && !entry.pidfile.empty() && !isAlive(entry.process)) {
        if (justEnded_.count(entry.process) != 0) {
            isPredictable_ = false; // Is it gone already?
        }
        return kModelStopFailed;
    }
    std::set<std::string> removed; // An application that is asked to end removes its pid file.
    const auto end = [&](ProcessNumber process) {
        removed.insert(processes_.at(process).pidFile);
        justEnded_.insert(process);
        endProcess(process);
    };
    if (isAlive(entry.process)) {
        const ModelProcess& process = processes_.at(entry.process);
        if (!process.isCopyOf(entry.name)) {
            lingering_.insert(process.command); // A copy would have been waited for.
        }
        end(entry.process);
    }
    const auto isCopy = [&](const ModelProcess& process) { return process.isCopyOf(entry.name); };
    while (const ProcessNumber copy = oldest(isCopy)) {
        end(copy);
    }
    entry.status = APP_STATUS_STOPPED;
    if (std::any_of(removed.begin(), removed.end(),
                    [&](const std::string& path) { return files_.count(path) != 0; })) {
        isPredictable_ = false; // It is another one's, and not removed if the end was a kill.
    }
    return 0;
}

int RegistryModel::restartProcess(ModelEntry& entry) {
    if (entry.restartType == RESTART_TYPE_ALL) {
        restartAllRequested_ = true;
        return 0;
    }
    const int stopped = stopProcess(entry);
    return stopped != 0 ? stopped : launch(entry);
}

/// A pid file that names no process any more confirms nothing, so it may go too.
void RegistryModel::endProcess(ProcessNumber process) {
    processes_.erase(process);
    for (auto file = files_.begin(); file != files_.end();) {
        file = file->second.first == process ? files_.erase(file) : std::next(file);
    }
}

void RegistryModel::crash(ProcessNumber process) {
    const bool hasPidFile = processes_.at(process).byConvention;
    const std::string pidFile = processes_.at(process).pidFile;
    for (const ModelEntry& entry : entries_) {
        if (entry.process == process && hasPidFile && entry.pidfile != pidFile) {
            isPredictable_ = false; // Has the monitor learned the name before?
        }
    }
    endProcess(process);
}

void RegistryModel::writePidFile(const ModelEntry& entry) {
    files_[entry.pidfile] = {entry.process, entry.version};
}

void RegistryModel::takePidFileName(ModelEntry& entry) const {
    const auto process = processes_.find(entry.process);
    if (process != processes_.end() && process->second.byConvention &&
        files_.count(process->second.pidFile) != 0) {
        entry.pidfile = process->second.pidFile;
    }
}

bool RegistryModel::isConfirmed(const ModelEntry& entry) const {
    const auto file = files_.find(entry.pidfile);
    return file != files_.end() && file->second.first == entry.process &&
           (entry.version.empty() || file->second.second == entry.version);
}

std::vector<ProcessNumber> RegistryModel::orphans() const {
    std::vector<ProcessNumber> found;
    for (const auto& process : processes_) {
        if (std::none_of(entries_.begin(), entries_.end(),
                         [&](const ModelEntry& entry) { return entry.process == process.first; })) {
            found.push_back(process.first);
        }
    }
    return found;
}

std::string RegistryModel::text() const {
    std::ostringstream stream;
    stream << "grace " << (monitor_.longGrace ? "long" : "short") << ", "
           << (isFirstPhaseOver_ ? "later" : "first") << " phase, work record " << workStatus_
           << (restartAllRequested_ ? ", restart all" : "") << ", clock " << setting_
           << ", of the main loop " << loopSetting_ << ", of the boot time " << bootSetting_
           << "\n";
    for (std::size_t index = 0; index < entries_.size(); ++index) {
        const ModelEntry& entry = entries_[index];
        stream << "entry \"" << entry.name << "\" pid " << pidMark(entry.process) << " status "
               << entry.status << " pidfile \"" << entry.pidfile << "\" policy "
               << entry.restartType << " limit " << entry.lifeLimit << " heartbeat "
               << entry.heartbeat << " clock of the start " << entry.startSetting << " excess "
               << entry.excessSec << "\n";
    }
    for (const auto& [number, process] : processes_) {
        stream << "process " << pidMark(number) << " beat " << static_cast<int>(process.beat) << " "
               << process.command << "\n";
    }
    for (const auto& [path, content] : files_) {
        stream << "file " << path << ": " << pidMark(content.first) << " " << content.second
               << "\n";
    }
    for (const std::optional<std::string>& status : statusTexts_) {
        stream << "status text " << status.value_or("?") << "\n";
    }
    return stream.str();
}

} // namespace systemtest
