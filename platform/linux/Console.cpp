#include "platform/Console.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "platform/Settings.h"
#include "platform/Time.h"
#include "platform/UniqueFd.h"
#include "platform/Wait.h"
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

/// How long one text waits for a reader that takes nothing.
constexpr int kPatienceMs = 500;

/// Within it, how often is looked whether the monitor is asked to end.
constexpr int kSliceMs = 50;

/// Set while the reader of a descriptor takes nothing: it is then not waited for again.
std::atomic<bool> readerIsStalled[STDERR_FILENO + 1];

/// How a standard descriptor is written to without ever blocking.
///
/// A terminal or a pipe is opened once more for that: its flags are shared with the shell and with
/// the applications. Where it cannot be, for want of descriptors, it is looked at before each
/// piece.
class Sink {
public:
    explicit Sink(int fd)
        : fd_(fd) {
        struct stat facts = {};
        const bool known = ::fstat(fd, &facts) == 0;
        const bool isTerminal = known && S_ISCHR(facts.st_mode);
        if (isTerminal || (known && S_ISFIFO(facts.st_mode))) {
            twin_ = openAgain(fd);
        }
        // A pipe that can be written takes this much at once, a terminal no more than a character.
        piece_ = isTerminal ? 1 : PIPE_BUF;
    }

    /// Writes what can be written at once. -1 with errno, EAGAIN when that is nothing.
    ssize_t writeAtOnce(std::string_view text) const {
        if (twin_.valid()) {
            return ::write(twin_.get(), text.data(), text.size());
        }
        const ssize_t count = ::send(fd_, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0 || errno != ENOTSOCK) {
            return count;
        }
        pollfd entry = {fd_, POLLOUT, 0};
        if (::poll(&entry, 1, 0) != 1) {
            errno = EAGAIN;
            return -1;
        }
        return ::write(fd_, text.data(), std::min(text.size(), piece_));
    }

private:
    static UniqueFd openAgain(int fd) {
        const char path[] = {'/', 'p', 'r', 'o', 'c',
                             '/', 's', 'e', 'l', 'f',
                             '/', 'f', 'd', '/', static_cast<char>('0' + fd),
                             '\0'};
        return UniqueFd(::open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    }

    int fd_;
    UniqueFd twin_;
    std::size_t piece_ = 0;
};

/// Waits a while for the reader; false when the time is over, which it is once the monitor is asked
/// to end.
bool awaitReader(int fd, std::int64_t deadline) {
    const std::int64_t leftMs = deadline - monotonicMilliseconds();
    if (leftMs <= 0 || readerIsStalled[fd] || terminationPending() || g_bDaemonShutdown != 0) {
        readerIsStalled[fd] = true;
        return false;
    }
    pollfd entry = {fd, POLLOUT, 0};
    // The next attempt tells what came of it.
    (void)::poll(&entry, 1, static_cast<int>(std::min<std::int64_t>(leftMs, kSliceMs)));
    return true;
}

/// Writes what the reader takes. The rest is dropped: a stopped terminal or a full pipe must not
/// hold the monitor. Keeps errno; nobody could be told of a failure.
void writeBounded(int fd, std::string_view text) {
    const int savedErrno = errno;
    const std::int64_t deadline = monotonicMilliseconds() + kPatienceMs;
    const Sink sink(fd);
    while (!text.empty()) {
        const ssize_t count = sink.writeAtOnce(text);
        if (count > 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (count == 0 || (errno == EAGAIN ? !awaitReader(fd, deadline) : errno != EINTR)) {
            break;
        }
    }
    if (text.empty()) {
        readerIsStalled[fd] = false;
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
