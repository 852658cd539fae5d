// The model's requests: what each action does to the registry, and its reply.

#include <algorithm>
#include <cstring>

#include "tests/system/ModelRegistry.h"

namespace systemtest {
namespace {

constexpr int kNotFound = -20;
constexpr int kStartFailed = -3;
constexpr int kRestartAllFailed = -1;
constexpr int kRestartPortAppsFailed = -5;

/// A text as it arrives: up to its NUL or the end of the field.
template <std::size_t Size> std::string received(const char (&field)[Size]) {
    return {field, ::strnlen(field, Size)};
}

/// A text as it is registered: the last byte of the field is a NUL.
template <std::size_t Size> std::string registered(const char (&field)[Size]) {
    return received(field).substr(0, Size - 1);
}

ModelEntry entryOf(const reqcmd& request) {
    ModelEntry entry;
    entry.name = registered(request.name);
    entry.version = registered(request.version);
    entry.cmd = registered(request.cmd);
    entry.pidfile = registered(request.pidfile);
    entry.portType = request.porttype;
    entry.portNumber = request.portnum;
    entry.priority = request.priority;
    entry.restartType = request.restart_type;
    entry.lifeLimit = request.last_runtime_life_limit;
    entry.heartbeat = request.heartbeat != 0;
    return entry;
}

ModelResult reply(const reqcmd& request, int code, const std::string& message, int result = 0) {
    if (request.nowait != 0) {
        return {};
    }
    return {result, true, code, message};
}

/// A failure that is not answered.
ModelResult silence(const reqcmd& request, int result) {
    return {request.nowait != 0 ? 0 : result, false, 0, ""};
}

} // namespace

ModelResult RegistryModel::receive(const std::string& bytes) {
    std::memcpy(&buffer_, bytes.data(), std::min(bytes.size(), sizeof buffer_));
    return execute(buffer_);
}

ModelResult RegistryModel::execute(const reqcmd& request) {
    const auto any = [](const ModelEntry&) { return true; };
    const auto onPort = [](const ModelEntry& entry) { return entry.portType != PORT_TYPE_NONE; };
    switch (request.action) {
    case APPMONCTL_Start:
        return start(request);
    case APPMONCTL_Stop:
        return stop(request);
    case APPMONCTL_Stop_All:
        return stopMany(request, "all apps were stopped", true, any);
    case APPMONCTL_Stop_All_But:
        return stopMany(request, "all apps but sec_server were stopped", false,
                        [](const ModelEntry& entry) { return entry.name != "security_server"; });
    case APPMONCTL_Stop_PortApps:
        return stopMany(request, "all apps on ports were stopped", false, onPort);
    case APPMONCTL_Restart:
        return restart(request);
    case APPMONCTL_Restart_All:
        return restartMany(request, "all apps were restarted", kRestartAllFailed, any);
    case APPMONCTL_Restart_All_But:
        return restartMany(
            request, "all apps but sec_server were restarted", kRestartAllFailed,
            [](const ModelEntry& entry) { return entry.restartType == RESTART_TYPE_SELF; });
    case APPMONCTL_Restart_PortApps:
        return restartMany(request, "all apps on communication ports were restarted",
                           kRestartPortAppsFailed, onPort);
    case APPMONCTL_Reserved9:
    case APPMONCTL_Reserved10:
        return {};
    default:
        return {kModelInvalid, false, 0, ""};
    }
}

ModelResult RegistryModel::start(const reqcmd& request) {
    (void)stopNamed(request); // as the monitor ignores it
    if (std::any_of(entries_.begin(), entries_.end(), [&](const ModelEntry& other) {
            return other.restartType == RESTART_TYPE_ALL && justEnded_.count(other.process) != 0;
        })) {
        isPredictable_ = false; // Does a pass restart all before this one is registered?
    }
    ModelEntry entry = entryOf(request);
    const int result = launch(entry);
    workStatus_ = entry.status;
    if (result != 0) {
        return silence(request, kStartFailed);
    }
    if (erasesUnusable().value_or(true) && entry.pidfile.empty() &&
        processes_.at(entry.process).byConvention) {
        isPredictable_ = false; // Is its pid file there when the launch is followed?
    }
    entries_.push_back(entry);
    return reply(request, 0,
                 entry.name + " [pid=" + pidMark(entry.process) + "] is started @DATE\n");
}

ModelResult RegistryModel::stop(const reqcmd& request) {
    const std::string name = registered(request.name);
    const int result = stopNamed(request);
    workStatus_ = APP_STATUS_INITIALIZING;
    if (result == kNotFound) {
        return reply(request, kNotFound, name + " is not found\n");
    }
    return result == 0 ? reply(request, 0, name + " is stopped @DATE\n")
                       : silence(request, kModelStopFailed);
}

ModelResult RegistryModel::restart(const reqcmd& request) {
    workStatus_ = APP_STATUS_INITIALIZING;
    int result = 0;
    for (ModelEntry& entry : entries_) {
        if (entry.name != received(request.name)) {
            continue;
        }
        if (entry.restartType == RESTART_TYPE_ALL) {
            restartAllRequested_ = true;
            continue;
        }
        ModelEntry copy = entry;
        const int stopped = stopProcess(copy);
        if (stopped != 0) {
            result = stopped;
            continue;
        }
        (void)launch(copy); // succeeds: nothing without a command is ever registered
        entry.process = copy.process;
        entry.startSetting = copy.startSetting;
        entry.status = APP_STATUS_STARTING0;
    }
    const std::string name = registered(request.name);
    return result == 0 ? reply(request, 0, name + " is restarted @DATE\n")
                       : reply(request, result, name + " fails to restart\n", kStartFailed);
}

template <typename Choice>
ModelResult RegistryModel::stopMany(const reqcmd& request, const char* outcome, bool empties,
                                    Choice choice) {
    if (entries_.empty()) {
        return reply(request, kNotFound, "no app is running. \n");
    }
    int result = 0;
    for (std::size_t index = entries_.size(); index-- > 0;) {
        if (!choice(entries_[index])) {
            continue;
        }
        result = stopProcess(entries_[index]);
        if (result == 0 && !empties) {
            entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(index));
        }
    }
    if (empties) {
        entries_.clear();
    }
    return reply(request, result, std::string(outcome) + " @DATE\n");
}

template <typename Choice>
ModelResult RegistryModel::restartMany(const reqcmd& request, const char* outcome, int failure,
                                       Choice choice) {
    if (entries_.empty()) {
        return reply(request, kNotFound, "no app is running. \n");
    }
    for (ModelEntry& entry : entries_) {
        if (!choice(entry)) {
            continue;
        }
        ModelEntry copy = entry;
        const int result = restartProcess(copy);
        entry.status = workStatus_;
        if (result != 0) {
            return {failure, false, 0, ""};
        }
        entry.process = copy.process;
        entry.startSetting = copy.startSetting;
    }
    return reply(request, 0, std::string(outcome) + " @DATE\n");
}

int RegistryModel::stopNamed(const reqcmd& request) {
    int result = kNotFound;
    for (auto entry = entries_.begin(); entry != entries_.end();) {
        if (entry->name != received(request.name)) {
            ++entry;
            continue;
        }
        result = stopProcess(*entry);
        entry = entries_.erase(entry);
    }
    return result;
}

} // namespace systemtest
