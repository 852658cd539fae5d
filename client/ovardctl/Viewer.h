// Reads what is published and shows it, once or again and again.

#ifndef OVARD_CLIENT_OVARDCTL_VIEWER_H
#define OVARD_CLIENT_OVARDCTL_VIEWER_H

#include <cstdio>
#include <functional>
#include <string>

#include "client/ovardctl/CommandLine.h"
#include "client/ovardctl/Outcome.h"
#include "client/ovardctl/Screen.h"
#include "records/segments.h"

namespace ovardctl {

/// Where the data come from.
struct Sources {
    const char* systemName = kSystemSegmentName;
    const char* applicationName = kApplicationSegmentName;
    const char* socketTable = "/proc/net/unix";
};

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

#endif // OVARD_CLIENT_OVARDCTL_VIEWER_H
