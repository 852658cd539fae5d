#include "client/ovardctl/SystemView.h"

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/ovardctl/Format.h"
#include "client/ovardctl/JsonText.h"
#include "client/ovardctl/PrintableText.h"
#include "client/ovardctl/Table.h"
#include "platform/Text.h"

namespace ovardctl {
namespace {

using platform::fieldText;
using Alignment = Table::Alignment;

constexpr std::int64_t kBytesPerKb = 1024;
constexpr std::size_t kLabelWidth = 10;
constexpr float kSecondsPerHour = 3600;

/// What is published about one interface.
struct Interface {
    const char* name;
    const netstatus_struct& counters;
    std::string_view ipv4;
    std::string_view ipv6;
    const DHCP_INFO_STRUCT& dhcp;
    const DHCPV6_INFO_STRUCT& dhcpv6;
};

std::array<Interface, 2> interfacesOf(const system_segment& segment) {
    const meterinfo_struct& meter = segment.meter;
    return {{{"eth0", segment.sysinfo.netstatus_eth0, fieldText(meter.ipv4_eth0),
              fieldText(meter.ipv6_eth0), segment.dhcp_eth0, segment.dhcpv6_eth0},
             {"eth1", segment.sysinfo.netstatus_eth1, fieldText(meter.ipv4_eth1),
              fieldText(meter.ipv6_eth1), segment.dhcp_eth1, segment.dhcpv6_eth1}}};
}

/// What is published about one direction of an interface's traffic.
struct Traffic {
    const char* direction;
    float kilobytesPerSec;
    std::int64_t bytes;
    std::int64_t packets;
    std::int32_t errors;
    std::int32_t drops;
    std::int32_t fifoErrors;
    std::optional<std::int32_t> frameErrors; ///< of what is received
    std::optional<std::int32_t> collisions;  ///< of what is sent
};

std::array<Traffic, 2> trafficOf(const netstatus_struct& counters) {
    return {
        {{"rx", counters.rx_datarate, counters.rx_byte, counters.rx_packet, counters.rx_totalerror,
          counters.rx_droperror, counters.rx_fifoerror, counters.rx_frameerror, std::nullopt},
         {"tx", counters.tx_datarate, counters.tx_byte, counters.tx_packet, counters.tx_totalerror,
          counters.tx_droperror, counters.tx_fifoerror, std::nullopt, counters.tx_collision}}};
}

std::string labelled(std::string label, const std::string& text) {
    label.resize(kLabelWidth, ' ');
    return label + fitted(text, kLineWidth - kLabelWidth) + '\n';
}

/// Hours as a span; as they stand where they cannot be one.
std::string uptimeText(float hours) {
    const std::string value = formatValue(hours, 1);
    if (value == "?" || hours < 0) {
        return value + " hours";
    }
    return formatDuration(static_cast<std::uint64_t>(hours * kSecondsPerHour));
}

std::string summaryText(const system_segment& segment) {
    const systeminfo_struct& info = segment.sysinfo;
    std::string uptime = uptimeText(info.runtime_uptime) + ", " +
                         formatValue(info.runtime_idletime, 1) + "% of it idle";
    const std::string bootTime = formatTime(toMilliseconds(info.boot_time));
    if (!bootTime.empty()) {
        uptime += ", booted " + bootTime;
    }
    return labelled("Kernel:", printable(fieldText(segment.meter.kernel_release))) +
           labelled("", printable(fieldText(segment.meter.kernel_version))) +
           labelled("Uptime:", uptime) +
           labelled("Load:", formatValue(info.loadavg_1min, 2) + " (1 min)  " +
                                 formatValue(info.loadavg_5min, 2) + " (5 min)  " +
                                 formatValue(info.loadavg_15min, 2) + " (15 min)") +
           labelled("Counts:", formatCount(info.context_switches) + " context switches, " +
                                   formatCount(info.interrupts) + " interrupts since boot");
}

/// A table of one line of values; `names` are its titles.
std::string valuesTable(const std::vector<std::string>& names, std::vector<Table::Cell> values,
                        bool colour) {
    std::vector<Table::Column> columns{{names.front(), Alignment::Left}};
    for (std::size_t index = 1; index < names.size(); ++index) {
        columns.push_back({names[index], Alignment::Right, true});
    }
    Table table(std::move(columns));
    table.add(std::move(values));
    return table.text(colour);
}

std::string processorTable(const systeminfo_struct& info, bool colour) {
    const auto percent = [](float value) { return Table::Cell{formatValue(value, 1)}; };
    return valuesTable({"CPU", "USER", "SYS", "NICE", "IDLE", "IOWAIT", "IRQ", "SOFTIRQ"},
                       {{"%"},
                        percent(info.cpuload_user),
                        percent(info.cpuload_sys),
                        percent(info.cpuload_nice),
                        percent(info.cpuload_idle),
                        percent(info.cpuload_iowait),
                        percent(info.cpuload_irq),
                        percent(info.cpuload_softirq)},
                       colour);
}

std::string memoryTable(const systeminfo_struct& info, bool colour) {
    const auto amount = [](std::int32_t kilobytes) {
        return Table::Cell{formatBytes(kilobytes * kBytesPerKb)};
    };
    return valuesTable(
        {"MEMORY", "TOTAL", "USED", "FREE", "BUFFERS", "CACHED", "ACTIVE", "INACTIVE", "SHARED"},
        {{"bytes"},
         amount(info.memload_total),
         amount(info.memload_used),
         amount(info.memload_free),
         amount(info.memload_buffers),
         amount(info.memload_cached),
         amount(info.memload_active),
         amount(info.memload_inactive),
         amount(info.memload_shared)},
        colour);
}

std::string countOrDash(const std::optional<std::int32_t>& count) {
    return count.has_value() ? formatCount(*count) : "-";
}

std::string trafficTable(const std::array<Interface, 2>& interfaces, bool colour) {
    Table table({{"TRAFFIC", Alignment::Left},
                 {"kB/s", Alignment::Right, true},
                 {"BYTES", Alignment::Right, true},
                 {"PACKETS", Alignment::Right, true},
                 {"ERRORS", Alignment::Right, true},
                 {"DROPS", Alignment::Right, true},
                 {"FIFO", Alignment::Right, true},
                 {"FRAME", Alignment::Right, true},
                 {"COLLS", Alignment::Right, true}});
    for (const Interface& interface : interfaces) {
        for (const Traffic& traffic : trafficOf(interface.counters)) {
            table.add({{std::string(interface.name) + ' ' + traffic.direction},
                       {formatValue(traffic.kilobytesPerSec, 1)},
                       {formatBytes(traffic.bytes)},
                       {formatCount(traffic.packets)},
                       {formatCount(traffic.errors)},
                       {formatCount(traffic.drops)},
                       {formatCount(traffic.fifoErrors)},
                       {countOrDash(traffic.frameErrors)},
                       {countOrDash(traffic.collisions)}});
        }
    }
    return table.text(colour);
}

/// Adds a row; where nothing is published, only one that `isKept`, with a dash.
void addFact(Table& table, const Interface& interface, const char* fact, std::string_view value,
             bool isKept) {
    if (!value.empty() || isKept) {
        table.add({{interface.name}, {fact}, {value.empty() ? "-" : printable(value)}});
    }
}

std::string addressTable(const std::array<Interface, 2>& interfaces, bool colour) {
    Table table(
        {{"ADDRESSES", Alignment::Left}, {"", Alignment::Left}, {"", Alignment::Left, true}});
    for (const Interface& interface : interfaces) {
        const DHCP_INFO_STRUCT& dhcp = interface.dhcp;
        const DHCPV6_INFO_STRUCT& dhcpv6 = interface.dhcpv6;
        addFact(table, interface, "IPv4", interface.ipv4, true);
        addFact(table, interface, "IPv6", interface.ipv6, true);
        addFact(table, interface, "DHCP status", fieldText(dhcp.client_status), true);
        addFact(table, interface, "DHCP address", fieldText(dhcp.client_addr), false);
        addFact(table, interface, "DHCP mask", fieldText(dhcp.subnet_mask), false);
        addFact(table, interface, "DHCP lease time", fieldText(dhcp.renew_lease_time), false);
        addFact(table, interface, "DHCP server", fieldText(dhcp.server_addr), false);
        addFact(table, interface, "DHCP router", fieldText(dhcp.router_addr), false);
        addFact(table, interface, "DHCP DNS", fieldText(dhcp.dns_server_addr), false);
        addFact(table, interface, "DHCP SMTP", fieldText(dhcp.smtp_server_addr), false);
        addFact(table, interface, "DHCP SNTP", fieldText(dhcp.sntp_server_addr), false);
        addFact(table, interface, "DHCPv6 status", fieldText(dhcpv6.client_status), true);
        addFact(table, interface, "DHCPv6 address", fieldText(dhcpv6.client_addr), false);
        addFact(table, interface, "DHCPv6 renewal", fieldText(dhcpv6.renew_lease_time), false);
    }
    return table.text(colour);
}

std::string viewText(const Publication& publication, const Finding& finding,
                     const system_segment& segment, bool colour) {
    const std::string head = monitorLine(publication, colour) + "Data:     ";
    if (!finding.hasData) {
        return head + "none\n";
    }
    const std::array<Interface, 2> interfaces = interfacesOf(segment);
    return head + ageText(publication, finding, colour) + "\n\n" + summaryText(segment) + '\n' +
           processorTable(segment.sysinfo, colour) + '\n' + memoryTable(segment.sysinfo, colour) +
           '\n' + trafficTable(interfaces, colour) + '\n' + addressTable(interfaces, colour);
}

Json processorJson(const systeminfo_struct& info) {
    Json object;
    object["user"] = jsonValue(info.cpuload_user);
    object["sys"] = jsonValue(info.cpuload_sys);
    object["nice"] = jsonValue(info.cpuload_nice);
    object["idle"] = jsonValue(info.cpuload_idle);
    object["iowait"] = jsonValue(info.cpuload_iowait);
    object["irq"] = jsonValue(info.cpuload_irq);
    object["softirq"] = jsonValue(info.cpuload_softirq);
    return object;
}

Json memoryJson(const systeminfo_struct& info) {
    Json object;
    object["total"] = info.memload_total;
    object["used"] = info.memload_used;
    object["free"] = info.memload_free;
    object["buffers"] = info.memload_buffers;
    object["cached"] = info.memload_cached;
    object["active"] = info.memload_active;
    object["inactive"] = info.memload_inactive;
    object["shared"] = info.memload_shared;
    return object;
}

Json trafficJson(const Traffic& traffic) {
    Json object;
    object["kilobytes_per_s"] = jsonValue(traffic.kilobytesPerSec);
    object["bytes"] = traffic.bytes;
    object["packets"] = traffic.packets;
    object["errors"] = traffic.errors;
    object["drops"] = traffic.drops;
    object["fifo_errors"] = traffic.fifoErrors;
    if (traffic.frameErrors.has_value()) {
        object["frame_errors"] = *traffic.frameErrors;
    }
    if (traffic.collisions.has_value()) {
        object["collisions"] = *traffic.collisions;
    }
    return object;
}

Json leaseJson(const DHCP_INFO_STRUCT& lease) {
    Json object;
    object["status"] = jsonField(lease.client_status);
    object["address"] = jsonField(lease.client_addr);
    object["mask"] = jsonField(lease.subnet_mask);
    object["lease_time"] = jsonField(lease.renew_lease_time);
    object["server"] = jsonField(lease.server_addr);
    object["router"] = jsonField(lease.router_addr);
    object["dns"] = jsonField(lease.dns_server_addr);
    object["smtp"] = jsonField(lease.smtp_server_addr);
    object["sntp"] = jsonField(lease.sntp_server_addr);
    return object;
}

Json leaseJson(const DHCPV6_INFO_STRUCT& lease) {
    Json object;
    object["status"] = jsonField(lease.client_status);
    object["address"] = jsonField(lease.client_addr);
    object["renewal"] = jsonField(lease.renew_lease_time);
    return object;
}

Json interfaceJson(const Interface& interface) {
    Json object;
    object["ipv4"] = std::string(interface.ipv4);
    object["ipv6"] = std::string(interface.ipv6);
    for (const Traffic& traffic : trafficOf(interface.counters)) {
        object[traffic.direction] = trafficJson(traffic);
    }
    object["dhcp"] = leaseJson(interface.dhcp);
    object["dhcpv6"] = leaseJson(interface.dhcpv6);
    return object;
}

void addData(const system_segment& segment, Json& object) {
    const systeminfo_struct& info = segment.sysinfo;
    object["kernel_release"] = jsonField(segment.meter.kernel_release);
    object["kernel_version"] = jsonField(segment.meter.kernel_version);
    object["boot_time_ms"] = jsonTime(info.boot_time);
    object["uptime_hours"] = jsonValue(info.runtime_uptime);
    object["idle_percent"] = jsonValue(info.runtime_idletime);
    object["load"] = {jsonValue(info.loadavg_1min), jsonValue(info.loadavg_5min),
                      jsonValue(info.loadavg_15min)};
    object["context_switches"] = info.context_switches;
    object["interrupts"] = info.interrupts;
    object["cpu_percent"] = processorJson(info);
    object["memory_kb"] = memoryJson(info);
    for (const Interface& interface : interfacesOf(segment)) {
        object["interfaces"][interface.name] = interfaceJson(interface);
    }
}

std::string viewJson(const Publication& publication, const Finding& finding,
                     const system_segment& segment, const ViewStyle& style) {
    Json object = jsonOf(publication, finding);
    if (finding.hasData) {
        addData(segment, object);
    }
    return jsonText(object, style);
}

} // namespace

Report makeSystemReport(const Publication& publication, const system_segment& segment,
                        const ViewStyle& style) {
    // The kernel always has a release.
    const Finding finding = judge(publication, segment.meter.kernel_release[0] != '\0');
    return {finding.exitStatus,
            style.json ? viewJson(publication, finding, segment, style)
                       : viewText(publication, finding, segment, style.colour),
            finding.error};
}

} // namespace ovardctl
