// Random requests: of pure noise, of valid actions with noisy texts, and of texts that just fit
// their fields or just do not.

#ifndef OVARD_TESTS_UNIT_HOSTILE_RANDOM_REQUESTS_H
#define OVARD_TESTS_UNIT_HOSTILE_RANDOM_REQUESTS_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "records/reqcmd.h"

namespace hostile {

/// A fast sequence of random numbers, the same on every machine.
class Random {
public:
    explicit Random(std::uint64_t seed)
        : state_(seed) {}

    std::uint64_t next();

    /// 0 to `limit` - 1; `limit` is positive.
    std::size_t below(std::size_t limit) { return static_cast<std::size_t>(next() % limit); }

    /// True once in `times` calls on average.
    bool onceIn(std::size_t times) { return below(times) == 0; }

    void fill(void* bytes, std::size_t size);

private:
    std::uint64_t state_;
};

/// Names and commands that requests and processes share, so that they meet.
inline constexpr std::size_t kSharedNames = 12;
std::string sharedName(std::size_t index);
std::string sharedCommand(std::size_t index);

/// What the requests of a stretch mostly do to the registry.
enum class Trend { Grow, Shrink, Mix };

reqcmd randomRequest(Random& random, Trend trend);

} // namespace hostile

#endif // OVARD_TESTS_UNIT_HOSTILE_RANDOM_REQUESTS_H
