#include "client/ovardctl/StatusView.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "client/ovardctl/Format.h"
#include "client/ovardctl/JsonText.h"
#include "client/ovardctl/PrintableText.h"
#include "client/ovardctl/Table.h"
#include "platform/Text.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

using platform::fieldText;

/// Most characters of the monitor's version, and of its date, in their line.
constexpr std::size_t kVersionWidth = 31;

using Records = std::vector<const application_record*>;

/// The records that count, as far as they are asked for.
Records selectRecords(const application_segment& segment, const std::string& name) {
    const std::int32_t count =
        std::clamp(segment.header.count, std::int32_t{0}, kMostPublishedApplications);
    const std::string_view wanted =
        std::string_view(name).substr(0, sizeof(application_record::name) - 1);
    Records records;
    for (std::size_t index = 0; index < static_cast<std::size_t>(count); ++index) {
        const application_record& record = segment.applications[index];
        if (wanted.empty() || fieldText(record.name) == wanted) {
            records.push_back(&record);
        }
    }
    return records;
}

std::string orDash(std::string text) {
    return text.empty() ? "-" : std::move(text);
}

/// The line with the monitor's own version and the date of it.
std::string versionLine(const application_header& header) {
    const std::string date = printable(fieldText(header.file_date));
    return "Version:  " + orDash(fitted(printable(fieldText(header.file_version)), kVersionWidth)) +
           (date.empty() ? "" : " (" + fitted(date, kVersionWidth) + ")") + '\n';
}

std::string countText(std::int32_t count) {
    std::string text = std::to_string(count) + (count == 1 ? " application" : " applications");
    if (count > kMostPublishedApplications) {
        text += " (" + std::to_string(kMostPublishedApplications) + " published)";
    }
    return text;
}

/// The port as `ovardctl start --port` takes it; "-" for none.
std::string portText(const application_record& record) {
    const std::string_view type = fieldText(record.port_type);
    if (type.empty() || type == PORT_TYPE_STR[PORT_TYPE_NONE]) {
        return "-";
    }
    std::string kind = printable(type);
    if (type == PORT_TYPE_STR[PORT_TYPE_COM]) {
        kind = "com";
    } else if (type == PORT_TYPE_STR[PORT_TYPE_ETH]) {
        kind = "eth";
    }
    return kind + ':' + std::to_string(record.port_num);
}

/// The restart policy as `ovardctl start --restart` takes it.
std::string policyText(std::int32_t restartType) {
    switch (restartType) {
    case RESTART_TYPE_SELF:
        return "self";
    case RESTART_TYPE_ALL:
        return "all";
    default:
        return std::to_string(restartType);
    }
}

Tone toneOf(std::string_view status) {
    if (status == OVARD_APP_STATUS_STR[APP_STATUS_RUNNING]) {
        return Tone::Good;
    }
    if (status == OVARD_APP_STATUS_STR[APP_STATUS_STARTING] ||
        status == OVARD_APP_STATUS_STR[APP_STATUS_STOPPED] ||
        status == OVARD_APP_STATUS_STR[APP_STATUS_STOPPING] ||
        status == OVARD_APP_STATUS_STR[APP_STATUS_INITIALIZING]) {
        return Tone::Pending;
    }
    return status.empty() ? Tone::Plain : Tone::Bad;
}

std::string tableText(const Records& records, bool isStale, bool colour) {
    using Alignment = Table::Alignment;
    Table table({{"NAME", Alignment::Left, true},
                 {"PID", Alignment::Right},
                 {"STATUS", Alignment::Left, true},
                 {"UPTIME", Alignment::Right},
                 {"PORT", Alignment::Left, true},
                 {"POLICY", Alignment::Left},
                 {"VERSION", Alignment::Left, true}});
    for (const application_record* record : records) {
        const std::string_view status = fieldText(record->status);
        table.add({{orDash(printable(fieldText(record->name)))},
                   {std::to_string(record->pid)},
                   {orDash(printable(status)), isStale ? Tone::Plain : toneOf(status)},
                   {formatDuration(record->uptime)},
                   {portText(*record)},
                   {policyText(record->restart_type)},
                   {orDash(printable(fieldText(record->version)))}});
    }
    return table.text(colour);
}

std::string viewText(const Publication& publication, const Finding& finding,
                     const application_segment& segment, const Records& records, bool colour) {
    if (!finding.hasData) {
        return monitorLine(publication, colour) + "Data:     none\n";
    }
    std::string text = monitorLine(publication, colour) + versionLine(segment.header) +
                       "Data:     " + countText(segment.header.count) + ", " +
                       ageText(publication, finding, colour) + '\n';
    if (!records.empty()) {
        text += '\n' + tableText(records, finding.isStale, colour);
    }
    return text;
}

Json recordJson(const application_record& record) {
    Json object;
    object["name"] = jsonField(record.name);
    object["pid"] = record.pid;
    object["status"] = jsonField(record.status);
    object["uptime_s"] = record.uptime;
    object["start_time_ms"] = jsonTime(record.start_time);
    object["port_type"] = jsonField(record.port_type);
    object["port_number"] = record.port_num;
    object["policy"] = policyText(record.restart_type);
    object["life_limit_s"] = record.last_runtime_life_limit;
    object["priority"] = record.nice;
    object["version"] = jsonField(record.version);
    return object;
}

std::string viewJson(const Publication& publication, const Finding& finding,
                     const application_segment& segment, const Records& records,
                     const ViewStyle& style) {
    Json object = jsonOf(publication, finding);
    if (finding.hasData) {
        const application_header& header = segment.header;
        object["version"] = jsonField(header.file_version);
        object["date"] = jsonField(header.file_date);
        object["iec61850_health"] = header.iec61850_health;
        object["system_health"] = header.sys_health;
        object["count"] = header.count;
        object["applications"] = Json::array();
        for (const application_record* record : records) {
            object["applications"].push_back(recordJson(*record));
        }
    }
    return jsonText(object, style);
}

/// Adds to a finding what the records themselves give cause for.
void judgeRecords(const Publication& publication, const application_segment& segment,
                  const std::string& name, const Records& records, Finding& finding) {
    if (!finding.hasData) {
        return;
    }
    if (finding.isStale && publication.monitor == ovard_client::MonitorState::Running) {
        finding.error += "ovardctl: of more than " + std::to_string(kMostPublishedApplications) +
                         " applications the monitor publishes none; \"ovardctl system\" shows "
                         "current data then\n";
    }
    if (segment.header.count < 0) {
        finding.exitStatus = kExitSystemError;
        finding.error += "ovardctl: the segment has a count of " +
                         std::to_string(segment.header.count) +
                         " applications, which the monitor never publishes; another program has "
                         "written to it, restart ovard should it last\n";
    } else if (!name.empty() && records.empty()) {
        finding.exitStatus = finding.exitStatus == kExitOk ? int{kExitFailed} : finding.exitStatus;
        finding.error += "ovardctl: no application " + name +
                         " is published; \"ovardctl status\" lists those that are\n";
    }
}

} // namespace

Report makeStatusReport(const Publication& publication, const application_segment& segment,
                        const std::string& name, const ViewStyle& style) {
    Finding finding = judge(publication, segment.header.maximum != 0);
    const Records records = finding.hasData ? selectRecords(segment, name) : Records{};
    judgeRecords(publication, segment, name, records, finding);
    return {finding.exitStatus,
            style.json ? viewJson(publication, finding, segment, records, style)
                       : viewText(publication, finding, segment, records, style.colour),
            finding.error};
}

} // namespace ovardctl
