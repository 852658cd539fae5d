#include "platform/Socket.h"

#include <fcntl.h>
#include <unistd.h>

namespace platform {

int openUnixStreamSocket() {
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

int addNonBlockingFlag(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    return flags < 0 ? -1 : ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

int allowAddressReuse(int fd) {
    const int enabled = 1;
    return ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &enabled, sizeof enabled);
}

int bindSocket(int fd, const sockaddr_un& address) {
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

int listenOnSocket(int fd, int backlog) {
    return ::listen(fd, backlog);
}

int acceptConnection(int fd, sockaddr_un& peer) {
    socklen_t size = sizeof peer;
    return ::accept4(fd, reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC);
}

ssize_t receiveBytes(int fd, void* buffer, std::size_t size) {
    return ::recv(fd, buffer, size, MSG_DONTWAIT);
}

ssize_t sendBytes(int fd, const void* buffer, std::size_t size) {
    return ::send(fd, buffer, size, MSG_NOSIGNAL);
}

int duplicateConnection(int fd) {
    return ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
}

void shutDownWriting(int fd) {
    (void)::shutdown(fd, SHUT_WR); // a socket that never was connected refuses, and needs nothing
}

} // namespace platform
