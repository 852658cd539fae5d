// Adoption of running applications from a segment that anybody may have written.
//
// The input is a first letter for the verbosity, processes, each a 'p' with its values, the number
// of published applications, and the records: see `readRecord`.

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>

#include "appmanager/AppManager.h"
#include "platform/InstallationDirectories.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "records/segments.h"
#include "status/InstrumentTime.h"
#include "tests/fuzz/Input.h"
#include "tests/fuzz/MonitorScene.h"
#include "tests/fuzz/Require.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"

using fakes::world;
using fuzz::Input;
using fuzz::require;

namespace {

constexpr int kMostProcesses = 16;

/// The monitor itself is among the processes that an input can make and publish.
constexpr pid_t kOwnPid = fuzz::kFirstPid + 15;

/// Processes, for as long as each begins with 'p', and the byte behind them.
void readProcesses(fuzz::MonitorScene& scene, Input& input) {
    for (int count = 0; input.letter() == 'p' && count < kMostProcesses; ++count) {
        scene.addProcess(input);
    }
}

/// A text in a field, without a NUL where it is long enough.
template <std::size_t Size> void readField(Input& input, char (&field)[Size]) {
    (void)input.line(Size).copy(field, Size);
}

/// A record: 'x' and 128 bytes as they are, or any other letter and what a monitor publishes, with
/// the start in seconds after the boot.
application_record readRecord(Input& input) {
    application_record record = {};
    if (input.letter() == 'x') {
        std::string bytes;
        while (bytes.size() < sizeof record && !input.atEnd()) {
            bytes += input.letter();
        }
        std::memcpy(&record, bytes.data(), bytes.size());
        return record;
    }
    record.pid = fuzz::readPid(input);
    const std::int64_t started = world().now - world().uptimeSec + input.figure();
    status::storeTimeStamp(record.start_time, started * 1000);
    readField(input, record.name);
    readField(input, record.version);
    readField(input, record.status);
    readField(input, record.port_type);
    record.nice = input.figure();
    record.restart_type = input.figure();
    record.uptime = static_cast<std::uint32_t>(input.figure());
    return record;
}

application_segment readSegment(Input& input) {
    application_segment segment = {};
    segment.header.count = input.figure();
    for (application_record& record : segment.applications) {
        if (input.atEnd()) {
            break;
        }
        record = readRecord(input);
    }
    return segment;
}

/// A name without a NUL is cut by one character.
bool isPublished(std::string_view name, const application_segment& segment) {
    return std::any_of(std::begin(segment.applications), std::end(segment.applications),
                       [name](const application_record& record) {
                           constexpr std::size_t kLongest = sizeof record.name - 1;
                           return platform::fieldText(record.name).substr(0, kLongest) == name;
                       });
}

void examineAdopted(const appinfo& app, const application_segment& segment) {
    fuzz::examineEntry(app);
    require(app.port_type >= PORT_TYPE_NONE && app.port_type <= PORT_TYPE_ETH, "a port has a type");
    require(app.pid > 0 && app.pid != world().ownPid, "an application is another process");
    require(world().isAlive(app.pid), "an application lives");
    require(!platform::isInExcludedDirectory(app.cmd), "some programs are no applications");
    const fakes::Process& process = *world().process(app.pid);
    require(isPublished(platform::fieldText(app.name), segment),
            "an application has a name that was published");
    require(std::strncmp(process.exeName.c_str(), app.name, 15) == 0,
            "an application is a process of its name");
}

void examineSegment() {
    const std::string& bytes = world().segments[kApplicationSegmentName];
    require(bytes == std::string(sizeof(application_segment), '\0'),
            "the segment is empty after the discovery");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const int verbosity = input.figure() & 15;
    fuzz::MonitorScene scene(verbosity);
    world().ownPid = kOwnPid;
    readProcesses(scene, input);
    const application_segment segment = readSegment(input);
    world().segments[kApplicationSegmentName] = {reinterpret_cast<const char*>(&segment),
                                                 sizeof segment};

    AppStatusUpdate& status = AppManagerTestAccess::statusUpdate(scene.manager());
    require(status.initUserShm(applist, true) == 0, "the discovery succeeds");
    require(applist.size() <= std::size_t{kMostPublishedApplications} &&
                static_cast<std::int64_t>(applist.size()) <= std::max(segment.header.count, 0),
            "no more are adopted than were published");
    std::for_each(applist.begin(), applist.end(),
                  [&segment](const appinfo& app) { examineAdopted(app, segment); });
    require(world().callsOf({"kill", "probe"}).empty(), "the discovery signals nobody");
    examineSegment();
    require(status.updateUserShm(applist) == 0, "what was adopted can be published");
    scene.examine();
    return 0;
}
