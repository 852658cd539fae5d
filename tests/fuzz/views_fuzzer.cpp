// What ovardctl shows, and C programs get, of what anybody may have written: the input, behind a
// first byte, as the beginning of either segment and of a reply, and as the event log.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "client/PublishedCopies.h"
#include "client/ovardctl/EventLine.h"
#include "client/ovardctl/Outcome.h"
#include "client/ovardctl/Publication.h"
#include "client/ovardctl/StatusView.h"
#include "client/ovardctl/SystemView.h"
#include "tests/fuzz/Input.h"
#include "tests/fuzz/Require.h"

using fuzz::isPrintable;
using fuzz::require;
using ovardctl::Publication;
using ovardctl::Report;
using ovardctl::ViewStyle;

namespace {

constexpr std::size_t kColumns = 80;

constexpr ViewStyle kTables{false, false, false};
constexpr ViewStyle kJson{true, false, false};
constexpr ViewStyle kJsonLine{true, true, false};

bool fitsTerminal(std::string_view text) {
    while (text.size() > kColumns) {
        const std::size_t end = text.find('\n');
        if (end > kColumns) {
            return false;
        }
        text.remove_prefix(end + 1);
    }
    return true;
}

/// The beginning of the record or segment is `bytes`, the rest zero.
template <typename Record> Record recordOf(std::string_view bytes) {
    Record record = {};
    std::memcpy(&record, bytes.data(), std::min(bytes.size(), sizeof record));
    return record;
}

template <std::size_t Size> bool isText(const char (&copy)[Size]) {
    return ::strnlen(copy, Size) < Size;
}

/// A segment that was read whole, written at some other time, while a monitor runs or not.
Publication publicationOf(fuzz::Input& input) {
    using ovard_client::MonitorState;
    Publication publication;
    const unsigned bits = input.bits();
    publication.monitor = (bits & 1) != 0 ? MonitorState::Running : MonitorState::NotRunning;
    publication.segment.result = ovard_client::SegmentResult::Ok;
    publication.segment.modifiedMs = (bits & 2) != 0 ? INT64_MAX : 1;
    publication.nowMs = (bits & 4) != 0 ? 0 : 1700000000000;
    publication.socketPath = "/tmp/appmon_sock";
    publication.segmentName = kApplicationSegmentName;
    return publication;
}

void examineTables(const Report& report) {
    require(isPrintable(report.output) && isPrintable(report.error), "nothing moves the cursor");
    require(fitsTerminal(report.output), "tables fit a terminal");
    require(report.output.empty() || report.output.back() == '\n', "the last line is whole");
}

void examineJson(const Report& report, std::size_t lines) {
    require(isPrintable(report.output), "JSON is printable ASCII");
    require(lines == 0 || static_cast<std::size_t>(std::count(report.output.begin(),
                                                              report.output.end(), '\n')) == lines,
            "an object in one line is one line");
}

void showSegments(const Publication& publication, std::string_view bytes) {
    const auto applications = recordOf<application_segment>(bytes);
    const auto machine = recordOf<system_segment>(bytes);
    const std::string name = "data_server";
    examineTables(makeStatusReport(publication, applications, "", kTables));
    examineTables(makeStatusReport(publication, applications, name, kTables));
    examineTables(makeSystemReport(publication, machine, kTables));
    examineJson(makeStatusReport(publication, applications, "", kJson), 0);
    examineJson(makeStatusReport(publication, applications, "", kJsonLine), 1);
    examineJson(makeSystemReport(publication, machine, kJsonLine), 1);
}

/// For C programs, with room for `capacity` applications and no more.
void copySegments(std::string_view bytes, std::size_t capacity) {
    const auto segment = recordOf<application_segment>(bytes);
    const ovard_overview overview = ovard_client::copyOf(segment.header);
    require(overview.published >= 0 && overview.published <= OVARD_MOST_APPLICATIONS,
            "counts are bounded");
    require(isText(overview.monitor_version) && isText(overview.monitor_date),
            "texts of the monitor end");
    std::vector<ovard_application> copies(capacity);
    ovard_client::copyApplications(segment, copies.data(), capacity);
    for (const ovard_application& copy : copies) {
        require(isText(copy.name) && isText(copy.version) && isText(copy.status) &&
                    isText(copy.port_type),
                "texts of applications end");
    }
    const ovard_machine machine = ovard_client::copyOf(recordOf<system_segment>(bytes));
    for (const ovard_interface& one : {machine.eth0, machine.eth1}) {
        require(isText(one.ipv4) && isText(one.ipv6) && isText(one.dhcp_status) &&
                    isText(one.dhcpv6_status),
                "texts of interfaces end");
    }
}

void showReply(std::string_view bytes) {
    const std::string message = ovardctl::printableMessage(recordOf<response_struct>(bytes));
    require(isPrintable(message), "nothing moves the cursor");
    require(message.empty() || message.back() == '\n', "the last line is whole");
}

/// The log in two pieces, cut anywhere.
void showEvents(std::string_view log, std::size_t cut) {
    std::size_t lines = 0;
    ovardctl::LineCutter cutter([&lines](std::string_view line) {
        ++lines;
        require(line.size() <= ovardctl::kLongestEventLine + 1, "lines are bounded");
        for (const bool json : {false, true}) {
            const std::string text = ovardctl::eventText(line, json);
            require(isPrintable(text), "events are printable");
            require(text.find('\n') + 1 == text.size(), "an event is one line");
        }
    });
    cutter.add(log.substr(0, cut));
    cutter.add(log.substr(std::min(cut, log.size())));
    cutter.finish();
    const auto feeds = static_cast<std::size_t>(std::count(log.begin(), log.end(), '\n'));
    require(lines >= feeds && lines <= feeds + 1, "every line is handed out once");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const Publication publication = publicationOf(input);
    const std::size_t cut = input.amount();
    showSegments(publication, input.rest());
    copySegments(input.rest(), cut % (OVARD_MOST_APPLICATIONS + 1));
    showReply(input.rest());
    showEvents(input.rest(), cut);
    return 0;
}
