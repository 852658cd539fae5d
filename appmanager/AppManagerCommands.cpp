// Execution of control requests, on the command thread.

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <mutex>
#include <string_view>

#include "appmanager/AppManager.h"
#include "appmanager/DateText.h"
#include "platform/Memory.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "platform/Time.h"
#include "platform/Trace.h"
#include "records/codes.h"

namespace {

/// How many entries the registry grows by.
constexpr std::size_t kRegistryGrowth = 128;

/// The one application that Stop_All_But spares.
constexpr std::string_view kSecurityServer = "security_server";

bool isNamed(const appinfo& app, const reqcmd& request) {
    // Deliberate: the whole field of the request counts, so a name of 64 characters, which is
    // registered cut to 63, is found under its cut name only.
    return platform::fieldText(app.name) == platform::fieldText(request.name);
}

bool isAny(const appinfo& /*app*/) {
    return true;
}

bool usesPort(const appinfo& app) {
    return app.port_type != PORT_TYPE_NONE;
}

// The two rules below differ on purpose.
bool isNotSecurityServer(const appinfo& app) {
    return platform::fieldText(app.name) != kSecurityServer;
}

bool restartsItself(const appinfo& app) {
    return app.restart_type == RESTART_TYPE_SELF;
}

} // namespace

/// A stop of many applications.
struct AppManager::StopMany {
    const char* outcome; ///< reply text, without the date
    bool (*chooses)(const appinfo&);
    bool emptiesRegistry; ///< else only the entries that were stopped leave it
    bool showsSize;       ///< traces the registry's size
};

/// A restart of many applications.
struct AppManager::RestartMany {
    const char* outcome; ///< reply text, without the date
    bool (*chooses)(const appinfo&);
    int failure; ///< result when one restart fails
};

const AppManager::StopMany AppManager::kStopAll = {"all apps were stopped", isAny, true, true};
const AppManager::StopMany AppManager::kStopAllBut = {"all apps but sec_server were stopped",
                                                      isNotSecurityServer, false, false};
const AppManager::StopMany AppManager::kStopPortApps = {"all apps on ports were stopped", usesPort,
                                                        false, true};
const AppManager::RestartMany AppManager::kRestartAll = {"all apps were restarted", isAny,
                                                         kResultRestartAllFailed};
const AppManager::RestartMany AppManager::kRestartAllBut = {
    "all apps but sec_server were restarted", restartsItself, kResultRestartAllFailed};
const AppManager::RestartMany AppManager::kRestartPortApps = {
    "all apps on communication ports were restarted", usesPort, kResultRestartFailed};

int AppManager::processCmd(const reqcmd& request) {
    const std::time_t now = platform::currentTime();
    switch (request.action) {
    case APPMONCTL_Start:
        writeLog(kLogDebug, "processCmd() request.action=APPMONCTL_Start %.64s\n", request.name);
        return executeStart(request);
    case APPMONCTL_Stop:
        writeLog(kLogDebug, "processCmd() request.action=APPMONCTL_Stop %.64s\n", request.name);
        return executeStop(request, now);
    case APPMONCTL_Stop_All:
        writeLog(kLogDebug, "processCmd() request.action=APPMONCTL_Stop_All\n");
        return executeOnAll(request, kStopAll, now);
    case APPMONCTL_Stop_All_But:
        writeLog(kLogDebug, "processCmd() request.action=APPMONCTL_Stop_All_But\n");
        return executeOnAll(request, kStopAllBut, now);
    case APPMONCTL_Stop_PortApps:
        writeLog(kLogDebug, "processCmd() request.action=APPMONCTL_Stop_PortApps\n");
        return executeOnAll(request, kStopPortApps, now);
    case APPMONCTL_Restart:
        writeLog(kLogDebug, "processCmd() request.action=APPMONCTL_Restart %.64s\n", request.name);
        return executeRestart(request);
    case APPMONCTL_Restart_All:
        writeLog(kLogDebug, "processCmd() request.action=APPMONCTL_Restart_All\n");
        return executeOnAll(request, kRestartAll, now);
    case APPMONCTL_Restart_All_But:
        writeLog(kLogDebug, "processCmd() request.action=APPMONCTL_Restart_All_But\n");
        return executeOnAll(request, kRestartAllBut, now);
    case APPMONCTL_Restart_PortApps:
        writeLog(kLogDebug, "processCmd() request.action=APPMONCTL_Restart_PortApps\n");
        return executeOnAll(request, kRestartPortApps, now);
    case APPMONCTL_Reserved9:
    case APPMONCTL_Reserved10:
        return 0;
    default:
        platform::trace(verbose > 5, "processCmd() request.action=UNKNOWN(%d)\n", request.action);
        writeLog(kLogInfo, "request.action=UNKNOWN\n");
        return kResultInvalid;
    }
}

// --- one application
// ------------------------------------------------------------------------------

int AppManager::executeStart(const reqcmd& request) {
    (void)stopApp(request, workRecord_); // Whatever ran under this name gives way.
    workRecord_.pid = 0;                 // That of an earlier request is not this one's.
    const int result = startApp(request, workRecord_);
    if (result == 0) {
        return reply(request, 0, kLogInfo, "%s [pid=%d] is started @%s\n", workRecord_.name,
                     workRecord_.pid, DateText(workRecord_.start_time).text);
    }
    if (request.nowait != 0) {
        return 0;
    }
    // Deliberate: no reply.
    writeLog(kLogError, "%s fails to start\n", workRecord_.name);
    return kResultStartFailed;
}

int AppManager::executeStop(const reqcmd& request, std::time_t now) {
    const int result = stopApp(request, workRecord_);
    if (result == 0) {
        return reply(request, 0, kLogInfo, "%s is stopped @%s\n", workRecord_.name,
                     DateText(now).text);
    }
    if (result == kResultNotFound) {
        return reply(request, result, kLogInfo, "%s is not found\n", workRecord_.name);
    }
    if (request.nowait != 0) {
        return 0;
    }
    // Deliberate: no reply.
    writeLog(kLogError, "%s fails to stop\n", workRecord_.name);
    return kResultStopFailed;
}

int AppManager::executeRestart(const reqcmd& request) {
    const int result = restartApp(request, workRecord_);
    if (result == 0) {
        return reply(request, 0, kLogInfo, "%s is restarted @%s\n", workRecord_.name,
                     DateText(workRecord_.start_time).text);
    }
    const int answered =
        reply(request, result, kLogError, "%s fails to restart\n", workRecord_.name);
    return request.nowait != 0 ? answered : kResultStartFailed;
}

int AppManager::prepareAppInfo(const reqcmd& request, appinfo& info) {
    using platform::copyToField;
    using platform::fieldText;
    const auto now = static_cast<std::int32_t>(platform::currentTime());
    copyToField(info.name, fieldText(request.name));
    copyToField(info.version, fieldText(request.version));
    copyToField(info.cmd, fieldText(request.cmd));
    copyToField(info.pidfile, fieldText(request.pidfile));
    info.port_type = request.porttype;
    info.port_num = request.portnum;
    info.priority = request.priority;
    info.status = APP_STATUS_INITIALIZING;
    info.start_time = now;
    info.uptime = 0;
    info.check_flag = 0;
    info.keepalive = request.keepalive != 0 ? 1 : 0;
    info.heartbeat = request.heartbeat != 0 ? 1 : 0;
    info.restart_type = request.restart_type;
    info.last_runtime_life_limit = request.last_runtime_life_limit;
    return now;
}

int AppManager::startApp(const reqcmd& request, appinfo& info) {
    (void)prepareAppInfo(request, info);
    // Beforehand: what is launched and cannot be registered would run unsupervised.
    const bool hasRoom = registryHasRoom_ || makeRoomInRegistry();
    const int result = hasRoom ? start_process(info) : kResultStartFailed;
    if (result != 0) {
        platform::trace(verbose >= 2, "startApp failed for %s\n", info.name);
        return result;
    }
    const std::lock_guard lock(app_lock);
    applist.push_back(info);
    registryHasRoom_ = applist.size() < applist.capacity();
    return 0;
}

/// Lets the registry grow where it is full. False, and a line in the log, when there is no memory
/// for that.
bool AppManager::makeRoomInRegistry() {
    const std::lock_guard lock(app_lock);
    if (applist.size() < applist.capacity()) {
        return true;
    }
    const std::size_t capacity = applist.capacity() + kRegistryGrowth;
    if (!platform::memoryIsLeft(capacity * sizeof(appinfo))) {
        writeLog(kLogError, "startApp: no memory for more than %zu applications\n", applist.size());
        return false;
    }
    applist.reserve(capacity);
    return true;
}

int AppManager::stopApp(const reqcmd& request, appinfo& info) {
    (void)prepareAppInfo(request, info);
    const std::lock_guard lock(app_lock);
    int result = kResultNotFound;
    for (auto entry = applist.begin(); entry != applist.end();) {
        if (!isNamed(*entry, request)) {
            ++entry;
            continue;
        }
        appinfo copy = *entry;
        result = stop_process(copy);
        if (result != 0) {
            platform::trace(verbose >= 2, "stopApp failed for %s\n", info.name);
        }
        entry = applist.erase(entry);
    }
    return result;
}

int AppManager::restartApp(const reqcmd& request, appinfo& info) {
    (void)prepareAppInfo(request, info);
    const std::lock_guard lock(app_lock);
    int result = 0;
    for (appinfo& entry : applist) {
        if (!isNamed(entry, request)) {
            continue;
        }
        if (entry.restart_type == RESTART_TYPE_ALL) {
            restart_all_requested = true;
            continue;
        }
        appinfo copy = entry;
        const int stopped = stop_process(copy);
        if (stopped != 0) {
            result = stopped;
            continue;
        }
        entry.status = APP_STATUS_STOPPED;
        if (start_process(copy) != 0) {
            return kResultRestartFailed;
        }
        entry.pid = copy.pid;
        entry.status = APP_STATUS_STARTING0;
        entry.start_time = copy.start_time;
        entry.check_flag = copy.check_flag;
    }
    return result;
}

// --- the whole registry
// ---------------------------------------------------------------------------

int AppManager::executeOnAll(const reqcmd& request, const StopMany& what, std::time_t now) {
    int result = 0;
    if (!stopMany(what, result)) {
        return replyNoAppRunning(request);
    }
    return reply(request, result, kLogInfo, "%s @%s\n", what.outcome, DateText(now).text);
}

/// Stops the chosen entries, last to first. False when the registry is empty; `result` is that of
/// the last stop made.
bool AppManager::stopMany(const StopMany& what, int& result) {
    const std::lock_guard lock(app_lock);
    if (applist.empty()) {
        return false;
    }
    platform::trace(what.showsSize && verbose > 3, "applist size before =%zu\n", applist.size());
    for (std::size_t index = applist.size(); index-- > 0;) {
        if (!what.chooses(applist[index])) {
            continue;
        }
        appinfo copy = applist[index];
        result = stop_process(copy);
        applist[index].status = copy.status;
        if (result == 0 && !what.emptiesRegistry) {
            applist.erase(applist.begin() + static_cast<std::ptrdiff_t>(index));
        }
    }
    if (what.emptiesRegistry) {
        applist.clear(); // Deliberate: entries whose stop failed go too.
    }
    platform::trace(what.showsSize && verbose > 3, "applist size after %zu\n", applist.size());
    return true;
}

int AppManager::executeOnAll(const reqcmd& request, const RestartMany& what, std::time_t now) {
    bool restarted = false;
    if (!restartMany(what, restarted)) {
        return replyNoAppRunning(request);
    }
    if (!restarted) {
        return what.failure; // Deliberate: no reply and no log line.
    }
    return reply(request, 0, kLogInfo, "%s @%s\n", what.outcome, DateText(now).text);
}

/// Restarts the chosen entries, first to last, up to the first failure. False when the registry is
/// empty; `restarted` tells whether all went well.
bool AppManager::restartMany(const RestartMany& what, bool& restarted) {
    const std::lock_guard lock(app_lock);
    if (applist.empty()) {
        return false;
    }
    for (appinfo& entry : applist) {
        if (!what.chooses(entry)) {
            continue;
        }
        appinfo copy = entry;
        const int result = restart_process(copy);
        // Deliberate: status and check flag come from the work record, not from the copy.
        entry.status = workRecord_.status;
        entry.check_flag = workRecord_.check_flag;
        if (result != 0) {
            return true;
        }
        entry.pid = copy.pid;
        entry.start_time = copy.start_time;
    }
    restarted = true;
    return true;
}

int AppManager::replyNoAppRunning(const reqcmd& request) {
    return reply(request, kResultNotFound, kLogInfo, "no app is running. \n");
}

/// Answers the client and logs the answer, unless the request asks not to wait. Returns 0.
int AppManager::reply(const reqcmd& request, int code, int level, const char* format, ...) {
    if (request.nowait != 0) {
        return 0;
    }
    response_struct response = {};
    response.code = code;
    response.completed = 1;
    std::va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(response.message, sizeof response.message, format, arguments);
    va_end(arguments);
    (void)sendCommand(&response); // It logs its own failure; the action is done all the same.
    writeLog(level, "%s", response.message);
    return 0;
}
