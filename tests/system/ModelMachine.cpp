#include "tests/system/ModelMachine.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <optional>
#include <sstream>
#include <vector>

namespace systemtest {
namespace {

/// What the kernel keeps of a program's name.
constexpr std::size_t kProcessName = 15;

/// What stands in the pid files of the sample application.
constexpr const char* kVersion = "1.0";

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
    process.obeys = !optionIn(words, "--ignore-term");
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

ProcessNumber ModelMachine::launch(const std::string& command, const std::string& expectedFile) {
    files_.erase(expectedFile);
    const ProcessNumber launched = ++lastProcess_;
    const ModelProcess process = processOf(command, launched);
    processes_[launched] = process;
    if (!process.pidFile.empty()) {
        files_[process.pidFile] = {launched, kVersion};
        for (auto other = processes_.upper_bound(lastRested_); other->first != launched; ++other) {
            // Which of the two writes the file last?
            leaveOpenIf(other->second.pidFile == process.pidFile);
        }
    }
    leaveOpenIf(lingering_.count(process.command) != 0); // Gone, or found once more?
    // The search takes the first process with that command line.
    return oldest([&](const ModelProcess& other) { return other.command == process.command; });
}

void ModelMachine::stop(ProcessNumber process, const std::string& name) {
    std::set<std::string> removed;
    const auto stopOne = [&](ProcessNumber one) {
        if (processes_.at(one).obeys) {
            removed.insert(processes_.at(one).pidFile);
        }
        justStopped_.insert(one);
        end(one);
    };
    if (isAlive(process)) {
        if (!processes_.at(process).isCopyOf(name)) {
            lingering_.insert(processes_.at(process).command); // A copy would be waited for.
        }
        stopOne(process);
    }
    while (const ProcessNumber copy = copyOf(name)) {
        stopOne(copy);
    }
    // What is another one's now is not removed if it was killed before it could do so.
    leaveOpenIf(std::any_of(removed.begin(), removed.end(),
                            [&](const std::string& path) { return files_.count(path) != 0; }));
}

void ModelMachine::loseHeartbeat(ProcessNumber process, Beat beat) {
    processes_.at(process).beat = beat;
    processes_.at(process).obeys = false;
}

/// A pid file that names no process any more confirms nothing, so it may go too.
void ModelMachine::end(ProcessNumber process) {
    processes_.erase(process);
    for (auto file = files_.begin(); file != files_.end();) {
        file = file->second.first == process ? files_.erase(file) : std::next(file);
    }
}

void ModelMachine::rest() {
    lastRested_ = lastProcess_;
    justStopped_.clear();
    lingering_.clear();
}

ProcessNumber ModelMachine::copyOf(const std::string& name) const {
    return oldest([&](const ModelProcess& process) { return process.isCopyOf(name); });
}

bool ModelMachine::isConfirmed(const std::string& path, ProcessNumber process,
                               const std::string& version) const {
    const auto file = files_.find(path);
    return file != files_.end() && file->second.first == process &&
           (version.empty() || file->second.second == version);
}

std::string ModelMachine::fileByConvention(ProcessNumber process) const {
    const auto found = processes_.find(process);
    const bool isThere = found != processes_.end() && found->second.byConvention &&
                         files_.count(found->second.pidFile) != 0;
    return isThere ? found->second.pidFile : "";
}

ProcessNumber
ModelMachine::oldest(const std::function<bool(const ModelProcess&)>& condition) const {
    const auto found =
        std::find_if(processes_.begin(), processes_.end(),
                     [&](const auto& numbered) { return condition(numbered.second); });
    return found != processes_.end() ? found->first : 0;
}

std::string ModelMachine::text() const {
    std::ostringstream stream;
    for (const auto& [number, process] : processes_) {
        stream << "process " << pidMark(number) << " beat " << static_cast<int>(process.beat)
               << " nice " << (process.nice ? std::to_string(*process.nice) : "of the monitor")
               << " " << process.command << "\n";
    }
    for (const auto& [path, content] : files_) {
        stream << "file " << path << ": " << pidMark(content.first) << " " << content.second
               << "\n";
    }
    return stream.str();
}

} // namespace systemtest
