// Socket calls by script.

#include "platform/Socket.h"

#include "platform/System.h"
#include "platform/Text.h"
#include "tests/fakes/FakePlatform.h"

using fakes::joined;
using fakes::Lock;
using fakes::world;

namespace {

int takeDescriptor(std::deque<fakes::Result>& script) {
    if (script.empty()) {
        return world().newDescriptor();
    }
    return static_cast<int>(fakes::takeResult(script, -1));
}

int takeStatus(std::deque<fakes::Result>& script) {
    return static_cast<int>(fakes::takeResult(script, 0));
}

} // namespace

namespace platform {

int openUnixStreamSocket() {
    const Lock lock;
    world().record("socket");
    return takeDescriptor(world().socketResults);
}

int addNonBlockingFlag(int fd) {
    const Lock lock;
    world().record(joined("nonblock", fd));
    return takeStatus(world().nonBlockingResults);
}

int allowAddressReuse(int fd) {
    const Lock lock;
    world().record(joined("reuse", fd));
    return takeStatus(world().reuseResults);
}

int bindSocket(int fd, const sockaddr_un& address) {
    const Lock lock;
    const std::string path(fieldText(address.sun_path));
    world().record(joined("bind", fd, path));
    const int status = takeStatus(world().bindResults);
    if (status == 0) {
        world().fileNumbers[path] = static_cast<ino_t>(fd); // no other file has it
    }
    return status;
}

int listenOnSocket(int fd, int backlog) {
    const Lock lock;
    world().record(joined("listen", fd, backlog));
    return takeStatus(world().listenResults);
}

int acceptConnection(int fd, sockaddr_un& peer) {
    const Lock lock;
    world().record(joined("accept", fd));
    const int connection = takeDescriptor(world().acceptResults);
    if (connection >= 0) {
        peer.sun_family = AF_UNIX; // clients have no name of their own
    }
    return connection;
}

ssize_t receiveBytes(int fd, void* buffer, std::size_t size) {
    const Lock lock;
    world().record(joined("recv", fd, size));
    return fakes::takeInput(world().receives, buffer, size);
}

ssize_t sendBytes(int fd, const void* buffer, std::size_t size) {
    std::function<void(int)> hook;
    {
        const Lock lock;
        world().record(joined("send", fd, size));
        hook = world().onSend;
    }
    if (hook) {
        hook(fd);
    }
    const Lock lock;
    const std::int64_t count =
        fakes::takeResult(world().sendResults, static_cast<std::int64_t>(size));
    if (count > 0) {
        world().sent.push_back(
            {fd, std::string(static_cast<const char*>(buffer), static_cast<std::size_t>(count))});
    }
    return static_cast<ssize_t>(count);
}

int duplicateConnection(int fd) {
    const Lock lock;
    return static_cast<int>(fakes::takeResult(world().duplicateResults, fd));
}

void shutDownWriting(int fd) {
    world().record(joined("shutdown", fd));
}

} // namespace platform
