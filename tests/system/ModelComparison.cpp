// What must be the same in the monitor and in the model of it.

#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <set>

#include "tests/system/AdoptionSupport.h"
#include "tests/system/ModelWorld.h"

namespace systemtest {
namespace {

/// Published start times are reckoned in whole seconds.
constexpr std::int64_t kStartToleranceSec = 2;

/// Published uptimes are those of the last pass; it may have taken a second for each entry.
constexpr std::int64_t kUptimeToleranceSec = 20;

constexpr const char* kHome = "/home/kelvo/";

/// Those that have gone into the background.
std::vector<pid_t> applicationProcesses() {
    std::vector<pid_t> found;
    for (const pid_t pid : allProcesses()) {
        const bool isInBackground = processFacts(pid).session == pid;
        if (isInBackground && commandLineOf(pid).find(kHome) == 0) {
            found.push_back(pid);
        }
    }
    return found;
}

const char* portText(int type) {
    const bool isKnown = type >= PORT_TYPE_NONE && type <= PORT_TYPE_ETH;
    return PORT_TYPE_STR[isKnown ? type : PORT_TYPE_NONE];
}

template <typename Thing>
std::string unlike(const char* what, const Thing& expected, const Thing& found) {
    return std::string(what) + "\n  expected: " + testing::PrintToString(expected) +
           "\n  found:    " + testing::PrintToString(found) + "\n";
}

} // namespace

std::string ModelWorld::difference() {
    if (!recognizeProcesses()) {
        return differentProcesses();
    }
    std::string different = differentSegment(); // learns pids that the others need
    different += differentRegistry();
    different += differentPriorities();
    return different;
}

/// Learns the pids of launched processes: those with the same command line were launched in the
/// order of their pids. True when all that live are known, and no others are there.
bool ModelWorld::recognizeProcesses() {
    std::set<pid_t> known;
    for (const auto& numbered : pids_) {
        known.insert(numbered.second);
    }
    std::vector<pid_t> present = applicationProcesses();
    for (const auto& [number, process] : model_.machine().processes()) {
        const pid_t own = pidOf(number);
        const std::string& command = process.command;
        const auto found = std::find_if(present.begin(), present.end(), [&](pid_t pid) {
            return own != 0 ? pid == own : known.count(pid) == 0 && commandLineOf(pid) == command;
        });
        if (found == present.end()) {
            return false;
        }
        pids_[number] = *found;
        known.insert(*found);
        present.erase(found);
    }
    return present.empty();
}

/// Ids are used again; what the registry names is kept.
void ModelWorld::forgetProcesses() {
    const std::vector<ModelEntry>& entries = model_.entries();
    for (auto known = pids_.begin(); known != pids_.end();) {
        const ProcessNumber number = known->first;
        const auto names = [&](const ModelEntry& entry) {
            return entry.process == number ||
                   entry.pidfile.find(pidMark(number)) != std::string::npos;
        };
        const bool isNeeded =
            model_.isAlive(number) || std::any_of(entries.begin(), entries.end(), names);
        known = isNeeded ? std::next(known) : pids_.erase(known);
    }
}

std::string ModelWorld::differentProcesses() const {
    std::vector<std::string> expected;
    for (const auto& [number, process] : model_.machine().processes()) {
        expected.push_back(resolved(pidMark(number)) + " " + process.command);
    }
    std::vector<std::string> found;
    for (const pid_t pid : applicationProcesses()) {
        found.push_back(std::to_string(pid) + " " + commandLineOf(pid));
    }
    return unlike("processes", expected, found);
}

/// Where the monitor has no right to raise a priority, none is compared.
std::string ModelWorld::differentPriorities() const {
    std::string different;
    for (const auto& [number, process] : model_.machine().processes()) {
        const int expected = process.nice.value_or(inheritedNice_);
        const int found = ::getpriority(PRIO_PROCESS, static_cast<id_t>(pidOf(number)));
        if (inheritedNice_ < 0 && found != expected) {
            different += unlike("priority", expected, found) + resolved(pidMark(number)) + "\n";
        }
    }
    return different;
}

std::string ModelWorld::differentSegment() {
    const auto count = static_cast<std::int32_t>(model_.entries().size());
    if (publishedCount() != count) {
        return unlike("published applications", count, publishedCount());
    }
    const std::vector<PublishedApp> found = publishedApps();
    std::vector<PublishedApp> expected;
    for (std::size_t index = 0; index < found.size(); ++index) {
        const ProcessNumber process = model_.entries()[index].process;
        if (!model_.isAlive(process) && found[index].pid > 0 && !isKnown(found[index].pid)) {
            // It has come and gone since the last comparison.
            (void)pids_.emplace(process, found[index].pid);
        }
        expected.push_back(expectedRecord(index, found[index]));
    }
    if (expected != found) {
        return unlike("segment", expected, found);
    }
    std::string uptimes;
    for (std::size_t index = 0; index < found.size(); ++index) {
        uptimes += differentUptime(index, found[index]);
    }
    return uptimes;
}

/// What is published while nothing is wrong with an application.
std::string ModelWorld::differentUptime(std::size_t index, const PublishedApp& found) const {
    const ModelEntry& entry = model_.entries()[index];
    if (!entry.isInOrder || !model_.isAlive(entry.process)) {
        return "";
    }
    const std::int64_t lifeSec = std::time(nullptr) - startSecOf(found.pid);
    const std::int64_t expected = lifeSec + entry.excessSec;
    const std::int64_t published = static_cast<std::int32_t>(found.uptimeSec);
    const bool isNear = std::abs(published - expected) <= kUptimeToleranceSec;
    return isNear ? "" : unlike("uptime", expected, published);
}

std::string ModelWorld::differentRegistry() const {
    std::vector<std::string> expected;
    for (const ModelEntry& entry : model_.entries()) {
        expected.push_back(expectedEntry(entry));
    }
    return expected == console_.registry() ? "" : unlike("registry", expected, console_.registry());
}

/// What must be published of an entry; where the model leaves it open, what is published.
PublishedApp ModelWorld::expectedRecord(std::size_t index, const PublishedApp& found) const {
    const ModelEntry& entry = model_.entries()[index];
    const pid_t pid = pidOf(entry.process);
    PublishedApp app;
    app.name = entry.name.substr(0, kModelPublishedText);
    app.version = entry.version.substr(0, kModelPublishedText);
    app.pid = pid;
    const ModelStatusText& status = model_.publishedStatus(index);
    const std::string starting = OVARD_APP_STATUS_STR[APP_STATUS_STARTING0];
    app.status = status.orStarting && found.status == starting ? starting : status.text;
    app.nice = entry.priority;
    app.restartType = entry.restartType;
    app.lifeLimit = entry.lifeLimit;
    app.portType = portText(entry.portType);
    app.portNumber = entry.portNumber;
    const bool isAlive = model_.isAlive(entry.process);
    const std::int64_t startSec = isAlive ? startSecOf(pid) + entry.startSetting : 0;
    const bool isNear = std::abs(found.startMs / 1000 - startSec) <= kStartToleranceSec;
    app.startMs = !isAlive || isNear ? found.startMs : startSec * 1000;
    return app;
}

std::string ModelWorld::expectedEntry(const ModelEntry& entry) const {
    return "\tname = " + entry.name + "\n\tversion = " + entry.version + "\n\tcmd = \"" +
           entry.cmd + "\"\n\tpidfile = \"" + resolved(entry.pidfile) +
           "\"\n\tpid = " + std::to_string(pidOf(entry.process)) +
           "\n\tstatus = " + std::to_string(entry.status) +
           "\n\tport_type = " + std::to_string(entry.portType) +
           "\n\tport_num = " + std::to_string(entry.portNumber) +
           "\n\tpriority = " + std::to_string(entry.priority) +
           "\n\trestart_type = " + std::to_string(entry.restartType) +
           "\n\tlast_runtime_life_limit = " + std::to_string(entry.lifeLimit) + "\n";
}

pid_t ModelWorld::pidOf(ProcessNumber process) const {
    const auto found = pids_.find(process);
    return found != pids_.end() ? found->second : 0;
}

/// It is that of a process of the model.
bool ModelWorld::isKnown(pid_t pid) const {
    return std::any_of(pids_.begin(), pids_.end(),
                       [pid](const auto& numbered) { return numbered.second == pid; });
}

/// A text of the model with pids in place of the marks.
std::string ModelWorld::resolved(std::string text) const {
    for (const auto& [number, pid] : pids_) {
        const std::string mark = pidMark(number);
        for (std::size_t at = text.find(mark); at != std::string::npos; at = text.find(mark)) {
            text.replace(at, mark.size(), std::to_string(pid));
        }
    }
    return text;
}

} // namespace systemtest
