// Console tracing gated by verbosity.

#ifndef OVARD_PLATFORM_TRACE_H
#define OVARD_PLATFORM_TRACE_H

#include <cstdarg>
#include <cstdio>

#include "platform/Console.h"

namespace platform {

/// Longest trace, in bytes with its NUL; longer ones are cut. Two command lines and two words of
/// their length fit.
inline constexpr int kTraceSize = 5120;

/// Formats and prints to the console when `wanted`, for example
/// `trace(verbose > 7, "pid=%d\n", pid)`.
[[gnu::format(printf, 2, 3)]] inline void trace(bool wanted, const char* format, ...) {
    if (!wanted) {
        return;
    }
    char text[kTraceSize];
    std::va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(text, sizeof text, format, arguments); // Longer texts are cut.
    va_end(arguments);
    printConsole(text);
}

} // namespace platform

#endif // OVARD_PLATFORM_TRACE_H
