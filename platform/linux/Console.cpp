#include "platform/Console.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "platform/linux/FixedText.h"

namespace platform {
namespace {

/// One line of printError; the texts handed in are short.
constexpr std::size_t kErrorLineSize = 1024;

/// Large enough for "Unknown error N" and for every text of the C library.
using ErrorText = FixedText<256>;

#if __GLIBC_PREREQ(2, 32)

ErrorText errorText(int error) {
    ErrorText text;
    const char* description = ::strerrordesc_np(error);
    if (description != nullptr) {
        text.add(description);
    } else {
        text.add("Unknown error ").addNumber(error);
    }
    return text;
}

#else

ErrorText errorText(int error) {
    ErrorText text;
    if (error >= 0 && error < sys_nerr) {
        text.add(sys_errlist[error]); // strerror would take the locks of message catalogues
    } else {
        text.add("Unknown error ").addNumber(error);
    }
    return text;
}

#endif

/// How long a reader that takes nothing is waited for, and what is written at once: a pipe that is
/// ready takes that much without waiting.
constexpr int kPatienceMs = 1000;
constexpr std::size_t kPieceSize = PIPE_BUF;

/// Set while the reader of a descriptor takes nothing: it is then not waited for again.
std::atomic<bool> readerIsStalled[STDERR_FILENO + 1];

bool isReadyForWriting(int fd) {
    pollfd entry = {fd, POLLOUT, 0};
    const int ready = ::poll(&entry, 1, readerIsStalled[fd] ? 0 : kPatienceMs);
    if (ready == 0) {
        readerIsStalled[fd] = true;
    }
    return ready > 0 || errno == EINTR;
}

/// Writes what the reader takes. The rest is dropped: a stopped terminal or a full pipe must not
/// hold the monitor. Keeps errno; nobody could be told of a failure.
void writeBounded(int fd, std::string_view text) {
    const int savedErrno = errno;
    errno = 0;
    while (!text.empty() && isReadyForWriting(fd)) {
        const ssize_t count = ::write(fd, text.data(), std::min(text.size(), kPieceSize));
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
            readerIsStalled[fd] = false;
        } else if (errno != EINTR) {
            break;
        }
        errno = 0;
    }
    errno = savedErrno;
}

} // namespace

void printConsole(std::string_view text) {
    writeBounded(STDOUT_FILENO, text);
}

void printErrorText(std::string_view text) {
    writeBounded(STDERR_FILENO, text);
}

void printError(const char* text) {
    const int savedErrno = errno;
    FixedText<kErrorLineSize> line;
    if (text != nullptr && *text != '\0') {
        line.add(text).add(": ");
    }
    printErrorText(line.add(errorText(savedErrno).view()).add("\n").view());
    errno = savedErrno;
}

} // namespace platform
