#include "tests/fuzz/MonitorScene.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <string_view>

#include "appmanager/RequestFiles.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "records/response_struct.h"
#include "tests/fuzz/Require.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/RequestSupport.h"
#include "tests/unit/support/LockState.h"

namespace fuzz {
namespace {

using Access = AppManagerTestAccess;
using fakes::world;
using locks::isFree;

constexpr std::size_t kLongestLogLine = 2047;

/// Every sleep lasts so much longer than it should, as on a busy machine: what waits for half a
/// minute, one millisecond at a time, else takes all the time there is.
constexpr int kOversleepMs = 250;

/// Longest texts of processes that an input makes.
constexpr std::size_t kExeNameSize = 20;
constexpr std::size_t kCommandLineSize = 1200;
constexpr std::size_t kPidFileSize = 80;

/// What an earlier input left in the monitor's own variables.
void forgetEarlierInput(int verbosity) {
    fakes::resetWorld();
    applist.clear();
    file_request_list.clear();
    bFirstDataServerAfterSystemBoot = false;
    app_pidfile_minimum_start_time = 7;
    app_heartbeat_minimum_start_time = 30;
    app_heartbeat_expire_interval = 30;
    g_verbose = verbosity;
}

/// The manager never signals, and never looks for, what is no single other process.
void examineCall(const std::string& call) {
    std::istringstream words(call);
    std::string verb;
    std::int64_t pid = 0;
    words >> verb >> pid;
    if (verb == "kill" || verb == "probe") {
        require(pid > 0, "signals go to single processes");
        require(pid != world().ownPid, "the monitor signals itself never");
    }
}

/// A start takes the place of whatever has its name, but for names that were cut: these are found
/// under their cut form only.
void examineNames() {
    std::set<std::string_view> names;
    for (const appinfo& entry : applist) {
        const std::string_view name = platform::fieldText(entry.name);
        const bool mayBeCut = name.size() == sizeof entry.name - 1;
        require(mayBeCut || names.insert(name).second, "names are unique");
    }
}

void examineReply(const response_struct& reply) {
    require(reply.completed == 1, "replies are complete");
    require(isTerminated(reply.message) && reply.message[0] != '\0', "replies say something");
    require(reply.code == 0 || reply.code == kResultStopFailed ||
                reply.code == kResultRestartFailed || reply.code == kResultNotFound,
            "replies have one of the codes");
}

} // namespace

pid_t readPid(Input& input) {
    constexpr unsigned kPids = 16;
    return kFirstPid + static_cast<pid_t>(static_cast<unsigned>(input.figure()) % kPids);
}

reqcmd readRequest(Input& input) {
    reqcmd request = {};
    request.action = input.figure();
    request.porttype = input.figure();
    request.portnum = input.figure();
    request.priority = input.figure();
    request.restart_type = input.figure();
    request.last_runtime_life_limit = input.figure();
    const unsigned bits = input.bits();
    request.keepalive = (bits & 1) != 0 ? 1 : 0;
    request.nowait = (bits & 2) != 0 ? 0xFF : 0;
    request.heartbeat = (bits & 4) != 0 ? 1 : 0;
    requests::fillField(request.name, input.line(sizeof request.name));
    requests::fillField(request.cmd, input.line(sizeof request.cmd));
    requests::fillField(request.pidfile, input.line(sizeof request.pidfile));
    requests::fillField(request.version, input.line(sizeof request.version));
    return request;
}

MonitorScene::MonitorScene(int verbosity, std::int64_t uptimeSec) {
    forgetEarlierInput(verbosity);
    world().uptimeSec = uptimeSec;
    AppManager::Instance(verbosity)->initCommunication();              // opens the log
    (void)Access::statusUpdate(manager()).initUserShm(applist, false); // Always 0.
    world().forgetRecords();
    world().onSleep = [this](int /*ms*/) { onSleep(); };
}

MonitorScene::~MonitorScene() {
    world().onSleep = nullptr;
    world().forgetRecords();
    delete AppManager::m_pInstance;
}

void MonitorScene::addProcess(Input& input) {
    constexpr std::uint64_t kTicksPerSecond = 100;
    const pid_t pid = readPid(input);
    const unsigned bits = input.bits();
    const int appearsAfter = std::max(0, input.figure());
    const int endsAfter = std::max(0, input.figure());
    const std::uint64_t started = static_cast<std::uint64_t>(input.figure()) * kTicksPerSecond;
    const std::string name = untilNul(input.line(kExeNameSize));
    const std::string cmdline = untilNul(input.line(kCommandLineSize));
    fakes::Process& process = world().addProcess(pid, name, cmdline, started);
    process.pidFilename = untilNul(input.line(kPidFileSize));
    process.zombie = (bits & 1) != 0;
    process.ignoresTerm = (bits & 2) != 0;
    process.cmdlineAvailable = (bits & 4) == 0;
    process.factsAvailable = (bits & 8) == 0;
    process.alive = appearsAfter == 0;
    fates_.push_back({pid, appearsAfter, endsAfter});
}

void MonitorScene::onSleep() {
    world().advance(kOversleepMs);
    for (Fate& fate : fates_) {
        fakes::Process* const process = world().process(fate.pid);
        if (process == nullptr) {
            continue;
        }
        if (fate.appearsAfter > 0 && --fate.appearsAfter == 0) {
            process->alive = true;
        }
        if (fate.endsAfter > 0 && --fate.endsAfter == 0) {
            process->alive = false;
        }
    }
}

void MonitorScene::executeQueue(std::size_t answerable) {
    require(Access::drainQueue(manager()), "the manager goes on");
    require(world().count("restart") == 0, "no request restarts the machine");
    examineReplies(answerable);
    examineNames();
    examine();
}

void MonitorScene::examineReplies(std::size_t answerable) {
    std::size_t count = 0;
    for (const fakes::Output& output : world().sent) {
        if (output.data.size() != sizeof(response_struct)) {
            return; // The sending is scripted to fail in pieces.
        }
        response_struct reply;
        std::memcpy(&reply, output.data.data(), sizeof reply);
        examineReply(reply);
        ++count;
    }
    require(count <= answerable, "nobody is answered who does not wait");
}

void MonitorScene::examine() {
    std::for_each(applist.begin(), applist.end(), examineEntry);
    std::for_each(world().calls.begin(), world().calls.end(), examineCall);
    for (const fakes::LogLine& line : world().log) {
        require(line.text.size() <= kLongestLogLine, "log lines are bounded");
    }
    require(Access::queue(manager()).empty(), "everything queued is executed");
    require(isFree(Access::queueLock(manager())), "the queue is free");
    require(isFree(Access::appLock(manager())), "the registry is free");
    require(world().liveBlocks() == 0 && world().foreignReleases == 0, "memory is given back");
    world().forgetRecords();
}

void examineEntry(const appinfo& entry) {
    require(isTerminated(entry.name) && isTerminated(entry.version) && isTerminated(entry.cmd) &&
                isTerminated(entry.pidfile),
            "texts of the registry are terminated");
    require(entry.status >= APP_STATUS_INITIALIZING && entry.status <= APP_STATUS_MONITOR_DIE,
            "an entry has one of the states");
}

} // namespace fuzz
