#include "tests/unit/hostile/RandomRequests.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <string_view>

#include "records/codes.h"

namespace hostile {
namespace {

constexpr std::array<std::int32_t, 9> kExtremes = {INT_MIN, INT_MIN + 1, -20,     -1,     0,
                                                   1,       65536,       INT_MAX, 1 << 30};

template <std::size_t Size> void put(char (&field)[Size], std::string_view text) {
    std::memset(field, 0, Size);
    text.copy(field, Size);
}

/// A text of a length around that of the field, without NUL when it is as long as that.
template <std::size_t Size> void putBoundaryText(char (&field)[Size], Random& random) {
    constexpr std::array<std::size_t, 6> kLengths = {0, 1, Size / 2, Size - 2, Size - 1, Size};
    const std::size_t length = kLengths[random.below(kLengths.size())];
    const char letter = "x%/ \t\x7F\xFFn"[random.below(8)];
    std::memset(field, 0, Size);
    std::memset(field, letter, length);
}

/// Noise in which a NUL is rare.
template <std::size_t Size> void putNoise(char (&field)[Size], Random& random) {
    random.fill(field, Size);
    if (random.onceIn(2)) {
        std::replace(std::begin(field), std::end(field), '\0', 'z');
    }
}

std::int32_t randomInteger(Random& random, std::size_t choices) {
    switch (random.below(4)) {
    case 0:
        return static_cast<std::int32_t>(random.next());
    case 1:
        return kExtremes[random.below(kExtremes.size())];
    default:
        return static_cast<std::int32_t>(random.below(choices));
    }
}

std::int32_t randomAction(Random& random, Trend trend) {
    constexpr std::array<std::int32_t, 7> kShrinking = {
        APPMONCTL_Stop,           APPMONCTL_Stop,         APPMONCTL_Stop,
        APPMONCTL_Stop_All,       APPMONCTL_Stop_All_But, APPMONCTL_Stop_PortApps,
        APPMONCTL_Restart_All_But};
    if (random.onceIn(16)) {
        return kExtremes[random.below(kExtremes.size())];
    }
    if (trend == Trend::Grow && !random.onceIn(4)) {
        return APPMONCTL_Start;
    }
    if (trend == Trend::Shrink && !random.onceIn(4)) {
        return kShrinking[random.below(kShrinking.size())];
    }
    const auto action = static_cast<std::int32_t>(random.below(12));
    const bool emptiesRegistry = action >= APPMONCTL_Stop_All && action <= APPMONCTL_Stop_PortApps;
    if (emptiesRegistry && trend != Trend::Shrink && !random.onceIn(8)) {
        return APPMONCTL_Stop; // else there would hardly ever be an application
    }
    return action;
}

void putFigures(reqcmd& request, Random& random, Trend trend) {
    request.action = randomAction(random, trend);
    request.porttype = randomInteger(random, 3);
    request.portnum = randomInteger(random, 100);
    request.priority = randomInteger(random, 20);
    request.delay = randomInteger(random, 10);
    request.restart_type = randomInteger(random, 2);
    request.last_runtime_life_limit = randomInteger(random, 3600);
    const std::uint64_t bytes = random.next();
    request.keepalive = static_cast<std::uint8_t>(bytes);
    request.heartbeat = static_cast<std::uint8_t>(bytes >> 8);
    request.reserved = static_cast<std::uint8_t>(bytes >> 16);
    request.nowait = random.onceIn(3) ? static_cast<std::uint8_t>(bytes >> 24) : std::uint8_t{0};
}

void putTexts(reqcmd& request, Random& random) {
    const std::size_t index = random.below(kSharedNames);
    if (random.onceIn(6)) {
        putNoise(request.name, random);
    } else {
        put(request.name, sharedName(index));
    }
    putNoise(request.version, random);
    switch (random.below(8)) {
    case 0:
        putNoise(request.cmd, random);
        break;
    case 1:
        put(request.cmd, "");
        break;
    case 2:
        put(request.cmd, " \t\v\f ");
        break;
    default:
        put(request.cmd, sharedCommand(index));
    }
    if (random.onceIn(4)) {
        putNoise(request.pidfile, random);
    } else {
        put(request.pidfile, random.onceIn(2) ? "" : "/tmp/pid/app");
    }
}

} // namespace

std::uint64_t Random::next() {
    state_ += 0x9E3779B97F4A7C15U;
    std::uint64_t mixed = state_;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9U;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBU;
    return mixed ^ (mixed >> 31);
}

void Random::fill(void* bytes, std::size_t size) {
    auto* const begin = static_cast<unsigned char*>(bytes);
    for (std::size_t done = 0; done < size; done += sizeof(std::uint64_t)) {
        const std::uint64_t word = next();
        std::memcpy(begin + done, &word, std::min(sizeof word, size - done));
    }
}

std::string sharedName(std::size_t index) {
    constexpr std::array<const char*, 5> kNames = {"security_server", "data_server", "modbus", "",
                                                   "name with blanks"};
    return index < kNames.size() ? kNames[index] : "app" + std::to_string(index);
}

std::string sharedCommand(std::size_t index) {
    return "/home/kelvo/root/app" + std::to_string(index) + " -d";
}

reqcmd randomRequest(Random& random, Trend trend) {
    reqcmd request;
    random.fill(&request, sizeof request);
    const std::size_t kind = random.below(8);
    if (kind < 2) {
        return request; // pure noise
    }
    putFigures(request, random, trend);
    if (kind < 6) {
        putTexts(request, random);
        return request;
    }
    putBoundaryText(request.name, random);
    putBoundaryText(request.version, random);
    putBoundaryText(request.cmd, random);
    putBoundaryText(request.pidfile, random);
    return request;
}

} // namespace hostile
