#include "client/ovardctl/EscapedText.h"

#include <charconv>
#include <cstddef>
#include <cstdio>
#include <system_error>

namespace ovardctl {
namespace {

constexpr std::size_t kEscapeLength = 4;

bool isPrintable(char character) {
    return character >= ' ' && character <= '~';
}

std::string hexEscape(char character) {
    char escape[kEscapeLength + 1];
    (void)std::snprintf(escape, sizeof escape, "\\x%02x",
                        static_cast<unsigned>(static_cast<unsigned char>(character)));
    return escape;
}

/// Length of the escape at the beginning of `text`, which it appends to `bytes`; 0 for none.
std::size_t takeEscape(std::string_view text, std::string& bytes) {
    if (text.substr(0, 2) == "\\\\") {
        bytes += '\\';
        return 2;
    }
    if (text.substr(0, 2) != "\\x" || text.size() < kEscapeLength) {
        return 0;
    }
    unsigned value = 0;
    const char* const end = text.data() + kEscapeLength;
    const std::from_chars_result result = std::from_chars(text.data() + 2, end, value, 16);
    if (result.ec != std::errc() || result.ptr != end) {
        return 0;
    }
    bytes += static_cast<char>(value);
    return kEscapeLength;
}

} // namespace

std::string escaped(std::string_view bytes) {
    std::string text;
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        const char character = bytes[index];
        const bool isAtEnd = index == 0 || index + 1 == bytes.size();
        if (character == '\\') {
            text += "\\\\";
        } else if (isPrintable(character) && !(character == ' ' && isAtEnd)) {
            text += character;
        } else {
            text += hexEscape(character);
        }
    }
    return text;
}

std::string unescape(std::string_view text, std::string& bytes) {
    bytes.clear();
    while (!text.empty()) {
        const char character = text.front();
        std::size_t length = 1;
        if (character == '\\') {
            length = takeEscape(text, bytes);
            if (length == 0) {
                return "a backslash begins \\\\ or \\xNN with two hexadecimal digits";
            }
        } else if (isPrintable(character) || character == '\t') {
            bytes += character;
        } else {
            return "there is a byte that is not printable ASCII; write it as " +
                   hexEscape(character);
        }
        text.remove_prefix(length);
    }
    return {};
}

} // namespace ovardctl
