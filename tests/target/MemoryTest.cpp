// The memory of the monitor on the machine that it is made for.

#include <cstdio>

#include "tests/bench/MemoryUse.h"
#include "tests/system/Segments.h"
#include "tests/target/MachineTest.h"

namespace target {
namespace {

/// By the parameter: so many applications.
class Memory : public MachineTest, public testing::WithParamInterface<int> {};

TEST_P(Memory, OfAMonitorThatSupervises) {
    const int count = GetParam();
    const std::vector<reqcmd> requests = makeManyRequests(count);
    ASSERT_TRUE(writeRequests("/home/requests", requests));
    waitForUptime(kRestSec);
    ASSERT_TRUE(monitor_.startInBackground({"-x", "/home/requests"}));
    ASSERT_TRUE(areStarted(requests.size(), (count * 4 + 120) * 1000));
    systemtest::sleepMs(20000); // a few passes and cycles
    const bench::MemoryUse use = bench::totalOf(bench::readMemoryUse(monitor_.pid()));
    ASSERT_GT(use.pss, 0);
    std::printf("COST | %d | RSS %ld kB | PSS %ld kB |\n", count, use.rss, use.pss);
    // The files of this machine are in its memory, so that a fault maps all of the 64 KiB around
    // it.
    constexpr long kMostKb = 1400;
    EXPECT_LE(use.pss, kMostKb);
    EXPECT_EQ(monitor_.terminate().text(), "ended");
}

INSTANTIATE_TEST_SUITE_P(Applications, Memory, testing::Values(0, 20, 127));

} // namespace
} // namespace target
