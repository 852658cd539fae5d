#include "client/ovardctl/Publication.h"

#include <system_error>

#include "client/ovardctl/Format.h"
#include "client/ovardctl/Outcome.h"
#include "client/ovardctl/Table.h"

namespace ovardctl {
namespace {

using ovard_client::MonitorState;
using ovard_client::SegmentResult;

/// The segment's clock is that of the kernel's ticks and lags behind.
constexpr std::int64_t kClockSlackMs = 1000;

/// Younger data have their age shown with tenths of a second.
constexpr std::int64_t kFineAgeMs = 10000;

constexpr const char* kUnknownMonitor = "ovardctl: cannot tell whether a monitor runs";
constexpr const char* kUnknownRemedy =
    "; check that /proc is mounted and that /proc/net/unix can be read\n";

/// Why there are no data.
struct Lack {
    const char* word;
    std::string reason; ///< clause that goes on behind the segment's name
    int exitStatus;
};

Lack lackOf(const Publication& publication) {
    switch (publication.segment.result) {
    case SegmentResult::Ok:
        return {"none yet", "holds no published data yet", kExitNoReply};
    case SegmentResult::NoSegment:
        return {"no segment", "does not exist", kExitNoReply};
    case SegmentResult::TooShort:
        return {"too short", "is too short", kExitNoReply};
    case SegmentResult::KeptChanging:
        return {"kept changing", "kept changing while it was read", kExitNoReply};
    case SegmentResult::SystemError:
        break;
    }
    return {"unreadable",
            "cannot be read: " + std::generic_category().message(publication.segment.systemError),
            kExitSystemError};
}

std::string noListener(const Publication& publication) {
    return "ovardctl: no monitor listens on " + publication.socketPath;
}

Finding judgeRunning(const Publication& publication) {
    if (ageMs(publication) <= kCurrentMs) {
        return {kExitOk, "", true, false, "ok"};
    }
    // Without the age: a watch tells an error again when it has changed.
    return {kExitNoReply,
            "ovardctl: the monitor runs, but has not written segment " + publication.segmentName +
                " for more than " + std::to_string(kCurrentMs / 1000) +
                " seconds; it may be held up, see its lines in the system log (Ovard)\n",
            true, true, "ok"};
}

Finding judgeData(const Publication& publication) {
    switch (publication.monitor) {
    case MonitorState::Running:
        return judgeRunning(publication);
    case MonitorState::NotRunning:
        return {kExitNoMonitor,
                noListener(publication) +
                    "; what is shown was published last, start ovard for current data, or name "
                    "its socket with --socket\n",
                true, true, "ok"};
    case MonitorState::Unknown:
        break;
    }
    return {kExitSystemError, std::string(kUnknownMonitor) + kUnknownRemedy, true,
            ageMs(publication) > kCurrentMs, "ok"};
}

Finding judgeLack(const Publication& publication) {
    const Lack lack = lackOf(publication);
    const std::string what = "segment " + publication.segmentName + " " + lack.reason;
    if (lack.exitStatus == kExitSystemError) {
        return {kExitSystemError, "ovardctl: " + what + "; check your rights on it in /dev/shm\n",
                false, true, lack.word};
    }
    if (publication.monitor == MonitorState::NotRunning) {
        return {kExitNoMonitor,
                noListener(publication) + ", and " + what +
                    "; start ovard, or name its socket with --socket\n",
                false, true, lack.word};
    }
    if (publication.monitor == MonitorState::Unknown) {
        return {kExitSystemError, std::string(kUnknownMonitor) + ", and " + what + kUnknownRemedy,
                false, true, lack.word};
    }
    return {lack.exitStatus,
            "ovardctl: " + what + "; the monitor publishes every few seconds, try again\n", false,
            true, lack.word};
}

std::string tenthsOfSeconds(std::int64_t milliseconds) {
    return std::to_string(milliseconds / 1000) + '.' + std::to_string(milliseconds % 1000 / 100) +
           's';
}

} // namespace

Finding judge(const Publication& publication, bool isFilled) {
    const bool hasData = publication.segment.result == SegmentResult::Ok && isFilled;
    return hasData ? judgeData(publication) : judgeLack(publication);
}

const char* monitorWord(MonitorState monitor) {
    switch (monitor) {
    case MonitorState::Running:
        return "running";
    case MonitorState::NotRunning:
        return "not running";
    case MonitorState::Unknown:
        break;
    }
    return "unknown";
}

std::int64_t ageMs(const Publication& publication) {
    const std::int64_t age = publication.nowMs - publication.segment.modifiedMs;
    return age < 0 && age > -kClockSlackMs ? 0 : age;
}

std::string monitorLine(const Publication& publication, bool colour) {
    const Tone tone = publication.monitor == MonitorState::Running ? Tone::Good : Tone::Bad;
    return "Monitor:  " + painted(monitorWord(publication.monitor), tone, colour) + '\n';
}

std::string ageText(const Publication& publication, const Finding& finding, bool colour) {
    const std::int64_t age = ageMs(publication);
    std::string text = finding.isStale ? painted("stale", Tone::Bad, colour) + ", " : "";
    if (age < 0) {
        return text + "of unknown age";
    }
    text += age < kFineAgeMs ? tenthsOfSeconds(age)
                             : formatDuration(static_cast<std::uint64_t>(age / 1000));
    return text + " old";
}

} // namespace ovardctl
