// Reading of a fuzz input from front to back, so that its parts keep their meaning while it grows.
// The forms are those of a text: seeds can be written, and findings be read, in an editor.

#ifndef OVARD_TESTS_FUZZ_INPUT_H
#define OVARD_TESTS_FUZZ_INPUT_H

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace fuzz {

/// Views the bytes of one input. Everything reads as empty or zero at its end.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size)
        : rest_(reinterpret_cast<const char*>(data), size) {}

    bool atEnd() const { return rest_.empty(); }

    /// The next byte.
    char letter() { return take(1).empty() ? '\0' : last_; }

    /// A number in one byte: '0' is 0, ':' is 10, the bytes from 0xC0 on are the limits of 32 bits
    /// and other odd numbers, all other bytes are small numbers, down to -48.
    std::int32_t figure() {
        constexpr std::array<std::int32_t, 8> kOdd = {INT_MIN, INT_MIN + 1, INT_MAX, INT_MAX - 1,
                                                      -65536,  65536,       1 << 30, 100000};
        constexpr unsigned kFirstOdd = 0xC0;
        if (atEnd()) {
            return 0;
        }
        const auto byte = static_cast<unsigned char>(letter());
        return byte >= kFirstOdd ? kOdd[byte % kOdd.size()] : byte - '0';
    }

    /// A figure, 0 in place of a negative one.
    std::size_t amount() { return static_cast<std::size_t>(std::max(0, figure())); }

    /// Four bits in one byte: '0' is none of them, '?' all.
    unsigned bits() { return static_cast<unsigned>(figure()) % 16; }

    /// Up to `most`, in two bytes, the higher one first.
    std::size_t wideAmount(std::size_t most) {
        const auto high = static_cast<unsigned char>(letter());
        const auto low = static_cast<unsigned char>(letter());
        return (high * 256U + low) % (most + 1);
    }

    /// The bytes up to a line feed, which is skipped, but at most `most`.
    std::string line(std::size_t most) {
        const std::string_view text = take(std::min(most, rest_.find('\n')));
        if (!rest_.empty() && rest_.front() == '\n') {
            rest_.remove_prefix(1);
        }
        return std::string(text);
    }

    /// All that has not been read yet.
    std::string_view rest() const { return rest_; }

private:
    std::string_view take(std::size_t count) {
        const std::string_view taken = rest_.substr(0, count);
        rest_.remove_prefix(taken.size());
        last_ = taken.empty() ? '\0' : taken.back();
        return taken;
    }

    std::string_view rest_;
    char last_ = '\0';
};

/// The text up to its first NUL, as C functions take it.
inline std::string untilNul(std::string text) {
    text.resize(std::min(text.find('\0'), text.size()));
    return text;
}

} // namespace fuzz

#endif // OVARD_TESTS_FUZZ_INPUT_H
