// What the tests of the statistics share.

#ifndef OVARD_TESTS_STATUS_SUPPORT_H
#define OVARD_TESTS_STATUS_SUPPORT_H

#include <cstdint>
#include <cstring>
#include <string_view>

#include "records/systeminfo.h"

namespace statustest {

/// A record whose every byte differs from what a parser would leave there.
inline systeminfo_struct filledInfo() {
    systeminfo_struct info;
    std::memset(&info, 0x5A, sizeof info);
    return info;
}

/// The record as it lies in memory; views it.
inline std::string_view imageOf(const systeminfo_struct& info) {
    return {reinterpret_cast<const char*>(&info), sizeof info};
}

inline bool sameBytes(const systeminfo_struct& left, const systeminfo_struct& right) {
    return imageOf(left) == imageOf(right);
}

/// The shares of processor time as they lie in memory.
inline std::string_view sharesOf(const systeminfo_struct& info) {
    return imageOf(info).substr(64, 28);
}

/// The value of a parser that has cleared these bits of its result.
inline int maskWithout(std::uint32_t bits) {
    return static_cast<int>(0xFFFFFFFFU & ~bits);
}

} // namespace statustest

#endif // OVARD_TESTS_STATUS_SUPPORT_H
