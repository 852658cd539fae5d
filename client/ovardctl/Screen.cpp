#include "client/ovardctl/Screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>

namespace ovardctl {

Screen examineScreen(int fd, const char* term, const char* noColour) {
    Screen screen;
    const bool isDumb = term == nullptr || *term == '\0' || std::strcmp(term, "dumb") == 0;
    screen.redraws = ::isatty(fd) == 1 && !isDumb;
    screen.colour = screen.redraws && (noColour == nullptr || *noColour == '\0');
    winsize size = {};
    if (screen.redraws && ::ioctl(fd, TIOCGWINSZ, &size) == 0) {
        screen.rows = size.ws_row;
        screen.columns = size.ws_col;
    }
    return screen;
}

} // namespace ovardctl
