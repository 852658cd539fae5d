#include "status/CpuUsage.h"

#include <string>

#include "platform/Settings.h"
#include "platform/TextFile.h"
#include "platform/Trace.h"
#include "status/CpuTimes.h"
#include "status/TextScanner.h"

namespace {

constexpr const char* kStatPath = "/proc/stat";
constexpr int kNotOpened = -1;

/// Takes the figures of all lines that count; a mask of those found.
std::uint32_t takeFigures(std::string_view text, status::CpuTicks& ticks) {
    std::uint32_t found = 0;
    status::Lines lines(text);
    std::string_view line;
    while (lines.next(line)) {
        std::string_view key;
        (void)status::Words(line).next(key); // No line is empty.
        if (status::isCpuLine(key)) {
            found |= status::takeCpuFigures(line, ticks);
        }
    }
    return found;
}

} // namespace

int get_CPU_Usage(cpuload_struct* load) {
    static status::CpuSamples samples;
    std::string text;
    if (!platform::readTextFile(kStatPath, text)) {
        platform::trace(verbose >= 5, "%s - error opening!\n", kStatPath);
        return kNotOpened;
    }
    samples.advance();
    const std::uint32_t found = takeFigures(text, samples.current);
    if (found == status::kAllCpuFigures) {
        const status::CpuShares shares = status::cpuShares(samples);
        *load = {shares.user,   shares.sys, shares.nice,   shares.idle,
                 shares.iowait, shares.irq, shares.softirq};
    }
    const bool enough = (found & status::kPublishedCpuFigures) == status::kPublishedCpuFigures;
    return enough ? 0 : static_cast<int>(~found);
}
