#include "client/ovardctl/PrintableText.h"

#include <cstdio>

namespace ovardctl {
namespace {

bool isPrintable(unsigned char byte) {
    return byte >= 0x20 && byte < 0x7f;
}

} // namespace

std::string printable(std::string_view text, std::string_view kept) {
    std::string result;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (isPrintable(byte) || kept.find(character) != std::string_view::npos) {
            result += character;
        } else {
            char escape[5];
            (void)std::snprintf(escape, sizeof escape, "\\x%02x", byte); // always four characters
            result += escape;
        }
    }
    return result;
}

} // namespace ovardctl
