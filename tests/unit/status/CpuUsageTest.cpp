#include "status/CpuUsage.h"

#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "status/AppStatusUpdate.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/status/StatusSupport.h"

namespace {

using fakes::world;
using statustest::maskWithout;

constexpr cpuload_struct kUntouched = {-1, -2, -3, -4, -5, -6, -7};

bool same(const cpuload_struct& left, const cpuload_struct& right) {
    return left.user == right.user && left.sys == right.sys && left.nice == right.nice &&
           left.idle == right.idle && left.iowait == right.iowait && left.irq == right.irq &&
           left.softirq == right.softirq;
}

/// The samples last as long as the process, so every test begins with a reading of zeros.
class CpuUsageTest : public testing::Test {
protected:
    CpuUsageTest() {
        read("cpu 0 0 0 0 0 0 0 0 0 0\n");
        load_ = kUntouched;
        world().forgetRecords();
    }

    int read(const std::string& stat) {
        world().textFiles["/proc/stat"] = stat;
        return get_CPU_Usage(&load_);
    }

    cpuload_struct load_ = kUntouched;
};

TEST_F(CpuUsageTest, EachShareIsItsPartOfTheInterval) {
    // user, nice, system, idle, iowait, irq, softirq, steal, guest, guest_nice
    EXPECT_EQ(read("cpu  10 20 40 80 15 5 10 20 900 900\n"), 0);
    EXPECT_TRUE(same(load_, {5.0F, 20.0F, 10.0F, 40.0F, 7.5F, 2.5F, 5.0F}));
}

TEST_F(CpuUsageTest, LaterCallsMeasureSinceTheCallBefore) {
    read("cpu 100 0 0 100 0 0 0 0 0 0\n");
    EXPECT_EQ(read("cpu 125 0 0 175 0 0 0 0 0 0\n"), 0);
    EXPECT_TRUE(same(load_, {25.0F, 0, 0, 75.0F, 0, 0, 0}));
}

TEST_F(CpuUsageTest, NoTickInBetweenGivesZeros) {
    read("cpu 1 2 3 4 5 6 7 8 9 10\n");
    EXPECT_EQ(read("cpu 1 2 3 4 5 6 7 8 9 10\n"), 0);
    EXPECT_TRUE(same(load_, {}));
}

TEST_F(CpuUsageTest, AFigureThatFellCountsAsZero) {
    read("cpu 0 0 0 0 100 0 0 0 0 0\n");
    read("cpu 30 0 0 10 50 0 0 0 0 0\n");
    EXPECT_TRUE(same(load_, {75.0F, 0, 0, 25.0F, 0, 0, 0}));
}

TEST_F(CpuUsageTest, SevenToNineFiguresAreEnoughForTheResultButNotForTheShares) {
    for (const char* stat :
         {"cpu 1 2 3 4 5 6 7\n", "cpu 1 2 3 4 5 6 7 8\n", "cpu 1 2 3 4 5 6 7 8 9\n"}) {
        EXPECT_EQ(read(stat), 0) << stat;
        EXPECT_TRUE(same(load_, kUntouched)) << stat;
    }
}

TEST_F(CpuUsageTest, FewerFiguresGiveTheirMask) {
    EXPECT_EQ(read("cpu 1 2 3 4 5 6\n"), maskWithout(0x3F));
    EXPECT_EQ(read("cpu 1\n"), maskWithout(0x1));
    EXPECT_EQ(read("cpu\n"), maskWithout(0));
    EXPECT_EQ(read(""), maskWithout(0));
    EXPECT_TRUE(same(load_, kUntouched));
}

TEST_F(CpuUsageTest, TheOtherKeysAreNotRead) {
    EXPECT_EQ(read("intr 1\nctxt 2\nbtime 3\n"), maskWithout(0));
    verbose = 6;
    read("intr 1\nctxt 2\nbtime 3\nprocesses 4\n");
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(CpuUsageTest, FiguresThatAreMissingKeepTheirSample) {
    read("cpu 100 0 0 100 0 0 0 0 0 0\n");
    EXPECT_EQ(read("cpu 200\n"), maskWithout(0x1));
    read("cpu 225 0 0 175 0 0 0 0 0 0\n");
    EXPECT_TRUE(same(load_, {25.0F, 0, 0, 75.0F, 0, 0, 0}));
}

TEST_F(CpuUsageTest, SeveralProcessorsOverwriteTheFigures) {
    read("cpu 9 9 9 9 9 9 9 9 9 9\ncpu0 8 8 8 8 8 8 8 8 8 8\n  cpu1 30 0 0 10 0 0 0 0 0 0\n");
    EXPECT_TRUE(same(load_, {75.0F, 0, 0, 25.0F, 0, 0, 0}));
}

TEST_F(CpuUsageTest, TheFirstProcessorAloneIsNothing) {
    EXPECT_EQ(read("cpu0 1 2 3 4 5 6 7 8 9 10\n"), maskWithout(0));
    EXPECT_TRUE(same(load_, kUntouched));
}

TEST_F(CpuUsageTest, AFileThatCannotBeOpenedChangesNothing) {
    read("cpu 100 0 0 100 0 0 0 0 0 0\n");
    load_ = kUntouched;
    world().textFiles.clear();
    EXPECT_EQ(get_CPU_Usage(&load_), -1);
    EXPECT_EQ(get_CPU_Usage(&load_), -1);
    EXPECT_TRUE(same(load_, kUntouched));
    read("cpu 125 0 0 175 0 0 0 0 0 0\n");
    EXPECT_TRUE(same(load_, {25.0F, 0, 0, 75.0F, 0, 0, 0}));
}

TEST_F(CpuUsageTest, AFileThatCannotBeOpenedIsNamedFromVerbosity5On) {
    world().textFiles.clear();
    verbose = 4;
    get_CPU_Usage(&load_);
    EXPECT_EQ(world().consoleText(), "");
    verbose = 5;
    get_CPU_Usage(&load_);
    EXPECT_EQ(world().consoleText(), "/proc/stat - error opening!\n");
}

TEST_F(CpuUsageTest, SharesAreTracedFromVerbosity5On) {
    verbose = 4;
    read("cpu 1 2 4 8 16 32 37 0 0 0\n");
    EXPECT_EQ(world().consoleText(), "");
    verbose = 5;
    read("cpu 2 4 8 16 32 64 74 0 0 0\n");
    EXPECT_EQ(world().consoleText(), "sys.sysinfo.cpuload.user    = 1\n"
                                     "sys.sysinfo.cpuload.nice    = 2\n"
                                     "sys.sysinfo.cpuload.sys     = 4\n"
                                     "sys.sysinfo.cpuload.idle    = 8\n"
                                     "sys.sysinfo.cpuload.iowait  = 16\n"
                                     "sys.sysinfo.cpuload.irq     = 32\n"
                                     "sys.sysinfo.cpuload.softirq = 37\n");
}

TEST_F(CpuUsageTest, FiguresAreTracedFromVerbosity6On) {
    verbose = 6;
    read("cpu 11 22\n");
    EXPECT_EQ(world().consoleText(), " ? cpu[0]: 11\n ? cpu[1]: 22\n");
    world().forgetRecords();
    verbose = 5;
    read("cpu 11 22\n");
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(CpuUsageTest, DoesNotDisturbWhatIsPublished) {
    world().textFiles["/proc/stat"] = "cpu 100 0 0 100 0 0 0 0 0 0\n";
    AppStatusUpdate status;
    read("cpu 9000 0 0 0 0 0 0 0 0 0\n");
    systeminfo_struct info = {};
    world().textFiles["/proc/stat"] = "cpu 125 0 0 175 0 0 0 0 0 0\n";
    status.parseProcStat(info);
    EXPECT_EQ(info.cpuload_user, 25.0F);
    EXPECT_EQ(info.cpuload_idle, 75.0F);
}

TEST_F(CpuUsageTest, IsNotDisturbedByWhatIsPublished) {
    AppStatusUpdate status;
    read("cpu 100 0 0 100 0 0 0 0 0 0\n");
    systeminfo_struct info = {};
    world().textFiles["/proc/stat"] = "cpu 7 7 7 7 7 7 7 7 7 7\n";
    status.parseProcStat(info);
    read("cpu 125 0 0 175 0 0 0 0 0 0\n");
    EXPECT_TRUE(same(load_, {25.0F, 0, 0, 75.0F, 0, 0, 0}));
}

/// 0 when the first call of this process measures since boot.
int firstCallOfAProcess() {
    world().textFiles["/proc/stat"] = "cpu 300 0 0 100 0 0 0 0 0 0\n";
    cpuload_struct load = kUntouched;
    const int result = get_CPU_Usage(&load);
    return result == 0 && same(load, {75.0F, 0, 0, 25.0F, 0, 0, 0}) ? 0 : 1;
}

TEST(CpuUsageDeathTest, TheFirstCallMeasuresSinceBoot) {
    testing::FLAGS_gtest_death_test_style = "threadsafe"; // a process of its own
    EXPECT_EXIT(::_exit(firstCallOfAProcess()), testing::ExitedWithCode(0), "");
}

} // namespace
