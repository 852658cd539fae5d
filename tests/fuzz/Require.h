// What must hold for every input. A fuzz target that finds it broken aborts: the fuzzer then keeps
// the input.

#ifndef OVARD_TESTS_FUZZ_REQUIRE_H
#define OVARD_TESTS_FUZZ_REQUIRE_H

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace fuzz {

/// Aborts, naming `rule`, unless it `holds`.
inline void require(bool holds, const char* rule) {
    if (!holds) {
        std::fprintf(stderr, "broken: %s\n", rule);
        std::abort();
    }
}

/// The text of a field ends within the field.
template <std::size_t Size> bool isTerminated(const char (&field)[Size]) {
    return std::memchr(field, '\0', Size) != nullptr;
}

/// Each of the texts does.
template <std::size_t... Sizes> bool areTerminated(const char (&... fields)[Sizes]) {
    return (isTerminated(fields) && ...);
}

/// Nothing in the text that a terminal would obey.
inline bool isPrintable(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); });
}

} // namespace fuzz

#endif // OVARD_TESTS_FUZZ_REQUIRE_H
