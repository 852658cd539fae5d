#include "tests/target/Reader.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string>

#include "client/InstrumentTime.h"
#include "client/OvardClient.h"
#include "platform/ovard_application.h"
#include "tests/system/Processes.h"
#include "tests/system/Support.h"
#include "tests/target/Figures.h"

namespace target {
namespace {

using ovard_client::SegmentOutcome;
using ovard_client::SegmentResult;

constexpr int kCycleMs = 15000;
constexpr double kSlackSec = 3;
constexpr int kPriorityOfMonitor = -10;

/// What a field of kilobytes may differ from a reading of before or after.
constexpr double kSlackKb = 8192;

std::string text(const char* field, std::size_t size) {
    return {field, ::strnlen(field, size)};
}

/// Reads the system segment as soon as it has been written once more.
system_segment readAfterACycle() {
    system_segment segment{};
    const std::int64_t before = ovard_client::readSystemSegment(&segment).modifiedMs;
    EXPECT_TRUE(systemtest::eventually(
        [&] {
            const SegmentOutcome outcome = ovard_client::readSystemSegment(&segment);
            return outcome.result == SegmentResult::Ok && outcome.modifiedMs != before;
        },
        kCycleMs));
    return segment;
}

/// A published figure lies between what it was before and what it was afterwards.
template <typename Number>
void expectBetween(Number before, Number published, Number after, const std::string& what) {
    EXPECT_GE(published, before) << what;
    EXPECT_LE(published, after) << what;
}

void expectTextsAgree(const system_segment& segment) {
    utsname kernel{};
    ASSERT_EQ(::uname(&kernel), 0);
    const meterinfo_struct& meter = segment.meter;
    EXPECT_EQ(text(meter.kernel_release, sizeof meter.kernel_release), kernel.release);
    EXPECT_EQ(text(meter.kernel_version, sizeof meter.kernel_version),
              std::string(kernel.version).substr(0, sizeof meter.kernel_version - 1));
    EXPECT_EQ(text(meter.ipv4_eth0, sizeof meter.ipv4_eth0), addressOf("eth0"));
    EXPECT_EQ(text(meter.ipv4_eth1, sizeof meter.ipv4_eth1), addressOf("eth1"));
    EXPECT_NE(addressOf("eth0"), "");
    EXPECT_NE(addressOf("eth1"), "");
    const std::int64_t bootSec = numberBehind("/proc/stat", "btime");
    EXPECT_EQ(ovard_client::toMilliseconds(segment.sysinfo.boot_time), bootSec * 1000);
}

void expectNetworkAgrees(const std::vector<std::int64_t>& before, const netstatus_struct& published,
                         const std::vector<std::int64_t>& after, const std::string& interface) {
    ASSERT_EQ(before.size(), 16U) << interface;
    ASSERT_EQ(after.size(), 16U) << interface;
    const std::int64_t fields[] = {
        published.rx_byte,      published.rx_packet,    published.rx_totalerror,
        published.rx_droperror, published.rx_fifoerror, published.rx_frameerror,
        published.tx_byte,      published.tx_packet,    published.tx_totalerror,
        published.tx_droperror, published.tx_fifoerror, published.tx_collision};
    constexpr std::size_t kColumns[] = {0, 1, 2, 3, 4, 5, 8, 9, 10, 11, 12, 13};
    for (std::size_t index = 0; index < std::size(kColumns); ++index) {
        const std::size_t column = kColumns[index];
        expectBetween(before[column], fields[index], after[column],
                      interface + " " + std::to_string(column));
    }
}

void expectMemoryAgrees(const systeminfo_struct& info) {
    const auto figure = [](const char* key) {
        return static_cast<double>(numberBehind("/proc/meminfo", key));
    };
    EXPECT_EQ(info.memload_total, figure("MemTotal:"));
    EXPECT_EQ(info.memload_used, info.memload_total - info.memload_free);
    EXPECT_NEAR(info.memload_free, figure("MemFree:"), kSlackKb);
    EXPECT_NEAR(info.memload_buffers, figure("Buffers:"), kSlackKb);
    EXPECT_NEAR(info.memload_cached, figure("Cached:"), kSlackKb);
    EXPECT_NEAR(info.memload_active, figure("Active:"), kSlackKb);
    EXPECT_NEAR(info.memload_inactive, figure("Inactive:"), kSlackKb);
    EXPECT_NEAR(info.memload_shared, figure("Shmem:"), kSlackKb);
}

void expectSharesAreSound(const systeminfo_struct& info) {
    float sum = 0;
    for (const float share :
         {info.cpuload_user, info.cpuload_nice, info.cpuload_sys, info.cpuload_idle,
          info.cpuload_iowait, info.cpuload_irq, info.cpuload_softirq}) {
        EXPECT_GE(share, 0);
        sum += share;
    }
    EXPECT_NEAR(sum, 100, 0.1);
    EXPECT_GE(info.loadavg_1min, 0);
    EXPECT_LT(info.loadavg_1min, 100);
}

void expectProcessAgrees(const application_record& record, const reqcmd& request) {
    const systemtest::ProcessFacts facts = systemtest::processFacts(record.pid);
    const std::string name = request.name;
    EXPECT_EQ(facts.pid, record.pid) << name;
    EXPECT_EQ(facts.name, name);
    // Without a priority of its own it has the monitor's.
    EXPECT_EQ(facts.nice, request.priority != 0 ? request.priority : kPriorityOfMonitor) << name;
    EXPECT_EQ(systemtest::commandLineOf(record.pid), request.cmd);
    const double startedSec = static_cast<double>(numberBehind("/proc/stat", "btime")) +
                              static_cast<double>(facts.startTicks) / 100;
    const double publishedSec =
        static_cast<double>(ovard_client::toMilliseconds(record.start_time)) / 1000;
    EXPECT_NEAR(publishedSec, startedSec, kSlackSec) << name;
    // Of the cycle before; supervision and publication are five seconds apart at most.
    const double ageSec = static_cast<double>(std::time(nullptr)) - publishedSec;
    EXPECT_NEAR(record.uptime, ageSec, kSlackSec + 6) << name;
    EXPECT_EQ(systemtest::readFile(request.pidfile),
              std::to_string(record.pid) + "\n" + request.version + "\n");
    EXPECT_EQ(heartbeat_check(record.pid, 10), 1) << name << " has no fresh heartbeat";
}

void expectRecordAgrees(const application_record& record, const reqcmd& request) {
    EXPECT_EQ(text(record.name, sizeof record.name), request.name);
    EXPECT_EQ(text(record.version, sizeof record.version), request.version);
    EXPECT_EQ(text(record.status, sizeof record.status), "started");
    EXPECT_EQ(record.restart_type, request.restart_type);
    EXPECT_EQ(record.last_runtime_life_limit, request.last_runtime_life_limit);
    EXPECT_EQ(record.port_num, request.portnum);
    EXPECT_EQ(record.nice, request.priority);
    expectProcessAgrees(record, request);
}

} // namespace

void expectMachineAgrees() {
    const Counters before = countersNow();
    const system_segment segment = readAfterACycle();
    const Counters after = countersNow();
    const systeminfo_struct& info = segment.sysinfo;
    expectTextsAgree(segment);
    expectBetween(before.uptimeSec / 3600 - 1e-5, static_cast<double>(info.runtime_uptime),
                  after.uptimeSec / 3600 + 1e-5, "uptime");
    expectBetween(before.contextSwitches, info.context_switches, after.contextSwitches, "ctxt");
    expectBetween(before.interrupts, info.interrupts, after.interrupts, "intr");
    expectNetworkAgrees(before.eth0, info.netstatus_eth0, after.eth0, "eth0");
    expectNetworkAgrees(before.eth1, info.netstatus_eth1, after.eth1, "eth1");
    expectMemoryAgrees(info);
    expectSharesAreSound(info);
}

void expectApplicationsAgree(const std::vector<reqcmd>& requests) {
    application_segment segment{};
    ASSERT_EQ(ovard_client::readApplicationSegment(&segment).result, SegmentResult::Ok);
    ASSERT_EQ(segment.header.count, static_cast<std::int32_t>(requests.size()));
    EXPECT_EQ(segment.header.maximum, kMostPublishedApplications);
    for (std::size_t index = 0; index < requests.size(); ++index) {
        expectRecordAgrees(segment.applications[index], requests[index]);
    }
}

} // namespace target
