// The model's requests: which action is for whom, and its reply.

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "tests/system/ModelMonitor.h"

namespace systemtest {
namespace {

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

ModelResult nothingRuns(const reqcmd& request) {
    return reply(request, kModelNotFound, "no app is running. \n");
}

} // namespace

ModelResult ModelMonitor::receive(const std::string& bytes) {
    std::memcpy(&buffer_, bytes.data(), std::min(bytes.size(), sizeof buffer_));
    ModelResult result = execute(buffer_);
    if (result.startedOf == 0) {
        result.dateSetting = times().setting();
    }
    return result;
}

ModelResult ModelMonitor::execute(const reqcmd& request) {
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
        return restartMany(request, "all apps were restarted", kModelRestartAllFailed, any);
    case APPMONCTL_Restart_All_But:
        return restartMany(
            request, "all apps but sec_server were restarted", kModelRestartAllFailed,
            [](const ModelEntry& entry) { return entry.restartType == RESTART_TYPE_SELF; });
    case APPMONCTL_Restart_PortApps:
        return restartMany(request, "all apps on communication ports were restarted",
                           kModelRestartPortAppsFailed, onPort);
    case APPMONCTL_Reserved9:
    case APPMONCTL_Reserved10:
        return {};
    default:
        return {kModelInvalid, false, 0, ""};
    }
}

ModelResult ModelMonitor::start(const reqcmd& request) {
    if (registry_.start(received(request.name), entryOf(request)) != 0) {
        return silence(request, kModelStartFailed);
    }
    const ModelEntry& entry = entries().back();
    ModelResult result =
        reply(request, 0, entry.name + " [pid=" + pidMark(entry.process) + "] is started @DATE\n");
    result.startedOf = entry.process;
    result.dateSetting = entry.startSetting;
    return result;
}

ModelResult ModelMonitor::stop(const reqcmd& request) {
    const std::string name = registered(request.name);
    const int result = registry_.stop(received(request.name));
    if (result == kModelNotFound) {
        return reply(request, result, name + " is not found\n");
    }
    return result == 0 ? reply(request, 0, name + " is stopped @DATE\n") : silence(request, result);
}

ModelResult ModelMonitor::restart(const reqcmd& request) {
    const std::string name = registered(request.name);
    const int result = registry_.restart(received(request.name));
    return result == 0 ? reply(request, 0, name + " is restarted @DATE\n")
                       : reply(request, result, name + " fails to restart\n", kModelStartFailed);
}

ModelResult ModelMonitor::stopMany(const reqcmd& request, const char* outcome, bool empties,
                                   const ModelRegistry::Choice& choice) {
    if (entries().empty()) {
        return nothingRuns(request);
    }
    const int result = registry_.stopMany(choice, empties);
    return reply(request, result, std::string(outcome) + " @DATE\n");
}

ModelResult ModelMonitor::restartMany(const reqcmd& request, const char* outcome, int failure,
                                      const ModelRegistry::Choice& choice) {
    if (entries().empty()) {
        return nothingRuns(request);
    }
    if (registry_.restartMany(choice) != 0) {
        return {failure, false, 0, ""};
    }
    return reply(request, 0, std::string(outcome) + " @DATE\n");
}

} // namespace systemtest
