// Facts about the DHCP lease of one interface, as the monitor publishes them.
//
// Plain C++17; may be included by other programs as it stands.

#ifndef OVARD_RECORDS_DHCPINFO_H
#define OVARD_RECORDS_DHCPINFO_H

#include <cstddef>
#include <type_traits>

/// IPv4 lease: 196 bytes, texts that end with a NUL inside their arrays.
struct DHCP_INFO_STRUCT {
    char client_status[36]; ///< "Disabled" without a lease file, else when the lease expires
    char renew_lease_time[20];
    char server_addr[20];
    char client_addr[20];
    char subnet_mask[20];
    char router_addr[20];
    char dns_server_addr[20];
    char smtp_server_addr[20];
    char sntp_server_addr[20];
};

/// IPv6 lease: 124 bytes, texts that end with a NUL inside their arrays.
struct DHCPV6_INFO_STRUCT {
    char client_status[36]; ///< "Disabled" without a lease file, else the maximal life time
    char renew_lease_time[20];
    char client_addr[68];
};

static_assert(std::is_trivially_copyable_v<DHCP_INFO_STRUCT>);
static_assert(std::is_standard_layout_v<DHCP_INFO_STRUCT>);
static_assert(sizeof(DHCP_INFO_STRUCT) == 196);
static_assert(offsetof(DHCP_INFO_STRUCT, client_status) == 0);
static_assert(offsetof(DHCP_INFO_STRUCT, renew_lease_time) == 36);
static_assert(offsetof(DHCP_INFO_STRUCT, server_addr) == 56);
static_assert(offsetof(DHCP_INFO_STRUCT, client_addr) == 76);
static_assert(offsetof(DHCP_INFO_STRUCT, subnet_mask) == 96);
static_assert(offsetof(DHCP_INFO_STRUCT, router_addr) == 116);
static_assert(offsetof(DHCP_INFO_STRUCT, dns_server_addr) == 136);
static_assert(offsetof(DHCP_INFO_STRUCT, smtp_server_addr) == 156);
static_assert(offsetof(DHCP_INFO_STRUCT, sntp_server_addr) == 176);

static_assert(std::is_trivially_copyable_v<DHCPV6_INFO_STRUCT>);
static_assert(std::is_standard_layout_v<DHCPV6_INFO_STRUCT>);
static_assert(sizeof(DHCPV6_INFO_STRUCT) == 124);
static_assert(offsetof(DHCPV6_INFO_STRUCT, client_status) == 0);
static_assert(offsetof(DHCPV6_INFO_STRUCT, renew_lease_time) == 36);
static_assert(offsetof(DHCPV6_INFO_STRUCT, client_addr) == 56);

#endif // OVARD_RECORDS_DHCPINFO_H
