// The statistics of the machine: which file goes where in the image.

#include "platform/MutexGuard.h"
#include "platform/Settings.h"
#include "platform/TextFile.h"
#include "platform/Trace.h"
#include "status/AppStatusUpdate.h"
#include "status/LeaseParsers.h"

namespace {

constexpr const char* kUptimePath = "/proc/uptime";
constexpr const char* kLoadPath = "/proc/loadavg";
constexpr const char* kStatPath = "/proc/stat";
constexpr const char* kMemoryPath = "/proc/meminfo";
constexpr const char* kNetworkPath = "/proc/net/dev";

constexpr const char* kLeasesEth0 = "/var/lib/dhcp/dhclient.eth0.leases";
constexpr const char* kLeasesEth1 = "/var/lib/dhcp/dhclient.eth1.leases";
constexpr const char* kLeases6Eth0 = "/var/lib/dhcp/dhclient6.eth0.leases";
constexpr const char* kLeases6Eth1 = "/var/lib/dhcp/dhclient6.eth1.leases";

constexpr int kNotOpened = -1;

/// Name of the interface whose record in the system image `lease` is; null when it is none of them.
template <typename Lease>
const char* interfaceOf(const Lease* lease, const Lease& eth0, const Lease& eth1) {
    if (lease == &eth0) {
        return "eth0";
    }
    return lease == &eth1 ? "eth1" : nullptr;
}

/// Shows one field of the lease of an interface; nothing for a lease of no interface.
void traceField(const char* label, const char* interface, const char* separator,
                const char* value) {
    platform::trace(verbose >= 5 && interface != nullptr, "%s%s%s%s\n", label, interface, separator,
                    value);
}

} // namespace

/// Reads `path` into fileText_; says where it cannot be opened.
bool AppStatusUpdate::readStatistics(const char* path) {
    if (platform::readTextFile(path, fileText_)) {
        return true;
    }
    platform::trace(verbose >= 5, "%s - error opening!\n", path);
    return false;
}

int AppStatusUpdate::getSysInfo() {
    const platform::MutexGuard lock(statisticsLock_);
    systeminfo_struct& info = systemImage_.sysinfo;
    const int results[] = {
        parseUptime(info),
        parseLoadAvg(info),
        parseProcStat(info),
        parseMemInfo(info),
        parseNetDev(info),
        parseDHCPINFO(kLeasesEth0, &systemImage_.dhcp_eth0),
        parseDHCPINFO(kLeasesEth1, &systemImage_.dhcp_eth1),
        parseDHCPV6INFO(kLeases6Eth0, &systemImage_.dhcpv6_eth0),
        parseDHCPV6INFO(kLeases6Eth1, &systemImage_.dhcpv6_eth1),
    };
    int result = 0;
    for (const int each : results) {
        result = each < 0 ? each : result;
    }
    return result;
}

int AppStatusUpdate::parseUptime(systeminfo_struct& info) {
    return readStatistics(kUptimePath) ? status::readUptime(fileText_, info) : kNotOpened;
}

int AppStatusUpdate::parseLoadAvg(systeminfo_struct& info) {
    return readStatistics(kLoadPath) ? status::readLoadAverages(fileText_, info) : kNotOpened;
}

int AppStatusUpdate::parseProcStat(systeminfo_struct& info) {
    if (!readStatistics(kStatPath)) {
        return kNotOpened;
    }
    cpuSamples_.advance();
    return status::readStat(fileText_, cpuSamples_, info);
}

int AppStatusUpdate::parseMemInfo(systeminfo_struct& info) {
    return readStatistics(kMemoryPath) ? status::readMemory(fileText_, info) : kNotOpened;
}

int AppStatusUpdate::parseNetDev(systeminfo_struct& info) {
    return readStatistics(kNetworkPath) ? status::readNetwork(fileText_, networkSamples_, info)
                                        : kNotOpened;
}

int AppStatusUpdate::parseDHCPINFO(const char* path, DHCP_INFO_STRUCT* lease) {
    if (!readStatistics(path)) {
        *lease = status::disabledLease();
        return kNotOpened;
    }
    *lease = status::readLeases(fileText_);
    traceLease(lease);
    return 0;
}

int AppStatusUpdate::parseDHCPV6INFO(const char* path, DHCPV6_INFO_STRUCT* lease) {
    if (!readStatistics(path)) {
        *lease = status::disabledLease6();
        traceDisabledLease(lease);
        return kNotOpened;
    }
    *lease = status::readLeases6(fileText_);
    traceLease(lease);
    return 0;
}

void AppStatusUpdate::traceLease(const DHCP_INFO_STRUCT* lease) const {
    const char* const eth = interfaceOf(lease, systemImage_.dhcp_eth0, systemImage_.dhcp_eth1);
    traceField("dev.dhcp.client_status.", eth, "         = ", lease->client_status);
    traceField("dev.dhcp.renew_lease_time.", eth, "      = ", lease->renew_lease_time);
    traceField("dev.dhcp.server_addr_ipv4.", eth, "      = ", lease->server_addr);
    traceField("dev.dhcp.client_addr_ipv4.", eth, "      = ", lease->client_addr);
    traceField("dev.dhcp.subnet_mask.", eth, "           = ", lease->subnet_mask);
    traceField("dev.dhcp.router_gw_addr_ipv4.", eth, "   = ", lease->router_addr);
    traceField("dev.dhcp.dns_server_addr_ipv4.", eth, "  = ", lease->dns_server_addr);
    traceField("dev.dhcp.sntp_server_addr_ipv4.", eth, " = ", lease->sntp_server_addr);
    traceField("dev.dhcp.smtp_server_addr_ipv4.", eth, " = ", lease->smtp_server_addr);
}

void AppStatusUpdate::traceLease(const DHCPV6_INFO_STRUCT* lease) const {
    const char* const eth = interfaceOf(lease, systemImage_.dhcpv6_eth0, systemImage_.dhcpv6_eth1);
    traceField("dev.dhcpv6.client_status.", eth, "       = ", lease->client_status);
    traceField("dev.dhcpv6.renew_lease_time.", eth, "    = ", lease->renew_lease_time);
    traceField("dev.dhcpv6.client_addr_ipv6.", eth, "    = ", lease->client_addr);
}

void AppStatusUpdate::traceDisabledLease(const DHCPV6_INFO_STRUCT* lease) const {
    const char* const eth = interfaceOf(lease, systemImage_.dhcpv6_eth0, systemImage_.dhcpv6_eth1);
    traceField("dev.dhcpv6.client_status.", eth, "         = ", lease->client_status);
}
