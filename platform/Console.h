// Console tracing: standard output and standard error without buffers and without shared streams.

#ifndef OVARD_PLATFORM_CONSOLE_H
#define OVARD_PLATFORM_CONSOLE_H

#include <cstddef>
#include <string_view>

namespace platform {

/// Writes `text` to standard output as it stands, at once; a failure is ignored. A reader that
/// leaves a text waiting for half a second loses the rest, and is not waited for again until it
/// takes a whole one; one of a monitor that is asked to end is not waited for. Any thread; texts of
/// one call stay together up to 4096 bytes.
void printConsole(std::string_view text);

/// As printConsole, followed by a line end. At most 1023 characters, the rest is cut.
inline void printConsoleLine(std::string_view text) {
    char line[1024];
    const std::size_t length = text.copy(line, sizeof line - 1);
    line[length] = '\n';
    printConsole({line, length + 1});
}

/// What perror does, without its shared stream: "TEXT: ERRNO TEXT" and a line end on standard
/// error, for the errno at the call. Keeps errno. Async-signal-safe, so that it may be called
/// between fork and exec.
void printError(const char* text);

/// The part of printError that shows `text` as it stands on standard error.
void printErrorText(std::string_view text);

} // namespace platform

#endif // OVARD_PLATFORM_CONSOLE_H
