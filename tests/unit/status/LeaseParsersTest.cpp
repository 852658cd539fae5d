#include "status/LeaseParsers.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tests/fakes/FakePlatform.h"
#include "tests/unit/status/fixtures/LeaseTexts.h"

namespace {

using namespace std::string_literals;
using status::readLeases;
using status::readLeases6;

template <typename Lease> bool isCleared(const Lease& lease) {
    const Lease cleared = {};
    return std::memcmp(&lease, &cleared, sizeof lease) == 0;
}

/// A lease block of `interface`.
std::string block(const std::string& interface, const std::string& statements) {
    return "lease {\n  interface \"" + interface + "\";\n" + statements + "}\n";
}

std::string block6(const std::string& interface, const std::string& statements) {
    return "lease6 {\n  interface \"" + interface + "\";\n" + statements + "}\n";
}

std::string rubbish(std::size_t size) {
    std::string text(size, '\0');
    std::uint32_t state = 99;
    for (char& byte : text) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24);
    }
    return text;
}

// --- no file -------------------------------------------------------------------------------------

TEST(DisabledLeaseTest, SaysSoAndIsEmptyElse) {
    DHCP_INFO_STRUCT lease = status::disabledLease();
    EXPECT_STREQ(lease.client_status, "Disabled");
    std::memset(lease.client_status, 0, sizeof "Disabled");
    EXPECT_TRUE(isCleared(lease));
}

TEST(DisabledLeaseTest, SaysSoForIpv6Too) {
    DHCPV6_INFO_STRUCT lease = status::disabledLease6();
    EXPECT_STREQ(lease.client_status, "Disabled");
    std::memset(lease.client_status, 0, sizeof "Disabled");
    EXPECT_TRUE(isCleared(lease));
}

// --- IPv4 ----------------------------------------------------------------------------------------

TEST(ReadLeasesTest, EachStatementGoesToItsField) {
    const DHCP_INFO_STRUCT lease = readLeases(fixtures::kLease);
    EXPECT_STREQ(lease.client_status, "4 2023/11/16 16:11:12");
    EXPECT_STREQ(lease.renew_lease_time, "86400");
    EXPECT_STREQ(lease.server_addr, "192.168.1.3");
    EXPECT_STREQ(lease.client_addr, "192.168.1.77");
    EXPECT_STREQ(lease.subnet_mask, "255.255.255.0");
    EXPECT_STREQ(lease.router_addr, "192.168.1.1");
    EXPECT_STREQ(lease.dns_server_addr, "192.168.1.2");
    EXPECT_STREQ(lease.smtp_server_addr, "192.168.1.5");
    EXPECT_STREQ(lease.sntp_server_addr, "192.168.1.4");
}

TEST(ReadLeasesTest, TheLastLeaseWinsWithAllItsFields) {
    const DHCP_INFO_STRUCT lease = readLeases(fixtures::kTwoLeases);
    EXPECT_STREQ(lease.client_status, "2 2023/11/14 10:00:00");
    EXPECT_STREQ(lease.client_addr, "10.0.0.2");
    EXPECT_STREQ(lease.subnet_mask, "255.255.0.0");
    EXPECT_STREQ(lease.router_addr, "");
    EXPECT_STREQ(lease.sntp_server_addr, "");
}

TEST(ReadLeasesTest, FieldsAreZeroBehindTheirText) {
    const DHCP_INFO_STRUCT lease = readLeases(fixtures::kTwoLeases);
    DHCP_INFO_STRUCT expected = {};
    std::strcpy(expected.client_status, "2 2023/11/14 10:00:00");
    std::strcpy(expected.client_addr, "10.0.0.2");
    std::strcpy(expected.subnet_mask, "255.255.0.0");
    EXPECT_EQ(std::memcmp(&lease, &expected, sizeof lease), 0);
}

TEST(ReadLeasesTest, ALaterBlockWithoutInterfaceAddsItsValues) {
    const std::string text = fixtures::kTwoLeases + "lease {\n  option routers 10.0.0.7;\n}\n"s;
    const DHCP_INFO_STRUCT lease = readLeases(text);
    EXPECT_STREQ(lease.router_addr, "10.0.0.7");
    EXPECT_STREQ(lease.client_addr, "10.0.0.2");
}

TEST(ReadLeasesTest, TextsWithoutALeaseAreEmptyNotDisabled) {
    for (const char* text : {"", "\n", "# no lease yet\n", "default-duid \"\\000\";\n",
                             "lease {\n}\n", "lease {", "}\n"}) {
        EXPECT_TRUE(isCleared(readLeases(text))) << text;
    }
}

TEST(ReadLeasesTest, TheThirdInterfaceLeavesTheRecordCleared) {
    EXPECT_TRUE(isCleared(readLeases(block("eth2", "  fixed-address 10.0.0.1;\n"))));
    EXPECT_TRUE(isCleared(
        readLeases(block("eth0", "  expire never;\n") + block("eth2", "  expire never;\n"))));
}

TEST(ReadLeasesTest, InterfacesUpToNumberOneCount) {
    for (const char* interface : {"eth0", "eth1", "eth", "eth01", "eth1.5", "eth-3"}) {
        EXPECT_STREQ(readLeases(block(interface, "expire never;\n")).client_status, "never")
            << interface;
    }
    for (const char* interface : {"eth2", "eth3", "eth10", "eth11", "eth2147483647"}) {
        EXPECT_TRUE(isCleared(readLeases(block(interface, "expire never;\n")))) << interface;
    }
}

TEST(ReadLeasesTest, ABlockAfterTheThirdInterfaceCountsAgain) {
    const std::string third = block("eth2", "  expire never;\n");
    EXPECT_STREQ(readLeases(third + block("eth1", "expire 5;\n")).client_status, "5");
    EXPECT_STREQ(readLeases(third + "lease {\n  expire 6;\n}\n").client_status, "6");
}

TEST(ReadLeasesTest, EachInterfaceStatementClearsTheRecord) {
    const DHCP_INFO_STRUCT lease = readLeases("lease {\n"
                                              "fixed-address 10.0.0.1;\n"
                                              "interface \"eth0\";\n"
                                              "expire never;\n"
                                              "interface \"eth1\";\n"
                                              "option routers 10.0.0.2;\n");
    EXPECT_STREQ(lease.client_addr, "");
    EXPECT_STREQ(lease.client_status, "");
    EXPECT_STREQ(lease.router_addr, "10.0.0.2");
}

TEST(ReadLeasesTest, AnInterfaceNameMustStandInQuotesAndBeginWithEth) {
    // None of these is an interface of ours, so the record is not cleared.
    for (const char* name : {"\"wlan0\"", "eth0", "'eth0'", "\"et\"", "\"\"", ""}) {
        const std::string text =
            block("eth0", "expire never;\n") + "  interface " + name + ";\n  option routers 1;\n";
        const DHCP_INFO_STRUCT lease = readLeases(text);
        EXPECT_STREQ(lease.client_status, "never") << name;
        EXPECT_STREQ(lease.router_addr, "1") << name;
    }
}

TEST(ReadLeasesTest, OddSpacing) {
    const DHCP_INFO_STRUCT lease = readLeases("\n\t lease {\n"
                                              "\t\tinterface   \"eth1\";\n\n"
                                              "fixed-address \t 10.1.1.1;\n"
                                              "    option    subnet-mask   255.0.0.0;\n"
                                              " \t option routers \t10.1.1.2;\n"
                                              "\texpire   1 2023/01/01 00:00:00;\n");
    EXPECT_STREQ(lease.client_addr, "10.1.1.1");
    EXPECT_STREQ(lease.subnet_mask, "255.0.0.0");
    EXPECT_STREQ(lease.router_addr, "10.1.1.2");
    EXPECT_STREQ(lease.client_status, "1 2023/01/01 00:00:00");
}

TEST(ReadLeasesTest, OnlyOneSemicolonIsRemoved) {
    EXPECT_STREQ(readLeases("expire never").client_status, "never");
    EXPECT_STREQ(readLeases("expire never;").client_status, "never");
    EXPECT_STREQ(readLeases("expire never;;").client_status, "never;");
    EXPECT_STREQ(readLeases("expire a;b;").client_status, "a;b");
}

TEST(ReadLeasesTest, NoLineFeedAtTheEnd) {
    EXPECT_STREQ(
        readLeases("lease {\n interface \"eth0\";\n expire epoch 1700000000;").client_status,
        "epoch 1700000000");
}

TEST(ReadLeasesTest, CommentsAreIgnored) {
    const DHCP_INFO_STRUCT lease = readLeases("# lease {\n"
                                              "lease {\n"
                                              "  interface \"eth0\";\n"
                                              "  # interface \"eth1\";\n"
                                              "  #fixed-address 10.0.0.1;\n"
                                              "  expire epoch 1700000000; # Tue Nov 14\n"
                                              "}\n");
    EXPECT_STREQ(lease.client_addr, "");
    EXPECT_EQ(std::string(lease.client_status).substr(0, 16), "epoch 1700000000");
}

TEST(ReadLeasesTest, AListIsCopiedAsItStandsAndCut) {
    const DHCP_INFO_STRUCT lease = readLeases("option routers 10.0.0.1,10.0.0.2,10.0.0.3;\n"
                                              "option domain-name-servers 10.0.0.1, 10.0.0.2;\n"
                                              "option ntp-servers 1234567890123456789;\n");
    EXPECT_STREQ(lease.router_addr, "10.0.0.1,10.0.0.2,1");
    EXPECT_STREQ(lease.dns_server_addr, "10.0.0.1, 10.0.0.2");
    EXPECT_STREQ(lease.sntp_server_addr, "1234567890123456789");
}

TEST(ReadLeasesTest, EveryFieldIsCutToItsSize) {
    const std::string value(100, 'v');
    std::string text;
    for (const char* key :
         {"fixed-address ", "expire ", "option subnet-mask ", "option routers ",
          "option dhcp-lease-time ", "option domain-name-servers ",
          "option dhcp-server-identifier ", "option ntp-servers ", "option smtp-servers "}) {
        text += key + value + ";\n";
    }
    const DHCP_INFO_STRUCT lease = readLeases(text);
    EXPECT_EQ(lease.client_status, std::string(35, 'v'));
    for (const char* field : {lease.renew_lease_time, lease.server_addr, lease.client_addr,
                              lease.subnet_mask, lease.router_addr, lease.dns_server_addr,
                              lease.smtp_server_addr, lease.sntp_server_addr}) {
        EXPECT_EQ(field, std::string(19, 'v'));
    }
}

TEST(ReadLeasesTest, KeysMustMatchWithTheirBlank) {
    EXPECT_TRUE(isCleared(readLeases("expires never;\nexpire;\nexpire\tnever;\nfixed-address6 1;\n"
                                     "option routers6 1;\noption routers;\noptions routers 1;\n"
                                     "option subnet-masks 1;\nxexpire never;\nrenew 3600;\n"
                                     "EXPIRE never;\noption dhcp-renewal-time 1;\n")));
}

TEST(ReadLeasesTest, StatementsOutsideABlockAreTaken) {
    EXPECT_STREQ(readLeases(fixtures::kLease + "option routers 9.9.9.9;\n"s).router_addr,
                 "9.9.9.9");
    EXPECT_STREQ(readLeases("fixed-address 1.2.3.4;\n").client_addr, "1.2.3.4");
}

TEST(ReadLeasesTest, ABlockOfTheOtherProtocolIsNoLease) {
    // Its "lease6 {" starts no block, so the interface before it stays in force.
    EXPECT_TRUE(isCleared(readLeases("interface \"eth2\";\nlease6 {\nexpire never;\n}\n")));
    EXPECT_TRUE(isCleared(readLeases6("interface \"eth2\";\nlease {\nrenew 5;\n}\n")));
}

TEST(ReadLeasesTest, EveryTruncationIsSurvived) {
    const std::string text = fixtures::kLease;
    for (std::size_t length = 0; length < text.size(); ++length) {
        const DHCP_INFO_STRUCT lease = readLeases(text.substr(0, length));
        EXPECT_STRNE(lease.client_status, "Disabled") << length;
        EXPECT_EQ(lease.client_status[35], '\0');
    }
    EXPECT_STREQ(readLeases(text.substr(0, text.find("option"))).client_addr, "192.168.1.77");
}

TEST(ReadLeasesTest, AMegabyteOfRubbishIsSurvived) {
    const std::string text = "#" + rubbish(1048576);
    EXPECT_TRUE(isCleared(readLeases(text)));
    EXPECT_TRUE(isCleared(readLeases6(text)));
    EXPECT_STREQ(readLeases(text + "\n" + fixtures::kLease).client_addr, "192.168.1.77");
    EXPECT_STREQ(readLeases6(text + "\n" + fixtures::kLease6).renew_lease_time, "3600");
}

TEST(ReadLeasesTest, OneLineOfAMegabyteIsCut) {
    const std::string value(1048576, 'v');
    EXPECT_EQ(readLeases("expire " + value).client_status, std::string(35, 'v'));
    EXPECT_TRUE(isCleared(readLeases(std::string(1048576, ' ') + ";")));
    EXPECT_TRUE(isCleared(readLeases(std::string(1048576, ';'))));
}

TEST(ReadLeasesTest, ManyLeasesAreTaken) {
    std::string text;
    for (int index = 0; index < 5000; ++index) {
        text += block("eth" + std::to_string(index % 2), "expire " + std::to_string(index) + ";\n");
    }
    EXPECT_STREQ(readLeases(text).client_status, "4999");
}

TEST(ReadLeasesTest, ReadsWithoutTraces) {
    (void)readLeases(fixtures::kLease);
    (void)readLeases6(fixtures::kLease6);
    EXPECT_EQ(fakes::world().consoleText(), "");
}

// --- IPv6 ----------------------------------------------------------------------------------------

TEST(ReadLeases6Test, EachStatementGoesToItsField) {
    const DHCPV6_INFO_STRUCT lease = readLeases6(fixtures::kLease6);
    EXPECT_STREQ(lease.client_status, "7500");
    EXPECT_STREQ(lease.renew_lease_time, "3600");
    EXPECT_STREQ(lease.client_addr, "2001:db8:0:1::77");
}

TEST(ReadLeases6Test, TheLastLeaseWinsWithAllItsFields) {
    const std::string text = fixtures::kLease6 + block6("eth1", "  ia-na 1 {\n    renew 5;\n  }\n");
    const DHCPV6_INFO_STRUCT lease = readLeases6(text);
    EXPECT_STREQ(lease.client_status, "");
    EXPECT_STREQ(lease.renew_lease_time, "5");
    EXPECT_STREQ(lease.client_addr, "");
}

TEST(ReadLeases6Test, ALaterBlockWithoutInterfaceAddsItsValues) {
    const DHCPV6_INFO_STRUCT lease = readLeases6(fixtures::kLease6 + "lease6 {\n  renew 5;\n}\n"s);
    EXPECT_STREQ(lease.renew_lease_time, "5");
    EXPECT_STREQ(lease.client_addr, "2001:db8:0:1::77");
}

TEST(ReadLeases6Test, TextsWithoutALeaseAreEmptyNotDisabled) {
    for (const char* text : {"", "\n", "default-duid \"\\000\";\n", "lease6 {\n}\n"}) {
        EXPECT_TRUE(isCleared(readLeases6(text))) << text;
    }
}

TEST(ReadLeases6Test, TheThirdInterfaceLeavesTheRecordCleared) {
    EXPECT_TRUE(isCleared(readLeases6(block6("eth2", "renew 5;\nmax-life 6;\niaaddr ::1 {\n"))));
    const std::string text = block6("eth2", "renew 5;\n") + "lease6 {\n  renew 6;\n}\n";
    EXPECT_STREQ(readLeases6(text).renew_lease_time, "6");
}

TEST(ReadLeases6Test, AnAddressEndsBeforeItsBlock) {
    EXPECT_STREQ(readLeases6("iaaddr fe80::1 {\n").client_addr, "fe80::1");
    EXPECT_STREQ(readLeases6("iaaddr fe80::1;\n").client_addr, "fe80::1");
    EXPECT_STREQ(readLeases6("iaaddr   fe80::1").client_addr, "fe80::1");
}

TEST(ReadLeases6Test, TheLastAddressOfALeaseWins) {
    const std::string text = block6("eth0", "iaaddr ::1 {\nmax-life 1;\n}\niaaddr ::2 {\n}\n");
    EXPECT_STREQ(readLeases6(text).client_addr, "::2");
    EXPECT_STREQ(readLeases6(text).client_status, "1");
}

TEST(ReadLeases6Test, EveryFieldIsCutToItsSize) {
    const std::string value(100, 'v');
    const DHCPV6_INFO_STRUCT lease =
        readLeases6("renew " + value + ";\niaaddr " + value + " {\nmax-life " + value + ";\n");
    EXPECT_EQ(lease.client_status, std::string(35, 'v'));
    EXPECT_EQ(lease.renew_lease_time, std::string(19, 'v'));
    EXPECT_EQ(lease.client_addr, std::string(67, 'v'));
}

TEST(ReadLeases6Test, StatementsOfIpv4AreIgnored) {
    EXPECT_TRUE(isCleared(readLeases6("fixed-address 1;\nexpire never;\noption routers 1;\n"
                                      "rebind 5;\npreferred-life 5;\nstarts 5;\n")));
}

} // namespace
