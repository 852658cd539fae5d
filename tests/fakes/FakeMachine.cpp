// The machine, its network and its heartbeats.

#include <cstring>

#include "platform/Heartbeat.h"
#include "platform/Network.h"
#include "platform/System.h"
#include "tests/fakes/FakePlatform.h"

using fakes::joined;
using fakes::Lock;
using fakes::world;

namespace {

constexpr int kNoHeartbeat = 3;

} // namespace

namespace platform {

void flushFileSystems() {
    world().record("sync");
}

void raiseDescriptorLimit() {
    world().record("raiseDescriptorLimit");
}

int restartMachine() {
    const Lock lock;
    world().record("restart");
    return static_cast<int>(fakes::takeResult(world().restartResults, 0));
}

long uptimeSeconds() {
    const Lock lock;
    if (world().uptimeSec < 0) {
        errno = world().uptimeErrno;
        return -1;
    }
    return static_cast<long>(world().uptimeSec);
}

long clockTicksPerSecond() {
    const Lock lock;
    return world().clockTicksPerSecond;
}

} // namespace platform

bool isEstablishedTCPconnectionOnPort22(sockaddr_in6* peer) {
    const Lock lock;
    world().record("port22");
    if (world().remoteShellConnected && peer != nullptr) {
        *peer = world().remotePeer;
    }
    return world().remoteShellConnected;
}

const void* get_in_addr(const sockaddr* address) {
    if (address->sa_family == AF_INET) {
        return &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
    }
    return &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
}

void heartbeat_notify() {
    world().record("heartbeat_notify");
}

int heartbeat_check(int pid, int expireSeconds) {
    const Lock lock;
    world().record(joined("heartbeat_check", pid, expireSeconds));
    const auto found = world().heartbeats.find(pid);
    return found != world().heartbeats.end() ? found->second : kNoHeartbeat;
}

void heartbeat_cleanup(int pid) {
    const Lock lock;
    world().record(joined("heartbeat_cleanup", pid));
    world().heartbeats.erase(pid);
}
