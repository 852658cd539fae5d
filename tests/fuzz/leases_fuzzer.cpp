// Lease files of both DHCP versions: the input as the text of either.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "status/LeaseParsers.h"
#include "tests/fuzz/Require.h"

using fuzz::require;

namespace {

/// All that stands in a field comes out of the file as it is there, or cut.
template <std::size_t Size> void examineField(std::string_view file, const char (&field)[Size]) {
    require(fuzz::isTerminated(field), "texts of a lease are terminated");
    const std::string_view bytes(field, Size);
    const std::size_t end = bytes.find_last_not_of('\0') + 1; // npos + 1 is 0
    require(file.find(bytes.substr(0, end)) != std::string_view::npos,
            "nothing is published that is not there");
}

void examineLease(std::string_view text) {
    const DHCP_INFO_STRUCT lease = status::readLeases(text);
    examineField(text, lease.client_status);
    examineField(text, lease.renew_lease_time);
    examineField(text, lease.server_addr);
    examineField(text, lease.client_addr);
    examineField(text, lease.subnet_mask);
    examineField(text, lease.router_addr);
    examineField(text, lease.dns_server_addr);
    examineField(text, lease.smtp_server_addr);
    examineField(text, lease.sntp_server_addr);
}

void examineLease6(std::string_view text) {
    const DHCPV6_INFO_STRUCT lease = status::readLeases6(text);
    examineField(text, lease.client_status);
    examineField(text, lease.renew_lease_time);
    examineField(text, lease.client_addr);
}

template <typename Lease> bool areSame(const Lease& left, const Lease& right) {
    return std::memcmp(&left, &right, sizeof left) == 0;
}

/// Whatever stands before it, the last lease is read as if it stood alone.
void appendLease(std::string_view text) {
    const std::string lease = "\nlease {\n  interface \"eth0\";\n  fixed-address 10.0.0.2;\n}\n";
    require(areSame(status::readLeases(std::string(text) + lease), status::readLeases(lease)),
            "the last lease wins");
    const std::string lease6 =
        "\nlease6 {\n  interface \"eth1\";\n  iaaddr 2001:db8::1 {\n  max-life 5;\n  }\n}\n";
    require(areSame(status::readLeases6(std::string(text) + lease6), status::readLeases6(lease6)),
            "the last IPv6 lease wins");
}

/// Leases of an interface that is not published leave nothing.
void appendForeignLease(std::string_view text) {
    const std::string lease = "\nlease {\n  interface \"eth2\";\n  fixed-address 10.0.0.2;\n}\n";
    require(areSame(status::readLeases(std::string(text) + lease), DHCP_INFO_STRUCT{}),
            "leases of other interfaces are not published");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    examineLease(text);
    examineLease6(text);
    appendLease(text);
    appendForeignLease(text);
    return 0;
}
