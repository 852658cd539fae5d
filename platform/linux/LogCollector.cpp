#include "platform/linux/LogCollector.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace platform {
namespace {

constexpr char kCollectorPath[] = "/dev/log";
constexpr char kEndOfMessage = '\0'; ///< in a stream

sockaddr_un collectorAddress() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    static_assert(sizeof kCollectorPath <= sizeof address.sun_path);
    std::memcpy(address.sun_path, kCollectorPath, sizeof kCollectorPath);
    return address;
}

/// Part of a message. sendmsg only reads it.
iovec part(std::string_view text) {
    return {const_cast<char*>(text.data()), text.size()};
}

/// Sends over a connection of its own, for collectors that listen to a stream; a NUL ends the
/// message there. Waits for nothing.
bool sendOverStream(std::string_view head, std::string_view text) {
    const UniqueFd stream(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = collectorAddress();
    if (!stream.valid() ||
        ::connect(stream.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return false;
    }
    iovec parts[] = {part(head), part(text), part({&kEndOfMessage, 1})};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = 3;
    return ::sendmsg(stream.get(), &message, MSG_NOSIGNAL) ==
           static_cast<ssize_t>(head.size() + text.size() + 1);
}

} // namespace

bool LogCollector::open() {
    if (!socket_.valid()) {
        socket_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        timeval patience = {};
        patience.tv_usec = kPatienceMs * 1000L;
        if (socket_.valid() &&
            ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) != 0) {
            socket_.reset();
        }
    }
    return socket_.valid();
}

bool LogCollector::send(std::string_view head, std::string_view text) {
    if (!open()) {
        return false;
    }
    sockaddr_un address = collectorAddress();
    iovec parts[] = {part(head), part(text)};
    msghdr message = {};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const int patience = isStuck_ ? MSG_DONTWAIT : 0;
    ssize_t sent = ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL | patience);
    if (sent < 0 &&
        errno == EINTR) { // Signals that keep coming would prolong the waiting for ever.
        sent = ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    if (sent < 0 && errno == EPROTOTYPE) {
        return sendOverStream(head, text);
    }
    isStuck_ = sent < 0 && errno == EAGAIN;
    return sent >= 0;
}

} // namespace platform
