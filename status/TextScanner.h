// Reading of the kernel's and of lease texts: lines, words, numbers. Any text is taken.

#ifndef OVARD_STATUS_TEXT_SCANNER_H
#define OVARD_STATUS_TEXT_SCANNER_H

#include <cstdint>
#include <string_view>

namespace status {

/// Walks the lines of a text: without their line feed, without leading white space, empty ones left
/// out. Views the text.
class Lines {
public:
    explicit Lines(std::string_view text)
        : rest_(text) {}

    /// The next line; false at the end.
    bool next(std::string_view& line);

private:
    std::string_view rest_;
};

/// Walks the words of a line, which are separated by runs of white space. Views the line.
class Words {
public:
    explicit Words(std::string_view line)
        : rest_(line) {}

    /// The next word; false at the end.
    bool next(std::string_view& word);

private:
    std::string_view rest_;
};

/// `text` without leading white space.
std::string_view skipBlanks(std::string_view text);

inline bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

/// The decimal number at the beginning of `text`, white space and a sign before it allowed; 0 when
/// there is none. Beyond the range it sticks at the limits.
std::int64_t toInt64(std::string_view text);

/// As toInt64, narrowed to 32 bits: counters wrap, as they do in a 32-bit word.
std::int32_t toInt32(std::string_view text);

/// The floating-point number at the beginning of `text`; 0 when there is none.
double toDouble(std::string_view text);

} // namespace status

#endif // OVARD_STATUS_TEXT_SCANNER_H
