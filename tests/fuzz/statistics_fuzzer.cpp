// The kernel's statistics: the input as the text of each file, read twice, the first half of it
// before the whole, so that counters rise and fall.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/Settings.h"
#include "status/CpuUsage.h"
#include "status/ProcParsers.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/fuzz/Require.h"
#include "tests/unit/status/StatusSupport.h"

using fakes::world;
using fuzz::require;
using statustest::filledInfo;
using statustest::imageOf;

namespace {

constexpr int kAllTraces = 9;

bool isPercent(float value) {
    return value >= 0.0F && value <= 100.0F;
}

/// The bytes that no parser ever writes still hold what filledInfo put there.
void examineReserved(const systeminfo_struct& info) {
    const systeminfo_struct untouched = filledInfo();
    const auto isSame = [&](std::size_t offset, std::size_t size) {
        return imageOf(info).substr(offset, size) == imageOf(untouched).substr(offset, size);
    };
    require(isSame(offsetof(systeminfo_struct, reserved0), sizeof info.reserved0) &&
                isSame(offsetof(systeminfo_struct, reserved1), sizeof info.reserved1) &&
                isSame(offsetof(systeminfo_struct, reserved2), sizeof info.reserved2),
            "reserved bytes are never written");
    for (const std::size_t eth : {offsetof(systeminfo_struct, netstatus_eth0),
                                  offsetof(systeminfo_struct, netstatus_eth1)}) {
        require(isSame(eth + offsetof(netstatus_struct, rx_reserved), sizeof(std::uint32_t)) &&
                    isSame(eth + offsetof(netstatus_struct, tx_reserved), sizeof(std::uint32_t)),
                "reserved words of an interface are never written");
    }
}

void readUptime(std::string_view text) {
    systeminfo_struct info = filledInfo();
    const bool found = status::readUptime(text, info) == 0;
    require(found || statustest::sameBytes(info, filledInfo()), "half an uptime changes nothing");
    examineReserved(info);
}

void readLoadAverages(std::string_view text) {
    systeminfo_struct info = filledInfo();
    const bool found = status::readLoadAverages(text, info) == 0;
    require(found || statustest::sameBytes(info, filledInfo()), "half a load changes nothing");
    examineReserved(info);
}

void readStat(std::string_view text) {
    systeminfo_struct info = filledInfo();
    status::CpuSamples samples;
    (void)status::readStat(text.substr(0, text.size() / 2), samples, info); // the first half
    samples.advance();
    const std::string sharesBefore(statustest::sharesOf(info));
    const int result = status::readStat(text, samples, info);
    require(result <= 0, "what is missing is told by a negative mask");
    const auto missing = static_cast<std::uint32_t>(result);
    if ((missing & status::kAllCpuFigures) == 0 || result == 0) {
        require(isPercent(info.cpuload_user) && isPercent(info.cpuload_nice) &&
                    isPercent(info.cpuload_sys) && isPercent(info.cpuload_idle) &&
                    isPercent(info.cpuload_iowait) && isPercent(info.cpuload_irq) &&
                    isPercent(info.cpuload_softirq),
                "shares are percentages");
    } else {
        require(statustest::sharesOf(info) == sharesBefore, "half a line changes no share");
    }
    examineReserved(info);
}

void readMemory(std::string_view text) {
    systeminfo_struct info = filledInfo();
    const int result = status::readMemory(text, info);
    require(result <= 0, "what is missing is told by a negative value");
    if (result == 0) {
        for (const char* key :
             {"MemTotal:", "MemFree:", "Buffers", "Cached:", "Active:", "Inactive:", "Shmem:"}) {
            require(text.find(key) != std::string_view::npos, "nothing is found that is not there");
        }
    }
    examineReserved(info);
}

void readNetwork(std::string_view text) {
    systeminfo_struct info = filledInfo();
    status::NetworkSamples samples;
    (void)status::readNetwork(text.substr(0, text.size() / 2), samples, info); // the first half
    const int result = status::readNetwork(text, samples, info);
    require(result <= 0, "what is missing is told by a negative value");
    if (result == 0) {
        require(std::isfinite(info.netstatus_eth0.rx_datarate) &&
                    std::isfinite(info.netstatus_eth1.tx_datarate),
                "rates are numbers");
        require(samples.eth0Previous.rx == info.netstatus_eth0.rx_byte &&
                    samples.eth1Previous.tx == info.netstatus_eth1.tx_byte,
                "the next rates start from these counters");
    }
    examineReserved(info);
}

void measureUsage(std::string_view text) {
    world().textFiles["/proc/stat"] = text;
    cpuload_struct load = {-1, -1, -1, -1, -1, -1, -1};
    const int result = get_CPU_Usage(&load);
    require(result <= 0, "what is missing is told by a negative mask");
    const bool isUntouched = load.user == -1.0F;
    require(isUntouched || (isPercent(load.user) && isPercent(load.sys) && isPercent(load.nice) &&
                            isPercent(load.idle) && isPercent(load.iowait) && isPercent(load.irq) &&
                            isPercent(load.softirq)),
            "shares are percentages");
    require(result == 0 || isUntouched, "half a line changes nothing");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    fakes::resetWorld();
    verbose = kAllTraces;
    readUptime(text);
    readLoadAverages(text);
    readStat(text);
    readMemory(text);
    readNetwork(text);
    measureUsage(text);
    return 0;
}
