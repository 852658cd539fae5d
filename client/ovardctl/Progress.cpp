#include "client/ovardctl/Progress.h"

#include <algorithm>
#include <cstddef>

#include "client/ovardctl/Format.h"
#include "client/ovardctl/PrintableText.h"
#include "client/ovardctl/Table.h"
#include "platform/Text.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

/// Most characters of the line: the last column stays empty, where some terminals would go on to
/// the next line.
std::size_t lineWidth(const Screen& screen) {
    const std::size_t columns =
        screen.columns == 0 ? kLineWidth : std::min(screen.columns, kLineWidth);
    return std::max<std::size_t>(columns, 2) - 1;
}

} // namespace

std::string describeRequest(const reqcmd& request) {
    const std::string name = printable(platform::fieldText(request.name));
    switch (request.action) {
    case APPMONCTL_Start:
        return "start " + name;
    case APPMONCTL_Stop:
        return "stop " + name;
    case APPMONCTL_Stop_All:
        return "stop --all";
    case APPMONCTL_Stop_All_But:
        return "stop --all-but-security";
    case APPMONCTL_Stop_PortApps:
        return "stop --port-apps";
    case APPMONCTL_Restart:
        return "restart " + name;
    case APPMONCTL_Restart_All:
        return "restart --all";
    case APPMONCTL_Restart_All_But:
        return "restart --self-restarting";
    case APPMONCTL_Restart_PortApps:
        return "restart --port-apps";
    default:
        return "action " + std::to_string(request.action);
    }
}

ProgressLine::ProgressLine(std::FILE* output, const Screen& screen, const reqcmd& request)
    : output_(output)
    , screen_(screen)
    , subject_(describeRequest(request)) {}

// What cannot be written to a terminal is not missed: the outcome follows.
ProgressLine::~ProgressLine() {
    if (isShown_) {
        (void)std::fprintf(output_, "\r%s", kClearLine);
        (void)std::fflush(output_);
    }
}

void ProgressLine::show(std::int64_t elapsedSec) {
    if (!screen_.redraws) {
        return;
    }
    const std::string text = formatDuration(static_cast<std::uint64_t>(elapsedSec)) +
                             ", waiting for \"" + subject_ + "\" (Ctrl-C ends the wait)";
    (void)std::fprintf(output_, "\r%s%s", fitted(text, lineWidth(screen_)).c_str(), kClearLine);
    (void)std::fflush(output_);
    isShown_ = true;
}

} // namespace ovardctl
