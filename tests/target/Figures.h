// The machine's own figures, as /proc and the interfaces have them.

#ifndef OVARD_TESTS_TARGET_FIGURES_H
#define OVARD_TESTS_TARGET_FIGURES_H

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace target {

/// The address of an interface; empty when it has none. Of IPv6 addresses one that is known beyond
/// the link, where there is such a one.
std::string addressOf(const std::string& interface);
std::string address6Of(const std::string& interface);

/// What the machine says at one moment.
struct Figures {
    double uptimeSec = 0;
    double idleSec = 0;
    std::array<double, 3> loadAverages{};         ///< over 1, 5 and 15 minutes
    std::vector<std::int64_t> cpuTicks;           ///< columns of the line "cpu" of /proc/stat
    std::int64_t bootTimeSec = -1;                ///< since the epoch
    std::int64_t contextSwitches = -1;            ///< since boot
    std::int64_t interrupts = -1;                 ///< since boot
    std::map<std::string, std::int64_t> memoryKb; ///< /proc/meminfo by its keys, without the colons
    std::vector<std::int64_t> eth0;               ///< columns of /proc/net/dev
    std::vector<std::int64_t> eth1;
};
Figures figuresNow();

} // namespace target

#endif // OVARD_TESTS_TARGET_FIGURES_H
