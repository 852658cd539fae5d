#include "status/LeaseParsers.h"

#include <cstdint>

#include "platform/Text.h"
#include "status/TextScanner.h"

namespace status {
namespace {

/// Interfaces beyond this number are not published.
constexpr std::int32_t kLastInterface = 1;

constexpr std::int32_t kNoInterface = -1;

constexpr std::string_view kDisabled = "Disabled";

/// If `line` starts with `key`, leaves what follows, without leading white space, in `value`.
bool takeValue(std::string_view line, std::string_view key, std::string_view& value) {
    if (!startsWith(line, key)) {
        return false;
    }
    value = skipBlanks(line.substr(key.size()));
    return true;
}

/// The number of the interface in `"ethN"`; false when it is no such name.
bool takeInterface(std::string_view value, std::int32_t& number) {
    constexpr std::string_view kPrefix = "\"eth";
    if (!startsWith(value, kPrefix)) {
        return false;
    }
    number = toInt32(value.substr(kPrefix.size()));
    return true;
}

void takeOption(std::string_view option, DHCP_INFO_STRUCT& lease) {
    std::string_view value;
    if (takeValue(option, "subnet-mask ", value)) {
        platform::copyToField(lease.subnet_mask, value);
    } else if (takeValue(option, "routers ", value)) {
        platform::copyToField(lease.router_addr, value);
    } else if (takeValue(option, "dhcp-lease-time ", value)) {
        platform::copyToField(lease.renew_lease_time, value);
    } else if (takeValue(option, "domain-name-servers ", value)) {
        platform::copyToField(lease.dns_server_addr, value);
    } else if (takeValue(option, "dhcp-server-identifier ", value)) {
        platform::copyToField(lease.server_addr, value);
    } else if (takeValue(option, "ntp-servers ", value)) {
        platform::copyToField(lease.sntp_server_addr, value);
    } else if (takeValue(option, "smtp-servers ", value)) {
        platform::copyToField(lease.smtp_server_addr, value);
    }
}

/// A statement of an IPv4 lease.
void takeStatement(std::string_view line, DHCP_INFO_STRUCT& lease) {
    std::string_view value;
    if (takeValue(line, "fixed-address ", value)) {
        platform::copyToField(lease.client_addr, value);
    } else if (takeValue(line, "expire ", value)) {
        platform::copyToField(lease.client_status, value);
    } else if (takeValue(line, "option ", value)) {
        takeOption(value, lease);
    }
}

/// A statement of an IPv6 lease.
void takeStatement(std::string_view line, DHCPV6_INFO_STRUCT& lease) {
    std::string_view value;
    if (takeValue(line, "renew ", value)) {
        platform::copyToField(lease.renew_lease_time, value);
    } else if (takeValue(line, "iaaddr ", value)) {
        // The statement opens a block.
        platform::copyToField(lease.client_addr, value.substr(0, value.find(" {")));
    } else if (takeValue(line, "max-life ", value)) {
        platform::copyToField(lease.client_status, value);
    }
}

template <typename Lease> Lease readLastLease(std::string_view text, std::string_view blockStart) {
    Lease lease = {};
    std::int32_t interface = kNoInterface;
    Lines lines(text);
    std::string_view line;
    while (lines.next(line)) {
        if (line.back() == ';') {
            line.remove_suffix(1);
        }
        std::string_view value;
        if (startsWith(line, blockStart)) {
            interface = kNoInterface;
        } else if (takeValue(line, "interface ", value)) {
            if (takeInterface(value, interface)) {
                lease = {};
            }
        } else if (interface <= kLastInterface) {
            takeStatement(line, lease);
        }
    }
    return lease;
}

template <typename Lease> Lease makeDisabled() {
    Lease lease = {};
    platform::copyToField(lease.client_status, kDisabled);
    return lease;
}

} // namespace

DHCP_INFO_STRUCT disabledLease() {
    return makeDisabled<DHCP_INFO_STRUCT>();
}

DHCPV6_INFO_STRUCT disabledLease6() {
    return makeDisabled<DHCPV6_INFO_STRUCT>();
}

DHCP_INFO_STRUCT readLeases(std::string_view text) {
    return readLastLease<DHCP_INFO_STRUCT>(text, "lease {");
}

DHCPV6_INFO_STRUCT readLeases6(std::string_view text) {
    return readLastLease<DHCPV6_INFO_STRUCT>(text, "lease6 {");
}

} // namespace status
