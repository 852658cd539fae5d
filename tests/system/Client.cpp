#include "tests/system/Client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace systemtest {
namespace {

/// __SO_ACCEPTCON in the flags of /proc/net/unix, and SS_CONNECTING among its states.
constexpr const char* kListening = "00010000";
constexpr const char* kConnecting = "02";

/// /proc/net/unix shows a socket of the control socket's path of which that holds.
template <typename Predicate> bool anyControlSocket(Predicate holds) {
    for (const std::string& line : linesOf(readFile("/proc/net/unix"))) {
        std::istringstream fields(line);
        std::string number;
        std::string references;
        std::string protocol;
        std::string flags;
        std::string type;
        std::string state;
        std::string inode;
        std::string path;
        fields >> number >> references >> protocol >> flags >> type >> state >> inode >> path;
        if (path == kSocketPath && holds(flags, state)) {
            return true;
        }
    }
    return false;
}

template <std::size_t Size> void fill(char (&field)[Size], const std::string& text) {
    std::memcpy(field, text.data(), std::min(text.size(), Size - 1));
}

} // namespace

reqcmd makeRequest(int action, const std::string& name, const std::string& cmd,
                   const std::string& pidfile) {
    reqcmd request = {};
    request.action = action;
    fill(request.name, name);
    fill(request.cmd, cmd);
    fill(request.pidfile, pidfile);
    return request;
}

std::string bytesOf(const reqcmd& request) {
    return {reinterpret_cast<const char*>(&request), sizeof request};
}

Client::~Client() {
    close();
}

bool Client::connect() {
    close();
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kSocketPath, std::strlen(kSocketPath));
    if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close();
        return false;
    }
    return true;
}

bool Client::send(const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(count);
    }
    return true;
}

bool Client::waitUntilRead(int timeoutMs) const {
    return eventually([this] { return isAllRead(fd_); }, timeoutMs);
}

Received Client::receive(int timeoutMs, std::size_t limit) {
    Received received;
    const std::int64_t deadline = monotonicMs() + timeoutMs;
    while (limit == 0 || received.bytes.size() < limit) {
        const std::int64_t left = std::max<std::int64_t>(deadline - monotonicMs(), 0);
        pollfd entry = {fd_, POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(left)) <= 0) {
            if (left > 0) {
                continue;
            }
            return received;
        }
        char buffer[4096];
        const std::size_t room =
            limit == 0 ? sizeof buffer : std::min(sizeof buffer, limit - received.bytes.size());
        const ssize_t count = ::recv(fd_, buffer, room, 0);
        if (count <= 0) {
            received.ended = true;
            received.reset = count < 0;
            return received;
        }
        received.bytes.append(buffer, static_cast<std::size_t>(count));
    }
    return received;
}

std::optional<response_struct> Client::receiveReply(int timeoutMs) {
    const Received received = receive(timeoutMs, sizeof(response_struct));
    if (received.bytes.size() != sizeof(response_struct)) {
        return std::nullopt;
    }
    response_struct reply = {};
    std::memcpy(&reply, received.bytes.data(), sizeof reply);
    return reply;
}

void Client::endSending() {
    (void)::shutdown(fd_, SHUT_WR); // the other side may have gone
}

void Client::close() {
    if (fd_ >= 0) {
        (void)::close(fd_); // nothing was written that could be lost
        fd_ = -1;
    }
}

std::optional<response_struct> ask(const reqcmd& request, int timeoutMs) {
    Client client;
    if (!sendRequest(client, request)) {
        return std::nullopt;
    }
    return client.receiveReply(timeoutMs);
}

bool sendRequest(Client& client, const reqcmd& request) {
    return client.connect() && client.send(request);
}

void turnMainLoop() {
    Client client;
    (void)client.connect(); // a monitor that is not there shows elsewhere
}

std::string messageOf(const response_struct& reply) {
    return {reply.message, ::strnlen(reply.message, sizeof reply.message)};
}

bool socketListens() {
    return anyControlSocket(
        [](const std::string& flags, const std::string&) { return flags == kListening; });
}

bool clientWaits() {
    return anyControlSocket(
        [](const std::string&, const std::string& state) { return state == kConnecting; });
}

} // namespace systemtest
