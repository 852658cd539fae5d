// Shares of processor time, from the "cpu" line of /proc/stat.

#ifndef OVARD_STATUS_CPU_TIMES_H
#define OVARD_STATUS_CPU_TIMES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace status {

/// Figures of a "cpu" line, in its order: user, nice, system, idle, iowait, irq, softirq, steal,
/// guest, guest_nice; clock ticks since boot.
inline constexpr std::size_t kCpuFigures = 10;
using CpuTicks = std::array<std::int32_t, kCpuFigures>;

/// The last two samples of one reader of /proc/stat.
struct CpuSamples {
    CpuTicks previous = {};
    CpuTicks current = {};

    /// To be called before a new reading.
    void advance() { previous = current; }
};

/// Percent of the time between two samples.
struct CpuShares {
    float user;
    float nice;
    float sys;
    float idle;
    float iowait;
    float irq;
    float softirq;
};

/// True for a line of /proc/stat whose figures count, by its first word.
/// Deliberate: the second processor's line and those after it count too, and overwrite the figures.
bool isCpuLine(std::string_view firstWord);

/// Takes the figures of such a line into `ticks`. Returns a mask of the figures taken, bit k for
/// figure k. Each is traced at verbosity 6 and above.
std::uint32_t takeCpuFigures(std::string_view line, CpuTicks& ticks);

/// The shares between the samples; a figure that fell counts as 0. Traced at verbosity 5 and above.
CpuShares cpuShares(const CpuSamples& samples);

/// Mask of all figures, and of those that are published.
inline constexpr std::uint32_t kAllCpuFigures = (1U << kCpuFigures) - 1;
inline constexpr std::uint32_t kPublishedCpuFigures = (1U << 7) - 1;

} // namespace status

#endif // OVARD_STATUS_CPU_TIMES_H
