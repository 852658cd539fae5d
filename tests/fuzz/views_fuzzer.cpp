// What ovardctl shows, and C programs get, of what anybody may have written: the input, behind two
// bytes, as the beginning of either segment and of a reply, and as the event log.
//
// The first byte holds bits on the publication, see `publicationOf`. The second one is an amount:
// for so many applications a C program has room, and so long is the first piece of the event log.

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

using fuzz::areTerminated;
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
void copyApplications(std::string_view bytes, std::size_t capacity) {
    const auto segment = recordOf<application_segment>(bytes);
    const ovard_overview overview = ovard_client::copyOf(segment.header);
    require(overview.published >= 0 && overview.published <= OVARD_MOST_APPLICATIONS,
            "counts are bounded");
    require(areTerminated(overview.monitor_version, overview.monitor_date),
            "texts of the monitor end");
    std::vector<ovard_application> copies(capacity);
    ovard_client::copyApplications(segment, copies.data(), capacity);
    for (const ovard_application& copy : copies) {
        require(areTerminated(copy.name, copy.version, copy.status, copy.port_type),
                "texts of applications end");
    }
}

void examineInterface(const ovard_interface& copy) {
    require(areTerminated(copy.ipv4, copy.ipv6), "addresses end");
    require(areTerminated(copy.dhcp_status, copy.dhcp_renewal, copy.dhcp_server, copy.dhcp_address,
                          copy.dhcp_netmask, copy.dhcp_router, copy.dhcp_dns_server,
                          copy.dhcp_smtp_server, copy.dhcp_sntp_server),
            "texts of a lease end");
    require(areTerminated(copy.dhcpv6_status, copy.dhcpv6_renewal, copy.dhcpv6_address),
            "texts of a lease of version 6 end");
}

void copyMachine(std::string_view bytes) {
    const ovard_machine machine = ovard_client::copyOf(recordOf<system_segment>(bytes));
    require(areTerminated(machine.kernel_release, machine.kernel_version),
            "texts of the kernel end");
    examineInterface(machine.eth0);
    examineInterface(machine.eth1);
}

void showReply(std::string_view bytes) {
    const std::string message = ovardctl::printableMessage(recordOf<response_struct>(bytes));
    require(isPrintable(message), "nothing moves the cursor");
    require(message.empty() || message.back() == '\n', "the last line is whole");
}

/// The log in two pieces, the first one of `cut` bytes.
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
    const std::size_t amount = input.amount();
    showSegments(publication, input.rest());
    copyApplications(input.rest(), amount % (OVARD_MOST_APPLICATIONS + 1));
    copyMachine(input.rest());
    showReply(input.rest());
    showEvents(input.rest(), amount);
    return 0;
}
