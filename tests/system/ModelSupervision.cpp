// What a supervision pass makes of the model's registry.

#include <cstddef>
#include <map>
#include <optional>

#include "tests/system/ModelRegistry.h"

namespace systemtest {
namespace {

/// What a pass makes of a status, and whether the entry is in order.
struct Outcome {
    int status;
    bool isInOrder;
};

/// By what is seen of the process: it is gone; it lives, but is not what was promised; it is.
struct Rule {
    Outcome gone;
    Outcome doubtful;
    Outcome trusted;
};

constexpr Outcome kStartFailure = {APP_STATUS_START_FAILURE, false};
constexpr Outcome kDead = {APP_STATUS_DEAD, false};
constexpr Outcome kLate = {APP_STATUS_RUNNING0, false};
constexpr Outcome kSilent = {APP_STATUS_RUNNING, false};
constexpr Outcome kStarting = {APP_STATUS_STARTING, true};
constexpr Outcome kUnconfirmed = {APP_STATUS_RUNNING0, true};
constexpr Outcome kRunning = {APP_STATUS_RUNNING, true};

/// By the status before. What has another one is never in order.
const std::map<int, Rule> kRules = {
    {APP_STATUS_INITIALIZING, {kStartFailure, kLate, kStarting}},
    {APP_STATUS_STARTING0, {kStartFailure, kLate, kStarting}},
    {APP_STATUS_STARTING, {kStartFailure, kUnconfirmed, kRunning}},
    {APP_STATUS_RUNNING0, {kDead, kUnconfirmed, kRunning}},
    {APP_STATUS_RUNNING, {kDead, kSilent, kRunning}},
    {APP_STATUS_DEAD, {kDead, kUnconfirmed, kRunning}},
    {APP_STATUS_START_FAILURE, {kStartFailure, kUnconfirmed, kRunning}},
};

/// What the pass makes of an entry by its process, its pid file and its heartbeats.
Outcome outcomeOf(const ModelEntry& entry, const Rule& rule, const ModelMachine& machine) {
    if (!machine.isAlive(entry.process)) {
        return rule.gone;
    }
    bool isTrusted = entry.isConfirmedOn(machine);
    if (entry.status == APP_STATUS_RUNNING0) {
        isTrusted = isTrusted || entry.heartbeat; // the promise is enough
    } else if (entry.status == APP_STATUS_RUNNING) {
        const Beat beat = machine.processes().at(entry.process).beat;
        if (beat == Beat::Expired) {
            return rule.gone;
        }
        isTrusted = beat == Beat::Fresh || !entry.heartbeat;
    }
    return isTrusted ? rule.trusted : rule.doubtful;
}

} // namespace

void ModelRegistry::pass() {
    const std::optional<bool> erases = times_.erasesUnusable();
    for (auto entry = entries_.begin(); entry != entries_.end();) {
        machine_.leaveOpenIf(entry->pidfile.empty() && !erases);
        if (entry->pidfile.empty() && erases.value_or(true)) {
            entry = entries_.erase(entry);
        } else {
            supervise(*entry++);
        }
    }
    if (restartAllRequested_) {
        restartAll();
    }
}

void ModelRegistry::supervise(ModelEntry& entry) {
    entry.diedEarly = false;
    entry.isInOrder = false;
    if (!entry.pidfile.empty() && !check(entry)) {
        handleFailure(entry);
    } else if (entry.status >= APP_STATUS_STARTING0 && entry.status <= APP_STATUS_RUNNING) {
        entry.isInOrder = true;
        entry.excessSec = times_.setting() - entry.startSetting;
        takePidFileName(entry);
    }
}

/// One step of the state machine; true when the entry is in order.
bool ModelRegistry::check(ModelEntry& entry) {
    entry.hasPriority = entry.hasPriority && entry.status <= APP_STATUS_RUNNING;
    const auto rule = kRules.find(entry.status);
    if (rule == kRules.end()) {
        return false;
    }
    if (entry.status <= APP_STATUS_RUNNING && isInGrace(entry)) {
        return true;
    }
    if (tellsTheBoot(entry) && entry.status < APP_STATUS_RUNNING && entry.isConfirmedOn(machine_)) {
        hasDataServerRun_ = true;
        times_.reckonBoot();
    }
    if (entry.status == APP_STATUS_RUNNING) {
        givePriority(entry);
    }
    const Outcome outcome = outcomeOf(entry, rule->second, machine_);
    const bool isNew = entry.status <= APP_STATUS_STARTING0;
    entry.hasPriority = entry.hasPriority && (isNew || outcome.isInOrder);
    entry.diedEarly =
        entry.status == APP_STATUS_STARTING0 && outcome.status == APP_STATUS_START_FAILURE;
    entry.status = outcome.status;
    return outcome.isInOrder;
}

void ModelRegistry::givePriority(ModelEntry& entry) {
    if (!entry.hasPriority && entry.priority != 0 && machine_.isAlive(entry.process)) {
        machine_.setNice(entry.process, entry.priority);
    }
    entry.hasPriority = true;
}

bool ModelRegistry::isInGrace(const ModelEntry& entry) {
    const std::optional<bool> isIn = times_.isInGrace(entry.startSetting);
    machine_.leaveOpenIf(!isIn);
    return isIn.value_or(false);
}

void ModelRegistry::handleFailure(ModelEntry& entry) {
    if (entry.restartType == RESTART_TYPE_SELF) {
        (void)restartProcess(entry); // succeeds: only what was just launched may fail to stop
    } else if (entry.restartType == RESTART_TYPE_ALL) {
        // The machine restarts. The limits are either none or longer than anything lives here.
        machine_.leaveOpenIf(entry.status == APP_STATUS_START_FAILURE || entry.lifeLimit == 0 ||
                             entry.lifeLimit <= entry.excessSec);
        restartAllRequested_ = true;
    }
}

void ModelRegistry::restartAll() {
    restartAllRequested_ = false;
    for (std::size_t index = entries_.size(); index-- > 1;) { // the first one is spared
        (void)stopProcess(entries_[index]);                   // started anew in any case
    }
    for (ModelEntry& entry : entries_) {
        ModelEntry copy = entry;
        (void)launch(copy); // succeeds: nothing without a command is ever registered
        take(entry, copy);
    }
}

} // namespace systemtest
