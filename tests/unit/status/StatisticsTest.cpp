// The members that read the machine's files into the system image.

#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "status/AppStatusUpdate.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/records/NativeImage.h"
#include "tests/unit/status/StatusSupport.h"
#include "tests/unit/status/fixtures/LeaseTexts.h"
#include "tests/unit/status/fixtures/ProcTexts.h"

namespace {

using fakes::world;
using recordstest::NativeImage;
using statustest::filledInfo;
using statustest::sameBytes;
using testing::ElementsAreArray;

constexpr const char* kLeasesEth0 = "/var/lib/dhcp/dhclient.eth0.leases";
constexpr const char* kLeasesEth1 = "/var/lib/dhcp/dhclient.eth1.leases";
constexpr const char* kLeases6Eth0 = "/var/lib/dhcp/dhclient6.eth0.leases";
constexpr const char* kLeases6Eth1 = "/var/lib/dhcp/dhclient6.eth1.leases";

/// All that is read, in the order in which it is read.
const std::vector<std::string> kPaths = {"/proc/uptime",  "/proc/loadavg", "/proc/stat",
                                         "/proc/meminfo", "/proc/net/dev", kLeasesEth0,
                                         kLeasesEth1,     kLeases6Eth0,    kLeases6Eth1};

std::string errorLine(const std::string& path) {
    return path + " - error opening!\n";
}

class StatisticsTest : public testing::Test {
protected:
    void provideAll() {
        auto& files = world().textFiles;
        files["/proc/uptime"] = "7200.00 1800.00\n";
        files["/proc/loadavg"] = "0.25 0.50 0.75 1/2 3\n";
        files["/proc/stat"] = fixtures::kStat2633;
        files["/proc/meminfo"] = fixtures::kMemory2632;
        files["/proc/net/dev"] = fixtures::kNetwork2632;
        files[kLeasesEth0] = "lease {\n interface \"eth0\";\n expire 40;\n}\n";
        files[kLeasesEth1] = "lease {\n interface \"eth1\";\n expire 41;\n}\n";
        files[kLeases6Eth0] = "lease6 {\n interface \"eth0\";\n max-life 60;\n}\n";
        files[kLeases6Eth1] = "lease6 {\n interface \"eth1\";\n max-life 61;\n}\n";
    }

    /// What one cycle would publish, without the result of the reading.
    std::string publish() {
        std::vector<appinfo> none;
        status_.initUserShm(none, false);
        status_.updateSysInfo();
        return world().segments["/meter_usr7_data.shared"];
    }

    AppStatusUpdate status_; // finds no file at its construction
};

// --- getSysInfo ----------------------------------------------------------------------------------

TEST_F(StatisticsTest, EveryFileIsReadInOrder) {
    provideAll();
    world().forgetRecords();
    EXPECT_GE(status_.getSysInfo(), 0);
    std::vector<std::string> calls;
    for (const std::string& path : kPaths) {
        calls.push_back("readTextFile " + path);
    }
    EXPECT_THAT(world().callsOf("readTextFile"), ElementsAreArray(calls));
}

TEST_F(StatisticsTest, EveryFileIsReadThoughAllFail) {
    world().forgetRecords();
    EXPECT_LT(status_.getSysInfo(), 0);
    EXPECT_EQ(world().count("readTextFile"), 9U);
}

TEST_F(StatisticsTest, OneFailureMakesTheResultNegative) {
    for (const std::string& path : kPaths) {
        provideAll();
        world().textFiles.erase(path);
        EXPECT_EQ(status_.getSysInfo(), -1) << path;
    }
    provideAll();
    EXPECT_GE(status_.getSysInfo(), 0);
}

TEST_F(StatisticsTest, WhatIsIncompleteMakesTheResultNegativeToo) {
    for (const char* path :
         {"/proc/uptime", "/proc/loadavg", "/proc/stat", "/proc/meminfo", "/proc/net/dev"}) {
        provideAll();
        world().textFiles[path] = "";
        EXPECT_LT(status_.getSysInfo(), 0) << path;
    }
    provideAll();
    world().textFiles[kLeasesEth0] = world().textFiles[kLeases6Eth1] = "";
    EXPECT_GE(status_.getSysInfo(), 0);
}

TEST_F(StatisticsTest, EachReadingLandsInTheSystemImage) {
    provideAll();
    status_.getSysInfo();
    const std::string image = publish();
    ASSERT_EQ(image.size(), 4096U);
    NativeImage expected(4096);
    expected.putText(0, image); // What is not put below is looked at elsewhere.
    expected.putFloat(272, 2.0F);
    expected.putFloat(276, 25.0F);
    expected.putTime(280, 1300000000000);
    expected.put64(288, 6000000000);
    expected.put64(296, 5000000000);
    expected.putFloat(304, 0.25F);
    expected.putFloat(308, 0.5F);
    expected.putFloat(312, 0.75F);
    expected.put32(352, 253964);
    expected.put32(356, 153904);
    expected.put32(360, 100060);
    expected.put32(380, 148);
    expected.put64(384, 4294967296);
    expected.put32(384 + 24, 6);
    expected.put32(384 + 28, 5);
    expected.put64(464, 5120);
    expected.putFloat(464 + 36, 1.0F);
    expected.putFloat(464 + 76, 2.0F);
    expected.putText(1504, "40");
    expected.putText(1700, "41");
    expected.putText(1896, "60");
    expected.putText(2020, "61");
    EXPECT_EQ(recordstest::firstDifference(image, expected.bytes()), 4096U);
}

TEST_F(StatisticsTest, AMissingFileLeavesTheRestToBePublished) {
    provideAll();
    status_.getSysInfo();
    for (const char* path :
         {"/proc/uptime", "/proc/loadavg", "/proc/stat", "/proc/meminfo", "/proc/net/dev"}) {
        world().textFiles.erase(path);
    }
    world().textFiles[kLeases6Eth1] = "lease6 {\n interface \"eth1\";\n max-life 99;\n}\n";
    const std::string before = publish();
    EXPECT_EQ(status_.getSysInfo(), -1);
    std::string expected = before;
    expected.replace(2020, 2, "99");
    EXPECT_EQ(recordstest::firstDifference(publish(), expected), 4096U);
}

TEST_F(StatisticsTest, MissingLeaseFilesArePublishedAsDisabled) {
    provideAll();
    status_.getSysInfo();
    for (const char* path : {kLeasesEth0, kLeasesEth1, kLeases6Eth0, kLeases6Eth1}) {
        world().textFiles.erase(path);
    }
    status_.getSysInfo();
    NativeImage expected(4096);
    for (const std::size_t offset : {1504U, 1700U, 1896U, 2020U}) {
        expected.putText(offset, "Disabled");
    }
    EXPECT_EQ(publish().substr(1504, 640), expected.bytes().substr(1504, 640));
}

TEST_F(StatisticsTest, LeaseFilesWithoutALeaseArePublishedEmpty) {
    provideAll();
    for (const char* path : {kLeasesEth0, kLeasesEth1, kLeases6Eth0, kLeases6Eth1}) {
        world().textFiles[path] = "";
    }
    EXPECT_GE(status_.getSysInfo(), 0);
    EXPECT_EQ(publish().substr(1504, 640), std::string(640, '\0'));
}

// --- files of the kernel that cannot be opened ---------------------------------------------------

struct KernelFile {
    const char* path;
    int (AppStatusUpdate::*parse)(systeminfo_struct& info);
};

class KernelFileTest : public testing::TestWithParam<KernelFile> {
protected:
    AppStatusUpdate status_;
    systeminfo_struct info_ = filledInfo();
};

TEST_P(KernelFileTest, MissingGivesMinusOneAndTouchesNothing) {
    EXPECT_EQ((status_.*GetParam().parse)(info_), -1);
    EXPECT_TRUE(sameBytes(info_, filledInfo()));
}

TEST_P(KernelFileTest, MissingIsNamedFromVerbosity5On) {
    verbose = 4;
    (status_.*GetParam().parse)(info_);
    EXPECT_EQ(world().consoleText(), "");
    verbose = 5;
    (status_.*GetParam().parse)(info_);
    EXPECT_EQ(world().consoleText(), errorLine(GetParam().path));
}

TEST_P(KernelFileTest, ReadsItsOwnFileOnly) {
    world().forgetRecords();
    (status_.*GetParam().parse)(info_);
    EXPECT_THAT(world().calls,
                testing::ElementsAre("readTextFile " + std::string(GetParam().path)));
}

INSTANTIATE_TEST_SUITE_P(
    All, KernelFileTest,
    testing::Values(KernelFile{"/proc/uptime", &AppStatusUpdate::parseUptime},
                    KernelFile{"/proc/loadavg", &AppStatusUpdate::parseLoadAvg},
                    KernelFile{"/proc/stat", &AppStatusUpdate::parseProcStat},
                    KernelFile{"/proc/meminfo", &AppStatusUpdate::parseMemInfo},
                    KernelFile{"/proc/net/dev", &AppStatusUpdate::parseNetDev}),
    [](const auto& parameter) { return std::to_string(parameter.index); });

// --- samples -------------------------------------------------------------------------------------

TEST_F(StatisticsTest, TheFirstProcessorSampleIsTakenAtConstruction) {
    world().textFiles["/proc/stat"] = fixtures::kStat2633;
    AppStatusUpdate status;
    world().textFiles["/proc/stat"] = fixtures::kStat2633Later;
    systeminfo_struct info = {};
    EXPECT_EQ(status.parseProcStat(info), 0);
    EXPECT_EQ(info.cpuload_user, 10.0F);
    EXPECT_EQ(info.cpuload_softirq, 7.5F);
}

TEST_F(StatisticsTest, AnUnchangedStatGivesZeros) {
    world().textFiles["/proc/stat"] = fixtures::kStat2633;
    systeminfo_struct info = {};
    EXPECT_EQ(status_.parseProcStat(info), 0);
    EXPECT_GT(info.cpuload_user, 0.0F);
    EXPECT_EQ(status_.parseProcStat(info), 0);
    EXPECT_EQ(info.cpuload_user, 0.0F);
    EXPECT_EQ(info.cpuload_idle, 0.0F);
}

TEST_F(StatisticsTest, AMissingStatDoesNotAdvanceTheSample) {
    systeminfo_struct info = {};
    world().textFiles["/proc/stat"] = "cpu 100 0 0 100 0 0 0 0 0 0\n";
    status_.parseProcStat(info);
    world().textFiles["/proc/stat"] = "cpu 110 0 0 130 0 0 0 0 0 0\n";
    status_.parseProcStat(info);
    world().textFiles.clear();
    EXPECT_EQ(status_.parseProcStat(info), -1);
    world().textFiles["/proc/stat"] = "cpu 160 0 0 180 0 0 0 0 0 0\n";
    status_.parseProcStat(info);
    EXPECT_EQ(info.cpuload_user, 50.0F);
}

TEST_F(StatisticsTest, AMissingNetDevKeepsTheCounters) {
    systeminfo_struct info = {};
    world().textFiles["/proc/net/dev"] = "eth0: 5120 0 0 0 0 0 0 0 0 0 0 0 0 0\n";
    status_.parseNetDev(info);
    world().textFiles.clear();
    EXPECT_EQ(status_.parseNetDev(info), -1);
    EXPECT_EQ(info.netstatus_eth0.rx_datarate, 1.0F);
    world().textFiles["/proc/net/dev"] = "eth0: 15360 0 0 0 0 0 0 0 0 0 0 0 0 0\n";
    status_.parseNetDev(info);
    EXPECT_EQ(info.netstatus_eth0.rx_datarate, 2.0F);
}

// --- traces of the members -----------------------------------------------------------------------

TEST_F(StatisticsTest, UptimeIsTracedFromVerbosity5On) {
    provideAll();
    systeminfo_struct info = {};
    verbose = 4;
    EXPECT_EQ(status_.parseUptime(info), 0);
    EXPECT_EQ(world().consoleText(), "");
    verbose = 5;
    status_.parseUptime(info);
    EXPECT_EQ(world().consoleText(), "sys.sysinfo.runtime.uptime   = 2\n"
                                     "sys.sysinfo.runtime.idletime = 25\n");
}

TEST_F(StatisticsTest, LoadIsTracedFromVerbosity5On) {
    provideAll();
    systeminfo_struct info = {};
    verbose = 4;
    EXPECT_EQ(status_.parseLoadAvg(info), 0);
    EXPECT_EQ(world().consoleText(), "");
    verbose = 5;
    status_.parseLoadAvg(info);
    EXPECT_EQ(world().consoleText(), "sys.sysinfo.runtime.loadavg_1min  = 0.25\n"
                                     "sys.sysinfo.runtime.loadavg_5min  = 0.5\n"
                                     "sys.sysinfo.runtime.loadavg_15min = 0.75\n");
}

// --- leases --------------------------------------------------------------------------------------

/// The traces of the cycle with the lease `text` at `path` alone, all else being silent.
std::string traceOfLease(AppStatusUpdate& status, const char* path, const char* text, int level) {
    world().textFiles[path] = text;
    verbose = level;
    world().forgetRecords();
    status.getSysInfo();
    const std::string all = world().consoleText();
    const std::size_t begin = all.find("dev.dhcp");
    return begin == std::string::npos ? "" : all.substr(begin);
}

TEST_F(StatisticsTest, LeaseOfEth0IsTraced) {
    const std::string trace = traceOfLease(status_, kLeasesEth0, fixtures::kLease, 5);
    EXPECT_EQ(trace.find("dev.dhcp.client_status.eth0         = 4 2023/11/16 16:11:12\n"
                         "dev.dhcp.renew_lease_time.eth0      = 86400\n"
                         "dev.dhcp.server_addr_ipv4.eth0      = 192.168.1.3\n"
                         "dev.dhcp.client_addr_ipv4.eth0      = 192.168.1.77\n"
                         "dev.dhcp.subnet_mask.eth0           = 255.255.255.0\n"
                         "dev.dhcp.router_gw_addr_ipv4.eth0   = 192.168.1.1\n"
                         "dev.dhcp.dns_server_addr_ipv4.eth0  = 192.168.1.2\n"
                         "dev.dhcp.sntp_server_addr_ipv4.eth0 = 192.168.1.4\n"
                         "dev.dhcp.smtp_server_addr_ipv4.eth0 = 192.168.1.5\n"),
              0U)
        << trace;
    EXPECT_EQ(trace.find("dev.dhcp.client_status.eth1"), std::string::npos);
}

TEST_F(StatisticsTest, LeaseOfEth1IsTraced) {
    const std::string trace = traceOfLease(status_, kLeasesEth1, fixtures::kLease, 5);
    EXPECT_EQ(trace.find("dev.dhcp.client_status.eth1         = 4 2023/11/16 16:11:12\n"
                         "dev.dhcp.renew_lease_time.eth1      = 86400\n"
                         "dev.dhcp.server_addr_ipv4.eth1      = 192.168.1.3\n"
                         "dev.dhcp.client_addr_ipv4.eth1      = 192.168.1.77\n"
                         "dev.dhcp.subnet_mask.eth1           = 255.255.255.0\n"
                         "dev.dhcp.router_gw_addr_ipv4.eth1   = 192.168.1.1\n"
                         "dev.dhcp.dns_server_addr_ipv4.eth1  = 192.168.1.2\n"
                         "dev.dhcp.sntp_server_addr_ipv4.eth1 = 192.168.1.4\n"
                         "dev.dhcp.smtp_server_addr_ipv4.eth1 = 192.168.1.5\n"),
              0U)
        << trace;
}

TEST_F(StatisticsTest, LeasesOfIpv6AreTraced) {
    provideAll();
    std::string trace = traceOfLease(status_, kLeases6Eth0, fixtures::kLease6, 5);
    trace = trace.substr(trace.find("dev.dhcpv6"));
    EXPECT_EQ(trace, "dev.dhcpv6.client_status.eth0       = 7500\n"
                     "dev.dhcpv6.renew_lease_time.eth0    = 3600\n"
                     "dev.dhcpv6.client_addr_ipv6.eth0    = 2001:db8:0:1::77\n"
                     "dev.dhcpv6.client_status.eth1       = 61\n"
                     "dev.dhcpv6.renew_lease_time.eth1    = \n"
                     "dev.dhcpv6.client_addr_ipv6.eth1    = \n");
}

TEST_F(StatisticsTest, LeasesAreSilentBelowVerbosity5) {
    provideAll();
    verbose = 4;
    status_.getSysInfo();
    world().textFiles.clear();
    status_.getSysInfo();
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(StatisticsTest, OtherRecordsThanThoseOfTheImageAreNotTraced) {
    provideAll();
    verbose = 9;
    DHCP_INFO_STRUCT lease = {};
    DHCPV6_INFO_STRUCT lease6 = {};
    EXPECT_EQ(status_.parseDHCPINFO(kLeasesEth0, &lease), 0);
    EXPECT_EQ(status_.parseDHCPV6INFO(kLeases6Eth0, &lease6), 0);
    EXPECT_STREQ(lease.client_status, "40");
    EXPECT_STREQ(lease6.client_status, "60");
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_EQ(status_.parseDHCPV6INFO("/missing", &lease6), -1);
    EXPECT_EQ(world().consoleText(), errorLine("/missing"));
}

TEST_F(StatisticsTest, AMissingLeaseFileIsNamedFromVerbosity5OnAndDisabled) {
    DHCP_INFO_STRUCT lease;
    std::memset(&lease, 'x', sizeof lease);
    verbose = 4;
    EXPECT_EQ(status_.parseDHCPINFO("/no/leases", &lease), -1);
    EXPECT_EQ(world().consoleText(), "");
    verbose = 5;
    EXPECT_EQ(status_.parseDHCPINFO("/no/leases", &lease), -1);
    EXPECT_EQ(world().consoleText(), errorLine("/no/leases"));
    EXPECT_STREQ(lease.client_status, "Disabled");
    EXPECT_STREQ(lease.sntp_server_addr, "");

    DHCPV6_INFO_STRUCT lease6;
    std::memset(&lease6, 'x', sizeof lease6);
    verbose = 4;
    EXPECT_EQ(status_.parseDHCPV6INFO("/no/leases6", &lease6), -1);
    EXPECT_STREQ(lease6.client_status, "Disabled");
    EXPECT_STREQ(lease6.client_addr, "");
}

TEST_F(StatisticsTest, MissingFilesOfACycleAreNamedInOrder) {
    verbose = 5;
    status_.getSysInfo();
    std::string text = world().consoleText();
    // Each IPv6 lease shows its status as well.
    for (const char* line : {"dev.dhcpv6.client_status.eth0         = Disabled\n",
                             "dev.dhcpv6.client_status.eth1         = Disabled\n"}) {
        const std::size_t found = text.find(line);
        ASSERT_NE(found, std::string::npos) << line;
        text.erase(found, std::strlen(line));
    }
    std::string expected;
    for (const std::string& path : kPaths) {
        expected += errorLine(path);
    }
    EXPECT_EQ(text, expected);
}

} // namespace
