// The state of the machine: kernel, addresses, statistics, leases.

#include <sys/socket.h>

#include <cstdint>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/Text.h"
#include "tests/unit/status/PublishingFixture.h"

namespace publishing {
namespace {

using segments::bigEndian;

// --- kernel and addresses -----------------------------------------------------------------------

class MeterInfoTest : public PublishingTest {
protected:
    MeterInfoTest() {
        platform::copyToField(world().kernel.sysname, "Linux");
        platform::copyToField(world().kernel.nodename, "meter");
        platform::copyToField(world().kernel.release, "2.6.32.8");
        platform::copyToField(world().kernel.version, "#7 Tue Nov 14 2023");
        platform::copyToField(world().kernel.machine, "ppc");
        world().ipAddresses[{"eth0", AF_INET}] = "192.0.2.1";
        world().ipAddresses[{"eth1", AF_INET}] = "198.51.100.2";
        world().ipAddresses[{"eth0", AF_INET6}] = "2001:db8::1";
        world().ipAddresses[{"eth1", AF_INET6}] = "2001:db8::2";
    }

    void fillAndWrite() {
        EXPECT_EQ(status_->getMeterInfo(), 0);
        EXPECT_EQ(status_->updateSysInfo(), 0);
    }

    std::string tracesAt(int verbosity) {
        verbose = verbosity;
        world().console.clear();
        EXPECT_EQ(status_->getMeterInfo(), 0);
        return world().consoleText();
    }
};

TEST_F(MeterInfoTest, EveryTextHasItsPlace) {
    fillAndWrite();
    EXPECT_EQ(textAt(kSystem, 0, 32), "2.6.32.8");
    EXPECT_EQ(textAt(kSystem, 32, 32), "#7 Tue Nov 14 2023");
    EXPECT_EQ(textAt(kSystem, 64, 32), "192.0.2.1");
    EXPECT_EQ(textAt(kSystem, 96, 32), "198.51.100.2");
    EXPECT_EQ(textAt(kSystem, 128, 64), "2001:db8::1");
    EXPECT_EQ(textAt(kSystem, 192, 64), "2001:db8::2");
}

TEST_F(MeterInfoTest, AsksForEachAddressOnce) {
    (void)status_->getMeterInfo();
    EXPECT_THAT(world().calls,
                ElementsAre("getIpAddress eth0 2 32 0 0", "getIpAddress eth1 2 32 0 0",
                            "getIpAddress eth0 10 64 0 0", "getIpAddress eth1 10 64 0 0"));
}

TEST_F(MeterInfoTest, AddressThatIsGoneIsEmptyInTheNextCycle) {
    fillAndWrite();
    world().ipAddresses.erase({"eth1", AF_INET});
    world().ipAddresses[{"eth0", AF_INET6}] = "2001:db8::9";
    fillAndWrite();
    EXPECT_EQ(textAt(kSystem, 96, 32), "");
    EXPECT_EQ(textAt(kSystem, 128, 64), "2001:db8::9");
}

TEST_F(MeterInfoTest, KernelTextsAreCutTo31Characters) {
    platform::copyToField(world().kernel.release, std::string(31, 'r') + std::string(33, 'R'));
    platform::copyToField(world().kernel.version, std::string(31, 'v') + "V");
    fillAndWrite();
    EXPECT_EQ(textAt(kSystem, 0, 32), std::string(31, 'r'));
    EXPECT_EQ(textAt(kSystem, 32, 32), std::string(31, 'v'));
    EXPECT_EQ(textAt(kSystem, 64, 32), "192.0.2.1");
}

TEST_F(MeterInfoTest, KernelTextsOf31CharactersAreWhole) {
    platform::copyToField(world().kernel.release, std::string(31, 'r'));
    platform::copyToField(world().kernel.version, std::string(31, 'v'));
    fillAndWrite();
    EXPECT_EQ(textAt(kSystem, 0, 32), std::string(31, 'r'));
    EXPECT_EQ(textAt(kSystem, 32, 32), std::string(31, 'v'));
}

TEST_F(MeterInfoTest, AddressesAlwaysEndInsideTheirFields) {
    world().addressesLackNul = true;
    world().ipAddresses = {{{"eth0", AF_INET}, std::string(40, 'a')},
                           {{"eth1", AF_INET}, std::string(40, 'b')},
                           {{"eth0", AF_INET6}, std::string(80, 'c')},
                           {{"eth1", AF_INET6}, std::string(80, 'd')}};
    fillAndWrite();
    EXPECT_EQ(textAt(kSystem, 64, 32), std::string(31, 'a'));
    EXPECT_EQ(textAt(kSystem, 96, 32), std::string(31, 'b'));
    EXPECT_EQ(textAt(kSystem, 128, 64), std::string(63, 'c'));
    EXPECT_EQ(textAt(kSystem, 192, 64), std::string(63, 'd'));
}

TEST_F(MeterInfoTest, IsTracedFromFiveOn) {
    EXPECT_EQ(tracesAt(5), "sys.kernel.name    = 2.6.32.8\n"
                           "sys.kernel.version = #7 Tue Nov 14 2023\n"
                           "sys.ipaddr.v4.eth0 = 192.0.2.1\n"
                           "sys.ipaddr.v4.eth1 = 198.51.100.2\n"
                           "sys.ipaddr.v6.eth0 = 2001:db8::1\n"
                           "sys.ipaddr.v6.eth1 = 2001:db8::2\n");
}

TEST_F(MeterInfoTest, IsNotTracedAtFour) {
    EXPECT_EQ(tracesAt(4), "");
}

TEST_F(MeterInfoTest, MissingAddressesAreTracedEmpty) {
    world().ipAddresses.clear();
    EXPECT_THAT(tracesAt(5), HasSubstr("sys.ipaddr.v4.eth0 = \nsys.ipaddr.v4.eth1 = \n"
                                       "sys.ipaddr.v6.eth0 = \nsys.ipaddr.v6.eth1 = \n"));
}

TEST_F(MeterInfoTest, ExceptionWhilePrintingIsDropped) {
    verbose = 5;
    world().onConsole = [](const std::string&) { throw std::runtime_error("no console"); };
    int result = -1;
    EXPECT_NO_THROW(result = status_->getMeterInfo());
    EXPECT_EQ(result, 0);
    world().onConsole = nullptr;
    status_->updateSysInfo();
    EXPECT_EQ(textAt(kSystem, 192, 64), "2001:db8::2");
}

TEST_F(MeterInfoTest, IsWrittenInSixPieces) {
    (void)status_->getMeterInfo();
    world().forgetRecords();
    EXPECT_EQ(status_->updateMeterInfo(), 0);
    const std::string write = "writeShm /meter_usr7_data.shared ";
    EXPECT_THAT(world().calls,
                ElementsAre(write + "32 4096 0", write + "32 4096 32", write + "32 4096 64",
                            write + "32 4096 96", write + "64 4096 128", write + "64 4096 192"));
}

TEST_F(MeterInfoTest, PiecesHoldTheTextsAndNothingElseChanges) {
    bytesOf(kSystem).assign(kSystemSize, '\x5A');
    (void)status_->getMeterInfo();
    (void)status_->updateMeterInfo();
    EXPECT_EQ(textAt(kSystem, 0, 32), "2.6.32.8");
    EXPECT_EQ(textAt(kSystem, 32, 32), "#7 Tue Nov 14 2023");
    EXPECT_EQ(textAt(kSystem, 64, 32), "192.0.2.1");
    EXPECT_EQ(textAt(kSystem, 96, 32), "198.51.100.2");
    EXPECT_EQ(textAt(kSystem, 128, 64), "2001:db8::1");
    EXPECT_EQ(textAt(kSystem, 192, 64), "2001:db8::2");
    EXPECT_EQ(bytesAt(kSystem, 256, 3840), std::string(3840, '\x5A'));
}

TEST_F(MeterInfoTest, FillingTouchesNoSegment) {
    (void)status_->getMeterInfo();
    EXPECT_EQ(bytesOf(kSystem), std::string(kSystemSize, '\0'));
}

// --- statistics of the machine ------------------------------------------------------------------

class SystemSegmentTest : public PublishingTest {
protected:
    SystemSegmentTest() {
        auto& files = world().textFiles;
        files["/proc/uptime"] = "7200.00 3600.00\n";
        files["/proc/loadavg"] = "0.25 0.50 0.75 1/52 1234\n";
        files["/proc/stat"] = "cpu  1 2 3 4 5 6 7 8 9 10\nintr 77 1 2\nctxt 88\nbtime 1234567\n";
        files["/proc/meminfo"] = "MemTotal: 1000 kB\nMemFree: 400 kB\nBuffers: 30 kB\n"
                                 "Cached: 200 kB\nActive: 50 kB\nInactive: 60 kB\nShmem: 7 kB\n";
        files["/proc/net/dev"] = "  eth0: 11 12 13 14 15 16 17 18 19 20 21 22 23 24 25 26\n"
                                 "  eth1: 31 32 33 34 35 36 37 38 39 40 41 42 43 44 45 46\n";
        files["/var/lib/dhcp/dhclient.eth0.leases"] = "";
        files["/var/lib/dhcp/dhclient6.eth1.leases"] = "";
    }
};

TEST_F(SystemSegmentTest, StatisticsHaveTheirPlaces) {
    publish(applications(0));
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 16), 2.0F);
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 20), 50.0F);
    EXPECT_EQ(bytesAt(kSystem, 256 + 24, 8), bigEndian(1234567000));
    EXPECT_EQ(numberAt<std::int64_t>(kSystem, 256 + 32), 88);
    EXPECT_EQ(numberAt<std::int64_t>(kSystem, 256 + 40), 77);
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 48), 0.25F);
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 52), 0.5F);
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 56), 0.75F);
    EXPECT_EQ(numberAt<std::int32_t>(kSystem, 256 + 96), 1000);
    EXPECT_EQ(numberAt<std::int32_t>(kSystem, 256 + 100), 600);
    EXPECT_EQ(numberAt<std::int32_t>(kSystem, 256 + 124), 7);
    EXPECT_EQ(numberAt<std::int64_t>(kSystem, 256 + 128), 11);
    EXPECT_EQ(numberAt<std::int64_t>(kSystem, 256 + 208), 31);
}

TEST_F(SystemSegmentTest, LeasesHaveTheirPlaces) {
    publish(applications(0));
    EXPECT_EQ(textAt(kSystem, 1504, 36), "");
    EXPECT_EQ(textAt(kSystem, 1700, 36), "Disabled");
    EXPECT_EQ(textAt(kSystem, 1896, 36), "Disabled");
    EXPECT_EQ(textAt(kSystem, 2020, 36), "");
    world().textFiles.erase("/var/lib/dhcp/dhclient.eth0.leases");
    world().textFiles["/var/lib/dhcp/dhclient.eth1.leases"] = "";
    world().textFiles["/var/lib/dhcp/dhclient6.eth0.leases"] = "";
    world().textFiles.erase("/var/lib/dhcp/dhclient6.eth1.leases");
    publish(applications(0));
    EXPECT_EQ(textAt(kSystem, 1504, 36), "Disabled");
    EXPECT_EQ(textAt(kSystem, 1700, 36), "");
    EXPECT_EQ(textAt(kSystem, 1896, 36), "");
    EXPECT_EQ(textAt(kSystem, 2020, 36), "Disabled");
}

TEST_F(SystemSegmentTest, ReservedBytesStayZero) {
    publish(applications(0));
    EXPECT_EQ(bytesAt(kSystem, 256, 16), std::string(16, '\0'));
    EXPECT_EQ(bytesAt(kSystem, 256 + 60, 4), std::string(4, '\0'));
    EXPECT_EQ(bytesAt(kSystem, 256 + 92, 4), std::string(4, '\0'));
    EXPECT_EQ(bytesAt(kSystem, 544, 960), std::string(960, '\0'));
    EXPECT_EQ(bytesAt(kSystem, 2144, 1952), std::string(1952, '\0'));
    EXPECT_THAT(bytesOf(kSystem), SizeIs(4096));
}

TEST_F(SystemSegmentTest, FileThatIsGoneLeavesItsFields) {
    publish(applications(0));
    world().textFiles.erase("/proc/loadavg");
    world().textFiles["/proc/uptime"] = "36000.00 0.00\n";
    publish(applications(0));
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 48), 0.25F);
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 16), 10.0F);
}

TEST_F(SystemSegmentTest, EveryFileIsReadWhetherOrNotAnotherFailed) {
    world().textFiles.clear();
    EXPECT_LT(status_->getSysInfo(), 0);
    EXPECT_THAT(world().calls,
                testing::ElementsAreArray(std::begin(kFirstCalls) + 4, std::end(kFirstCalls)));
}

TEST_F(SystemSegmentTest, OneMissingFileMakesTheResultNegative) {
    for (const auto& file :
         std::vector<std::string>(std::begin(kFirstCalls) + 4, std::end(kFirstCalls))) {
        const std::string missing = file.substr(file.find(' ') + 1);
        world().textFiles["/var/lib/dhcp/dhclient.eth1.leases"] = "";
        world().textFiles["/var/lib/dhcp/dhclient6.eth0.leases"] = "";
        const auto files = world().textFiles;
        ASSERT_EQ(files.count(missing), 1U) << missing;
        EXPECT_GE(status_->getSysInfo(), 0);
        world().textFiles.erase(missing);
        EXPECT_LT(status_->getSysInfo(), 0) << missing;
        world().textFiles = files;
    }
}

} // namespace
} // namespace publishing
