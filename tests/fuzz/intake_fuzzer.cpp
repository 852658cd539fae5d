// Requests on their way through the queue and the commands, between supervision passes and
// publishing cycles, in a world that the input scripts.
//
// An input is a sequence of steps, each a letter with its values: see `step`.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "appmanager/AppManager.h"
#include "platform/Wait.h"
#include "records/codes.h"
#include "records/segments.h"
#include "tests/fuzz/Input.h"
#include "tests/fuzz/MonitorScene.h"
#include "tests/fuzz/Require.h"

using fakes::world;
using fuzz::Input;
using fuzz::isTerminated;
using fuzz::MonitorScene;
using fuzz::require;

namespace {

/// Steps of one input that are done, and requests that one step queues.
constexpr int kMostSteps = 60;
constexpr int kMostQueued = 8;

/// Queues requests for as long as each is followed by a comma, and executes them.
void requestStep(MonitorScene& scene, Input& input) {
    std::size_t answerable = 0;
    std::size_t launching = 0;
    const std::size_t before = applist.size();
    for (int count = 0; count < kMostQueued; ++count) {
        const reqcmd request = fuzz::readRequest(input);
        answerable += request.nowait == 0 ? 1 : 0;
        launching += request.action == APPMONCTL_Start ? 1 : 0;
        require(scene.manager().processRequest(request) == 0, "every request is queued");
        if (input.letter() != ',') {
            break;
        }
    }
    scene.executeQueue(answerable);
    require(applist.size() <= before + launching, "only a start adds an entry, and only one");
}

/// What a client sends in two pieces: bits (the second one is missing, fails, the client gives up
/// before it is accepted, a signal comes between), where the first one ends, in figures of 8 bytes,
/// and the request.
void scriptClient(Input& input, std::string& image) {
    const unsigned bits = input.bits();
    const std::size_t end = input.amount() * 8;
    const reqcmd request = fuzz::readRequest(input);
    image.assign(reinterpret_cast<const char*>(&request), sizeof request);
    world().receives.clear();
    world().receives.push_back({image.substr(0, std::min(end, image.size())), 0});
    if ((bits & 1) == 0 && end < image.size()) {
        world().receives.push_back({image.substr(end), (bits & 2) != 0 ? ECONNRESET : 0});
    }
    if ((bits & 4) != 0) {
        world().acceptResults = {{-1, ECONNABORTED}};
    }
    using platform::WaitResult;
    world().waitResults.clear();
    if ((bits & 8) != 0) {
        world().waitResults = {WaitResult::Ready, WaitResult::Ready, WaitResult::Interrupted};
    }
}

/// A request from the socket, as the main loop takes it.
void clientStep(MonitorScene& scene, Input& input) {
    std::string image;
    scriptClient(input, image);
    reqcmd request = {};
    const int received = scene.manager().recvCommand(request);
    require(received >= -1 && received <= static_cast<int>(sizeof request), "bytes are counted");
    if (received > 0) {
        const auto count = static_cast<std::size_t>(received);
        require(std::memcmp(&request, image.data(), count) == 0, "what is sent is received");
        require(scene.manager().processRequest(request) == 0, "every request is queued");
    }
    scene.executeQueue(request.nowait == 0 ? 1 : 0);
}

/// The next launch: its kind, then the pid of the launched process.
void launchStep(Input& input) {
    const unsigned bits = input.bits();
    const pid_t pid = fuzz::readPid(input);
    world().scriptLaunch(pid + 1000, pid);
    if ((bits & 1) != 0) {
        world().reads.back() = {std::string(2, '\1'), 0};
    }
    if ((bits & 2) != 0) {
        world().reads.back() = {"", EIO};
    }
    if ((bits & 4) != 0) {
        world().waitpidResults.back() = {pid + 1000, 0x100, 0};
    }
    if ((bits & 8) != 0) {
        world().pipeErrors.push_back(EMFILE);
    }
}

void memoryStep(Input& input) {
    const unsigned bits = input.bits();
    constexpr int kMoreThanTried = 4;
    world().mallocs.failNext = (bits & 1) != 0 ? kMoreThanTried : 0;
    world().strdups.failNext = (bits & 2) != 0 ? kMoreThanTried : 0;
    world().reallocs.failNext = (bits & 4) != 0 ? kMoreThanTried : 0;
    world().procCanBeOpened = (bits & 8) == 0;
}

void sendStep(Input& input) {
    constexpr int kLessThanAReply = 0x3FF;
    world().sendResults = {{input.figure() & kLessThanAReply, 0}, {-1, EPIPE}};
}

void clockStep(Input& input) {
    const std::int64_t seconds = input.figure();
    world().now += static_cast<std::time_t>(seconds);
    world().uptimeSec = std::max<std::int64_t>(-1, world().uptimeSec + input.figure());
}

void superviseStep(MonitorScene& scene, Input& input) {
    const std::size_t before = applist.size();
    require(scene.manager().checkStatus(input.bits() != 0) == 0, "a pass succeeds");
    require(applist.size() <= before, "a pass adds no entry");
    scene.examine();
}

void examinePublished() {
    const std::string& bytes = world().segments[kApplicationSegmentName];
    require(bytes.size() == sizeof(application_segment), "the segment has its size");
    application_segment segment;
    std::memcpy(&segment, bytes.data(), sizeof segment);
    require(segment.header.count == static_cast<std::int32_t>(applist.size()), "all are counted");
    for (const application_record& record : segment.applications) {
        require(isTerminated(record.name) && isTerminated(record.version) &&
                    isTerminated(record.status) && isTerminated(record.port_type),
                "published texts are terminated");
    }
}

void publishStep(MonitorScene& scene) {
    require(scene.manager().updateStatus() == 0, "the registry is released");
    if (applist.size() <= std::size_t{kMostPublishedApplications}) {
        examinePublished();
    }
    scene.examine();
}

void endProcess(Input& input) {
    if (fakes::Process* const process = world().process(fuzz::readPid(input))) {
        process->alive = false;
    }
}

void step(MonitorScene& scene, Input& input) {
    switch (input.letter()) {
    case 'r': // requests
        return requestStep(scene, input);
    case 'c': // a client
        return clientStep(scene, input);
    case 'p': // a process appears
        return scene.addProcess(input);
    case 'e': // one ends
        return endProcess(input);
    case 'l': // how the next launch goes
        return launchStep(input);
    case 'h': // heartbeats of a process
        world().heartbeats[fuzz::readPid(input)] = input.figure();
        return;
    case 'f': // a pid file that confirms a process
        world().pidFiles[input.line(sizeof(appinfo::pidfile))] = input.line(sizeof(appinfo::cmd));
        return;
    case 't': // the clock jumps
        return clockStep(input);
    case 'm': // memory and /proc fail
        return memoryStep(input);
    case 's': // sending fails
        return sendStep(input);
    case 'v': // a supervision pass
        return superviseStep(scene, input);
    case 'u': // a publishing cycle
        return publishStep(scene);
    default: // anything else, a line feed for one, separates steps
        return;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const int verbosity = input.figure() & 15;
    MonitorScene scene(verbosity);
    try {
        for (int count = 0; count < kMostSteps && !input.atEnd(); ++count) {
            step(scene, input);
        }
    } catch (const fakes::LeaveProcessCalled&) {
        // A monitor that cannot fork restarts the machine, and ends.
    } catch (const fakes::ExitMonitorCalled&) {
        // So does one that gets no pipe.
    }
    return 0;
}
