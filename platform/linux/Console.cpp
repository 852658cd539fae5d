#include "platform/Console.h"

#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/UniqueFd.h"
#include "platform/linux/FixedText.h"

namespace platform {
namespace {

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
    char buffer[256];
    ErrorText text;
    text.add(::strerror_r(error, buffer, sizeof buffer));
    return text;
}

#endif

void writeKeepingErrno(int fd, std::string_view text) {
    const int savedErrno = errno;
    (void)writeFully(fd, text.data(), text.size()); // nobody could be told of a failure
    errno = savedErrno;
}

iovec piece(std::string_view text) {
    return {const_cast<char*>(text.data()), text.size()};
}

} // namespace

void printConsole(std::string_view text) {
    writeKeepingErrno(STDOUT_FILENO, text);
}

void printErrorText(std::string_view text) {
    writeKeepingErrno(STDERR_FILENO, text);
}

void printError(const char* text) {
    const int savedErrno = errno;
    const bool hasText = text != nullptr && *text != '\0';
    const ErrorText description = errorText(savedErrno);
    const iovec pieces[] = {piece(hasText ? text : ""), piece(hasText ? ": " : ""),
                            piece(description.view()), piece("\n")};
    while (::writev(STDERR_FILENO, pieces, 4) < 0 && errno == EINTR) {
    }
    errno = savedErrno;
}

} // namespace platform
