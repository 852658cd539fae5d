// The readers of /proc/meminfo and /proc/net/dev.

#include <string>

#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "status/ProcParsers.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/status/StatusSupport.h"
#include "tests/unit/status/fixtures/ProcTexts.h"

namespace {

using fakes::world;
using statustest::filledInfo;
using statustest::sameBytes;

// --- /proc/meminfo -------------------------------------------------------------------------------

TEST(ReadMemoryTest, OldKernel) {
    systeminfo_struct info = filledInfo();
    EXPECT_EQ(status::readMemory(fixtures::kMemory2632, info), 0);
    systeminfo_struct expected = filledInfo();
    expected.memload_total = 253964;
    expected.memload_used = 153904; // buffers and cache count as used
    expected.memload_free = 100060;
    expected.memload_buffers = 11236;
    expected.memload_cached = 60708;
    expected.memload_active = 50516;
    expected.memload_inactive = 40312;
    expected.memload_shared = 148;
    EXPECT_TRUE(sameBytes(info, expected));
}

TEST(ReadMemoryTest, CurrentKernelWithKeysThatBeginAlike) {
    systeminfo_struct info = {};
    EXPECT_EQ(status::readMemory(fixtures::kMemory61, info), 0);
    EXPECT_EQ(info.memload_total, 6068056);
    EXPECT_EQ(info.memload_used, 4000006);
    EXPECT_EQ(info.memload_free, 2068050);
    EXPECT_EQ(info.memload_buffers, 205776);
    EXPECT_EQ(info.memload_cached, 2660708);
    EXPECT_EQ(info.memload_active, 1050516);
    EXPECT_EQ(info.memload_inactive, 2400312);
    EXPECT_EQ(info.memload_shared, 17136);
}

TEST(ReadMemoryTest, AKeyThatIsMissingLeavesItsField) {
    systeminfo_struct info = filledInfo();
    EXPECT_EQ(status::readMemory(fixtures::kMemoryWithoutShmem, info), -2);
    EXPECT_EQ(info.memload_shared, 0x5A5A5A5A);
    EXPECT_EQ(info.memload_used, 100000);
    EXPECT_EQ(info.memload_inactive, 4000);
}

TEST(ReadMemoryTest, EachKeyIsExpected) {
    const char* const keys[] = {
        "MemTotal:", "MemFree:", "Buffers:", "Cached:", "Active:", "Inactive:", "Shmem:"};
    for (const char* missing : keys) {
        std::string text;
        for (const char* key : keys) {
            text += key == missing ? "" : std::string(key) + " 5 kB\n";
        }
        systeminfo_struct info = {};
        EXPECT_EQ(status::readMemory(text, info), -2) << missing;
        EXPECT_EQ(status::readMemory(text + missing + " 5 kB", info), 0) << missing;
    }
}

TEST(ReadMemoryTest, NothingFoundChangesNothing) {
    for (const char* text :
         {"", "\n", "MemTotal\n", "xMemTotal: 5\n", "memtotal: 5\n", "Swap: 5\n"}) {
        systeminfo_struct info = filledInfo();
        EXPECT_EQ(status::readMemory(text, info), -2) << text;
        EXPECT_TRUE(sameBytes(info, filledInfo())) << text;
    }
}

TEST(ReadMemoryTest, UsedIsTakenWhenTheFreeFigureIsMet) {
    systeminfo_struct info = {};
    info.memload_total = 1000;
    (void)status::readMemory("MemFree: 100\nMemTotal: 5000\n", info);
    EXPECT_EQ(info.memload_used, 900);
    (void)status::readMemory("MemTotal: 7000\n", info);
    EXPECT_EQ(info.memload_used, 900);
    EXPECT_EQ(info.memload_total, 7000);
}

TEST(ReadMemoryTest, MoreFreeThanTotalIsNegative) {
    systeminfo_struct info = {};
    (void)status::readMemory("MemTotal: 100\nMemFree: 300\n", info);
    EXPECT_EQ(info.memload_used, -200);
}

TEST(ReadMemoryTest, OddSpacing) {
    systeminfo_struct info = {};
    (void)status::readMemory("\n\t MemTotal:\t\t 77kB\n  MemFree:7", info);
    EXPECT_EQ(info.memload_total, 77);
    EXPECT_EQ(info.memload_free, 7);
}

TEST(ReadMemoryTest, BuffersIsComparedOverSevenCharacters) {
    systeminfo_struct info = {};
    (void)status::readMemory("Buffers 123 kB\n", info);
    EXPECT_EQ(info.memload_buffers, 123);
}

TEST(ReadMemoryTest, FiguresAreNarrowedTo32Bits) {
    systeminfo_struct info = {};
    (void)status::readMemory("MemTotal: 4294967301 kB\nMemFree: -2147483648 kB\n", info);
    EXPECT_EQ(info.memload_total, 5);
    EXPECT_EQ(info.memload_free, INT32_MIN);
}

TEST(ReadMemoryTest, AFigureThatIsNoNumberIsZero) {
    systeminfo_struct info = filledInfo();
    (void)status::readMemory("Cached: kB\nActive:\n", info);
    EXPECT_EQ(info.memload_cached, 0);
}

TEST(ReadMemoryTest, IsTracedFromVerbosity5On) {
    systeminfo_struct info = {};
    verbose = 4;
    (void)status::readMemory(fixtures::kMemory2632, info);
    EXPECT_EQ(world().consoleText(), "");
    verbose = 5;
    (void)status::readMemory(fixtures::kMemory2632, info);
    EXPECT_EQ(world().consoleText(), "sys.sysinfo.memload.total    = 253964\n"
                                     "sys.sysinfo.memload.free     = 100060\n"
                                     "sys.sysinfo.memload.used     = 153904\n"
                                     "sys.sysinfo.memload.buffers  = 11236\n"
                                     "sys.sysinfo.memload.cached   = 60708\n"
                                     "sys.sysinfo.memload.active   = 50516\n"
                                     "sys.sysinfo.memload.inactive = 40312\n"
                                     "sys.sysinfo.memload.shared   = 148\n");
}

TEST(ReadMemoryTest, EachValueIsTracedFromVerbosity6On) {
    systeminfo_struct info = {};
    verbose = 6;
    (void)status::readMemory("MemTotal: 9\nShmem: 8\n", info);
    const std::string text = world().consoleText();
    EXPECT_EQ(text.find(" ? MemTotal: 9\n ? Shmem: 8\n"), 0U) << text;
}

// --- /proc/net/dev -------------------------------------------------------------------------------

class ReadNetworkTest : public testing::Test {
protected:
    int read(std::string_view text) { return status::readNetwork(text, samples_, info_); }

    systeminfo_struct info_ = {};
    status::NetworkSamples samples_;
};

/// A line with these byte counters, all other figures 0.
std::string counters(const std::string& interface, std::int64_t rx, std::int64_t tx) {
    return interface + ": " + std::to_string(rx) + " 0 0 0 0 0 0 0 " + std::to_string(tx) +
           " 0 0 0 0 0 0 0\n";
}

TEST_F(ReadNetworkTest, OldKernelEachColumnGoesToItsField) {
    EXPECT_EQ(read(fixtures::kNetwork2632), 0);
    const netstatus_struct& eth0 = info_.netstatus_eth0;
    EXPECT_EQ(eth0.rx_byte, 4294967296);
    EXPECT_EQ(eth0.rx_packet, 3000000000);
    EXPECT_EQ(eth0.rx_totalerror, 3);
    EXPECT_EQ(eth0.rx_droperror, 4);
    EXPECT_EQ(eth0.rx_fifoerror, 5);
    EXPECT_EQ(eth0.rx_frameerror, 6);
    EXPECT_EQ(eth0.tx_byte, 8589934592);
    EXPECT_EQ(eth0.tx_packet, 4000000000);
    EXPECT_EQ(eth0.tx_totalerror, 11);
    EXPECT_EQ(eth0.tx_droperror, 12);
    EXPECT_EQ(eth0.tx_fifoerror, 13);
    EXPECT_EQ(eth0.tx_collision, 14);
    const netstatus_struct& eth1 = info_.netstatus_eth1;
    EXPECT_EQ(eth1.rx_byte, 5120);
    EXPECT_EQ(eth1.rx_packet, 102);
    EXPECT_EQ(eth1.rx_totalerror, 103);
    EXPECT_EQ(eth1.rx_droperror, 104);
    EXPECT_EQ(eth1.rx_fifoerror, 105);
    EXPECT_EQ(eth1.rx_frameerror, 106);
    EXPECT_EQ(eth1.tx_byte, 10240);
    EXPECT_EQ(eth1.tx_packet, 110);
    EXPECT_EQ(eth1.tx_totalerror, 111);
    EXPECT_EQ(eth1.tx_droperror, 112);
    EXPECT_EQ(eth1.tx_fifoerror, 113);
    EXPECT_EQ(eth1.tx_collision, 114);
}

TEST_F(ReadNetworkTest, CurrentKernelInAnyOrder) {
    EXPECT_EQ(read(fixtures::kNetwork61), 0);
    EXPECT_EQ(info_.netstatus_eth0.rx_byte, 1215645);
    EXPECT_EQ(info_.netstatus_eth0.tx_byte, 782404);
    EXPECT_EQ(info_.netstatus_eth0.tx_droperror, 9);
    EXPECT_EQ(info_.netstatus_eth0.tx_collision, 427);
    EXPECT_EQ(info_.netstatus_eth1.rx_byte, 2222222);
    EXPECT_EQ(info_.netstatus_eth1.tx_packet, 33333);
}

TEST_F(ReadNetworkTest, WritesNoOtherField) {
    info_ = filledInfo();
    read(counters("eth0", 5120, 5120) + counters("eth1", 5120, 5120));
    systeminfo_struct expected = filledInfo();
    for (netstatus_struct* status : {&expected.netstatus_eth0, &expected.netstatus_eth1}) {
        const std::uint32_t untouched = status->rx_reserved;
        *status = {};
        status->rx_reserved = status->tx_reserved = untouched;
        status->rx_byte = status->tx_byte = 5120;
        status->rx_datarate = status->tx_datarate = 1.0F;
    }
    EXPECT_TRUE(sameBytes(info_, expected));
}

TEST_F(ReadNetworkTest, FirstRatesAreTheWholeCountersDividedBy5120) {
    read(fixtures::kNetwork2632);
    EXPECT_FLOAT_EQ(info_.netstatus_eth0.rx_datarate, 838860.8F);
    EXPECT_FLOAT_EQ(info_.netstatus_eth0.tx_datarate, 1677721.6F);
    EXPECT_EQ(info_.netstatus_eth1.rx_datarate, 1.0F);
    EXPECT_EQ(info_.netstatus_eth1.tx_datarate, 2.0F);
}

TEST_F(ReadNetworkTest, RatesAreTheGrowthSinceTheCallBefore) {
    read(counters("eth0", 1000, 2000) + counters("eth1", 3000, 4000));
    read(counters("eth0", 6120, 4560) + counters("eth1", 13240, 4000));
    EXPECT_EQ(info_.netstatus_eth0.rx_datarate, 1.0F);
    EXPECT_EQ(info_.netstatus_eth0.tx_datarate, 0.5F);
    EXPECT_EQ(info_.netstatus_eth1.rx_datarate, 2.0F);
    EXPECT_EQ(info_.netstatus_eth1.tx_datarate, 0.0F);
}

TEST_F(ReadNetworkTest, ElapsedTimeDoesNotMatter) {
    read(counters("eth0", 0, 0));
    world().advance(60000);
    read(counters("eth0", 5120, 5120));
    EXPECT_EQ(info_.netstatus_eth0.rx_datarate, 1.0F);
    EXPECT_EQ(info_.netstatus_eth0.tx_datarate, 1.0F);
}

TEST_F(ReadNetworkTest, ACounterThatFellGivesOneNegativeRate) {
    read(counters("eth0", 51200, 0));
    read(counters("eth0", 0, 0));
    EXPECT_EQ(info_.netstatus_eth0.rx_datarate, -10.0F);
    read(counters("eth0", 5120, 0));
    EXPECT_EQ(info_.netstatus_eth0.rx_datarate, 1.0F);
}

TEST_F(ReadNetworkTest, AnInterfaceThatWasGoneGoesOnFromItsOlderValue) {
    read(counters("eth0", 5120, 5120) + counters("eth1", 5120, 5120));
    EXPECT_EQ(read(counters("eth1", 10240, 5120)), -2);
    EXPECT_EQ(info_.netstatus_eth0.rx_byte, 5120);
    EXPECT_EQ(info_.netstatus_eth0.rx_datarate, 1.0F);
    read(counters("eth0", 15360, 5120) + counters("eth1", 10240, 5120));
    EXPECT_EQ(info_.netstatus_eth0.rx_datarate, 2.0F);
    EXPECT_EQ(info_.netstatus_eth0.tx_datarate, 0.0F);
    EXPECT_EQ(info_.netstatus_eth1.rx_datarate, 0.0F);
}

TEST_F(ReadNetworkTest, InterfacesHaveCountersOfTheirOwn) {
    read(counters("eth0", 5120, 10240));
    read(counters("eth1", 5120, 10240));
    EXPECT_EQ(info_.netstatus_eth1.rx_datarate, 1.0F);
    EXPECT_EQ(info_.netstatus_eth1.tx_datarate, 2.0F);
}

TEST_F(ReadNetworkTest, ExtremeCountersAreSurvived) {
    read("eth0: 9223372036854775807 0 0 0 0 0 0 0 -9223372036854775808 0 0 0 0\n");
    read("eth0: -9223372036854775808 0 0 0 0 0 0 0 9223372036854775807 0 0 0 0\n");
    EXPECT_EQ(info_.netstatus_eth0.rx_byte, INT64_MIN);
    EXPECT_EQ(info_.netstatus_eth0.tx_byte, INT64_MAX);
}

TEST_F(ReadNetworkTest, BothInterfacesAreExpected) {
    EXPECT_EQ(read(counters("eth0", 1, 1)), -2);
    EXPECT_EQ(read(counters("eth1", 1, 1)), -2);
    EXPECT_EQ(read(counters("eth0", 1, 1) + counters("eth1", 1, 1)), 0);
    EXPECT_EQ(read(""), -2);
}

TEST_F(ReadNetworkTest, ThirteenFiguresAreEnough) {
    info_.netstatus_eth0.tx_collision = 99;
    EXPECT_EQ(read("eth0: 1 2 3 4 5 6 7 8 9 10 11 12 13\neth1: 1 2 3 4 5 6 7 8 9 10 11 12 13"), 0);
    EXPECT_EQ(info_.netstatus_eth0.tx_fifoerror, 13);
    EXPECT_EQ(info_.netstatus_eth0.tx_collision, 99);
}

TEST_F(ReadNetworkTest, ALineWithTwelveFiguresIsIgnored) {
    info_ = filledInfo();
    EXPECT_EQ(read("eth0: 1 2 3 4 5 6 7 8 9 10 11 12\neth1:\n"), -2);
    EXPECT_TRUE(sameBytes(info_, filledInfo()));
    info_ = {};
    read(counters("eth0", 5120, 0));
    EXPECT_EQ(info_.netstatus_eth0.rx_datarate, 1.0F);
}

TEST_F(ReadNetworkTest, OtherInterfacesAreIgnored) {
    info_ = filledInfo();
    EXPECT_EQ(read(counters("eth2", 1, 1) + counters("veth0", 1, 1) + counters("eth10", 1, 1) +
                   counters("eth0.5", 1, 1) + counters("eth", 1, 1) + counters("ETH0", 1, 1)),
              -2);
    EXPECT_TRUE(sameBytes(info_, filledInfo()));
}

TEST_F(ReadNetworkTest, FiguresAreTracedFromVerbosity6On) {
    verbose = 6;
    const std::string line = "1 2 3 4 5 6 7 8 9 10 11 12";
    read("eth0:" + line + "\n" + "  eth1: " + line + "\n");
    std::string expected;
    for (const char* interface : {"eth0", "eth1"}) {
        for (int index = 0; index < 12; ++index) {
            expected += " ? " + std::string(interface) + "[" + std::to_string(index) +
                        "]: " + std::to_string(index + 1) + "\n";
        }
    }
    EXPECT_EQ(world().consoleText().substr(0, expected.size()), expected);
    verbose = 5;
    world().forgetRecords();
    read("eth0:" + line + "\n");
    EXPECT_EQ(world().consoleText().find(" ? "), std::string::npos);
}

TEST_F(ReadNetworkTest, BothInterfacesAreTracedFromVerbosity5On) {
    const std::string text = "eth0: 5120 2 3 4 5 6 7 8 10240 10 11 12 13 14 15 16\n"
                             "eth1: 2560 102 103 104 105 106 7 8 0 110 111 112 113 114 15 16\n";
    verbose = 4;
    read(text);
    EXPECT_EQ(world().consoleText(), "");
    samples_ = {};
    verbose = 5;
    read(text);
    EXPECT_EQ(world().consoleText(), "sys.sysinfo.netstatus.eth0.rx.byte       = 5120\n"
                                     "sys.sysinfo.netstatus.eth0.rx.packet     = 2\n"
                                     "sys.sysinfo.netstatus.eth0.rx.totalerror = 3\n"
                                     "sys.sysinfo.netstatus.eth0.rx.droperror  = 4\n"
                                     "sys.sysinfo.netstatus.eth0.rx.fifoerror  = 5\n"
                                     "sys.sysinfo.netstatus.eth0.rx.frameerror = 6\n"
                                     "sys.sysinfo.netstatus.eth0.rx.datarate   = 1\n"
                                     "sys.sysinfo.netstatus.eth0.tx.byte       = 10240\n"
                                     "sys.sysinfo.netstatus.eth0.tx.packet     = 10\n"
                                     "sys.sysinfo.netstatus.eth0.tx.totalerror = 11\n"
                                     "sys.sysinfo.netstatus.eth0.tx.droperror  = 12\n"
                                     "sys.sysinfo.netstatus.eth0.tx.fifoerror  = 13\n"
                                     "sys.sysinfo.netstatus.eth0.tx.collision  = 14\n"
                                     "sys.sysinfo.netstatus.eth0.tx.datarate   = 2\n"
                                     "sys.sysinfo.netstatus.eth1.rx.byte       = 2560\n"
                                     "sys.sysinfo.netstatus.eth1.rx.packet     = 102\n"
                                     "sys.sysinfo.netstatus.eth1.rx.totalerror = 103\n"
                                     "sys.sysinfo.netstatus.eth1.rx.droperror  = 104\n"
                                     "sys.sysinfo.netstatus.eth1.rx.fifoerror  = 105\n"
                                     "sys.sysinfo.netstatus.eth1.rx.frameerror = 106\n"
                                     "sys.sysinfo.netstatus.eth1.rx.datarate   = 0.5\n"
                                     "sys.sysinfo.netstatus.eth1.tx.byte       = 0\n"
                                     "sys.sysinfo.netstatus.eth1.tx.packet     = 110\n"
                                     "sys.sysinfo.netstatus.eth1.tx.totalerror = 111\n"
                                     "sys.sysinfo.netstatus.eth1.tx.droperror  = 112\n"
                                     "sys.sysinfo.netstatus.eth1.tx.fifoerror  = 113\n"
                                     "sys.sysinfo.netstatus.eth1.tx.collision  = 114\n"
                                     "sys.sysinfo.netstatus.eth1.tx.datarate   = 0\n");
}

} // namespace
