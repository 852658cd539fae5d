// What the monitor takes from the lease files of the DHCP clients (dhclient.leases(5)).
//
// The readers are functions of the text alone. A text without a lease gives an empty record. Every
// "interface" statement clears the record, so the last lease wins.

#ifndef OVARD_STATUS_LEASE_PARSERS_H
#define OVARD_STATUS_LEASE_PARSERS_H

#include <string_view>

#include "records/dhcpinfo.h"

namespace status {

/// What is published where there is no lease file: the status "Disabled", all other texts empty.
DHCP_INFO_STRUCT disabledLease();
DHCPV6_INFO_STRUCT disabledLease6();

/// The last IPv4 lease of a lease file. Leases of interfaces beyond eth1 leave the record empty.
DHCP_INFO_STRUCT readLeases(std::string_view text);

/// The last IPv6 lease of a lease file; as readLeases.
DHCPV6_INFO_STRUCT readLeases6(std::string_view text);

} // namespace status

#endif // OVARD_STATUS_LEASE_PARSERS_H
