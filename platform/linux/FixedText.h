// Building short texts on the stack, where neither the heap nor stdio may be used.

#ifndef OVARD_PLATFORM_LINUX_FIXED_TEXT_H
#define OVARD_PLATFORM_LINUX_FIXED_TEXT_H

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace platform {

/// A text of at most `Size` - 1 characters in a buffer of its own, always NUL-terminated. What does
/// not fit is cut. Async-signal-safe.
template <std::size_t Size> class FixedText {
public:
    FixedText() { buffer_[0] = '\0'; }

    FixedText& add(std::string_view text) {
        const std::size_t count = std::min(text.size(), Size - 1 - length_);
        text.copy(buffer_ + length_, count);
        length_ += count;
        buffer_[length_] = '\0';
        wasCut_ = wasCut_ || count < text.size();
        return *this;
    }

    FixedText& addNumber(std::int64_t number) {
        char digits[kMaxDigits];
        return add({digits, formatDigits(digits, number)});
    }

    /// `number` with zeros in front of it, so that it has at least `width` digits.
    FixedText& addPadded(std::uint64_t number, std::size_t width) {
        char digits[kMaxDigits];
        const std::size_t count = formatDigits(digits, number);
        for (std::size_t missing = count; missing < width; ++missing) {
            add("0");
        }
        return add({digits, count});
    }

    std::string_view view() const { return {buffer_, length_}; }
    const char* c_str() const { return buffer_; }

    /// True when something did not fit.
    bool wasCut() const { return wasCut_; }

private:
    static constexpr std::size_t kMaxDigits = 20;

    template <typename Number>
    static std::size_t formatDigits(char (&digits)[kMaxDigits], Number number) {
        return static_cast<std::size_t>(std::to_chars(digits, digits + kMaxDigits, number).ptr -
                                        digits);
    }

    char buffer_[Size];
    std::size_t length_ = 0;
    bool wasCut_ = false;
};

} // namespace platform

#endif // OVARD_PLATFORM_LINUX_FIXED_TEXT_H
