// What a stream leads to, and the escape sequences for a terminal.

#ifndef OVARD_CLIENT_OVARDCTL_SCREEN_H
#define OVARD_CLIENT_OVARDCTL_SCREEN_H

#include <cstddef>

namespace ovardctl {

/// Erases from the cursor to the end of its line.
inline constexpr const char* kClearLine = "\x1b[K";

/// Where the output goes to.
struct Screen {
    bool redraws = false; ///< a terminal that understands escape sequences
    bool colour = false;
    std::size_t rows = 0;    ///< of the terminal; 0 where unknown
    std::size_t columns = 0; ///< likewise
};

/// What `fd` leads to. `term` and `noColour` are the values of TERM and NO_COLOR, null where they
/// are not set: no sequences without a terminal type or for a dumb one, no colours with a NO_COLOR
/// that is not empty.
Screen examineScreen(int fd, const char* term, const char* noColour);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_SCREEN_H
