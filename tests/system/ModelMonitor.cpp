#include "tests/system/ModelMonitor.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace systemtest {
namespace {

/// More than any chain of consequences that comes to an end.
constexpr int kMostPasses = 12;

bool isPublished(int status) {
    return status >= APP_STATUS_STARTING0 && status <= APP_STATUS_STOPPED;
}

} // namespace

void ModelMonitor::crash(ProcessNumber process) {
    ModelMachine& machine = registry_.machine();
    const ModelProcess& ended = machine.processes().at(process);
    for (const ModelEntry& entry : entries()) {
        // Has the monitor learned the name before?
        machine.leaveOpenIf(entry.process == process && ended.byConvention &&
                            entry.pidfile != ended.pidFile);
    }
    machine.end(process);
}

void ModelMonitor::loseHeartbeat(ProcessNumber process, Beat beat) {
    registry_.machine().loseHeartbeat(process, beat);
}

void ModelMonitor::writePidFile(const ModelEntry& entry) {
    registry_.machine().writePidFile(entry.pidfile, entry.process, entry.version);
}

int ModelMonitor::settle() {
    for (int passes = 1; passes <= kMostPasses; ++passes) {
        const std::string before = text();
        registry_.pass();
        publish();
        if (text() == before) {
            registry_.machine().rest();
            return passes;
        }
    }
    registry_.machine().leaveOpenIf(true);
    return kMostPasses;
}

void ModelMonitor::publish() {
    statusTexts_.resize(std::max(statusTexts_.size(), entries().size()));
    for (std::size_t index = 0; index < entries().size(); ++index) {
        const ModelEntry& entry = entries()[index];
        ModelStatusText& status = statusTexts_[index];
        if (isPublished(entry.status)) {
            status = {OVARD_APP_STATUS_STR[entry.status]};
        } else if (entry.diedEarly && status.text != OVARD_APP_STATUS_STR[APP_STATUS_STARTING0]) {
            status.orStarting = true;
        }
    }
}

void ModelMonitor::begin(const ModelOptions& options) {
    registry_.times().beginMonitor(options.longGrace);
    buffer_ = {};
    std::vector<ModelEntry> adopted;
    for (std::size_t index = 0; options.discovers && index < entries().size(); ++index) {
        if (const auto entry = adopt(entries()[index], statusTexts_[index])) {
            adopted.push_back(*entry);
        }
    }
    if (!options.discovers) {
        statusTexts_.clear();
    }
    registry_.begin(std::move(adopted));
}

/// What the new monitor makes of a published application; none where no process is left of it.
std::optional<ModelEntry> ModelMonitor::adopt(const ModelEntry& published,
                                              const ModelStatusText& status) {
    ModelMachine& machine = registry_.machine();
    ModelEntry entry = published;
    entry.name = published.name.substr(0, kModelPublishedText);
    entry.version = published.version.substr(0, kModelPublishedText);
    const std::int64_t bootSetting = times().bootSetting();
    const bool fits = machine.isAlive(entry.process) &&
                      machine.processes().at(entry.process).isCopyOf(entry.name) &&
                      entry.startSetting == bootSetting; // else its start is not that published
    if (!fits) {
        entry.process = machine.copyOf(entry.name);
    }
    if (entry.process == 0) {
        return std::nullopt;
    }
    machine.leaveOpenIf(status.orStarting);
    const auto* const found =
        std::find(std::begin(OVARD_APP_STATUS_STR), std::end(OVARD_APP_STATUS_STR), status.text);
    entry.status = found != std::end(OVARD_APP_STATUS_STR)
                       ? static_cast<int>(found - std::begin(OVARD_APP_STATUS_STR))
                       : APP_STATUS_INITIALIZING;
    const bool hasPortText = entry.portType > PORT_TYPE_NONE && entry.portType <= PORT_TYPE_ETH;
    entry.portType = hasPortText ? entry.portType : PORT_TYPE_NONE;
    entry.cmd = machine.processes().at(entry.process).command;
    entry.heartbeat = false;
    entry.hasPriority = false;
    entry.startSetting = bootSetting;
    entry.pidfile = machine.fileByConvention(entry.process);
    return entry;
}

std::vector<ProcessNumber> ModelMonitor::orphans() const {
    std::vector<ProcessNumber> found;
    for (const auto& process : machine().processes()) {
        const auto isIts = [&](const ModelEntry& entry) { return entry.process == process.first; };
        if (std::none_of(entries().begin(), entries().end(), isIts)) {
            found.push_back(process.first);
        }
    }
    return found;
}

std::string ModelMonitor::text() const {
    std::string text = registry_.text();
    for (const ModelStatusText& status : statusTexts_) {
        text += "status text " + status.text + (status.orStarting ? ", or of a start" : "") + "\n";
    }
    return text;
}

} // namespace systemtest
