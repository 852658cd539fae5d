#include "platform/Text.h"

#include <cstdarg>
#include <cstdio>

namespace platform {

bool isAllDigits(const char* text) {
    for (; *text != '\0'; ++text) {
        if (*text < '0' || *text > '9') {
            return false;
        }
    }
    return true;
}

std::string formatText(std::size_t limit, const char* format, ...) {
    std::string text(limit, '\0');
    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text.data(), limit, format, arguments);
    va_end(arguments);
    if (length < 0) {
        return {};
    }
    const auto wanted = static_cast<std::size_t>(length);
    text.resize(wanted < limit ? wanted : limit - 1);
    return text;
}

} // namespace platform
