#include "tests/target/Cycle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "client/OvardClient.h"
#include "tests/system/Support.h"

namespace target {
namespace {

using ovard_client::SegmentOutcome;
using ovard_client::SegmentResult;

constexpr int kCycleMs = 15000;

/// What a cycle may take from its first figure to the end of its publication: it rests for a
/// millisecond at each application.
constexpr double kPublicationSec = 1;

/// The uptime at which the monitor read its figures. That of the kernel has two decimals, and the
/// published one more digits than that for months.
double publishedUptimeSec(const system_segment& segment) {
    return static_cast<double>(segment.sysinfo.runtime_uptime) * 3600;
}

} // namespace

std::int64_t lastPublicationMs() {
    system_segment segment{};
    return ovard_client::readSystemSegment(&segment).modifiedMs;
}

std::int64_t awaitPublication() {
    const std::int64_t former = lastPublicationMs();
    EXPECT_TRUE(systemtest::eventually([&] { return lastPublicationMs() != former; }, kCycleMs));
    return lastPublicationMs();
}

void awaitCycleAfter(std::int64_t publishedMs, Cycle& cycle) {
    constexpr double kRoundingSec = 0.001;
    std::vector<Figures> readings;
    ASSERT_TRUE(systemtest::eventually(
        [&] {
            readings.push_back(figuresNow());
            const SegmentOutcome outcome = ovard_client::readSystemSegment(&cycle.system);
            cycle.publishedMs = outcome.modifiedMs;
            return outcome.result == SegmentResult::Ok && outcome.modifiedMs != publishedMs;
        },
        kCycleMs));
    cycle.after = figuresNow();
    const double uptimeSec = publishedUptimeSec(cycle.system);
    const auto before = std::find_if(readings.rbegin(), readings.rend(), [&](const Figures& one) {
        return one.uptimeSec < uptimeSec - kRoundingSec;
    });
    ASSERT_NE(before, readings.rend()) << "the uptime of an earlier cycle: " << uptimeSec;
    cycle.before = *before;
    ASSERT_LE(uptimeSec, cycle.after.uptimeSec + kRoundingSec);
    ASSERT_GE(uptimeSec, cycle.after.uptimeSec - kPublicationSec);
}

} // namespace target
