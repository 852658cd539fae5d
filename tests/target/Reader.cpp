#include "tests/target/Reader.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "client/InstrumentTime.h"
#include "client/OvardClient.h"
#include "platform/ovard_application.h"
#include "tests/system/Processes.h"
#include "tests/system/Support.h"
#include "tests/target/Activity.h"
#include "tests/target/Cycle.h"
#include "tests/target/Figures.h"

namespace target {
namespace {

using ovard_client::SegmentOutcome;
using ovard_client::SegmentResult;

constexpr int kPriorityOfMonitor = -10;

/// How long the machine may have to work until its load averages differ.
constexpr int kUntilTheyDifferMs = 60000;

std::string text(const char* field, std::size_t size) {
    return {field, ::strnlen(field, size)};
}

/// What nobody writes stays as it was made.
template <typename Field> void expectZero(const Field& field, const std::string& what) {
    const auto* const bytes = reinterpret_cast<const char*>(&field);
    EXPECT_TRUE(std::all_of(bytes, bytes + sizeof field, [](char byte) { return byte == 0; }))
        << what;
}

/// A published figure lies between what it was before and what it was afterwards.
template <typename Number>
void expectBetween(Number before, Number published, Number after, const std::string& what) {
    EXPECT_GE(published, before) << what;
    EXPECT_LE(published, after) << what;
}

void expectTextsAgree(const meterinfo_struct& meter) {
    utsname kernel{};
    ASSERT_EQ(::uname(&kernel), 0);
    EXPECT_EQ(text(meter.kernel_release, sizeof meter.kernel_release), kernel.release);
    EXPECT_EQ(text(meter.kernel_version, sizeof meter.kernel_version),
              std::string(kernel.version).substr(0, sizeof meter.kernel_version - 1));
    EXPECT_EQ(text(meter.ipv4_eth0, sizeof meter.ipv4_eth0), addressOf("eth0"));
    EXPECT_EQ(text(meter.ipv4_eth1, sizeof meter.ipv4_eth1), addressOf("eth1"));
    EXPECT_EQ(text(meter.ipv6_eth0, sizeof meter.ipv6_eth0), address6Of("eth0"));
    EXPECT_EQ(text(meter.ipv6_eth1, sizeof meter.ipv6_eth1), address6Of("eth1"));
    for (const char* interface : {"eth0", "eth1"}) {
        EXPECT_NE(addressOf(interface), "") << interface;
        EXPECT_NE(address6Of(interface), "") << interface;
    }
}

/// The uptime itself tells which cycle it is, see awaitCycleAfter.
void expectTimesAgree(const Cycle& cycle) {
    constexpr double kRoundingPercent = 0.001;
    const systeminfo_struct& info = cycle.system.sysinfo;
    EXPECT_EQ(ovard_client::toMilliseconds(info.boot_time), cycle.after.bootTimeSec * 1000);
    const double uptimeSec = static_cast<double>(info.runtime_uptime) * 3600;
    expectBetween(cycle.before.idleSec * 100 / uptimeSec - kRoundingPercent,
                  static_cast<double>(info.runtime_idletime),
                  cycle.after.idleSec * 100 / uptimeSec + kRoundingPercent, "idle time");
}

/// One that is published in the place of another will be seen, also after the kernel has reckoned
/// them once more.
bool loadAveragesDiffer() {
    const std::array<double, 3> averages = figuresNow().loadAverages;
    return averages[0] > 2 * averages[1] && averages[1] > 2 * averages[2] && averages[2] > 0;
}

/// The kernel reckons them anew every five seconds, so at most once within a cycle.
void expectLoadAveragesAgree(const Cycle& cycle) {
    const systeminfo_struct& info = cycle.system.sysinfo;
    const std::array<float, 3> published = {info.loadavg_1min, info.loadavg_5min,
                                            info.loadavg_15min};
    const auto isPublished = [&](const Figures& figures) {
        return std::equal(published.begin(), published.end(), figures.loadAverages.begin(),
                          [](float one, double other) { return one == static_cast<float>(other); });
    };
    EXPECT_TRUE(isPublished(cycle.before) || isPublished(cycle.after))
        << testing::PrintToString(published) << " but "
        << testing::PrintToString(cycle.before.loadAverages) << " or "
        << testing::PrintToString(cycle.after.loadAverages);
}

/// Least and most ticks that a column of "cpu" can have grown by, from cycle to cycle.
struct Growth {
    std::int64_t least;
    std::int64_t most;
};

/// Those of user, nice, system, idle, iowait, irq, softirq and steal, which make up the whole.
std::vector<Growth> growthOfTicks(const Cycle& former, const Cycle& cycle) {
    constexpr std::size_t kColumns = 8;
    std::vector<Growth> growth;
    for (std::size_t column = 0; column < kColumns; ++column) {
        const auto ticks = [&](const Figures& figures) { return figures.cpuTicks.at(column); };
        growth.push_back({std::max<std::int64_t>(0, ticks(cycle.before) - ticks(former.after)),
                          std::max<std::int64_t>(0, ticks(cycle.after) - ticks(former.before))});
    }
    return growth;
}

/// The shares are those of the time between two cycles. A machine without a disk waits for none,
/// and a kernel that looks at its ticks sees no interrupt but those: both shares are zero here.
void expectSharesAgree(const Cycle& former, const Cycle& cycle) {
    constexpr double kRoundingPercent = 0.001;
    const systeminfo_struct& info = cycle.system.sysinfo;
    const float shares[] = {info.cpuload_user,   info.cpuload_nice,   info.cpuload_sys,
                            info.cpuload_idle,   info.cpuload_iowait, info.cpuload_irq,
                            info.cpuload_softirq};
    const std::vector<Growth> growth = growthOfTicks(former, cycle);
    Growth whole{};
    for (const Growth& one : growth) {
        whole = {whole.least + one.least, whole.most + one.most};
    }
    for (std::size_t column = 0; column < std::size(shares); ++column) {
        const auto least = static_cast<double>(growth[column].least);
        const auto most = static_cast<double>(growth[column].most);
        const auto leastRest = static_cast<double>(whole.least - growth[column].least);
        const auto mostRest = static_cast<double>(whole.most - growth[column].most);
        expectBetween(least * 100 / (least + mostRest) - kRoundingPercent,
                      static_cast<double>(shares[column]),
                      most * 100 / (most + leastRest) + kRoundingPercent,
                      "share " + std::to_string(column));
    }
}

/// Memory is taken and given back all the time, so it may have been a little more or less between
/// both readings.
void expectMemoryAgrees(const Cycle& cycle) {
    constexpr std::int64_t kSlackKb = 512;
    const systeminfo_struct& info = cycle.system.sysinfo;
    EXPECT_EQ(info.memload_total, cycle.after.memoryKb.at("MemTotal"));
    EXPECT_EQ(info.memload_used, info.memload_total - info.memload_free);
    const std::pair<const char*, std::int64_t> fields[] = {
        {"MemFree", info.memload_free},      {"Buffers", info.memload_buffers},
        {"Cached", info.memload_cached},     {"Active", info.memload_active},
        {"Inactive", info.memload_inactive}, {"Shmem", info.memload_shared}};
    for (const auto& [key, published] : fields) {
        const auto [least, most] =
            std::minmax(cycle.before.memoryKb.at(key), cycle.after.memoryKb.at(key));
        expectBetween(least - kSlackKb, published, most + kSlackKb, key);
    }
}

/// The counters of an interface. Nothing goes wrong on these networks, so those of errors are zero
/// on both sides, and one in the place of another would not be seen.
void expectCountersAgree(const std::vector<std::int64_t>& before, const netstatus_struct& published,
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
    expectZero(published.rx_reserved, interface);
    expectZero(published.tx_reserved, interface);
}

/// The growth of a counter of bytes and its rate, in kilobytes of a second where a cycle is taken
/// for five seconds, whatever it took.
void expectRateAgrees(std::int64_t former, std::int64_t bytes, float rate, std::int64_t traffic,
                      const std::string& what) {
    constexpr std::int64_t kChatter = 2000; // what a network talks of itself meanwhile
    const std::int64_t growth = bytes - former;
    expectBetween(traffic, growth, traffic + kChatter, what);
    EXPECT_FLOAT_EQ(rate, static_cast<float>(static_cast<double>(growth) / 5 / 1024)) << what;
}

void expectRatesAgree(const netstatus_struct& former, const netstatus_struct& published,
                      const Traffic& traffic, const std::string& interface) {
    expectRateAgrees(former.rx_byte, published.rx_byte, published.rx_datarate, traffic.received,
                     interface + " received");
    expectRateAgrees(former.tx_byte, published.tx_byte, published.tx_datarate, traffic.sent,
                     interface + " sent");
}

void expectReservedIsZero(const system_segment& segment) {
    expectZero(segment.reserved0, "reserved0");
    expectZero(segment.reserved1, "reserved1");
    expectZero(segment.sysinfo.reserved0, "sysinfo.reserved0");
    expectZero(segment.sysinfo.reserved1, "sysinfo.reserved1");
    expectZero(segment.sysinfo.reserved2, "sysinfo.reserved2");
}

/// The value of an entry of the version record, "VER_KEY=VALUE\n", in a program.
std::string versionEntryOf(pid_t program, const std::string& key) {
    const std::string bytes = systemtest::readFile("/proc/" + std::to_string(program) + "/exe");
    const std::string begin = "VER_" + key + "=";
    EXPECT_EQ(systemtest::countOf(bytes, begin), 1U);
    const std::size_t at = bytes.find(begin);
    return at == std::string::npos
               ? ""
               : bytes.substr(at + begin.size(), bytes.find('\n', at) - at - begin.size());
}

/// The health words are those of a monitor that was started and has supervised since, where no
/// other program has set its own.
void expectHeaderAgrees(const application_header& header, std::size_t applications, pid_t monitor) {
    constexpr std::uint32_t kHealthOfTheStart = 0x11000;
    EXPECT_EQ(header.count, static_cast<std::int32_t>(applications));
    EXPECT_EQ(header.maximum, 127);
    EXPECT_EQ(text(header.file_version, sizeof header.file_version),
              versionEntryOf(monitor, "FileVersion").substr(0, sizeof header.file_version - 1));
    EXPECT_EQ(text(header.file_date, sizeof header.file_date),
              versionEntryOf(monitor, "FileDate").substr(0, sizeof header.file_date - 1));
    EXPECT_EQ(header.iec61850_health, kHealthOfTheStart);
    EXPECT_EQ(header.sys_health, 0);
    expectZero(header.reserved0, "header.reserved0");
    expectZero(header.reserved1, "header.reserved1");
}

std::string portTypeOf(const reqcmd& request) {
    switch (request.porttype) {
    case 1:
        return "COM";
    case 2:
        return "Eth";
    default:
        return "None";
    }
}

/// The start is reckoned from the boot, which the monitor knows to a second. The uptime is that of
/// the pass before the publication.
void expectTimesOfProcessAgree(const application_record& record, std::int64_t publishedMs) {
    constexpr std::int64_t kTicksPerSec = 100;
    constexpr std::int64_t kPassSec = 1;
    const auto startTicks =
        static_cast<std::int64_t>(systemtest::processFacts(record.pid).startTicks);
    const std::int64_t startSec = figuresNow().bootTimeSec + startTicks / kTicksPerSec;
    const std::int64_t publishedStartMs = ovard_client::toMilliseconds(record.start_time);
    EXPECT_EQ(publishedStartMs % 1000, 0) << record.name;
    expectBetween(startSec - 1, publishedStartMs / 1000, startSec, "start of the process");
    const std::int64_t ageSec = (publishedMs - publishedStartMs) / 1000;
    expectBetween(ageSec - kPassSec, std::int64_t{record.uptime}, ageSec, "its uptime");
}

void expectProcessAgrees(const application_record& record, const reqcmd& request) {
    const systemtest::ProcessFacts facts = systemtest::processFacts(record.pid);
    const std::string name = request.name;
    EXPECT_EQ(facts.pid, record.pid) << name;
    EXPECT_EQ(facts.name, name);
    // Without a priority of its own it has the monitor's.
    EXPECT_EQ(facts.nice, request.priority != 0 ? request.priority : kPriorityOfMonitor) << name;
    EXPECT_EQ(systemtest::commandLineOf(record.pid), request.cmd);
    EXPECT_EQ(systemtest::readFile(request.pidfile),
              std::to_string(record.pid) + "\n" + request.version + "\n");
    EXPECT_EQ(heartbeat_check(record.pid, 10), 1) << name << " has no fresh heartbeat";
}

void expectRecordAgrees(const application_record& record, const reqcmd& request,
                        std::int64_t publishedMs) {
    EXPECT_EQ(text(record.name, sizeof record.name), request.name);
    EXPECT_EQ(text(record.version, sizeof record.version), request.version);
    EXPECT_EQ(text(record.status, sizeof record.status), "started");
    EXPECT_EQ(record.nice, request.priority);
    EXPECT_EQ(record.restart_type, request.restart_type);
    EXPECT_EQ(record.last_runtime_life_limit, request.last_runtime_life_limit);
    EXPECT_EQ(text(record.port_type, sizeof record.port_type), portTypeOf(request));
    EXPECT_EQ(record.port_num, request.portnum);
    expectTimesOfProcessAgree(record, publishedMs);
    expectProcessAgrees(record, request);
}

} // namespace

void expectMachineAgrees() {
    const Load load;
    const PageCache cache;
    ASSERT_TRUE(systemtest::eventually(loadAveragesDiffer, kUntilTheyDifferMs));
    Cycle former;
    ASSERT_NO_FATAL_FAILURE(awaitCycleAfter(awaitPublication(), former));
    const Traffic onEth0 = talkTo("10.0.2.2", 10, 30);
    const Traffic onEth1 = talkTo("10.0.3.2", 20, 50);
    Cycle cycle;
    ASSERT_NO_FATAL_FAILURE(awaitCycleAfter(former.publishedMs, cycle));
    const systeminfo_struct& before = former.system.sysinfo;
    const systeminfo_struct& info = cycle.system.sysinfo;
    expectTextsAgree(cycle.system.meter);
    expectTimesAgree(cycle);
    expectLoadAveragesAgree(cycle);
    expectBetween(cycle.before.contextSwitches, info.context_switches, cycle.after.contextSwitches,
                  "ctxt");
    expectBetween(cycle.before.interrupts, info.interrupts, cycle.after.interrupts, "intr");
    expectSharesAgree(former, cycle);
    expectMemoryAgrees(cycle);
    expectCountersAgree(cycle.before.eth0, info.netstatus_eth0, cycle.after.eth0, "eth0");
    expectCountersAgree(cycle.before.eth1, info.netstatus_eth1, cycle.after.eth1, "eth1");
    expectRatesAgree(before.netstatus_eth0, info.netstatus_eth0, onEth0, "eth0");
    expectRatesAgree(before.netstatus_eth1, info.netstatus_eth1, onEth1, "eth1");
    expectReservedIsZero(cycle.system);
}

void expectApplicationsAgree(const std::vector<reqcmd>& requests, pid_t monitor) {
    application_segment segment{};
    const SegmentOutcome outcome = ovard_client::readApplicationSegment(&segment);
    ASSERT_EQ(outcome.result, SegmentResult::Ok);
    ASSERT_EQ(segment.header.count, static_cast<std::int32_t>(requests.size()));
    expectHeaderAgrees(segment.header, requests.size(), monitor);
    for (std::size_t index = 0; index < requests.size(); ++index) {
        expectRecordAgrees(segment.applications[index], requests[index], outcome.modifiedMs);
    }
    for (std::size_t index = requests.size(); index < std::size(segment.applications); ++index) {
        expectZero(segment.applications[index], "record " + std::to_string(index + 1));
    }
}

} // namespace target
