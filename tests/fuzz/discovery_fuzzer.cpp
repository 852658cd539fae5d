// Adoption of running applications from a segment that anybody may have written.
//
// The input is a first figure, processes, each a 'p' with its values, the size of the segment where
// the first figure wants one (up to twice its own, in two bytes), the number of published
// applications, and the records: see `readRecord`.
//
// Bits of the first figure: 0 to 3 are the verbosity; 4: the uptime cannot be read, so that no boot
// time is known; 5 and 6: see `SegmentState`. So '0' to '?' stand for a whole segment and a boot
// time, '@' to 'O' for no boot time, 'P' to '_' for a segment of another size, the bytes from 'p'
// to 0x8F for one that changes its size, those from 0x90 to 0xAF for none.

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

/// How the monitor finds the segment.
enum class SegmentState {
    Whole,
    Resized,  ///< with a size of the input's choice
    Changing, ///< whole when it is opened, with a size of the input's choice when it is read
    Missing   ///< there is none, and none can be made
};

struct FirstFigure {
    int verbosity;
    bool bootTimeKnown;
    SegmentState segmentState;
};

/// A segment as other programs have left it.
struct HostileSegment {
    SegmentState state;
    std::size_t size;
    application_segment content;
};

FirstFigure readFirstFigure(Input& input) {
    const auto bits = static_cast<unsigned>(input.figure());
    return {static_cast<int>(bits & 15), (bits & 16) == 0,
            static_cast<SegmentState>((bits >> 5) & 3)};
}

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

/// When the machine has booted, in seconds since the epoch; for as long as nothing has slept.
std::int64_t bootTime() {
    return world().now - fuzz::kUptimeSec;
}

/// A record: 'x' and 128 bytes as they are, or any other letter and what a monitor publishes, with
/// the start in seconds after the boot. After an 'e' they count from the epoch, where a clock may
/// begin that nobody has set.
application_record readRecord(Input& input) {
    application_record record = {};
    const char form = input.letter();
    if (form == 'x') {
        std::string bytes;
        while (bytes.size() < sizeof record && !input.atEnd()) {
            bytes += input.letter();
        }
        std::memcpy(&record, bytes.data(), bytes.size());
        return record;
    }
    record.pid = fuzz::readPid(input);
    const std::int64_t started = (form == 'e' ? 0 : bootTime()) + input.figure();
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

std::size_t readSize(Input& input, SegmentState state) {
    switch (state) {
    case SegmentState::Whole:
        return sizeof(application_segment);
    case SegmentState::Missing:
        return 0;
    default:
        return input.wideAmount(2 * sizeof(application_segment));
    }
}

HostileSegment readSegment(Input& input, SegmentState state) {
    HostileSegment segment = {state, readSize(input, state), {}};
    segment.content.header.count = input.figure();
    for (application_record& record : segment.content.applications) {
        if (input.atEnd()) {
            break;
        }
        record = readRecord(input);
    }
    return segment;
}

/// Puts the segment where the monitor looks for it.
void place(const HostileSegment& segment) {
    if (segment.state == SegmentState::Missing) {
        world().segments.erase(kApplicationSegmentName);
        world().segmentErrors.insert(kApplicationSegmentName);
        return;
    }
    std::string& bytes = world().segments[kApplicationSegmentName];
    bytes.assign(reinterpret_cast<const char*>(&segment.content), sizeof segment.content);
    if (segment.state == SegmentState::Changing) {
        world().onCall = [size = segment.size](const std::string& call) {
            if (call.rfind("loadShm ", 0) == 0) {
                world().segments[kApplicationSegmentName].resize(size);
            }
        };
    } else {
        bytes.resize(segment.size, 'A');
    }
}

/// What the monitor may take for published: a short segment is given its size, with zeros, when it
/// is opened; one that is short when it is read counts as nothing.
application_segment publishedIn(const HostileSegment& segment) {
    application_segment published = {};
    if (segment.state != SegmentState::Changing || segment.size >= sizeof published) {
        std::memcpy(&published, &segment.content, std::min(segment.size, sizeof published));
    }
    return published;
}

/// A name without a NUL is cut by one character.
bool isOf(const application_record& record, const appinfo& app) {
    constexpr std::size_t kLongest = sizeof record.name - 1;
    return platform::fieldText(record.name).substr(0, kLongest) == platform::fieldText(app.name);
}

std::int32_t publishedStart(const application_record& record) {
    return static_cast<std::int32_t>(status::loadTimeStamp(record.start_time) / 1000);
}

bool isPublished(const appinfo& app, const application_segment& segment) {
    return std::any_of(std::begin(segment.applications), std::end(segment.applications),
                       [&app](const application_record& record) { return isOf(record, app); });
}

bool isPublishedWithStart(const appinfo& app, const application_segment& segment) {
    return std::any_of(std::begin(segment.applications), std::end(segment.applications),
                       [&app](const application_record& record) {
                           return isOf(record, app) && publishedStart(record) == app.start_time;
                       });
}

/// With a boot time a process tells when it has started, here as far as that goes into 32 bits.
void examineStart(const appinfo& app) {
    const auto ticksPerSecond = static_cast<std::uint64_t>(world().clockTicksPerSecond);
    const std::uint64_t sinceBoot = world().process(app.pid)->starttime / ticksPerSecond;
    const auto started = bootTime() + static_cast<std::int64_t>(sinceBoot);
    const auto earliest = static_cast<std::uint32_t>(started - 1);
    require(static_cast<std::uint32_t>(app.start_time) - earliest <= 2,
            "an application has started with its process, give or take a second");
}

/// Without a boot time a published pid proves nothing, so that every process is searched for, and
/// the published start is the only one there is.
void examineSearched(const appinfo& app, const application_segment& segment) {
    require(platform::isInIncludedDirectory(app.cmd), "a search finds installed programs only");
    require(isPublishedWithStart(app, segment), "without a boot time the published start stays");
}

void examineAdopted(const appinfo& app, const application_segment& segment) {
    fuzz::examineEntry(app);
    require(app.port_type >= PORT_TYPE_NONE && app.port_type <= PORT_TYPE_ETH, "a port has a type");
    require(app.pid > 0 && app.pid != world().ownPid, "an application is another process");
    require(world().isAlive(app.pid), "an application lives");
    require(!platform::isInExcludedDirectory(app.cmd), "some programs are no applications");
    const fakes::Process& process = *world().process(app.pid);
    require(isPublished(app, segment), "an application has a name that was published");
    require(std::strncmp(process.exeName.c_str(), app.name, 15) == 0,
            "an application is a process of its name");
}

/// The monitor's part of the segment: what lies behind it is left alone, or not.
std::string_view segmentBytes() {
    const auto found = world().segments.find(kApplicationSegmentName);
    return found != world().segments.end()
               ? std::string_view(found->second).substr(0, sizeof(application_segment))
               : std::string_view();
}

void examineDiscovery(const application_segment& published, bool bootTimeKnown) {
    require(applist.size() <= std::size_t{kMostPublishedApplications} &&
                static_cast<std::int64_t>(applist.size()) <= std::max(published.header.count, 0),
            "no more are adopted than were published");
    for (const appinfo& app : applist) {
        examineAdopted(app, published);
        if (bootTimeKnown) {
            examineStart(app);
        } else {
            examineSearched(app, published);
        }
    }
    require(world().callsOf({"kill", "probe"}).empty(), "the discovery signals nobody");
}

/// A segment that can be opened is given its size then.
void examineCleared(SegmentState state) {
    const std::string_view bytes = segmentBytes();
    require(bytes.find_first_not_of('\0') == std::string_view::npos,
            "the segment is empty after the discovery");
    const bool keepsSize = state == SegmentState::Whole || state == SegmentState::Resized;
    require(!keepsSize || bytes.size() == sizeof(application_segment),
            "the segment is whole after the discovery");
}

/// What was adopted can be published, which repairs the segment.
void examinePublishing(AppStatusUpdate& status, SegmentState state) {
    (void)status.updateUserShm(applist); // always 0
    if (state == SegmentState::Missing) {
        require(segmentBytes().empty(), "there is no segment");
        return;
    }
    require(status.applicationSegmentError() == 0, "what was adopted can be published");
    require(segmentBytes().size() == sizeof(application_segment),
            "a segment is whole when it is published");
    std::int32_t count = 0;
    std::memcpy(&count, segmentBytes().data() + offsetof(application_header, count), sizeof count);
    require(count == static_cast<std::int32_t>(applist.size()),
            "all that were adopted are published");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const FirstFigure first = readFirstFigure(input);
    fuzz::MonitorScene scene(first.verbosity, first.bootTimeKnown ? fuzz::kUptimeSec : -1);
    world().ownPid = kOwnPid;
    readProcesses(scene, input);
    const HostileSegment segment = readSegment(input, first.segmentState);
    place(segment);

    AppStatusUpdate& status = AppManagerTestAccess::statusUpdate(scene.manager());
    (void)status.initUserShm(applist, true); // always 0
    examineDiscovery(publishedIn(segment), first.bootTimeKnown);
    examineCleared(segment.state);
    examinePublishing(status, segment.state);
    scene.examine();
    return 0;
}
