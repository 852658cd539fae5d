// What can be said about published data before one looks into them: whether a monitor runs, how old
// they are, and why there are none.

#ifndef OVARD_CLIENT_OVARDCTL_PUBLICATION_H
#define OVARD_CLIENT_OVARDCTL_PUBLICATION_H

#include <cstdint>
#include <string>

#include "client/OvardClient.h"

namespace ovardctl {

/// How a view is to look.
struct ViewStyle {
    bool json = false;   ///< one JSON object instead of tables
    bool inLine = false; ///< the JSON object in one line
    bool colour = false; ///< tables with escape sequences for colours
};

/// Data of a running monitor are current for so long. By default it publishes every 6 to 8 seconds,
/// and one launch that is waited for (30 seconds) and one application that has to be confirmed (14)
/// together still keep it below a minute. Neither the interval (-i) nor a pass has an upper limit:
/// beyond this age nobody can tell a slow monitor from one that stands still.
inline constexpr std::int64_t kCurrentMs = 60000;

/// The circumstances of one segment's data.
struct Publication {
    ovard_client::MonitorState monitor = ovard_client::MonitorState::Unknown;
    ovard_client::SegmentOutcome segment{};
    std::int64_t nowMs = 0; ///< wall clock when the segment was read, since the epoch
    std::string socketPath;
    std::string segmentName;
};

/// What follows from the circumstances.
struct Finding {
    int exitStatus;
    std::string error;    ///< for standard error; empty or ends with a line feed
    bool hasData;         ///< there is a whole cycle
    bool isStale;         ///< there is none, its monitor runs no longer, or older than kCurrentMs
    const char* dataWord; ///< the state of the data in JSON
};

/// Judges the circumstances; `isFilled` tells that the segment, where it could be read, holds a
/// cycle and not the zero bytes that a monitor starts with.
Finding judge(const Publication& publication, bool isFilled);

/// "running", "not running" or "unknown".
const char* monitorWord(ovard_client::MonitorState monitor);

/// Age of the data in milliseconds; negative when they are from the future.
std::int64_t ageMs(const Publication& publication);

/// The line "Monitor:  ..." with a line feed.
std::string monitorLine(const Publication& publication, bool colour);

/// The age as it is shown: "0.4s old", and that they are stale.
std::string ageText(const Publication& publication, const Finding& finding, bool colour);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_PUBLICATION_H
