// The machine's own figures, as /proc and the interfaces have them.

#ifndef OVARD_TESTS_TARGET_FIGURES_H
#define OVARD_TESTS_TARGET_FIGURES_H

#include <cstdint>
#include <string>
#include <vector>

namespace target {

/// The words of the first line of a file that begins with `key`, which is one of them; empty when
/// there is none.
std::vector<std::string> wordsBehind(const std::string& path, const std::string& key);

/// A number among those words; -1 when there is none.
std::int64_t numberBehind(const std::string& path, const std::string& key, std::size_t index = 0);

/// The IPv4 address of an interface; empty when it has none.
std::string addressOf(const std::string& interface);

/// What only grows, at one moment.
struct Counters {
    double uptimeSec = 0;
    std::int64_t contextSwitches = 0;
    std::int64_t interrupts = 0;
    std::vector<std::int64_t> eth0; ///< columns of /proc/net/dev
    std::vector<std::int64_t> eth1;
};
Counters countersNow();

} // namespace target

#endif // OVARD_TESTS_TARGET_FIGURES_H
