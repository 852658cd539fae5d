#include "status/ProcParsers.h"

#include <array>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/status/StatusSupport.h"
#include "tests/unit/status/fixtures/ProcTexts.h"

namespace {

using fakes::world;
using statustest::filledInfo;
using statustest::maskWithout;
using statustest::sameBytes;
using statustest::sharesOf;

/// Bytes that no parser may stumble over.
std::string binaryText(std::size_t size) {
    std::string text(size, '\0');
    std::uint32_t state = 12345;
    for (char& byte : text) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24);
    }
    return text;
}

// --- /proc/uptime --------------------------------------------------------------------------------

TEST(ReadUptimeTest, HoursSinceBootAndIdlePercent) {
    systeminfo_struct info = {};
    EXPECT_EQ(status::readUptime(fixtures::kUptime, info), 0);
    EXPECT_FLOAT_EQ(info.runtime_uptime, 100.00007F); // 360000.25 s
    EXPECT_FLOAT_EQ(info.runtime_idletime, 25.000122F);
}

TEST(ReadUptimeTest, IdleTimeOfSeveralProcessorsExceeds100) {
    systeminfo_struct info = {};
    EXPECT_EQ(status::readUptime(fixtures::kUptimeFourProcessors, info), 0);
    EXPECT_FLOAT_EQ(info.runtime_idletime, 390.0F);
}

TEST(ReadUptimeTest, OddSpacingAndNoLineFeed) {
    systeminfo_struct info = {};
    EXPECT_EQ(status::readUptime("\n \t 7200 \t  1800 more", info), 0);
    EXPECT_FLOAT_EQ(info.runtime_uptime, 2.0F);
    EXPECT_FLOAT_EQ(info.runtime_idletime, 25.0F);
}

TEST(ReadUptimeTest, OnlyTheFirstLineCounts) {
    systeminfo_struct info = {};
    EXPECT_EQ(status::readUptime("3600 36\n7200 7200\n", info), 0);
    EXPECT_FLOAT_EQ(info.runtime_uptime, 1.0F);
    EXPECT_FLOAT_EQ(info.runtime_idletime, 1.0F);
    EXPECT_EQ(status::readUptime("3600\n7200\n", info), -2);
}

TEST(ReadUptimeTest, WritesNoOtherField) {
    systeminfo_struct info = filledInfo();
    status::readUptime("3600 36\n", info);
    systeminfo_struct expected = filledInfo();
    expected.runtime_uptime = 1.0F;
    expected.runtime_idletime = 1.0F;
    EXPECT_TRUE(sameBytes(info, expected));
}

TEST(ReadUptimeTest, NoFiguresChangeNothing) {
    for (const char* text : {"", "\n", " \n \n"}) {
        systeminfo_struct info = filledInfo();
        EXPECT_EQ(status::readUptime(text, info), -2);
        EXPECT_TRUE(sameBytes(info, filledInfo()));
    }
}

TEST(ReadUptimeTest, OneFigureIsIncomplete) {
    systeminfo_struct info = filledInfo();
    EXPECT_EQ(status::readUptime("3600\n", info), -2);
    EXPECT_EQ(info.runtime_idletime, filledInfo().runtime_idletime);
}

// --- /proc/loadavg -------------------------------------------------------------------------------

TEST(ReadLoadAveragesTest, TheFirstThreeFigures) {
    systeminfo_struct info = filledInfo();
    EXPECT_EQ(status::readLoadAverages(fixtures::kLoadAverages, info), 0);
    systeminfo_struct expected = filledInfo();
    expected.loadavg_1min = 0.25F;
    expected.loadavg_5min = 1.5F;
    expected.loadavg_15min = 12.75F;
    EXPECT_TRUE(sameBytes(info, expected));
}

TEST(ReadLoadAveragesTest, NoLineFeedAndOddSpacing) {
    systeminfo_struct info = {};
    EXPECT_EQ(status::readLoadAverages("  1\t2   3", info), 0);
    EXPECT_EQ(info.loadavg_15min, 3.0F);
}

TEST(ReadLoadAveragesTest, FewerFiguresAreIncomplete) {
    for (const char* text : {"", "\n", "0.5\n", "0.5 1.5\n", "0.5 1.5\n2.5\n"}) {
        systeminfo_struct info = filledInfo();
        EXPECT_EQ(status::readLoadAverages(text, info), -2) << text;
        EXPECT_EQ(info.loadavg_15min, filledInfo().loadavg_15min) << text;
    }
}

// --- /proc/stat ----------------------------------------------------------------------------------

class ReadStatTest : public testing::Test {
protected:
    int read(std::string_view text) {
        samples_.advance();
        return status::readStat(text, samples_, info_);
    }

    std::array<std::uint8_t, 8> bootTime() const {
        std::array<std::uint8_t, 8> bytes;
        std::memcpy(bytes.data(), info_.boot_time, bytes.size());
        return bytes;
    }

    std::array<float, 7> shares() const {
        return {info_.cpuload_user,   info_.cpuload_sys, info_.cpuload_nice,   info_.cpuload_idle,
                info_.cpuload_iowait, info_.cpuload_irq, info_.cpuload_softirq};
    }

    systeminfo_struct info_ = filledInfo();
    status::CpuSamples samples_;
};

using Shares = std::array<float, 7>; // user, sys, nice, idle, iowait, irq, softirq
using Bytes = std::array<std::uint8_t, 8>;

constexpr std::uint32_t kIntr = 0x10000000;
constexpr std::uint32_t kCtxt = 0x20000000;
constexpr std::uint32_t kBtime = 0x40000000;

TEST_F(ReadStatTest, FirstSharesAreThoseSinceBoot) {
    EXPECT_EQ(read(fixtures::kStat2633), 0);
    EXPECT_FLOAT_EQ(info_.cpuload_user, 100.0F / 36);
    EXPECT_FLOAT_EQ(info_.cpuload_nice, 200.0F / 36);
    EXPECT_FLOAT_EQ(info_.cpuload_sys, 300.0F / 36);
    EXPECT_FLOAT_EQ(info_.cpuload_idle, 400.0F / 36);
    EXPECT_FLOAT_EQ(info_.cpuload_iowait, 500.0F / 36);
    EXPECT_FLOAT_EQ(info_.cpuload_irq, 600.0F / 36);
    EXPECT_FLOAT_EQ(info_.cpuload_softirq, 700.0F / 36);
}

TEST_F(ReadStatTest, LaterSharesAreThoseOfTheInterval) {
    read(fixtures::kStat2633);
    EXPECT_EQ(read(fixtures::kStat2633Later), 0);
    EXPECT_EQ(shares(), (Shares{10.0F, 20.0F, 15.0F, 5.0F, 12.5F, 2.5F, 7.5F}));
}

TEST_F(ReadStatTest, AnUnchangedTextGivesZeros) {
    read(fixtures::kStat2633);
    EXPECT_EQ(read(fixtures::kStat2633), 0);
    EXPECT_EQ(shares(), Shares{});
}

TEST_F(ReadStatTest, CountersAreOf64Bits) {
    EXPECT_EQ(read(fixtures::kStat2633Later), 0);
    EXPECT_EQ(info_.interrupts, 5000000100);
    EXPECT_EQ(info_.context_switches, 6000000200);
}

TEST_F(ReadStatTest, BootTimeIsMillisecondsBigEndian) {
    EXPECT_EQ(read(fixtures::kStat2633), 0);
    EXPECT_EQ(bootTime(), (Bytes{0x00, 0x00, 0x01, 0x2E, 0xAE, 0x09, 0xC8, 0x00}) /* 1.3e12 */);
}

TEST_F(ReadStatTest, NineFiguresOfOldKernelsPublishNoShares) {
    EXPECT_EQ(read(fixtures::kStat2632), maskWithout(0x1FF | kIntr | kCtxt | kBtime));
    EXPECT_EQ(info_.interrupts, 1234567);
    EXPECT_EQ(info_.context_switches, 7654321);
    EXPECT_EQ(bootTime(), (Bytes{0x00, 0x00, 0x01, 0x25, 0xE7, 0x2E, 0x78, 0x00}) /* 2010 */);
    systeminfo_struct untouched = filledInfo();
    EXPECT_EQ(sharesOf(info_), sharesOf(untouched));
}

TEST_F(ReadStatTest, SeveralProcessorsOverwriteTheFigures) {
    EXPECT_EQ(read(fixtures::kStat61), 0);
    EXPECT_EQ(samples_.current, (status::CpuTicks{40, 10, 20, 100, 5, 4, 3, 18, 2, 1}));
    EXPECT_EQ(shares(), (Shares{20.0F, 10.0F, 5.0F, 50.0F, 2.5F, 2.0F, 1.5F}));
}

TEST_F(ReadStatTest, TheFirstProcessorDoesNotOverwriteThem) {
    EXPECT_EQ(read("cpu 1 1 1 1 1 1 1 1 1 1\ncpu0 9 9 9 9 9 9 9 9 9 9\n"), maskWithout(0x3FF));
    EXPECT_EQ(samples_.current, (status::CpuTicks{1, 1, 1, 1, 1, 1, 1, 1, 1, 1}));
}

TEST_F(ReadStatTest, EachItemClearsItsBit) {
    EXPECT_EQ(read("intr 1\n"), maskWithout(kIntr));
    EXPECT_EQ(read("ctxt 1\n"), maskWithout(kCtxt));
    EXPECT_EQ(read("btime 1\n"), maskWithout(kBtime));
    EXPECT_EQ(read("cpu 1\n"), maskWithout(0x1));
    EXPECT_EQ(read("cpu 1 1 1 1 1 1 1\n"), maskWithout(0x7F));
    EXPECT_EQ(read("cpu 1 1 1 1 1 1 1 1 1 1\n"), maskWithout(0x3FF));
    EXPECT_EQ(read("cpu 1 1 1 1 1 1 1 1 1 1\nintr 1\nctxt 1\n"),
              maskWithout(0x3FF | kIntr | kCtxt));
    EXPECT_EQ(read("cpu 1 1 1 1 1 1 1 1 1 1\nintr 1\nbtime 1\n"),
              maskWithout(0x3FF | kIntr | kBtime));
    EXPECT_EQ(read("cpu 1 1 1 1 1 1 1 1 1 1\nctxt 1\nbtime 1\n"),
              maskWithout(0x3FF | kCtxt | kBtime));
    EXPECT_EQ(read("intr 1\nctxt 1\nbtime 1\n"), maskWithout(kIntr | kCtxt | kBtime));
}

TEST_F(ReadStatTest, NothingClearsNoBitAndTouchesNothing) {
    for (const char* text :
         {"", "\n\n", "cpu\nintr\nctxt\nbtime\n", "cpu0 1 2 3 4 5 6 7 8 9 10\n",
          "processes 5\npage 1 2\nswap 3 4\n", "xcpu 1\nint 2\nctx 3\nbtim 4\n"}) {
        EXPECT_EQ(read(text), -1) << text;
        EXPECT_TRUE(sameBytes(info_, filledInfo())) << text;
    }
}

TEST_F(ReadStatTest, AllMissingButTheOrderIsFree) {
    EXPECT_EQ(read("btime 1234\nctxt 5\n\n  intr\t6 7\ncpu\t1 1 1 1 1 1 1 1 1 1"), 0);
    EXPECT_EQ(info_.context_switches, 5);
    EXPECT_EQ(info_.interrupts, 6);
    EXPECT_EQ(bootTime(), (Bytes{0, 0, 0, 0, 0, 0x12, 0xD4, 0x50}) /* 1234000 */);
}

TEST_F(ReadStatTest, SharesNeedAllTenFigures) {
    read("cpu 1 2 3 4 5 6 7 8 9\n");
    const systeminfo_struct untouched = filledInfo();
    EXPECT_EQ(sharesOf(info_), sharesOf(untouched));
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_EQ(samples_.current[8], 9);
}

TEST_F(ReadStatTest, SharesAreTakenOnceFromTheLastLine) {
    verbose = 5;
    EXPECT_EQ(read("cpu 1 1 1 1 1 1 1 1 1 1\ncpu1 5 0 0 5 0 0 0 0 0 0\nintr 1\nctxt 1\nbtime 1\n"),
              0);
    EXPECT_EQ(info_.cpuload_user, 50.0F);
    EXPECT_EQ(world().consoleText(), "sys.sysinfo.cpuload.user    = 50\n"
                                     "sys.sysinfo.cpuload.nice    = 0\n"
                                     "sys.sysinfo.cpuload.sys     = 0\n"
                                     "sys.sysinfo.cpuload.idle    = 50\n"
                                     "sys.sysinfo.cpuload.iowait  = 0\n"
                                     "sys.sysinfo.cpuload.irq     = 0\n"
                                     "sys.sysinfo.cpuload.softirq = 0\n");
}

TEST_F(ReadStatTest, TicksBeyond31BitsWrapForOneInterval) {
    EXPECT_EQ(read("cpu 2147483600 0 0 0 0 0 0 0 0 0\n"), maskWithout(0x3FF));
    read("cpu 2147483700 0 0 100 0 0 0 0 0 0\n");
    EXPECT_EQ(info_.cpuload_user, 0.0F);
    EXPECT_EQ(info_.cpuload_idle, 100.0F);
    read("cpu 2147483750 0 0 150 0 0 0 0 0 0\n");
    EXPECT_EQ(info_.cpuload_user, 50.0F);
}

TEST_F(ReadStatTest, WritesNoOtherField) {
    EXPECT_EQ(read("cpu 1 2 3 4 0 0 0 0 0 0\nintr 6\nctxt 5\nbtime 1234\n"), 0);
    systeminfo_struct expected = filledInfo();
    const std::uint8_t bytes[8] = {0, 0, 0, 0, 0, 0x12, 0xD4, 0x50};
    std::memcpy(expected.boot_time, bytes, sizeof bytes);
    expected.context_switches = 5;
    expected.interrupts = 6;
    expected.cpuload_user = 10.0F;
    expected.cpuload_nice = 20.0F;
    expected.cpuload_sys = 30.0F;
    expected.cpuload_idle = 40.0F;
    expected.cpuload_iowait = expected.cpuload_irq = expected.cpuload_softirq = 0.0F;
    EXPECT_TRUE(sameBytes(info_, expected));
}

TEST_F(ReadStatTest, CountersAreTracedFromVerbosity6On) {
    verbose = 5;
    read("intr 77 1 2\nctxt 88\nbtime 99\n");
    EXPECT_EQ(world().consoleText(), "");
    verbose = 6;
    read("intr 77 1 2\nctxt 88\nbtime 99\n");
    EXPECT_EQ(world().consoleText(), " ? intr  : 77\n ? ctxt  : 88\n ? btime  : 99\n");
}

TEST_F(ReadStatTest, AnInterruptLineOfManyThousandFiguresIsTaken) {
    std::string text = "intr 42";
    for (int index = 0; index < 100000; ++index) {
        text += " 0";
    }
    EXPECT_EQ(read(text + "\nctxt 7\n"), maskWithout(kIntr | kCtxt));
    EXPECT_EQ(info_.interrupts, 42);
    EXPECT_EQ(info_.context_switches, 7);
}

TEST_F(ReadStatTest, EveryTruncationIsSurvived) {
    const std::string text = fixtures::kStat2633;
    const std::size_t complete = text.find("\nprocesses");
    for (std::size_t length = 0; length <= text.size(); ++length) {
        const int result = read(text.substr(0, length));
        EXPECT_EQ(result == 0, length > text.find("btime ") + 6) << length;
        EXPECT_LE(result, 0);
    }
    EXPECT_EQ(read(text.substr(0, complete)), 0);
}

// --- all of them ---------------------------------------------------------------------------------

TEST(ProcParsersTest, BinaryTextsAreSurvivedAndChangeNothing) {
    verbose = 9;
    const std::string text = "\xFF" + binaryText(1048576);
    systeminfo_struct info = {};
    status::CpuSamples cpu;
    status::NetworkSamples network;
    (void)status::readUptime(text, info); // Words of such a text may be numbers.
    (void)status::readLoadAverages(text, info);
    info = filledInfo();
    EXPECT_EQ(status::readStat(text, cpu, info), -1);
    EXPECT_EQ(status::readMemory(text, info), -2);
    EXPECT_EQ(status::readNetwork(text, network, info), -2);
    EXPECT_TRUE(sameBytes(info, filledInfo()));
}

TEST(ProcParsersTest, OneWordOfAMegabyteIsSurvived) {
    verbose = 9;
    const std::string word(1048576, '9');
    systeminfo_struct info = {};
    status::CpuSamples cpu;
    status::NetworkSamples network;
    EXPECT_EQ(status::readUptime(word + " 1", info), 0);
    EXPECT_EQ(status::readLoadAverages(word + " 1 1", info), 0);
    EXPECT_EQ(status::readStat("intr " + word, cpu, info), maskWithout(kIntr));
    EXPECT_EQ(info.interrupts, INT64_MAX);
    EXPECT_EQ(status::readMemory("MemTotal: " + word, info), -2);
    EXPECT_EQ(status::readNetwork("eth0:" + word, network, info), -2);
}

TEST(ProcParsersTest, EachTakesTheTextOfAnotherWithoutHarm) {
    systeminfo_struct info = filledInfo();
    status::CpuSamples cpu;
    status::NetworkSamples network;
    EXPECT_EQ(status::readMemory(fixtures::kStat61, info), -2);
    EXPECT_EQ(status::readNetwork(fixtures::kMemory61, network, info), -2);
    EXPECT_EQ(status::readStat(fixtures::kNetwork61, cpu, info), -1);
    EXPECT_TRUE(sameBytes(info, filledInfo()));
}

} // namespace
