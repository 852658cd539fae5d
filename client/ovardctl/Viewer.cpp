#include "client/ovardctl/Viewer.h"

#include <cstdint>
#include <ctime>
#include <string_view>

#include "client/MonitorSearch.h"
#include "client/SegmentReader.h"
#include "client/ovardctl/Publication.h"
#include "client/ovardctl/StatusView.h"
#include "client/ovardctl/SystemView.h"
#include "client/ovardctl/Table.h"

namespace ovardctl {
namespace {

constexpr const char* kHome = "\x1b[H";
constexpr const char* kClearScreen = "\x1b[2J";
constexpr const char* kClearBelow = "\x1b[J";
constexpr const char* kCutLongLines = "\x1b[?7l";
constexpr const char* kWrapLongLines = "\x1b[?7h";

/// Not by std::chrono: where seconds can have 32 or 64 bits, its library has 32.
std::int64_t wallClockMs() {
    constexpr std::int64_t kMsPerSecond = 1000;
    constexpr std::int64_t kNsPerMs = 1000000;
    timespec now = {};
    (void)::clock_gettime(CLOCK_REALTIME, &now); // Fails only where seconds have too few bits.
    return now.tv_sec * kMsPerSecond + now.tv_nsec / kNsPerMs;
}

/// Reads a segment; `segment` stays as it was when that fails.
template <typename Segment>
Publication readPublication(const CommandLine& commandLine, const Sources& sources,
                            const char* segmentName, Segment& segment) {
    Publication publication;
    publication.socketPath = commandLine.socketPath;
    publication.segmentName = segmentName;
    publication.segment = ovard_client::readSegment(segmentName, &segment, sizeof segment);
    publication.nowMs = wallClockMs();
    // Looked for last: a monitor that ends meanwhile makes the data stale.
    publication.monitor =
        ovard_client::findListener(commandLine.socketPath.c_str(), sources.socketTable);
    return publication;
}

/// The first `rows` lines, all for 0; where some are left out, the last one says so.
std::string limitRows(const std::string& text, std::size_t rows) {
    std::string result;
    std::size_t begin = 0;
    for (std::size_t row = 1; begin < text.size(); ++row) {
        const std::size_t end = text.find('\n', begin);
        const bool isLast = end + 1 == text.size();
        if (row == rows && !isLast) {
            return result + "(more lines than the screen has)" + kClearLine;
        }
        result.append(text, begin, end - begin);
        result += kClearLine;
        // A line feed on the lowest row would scroll.
        result += row == rows ? "" : "\n";
        begin = end + 1;
    }
    return result;
}

/// The text with line feeds in place of blanks, so that its lines fit as far as its words do.
std::string wrapped(std::string text) {
    std::size_t lineBegin = 0;
    std::size_t lastBlank = std::string::npos;
    for (std::size_t index = 0; index < text.size(); ++index) {
        if (text[index] == '\n') {
            lineBegin = index + 1;
            lastBlank = std::string::npos;
            continue;
        }
        if (text[index] == ' ') {
            lastBlank = index;
        }
        if (index - lineBegin >= kLineWidth && lastBlank != std::string::npos) {
            text[lastBlank] = '\n';
            lineBegin = lastBlank + 1;
            lastBlank = std::string::npos;
        }
    }
    return text;
}

} // namespace

Report makeView(const CommandLine& commandLine, const Sources& sources, bool colour) {
    const ViewRequest& view = commandLine.view;
    const ViewStyle style{view.json, view.watchSec != 0, colour};
    if (commandLine.verdict == Verdict::ShowSystem) {
        system_segment segment = {};
        const Publication publication =
            readPublication(commandLine, sources, sources.systemName, segment);
        return makeSystemReport(publication, segment, style);
    }
    application_segment segment = {};
    const Publication publication =
        readPublication(commandLine, sources, sources.applicationName, segment);
    return makeStatusReport(publication, segment, view.name, style);
}

std::string frameText(const Report& report, const Screen& screen, bool json, bool isFirst) {
    if (json) {
        return report.output;
    }
    if (!screen.redraws) {
        return (isFirst ? "" : "\n") + report.output;
    }
    const std::string text =
        report.output + (report.error.empty() ? "" : "\n") + wrapped(report.error);
    return std::string(kHome) + (isFirst ? kClearScreen : "") + kCutLongLines +
           limitRows(text, screen.rows) + kClearBelow + kWrapLongLines;
}

int watch(const std::function<Report()>& view, const std::function<Screen()>& screen, bool json,
          std::FILE* output, std::FILE* errors, const std::function<bool()>& pause) {
    std::string lastError;
    for (bool isFirst = true;; isFirst = false) {
        const Report report = view();
        const Screen place = screen();
        const std::string frame = frameText(report, place, json, isFirst);
        if (std::fputs(frame.c_str(), output) == EOF || std::fflush(output) != 0) {
            return kExitSystemError;
        }
        if ((json || !place.redraws) && report.error != lastError) {
            (void)std::fputs(report.error.c_str(), errors);
            lastError = report.error;
        }
        if (!pause()) {
            return report.exitStatus;
        }
    }
}

} // namespace ovardctl
