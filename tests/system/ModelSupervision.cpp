// The model's supervision passes, and what a new monitor takes over.

#include <algorithm>
#include <iterator>

#include "tests/system/ModelRegistry.h"

namespace systemtest {
namespace {

/// More than any chain of consequences that comes to an end.
constexpr int kMostPasses = 12;

/// How long young applications are left alone at most.
constexpr std::int64_t kHourSec = 3600;

/// How long entries without a pid file are kept.
constexpr std::int64_t kFirstPhaseSec = 30;

/// What is published of a text.
constexpr std::size_t kPublishedText = 31;

bool isPublished(int status) {
    return status >= APP_STATUS_STARTING0 && status <= APP_STATUS_STOPPED;
}

bool isStarted(int status) {
    return status >= APP_STATUS_STARTING0 && status <= APP_STATUS_RUNNING;
}

} // namespace

void RegistryModel::settle() {
    for (int passes = 0; passes < kMostPasses; ++passes) {
        const std::string before = text();
        pass();
        if (text() == before) {
            lastSettled_ = lastProcess_;
            justEnded_.clear();
            lingering_.clear();
            return;
        }
    }
    isPredictable_ = false;
}

/// Whether entries without a pid file are erased; open where that hangs on how long the monitor
/// has run. By a clock that was set back its main loop has not begun yet, and they are.
std::optional<bool> RegistryModel::erasesUnusable() const {
    const std::int64_t excessSec = setting_ - loopSetting_;
    if (excessSec == 0) {
        return isFirstPhaseOver_;
    }
    if (excessSec >= kFirstPhaseSec || excessSec <= -kHourSec) {
        return true;
    }
    return std::nullopt;
}

/// An entry is left alone since it was started a moment ago, by the clock.
bool RegistryModel::isInGrace(const ModelEntry& entry) {
    if (!monitor_.longGrace) {
        return false; // It is over before supervision is at rest.
    }
    const std::int64_t excessSec = setting_ - entry.startSetting;
    if (excessSec < 0 && excessSec > -kHourSec) {
        isPredictable_ = false; // Has the clock reached its start?
    }
    return excessSec >= 0 && excessSec < kHourSec;
}

void RegistryModel::pass() {
    const std::optional<bool> erases = erasesUnusable();
    for (auto entry = entries_.begin(); entry != entries_.end();) {
        entry->isInOrder = false;
        if (entry->pidfile.empty()) {
            isPredictable_ = isPredictable_ && erases.has_value();
            if (erases.value_or(true)) {
                entry = entries_.erase(entry);
                continue;
            }
        }
        if (!entry->pidfile.empty() && !check(*entry)) {
            handleFailure(*entry);
        } else if (isStarted(entry->status)) {
            entry->isInOrder = true;
            entry->excessSec = setting_ - entry->startSetting;
            takePidFileName(*entry);
        }
        ++entry;
    }
    if (restartAllRequested_) {
        restartAll();
    }
    publish();
}

/// One step of the state machine; true when the entry is in order.
bool RegistryModel::check(ModelEntry& entry) {
    switch (entry.status) {
    case APP_STATUS_INITIALIZING:
    case APP_STATUS_STARTING0:
    case APP_STATUS_STARTING:
    case APP_STATUS_RUNNING0:
        return isInGrace(entry) || checkStart(entry);
    case APP_STATUS_RUNNING:
        return isInGrace(entry) || checkRunning(entry);
    case APP_STATUS_DEAD:
    case APP_STATUS_START_FAILURE:
        if (!isAlive(entry.process)) {
            return false;
        }
        entry.status = isConfirmed(entry) ? APP_STATUS_RUNNING : APP_STATUS_RUNNING0;
        return true;
    default:
        return false;
    }
}

bool RegistryModel::checkStart(ModelEntry& entry) {
    const bool isFirst =
        entry.status == APP_STATUS_INITIALIZING || entry.status == APP_STATUS_STARTING0;
    if (!isAlive(entry.process)) {
        entry.diedEarly = entry.status == APP_STATUS_STARTING0;
        entry.status =
            entry.status == APP_STATUS_RUNNING0 ? APP_STATUS_DEAD : APP_STATUS_START_FAILURE;
        return false;
    }
    if (isConfirmed(entry)) {
        entry.status = isFirst ? APP_STATUS_STARTING : APP_STATUS_RUNNING;
        if (entry.name == "data_server" && !hasDataServerRun_) {
            hasDataServerRun_ = true;
            bootSetting_ = setting_;
        }
        return true;
    }
    const bool isEnough = entry.status == APP_STATUS_RUNNING0 && entry.heartbeat;
    entry.status = isEnough ? APP_STATUS_RUNNING : APP_STATUS_RUNNING0;
    return !isFirst;
}

bool RegistryModel::checkRunning(ModelEntry& entry) {
    if (!isAlive(entry.process)) {
        entry.status = APP_STATUS_DEAD;
        return false;
    }
    const Beat beat = processes_.at(entry.process).beat;
    if (beat == Beat::Expired) {
        entry.status = APP_STATUS_DEAD;
        return false;
    }
    return beat == Beat::Fresh || !entry.heartbeat;
}

void RegistryModel::handleFailure(ModelEntry& entry) {
    if (entry.restartType == RESTART_TYPE_SELF) {
        if (restartProcess(entry) == 0) {
            entry.status = APP_STATUS_STARTING0;
        }
    } else if (entry.restartType == RESTART_TYPE_ALL) {
        // The limits are either none or longer than anything lives here.
        if (entry.status == APP_STATUS_START_FAILURE || entry.lifeLimit == 0 ||
            entry.lifeLimit <= entry.excessSec) {
            isPredictable_ = false; // The machine restarts.
        }
        restartAllRequested_ = true;
    }
}

void RegistryModel::restartAll() {
    restartAllRequested_ = false;
    for (std::size_t index = entries_.size(); index-- > 1;) { // the first one is spared
        (void)stopProcess(entries_[index]);                   // started anew in any case
    }
    for (ModelEntry& entry : entries_) {
        ModelEntry copy = entry;
        (void)launch(copy); // succeeds: nothing without a command is ever registered
        entry.process = copy.process;
        entry.startSetting = copy.startSetting;
        entry.status = copy.status;
    }
}

void RegistryModel::publish() {
    statusTexts_.resize(std::max(statusTexts_.size(), entries_.size()), "");
    for (std::size_t index = 0; index < entries_.size(); ++index) {
        ModelEntry& entry = entries_[index];
        std::optional<std::string>& status = statusTexts_[index];
        const char* const starting = OVARD_APP_STATUS_STR[APP_STATUS_STARTING0];
        if (isPublished(entry.status)) {
            status = OVARD_APP_STATUS_STR[entry.status];
        } else if (entry.diedEarly && status != starting) {
            status.reset(); // Was there a pass before it died?
        }
        entry.diedEarly = false;
    }
}

void RegistryModel::startMonitor(const ModelMonitor& monitor) {
    const std::vector<ModelEntry> published = std::move(entries_);
    monitor_ = monitor;
    loopSetting_ = setting_;
    bootSetting_ = setting_;
    hasDataServerRun_ = false;
    isFirstPhaseOver_ = false;
    restartAllRequested_ = false;
    workStatus_ = APP_STATUS_INITIALIZING;
    buffer_ = {};
    entries_.clear();
    if (!monitor.discovers) {
        statusTexts_.clear();
        return;
    }
    for (std::size_t index = 0; index < published.size(); ++index) {
        adopt(published[index], statusTexts_[index]);
    }
}

void RegistryModel::adopt(const ModelEntry& published, const std::optional<std::string>& status) {
    ModelEntry entry = published;
    entry.name = published.name.substr(0, kPublishedText);
    entry.version = published.version.substr(0, kPublishedText);
    const auto isCopy = [&](const ModelProcess& process) { return process.isCopyOf(entry.name); };
    const bool fits = isAlive(entry.process) && isCopy(processes_.at(entry.process)) &&
                      entry.startSetting == bootSetting_; // else its start is not that published
    if (!fits) {
        entry.process = oldest(isCopy);
    }
    if (entry.process == 0) {
        return;
    }
    isPredictable_ = isPredictable_ && status.has_value();
    const auto* const found = std::find(std::begin(OVARD_APP_STATUS_STR),
                                        std::end(OVARD_APP_STATUS_STR), status.value_or(""));
    entry.status = found != std::end(OVARD_APP_STATUS_STR)
                       ? static_cast<int>(found - std::begin(OVARD_APP_STATUS_STR))
                       : APP_STATUS_INITIALIZING;
    const bool hasPortText = entry.portType > PORT_TYPE_NONE && entry.portType <= PORT_TYPE_ETH;
    entry.portType = hasPortText ? entry.portType : PORT_TYPE_NONE;
    entry.cmd = processes_.at(entry.process).command;
    entry.heartbeat = false;
    entry.startSetting = bootSetting_;
    entry.pidfile.clear();
    takePidFileName(entry);
    entries_.push_back(entry);
}

} // namespace systemtest
