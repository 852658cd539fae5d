// The system log of a sandbox: what programs send to /dev/log becomes the lines of a file.

#ifndef OVARD_TESTS_SANDBOX_LOG_CAPTURE_H
#define OVARD_TESTS_SANDBOX_LOG_CAPTURE_H

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <string>

namespace sandbox {

inline constexpr const char* kLogSocket = "/dev/log";
inline constexpr const char* kLogFile = "/var/log/daemon.log";

/// A socket for the log that has no name yet; reading it never waits. -1 with errno.
inline int makeLogSocket() {
    return ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

/// Makes it the one that programs log to, writable by everybody. False with errno.
inline bool bindLogSocket(int fd) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (void)std::snprintf(address.sun_path, sizeof address.sun_path, "%s", kLogSocket);
    return ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
           ::chmod(kLogSocket, 0666) == 0;
}

/// The file that gets the lines. -1 with errno.
inline int openLogFile() {
    return ::open(kLogFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

/// A datagram as one line: without NULs and line feeds at its end, "#012" for those within.
inline std::string logLine(const char* data, std::size_t size) {
    while (size > 0 && (data[size - 1] == '\0' || data[size - 1] == '\n')) {
        --size;
    }
    std::string line;
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] == '\n') {
            line += "#012";
        } else {
            line += data[i];
        }
    }
    return line + '\n';
}

/// Appends every datagram that waits at the socket to the file, each before the next one is read.
/// One without any bytes leaves nothing: who sees it read knows that those before it are in the
/// file. False with errno when it cannot.
inline bool captureLog(int socketFd, int fileFd) {
    static std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t size = ::recv(socketFd, buffer.data(), buffer.size(), 0);
        if (size == -1 && errno == EINTR) {
            continue;
        }
        if (size == -1) {
            return true;
        }
        if (size == 0) {
            continue;
        }
        const std::string line = logLine(buffer.data(), static_cast<std::size_t>(size));
        if (::write(fileFd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
            return false;
        }
    }
}

} // namespace sandbox

#endif // OVARD_TESTS_SANDBOX_LOG_CAPTURE_H
