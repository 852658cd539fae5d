// The system's socket calls as the control channel needs them, behind a seam for tests.
//
// Each returns -1 with errno on failure, as the call of the C library does.

#ifndef OVARD_PLATFORM_SOCKET_H
#define OVARD_PLATFORM_SOCKET_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstddef>

namespace platform {

/// A Unix-domain stream socket, non-blocking and close-on-exec.
int openUnixStreamSocket();

/// fcntl(F_GETFL) and fcntl(F_SETFL) with O_NONBLOCK added.
int addNonBlockingFlag(int fd);

/// SO_REUSEADDR := 1.
int allowAddressReuse(int fd);

int bindSocket(int fd, const sockaddr_un& address);
int listenOnSocket(int fd, int backlog);

/// Accepts one connection, blocking and close-on-exec; the peer's address goes to `peer`.
int acceptConnection(int fd, sockaddr_un& peer);

/// One receive call that does not wait: EAGAIN when there is nothing. Wait with waitReadable.
ssize_t receiveBytes(int fd, void* buffer, std::size_t size);

/// One send call that raises no SIGPIPE, not restarted after signals.
ssize_t sendBytes(int fd, const void* buffer, std::size_t size);

/// A second descriptor of the same connection, close-on-exec.
int duplicateConnection(int fd);

/// No more writing on `fd`.
void shutDownWriting(int fd);

} // namespace platform

#endif // OVARD_PLATFORM_SOCKET_H
