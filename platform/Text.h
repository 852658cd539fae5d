// Small operations on texts that several floors share.

#ifndef OVARD_PLATFORM_TEXT_H
#define OVARD_PLATFORM_TEXT_H

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace platform {

/// Formatting buffer of a log line, in bytes; longer texts are cut.
inline constexpr std::size_t kLogTextSize = 2048;

/// True when every character of `text` is '0' to '9'. An empty text counts as a number.
bool isAllDigits(const char* text);

/// A fixed-size text field up to its NUL, or the whole field when it has none. Views the field.
template <std::size_t Size> std::string_view fieldText(const char (&field)[Size]) {
    return {field, ::strnlen(field, Size)};
}

/// Forces a NUL at the end of a text field.
template <std::size_t Size> void terminateField(char (&field)[Size]) {
    field[Size - 1] = '\0';
}

/// Copies `source` into `field`, cut to fit, rest of the field zero, always NUL-terminated.
template <std::size_t Size> void copyToField(char (&field)[Size], std::string_view source) {
    std::memset(field, 0, Size);
    source.copy(field, Size - 1);
}

/// printf into a std::string of at most `limit` - 1 characters; longer texts are cut. Never throws
/// on a bad format: the text is then empty.
[[gnu::format(printf, 2, 3)]] std::string formatText(std::size_t limit, const char* format, ...);

} // namespace platform

#endif // OVARD_PLATFORM_TEXT_H
