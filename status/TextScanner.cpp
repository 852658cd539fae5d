#include "status/TextScanner.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <limits>

namespace status {
namespace {

/// Longest text of a floating-point number that is looked at.
constexpr std::size_t kNumberSize = 64;

/// isspace of the C locale.
bool isBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

} // namespace

std::string_view skipBlanks(std::string_view text) {
    std::size_t blanks = 0;
    while (blanks < text.size() && isBlank(text[blanks])) {
        ++blanks;
    }
    return text.substr(blanks);
}

bool Lines::next(std::string_view& line) {
    while (!rest_.empty()) {
        const std::size_t end = std::min(rest_.find('\n'), rest_.size());
        line = skipBlanks(rest_.substr(0, end));
        rest_.remove_prefix(std::min(end + 1, rest_.size()));
        if (!line.empty()) {
            return true;
        }
    }
    return false;
}

bool Words::next(std::string_view& word) {
    rest_ = skipBlanks(rest_);
    std::size_t length = 0;
    while (length < rest_.size() && !isBlank(rest_[length])) {
        ++length;
    }
    word = rest_.substr(0, length);
    rest_.remove_prefix(length);
    return length > 0;
}

std::int64_t toInt64(std::string_view text) {
    text = skipBlanks(text);
    const bool negative = startsWith(text, "-");
    if (startsWith(text, "+")) {
        text.remove_prefix(1);
        if (startsWith(text, "-")) {
            return 0;
        }
    }
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    (void)end; // What follows the number does not matter.
    if (error == std::errc::result_out_of_range) {
        using Limits = std::numeric_limits<std::int64_t>;
        return negative ? Limits::min() : Limits::max();
    }
    return number;
}

std::int32_t toInt32(std::string_view text) {
    return static_cast<std::int32_t>(toInt64(text));
}

double toDouble(std::string_view text) {
    char number[kNumberSize] = {};
    (void)text.copy(number, sizeof number - 1); // The rest of a longer text does not matter.
    return std::strtod(number, nullptr);
}

} // namespace status
