#include "status/CpuTimes.h"

#include <string>

#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "tests/fakes/FakePlatform.h"

namespace {

using fakes::world;
using status::CpuSamples;
using status::CpuShares;
using status::CpuTicks;
using status::isCpuLine;
using status::takeCpuFigures;

constexpr std::uint32_t kAllTen = 0x3FF;

// --- which lines count ---------------------------------------------------------------------------

TEST(IsCpuLineTest, TheSummaryLineCounts) {
    EXPECT_TRUE(isCpuLine("cpu"));
}

TEST(IsCpuLineTest, OnlyTheFirstProcessorIsLeftOut) {
    EXPECT_FALSE(isCpuLine("cpu0"));
    EXPECT_TRUE(isCpuLine("cpu1"));
    EXPECT_TRUE(isCpuLine("cpu9"));
    EXPECT_TRUE(isCpuLine("cpu10"));
    EXPECT_TRUE(isCpuLine("cpu127"));
}

TEST(IsCpuLineTest, WordsAreComparedOverFourAndThreeCharacters) {
    EXPECT_FALSE(isCpuLine("cpu01"));
    EXPECT_TRUE(isCpuLine("cpufreq"));
    EXPECT_TRUE(isCpuLine("cpu\xFF"));
}

TEST(IsCpuLineTest, OtherWordsDoNotCount) {
    for (const char* word : {"", "c", "cp", "CPU", "xcpu", "intr", "ctxt", "btime", "softirq"}) {
        EXPECT_FALSE(isCpuLine(word)) << word;
    }
}

// --- taking the figures --------------------------------------------------------------------------

TEST(TakeCpuFiguresTest, TenFiguresInTheirOrder) {
    CpuTicks ticks = {};
    EXPECT_EQ(takeCpuFigures("cpu  10 20 30 40 50 60 70 80 90 100", ticks), kAllTen);
    EXPECT_EQ(ticks, (CpuTicks{10, 20, 30, 40, 50, 60, 70, 80, 90, 100}));
}

TEST(TakeCpuFiguresTest, FiguresBeyondTenAreIgnored) {
    CpuTicks ticks = {};
    EXPECT_EQ(takeCpuFigures("cpu 1 2 3 4 5 6 7 8 9 10 11 12", ticks), kAllTen);
    EXPECT_EQ(ticks, (CpuTicks{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
}

TEST(TakeCpuFiguresTest, FiguresThatAreMissingStayAsTheyWere) {
    for (std::size_t count = 0; count <= 10; ++count) {
        CpuTicks ticks = {};
        ticks.fill(7);
        std::string line = "cpu ";
        for (std::size_t index = 0; index < count; ++index) {
            line += " 1" + std::to_string(index);
        }
        EXPECT_EQ(takeCpuFigures(line, ticks), (1U << count) - 1) << line;
        for (std::size_t index = 0; index < ticks.size(); ++index) {
            const int expected = index < count ? static_cast<int>(10 + index) : 7;
            EXPECT_EQ(ticks[index], expected) << line << ", figure " << index;
        }
    }
}

TEST(TakeCpuFiguresTest, AFigureThatIsNoNumberCountsAsZero) {
    CpuTicks ticks = {};
    ticks.fill(7);
    EXPECT_EQ(takeCpuFigures("cpu x 2z \xFF", ticks), 0x7U);
    EXPECT_EQ(ticks, (CpuTicks{0, 2, 0, 7, 7, 7, 7, 7, 7, 7}));
}

TEST(TakeCpuFiguresTest, FiguresWrapAt32Bits) {
    CpuTicks ticks = {};
    EXPECT_EQ(takeCpuFigures("cpu 2147483648 4294967297", ticks), 0x3U);
    EXPECT_EQ(ticks[0], INT32_MIN);
    EXPECT_EQ(ticks[1], 1);
}

TEST(TakeCpuFiguresTest, EachFigureIsTracedFromVerbosity6On) {
    CpuTicks ticks = {};
    verbose = 5;
    takeCpuFigures("cpu 11 22 33", ticks);
    EXPECT_EQ(world().consoleText(), "");
    verbose = 6;
    takeCpuFigures("cpu 11 22 3x", ticks);
    EXPECT_EQ(world().consoleText(), " ? cpu[0]: 11\n ? cpu[1]: 22\n ? cpu[2]: 3x\n");
}

TEST(TakeCpuFiguresTest, TheTenthIsTheLastOneTraced) {
    CpuTicks ticks = {};
    verbose = 6;
    takeCpuFigures("cpu 1 1 1 1 1 1 1 1 1 1 99", ticks);
    EXPECT_NE(world().consoleText().find(" ? cpu[9]: 1\n"), std::string::npos);
    EXPECT_EQ(world().consoleText().find("cpu[10]"), std::string::npos);
}

TEST(TakeCpuFiguresTest, AWordWithoutAnEndIsSurvived) {
    CpuTicks ticks = {};
    verbose = 6;
    EXPECT_EQ(takeCpuFigures("cpu " + std::string(1000000, '7') + " 2", ticks), 0x3U);
    EXPECT_EQ(ticks[1], 2);
}

// --- shares --------------------------------------------------------------------------------------

constexpr CpuTicks kNothing = {};

TEST(CpuSharesTest, EachIsItsPartOfTheTotal) {
    const CpuShares shares = status::cpuShares({kNothing, {1, 2, 4, 8, 16, 32, 37, 0, 0, 0}});
    EXPECT_FLOAT_EQ(shares.user, 1.0F);
    EXPECT_FLOAT_EQ(shares.nice, 2.0F);
    EXPECT_FLOAT_EQ(shares.sys, 4.0F);
    EXPECT_FLOAT_EQ(shares.idle, 8.0F);
    EXPECT_FLOAT_EQ(shares.iowait, 16.0F);
    EXPECT_FLOAT_EQ(shares.irq, 32.0F);
    EXPECT_FLOAT_EQ(shares.softirq, 37.0F);
}

TEST(CpuSharesTest, StealEntersTheTotal) {
    const CpuShares shares = status::cpuShares({kNothing, {25, 0, 0, 25, 0, 0, 0, 50, 0, 0}});
    EXPECT_FLOAT_EQ(shares.user, 25.0F);
    EXPECT_FLOAT_EQ(shares.idle, 25.0F);
}

TEST(CpuSharesTest, GuestsDoNotEnterTheTotal) {
    const CpuShares shares = status::cpuShares({kNothing, {50, 0, 0, 50, 0, 0, 0, 0, 50, 50}});
    EXPECT_FLOAT_EQ(shares.user, 50.0F);
    EXPECT_FLOAT_EQ(shares.idle, 50.0F);
}

TEST(CpuSharesTest, OnlyTheDifferenceCounts) {
    const CpuShares shares = status::cpuShares(
        {{1000, 2000, 3000, 4000, 0, 0, 0, 0, 0, 0}, {1010, 2020, 3030, 4040, 0, 0, 0, 0, 0, 0}});
    EXPECT_FLOAT_EQ(shares.user, 10.0F);
    EXPECT_FLOAT_EQ(shares.nice, 20.0F);
    EXPECT_FLOAT_EQ(shares.sys, 30.0F);
    EXPECT_FLOAT_EQ(shares.idle, 40.0F);
}

TEST(CpuSharesTest, AFigureThatFellCountsAsZero) {
    const CpuShares shares =
        status::cpuShares({{0, 0, 0, 0, 500, 0, 0, 600, 0, 0}, {75, 0, 0, 25, 400, 0, 0, 0, 0, 0}});
    EXPECT_FLOAT_EQ(shares.user, 75.0F);
    EXPECT_FLOAT_EQ(shares.idle, 25.0F);
    EXPECT_FLOAT_EQ(shares.iowait, 0.0F);
}

TEST(CpuSharesTest, NoTickInBetweenGivesZeros) {
    const CpuTicks ticks = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    const CpuShares shares = status::cpuShares({ticks, ticks});
    for (const float share : {shares.user, shares.nice, shares.sys, shares.idle, shares.iowait,
                              shares.irq, shares.softirq}) {
        EXPECT_EQ(share, 0.0F);
    }
}

TEST(CpuSharesTest, DifferencesAndTotalDoNotOverflow) {
    CpuTicks least;
    CpuTicks most;
    least.fill(INT32_MIN);
    most.fill(INT32_MAX);
    EXPECT_FLOAT_EQ(status::cpuShares({least, most}).user, 12.5F);
    EXPECT_EQ(status::cpuShares({most, least}).user, 0.0F);
}

TEST(CpuSharesTest, AreTracedFromVerbosity5On) {
    const CpuSamples samples = {kNothing, {1, 2, 4, 8, 16, 32, 37, 0, 0, 0}};
    verbose = 4;
    status::cpuShares(samples);
    EXPECT_EQ(world().consoleText(), "");
    verbose = 5;
    status::cpuShares(samples);
    EXPECT_EQ(world().consoleText(), "sys.sysinfo.cpuload.user    = 1\n"
                                     "sys.sysinfo.cpuload.nice    = 2\n"
                                     "sys.sysinfo.cpuload.sys     = 4\n"
                                     "sys.sysinfo.cpuload.idle    = 8\n"
                                     "sys.sysinfo.cpuload.iowait  = 16\n"
                                     "sys.sysinfo.cpuload.irq     = 32\n"
                                     "sys.sysinfo.cpuload.softirq = 37\n");
}

TEST(CpuSamplesTest, AdvancingKeepsTheCurrentFigures) {
    CpuSamples samples = {{1}, {2}};
    samples.advance();
    EXPECT_EQ(samples.previous, CpuTicks{2});
    EXPECT_EQ(samples.current, CpuTicks{2});
}

} // namespace
