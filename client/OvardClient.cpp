#include "client/OvardClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstring>

#include "platform/UniqueFd.h"

namespace ovard_client {
namespace {

using Clock = std::chrono::steady_clock;

constexpr Outcome kOk{Result::Ok, 0, 0};

Outcome failure(Result result, int systemError) {
    return {result, systemError, 0};
}

/// The point in time at which the whole call has to be over.
class Deadline {
public:
    explicit Deadline(std::int32_t timeoutMs)
        : end_(Clock::now() + std::chrono::milliseconds(timeoutMs)) {}

    std::chrono::microseconds left() const {
        const auto span =
            std::chrono::duration_cast<std::chrono::microseconds>(end_ - Clock::now());
        return std::max(span, std::chrono::microseconds::zero());
    }

private:
    Clock::time_point end_;
};

/// Bounds a blocking connect by the time left. False with errno when that is not possible.
bool limitConnect(int fd, std::chrono::microseconds span) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(span);
    timeval limit{};
    limit.tv_sec = static_cast<decltype(limit.tv_sec)>(seconds.count());
    limit.tv_usec = static_cast<decltype(limit.tv_usec)>((span - seconds).count());
    return ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
}

Outcome connectFailure(int error) {
    switch (error) {
    case ENOENT:
    case ECONNREFUSED:
        return failure(Result::NoMonitor, error);
    case EAGAIN:
        return failure(Result::TimedOut, error);
    default:
        return failure(Result::SystemError, error);
    }
}

/// Connects within the deadline. The call blocks rather than polls, because a local connect that
/// finds the listener's queue full cannot be waited for with poll.
Outcome connectTo(int fd, const sockaddr_un& address, const Deadline& deadline) {
    for (;;) {
        const std::chrono::microseconds left = deadline.left();
        if (left.count() == 0) {
            return failure(Result::TimedOut, 0);
        }
        if (!limitConnect(fd, left)) {
            return failure(Result::SystemError, errno);
        }
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            return kOk;
        }
        if (errno != EINTR) {
            return connectFailure(errno);
        }
    }
}

/// Waits until `events` are possible on the connection.
Outcome waitFor(int fd, short events, const Deadline& deadline) {
    for (;;) {
        const std::chrono::microseconds left = deadline.left();
        if (left.count() == 0) {
            return failure(Result::TimedOut, 0);
        }
        // Rounded up, so that the last part of a millisecond is not spent in a busy loop.
        const auto spanMs = std::min<std::int64_t>(left.count() / 1000 + 1, INT_MAX);
        pollfd entry{fd, events, 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(spanMs));
        if (ready > 0) {
            return kOk;
        }
        if (ready < 0 && errno != EINTR) {
            return failure(Result::SystemError, errno);
        }
    }
}

/// Repeats `step(offset)`, which transfers some bytes without blocking, until `size` bytes are
/// through.
template <typename Step>
Outcome transfer(int fd, short events, std::size_t size, const Deadline& deadline, Step step) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = step(done);
        if (count > 0) {
            done += static_cast<std::size_t>(count);
            continue;
        }
        if (count == 0 || errno == EPIPE || errno == ECONNRESET) {
            return failure(Result::ConnectionClosed, count == 0 ? 0 : errno);
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            return failure(Result::SystemError, errno);
        }
        const Outcome waited = waitFor(fd, events, deadline);
        if (waited.result != Result::Ok) {
            return waited;
        }
    }
    return kOk;
}

Outcome sendWhole(int fd, const reqcmd& request, const Deadline& deadline) {
    const auto* bytes = reinterpret_cast<const char*>(&request);
    return transfer(fd, POLLOUT, sizeof request, deadline, [=](std::size_t done) {
        return ::send(fd, bytes + done, sizeof(reqcmd) - done, MSG_NOSIGNAL | MSG_DONTWAIT);
    });
}

Outcome receiveWhole(int fd, response_struct& reply, const Deadline& deadline) {
    auto* bytes = reinterpret_cast<char*>(&reply);
    return transfer(fd, POLLIN, sizeof reply, deadline, [=](std::size_t done) {
        return ::recv(fd, bytes + done, sizeof(response_struct) - done, MSG_DONTWAIT);
    });
}

bool isValid(const Endpoint& endpoint) {
    // An empty path would name a socket of the abstract namespace.
    return endpoint.socketPath != nullptr && endpoint.socketPath[0] != '\0' &&
           endpoint.timeoutMs >= 1;
}

/// Fills a socket address; false when the path does not fit.
bool makeAddress(const char* path, sockaddr_un& address) {
    const std::size_t length = std::strlen(path);
    if (length >= sizeof address.sun_path) {
        return false;
    }
    address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, length);
    return true;
}

/// Sends over a connection that is being made, and receives unless the request says otherwise.
Outcome exchange(int fd, const sockaddr_un& address, const reqcmd& request, response_struct* reply,
                 const Deadline& deadline) {
    const Outcome connected = connectTo(fd, address, deadline);
    if (connected.result != Result::Ok) {
        return connected;
    }
    Outcome outcome = sendWhole(fd, request, deadline);
    if (outcome.result != Result::Ok) {
        return outcome;
    }
    if (reply != nullptr && request.nowait == 0) {
        response_struct received;
        outcome = receiveWhole(fd, received, deadline);
        if (outcome.result == Result::Ok) {
            *reply = received;
        }
    }
    outcome.requestSent = 1;
    return outcome;
}

} // namespace

Outcome sendRequest(const Endpoint* endpoint, const reqcmd* request,
                    response_struct* reply) noexcept {
    if (endpoint == nullptr || !isValid(*endpoint) || request == nullptr ||
        (reply == nullptr && request->nowait == 0)) {
        return failure(Result::SystemError, EINVAL);
    }
    sockaddr_un address;
    if (!makeAddress(endpoint->socketPath, address)) {
        return failure(Result::SystemError, ENAMETOOLONG);
    }
    const Deadline deadline(endpoint->timeoutMs);
    const platform::UniqueFd connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!connection.valid()) {
        return failure(Result::SystemError, errno);
    }
    return exchange(connection.get(), address, *request, reply, deadline);
}

} // namespace ovard_client
