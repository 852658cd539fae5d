// Reads what is published and shows it, once or again and again.

#ifndef OVARD_CLIENT_VIEWER_H
#define OVARD_CLIENT_VIEWER_H

#include <cstdio>
#include <functional>
#include <string>

#include "client/CommandLine.h"
#include "client/Outcome.h"
#include "records/segments.h"

namespace ovardctl {

/// Where the data come from.
struct Sources {
    const char* systemName = kSystemSegmentName;
    const char* applicationName = kApplicationSegmentName;
    const char* socketTable = "/proc/net/unix";
};

/// Where the data go to.
struct Screen {
    bool redraws = false; ///< a terminal that understands escape sequences
    bool colour = false;
    std::size_t rows = 0; ///< of the terminal; 0 where unknown
};

/// What `fd` leads to. `term` and `noColour` are the values of TERM and NO_COLOR, null where they
/// are not set: no sequences without a terminal type or for a dumb one, no colours with a NO_COLOR
/// that is not empty.
Screen examineScreen(int fd, const char* term, const char* noColour);

/// Reads once what `commandLine` asks for, and shows it.
Report makeView(const CommandLine& commandLine, const Sources& sources, bool colour);

/// What to write for one view of several. On a screen that redraws, the report and its error stand
/// in the same place each time, cut to the rows of the screen. Elsewhere, and for JSON, it is the
/// report's output, set off from that before it by an empty line unless it is JSON.
std::string frameText(const Report& report, const Screen& screen, bool json, bool isFirst);

/// Shows views until `pause`, which waits for the next one, says no. A monitor that ends and comes
/// back is shown as it is each time. Errors go to `errors` when they change, or onto the screen
/// where that redraws. Returns the exit status of the last view, or kExitSystemError when nothing
/// more can be written to `output`.
int watch(const std::function<Report()>& view, const std::function<Screen()>& screen, bool json,
          std::FILE* output, std::FILE* errors, const std::function<bool()>& pause);

} // namespace ovardctl

#endif // OVARD_CLIENT_VIEWER_H
