#include "status/CpuTimes.h"

#include "platform/Settings.h"
#include "platform/Trace.h"
#include "status/TextScanner.h"

namespace status {
namespace {

/// Figures that make up the total: all but the guests', which are part of user and nice.
constexpr std::size_t kTotalFigures = 8;

} // namespace

bool isCpuLine(std::string_view firstWord) {
    return startsWith(firstWord, "cpu") && !startsWith(firstWord, "cpu0");
}

std::uint32_t takeCpuFigures(std::string_view line, CpuTicks& ticks) {
    Words words(line);
    std::string_view word;
    (void)words.next(word); // The label.
    std::uint32_t taken = 0;
    for (std::size_t index = 0; index < ticks.size() && words.next(word); ++index) {
        platform::trace(verbose >= 6, " ? cpu[%zu]: %.*s\n", index, static_cast<int>(word.size()),
                        word.data());
        ticks[index] = toInt32(word);
        taken |= 1U << index;
    }
    return taken;
}

CpuShares cpuShares(const CpuSamples& samples) {
    std::array<std::int64_t, kTotalFigures> spent = {};
    std::int64_t total = 0;
    for (std::size_t index = 0; index < spent.size(); ++index) {
        const std::int64_t difference =
            std::int64_t{samples.current[index]} - samples.previous[index];
        spent[index] = difference > 0 ? difference : 0;
        total += spent[index];
    }
    const double divisor = total != 0 ? static_cast<double>(total) : 1.0;
    const auto share = [&](std::size_t index) {
        return static_cast<float>(static_cast<double>(spent[index]) * 100.0 / divisor);
    };
    const CpuShares shares = {share(0), share(1), share(2), share(3), share(4), share(5), share(6)};
    platform::trace(verbose >= 5,
                    "sys.sysinfo.cpuload.user    = %g\n"
                    "sys.sysinfo.cpuload.nice    = %g\n"
                    "sys.sysinfo.cpuload.sys     = %g\n"
                    "sys.sysinfo.cpuload.idle    = %g\n"
                    "sys.sysinfo.cpuload.iowait  = %g\n"
                    "sys.sysinfo.cpuload.irq     = %g\n"
                    "sys.sysinfo.cpuload.softirq = %g\n",
                    static_cast<double>(shares.user), static_cast<double>(shares.nice),
                    static_cast<double>(shares.sys), static_cast<double>(shares.idle),
                    static_cast<double>(shares.iowait), static_cast<double>(shares.irq),
                    static_cast<double>(shares.softirq));
    return shares;
}

} // namespace status
